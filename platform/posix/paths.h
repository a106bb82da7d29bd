#pragma once

#include <string>
#include <string_view>

namespace platform::posix {

// A device path opens with this mark and is otherwise the socket's path as it stands; no host path
// begins so.
inline constexpr std::string_view DEVICE_PATH_MARK = "\\\\?\\";

// A path of the platform as a path of the system: both slashes separate. False, with the error
// number, for a path that is null, empty or too long. May throw std::bad_alloc.
bool HostPath(const char* lpPath, std::string& strPath);

} // namespace platform::posix
