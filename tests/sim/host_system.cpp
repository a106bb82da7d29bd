// The simulated host's threads, waits and locks, its memory, text, registry, processes, device
// interfaces and windows.

#include "tests/sim/seam.h"

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace sim {

void CWorld::Plug(IPeer& peer) {
    Unplug();
    static std::uint64_t qwPlugs = 0;
    m_pPeer = &peer;
    qwPlugNumber = ++qwPlugs;
    m_qwPeerToldMs.reset();
    Note("plug");
    PeerChanged();
}

void CWorld::Unplug() {
    if (IPeer* pPeer = Peer()) {
        Note("unplug");
        m_pPeer = nullptr;
        pPeer->Unplugged();
        PeerChanged();
    }
}

IPeer* CWorld::Peer() {
    if (m_pPeer != nullptr) {
        m_pPeer->SetTime(m_qwNowMs);
    }
    return m_pPeer;
}

bool CWorld::AskForDevice() {
    if (++m_qwQuestions == m_qwUnplugAt) {
        Unplug();
    }
    Note(m_pPeer != nullptr ? "ask, present" : "ask, gone");
    return m_pPeer != nullptr && !m_bFailed;
}

DWORD CWorld::AddProcess(const std::string& strFile, bool bOpenable) {
    const DWORD dwId = processes.empty() ? 4 : processes.back().dwId + 4;
    processes.push_back({dwId, strFile, bOpenable});
    return dwId;
}

void CWorld::OtherProcessOpensLock(const std::string& strName, bool bHolds) {
    auto& pLock = locks.try_emplace(strName, std::make_shared<CLock>()).first->second;
    pLock->bOtherHasOpen = true;
    pLock->bHeldByOther = bHolds;
    pLock->bHeld = pLock->bHeld || bHolds;
}

void CWorld::OtherProcessClosesLock(const std::string& strName) {
    const auto it = locks.find(strName);
    if (it == locks.end()) {
        return;
    }
    CLock& lock = *it->second;
    lock.bOtherHasOpen = false;
    lock.bHeld = lock.bHeld && !std::exchange(lock.bHeldByOther, false);
    WakeAll(&lock);
    if (lock.nHandles == 0) {
        locks.erase(it);
    }
}

namespace {

// One open handle on a lock.
class CLockHandle : public CWaitable {
  public:
    CLockHandle(std::string strName, std::shared_ptr<CWorld::CLock> pLock)
        : m_strName(std::move(strName)), m_pLock(std::move(pLock)) {
        ++m_pLock->nHandles;
    }
    bool Take() override { return !std::exchange(m_pLock->bHeld, true); }
    const void* Key() const override { return m_pLock.get(); }
    const char* What() const override { return "a lock"; }
    void HandleClosed() noexcept override {
        CWorld& world = *CWorld::Current();
        if (--m_pLock->nHandles > 0) {
            return;
        }
        Release(world);
        if (!m_pLock->bOtherHasOpen) {
            world.locks.erase(m_strName);
        }
    }
    bool Release(CWorld& world) {
        world.WakeAll(Key());
        return !m_pLock->bHeldByOther && std::exchange(m_pLock->bHeld, false);
    }

  private:
    const std::string m_strName;
    const std::shared_ptr<CWorld::CLock> m_pLock;
};

class CSnapshot : public CObject {
  public:
    explicit CSnapshot(std::vector<CWorld::CProcess> processes)
        : m_processes(std::move(processes)) {}

    BOOL Next(bool bFirst, platform::PROCESSENTRY32& entry) {
        m_dwNext = bFirst ? 0 : m_dwNext;
        if (m_dwNext >= m_processes.size()) {
            return FailWith(ERROR_NO_MORE_ITEMS);
        }
        const CWorld::CProcess& process = m_processes[m_dwNext++];
        entry.th32ProcessID = process.dwId;
        entry.szExeFile[process.strFile.copy(entry.szExeFile, MAX_PATH - 1)] = '\0';
        return TRUE;
    }

  private:
    const std::vector<CWorld::CProcess> m_processes;
    std::size_t m_dwNext = 0;
};

class CProcessHandle : public CObject {
  public:
    explicit CProcessHandle(DWORD dwId) : m_dwId(dwId) {}
    const DWORD m_dwId;
};

// Handles that CloseHandle does not close.
class CRegistryKey : public CObject {
  public:
    bool IsForCloseHandle() const override { return false; }
};

class CInterfaceSet : public CRegistryKey {};

BOOL NextProcess(HANDLE hSnapshot, platform::PROCESSENTRY32* lppe, ECall eCall) {
    return Call(eCall, FALSE, [&](CWorld& /*world*/) {
        const auto pSnapshot = FindObject<CSnapshot>(hSnapshot);
        return pSnapshot ? pSnapshot->Next(eCall == ECall::Process32First, *lppe) : FALSE;
    });
}

} // namespace

} // namespace sim

