// The folder through which processes meet devices and one another: $DAK_DEVICE_DIR, else
// $XDG_RUNTIME_DIR/dak, else /tmp/dak-UID.
#pragma once

#include "platform/posix/descriptors.h"
#include "platform/types.h"

#include <string>
#include <vector>

namespace platform::posix {

struct DEVICEFOLDER {
    CDescriptor descriptor; // for names relative to it only (O_PATH)
    std::string strPath;
};

enum class FolderUse { LookOnly, MakeIfMissing };

// Opens the folder; none, with errno, when it is missing, or is one of the two default ones and a
// symbolic link or another user's. May throw std::bad_alloc.
DEVICEFOLDER OpenDeviceFolder(FolderUse use);

// The names of the devices of a class that are attached now, in byte order. Takes nothing and
// sends nothing. False, with errno, when the folder may not be used; a missing one is no failure.
// May throw std::bad_alloc.
bool ListAttachedDevices(const GUID& classGuid, std::vector<std::string>& names,
                         std::string& strClassFolder);

} // namespace platform::posix
