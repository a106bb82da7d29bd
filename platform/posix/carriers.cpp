#include "platform/posix/carriers.h"

#include "platform/posix/handles.h"
#include "platform/posix/waiting.h"
#include "platform/thread.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

namespace platform::posix {
namespace {

// The deepest of them runs the library's own code alone, so the usual stack is small. The
// sanitizers' instrumentation needs several times as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr SIZE_T STACK_SIZE = SIZE_T{2} << 20;
#else
constexpr SIZE_T STACK_SIZE = SIZE_T{256} << 10;
#endif

class CCarrier {
  public:
    CCarrier(std::shared_ptr<CCarried> pCarried, bool bParks)
        : m_pCarried(std::move(pCarried)), m_bParks(bParks) {}

    int Create(SIZE_T dwStackSize);

    // For the yard, under its mutex: something to run, or null to end.
    void Give(std::shared_ptr<CCarried> pCarried) {
        m_pCarried = std::move(pCarried);
        m_bAwaits.store(false, std::memory_order_release);
    }
    void Wake() { m_parker.Unpark(); }
    void AwaitEnd() { pthread_join(m_thread, nullptr); }

  private:
    static void* Main(void* lpCarrier);
    bool RunOne();
    void AwaitNext();

    pthread_t m_thread{};
    CParker m_parker;
    std::shared_ptr<CCarried> m_pCarried;
    const bool m_bParks; // its stack is the usual one
    std::atomic<bool> m_bAwaits{false};
};

// The parked carriers. The one that was parked last may still be on the last steps of what it ran.
class CYard {
  public:
    std::mutex m_mutex;

    // Whether a parked carrier has taken it.
    bool Take(const std::shared_ptr<CCarried>& pCarried);
    // False when there is no room, and the carrier is to end.
    bool Park(CCarrier& carrier, std::atomic<bool>& bAwaits);
    // Behind the library's last operation.
    void EndAll();

  private:
    // A forked child has none of its parent's.
    void ForgetParents() {
        if (m_dwGeneration != ProcessGeneration()) {
            m_dwGeneration = ProcessGeneration();
            m_nCount = 0;
        }
    }
    CCarrier* TakeLast(std::shared_ptr<CCarried> pCarried);

    std::array<CCarrier*, 8> m_carriers{};
    std::size_t m_nCount = 0;
    DWORD m_dwGeneration = 0;
    bool m_bClosed = false;
};

CYard& Yard() {
    static CYard& yard = *new CYard;
    return yard;
}

CCarrier* CYard::TakeLast(std::shared_ptr<CCarried> pCarried) {
    const std::lock_guard hold(m_mutex);
    ForgetParents();
    m_bClosed = m_bClosed || pCarried == nullptr;
    if (m_nCount == 0) {
        return nullptr;
    }
    CCarrier* pCarrier = m_carriers[--m_nCount];
    pCarrier->Give(std::move(pCarried));
    // Under the mutex: without it, it may have run, found no room here, and be gone.
    pCarrier->Wake();
    return pCarrier;
}

bool CYard::Take(const std::shared_ptr<CCarried>& pCarried) {
    return TakeLast(pCarried) != nullptr;
}

bool CYard::Park(CCarrier& carrier, std::atomic<bool>& bAwaits) {
    const std::lock_guard hold(m_mutex);
    ForgetParents();
    if (m_bClosed || m_nCount == m_carriers.size()) {
        return false;
    }
    bAwaits = true;
    m_carriers[m_nCount++] = &carrier;
    return true;
}

void CYard::EndAll() {
    while (CCarrier* pCarrier = TakeLast(nullptr)) {
        pCarrier->AwaitEnd();
        delete pCarrier;
    }
}

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

int CCarrier::Create(SIZE_T dwStackSize) {
    constexpr SIZE_T PAGE = 4096;
    const SIZE_T dwWanted =
        (std::clamp(dwStackSize, STACK_SIZE, SIZE_T{1} << 30) + PAGE - 1) / PAGE * PAGE;
    const int nError = CreateSystemThread(&m_thread, dwWanted, Main, this);
    // A program with much thread-local storage needs more: that lies on the stack too.
    return nError != EINVAL
               ? nError
               : CreateSystemThread(&m_thread, dwWanted + (SIZE_T{8} << 20), Main, this);
}

void* CCarrier::Main(void* lpCarrier) {
    auto* const pCarrier = static_cast<CCarrier*>(lpCarrier);
    while (pCarrier->m_pCarried != nullptr) {
        if (!pCarrier->RunOne()) {
            pthread_detach(pthread_self());
            delete pCarrier;
            return nullptr;
        }
        pCarrier->AwaitNext();
    }
    return nullptr; // the yard awaits this
}

// Whether the carrier is parked now.
bool CCarrier::RunOne() {
    const std::shared_ptr<CCarried> pCarried = std::move(m_pCarried);
    SetLastError(ERROR_SUCCESS);
    pCarried->Run();
    // Ahead of the end, so that whoever awaits it finds the carrier.
    const bool bParked = m_bParks && Yard().Park(*this, m_bAwaits);
    pCarried->End();
    return bParked;
}

void CCarrier::AwaitNext() {
    const CDeadline never(INFINITE);
    while (m_bAwaits.load(std::memory_order_acquire)) {
        m_parker.Park(never);
    }
}

// When the library is unloaded or the process ends.
__attribute__((destructor)) void EndCarriers() {
    Yard().EndAll();
}

} // namespace

int Carry(std::shared_ptr<CCarried> pCarried, SIZE_T dwStackSize) {
    const bool bUsual = dwStackSize <= STACK_SIZE;
    if (bUsual && Yard().Take(pCarried)) {
        return 0;
    }
    auto pCarrier = std::make_unique<CCarrier>(std::move(pCarried), bUsual);
    const int nError = pCarrier->Create(dwStackSize);
    if (nError == 0) {
        static_cast<void>(pCarrier.release()); // its own now
    }
    return nError;
}

std::mutex& CarrierMutex() {
    return Yard().m_mutex;
}

} // namespace platform::posix