namespace platform {

using sim::Call;
using sim::CThread;
using sim::CWorld;
using sim::ECall;
using sim::EWake;
using sim::FailWith;
using sim::FindObject;
using sim::GiveHandle;

// Threads and waits.

DWORD GetLastError() {
    return real_platform::GetLastError();
}

void Sleep(DWORD dwMilliseconds) {
    Call(ECall::Sleep, FALSE, [&](CWorld& world) {
        world.Note("sleep ", dwMilliseconds);
        world.Block(nullptr, world.DueAfter(dwMilliseconds), "a sleep", dwMilliseconds);
        return TRUE;
    });
}

HANDLE CreateThread(_SECURITY_ATTRIBUTES* /*lpThreadAttributes*/, SIZE_T /*dwStackSize*/,
                    LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, DWORD dwCreationFlags,
                    DWORD* /*lpThreadId*/) {
    return Call(ECall::CreateThread, HANDLE{}, [&](CWorld& world) {
        return world.NewThread([=] { lpStartAddress(lpParameter); },
                               (dwCreationFlags & CREATE_SUSPENDED) != 0);
    });
}

DWORD ResumeThread(HANDLE hThread) {
    return Call(ECall::ResumeThread, 0xFFFFFFFF, [&](CWorld& world) {
        const auto pThread = FindObject<CThread>(hThread);
        if (!pThread || pThread->eState != CThread::EState::Suspended) {
            return 0xFFFFFFFF;
        }
        world.Start(*pThread);
        return 1U;
    });
}

BOOL TerminateThread(HANDLE hThread, DWORD /*dwExitCode*/) {
    return Call(ECall::TerminateThread, FALSE, [&](CWorld& world) {
        const auto pThread = FindObject<CThread>(hThread);
        if (!pThread) {
            return FALSE;
        }
        world.Note("thread stop ", pThread->nNumber);
        world.Stop(*pThread);
        return TRUE;
    });
}

DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) {
    return Call(ECall::WaitForSingleObject, WAIT_FAILED, [&](CWorld& world) {
        const auto pObject = FindObject<sim::CWaitable>(hObject);
        if (!pObject) {
            return WAIT_FAILED;
        }
        switch (world.Await(pObject->Key(), dwMilliseconds, pObject->What(), pObject->Number(),
                            [&] { return pObject->Take(); })) {
        case EWake::Woken:
            return WAIT_OBJECT_0;
        case EWake::TimedOut:
            return WAIT_TIMEOUT;
        default:
            FailWith(ERROR_OPERATION_ABORTED);
            return WAIT_FAILED;
        }
    });
}

