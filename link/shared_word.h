// Access to plain members that more than one thread reads and writes: the member keeps its type,
// place and size, and each access is atomic.
#pragma once

#include "platform/thread.h"
#include "platform/types.h"

#include <atomic>

template <class T>
inline T LoadShared(const T& word) {
    return std::atomic_ref<T>(const_cast<T&>(word)).load();
}

template <class T>
inline void StoreShared(T& word, T value) {
    std::atomic_ref<T>(word).store(value);
}

// A lock of one word for state that the process's own threads share. It lives as a static, has no
// construction and no end, and blocks through the platform, so that it works under any of them.
class CWordLock {
  public:
    void Enter() {
        while (!TryEnter()) {
            DWORD dwHeld = 1;
            // Marks that somebody waits, so that Leave wakes.
            std::atomic_ref<DWORD>(m_dwState).compare_exchange_strong(dwHeld, 2);
            platform::WaitOnAddress(&m_dwState, 2, INFINITE);
        }
    }
    // The same for a thread that somebody may stop (platform::TerminateThread): false, without the
    // lock, when that happens during the wait.
    bool EnterUnlessStopped() {
        while (!TryEnter()) {
            DWORD dwHeld = 1;
            std::atomic_ref<DWORD>(m_dwState).compare_exchange_strong(dwHeld, 2);
            if (platform::WaitOnAddress(&m_dwState, 2, INFINITE) == FALSE) {
                return false;
            }
        }
        return true;
    }
    // The same unless refuse, which is asked ahead of every wait, says true: then false, without
    // the lock. Whoever holds the lock and changes refuse's answer calls AskAgain;
    // a waiter from whom another one's mark hides that asks again by itself.
    template <class TRefuse>
    bool EnterUnless(TRefuse&& refuse) {
        while (!TryEnter()) {
            DWORD dwHeld = 1;
            std::atomic_ref<DWORD>(m_dwState).compare_exchange_strong(dwHeld, 2);
            if (refuse()) {
                return false;
            }
            platform::WaitOnAddress(&m_dwState, 2, ASK_AGAIN_MS);
        }
        return true;
    }
    void AskAgain() {
        std::atomic_ref<DWORD>(m_dwState).store(1);
        platform::WakeByAddressAll(&m_dwState);
    }
    bool TryEnter() {
        DWORD dwFree = 0;
        return std::atomic_ref<DWORD>(m_dwState).compare_exchange_strong(dwFree, 1);
    }
    void Leave() {
        if (std::atomic_ref<DWORD>(m_dwState).exchange(0) == 2) {
            platform::WakeByAddressAll(&m_dwState);
        }
    }

  private:
    static constexpr DWORD ASK_AGAIN_MS = 100;

    DWORD m_dwState = 0; // 0 free, 1 held, 2 held and waited for
};

class CWordLockHold {
  public:
    explicit CWordLockHold(CWordLock& lock) : m_lock(lock) { m_lock.Enter(); }
    ~CWordLockHold() { m_lock.Leave(); }
    CWordLockHold(const CWordLockHold&) = delete;
    CWordLockHold& operator=(const CWordLockHold&) = delete;

  private:
    CWordLock& m_lock;
};
