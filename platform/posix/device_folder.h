// The folder through which processes meet devices and one another, from the host's side.
#pragma once

#include "platform/posix/descriptors.h"

#include <mutex>
#include <string>
#include <vector>

namespace platform::posix {

enum class FolderUse { LookOnly, MakeIfMissing };

// Opens the folder for names relative to it (O_PATH); none, with errno, when it is missing or may
// not be used (device_place.h). Only a default one is made, never those above it.
CDescriptor OpenDeviceFolder(FolderUse use, std::string* lpPath = nullptr);

// A device that is attached.
struct ATTACHEDDEVICE {
    std::string strName;
    // Never empty, and of this agent alone: not of another one that has taken the name over.
    std::string strIdentity;
    bool operator==(const ATTACHEDDEVICE&) const = default;
};

// The devices that are attached now, in the byte order of their names, and the folder that holds
// their sockets. Takes nothing and sends nothing. False, with errno, when the folder may not be
// used, or this user may make no files in it; a missing one is no failure. May throw
// std::bad_alloc.
bool ListAttachedDevices(std::vector<ATTACHEDDEVICE>& devices, std::string& strClassFolder);

// For the fork guard alone: held while the choice of a device changes or is looked at.
std::mutex& DeviceChoiceMutex();

} // namespace platform::posix
