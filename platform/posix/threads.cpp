// Threads, time, and the wait on a word.
#include "platform/thread.h"

#include "platform/posix/handles.h"
#include "platform/posix/waiting.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

namespace platform {
namespace posix {
namespace {

// A thread is made for every transfer on the pipe, so its stack is small: the deepest of them runs
// the library's own code alone. The sanitizers' instrumentation needs several times as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr SIZE_T STACK_SIZE = SIZE_T{2} << 20;
#else
constexpr SIZE_T STACK_SIZE = SIZE_T{256} << 10;
#endif

class CThread final : public CObject {
  public:
    CThread(LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, bool bSuspended)
        : m_lpStartAddress(lpStartAddress), m_lpParameter(lpParameter), m_bSuspended(bSuspended) {}

    // Starts the system's thread. 0, or the system's error.
    static int Start(const std::shared_ptr<CThread>& pThread, SIZE_T dwStackSize);

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
    static void* Main(void* lpThread);
    void Run();
    void End();

    LPTHREAD_START_ROUTINE m_lpStartAddress;
    void* m_lpParameter;
    const DWORD m_dwGeneration = ProcessGeneration();
    CThreadContext m_context{true};
    pthread_t m_thread{};
    bool m_bStarted = false;
    // Keeps the object for the thread itself while it runs.
    std::shared_ptr<CThread> m_pKeep;

    std::mutex m_mutex;
    CWaiterList m_waiters;
    bool m_bSuspended;
    bool m_bEnded = false;
};

// The application's signal handlers must not run on a small stack. Signals that a fault of the
// thread itself raises are not to be held up.
sigset_t BlockedSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int nSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF}) {
        sigdelset(&signals, nSignal);
    }
    return signals;
}

int CreateSystemThread(pthread_t* pThread, SIZE_T dwStackSize, void* (*lpMain)(void*),
                       void* lpParameter) {
    pthread_attr_t attributes;
    int nError = pthread_attr_init(&attributes);
    if (nError != 0) {
        return nError;
    }
    pthread_attr_setstacksize(&attributes, dwStackSize);
    const sigset_t signals = BlockedSignals();
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 32)
    pthread_attr_setsigmask_np(&attributes, &signals);
    nError = pthread_create(pThread, &attributes, lpMain, lpParameter);
#else
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    nError = pthread_create(pThread, &attributes, lpMain, lpParameter);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
#endif
    pthread_attr_destroy(&attributes);
    return nError;
}

int CThread::Start(const std::shared_ptr<CThread>& pThread, SIZE_T dwStackSize) {
    constexpr SIZE_T PAGE = 4096;
    const SIZE_T dwWanted =
        (std::clamp(dwStackSize, STACK_SIZE, SIZE_T{1} << 30) + PAGE - 1) / PAGE * PAGE;
    // Only the handle's owner reads what is set here, and he has the handle when this returns.
    pThread->m_pKeep = pThread;
    int nError = CreateSystemThread(&pThread->m_thread, dwWanted, Main, pThread.get());
    if (nError == EINVAL) {
        // A program with much thread-local storage needs more: that lies on the stack too.
        nError = CreateSystemThread(&pThread->m_thread, dwWanted + (SIZE_T{8} << 20), Main,
                                    pThread.get());
    }
    if (nError != 0) {
        pThread->m_pKeep.reset();
    }
    pThread->m_bStarted = nError == 0;
    return nError;
}

void* CThread::Main(void* lpThread) {
    const std::shared_ptr<CThread> pThread = std::move(static_cast<CThread*>(lpThread)->m_pKeep);
    SetCurrentThread(&pThread->m_context);
    pThread->Run();
    pThread->m_context.GiveStopEventBack();
    pThread->End();
    SetCurrentThread(nullptr);
    return nullptr;
}

void CThread::Run() {
    {
        std::unique_lock hold(m_mutex);
        const CDeadline never(INFINITE);
        if (WaitUntil(hold, m_waiters, never, [this] { return !m_bSuspended; }) != WAIT_OBJECT_0) {
            return;
        }
    }
    m_lpStartAddress(m_lpParameter);
}

void CThread::End() {
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
    if (!m_bStarted || !IsOfThisProcess()) {
        return true;
    }
    bool bEnded = false;
    {
        const std::lock_guard hold(m_mutex);
        bEnded = m_bEnded;
        if (m_bSuspended && !m_bEnded) {
            // Nobody can let it run any more.
            m_context.Stop();
        }
    }
    if (bEnded) {
        // It has nothing left to do but to leave, so this does not block; and when it is over,
        // nothing of the thread is left that would still need the library's code.
        pthread_join(m_thread, nullptr);
    } else {
        pthread_detach(m_thread);
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

CAddressBucket& BucketOf(const DWORD* lpAddress) {
    static std::array<CAddressBucket, 16>& buckets = *new std::array<CAddressBucket, 16>;
    return buckets[(reinterpret_cast<std::uintptr_t>(lpAddress) / sizeof(DWORD)) % buckets.size()];
}

} // namespace
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
        const int nError = CThread::Start(pThread, dwStackSize);
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
