// Threads that can be stopped. The system's own way to end a thread leaves whatever the thread held
// as it was, so each thread of the seam has a record with an event that ends its waits instead.
#pragma once

#include "platform/types.h"

#include <atomic>

namespace platform::windows {

class CThread {
  public:
    // Null when the system has no room for it. The caller has the one reference.
    static CThread* Make(LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, bool bSuspended);

    // The calling thread's record; null where the seam has not made the thread.
    static CThread* Current();

    void AddReference() { m_nReferences.fetch_add(1); }
    void Release();

    // The body of the system's thread, which owns one reference.
    DWORD Run();

    // The module that the system's thread runs in; it stays loaded as long as that does.
    HMODULE Module() const { return m_hModule; }

    // Whether this is the call that lets the thread run.
    bool Resume() { return m_bSuspended.exchange(false); }
    // A suspended thread that is stopped does not run its procedure.
    void Stop(bool bNeverRuns);
    bool IsStopping() const { return m_bStopping.load(); }
    // Whether its procedure has returned. The system may take its time over the rest.
    bool HasEnded() const { return m_bEnded.load(); }
    // Signalled from the stop on.
    HANDLE StopEvent() const { return m_hStop; }

    // The word that the thread waits on; null: none. A stop has to wake it there.
    std::atomic<DWORD*> m_lpWaitAddress{nullptr};

    // The record in the table of those whose handles are open.
    HANDLE m_hThread = nullptr;
    CThread* m_pNext = nullptr;

  private:
    CThread(LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, bool bSuspended, HANDLE hStop,
            HMODULE hModule)
        : m_lpStartAddress(lpStartAddress), m_lpParameter(lpParameter), m_hStop(hStop),
          m_hModule(hModule), m_bSuspended(bSuspended) {}
    ~CThread() { ::CloseHandle(m_hStop); }

    LPTHREAD_START_ROUTINE m_lpStartAddress;
    void* m_lpParameter;
    HANDLE m_hStop;
    HMODULE m_hModule;
    std::atomic<bool> m_bSuspended;
    std::atomic<bool> m_bStopping{false};
    std::atomic<bool> m_bEnded{false};
    bool m_bNeverRuns = false; // written ahead of the resumption
    std::atomic<int> m_nReferences{1};
};

// Ahead of the closing of a handle: where it is a thread's, the handle is known no longer.
void ForgetThread(HANDLE hObject);

} // namespace platform::windows
