#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/windows/threads.h"
#include "platform/windows/waiting.h"

namespace platform {
namespace {

// A window of the system that nobody sees; messages posted to it are taken out of the queue and
// never dispatched, so that the procedure of its class does not matter.
constexpr char WINDOW_CLASS[] = "STATIC";

bool IsOfThisThread(HWND hWnd) {
    return ::IsWindow(hWnd) != FALSE &&
           ::GetWindowThreadProcessId(hWnd, nullptr) == ::GetCurrentThreadId();
}

enum class ETaken { NOTHING, MESSAGE, QUIT };

ETaken TakeMessage(HWND hWnd, WINDOWMESSAGE* lpMessage) {
    MSG message;
    if (::PeekMessageA(&message, hWnd, 0, 0, PM_REMOVE) == FALSE) {
        return ETaken::NOTHING;
    }
    if (message.message == WM_QUIT) {
        // Comes for every window of the thread, behind all messages, and is for the thread's own
        // loop.
        ::PostQuitMessage(static_cast<int>(message.wParam));
        return ETaken::QUIT;
    }
    *lpMessage = {message.message, message.wParam, message.lParam};
    return ETaken::MESSAGE;
}

} // namespace

// The system would take a null window for the thread's own queue, and one value for all windows.
BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    return ::IsWindow(hWnd) != FALSE ? ::PostMessageA(hWnd, Msg, wParam, lParam) : FALSE;
}

HWND CreateMessageWindow() {
    return ::CreateWindowExA(0, WINDOW_CLASS, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr,
                             nullptr);
}

BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage) {
    const windows::CDeadline deadline(dwTimeoutMs);
    const windows::CThread* const pThread = windows::CThread::Current();
    const HANDLE hStop = pThread != nullptr ? pThread->StopEvent() : nullptr;
    while (IsOfThisThread(hWnd)) {
        if (const ETaken eTaken = TakeMessage(hWnd, lpMessage); eTaken != ETaken::NOTHING) {
            return eTaken == ETaken::MESSAGE ? TRUE : FALSE;
        }
        const DWORD dwLeftMs = deadline.RemainingMs();
        if (dwLeftMs == 0 || windows::IsStopped()) {
            return FALSE;
        }
        if (::MsgWaitForMultipleObjects(hStop != nullptr ? 1 : 0, &hStop, FALSE, dwLeftMs,
                                        QS_POSTMESSAGE | QS_SENDMESSAGE) == WAIT_FAILED) {
            return FALSE;
        }
    }
    return FALSE;
}

int GetMessageWindowDescriptor(HWND /*hWnd*/) {
    return -1;
}

BOOL DestroyMessageWindow(HWND hWnd) {
    return IsOfThisThread(hWnd) ? ::DestroyWindow(hWnd) : FALSE;
}

} // namespace platform
