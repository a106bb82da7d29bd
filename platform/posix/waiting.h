// How a thread blocks in this implementation, so that a stop wakes it: on its own parker for
// anything inside the process, on a descriptor together with its stop event for anything outside.
#pragma once

#include "platform/posix/descriptors.h"
#include "platform/types.h"

#include <time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace platform::posix {

// A point of the monotonic clock, or never.
class CDeadline {
  public:
    // dwMilliseconds from now; INFINITE: never.
    explicit CDeadline(DWORD dwMilliseconds) noexcept;

    bool Passed() const noexcept;
    // Null: never.
    const timespec* Get() const noexcept { return m_bNever ? nullptr : &m_time; }
    const CDeadline& Earlier(const CDeadline& other) const noexcept;

  private:
    bool m_bNever;
    timespec m_time{};
};

// One thread's place to sleep. An Unpark that comes first is kept for the next Park.
class CParker {
  public:
    // Returns at an Unpark, at the deadline, or for no reason: the caller looks again.
    void Park(const CDeadline& deadline) noexcept;
    void Unpark() noexcept;

  private:
    // Whether it sleeps, so that nobody calls the system to wake one who does not.
    enum : std::uint32_t { AWAKE, UNPARKED, ASLEEP };
    std::atomic<std::uint32_t> m_dwState{AWAKE};
};

// What a thread needs to block and to be stopped. Threads of CreateThread have one in their object;
// any other thread has one of its own that is never stopped.
class CThreadContext {
  public:
    explicit CThreadContext(bool bStoppable) noexcept : m_bStoppable(bStoppable) {}

    CParker m_parker;

    bool IsStoppable() const noexcept { return m_bStoppable; }

    bool IsStopping() const noexcept { return m_bStopping.load(std::memory_order_acquire); }

    // Ends every block of the thread, now and from now on. Any thread.
    void Stop() noexcept;

    // Takes, once and for as long as the thread runs, an event that Stop makes readable; -1 when
    // the process has no descriptor left. The thread itself only.
    int StopEvent() noexcept;

    // Gives the event back for other threads. The thread itself, when it blocks no more.
    void GiveStopEventBack() noexcept;

  private:
    const bool m_bStoppable;
    std::atomic<bool> m_bStopping{false};
    std::mutex m_eventMutex;
    std::unique_ptr<CPrivateDescriptor> m_pStopEvent;
};

// The calling thread's context.
CThreadContext& CurrentThread() noexcept;

// Declares the calling thread's context; null: the thread's own again.
void SetCurrentThread(CThreadContext* pContext) noexcept;

// For the fork guard alone: in a forked child nobody waits for a word, and no event is at hand.
void ForgetWordWaiters() noexcept; // threads.cpp
void ForgetStopEvents() noexcept;

// True, with ERROR_OPERATION_ABORTED, when the calling thread is being stopped.
bool RefuseWhenStopping() noexcept;

class CWaiter;

// The threads that wait for a change of some state. The mutex of that state guards the list.
class CWaiterList {
  public:
    // Wakes those that wait under the key (null: without one).
    void WakeAll(const void* lpKey = nullptr) noexcept;

  private:
    friend class CWaiter;
    CWaiter* m_pFirst = nullptr;
};

// The calling thread as a member of a list, for the span of a scope in which the list's mutex is
// held except inside Park.
class CWaiter {
  public:
    explicit CWaiter(CWaiterList& list, const void* lpKey = nullptr) noexcept;
    ~CWaiter();
    CWaiter(const CWaiter&) = delete;
    CWaiter& operator=(const CWaiter&) = delete;

    bool WasWoken() const { return m_bWoken; }
    void Park(std::unique_lock<std::mutex>& hold, const CDeadline& deadline) noexcept;

  private:
    friend class CWaiterList;

    CWaiterList& m_list;
    const void* m_lpKey;
    CParker& m_parker;
    bool m_bWoken = false;
    CWaiter* m_pPrevious = nullptr;
    CWaiter* m_pNext = nullptr;
};

// Waits until holds() is true. WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED with
// ERROR_OPERATION_ABORTED in a thread that is being stopped. The mutex is held on entry and on
// return.
template <class CONDITION>
DWORD WaitUntil(std::unique_lock<std::mutex>& hold, CWaiterList& list, const CDeadline& deadline,
                CONDITION holds) noexcept {
    CWaiter waiter(list);
    for (;;) {
        if (RefuseWhenStopping()) {
            return WAIT_FAILED;
        }
        if (holds()) {
            return WAIT_OBJECT_0;
        }
        if (deadline.Passed()) {
            return WAIT_TIMEOUT;
        }
        waiter.Park(hold, deadline);
    }
}

// Blocks until one of the poll events, an error or a hang-up is there. False, with
// ERROR_OPERATION_ABORTED, when the calling thread is being stopped.
bool WaitForDescriptor(int nDescriptor, short nEvents) noexcept;

} // namespace platform::posix
