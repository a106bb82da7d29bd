// Which device this process works with, where several are attached. Where nobody chooses, the
// library takes the first one at each opening. A choice holds for all objects of the process from
// the next question for a device on, also for one in work, so choose ahead of the first operation.
// Any thread.
#pragma once

#include "platform/export.h"
#include "platform/types.h"

namespace platform {

// The devices that are attached now, chosen or not, in the order in which the library would take
// them: their names, each with its terminator, and one terminator more behind the last. On Windows
// a device's name is the path of its interface. lpNames may be null with dwSize 0.
// ERROR_SUCCESS, also with no device at all; ERROR_MORE_DATA with the bytes that are needed in
// *lpdwSize; or why the devices cannot be looked at, with nothing stored: ERROR_ACCESS_DENIED and
// ERROR_PATH_NOT_FOUND are about the folder in which they are found.
DAK_API DWORD ListDevices(char* lpNames, DWORD* lpdwSize);

// Works with the device of this name and no other. A device that goes is gone for good, also when
// another one comes up under its name (on Windows the path is all that tells them apart). FALSE
// when no such device is attached: the process then has none until it chooses again. A null name
// takes the choice back; then $DAK_DEVICE, where it is set and not empty, is the name of the one
// device that counts, whoever has it at the moment.
DAK_API BOOL ChooseDevice(const char* lpszName);

} // namespace platform
