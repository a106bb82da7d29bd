#include "platform/windows/waiting.h"

#include "platform/thread.h"
#include "platform/windows/handles.h"
#include "platform/windows/threads.h"

namespace platform {
namespace windows {

CDeadline::CDeadline(DWORD dwMilliseconds)
    : m_bNever(dwMilliseconds == INFINITE),
      m_time(std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds)) {}

DWORD CDeadline::RemainingMs() const {
    if (m_bNever) {
        return INFINITE;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_time - std::chrono::steady_clock::now())
            .count();
    return left > 0 ? static_cast<DWORD>(left) : 0;
}

bool IsStopped() {
    const CThread* pThread = CThread::Current();
    if (pThread == nullptr || !pThread->IsStopping()) {
        return false;
    }
    ::SetLastError(ERROR_OPERATION_ABORTED);
    return true;
}

DWORD WaitUnlessStopped(HANDLE hObject, DWORD dwMilliseconds) {
    if (IsStopped()) {
        return WAIT_FAILED;
    }
    HANDLE objects[2];
    DWORD dwObjects = 0;
    if (hObject != nullptr) {
        objects[dwObjects++] = hObject;
    }
    const CThread* pThread = CThread::Current();
    if (pThread != nullptr) {
        objects[dwObjects++] = pThread->StopEvent();
    }
    const CDeadline deadline(dwMilliseconds);
    for (;;) {
        const DWORD dwLeftMs = deadline.RemainingMs();
        DWORD dwResult = WAIT_TIMEOUT;
        if (dwObjects != 0) {
            dwResult = ::WaitForMultipleObjects(dwObjects, objects, FALSE, dwLeftMs);
        } else {
            ::Sleep(dwLeftMs);
        }
        if (dwResult == WAIT_OBJECT_0 && hObject != nullptr) {
            return WAIT_OBJECT_0;
        }
        if (dwResult == WAIT_FAILED || IsStopped()) {
            return WAIT_FAILED;
        }
        if (dwResult == WAIT_TIMEOUT && dwLeftMs == 0) {
            return WAIT_TIMEOUT;
        }
    }
}

} // namespace windows

void Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0) {
        ::Sleep(0);
        return;
    }
    windows::WaitUnlessStopped(nullptr, dwMilliseconds);
}

DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) {
    return windows::MayBeHandle(hObject) ? windows::WaitUnlessStopped(hObject, dwMilliseconds)
                                         : WAIT_FAILED;
}

BOOL WaitOnAddress(DWORD* lpAddress, DWORD dwCompare, DWORD dwMilliseconds) {
    windows::CThread* const pThread = windows::CThread::Current();
    const windows::CDeadline deadline(dwMilliseconds);
    // Announced ahead of the look whether there is a stop, which looks here behind its
    // announcement.
    if (pThread != nullptr) {
        pThread->m_lpWaitAddress.store(lpAddress);
    }
    BOOL bWoken = FALSE;
    for (;;) {
        if (std::atomic_ref<DWORD>(*lpAddress).load() != dwCompare) {
            bWoken = TRUE;
            break;
        }
        if (windows::IsStopped()) {
            break;
        }
        const DWORD dwLeftMs = deadline.RemainingMs();
        if (::WaitOnAddress(lpAddress, &dwCompare, sizeof(dwCompare), dwLeftMs) != FALSE) {
            bWoken = windows::IsStopped() ? FALSE : TRUE;
            break;
        }
        if (dwLeftMs == 0) {
            ::SetLastError(WAIT_TIMEOUT);
            break;
        }
    }
    if (pThread != nullptr) {
        pThread->m_lpWaitAddress.store(nullptr);
    }
    return bWoken;
}

void WakeByAddressAll(DWORD* lpAddress) {
    ::WakeByAddressAll(lpAddress);
}

} // namespace platform
