// Bringing the link up and taking it down around a single operation.

#include "link/device_connection.h"

#include "link/dak_vorn.h"
#include "platform/device.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/thread.h"

#include <cstring>

HANDLE g_hDeviceMutex = INVALID_HANDLE_VALUE;
COperationGate g_OperationGate;

namespace {

constexpr char LOCK_NAME[] = "NadoxUSBAPI";
constexpr char CPU_KEY[] = R"(HARDWARE\DESCRIPTION\System\CentralProcessor\0)";
constexpr char CPU_VALUE[] = "~MHZ";

// The processes of the platform's own synchronisation, which hold the pipe.
constexpr const char* SYNC_PROCESSES[] = {"WCESCOMM.exe", "WCESMgr.exe"};
constexpr int SYNC_PROCESS_COUNT = 2;

constexpr DWORD CONNECT_TIMEOUT_MS = 300;
constexpr DWORD SETTLE_MS = 300;

// Guards the handle between a worker that closes it and a cancelling caller that releases the lock.
CWordLock g_HandleLock;

HDEVINFO PresentInterfaces() {
    return platform::SetupDiGetClassDevsA(&platform::DEVICE_INTERFACE_CLASS, nullptr, nullptr,
                                          DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
}

bool FirstInterface(HDEVINFO hSet, platform::SP_DEVICE_INTERFACE_DATA& data) {
    data = {};
    data.cbSize = sizeof(data);
    return platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &platform::DEVICE_INTERFACE_CLASS,
                                                 0, &data) != FALSE;
}

HANDLE OpenInterface(HDEVINFO hSet, platform::SP_DEVICE_INTERFACE_DATA& data) {
    DWORD dwRequired = 0;
    platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, nullptr, 0, &dwRequired, nullptr);
    if (dwRequired < platform::DETAIL_RECORD_SIZE) {
        return INVALID_HANDLE_VALUE;
    }
    const platform::CLocalBuffer record(dwRequired);
    if (!record) {
        return INVALID_HANDLE_VALUE;
    }
    auto* lpDetail = reinterpret_cast<platform::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(record.Get());
    lpDetail->cbSize = platform::DETAIL_RECORD_SIZE;
    if (platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwRequired, nullptr,
                                                   nullptr) == FALSE) {
        return INVALID_HANDLE_VALUE;
    }
    return platform::CreateFileA(lpDetail->DevicePath, GENERIC_READ | GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                 nullptr);
}

char LowerCase(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

bool EqualIgnoringCase(const char* lpszLeft, const char* lpszRight) {
    for (; *lpszLeft != '\0' && *lpszRight != '\0'; ++lpszLeft, ++lpszRight) {
        if (LowerCase(*lpszLeft) != LowerCase(*lpszRight)) {
            return false;
        }
    }
    return *lpszLeft == *lpszRight;
}

bool IsSyncProcess(const char* lpszExeFile) {
    const char* lpszBackslash = std::strrchr(lpszExeFile, '\\');
    const char* lpszName = lpszBackslash != nullptr ? lpszBackslash + 1 : lpszExeFile;
    for (const char* lpszSync : SYNC_PROCESSES) {
        if (EqualIgnoringCase(lpszName, lpszSync)) {
            return true;
        }
    }
    return false;
}

void EndProcess(DWORD dwProcessId) {
    const HANDLE hProcess = platform::OpenProcess(PROCESS_TERMINATE, FALSE, dwProcessId);
    if (hProcess != nullptr) {
        platform::TerminateProcess(hProcess, 0);
        platform::CloseHandle(hProcess);
    }
}

// The processor's speed from the registry, or dwPresent where there is none.
DWORD ReadCpuMHz(DWORD dwPresent) {
    HKEY hKey = nullptr;
    if (platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE, CPU_KEY, 0, KEY_READ, &hKey) != 0) {
        return dwPresent;
    }
    DWORD dwMHz = dwPresent;
    DWORD dwType = 0;
    DWORD dwBytes = sizeof(dwMHz);
    const LONG lResult = platform::RegQueryValueExA(hKey, CPU_VALUE, nullptr, &dwType,
                                                    reinterpret_cast<BYTE*>(&dwMHz), &dwBytes);
    platform::RegCloseKey(hKey);
    return lResult == 0 && dwType == REG_DWORD && dwBytes == sizeof(dwMHz) ? dwMHz : dwPresent;
}

