// The object itself: construction, copies, end, and the operations that need no exchange.

#include "link/dak_vorn.h"

#include "link/device_connection.h"
#include "link/path_text.h"
#include "link/shared_word.h"
#include "platform/file.h"
#include "platform/memory.h"

#include <cstring>

static_assert(DAK_WINDOW_SIZE == 614400 && DAK_PACKAGE_SIZE == 12288);

void* CDAKVorn::operator new(std::size_t dwBytes) {
    return ::operator new(dwBytes);
}

void* CDAKVorn::operator new(std::size_t dwBytes, const std::nothrow_t& noThrow) noexcept {
    return ::operator new(dwBytes, noThrow);
}

void CDAKVorn::operator delete(void* lpObject) noexcept {
    ::operator delete(lpObject);
}

CDAKVorn::CDAKVorn()
    : m_dwRecvPackages(0), m_dwWindowPackages(DAK_WINDOW_PACKAGES), m_dwSentPackages(0),
      m_dwPackageSize(DAK_PACKAGE_SIZE),
      m_lpResendBuf(static_cast<BYTE*>(platform::LocalAlloc(LPTR, DAK_WINDOW_SIZE))),
      m_nResendCount(0), m_dwLastPackageSize(0), m_bSyncStopped(0), m_dwRetryStep(30),
      m_dwRetryBase(100), m_dwCpuMHz(847), m_lpdwSizeOut(nullptr), m_dwSizeIn(0),
      m_lpWriteBuf(nullptr), m_lpReadBuf(nullptr), m_hDevice(INVALID_HANDLE_VALUE),
      m_dwErrCode(DAKERROR_NONE), m_hNotifyWnd(nullptr), m_dwDeviceVersion(0), m_nCopyResult(1),
      m_bCopying(0), m_hCommitThread(nullptr), m_dwSizeCopied(0),
      m_dwSizeTotal(0), m_szSourcePath{}, m_szDestPath{}, m_szPartPath{} {
    // A lock handle that a job left open goes with a fresh start. One that another object's
    // operation works under is not ours to touch.
    if (g_OperationGate.TryEnter(this)) {
        CloseDeviceLock();
        g_OperationGate.Leave();
    }
}

CDAKVorn::CDAKVorn(const CDAKVorn& other) : CDAKVorn() {
    TakeSettings(other);
}

CDAKVorn& CDAKVorn::operator=(const CDAKVorn& other) {
    if (this != &other) {
        EndWhatIsOpen();
        TakeSettings(other);
    }
    return *this;
}

CDAKVorn::~CDAKVorn() {
    EndWhatIsOpen();
    platform::LocalFree(m_lpResendBuf);
    m_lpResendBuf = nullptr;
}

// Settings and results of the source: everything but handles, worker, transfer in work and buffers.
void CDAKVorn::TakeSettings(const CDAKVorn& other) {
    m_dwRecvPackages = other.m_dwRecvPackages;
    m_dwWindowPackages = other.m_dwWindowPackages;
    m_dwSentPackages = other.m_dwSentPackages;
    m_dwPackageSize = other.m_dwPackageSize;
    m_nResendCount = 0;
    m_dwLastPackageSize = 0;
    m_bSyncStopped = other.m_bSyncStopped;
    m_dwRetryStep = other.m_dwRetryStep;
    m_dwRetryBase = other.m_dwRetryBase;
    m_dwCpuMHz = other.m_dwCpuMHz;
    StoreShared(m_dwErrCode, LoadShared(other.m_dwErrCode));
    m_hNotifyWnd = other.m_hNotifyWnd;
    m_dwDeviceVersion = other.m_dwDeviceVersion;
    m_nCopyResult = other.m_nCopyResult;
    StoreShared(m_dwSizeCopied, LoadShared(other.m_dwSizeCopied));
    StoreShared(m_dwSizeTotal, LoadShared(other.m_dwSizeTotal));
    const CWordLockHold hold(g_PathLock);
    std::memcpy(m_szSourcePath, other.m_szSourcePath, sizeof(m_szSourcePath));
    std::memcpy(m_szDestPath, other.m_szDestPath, sizeof(m_szDestPath));
    // A part file belongs to the job that writes it.
    m_szPartPath[0] = '\0';
}

// Ends a worker and closes the link, so that nothing uses the object afterwards.
void CDAKVorn::EndWhatIsOpen() {
    TerminateTransfer();
    // A worker that outlived TerminateTransfer's wait gives up the gate at its end; until then it
    // uses this object and its resend buffer.
    bool bGate = true;
    if (g_OperationGate.IsJobOwner(this)) {
        g_OperationGate.EnterAtLast(this);
    } else {
        bGate = g_OperationGate.TryEnter(this);
    }
    if (bGate) {
        if (IsHandleOpen(LoadShared(g_hDeviceMutex))) {
            DisConnect();
            CloseDeviceLock();
        }
        g_OperationGate.Leave();
    }
    if (IsHandleOpen(m_hDevice)) {
        platform::CloseHandle(m_hDevice);
        m_hDevice = INVALID_HANDLE_VALUE;
    }
    const HANDLE hThread = std::atomic_ref<HANDLE>(m_hCommitThread).exchange(nullptr);
    if (hThread != nullptr) {
        platform::TerminateThread(hThread, 0);
        platform::CloseHandle(hThread);
    }
}

DWORD CDAKVorn::GetLastError() {
    return LoadShared(m_dwErrCode);
}

void CDAKVorn::DAKGetVersionNumber(DWORD* lpdwVersion1, DWORD* lpdwVersion2) {
    constexpr DWORD dwVersion1 = 0x019A00C9;
    constexpr DWORD dwVersion2 = 0x00010005;
    if (lpdwVersion1 != nullptr && lpdwVersion2 != nullptr) {
        *lpdwVersion1 = dwVersion1;
        *lpdwVersion2 = dwVersion2;
    }
}
