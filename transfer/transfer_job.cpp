// The job around a copy: its start on the caller's thread, the end that both directions share on
// the worker, and the calls that watch it or cut it short.

#include "link/debug_trace.h"
#include "link/device_connection.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "transfer/copy_from_device.h"
#include "transfer/copy_job.h"
#include "transfer/copy_to_device.h"
#include "transfer/io_buf.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

BOOL g_bAbortPending = FALSE;

namespace {

constexpr char DEBUG_LOG[] = R"(C:\DAKDebug.txt)";
constexpr DWORD DEBUG_LOG_LIMIT = 0x500000;

constexpr DWORD SWALLOW_TIMEOUT_MS = 5000;
constexpr int DRAIN_READS = 4;
constexpr DWORD DRAIN_PAUSE_MS = 300;
constexpr DWORD WORKER_WAIT_MS = 2000;

// Nobody may find a debug log that grew without end. Where there are no drives, its path names
// something else.
void KeepDebugLogShort() {
    if (!platform::HasDrives()) {
        return;
    }
    const HANDLE hFile = platform::CreateFileA(DEBUG_LOG, GENERIC_READ, FILE_SHARE_READ, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        return;
    }
    const DWORD dwSize = platform::GetFileSize(hFile, nullptr);
    platform::CloseHandle(hFile);
    if (dwSize > DEBUG_LOG_LIMIT) {
        platform::DeleteFileA(DEBUG_LOG);
    }
}

bool IsFolderText(const WCHAR* lpszText) {
    return lpszText != nullptr && WideLength(lpszText) < DAK_MAX_NAME;
}

void FreeJob(_tagCommitParam* lpParam) {
    platform::LocalFree(lpParam->lpJob);
    platform::LocalFree(lpParam);
}

// The job's records, or null when there is no memory.
_tagCommitParam* MakeJob(CDAKVorn* pOwner, UINT nDirection, const WCHAR* lpSource,
                         const WCHAR* lpDest, CStringArray* pFileList) {
    auto* lpParam =
        static_cast<_tagCommitParam*>(platform::LocalAlloc(LPTR, sizeof(_tagCommitParam)));
    auto* lpJob = static_cast<_tagCopyJob*>(platform::LocalAlloc(LPTR, sizeof(_tagCopyJob)));
    if (lpParam == nullptr || lpJob == nullptr) {
        platform::LocalFree(lpJob);
        platform::LocalFree(lpParam);
        return nullptr;
    }
    lpJob->dwDirection = nDirection;
    std::memcpy(lpJob->szSource, lpSource, (WideLength(lpSource) + 1) * sizeof(WCHAR));
    std::memcpy(lpJob->szDest, lpDest, (WideLength(lpDest) + 1) * sizeof(WCHAR));
    lpJob->pFileList = pFileList;
    lpParam->dwKind = DAK_COPY_FILES;
    lpParam->lpJob = lpJob;
    lpParam->pOwner = pOwner;
    lpParam->nResult = 0;
    return lpParam;
}

} // namespace

SIZE_T WideLength(const WCHAR* lpszText) {
    SIZE_T dwLength = 0;
    while (lpszText[dwLength] != 0) {
        ++dwLength;
    }
    return dwLength;
}

CString NarrowText(const WCHAR* lpszText, bool& bExact) {
    // No code page takes more than four bytes for a 16-bit unit.
    std::vector<char> text((WideLength(lpszText) + 1) * 4);
    BOOL bReplaced = FALSE;
    const int nBytes = platform::WideCharToMultiByte(
        CP_ACP, 0, lpszText, -1, text.data(), static_cast<int>(text.size()), nullptr, &bReplaced);
    bExact = nBytes > 0 && bReplaced == FALSE;
    return nBytes > 0 ? CString(text.data()) : CString();
}

CString WithBackslashes(const char* lpszName) {
    std::string strName(lpszName);
    std::replace(strName.begin(), strName.end(), '/', '\\');
    return CString(strName.c_str());
}