int AtLeastOne(int nValue) {
    return nValue > 0 ? nValue : 1;
}

} // namespace

bool TakeDeviceLock() {
    return platform::WaitForSingleObject(LoadShared(g_hDeviceMutex), INFINITE) == WAIT_OBJECT_0;
}

void ReleaseDeviceLock() {
    const CWordLockHold hold(g_HandleLock);
    const HANDLE hMutex = LoadShared(g_hDeviceMutex);
    if (IsHandleOpen(hMutex)) {
        platform::ReleaseMutex(hMutex);
    }
}

void CloseDeviceLock() {
    const CWordLockHold hold(g_HandleLock);
    const HANDLE hMutex = LoadShared(g_hDeviceMutex);
    if (IsHandleOpen(hMutex)) {
        platform::CloseHandle(hMutex);
    }
    StoreShared(g_hDeviceMutex, INVALID_HANDLE_VALUE);
}

// In a forked child nobody is inside: whoever was has stayed in the parent.
void COperationGate::ForgetParent() {
    const DWORD dwGeneration = platform::ProcessGeneration();
    if (LoadShared(m_dwGeneration) == dwGeneration) {
        return;
    }
    const CWordLockHold hold(m_TurnLock);
    if (LoadShared(m_dwGeneration) != dwGeneration) {
        m_lpHolder = nullptr;
        StoreShared(m_lpLeaving, static_cast<const CDAKVorn*>(nullptr));
        StoreShared(m_dwJobState, DWORD{JOB_NONE});
        StoreShared(m_dwGeneration, dwGeneration);
    }
}

void COperationGate::BeginTurn(const CDAKVorn* lpHolder) {
    const CWordLockHold hold(m_TurnLock);
    m_lpHolder = lpHolder;
    if (++m_dwTurn == 0) {
        m_dwTurn = 1;
    }
}

bool COperationGate::Enter(const CDAKVorn* lpHolder) {
    ForgetParent();
    if (!m_Lock.EnterUnless([this] { return LoadShared(m_dwJobState) == JOB_GIVEN_UP; })) {
        return false;
    }
    BeginTurn(lpHolder);
    return true;
}

bool COperationGate::EnterForJob(const CDAKVorn* lpHolder) {
    ForgetParent();
    if (!m_Lock.EnterUnless([this] {
            const DWORD dwState = LoadShared(m_dwJobState);
            return dwState == JOB_RUNNING || dwState == JOB_GIVEN_UP;
        })) {
        return false;
    }
    BeginTurn(lpHolder);
    return true;
}

void COperationGate::EnterAtLast(const CDAKVorn* lpHolder) {
    ForgetParent();
    m_Lock.Enter();
    BeginTurn(lpHolder);
}

bool COperationGate::TryEnter(const CDAKVorn* lpHolder) {
    ForgetParent();
    if (!m_Lock.TryEnter()) {
        return false;
    }
    BeginTurn(lpHolder);
    return true;
}

void COperationGate::Leave() {
    {
        const CWordLockHold hold(m_TurnLock);
        m_lpHolder = nullptr;
    }
    m_Lock.Leave();
}

DWORD COperationGate::TurnOf(const CDAKVorn* lpHolder) {
    ForgetParent();
    const CWordLockHold hold(m_TurnLock);
    return m_lpHolder == lpHolder ? m_dwTurn : 0;
}

void COperationGate::ReleaseHoldOf(DWORD dwTurn) {
    const CWordLockHold hold(m_TurnLock);
    if (m_lpHolder != nullptr && m_dwTurn == dwTurn) {
        ReleaseDeviceLock();
    }
}