HANDLE CreateMutexA(_SECURITY_ATTRIBUTES* /*lpMutexAttributes*/, BOOL /*bInitialOwner*/,
                    const char* lpName) {
    return Call(ECall::CreateMutexA, HANDLE{}, [&](CWorld& world) {
        const std::string strName = lpName == nullptr ? "" : lpName;
        auto pLock = std::make_shared<CWorld::CLock>();
        bool bExisted = false;
        if (lpName != nullptr) {
            const auto [it, bNew] = world.locks.try_emplace(strName, pLock);
            pLock = it->second;
            bExisted = !bNew;
        }
        world.Note("lock open ", strName, bExisted ? ", existed" : "");
        const HANDLE hLock = GiveHandle(
            world, std::make_shared<sim::CLockHandle>(strName, pLock), "lock " + strName);
        FailWith(bExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
        return hLock;
    });
}

BOOL ReleaseMutex(HANDLE hMutex) {
    return Call(ECall::ReleaseMutex, FALSE, [&](CWorld& world) {
        const auto pLock = FindObject<sim::CLockHandle>(hMutex);
        return pLock && !pLock->Release(world) ? FailWith(ERROR_NOT_OWNER) : pLock != nullptr;
    });
}

BOOL CloseHandle(HANDLE hObject) {
    return Call(ECall::CloseHandle, FALSE, [&](CWorld& world) {
        const BOOL bClosed = real_platform::CloseHandle(hObject);
        if (bClosed) {
            world.handles.erase(hObject);
        }
        return bClosed;
    });
}

BOOL WaitOnAddress(DWORD* lpAddress, DWORD dwCompare, DWORD dwMilliseconds) {
    return Call(ECall::WaitOnAddress, FALSE, [&](CWorld& world) {
        if (std::atomic_ref<DWORD>(*lpAddress).load() != dwCompare) {
            return TRUE;
        }
        switch (world.Block(lpAddress, world.DueAfter(dwMilliseconds), "a word to change")) {
        case EWake::Woken:
            return TRUE;
        case EWake::TimedOut:
            return FailWith(WAIT_TIMEOUT);
        default:
            return FailWith(ERROR_OPERATION_ABORTED);
        }
    });
}

void WakeByAddressAll(DWORD* lpAddress) {
    Call(ECall::WakeByAddressAll, FALSE, [&](CWorld& world) {
        world.WakeAll(lpAddress);
        return TRUE;
    });
}

// Memory, which lives on past the end of its world, for the library's own statics; and text.

void* LocalAlloc(UINT uFlags, SIZE_T uBytes) {
    return Call(ECall::LocalAlloc, static_cast<void*>(nullptr), [&](CWorld& world) {
        void* hMem = world.dwFailAllocationsOf == uBytes
                         ? nullptr
                         : real_platform::LocalAlloc(uFlags, uBytes);
        if (hMem != nullptr) {
            world.blocks.emplace(hMem, uBytes);
        }
        return hMem;
    });
}

void* LocalFree(void* hMem) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->blocks.erase(hMem);
    }
    return real_platform::LocalFree(hMem);
}

int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, const WCHAR* lpWideCharStr, int cchWideChar,
                        char* lpMultiByteStr, int cbMultiByte, const char* lpDefaultChar,
                        BOOL* lpUsedDefaultChar) {
    return Call(ECall::WideCharToMultiByte, 0, real_platform::WideCharToMultiByte, CodePage,
                dwFlags, lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte, lpDefaultChar,
                lpUsedDefaultChar);
}

int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, const char* lpMultiByteStr, int cbMultiByte,
                        WCHAR* lpWideCharStr, int cchWideChar) {
    return Call(ECall::MultiByteToWideChar, 0, real_platform::MultiByteToWideChar, CodePage,
                dwFlags, lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar);
}

char* lstrcpyA(char* lpString1, const char* lpString2) {
    return real_platform::lstrcpyA(lpString1, lpString2);
}

// Registry.

