// The device node: the host's half of a pipe of USB transfers over a stream socket.
#pragma once

#include "platform/types.h"

namespace platform::posix {

// Connects to the device whose socket has this path, without waiting for it. Null, with the error
// number, when there is none, or it takes no connection. The handle serves ReadFile, WriteFile and
// CloseHandle. May throw std::bad_alloc.
HANDLE OpenUsbNode(const char* lpszSocketPath);

} // namespace platform::posix