void COperationGate::SetJobState(DWORD dwState) {
    const CWordLockHold hold(m_TurnLock);
    StoreShared(m_dwJobState, dwState);
}

void COperationGate::BeginJob() {
    SetJobState(JOB_RUNNING);
    m_Lock.AskAgain();
}

void COperationGate::CancelJob() {
    SetJobState(JOB_NONE);
}

void COperationGate::GiveUpJob(DWORD dwTurn) {
    const CWordLockHold hold(m_TurnLock);
    if (m_lpHolder != nullptr && m_dwTurn == dwTurn && LoadShared(m_dwJobState) == JOB_RUNNING) {
        StoreShared(m_dwJobState, DWORD{JOB_GIVEN_UP});
        m_Lock.AskAgain();
    }
}

void COperationGate::CloseJob() {
    SetJobState(JOB_CLOSING);
}

void COperationGate::EndJob(const CDAKVorn* lpOwner) {
    {
        const CWordLockHold hold(m_TurnLock);
        if (lpOwner == nullptr || m_lpHolder != lpOwner || LoadShared(m_dwJobState) == JOB_NONE) {
            return;
        }
        // The object's destructor looks for its worker until the gate is free.
        StoreShared(m_lpLeaving, lpOwner);
        StoreShared(m_dwJobState, DWORD{JOB_NONE});
    }
    Leave();
    std::atomic_ref<const CDAKVorn*>(m_lpLeaving).compare_exchange_strong(lpOwner, nullptr);
}

bool COperationGate::IsJobOwner(const CDAKVorn* lpOwner) {
    ForgetParent();
    const CWordLockHold hold(m_TurnLock);
    return (m_lpHolder == lpOwner && LoadShared(m_dwJobState) != JOB_NONE) ||
           LoadShared(m_lpLeaving) == lpOwner;
}

DWORD CDAKVorn::ConnectDevice() {
    const COperationGateHold gate(this);
    if (!gate.Holds()) {
        return EndAtOnce(DAKERROR_BUSY);
    }
    StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
    if (!Initial()) {
        StoreShared(m_dwErrCode, DAKERROR_BUSY);
        return DAKERROR_BUSY;
    }
    const bool bConnected = IsDeviceConnected() != 0;
    if (bConnected) {
        StoreShared(m_dwErrCode, DAKERROR_NONE);
    }
    DeInitial();
    return bConnected ? DAKERROR_NONE : DAKERROR_NO_DEVICE;
}

int CDAKVorn::Initial() {
    m_dwCpuMHz = ReadCpuMHz(m_dwCpuMHz);
    m_dwRetryBase = AtLeastOne((static_cast<int>(m_dwCpuMHz / 100) - 2) * 10);
    m_dwRetryStep = AtLeastOne(m_dwRetryBase / 3);

    if (IsHandleOpen(LoadShared(g_hDeviceMutex))) {
        // Left open by a job that was cut short.
        DisConnect();
        CloseDeviceLock();
    }
    const HANDLE hMutex = platform::CreateMutexA(nullptr, FALSE, LOCK_NAME);
    const bool bExisted = platform::GetLastError() == ERROR_ALREADY_EXISTS;
    StoreShared(g_hDeviceMutex, hMutex);
    if (hMutex == nullptr) {
        return 0;
    }
    if (bExisted) {
        // Another process is at work. Its lock must not seem to live on through our handle.
        CloseDeviceLock();
        return 0;
    }
    return 1;
}

void CDAKVorn::DeInitial() {
    if (IsHandleOpen(m_hDevice)) {
        DisConnect();
        platform::CloseHandle(m_hDevice);
        m_hDevice = INVALID_HANDLE_VALUE;
    }
    if (IsHandleOpen(LoadShared(g_hDeviceMutex))) {
        ReleaseDeviceLock();
        CloseDeviceLock();
    }
}

