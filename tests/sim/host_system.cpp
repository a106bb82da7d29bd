// The simulated host's threads, waits and locks, its memory, registry, processes, device and
// windows.

#include "tests/sim/seam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

namespace sim {

void CWorld::Join(HANDLE hThread) {
    EXPECT_EQ(platform::WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
    platform::CloseHandle(hThread);
}

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

void CWorld::OtherProcessOpensLock(const std::string& strName) {
    ++locks.try_emplace(strName, std::make_shared<CLock>()).first->second->nHandles;
}

void CWorld::OtherProcessClosesLock(const std::string& strName) {
    const auto it = locks.find(strName);
    if (it != locks.end() && --it->second->nHandles == 0) {
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
    bool HandleClosed() noexcept override {
        if (--m_pLock->nHandles == 0) {
            Release();
            CWorld::Current()->locks.erase(m_strName);
        }
        return true;
    }
    bool Release() {
        CWorld::Current()->WakeAll(Key());
        return std::exchange(m_pLock->bHeld, false);
    }

  private:
    const std::string m_strName;
    const std::shared_ptr<CWorld::CLock> m_pLock;
};

// Some processes: those of a snapshot, of which the next one is told, or the one that was opened.
class CProcesses : public CObject {
  public:
    explicit CProcesses(std::vector<CWorld::CProcess> taken) : processes(std::move(taken)) {}
    const std::vector<CWorld::CProcess> processes;
    std::size_t dwNext = 0;
};

BOOL TellProcess(HANDLE hSnapshot, platform::PROCESSENTRY32* lppe, bool bFirst) {
    const auto pSnapshot = FindObject<CProcesses>(hSnapshot);
    if (!pSnapshot || (bFirst ? 0 : pSnapshot->dwNext) >= pSnapshot->processes.size()) {
        return FailWith(ERROR_NO_MORE_ITEMS);
    }
    pSnapshot->dwNext = bFirst ? 0 : pSnapshot->dwNext;
    const CWorld::CProcess& process = pSnapshot->processes[pSnapshot->dwNext++];
    lppe->th32ProcessID = process.dwId;
    lppe->szExeFile[process.strFile.copy(lppe->szExeFile, MAX_PATH - 1)] = '\0';
    return TRUE;
}

} // namespace

} // namespace sim

namespace platform {

using sim::CLockHandle;
using sim::CThread;
using sim::CWorld;
using sim::EWake;
using sim::FailWith;
using sim::FindObject;

// Threads and waits.

DWORD ProcessGeneration() {
    return 0;
}

SIM_CALL(1, Sleep, FALSE, [](CWorld& world, DWORD dwMs) {
    world.Note("sleep ", dwMs);
    world.Block(nullptr, world.DueAfter(dwMs), "a sleep of " + std::to_string(dwMs));
    return TRUE;
})
SIM_CALL(6, CreateThread, HANDLE{},
         [](CWorld& world, auto, auto, auto lpStart, void* lpParameter, DWORD dwFlags, auto) {
             return world.NewThread([=] { lpStart(lpParameter); },
                                    (dwFlags & CREATE_SUSPENDED) != 0);
         })
SIM_CALL(1, ResumeThread, DWORD{0xFFFFFFFF}, [](CWorld& world, HANDLE hThread) -> DWORD {
    const auto pThread = FindObject<CThread>(hThread);
    if (!pThread || pThread->eState != CThread::EState::Suspended) {
        return 0xFFFFFFFF;
    }
    world.Start(*pThread);
    return 1;
})
SIM_CALL(2, TerminateThread, FALSE, [](CWorld& world, HANDLE hThread, DWORD) {
    const auto pThread = FindObject<CThread>(hThread);
    if (pThread) {
        world.Note("thread stop ", pThread->nNumber);
        world.Stop(*pThread);
    }
    return pThread ? TRUE : FALSE;
})
SIM_CALL(2, WaitForSingleObject, WAIT_FAILED, [](CWorld& world, HANDLE hObject, DWORD dwMs) {
    const auto pObject = FindObject<sim::CWaitable>(hObject);
    const EWake eWake = !pObject ? EWake::Stopped
                                 : world.Await(pObject->Key(), dwMs, world.handles[hObject],
                                               [&] { return pObject->Take(); });
    if (pObject && eWake == EWake::Stopped) {
        FailWith(ERROR_OPERATION_ABORTED);
    }
    return eWake == EWake::Woken ? WAIT_OBJECT_0
                                 : (eWake == EWake::TimedOut ? WAIT_TIMEOUT : WAIT_FAILED);
})
SIM_CALL(3, CreateMutexA, HANDLE{}, [](CWorld& world, auto, BOOL, const char* lpName) {
    const std::string strName = lpName == nullptr ? "" : lpName;
    auto pLock = std::make_shared<CWorld::CLock>();
    const bool bExisted = lpName != nullptr && world.locks.contains(strName);
    if (lpName != nullptr) {
        pLock = world.locks.try_emplace(strName, pLock).first->second;
    }
    world.Note("lock open ", strName, bExisted ? ", existed" : "");
    FailWith(bExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return world.Add(std::make_shared<CLockHandle>(strName, std::move(pLock)), "lock " + strName);
})
SIM_CALL(1, ReleaseMutex, FALSE, [](CWorld& /*world*/, HANDLE hMutex) {
    const auto pLock = FindObject<CLockHandle>(hMutex);
    return pLock && !pLock->Release() ? FailWith(ERROR_NOT_OWNER) : BOOL{pLock != nullptr};
})
SIM_CALL(3, WaitOnAddress, FALSE, [](CWorld& world, DWORD* lpAddress, DWORD dwOld, DWORD dwMs) {
    if (std::atomic_ref<DWORD>(*lpAddress).load() != dwOld) {
        return TRUE;
    }
    const EWake eWake = world.Block(lpAddress, world.DueAfter(dwMs), "a word to change");
    return eWake == EWake::Woken
               ? TRUE
               : FailWith(eWake == EWake::TimedOut ? WAIT_TIMEOUT : ERROR_OPERATION_ABORTED);
})
SIM_CALL(1, WakeByAddressAll, FALSE, [](CWorld& world, DWORD* lpAddress) {
    world.WakeAll(lpAddress);
    return TRUE;
})

// Memory. A block lives on past the end of its world, for the library's own statics.

decltype(LocalAlloc) RealLocalAlloc;
SIM_CALL(2, LocalAlloc, static_cast<void*>(nullptr),
         [](CWorld& world, UINT uFlags, SIZE_T dwBytes) {
             void* hMem =
                 world.dwFailAllocationsOf == dwBytes ? nullptr : RealLocalAlloc(uFlags, dwBytes);
             if (hMem != nullptr) {
                 world.blocks.emplace(hMem, dwBytes);
             }
             return hMem;
         })

decltype(LocalFree) RealLocalFree;
void* LocalFree(void* hMem) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->blocks.erase(hMem);
    }
    return RealLocalFree(hMem);
}

// Registry. The real one takes the speed from the environment.

decltype(RegOpenKeyExA) RealRegOpenKeyExA;
SIM_CALL(5, RegOpenKeyExA, LONG{ERROR_GEN_FAILURE},
         [](CWorld& world, HKEY hKey, const char* lpName, DWORD, DWORD dwRights, HKEY* lpResult) {
             const LONG nResult = world.bRegistryKeyExists
                                      ? RealRegOpenKeyExA(hKey, lpName, 0, dwRights, lpResult)
                                      : LONG{ERROR_FILE_NOT_FOUND};
             if (nResult == 0) {
                 world.Name(*lpResult, "registry key");
             }
             return nResult;
         })

decltype(RegQueryValueExA) RealRegQueryValueExA;
SIM_CALL(6, RegQueryValueExA, LONG{ERROR_GEN_FAILURE},
         [](CWorld& world, HKEY hKey, const char* lpName, auto... arguments) {
             ::setenv("DAK_CPU_MHZ", std::to_string(world.dwCpuMHz.value_or(0)).c_str(), 1);
             return RealRegQueryValueExA(hKey, world.dwCpuMHz ? lpName : "", arguments...);
         })

// Processes.

SIM_CALL(2, CreateToolhelp32Snapshot, HANDLE{}, [](CWorld& world, DWORD, DWORD) {
    return world.Add(std::make_shared<sim::CProcesses>(world.processes), "process snapshot");
})
SIM_CALL(2, Process32First, FALSE,
         [](CWorld& /*world*/, auto... told) { return sim::TellProcess(told..., true); })
SIM_CALL(2, Process32Next, FALSE,
         [](CWorld& /*world*/, auto... told) { return sim::TellProcess(told..., false); })
SIM_CALL(3, OpenProcess, HANDLE{}, [](CWorld& world, DWORD, BOOL, DWORD dwId) {
    const auto it = std::ranges::find(world.processes, dwId, &CWorld::CProcess::dwId);
    return it != world.processes.end() && it->bOpenable
               ? world.Add(std::make_shared<sim::CProcesses>(std::vector{*it}), "process")
               : HANDLE{};
})
SIM_CALL(2, TerminateProcess, FALSE, [](CWorld& world, HANDLE hProcess, UINT) {
    const auto pProcess = FindObject<sim::CProcesses>(hProcess);
    const DWORD dwId = pProcess ? pProcess->processes[0].dwId : 0;
    const auto it = std::ranges::find(world.processes, dwId, &CWorld::CProcess::dwId);
    if (it == world.processes.end()) {
        return FALSE;
    }
    world.strEndedProcesses.push_back(it->strFile);
    world.processes.erase(it);
    return TRUE;
})

// Device interfaces.

decltype(SetupDiGetClassDevsA) RealSetupDiGetClassDevsA;
SIM_CALL(4, SetupDiGetClassDevsA, INVALID_HANDLE_VALUE, [](CWorld& world, auto... arguments) {
    const HANDLE hSet = RealSetupDiGetClassDevsA(arguments...);
    world.Name(hSet, "device information set");
    return hSet;
})
SIM_REAL(5, SetupDiEnumDeviceInterfaces, FALSE)
SIM_REAL(6, SetupDiGetDeviceInterfaceDetailA, FALSE)

// Windows. Handles are never given out twice.

HWND CreateMessageWindow() {
    static std::uintptr_t qwLast = 0x10000;
    const HWND hWnd = reinterpret_cast<HWND>(qwLast += 2);
    CWorld::Current()->windows[hWnd] = {};
    return hWnd;
}

BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage) {
    auto& windows = CWorld::Current()->windows;
    const EWake eWake = CWorld::Current()->Await(hWnd, dwTimeoutMs, "a window message", [&] {
        return !windows.contains(hWnd) || !windows[hWnd].empty();
    });
    if (eWake != EWake::Woken || !windows.contains(hWnd)) {
        return FailWith(eWake != EWake::Woken ? WAIT_TIMEOUT : ERROR_INVALID_WINDOW_HANDLE);
    }
    *lpMessage = windows[hWnd].front();
    windows[hWnd].erase(windows[hWnd].begin());
    return TRUE;
}

int GetMessageWindowDescriptor(HWND /*hWnd*/) {
    return -1;
}

BOOL DestroyMessageWindow(HWND hWnd) {
    CWorld::Current()->WakeAll(hWnd);
    return CWorld::Current()->windows.erase(hWnd) != 0 ? TRUE : FALSE;
}

SIM_CALL(4, PostMessageA, FALSE, [](CWorld& world, HWND hWnd, auto... message) {
    const auto it = world.windows.find(hWnd);
    if (it == world.windows.end()) {
        return FailWith(ERROR_INVALID_WINDOW_HANDLE);
    }
    it->second.push_back({message...});
    world.posted.push_back({hWnd, message..., world.NowMs()});
    world.Note("post");
    world.WakeAll(hWnd);
    return TRUE;
})

} // namespace platform
