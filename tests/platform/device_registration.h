// A device of the interface class in the system's lists, for tests on a system that has no driver
// for one. The path that the lists give leads to a named pipe of this process.
#pragma once

#include "platform/types.h"

namespace device_test {

// A test without its device proves nothing: ends the program, saying what could not be done.
void Require(bool bDone, const char* lpszWhat);

// Enters the device, absent, and leads its path to the pipe for as long as the handle is open.
HANDLE RegisterDevice();
void SetPresent(bool bPresent);

// A further instance of the pipe, for overlapped calls.
HANDLE MakePipe();

} // namespace device_test
