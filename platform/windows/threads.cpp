#include "platform/windows/threads.h"

#include "platform/thread.h"
#include "platform/windows/handles.h"

#include <new>
#include <utility>

namespace platform {
namespace windows {
namespace {

// How often a thread that is being stopped is looked for on a word it waits on: it may have begun
// its wait just behind the wake.
constexpr DWORD LOOK_AGAIN_MS = 1;

// How long the system is waited for to end a thread that has run to its end. It holds one up whose
// transfer a driver does not end.
constexpr DWORD THREAD_END_MS = 200;

// Where the system keeps each thread's record. Until there is a place for it, and behind its end,
// no thread has one.
class CRecordIndex {
  public:
    CRecordIndex() { s_dwIndex = ::TlsAlloc(); }
    ~CRecordIndex() { ::TlsFree(std::exchange(s_dwIndex, TLS_OUT_OF_INDEXES)); }
    CRecordIndex(const CRecordIndex&) = delete;
    CRecordIndex& operator=(const CRecordIndex&) = delete;

    static constinit DWORD s_dwIndex;
};
constinit DWORD CRecordIndex::s_dwIndex = TLS_OUT_OF_INDEXES;
const CRecordIndex g_recordIndex;

// The threads whose handles are open: few at a time.
SRWLOCK g_TableLock = SRWLOCK_INIT;
CThread* g_pFirst = nullptr;

void RememberThread(CThread* pThread, HANDLE hThread) {
    const CLockHold hold(g_TableLock);
    pThread->m_hThread = hThread;
    pThread->m_pNext = g_pFirst;
    g_pFirst = pThread;
}

// The record behind a handle with a reference for the caller, or null with the error number set.
CThread* FindThread(HANDLE hThread) {
    const CLockHold hold(g_TableLock);
    for (CThread* pThread = g_pFirst; pThread != nullptr; pThread = pThread->m_pNext) {
        if (pThread->m_hThread == hThread) {
            pThread->AddReference();
            return pThread;
        }
    }
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

// The last reference to the module goes with the thread's last step, which is none of the module's:
// an application may unload the library while a worker that it gave up still ends.
DWORD WINAPI RunThread(void* lpThread) {
    auto* const pThread = static_cast<CThread*>(lpThread);
    const HMODULE hModule = pThread->Module();
    const DWORD dwExitCode = pThread->Run();
    ::FreeLibraryAndExitThread(hModule, dwExitCode);
}

// The module that this code lies in, kept loaded until it is freed. Null on failure.
HMODULE HoldModule() {
    HMODULE hModule = nullptr;
    ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                         reinterpret_cast<const char*>(&g_recordIndex), &hModule);
    return hModule;
}

} // namespace

CThread* CThread::Make(LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, bool bSuspended) {
    if (CRecordIndex::s_dwIndex == TLS_OUT_OF_INDEXES) {
        return nullptr;
    }
    const HANDLE hStop = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const HMODULE hModule = HoldModule();
    auto* pThread = hStop != nullptr && hModule != nullptr
                        ? new (std::nothrow)
                              CThread(lpStartAddress, lpParameter, bSuspended, hStop, hModule)
                        : nullptr;
    if (pThread == nullptr && hModule != nullptr) {
        ::FreeLibrary(hModule);
    }
    if (pThread == nullptr && hStop != nullptr) {
        ::CloseHandle(hStop);
    }
    return pThread;
}

CThread* CThread::Current() {
    // The look-up clears the error number, which is the caller's to keep.
    const DWORD dwError = ::GetLastError();
    auto* pThread = CRecordIndex::s_dwIndex != TLS_OUT_OF_INDEXES
                        ? static_cast<CThread*>(::TlsGetValue(CRecordIndex::s_dwIndex))
                        : nullptr;
    ::SetLastError(dwError);
    return pThread;
}

void CThread::Release() {
    if (m_nReferences.fetch_sub(1) == 1) {
        delete this;
    }
}

DWORD CThread::Run() {
    ::TlsSetValue(CRecordIndex::s_dwIndex, this);
    const DWORD dwExitCode = m_bNeverRuns ? 0 : m_lpStartAddress(m_lpParameter);
    ::TlsSetValue(CRecordIndex::s_dwIndex, nullptr);
    m_bEnded.store(true);
    Release();
    return dwExitCode;
}

void CThread::Stop(bool bNeverRuns) {
    if (bNeverRuns) {
        m_bNeverRuns = true; // one that runs reads it
    }
    m_bStopping.store(true);
    ::SetEvent(m_hStop);
}

void ForgetThread(HANDLE hObject) {
    CThread* pForgotten = nullptr;
    {
        const CLockHold hold(g_TableLock);
        for (CThread** ppThread = &g_pFirst; *ppThread != nullptr;
             ppThread = &(*ppThread)->m_pNext) {
            if ((*ppThread)->m_hThread == hObject) {
                pForgotten = *ppThread;
                *ppThread = pForgotten->m_pNext;
                break;
            }
        }
    }
    if (pForgotten != nullptr) {
        pForgotten->Release();
    }
}

} // namespace windows

HANDLE CreateThread(_SECURITY_ATTRIBUTES* lpThreadAttributes, SIZE_T dwStackSize,
                    LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, DWORD dwCreationFlags,
                    DWORD* lpThreadId) {
    using windows::CThread;
    const DWORD dwSuspended = dwCreationFlags & CREATE_SUSPENDED;
    CThread* pThread = CThread::Make(lpStartAddress, lpParameter, dwSuspended != 0);
    if (pThread == nullptr) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    pThread->AddReference(); // the thread's own
    DWORD dwThreadId = 0;
    const HANDLE hThread = ::CreateThread(lpThreadAttributes, dwStackSize, windows::RunThread,
                                          pThread, dwSuspended, &dwThreadId);
    if (hThread == nullptr) {
        const DWORD dwError = ::GetLastError();
        ::FreeLibrary(pThread->Module());
        pThread->Release();
        pThread->Release();
        ::SetLastError(dwError);
        return nullptr;
    }
    windows::RememberThread(pThread, hThread);
    if (lpThreadId != nullptr) {
        *lpThreadId = dwThreadId;
    }
    return hThread;
}

DWORD ResumeThread(HANDLE hThread) {
    windows::CThread* pThread = windows::FindThread(hThread);
    if (pThread == nullptr) {
        return 0xFFFFFFFF;
    }
    const bool bResumes = pThread->Resume();
    pThread->Release();
    if (!bResumes) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return 0xFFFFFFFF;
    }
    return ::ResumeThread(hThread);
}

BOOL TerminateThread(HANDLE hThread, DWORD /*dwExitCode*/) {
    windows::CThread* pThread = windows::FindThread(hThread);
    if (pThread == nullptr) {
        return FALSE;
    }
    const bool bSuspended = pThread->Resume();
    pThread->Stop(bSuspended);
    if (bSuspended) {
        ::ResumeThread(hThread);
    }
    DWORD dwResult = WAIT_TIMEOUT;
    while (dwResult == WAIT_TIMEOUT && !pThread->HasEnded()) {
        DWORD* const lpAddress = pThread->m_lpWaitAddress.load();
        if (lpAddress != nullptr) {
            ::WakeByAddressAll(lpAddress);
        }
        // It may be reading a file of a server that does not answer.
        ::CancelSynchronousIo(hThread);
        dwResult = ::WaitForSingleObject(hThread, windows::LOOK_AGAIN_MS);
    }
    if (dwResult == WAIT_TIMEOUT) {
        dwResult = ::WaitForSingleObject(hThread, windows::THREAD_END_MS);
    }
    pThread->Release();
    return dwResult != WAIT_FAILED ? TRUE : FALSE;
}

} // namespace platform