DWORD CDAKVorn::DAKTransmitFiles(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                                 CStringArray* pFileList, HWND hNotifyWnd) {
    KeepDebugLogShort();
    if (nDirection > DAK_TO_DEVICE || !IsFolderText(lpSource) || !IsFolderText(lpDest) ||
        pFileList == nullptr) {
        return EndAtOnce(DAKERROR_FAIL);
    }
    if (!g_OperationGate.EnterForJob(this)) {
        return EndAtOnce(DAKERROR_BUSY);
    }
    StoreShared(m_dwErrCode, DAKERROR_FAIL);
    DWORD dwResult = BringLinkUp();
    if (dwResult == DAKERROR_NONE) {
        m_hNotifyWnd = hNotifyWnd;
        dwResult = StartJob(nDirection, lpSource, lpDest, pFileList);
    }
    if (dwResult != DAKERROR_NONE) {
        g_OperationGate.Leave();
    }
    return dwResult;
}

// Makes the job and its worker, which takes over the lock, the link and the gate. On failure the
// lock is free and the link down.
DWORD CDAKVorn::StartJob(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                         CStringArray* pFileList) {
    _tagCommitParam* lpParam = MakeJob(this, nDirection, lpSource, lpDest, pFileList);
    if (lpParam != nullptr) {
        // The worker of an earlier job that nobody cut short has left its handle.
        const HANDLE hEarlier = std::atomic_ref<HANDLE>(m_hCommitThread).exchange(nullptr);
        if (hEarlier != nullptr) {
            platform::CloseHandle(hEarlier);
        }
        StoreShared(m_dwSizeCopied, std::uint64_t{0});
        StoreShared(m_dwSizeTotal, std::uint64_t{0});
        // The part file of an earlier job is long gone; nothing new under its name is ours.
        SetPathText(m_szPartPath, "");
        StoreShared(m_bCopying, BOOL{1});
        m_nCopyResult = 1;
        g_OperationGate.BeginJob();
        const HANDLE hThread = platform::CreateThread(nullptr, 0, &CDAKVorn::Commit_Thread, lpParam,
                                                      CREATE_SUSPENDED, nullptr);
        if (hThread != nullptr) {
            StoreShared(m_hCommitThread, hThread);
            platform::ResumeThread(hThread);
            return DAKERROR_NONE;
        }
        StoreShared(m_bCopying, BOOL{0});
        g_OperationGate.CancelJob();
        FreeJob(lpParam);
    }
    ReleaseDeviceLock();
    DeInitial();
    return DAKERROR_FAIL;
}

DWORD WINAPI CDAKVorn::Commit_Thread(void* lpParameter) {
    auto* lpParam = static_cast<_tagCommitParam*>(lpParameter);
    if (lpParam == nullptr || lpParam->pOwner == nullptr) {
        return static_cast<DWORD>(-1);
    }
    CDAKVorn* const pOwner = lpParam->pOwner;
    const _tagCopyJob* lpJob = lpParam->lpJob;
    if (lpParam->dwKind == DAK_COPY_FILES && lpJob != nullptr) {
        lpParam->nResult = pOwner->CommitCopyMultiFiles(lpJob->dwDirection, lpJob->szSource,
                                                        lpJob->szDest, lpJob->pFileList);
    }
    if (lpParam->dwKind == DAK_COPY_NONE || lpParam->dwKind == DAK_COPY_FILES) {
        FreeJob(lpParam);
    }
    // From here on the object may be gone.
    g_OperationGate.EndJob(pOwner);
    return 0;
}

int CDAKVorn::CommitCopyMultiFiles(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                                   CStringArray* pFileList) {
    int bRet = 0;
    bool bDrain = true;
    StoreShared(m_dwErrCode, DAKERROR_NONE);
    try {
        if (nDirection == DAK_TO_DEVICE) {
            CCopyToDevice copy(*this, lpSource, lpDest, *pFileList);
            bDrain = copy.Run();
            bRet = copy.Result();
        } else {
            CCopyFromDevice copy(*this, lpSource, lpDest, *pFileList);
            copy.Run();
            bRet = copy.Result();
        }
    } catch (const std::bad_alloc&) {
        // No memory for a path. The closing handshake ends the stream on the device.
        StoreShared(m_dwErrCode, DAKERROR_FAIL);
    }
    EndJob(bDrain);
    return bRet;
}