int CDAKVorn::OpenDevice() {
    m_hDevice = INVALID_HANDLE_VALUE;
    const HDEVINFO hSet = PresentInterfaces();
    if (hSet == INVALID_HANDLE_VALUE) {
        return 0;
    }
    platform::SP_DEVICE_INTERFACE_DATA data;
    if (FirstInterface(hSet, data)) {
        m_hDevice = OpenInterface(hSet, data);
    }
    platform::SetupDiDestroyDeviceInfoList(hSet);
    return m_hDevice != INVALID_HANDLE_VALUE ? 1 : 0;
}

int CDAKVorn::IsDeviceAvailable() {
    const HDEVINFO hSet = PresentInterfaces();
    if (hSet == INVALID_HANDLE_VALUE) {
        return 0;
    }
    platform::SP_DEVICE_INTERFACE_DATA data;
    const bool bPresent = FirstInterface(hSet, data);
    platform::SetupDiDestroyDeviceInfoList(hSet);
    // A device that has come back is another one for whoever waits on the node of its earlier
    // attachment: nothing comes there any more.
    return bPresent && !platform::IsDeviceNodeLost(m_hDevice) ? 1 : 0;
}

int CDAKVorn::IsDeviceConnected() {
    if (TerminateActiveSync()) {
        m_bSyncStopped = 1;
        if (IsHandleOpen(m_hDevice)) {
            platform::CloseHandle(m_hDevice);
        }
        m_hDevice = INVALID_HANDLE_VALUE;
        OpenDevice();
    }
    if (m_hDevice == INVALID_HANDLE_VALUE && !OpenDevice()) {
        platform::Sleep(SETTLE_MS);
        return 0;
    }
    int bConnected = Connect();
    if (!bConnected) {
        platform::CloseHandle(m_hDevice);
        if (OpenDevice()) {
            bConnected = Connect();
        }
    }
    platform::Sleep(SETTLE_MS);
    return bConnected;
}

int CDAKVorn::TerminateActiveSync() {
    const HANDLE hSnapshot = platform::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (hSnapshot == nullptr) {
        return 0;
    }
    int nFound = 0;
    platform::PROCESSENTRY32 entry{};
    BOOL bMore = platform::Process32First(hSnapshot, &entry);
    while (bMore != FALSE && nFound < SYNC_PROCESS_COUNT) {
        if (IsSyncProcess(entry.szExeFile)) {
            EndProcess(entry.th32ProcessID);
            ++nFound;
        }
        if (nFound < SYNC_PROCESS_COUNT) {
            bMore = platform::Process32Next(hSnapshot, &entry);
        }
    }
    platform::CloseHandle(hSnapshot);
    return nFound > 0 ? 1 : 0;
}

int CDAKVorn::Connect() {
    return Handshake(DAK_CONNECT, CONNECT_TIMEOUT_MS);
}

int CDAKVorn::DisConnect() {
    return Handshake(DAK_DISCONNECT, 0);
}

int CDAKVorn::Handshake(DWORD wCommand, DWORD dwTimeoutMs) {
    BYTE package[DAK_HANDSHAKE_SIZE];
    DakPutHandshake(package, wCommand, DAK_PROTOCOL_VERSION);
    if (!TakeDeviceLock()) {
        return 0;
    }
    DWORD dwCount = 0;
    bool bPassed = WriteUSBData(package, sizeof(package), &dwCount) &&
                   ReadUSBData(package, sizeof(package), &dwCount, dwTimeoutMs) &&
                   dwCount == sizeof(package);
    if (bPassed) {
        const DWORD dwVersion = DakGetU32(package + DAK_OFFSET_VERSION);
        const bool bMajorFits =
            wCommand != DAK_CONNECT || dwVersion >> 16 == DAK_PROTOCOL_VERSION >> 16;
        bPassed = DakGetHeader(package).wCommand == wCommand &&
                  DakGetU32(package + DAK_OFFSET_LINK_CODE) == DAK_LINK_CODE && bMajorFits &&
                  DakGetU32(package + DAK_OFFSET_MAX_LENGTH) == DAK_MAXPACKAGELENGTH;
        if (bPassed) {
            m_dwDeviceVersion = dwVersion;
        }
    }
    ReleaseDeviceLock();
    return bPassed ? 1 : 0;
}
