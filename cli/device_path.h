// Paths of the device as a person writes them, and as the library takes them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace cli {

// The path from the device's root on: one leading separator, backslashes between the components,
// none at the end, no empty or "." components; the root itself is "\". Either slash is taken, and a
// path without a leading one starts at the root as well. Nothing for empty text or text that is not
// UTF-8.
std::optional<std::string> NormalDevicePath(std::string_view strPath);

// The folder that holds a normal path, and the path's last component. The root is in no folder: it
// has the root as its folder and an empty name.
struct DEVICEPATH {
    std::string strFolder;
    std::string strName;
};
DEVICEPATH SplitDevicePath(const std::string& strNormalPath);

// Whether a path as it was written ends in a separator, and so names a folder.
bool NamesFolder(std::string_view strPath);

// Why no device takes a normal path, or one below a folder; null when one may. A device keeps names
// for itself, and no path leads above its root.
const char* DevicePathFault(std::string_view strPath);

// A normal folder path and a name below it.
std::string JoinDevicePath(const std::string& strFolder, std::string_view strName);

} // namespace cli