// The end of a job of either direction. Without bDrain the device handle has just been replaced,
// and there is nothing in the pipe to drain.
void CDAKVorn::EndJob(bool bDrain) {
    g_IoBuf.DeinitIoBuf();
    // No part file outlives its job; whatever bears such a name later is not ours to delete.
    SetPathText(m_szPartPath, "");
    if (bDrain) {
        if (g_bAbortPending != FALSE) {
            SwallowAndAbort();
        }
        DrainPipe(DRAIN_READS, DRAIN_PAUSE_MS);
    }
    ReleaseDeviceLock();
    // A caller that answers the message with a further job waits for our closing.
    g_OperationGate.CloseJob();
    if (m_hNotifyWnd != nullptr) {
        StoreShared(m_dwSizeCopied, LoadShared(m_dwSizeTotal));
        StoreShared(m_bCopying, BOOL{0});
        platform::PostMessageA(m_hNotifyWnd, WM_DAK_TRANSFER_END, 0, 0);
    }
    if (LoadShared(m_dwErrCode) != DAKERROR_CANCELLED) {
        DeInitial();
    }
}

// The device does not know yet that its stream is no longer wanted.
void CDAKVorn::SwallowAndAbort() {
    g_bAbortPending = FALSE;
    DrainWindow(SWALLOW_TIMEOUT_MS);
    StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    if (!WriteControl(DAK_ABORT)) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
    }
}

BOOL CDAKVorn::IsTransmitting() {
    return LoadShared(m_bCopying);
}

void CDAKVorn::GetCopyStatus(char* lpszSource, char* lpszDest, DWORD& dwTotal, DWORD& dwCopied,
                             int& nPercent) {
    if (LoadShared(m_bCopying) == 0) {
        return;
    }
    GetPathText(lpszSource, m_szSourcePath);
    GetPathText(lpszDest, m_szDestPath);
    dwTotal = static_cast<DWORD>(LoadShared(m_dwSizeTotal));
    dwCopied = static_cast<DWORD>(LoadShared(m_dwSizeCopied));
    nPercent = 0;
    if (dwTotal != 0 && dwCopied <= dwTotal) {
        nPercent =
            static_cast<int>(static_cast<double>(dwCopied) / static_cast<double>(dwTotal) * 100);
    }
}

void CDAKVorn::TerminateTransfer() {
    const DWORD dwTurn = g_OperationGate.TurnOf(this);
    if (std::atomic_ref<BOOL>(m_bCopying).exchange(0) == 0) {
        return;
    }
    const HANDLE hThread = std::atomic_ref<HANDLE>(m_hCommitThread).exchange(nullptr);
    if (hThread != nullptr) {
        if (platform::WaitForSingleObject(hThread, WORKER_WAIT_MS) != WAIT_OBJECT_0) {
            StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
            g_OperationGate.GiveUpJob(dwTurn);
        }
        platform::CloseHandle(hThread);
    }
    // A worker or an operation that still runs has the read-ahead buffer in use, and gives it up at
    // its own end.
    const bool bGate = g_OperationGate.TryEnter(this);
    if (bGate) {
        g_IoBuf.DeinitIoBuf();
    } else if (const DWORD dwTurnNow = g_OperationGate.TurnOf(this);
               dwTurnNow != 0 && dwTurnNow != dwTurn) {
        return; // another thread has begun something new on this object
    }
    ForgetFile(dwTurn != 0);
    if (bGate) {
        g_OperationGate.Leave();
    } else {
        g_OperationGate.ReleaseHoldOf(dwTurn);
    }
}

// Behind a cancel: nothing is shown any more, and what has come of the file in work goes, if it was
// a job of this process's.
void CDAKVorn::ForgetFile(bool bOwnJob) {
    if (bOwnJob && LoadShared(m_dwSizeCopied) != LoadShared(m_dwSizeTotal)) {
        char szPartPath[260];
        GetPathText(szPartPath, m_szPartPath);
        platform::DeleteFileA(szPartPath);
    }
    StoreShared(m_dwSizeCopied, std::uint64_t{0});
    StoreShared(m_dwSizeTotal, std::uint64_t{0});
    SetPathText(m_szDestPath, "");
    SetPathText(m_szSourcePath, "");
}
