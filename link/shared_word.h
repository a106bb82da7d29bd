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
// construction and no end, and blocks through the platform, so that it works under any of them. A
// forked child finds it free, whatever it was in the parent.
class CWordLock {
  public:
    void Enter() {
        while (!TryEnter()) {
            platform::WaitOnAddress(&m_dwState, MarkWait(), INFINITE);
        }
    }
    // The same unless refuse, which is asked ahead of every wait, says true: then false, without
    // the lock. Whoever holds the lock and changes refuse's answer calls AskAgain;
    // a waiter from whom another one's mark hides that asks again by itself.
    template <class TRefuse>
    bool EnterUnless(TRefuse&& refuse) {
        while (!TryEnter()) {
            const DWORD dwMarked = MarkWait();
            if (refuse()) {
                return false;
            }
            platform::WaitOnAddress(&m_dwState, dwMarked, ASK_AGAIN_MS);
        }
        return true;
    }
    void AskAgain() {
        std::atomic_ref<DWORD>(m_dwState).store(Word(HELD));
        platform::WakeByAddressAll(&m_dwState);
    }
    bool TryEnter() {
        DWORD dwSeen = LoadShared(m_dwState);
        while (dwSeen != Word(HELD) && dwSeen != Word(WAITED_FOR)) {
            if (std::atomic_ref<DWORD>(m_dwState).compare_exchange_weak(dwSeen, Word(HELD))) {
                return true;
            }
        }
        return false;
    }
    void Leave() {
        if (std::atomic_ref<DWORD>(m_dwState).exchange(0) == Word(WAITED_FOR)) {
            platform::WakeByAddressAll(&m_dwState);
        }
    }

  private:
    enum : DWORD { HELD = 1, WAITED_FOR = 2 };
    static constexpr DWORD ASK_AGAIN_MS = 100;

    static DWORD Word(DWORD dwState) { return (platform::ProcessGeneration() << 2) | dwState; }

    // Marks that somebody waits, so that Leave wakes. The word to wait on.
    DWORD MarkWait() {
        DWORD dwHeld = Word(HELD);
        std::atomic_ref<DWORD>(m_dwState).compare_exchange_strong(dwHeld, Word(WAITED_FOR));
        return Word(WAITED_FOR);
    }

    DWORD m_dwState = 0; // 0 free; held, or held and waited for, by the process of a generation
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
