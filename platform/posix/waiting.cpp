#include "platform/posix/waiting.h"

#include "platform/posix/handles.h"

#include <linux/futex.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>

namespace platform::posix {
namespace {

constexpr long NS_PER_MS = 1000000;
constexpr long NS_PER_SECOND = 1000000000;

timespec Now() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

bool IsBefore(const timespec& left, const timespec& right) noexcept {
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

// Stop events that no thread uses at the moment, none of them readable. A thread is made for every
// transfer, and most of them block on a descriptor, so their events are kept.
class CStopEventPool {
  public:
    std::unique_ptr<CPrivateDescriptor> Take() noexcept {
        {
            const std::lock_guard hold(m_mutex);
            while (m_nCount > 0) {
                std::unique_ptr<CPrivateDescriptor> pEvent = std::move(m_events[--m_nCount]);
                // In a forked child those of the parent are closed.
                if (pEvent->Get() >= 0) {
                    return pEvent;
                }
            }
        }
        CDescriptor event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!event) {
            return nullptr;
        }
        return std::unique_ptr<CPrivateDescriptor>(new (std::nothrow)
                                                       CPrivateDescriptor(std::move(event)));
    }

    void Give(std::unique_ptr<CPrivateDescriptor> pEvent) noexcept {
        const std::lock_guard hold(m_mutex);
        if (m_nCount < m_events.size()) {
            m_events[m_nCount++] = std::move(pEvent);
        }
    }

  private:
    std::mutex m_mutex;
    std::array<std::unique_ptr<CPrivateDescriptor>, 8> m_events;
    std::size_t m_nCount = 0;
};

CStopEventPool& Pool() {
    static CStopEventPool& pool = *new CStopEventPool;
    return pool;
}

thread_local CThreadContext* t_pCurrent = nullptr;

} // namespace

// What another thread of the parent was in the middle of is left as it is.
void ForgetStopEvents() noexcept {
    new (&Pool()) CStopEventPool;
}

CDeadline::CDeadline(DWORD dwMilliseconds) noexcept : m_bNever(dwMilliseconds == INFINITE) {
    if (m_bNever) {
        return;
    }
    m_time = Now();
    m_time.tv_sec += dwMilliseconds / 1000;
    m_time.tv_nsec += static_cast<long>(dwMilliseconds % 1000) * NS_PER_MS;
    if (m_time.tv_nsec >= NS_PER_SECOND) {
        m_time.tv_nsec -= NS_PER_SECOND;
        ++m_time.tv_sec;
    }
}

bool CDeadline::Passed() const noexcept {
    return !m_bNever && !IsBefore(Now(), m_time);
}

const CDeadline& CDeadline::Earlier(const CDeadline& other) const noexcept {
    if (m_bNever) {
        return other;
    }
    return other.m_bNever || IsBefore(m_time, other.m_time) ? *this : other;
}

void CParker::Park(const CDeadline& deadline) noexcept {
    if (m_dwState.exchange(ASLEEP, std::memory_order_acquire) != UNPARKED) {
        // The bit-set form takes an absolute time, so that a wake for no reason costs no precision.
        ::syscall(SYS_futex, &m_dwState, FUTEX_WAIT_BITSET_PRIVATE, ASLEEP, deadline.Get(), nullptr,
                  FUTEX_BITSET_MATCH_ANY);
    }
    m_dwState.exchange(AWAKE, std::memory_order_acquire);
}

void CParker::Unpark() noexcept {
    if (m_dwState.exchange(UNPARKED, std::memory_order_release) == ASLEEP) {
        ::syscall(SYS_futex, &m_dwState, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

void CThreadContext::Stop() noexcept {
    m_bStopping.store(true, std::memory_order_release);
    {
        const std::lock_guard hold(m_eventMutex);
        if (m_pStopEvent != nullptr) {
            ::eventfd_write(m_pStopEvent->Get(), 1);
        }
    }
    m_parker.Unpark();
}

int CThreadContext::StopEvent() noexcept {
    if (m_pStopEvent == nullptr) {
        auto pEvent = Pool().Take();
        const std::lock_guard hold(m_eventMutex);
        m_pStopEvent = std::move(pEvent);
    }
    return m_pStopEvent != nullptr ? m_pStopEvent->Get() : -1;
}

void CThreadContext::GiveStopEventBack() noexcept {
    std::unique_ptr<CPrivateDescriptor> pEvent;
    {
        const std::lock_guard hold(m_eventMutex);
        pEvent = std::move(m_pStopEvent);
    }
    if (pEvent == nullptr) {
        return;
    }
    if (IsStopping()) {
        eventfd_t nCount = 0;
        ::eventfd_read(pEvent->Get(), &nCount);
    }
    Pool().Give(std::move(pEvent));
}

CThreadContext& CurrentThread() noexcept {
    if (t_pCurrent == nullptr) {
        thread_local CThreadContext t_own(false);
        t_pCurrent = &t_own;
    }
    return *t_pCurrent;
}

void SetCurrentThread(CThreadContext* pContext) noexcept {
    t_pCurrent = pContext;
}

bool RefuseWhenStopping() noexcept {
    if (!CurrentThread().IsStopping()) {
        return false;
    }
    SetLastError(ERROR_OPERATION_ABORTED);
    return true;
}

void CWaiterList::WakeAll(const void* lpKey) noexcept {
    for (CWaiter* p = m_pFirst; p != nullptr; p = p->m_pNext) {
        if (p->m_lpKey == lpKey) {
            p->m_bWoken = true;
            p->m_parker.Unpark();
        }
    }
}

CWaiter::CWaiter(CWaiterList& list, const void* lpKey) noexcept
    : m_list(list), m_lpKey(lpKey), m_parker(CurrentThread().m_parker) {
    m_pNext = list.m_pFirst;
    if (m_pNext != nullptr) {
        m_pNext->m_pPrevious = this;
    }
    list.m_pFirst = this;
}

CWaiter::~CWaiter() {
    (m_pPrevious == nullptr ? m_list.m_pFirst : m_pPrevious->m_pNext) = m_pNext;
    if (m_pNext != nullptr) {
        m_pNext->m_pPrevious = m_pPrevious;
    }
}

void CWaiter::Park(std::unique_lock<std::mutex>& hold, const CDeadline& deadline) noexcept {
    hold.unlock();
    m_parker.Park(deadline);
    hold.lock();
}

bool WaitForDescriptor(int nDescriptor, short nEvents) noexcept {
    CThreadContext& thread = CurrentThread();
    const int nStopEvent = thread.IsStoppable() ? thread.StopEvent() : -1;
    // Without an event of its own the thread looks for a stop every few milliseconds.
    const int nTimeoutMs = thread.IsStoppable() && nStopEvent < 0 ? 10 : -1;
    pollfd polled[2] = {{nDescriptor, nEvents, 0}, {nStopEvent, POLLIN, 0}};
    for (;;) {
        if (RefuseWhenStopping()) {
            return false;
        }
        if (::poll(polled, 2, nTimeoutMs) > 0 && polled[0].revents != 0) {
            return true;
        }
    }
}

} // namespace platform::posix