LONG RegOpenKeyExA(HKEY hKey, const char* lpSubKey, DWORD /*ulOptions*/, DWORD /*samDesired*/,
                   HKEY* phkResult) {
    return Call(ECall::RegOpenKeyExA, LONG{ERROR_GEN_FAILURE}, [&](CWorld& world) -> LONG {
        if (!world.bRegistryKeyExists || hKey != HKEY_LOCAL_MACHINE ||
            ::strcasecmp(lpSubKey, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0") != 0) {
            return ERROR_FILE_NOT_FOUND;
        }
        *phkResult = static_cast<HKEY>(
            GiveHandle(world, std::make_shared<sim::CRegistryKey>(), "registry key"));
        return ERROR_SUCCESS;
    });
}

LONG RegQueryValueExA(HKEY hKey, const char* lpValueName, DWORD* /*lpReserved*/, DWORD* lpType,
                      BYTE* lpData, DWORD* lpcbData) {
    return Call(ECall::RegQueryValueExA, LONG{ERROR_GEN_FAILURE}, [&](CWorld& world) -> LONG {
        if (!FindObject<sim::CRegistryKey>(hKey)) {
            return ERROR_INVALID_HANDLE;
        }
        if (::strcasecmp(lpValueName, "~MHz") != 0 || !world.dwCpuMHz) {
            return ERROR_FILE_NOT_FOUND;
        }
        if (std::exchange(*lpcbData, DWORD{sizeof(DWORD)}) < sizeof(DWORD)) {
            return ERROR_MORE_DATA;
        }
        *lpType = REG_DWORD;
        std::memcpy(lpData, &*world.dwCpuMHz, sizeof(DWORD));
        return ERROR_SUCCESS;
    });
}

LONG RegCloseKey(HKEY hKey) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && FindObject<sim::CRegistryKey>(hKey) && CloseObject(*pWorld, hKey)
               ? LONG{ERROR_SUCCESS}
               : LONG{ERROR_INVALID_HANDLE};
}

// Processes.

HANDLE CreateToolhelp32Snapshot(DWORD /*dwFlags*/, DWORD /*th32ProcessID*/) {
    return Call(ECall::CreateToolhelp32Snapshot, HANDLE{}, [](CWorld& world) {
        return GiveHandle(world, std::make_shared<sim::CSnapshot>(world.processes),
                          "process snapshot");
    });
}

BOOL Process32First(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    return sim::NextProcess(hSnapshot, lppe, ECall::Process32First);
}

BOOL Process32Next(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    return sim::NextProcess(hSnapshot, lppe, ECall::Process32Next);
}

