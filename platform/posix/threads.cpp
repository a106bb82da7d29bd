// Threads, time, and the wait on a word.
#include "platform/thread.h"

#include "platform/posix/carriers.h"
#include "platform/posix/handles.h"
#include "platform/posix/waiting.h"

#include <sched.h>
#include <sys/prctl.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace platform {
namespace posix {
namespace {

class CThread final : public CObject, public CCarried {
  public:
    CThread(LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, bool bSuspended)
        : m_lpStartAddress(lpStartAddress), m_lpParameter(lpParameter), m_bSuspended(bSuspended) {}

    void Run() override;
    void End() noexcept override;

    bool Resume();
    void Stop();
    DWORD Wait(const CDeadline& deadline) override;
    bool HandleClosed() noexcept override;

    // As Wait without a deadline, also in a thread that is being stopped itself.
    void AwaitEnd();

    bool IsCaller() const { return &CurrentThread() == &m_context; }
    // In a forked child the threads of the parent have ended, whatever their objects say; and those
    // may be locked for good.
    bool IsOfThisProcess() const { return m_dwGeneration == ProcessGeneration(); }

  private:
    LPTHREAD_START_ROUTINE m_lpStartAddress;
    void* m_lpParameter;
    const DWORD m_dwGeneration = ProcessGeneration();
    CThreadContext m_context{true};

    std::mutex m_mutex;
    CWaiterList m_waiters;
    bool m_bSuspended;
    bool m_bEnded = false;
};

void CThread::Run() {
    SetCurrentThread(&m_context);
    const CDeadline never(INFINITE);
    std::unique_lock hold(m_mutex);
    const bool bRuns =
        WaitUntil(hold, m_waiters, never, [this] { return !m_bSuspended; }) == WAIT_OBJECT_0;
    hold.unlock();
    if (bRuns) {
        m_lpStartAddress(m_lpParameter);
    }
    m_context.GiveStopEventBack();
    SetCurrentThread(nullptr);
}

void CThread::End() noexcept {
    const std::lock_guard hold(m_mutex);
    m_bEnded = true;
    m_waiters.WakeAll();
}

bool CThread::Resume() {
    const std::lock_guard hold(m_mutex);
    if (!m_bSuspended || m_bEnded) {
        return false;
    }
    m_bSuspended = false;
    m_waiters.WakeAll();
    return true;
}

void CThread::Stop() {
    m_context.Stop();
}

DWORD CThread::Wait(const CDeadline& deadline) {
    if (!IsOfThisProcess()) {
        return WAIT_OBJECT_0;
    }
    std::unique_lock hold(m_mutex);
    return WaitUntil(hold, m_waiters, deadline, [this] { return m_bEnded; });
}

void CThread::AwaitEnd() {
    const CDeadline never(INFINITE);
    std::unique_lock hold(m_mutex);
    CWaiter waiter(m_waiters);
    while (!m_bEnded) {
        waiter.Park(hold, never);
    }
}

bool CThread::HandleClosed() noexcept {
    if (IsOfThisProcess()) {
        const std::lock_guard hold(m_mutex);
        if (m_bSuspended && !m_bEnded) {
            // Nobody can let it run any more.
            m_context.Stop();
        }
    }
    return true;
}

// Lets the kernel wake the calling thread on time for the span of a scope. Its freedom to be late
// is 50 microseconds by default, which adds up over thousands of short sleeps.
class CPreciseTimer {
  public:
    CPreciseTimer() : m_nSlackNs(::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0)) {
        if (m_nSlackNs > 1) {
            ::prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);
        }
    }
    ~CPreciseTimer() {
        if (m_nSlackNs > 1) {
            ::prctl(PR_SET_TIMERSLACK, m_nSlackNs, 0, 0, 0);
        }
    }
    CPreciseTimer(const CPreciseTimer&) = delete;
    CPreciseTimer& operator=(const CPreciseTimer&) = delete;

  private:
    int m_nSlackNs;
};

// The threads that wait on words, by the word's address.
struct CAddressBucket {
    std::mutex m_mutex;
    CWaiterList m_waiters;
};

