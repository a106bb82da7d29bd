// Windows, as message queues with a descriptor.
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/posix/descriptors.h"
#include "platform/posix/handles.h"
#include "platform/posix/waiting.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <deque>

namespace platform {
namespace posix {
namespace {

class CMessageWindow final : public CObject {
  public:
    explicit CMessageWindow(CDescriptor event) : m_event(std::move(event)) {}

    bool IsForCloseHandle() const override { return false; }
    bool HandleClosed() noexcept override;

    BOOL Post(const WINDOWMESSAGE& message);
    BOOL Take(const CDeadline& deadline, WINDOWMESSAGE& message);
    int Descriptor() const { return m_event.Get(); }

  private:
    static constexpr std::size_t MOST_MESSAGES = 10000;

    std::mutex m_mutex;
    CWaiterList m_waiters;
    std::deque<WINDOWMESSAGE> m_messages;
    bool m_bAlive = true;
    // Readable exactly while there are messages.
    CPrivateDescriptor m_event;
};

BOOL CMessageWindow::Post(const WINDOWMESSAGE& message) {
    const std::lock_guard hold(m_mutex);
    if (!m_bAlive) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    if (m_messages.size() >= MOST_MESSAGES) {
        SetLastError(ERROR_TOO_MANY_POSTS);
        return FALSE;
    }
    m_messages.push_back(message);
    if (m_messages.size() == 1) {
        ::eventfd_write(m_event.Get(), 1);
    }
    m_waiters.WakeAll();
    return TRUE;
}

BOOL CMessageWindow::Take(const CDeadline& deadline, WINDOWMESSAGE& message) {
    std::unique_lock hold(m_mutex);
    const DWORD dwResult =
        WaitUntil(hold, m_waiters, deadline, [this] { return !m_bAlive || !m_messages.empty(); });
    if (dwResult != WAIT_OBJECT_0) {
        if (dwResult == WAIT_TIMEOUT) {
            SetLastError(WAIT_TIMEOUT);
        }
        return FALSE;
    }
    if (!m_bAlive) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    message = m_messages.front();
    m_messages.pop_front();
    if (m_messages.empty()) {
        eventfd_t nCount = 0;
        ::eventfd_read(m_event.Get(), &nCount);
    }
    return TRUE;
}

bool CMessageWindow::HandleClosed() noexcept {
    const std::lock_guard hold(m_mutex);
    m_bAlive = false;
    m_messages.clear();
    m_waiters.WakeAll();
    return true;
}

std::shared_ptr<CMessageWindow> FindWindow(HWND hWnd) {
    auto pWindow = FindObject<CMessageWindow>(reinterpret_cast<HANDLE>(hWnd));
    if (pWindow == nullptr) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    }
    return pWindow;
}

} // namespace
} // namespace posix

BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    const auto pWindow = posix::FindWindow(hWnd);
    return pWindow == nullptr ? FALSE : posix::WithMemory<BOOL>(FALSE, [&] {
        return pWindow->Post({Msg, wParam, lParam});
    });
}

HWND CreateMessageWindow() {
    return posix::WithMemory<HWND>(nullptr, []() -> HWND {
        posix::CDescriptor event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!event) {
            posix::SetLastErrorFromErrno(errno);
            return nullptr;
        }
        return reinterpret_cast<HWND>(
            posix::AddHandle(std::make_shared<posix::CMessageWindow>(std::move(event))));
    });
}

BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage) {
    const auto pWindow = posix::FindWindow(hWnd);
    return pWindow == nullptr ? FALSE : pWindow->Take(posix::CDeadline(dwTimeoutMs), *lpMessage);
}

int GetMessageWindowDescriptor(HWND hWnd) {
    const auto pWindow = posix::FindWindow(hWnd);
    return pWindow == nullptr ? -1 : pWindow->Descriptor();
}

BOOL DestroyMessageWindow(HWND hWnd) {
    const auto pWindow = posix::FindWindow(hWnd);
    return pWindow != nullptr && posix::RemoveHandle(reinterpret_cast<HANDLE>(hWnd), pWindow.get())
               ? TRUE
               : FALSE;
}

} // namespace platform
