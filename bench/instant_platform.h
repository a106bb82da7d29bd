// A platform for measuring the library's own work: no wait lasts, a thread runs inside its own
// creation, and the device is a function call away. It serves one thread and one operation: a write
// or a read of a device file.
#pragma once

#include "platform/types.h"

namespace instant {

// The bytes that the device's file gives in the next read.
void SetReadSize(DWORD dwBytes);

} // namespace instant