using CAddressBuckets = std::array<CAddressBucket, 16>;

CAddressBuckets& Buckets() {
    static CAddressBuckets& buckets = *new CAddressBuckets;
    return buckets;
}

CAddressBucket& BucketOf(const DWORD* lpAddress) {
    CAddressBuckets& buckets = Buckets();
    return buckets[(reinterpret_cast<std::uintptr_t>(lpAddress) / sizeof(DWORD)) % buckets.size()];
}

} // namespace

// The parent's waiters lie on stacks that no thread has any more.
void ForgetWordWaiters() noexcept {
    new (&Buckets()) CAddressBuckets;
}
} // namespace posix

using posix::CDeadline;
using posix::CThread;

void Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0) {
        ::sched_yield();
        return;
    }
    const CDeadline deadline(dwMilliseconds);
    posix::CThreadContext& thread = posix::CurrentThread();
    const posix::CPreciseTimer precise;
    while (!thread.IsStopping() && !deadline.Passed()) {
        thread.m_parker.Park(deadline);
    }
}

HANDLE CreateThread(_SECURITY_ATTRIBUTES* /*lpThreadAttributes*/, SIZE_T dwStackSize,
                    LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, DWORD dwCreationFlags,
                    DWORD* lpThreadId) {
    if (lpStartAddress == nullptr || (dwCreationFlags & ~CREATE_SUSPENDED) != 0) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return posix::WithMemory<HANDLE>(nullptr, [&]() -> HANDLE {
        const bool bSuspended = (dwCreationFlags & CREATE_SUSPENDED) != 0;
        const auto pThread = std::make_shared<CThread>(lpStartAddress, lpParameter, bSuspended);
        // The handle comes first: a thread that runs cannot be taken back.
        HANDLE hThread = posix::AddHandle(pThread);
        if (hThread == nullptr) {
            return nullptr;
        }
        const int nError =
            posix::WithMemory(ENOMEM, [&] { return posix::Carry(pThread, dwStackSize); });
        if (nError != 0) {
            posix::RemoveHandle(hThread, pThread.get());
            posix::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        if (lpThreadId != nullptr) {
            *lpThreadId = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(hThread));
        }
        return hThread;
    });
}

DWORD ResumeThread(HANDLE hThread) {
    const auto pThread = posix::FindObject<CThread>(hThread);
    if (pThread == nullptr) {
        return 0xFFFFFFFF;
    }
    if (!pThread->Resume()) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return 0xFFFFFFFF;
    }
    return 1;
}

BOOL TerminateThread(HANDLE hThread, DWORD /*dwExitCode*/) {
    const auto pThread = posix::FindObject<CThread>(hThread);
    if (pThread == nullptr) {
        return FALSE;
    }
    if (pThread->IsCaller()) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (pThread->IsOfThisProcess()) {
        pThread->Stop();
        pThread->AwaitEnd();
    }
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) {
    const auto pObject = posix::FindAnyObject(hObject);
    return pObject == nullptr ? WAIT_FAILED : pObject->Wait(CDeadline(dwMilliseconds));
}

BOOL WaitOnAddress(DWORD* lpAddress, DWORD dwCompare, DWORD dwMilliseconds) {
    const CDeadline deadline(dwMilliseconds);
    posix::CAddressBucket& bucket = posix::BucketOf(lpAddress);
    std::unique_lock hold(bucket.m_mutex);
    posix::CWaiter waiter(bucket.m_waiters, lpAddress);
    while (!posix::RefuseWhenStopping()) {
        if (waiter.WasWoken() || std::atomic_ref<DWORD>(*lpAddress).load() != dwCompare) {
            return TRUE;
        }
        if (deadline.Passed()) {
            posix::SetLastError(WAIT_TIMEOUT);
            return FALSE;
        }
        waiter.Park(hold, deadline);
    }
    return FALSE;
}

void WakeByAddressAll(DWORD* lpAddress) {
    posix::CAddressBucket& bucket = posix::BucketOf(lpAddress);
    const std::lock_guard hold(bucket.m_mutex);
    bucket.m_waiters.WakeAll(lpAddress);
}

} // namespace platform
