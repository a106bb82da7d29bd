// For applications without windows of their own: a message queue that stands in the place of a
// window, for the HWND argument of CDAKVorn::DAKTransmitFiles. On Windows it is a message-only
// window of the calling thread. The functions may be called from any thread, but a queue is read
// and destroyed by the thread that made it.
#pragma once

#include "platform/export.h"
#include "platform/types.h"

namespace platform {

struct WINDOWMESSAGE {
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
};

// Null when the system has no room for another.
DAK_API HWND CreateMessageWindow();

// Takes the oldest message, waiting for one up to dwTimeoutMs (INFINITE: for good). FALSE when none
// came or hWnd is not alive.
DAK_API BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage);

// A file descriptor that is readable while a message is there, for poll and its like; -1 where the
// system has none or hWnd is not alive. It is the queue's own: do not close or read it.
DAK_API int GetMessageWindowDescriptor(HWND hWnd);

// Ends the queue; messages not yet taken are dropped. Later posts to it are refused.
DAK_API BOOL DestroyMessageWindow(HWND hWnd);

} // namespace platform