HANDLE OpenProcess(DWORD /*dwDesiredAccess*/, BOOL /*bInheritHandle*/, DWORD dwProcessId) {
    return Call(ECall::OpenProcess, HANDLE{}, [&](CWorld& world) -> HANDLE {
        const auto it =
            std::ranges::find(world.processes, dwProcessId, &CWorld::CProcess::dwId);
        if (it == world.processes.end() || !it->bOpenable) {
            FailWith(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        return GiveHandle(world, std::make_shared<sim::CProcessHandle>(dwProcessId), "process");
    });
}

BOOL TerminateProcess(HANDLE hProcess, UINT /*uExitCode*/) {
    return Call(ECall::TerminateProcess, FALSE, [&](CWorld& world) {
        const auto pProcess = FindObject<sim::CProcessHandle>(hProcess);
        if (!pProcess) {
            return FALSE;
        }
        std::erase_if(world.processes, [&](const CWorld::CProcess& process) {
            if (process.dwId == pProcess->m_dwId) {
                world.strEndedProcesses.push_back(process.strFile);
            }
            return process.dwId == pProcess->m_dwId;
        });
        return TRUE;
    });
}

// Device interfaces.

HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* /*Enumerator*/,
                              HWND /*hwndParent*/, DWORD Flags) {
    static const GUID DEVICE_CLASS = {
        0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
    return Call(ECall::SetupDiGetClassDevsA, INVALID_HANDLE_VALUE, [&](CWorld& world) {
        return std::memcmp(ClassGuid, &DEVICE_CLASS, sizeof(GUID)) != 0 ||
                       Flags != (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)
                   ? INVALID_HANDLE_VALUE
                   : GiveHandle(world, std::make_shared<sim::CInterfaceSet>(),
                                "device information set");
    });
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* /*DeviceInfoData*/,
                                 const GUID* /*InterfaceClassGuid*/, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData) {
    return Call(ECall::SetupDiEnumDeviceInterfaces, FALSE, [&](CWorld& world) {
        if (!FindObject<sim::CInterfaceSet>(DeviceInfoSet) ||
            DeviceInterfaceData->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA)) {
            return FailWith(ERROR_INVALID_PARAMETER);
        }
        if (!world.AskForDevice() || MemberIndex > 0) {
            return FailWith(ERROR_NO_MORE_ITEMS);
        }
        DeviceInterfaceData->hSet = DeviceInfoSet;
        return TRUE;
    });
}

BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO DeviceInfoSet,
                                      SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* DeviceInterfaceDetailData,
                                      DWORD DeviceInterfaceDetailDataSize, DWORD* RequiredSize,
                                      void* /*DeviceInfoData*/) {
    return Call(ECall::SetupDiGetDeviceInterfaceDetailA, FALSE, [&](CWorld& /*world*/) {
        constexpr DWORD NEEDED = DETAIL_PATH_OFFSET + sizeof(sim::DEVICE_NODE);
        if (DeviceInterfaceData->hSet != DeviceInfoSet ||
            (DeviceInterfaceDetailData != nullptr &&
             DeviceInterfaceDetailData->cbSize != DETAIL_RECORD_SIZE)) {
            return FailWith(ERROR_INVALID_PARAMETER);
        }
        if (RequiredSize != nullptr) {
            *RequiredSize = NEEDED;
        }
        if (DeviceInterfaceDetailData == nullptr || DeviceInterfaceDetailDataSize < NEEDED) {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        std::memcpy(reinterpret_cast<char*>(DeviceInterfaceDetailData) + DETAIL_PATH_OFFSET,
                    sim::DEVICE_NODE, sizeof(sim::DEVICE_NODE));
        return TRUE;
    });
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && FindObject<sim::CInterfaceSet>(DeviceInfoSet)
               ? CloseObject(*pWorld, DeviceInfoSet)
               : FALSE;
}

// Windows. Handles are never given out twice.

HWND CreateMessageWindow() {
    static std::uintptr_t qwLast = 0x10000;
    const HWND hWnd = reinterpret_cast<HWND>(qwLast += 2);
    CWorld::Current()->windows[hWnd] = {};
    return hWnd;
}

BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage) {
    CWorld& world = *CWorld::Current();
    const auto taken = [&] {
        const auto it = world.windows.find(hWnd);
        if (it != world.windows.end() && !it->second.empty()) {
            *lpMessage = it->second.front();
            it->second.erase(it->second.begin());
            return true;
        }
        return false;
    };
    bool bTaken = false;
    world.Await(hWnd, dwTimeoutMs, "a window message", 0,
                [&] { return (bTaken = taken()) || !world.windows.contains(hWnd); });
    return bTaken ? TRUE : FailWith(WAIT_TIMEOUT);
}

int GetMessageWindowDescriptor(HWND /*hWnd*/) {
    return -1;
}

BOOL DestroyMessageWindow(HWND hWnd) {
    CWorld& world = *CWorld::Current();
    world.WakeAll(hWnd);
    return world.windows.erase(hWnd) != 0 ? TRUE : FailWith(ERROR_INVALID_WINDOW_HANDLE);
}

BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    return Call(ECall::PostMessageA, FALSE, [&](CWorld& world) {
        const auto it = world.windows.find(hWnd);
        if (it == world.windows.end()) {
            return FailWith(ERROR_INVALID_WINDOW_HANDLE);
        }
        it->second.push_back({Msg, wParam, lParam});
        world.posted.push_back({hWnd, Msg, wParam, lParam, world.NowMs()});
        world.Note("post ", Msg);
        world.WakeAll(hWnd);
        return TRUE;
    });
}

} // namespace platform
