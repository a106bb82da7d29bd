// The seam: the message that tells an application of the end of a job. Any thread.
#pragma once

#include "platform/types.h"

namespace platform {

// Puts the message into the queue of hWnd and returns without waiting for its receipt. FALSE, and
// no harm, when hWnd is no window that is alive. The handle is looked up, never followed.
BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);

} // namespace platform
