// The simulated host's memory, text, registry, processes, device interfaces and windows.

#include "tests/sim/world.h"

#include "platform/device.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace sim {

void CWorld::Plug(IPeer& peer) {
    if (m_pPeer != nullptr) {
        Unplug();
    }
    static std::uint64_t qwPlugs = 0;
    m_pPeer = &peer;
    qwPlugNumber = ++qwPlugs;
    m_qwPeerToldMs = ~0ull;
    Note("plug");
    PeerChanged();
}

void CWorld::Unplug() {
    if (m_pPeer != nullptr) {
        Note("unplug");
        IPeer* pPeer = Peer();
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
    return m_pPeer != nullptr && !m_bFailed;
}

DWORD CWorld::AddProcess(const std::string& strFile, bool bOpenable) {
    const DWORD dwId = processes.empty() ? 4 : processes.back().dwId + 4;
    processes.push_back({dwId, strFile, bOpenable});
    return dwId;
}

namespace {

class CSnapshot : public CObject {
  public:
    std::string What() const override { return "process snapshot"; }
    std::vector<CWorld::CProcess> m_processes;
    std::size_t m_dwNext = 0;
};

class CProcessHandle : public CObject {
  public:
    explicit CProcessHandle(DWORD dwId) : m_dwId(dwId) {}
    std::string What() const override { return "process"; }
    DWORD m_dwId;
};

class CRegistryKey : public CObject {
  public:
    std::string What() const override { return "registry key"; }
};

class CInterfaceSet : public CObject {
  public:
    std::string What() const override { return "device information set"; }
};

CWorld* Enter(ECall eCall) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && pWorld->Enter(eCall) ? pWorld : nullptr;
}

BOOL NextProcess(HANDLE hSnapshot, platform::PROCESSENTRY32* lppe, ECall eCall) {
    CWorld* pWorld = Enter(eCall);
    const auto pSnapshot = pWorld != nullptr ? pWorld->Get<CSnapshot>(hSnapshot) : nullptr;
    if (!pSnapshot || pSnapshot->m_dwNext >= pSnapshot->m_processes.size()) {
        return FailWith(pSnapshot ? ERROR_NO_MORE_ITEMS : ERROR_INVALID_HANDLE);
    }
    const CWorld::CProcess& process = pSnapshot->m_processes[pSnapshot->m_dwNext++];
    lppe->th32ProcessID = process.dwId;
    lppe->szExeFile[process.strFile.copy(lppe->szExeFile, sizeof(lppe->szExeFile) - 1)] = '\0';
    return TRUE;
}

bool EqualWithoutCase(const char* lpszLeft, const char* lpszRight) {
    const std::string_view left = lpszLeft;
    return std::ranges::equal(left, std::string_view(lpszRight), [](char chLeft, char chRight) {
        return std::tolower(static_cast<unsigned char>(chLeft)) ==
               std::tolower(static_cast<unsigned char>(chRight));
    });
}

constexpr char32_t REPLACEMENT = 0xFFFD;

// The code point at nAt of UTF-8, moving behind it. A malformed byte counts as one replacement.
char32_t TakeUtf8(std::string_view text, std::size_t& nAt) {
    const auto byte = [&](std::size_t n) {
        return n < text.size() ? static_cast<unsigned char>(text[n]) : 0u;
    };
    const unsigned nFirst = byte(nAt++);
    if (nFirst < 0x80) {
        return nFirst;
    }
    const std::size_t nMore = nFirst >= 0xF0 ? 3u : nFirst >= 0xE0 ? 2u : 1u;
    char32_t code = nFirst & (0x3Fu >> nMore);
    for (std::size_t i = 0; i < nMore; ++i) {
        if ((byte(nAt + i) & 0xC0) != 0x80) {
            return REPLACEMENT;
        }
        code = (code << 6) | (byte(nAt + i) & 0x3F);
    }
    constexpr char32_t FIRST[] = {0, 0x80, 0x800, 0x10000};
    if (nFirst < 0xC2 || nFirst > 0xF4 || code < FIRST[nMore] || code > 0x10FFFF ||
        (code >= 0xD800 && code < 0xE000)) {
        return REPLACEMENT;
    }
    nAt += nMore;
    return code;
}

// Stores a converted text, or fails when there is no room for it.
template <class TChar, class TText>
int StoreText(const TText& text, TChar* lpTarget, int nRoom) {
    if (nRoom != 0 && static_cast<std::size_t>(nRoom) < text.size()) {
        SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (nRoom != 0) {
        std::copy(text.begin(), text.end(), lpTarget);
    }
    return static_cast<int>(text.size());
}

} // namespace

} // namespace sim

namespace platform {

using sim::CWorld;
using sim::ECall;
using sim::Enter;
using sim::FailWith;
using sim::SetError;

// Memory. A block lives on past the end of its world, for the library's own statics.

void* LocalAlloc(UINT uFlags, SIZE_T uBytes) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld != nullptr &&
        (!pWorld->Enter(ECall::LocalAlloc) || pWorld->dwFailAllocationsOf == uBytes)) {
        SetError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    void* lpBlock = std::malloc(std::max<SIZE_T>(uBytes, 1));
    if (lpBlock != nullptr) {
        // What is not asked to be clear is made visibly not clear.
        std::memset(lpBlock, (uFlags & LPTR) != 0 ? 0 : 0xCD, uBytes);
        if (pWorld != nullptr) {
            pWorld->blocks.emplace(lpBlock, uBytes);
        }
    }
    return lpBlock;
}

void* LocalFree(void* hMem) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->blocks.erase(hMem);
    }
    std::free(hMem);
    return nullptr;
}

// Text.

int WideCharToMultiByte(UINT /*CodePage*/, DWORD /*dwFlags*/, const WCHAR* lpWideCharStr,
                        int cchWideChar, char* lpMultiByteStr, int cbMultiByte,
                        const char* /*lpDefaultChar*/, BOOL* lpUsedDefaultChar) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->Enter(ECall::WideCharToMultiByte);
    }
    std::size_t nLength = static_cast<std::size_t>(cchWideChar);
    if (cchWideChar < 0) {
        for (nLength = 1; lpWideCharStr[nLength - 1] != 0; ++nLength) {
        }
    }
    std::string strText;
    BOOL bReplaced = FALSE;
    for (std::size_t i = 0; i < nLength; ++i) {
        char32_t code = lpWideCharStr[i];
        const char32_t next = i + 1 < nLength ? char32_t{lpWideCharStr[i + 1]} : 0;
        if (code >= 0xD800 && code < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (next - 0xDC00);
            ++i;
        } else if (code >= 0xD800 && code < 0xE000) {
            code = sim::REPLACEMENT;
            bReplaced = TRUE;
        }
        const auto add = [&](char32_t value) { strText += static_cast<char>(value); };
        const auto more = [&](int nShift) { add(0x80 | ((code >> nShift) & 0x3F)); };
        if (code < 0x80) {
            add(code);
        } else if (code < 0x800) {
            add(0xC0 | (code >> 6));
            more(0);
        } else if (code < 0x10000) {
            add(0xE0 | (code >> 12));
            more(6);
            more(0);
        } else {
            add(0xF0 | (code >> 18));
            more(12);
            more(6);
            more(0);
        }
    }
    if (lpUsedDefaultChar != nullptr) {
        *lpUsedDefaultChar = bReplaced;
    }
    return sim::StoreText(strText, lpMultiByteStr, cbMultiByte);
}

int MultiByteToWideChar(UINT /*CodePage*/, DWORD /*dwFlags*/, const char* lpMultiByteStr,
                        int cbMultiByte, WCHAR* lpWideCharStr, int cchWideChar) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->Enter(ECall::MultiByteToWideChar);
    }
    const std::string_view text(lpMultiByteStr, cbMultiByte < 0
                                                    ? std::strlen(lpMultiByteStr) + 1
                                                    : static_cast<std::size_t>(cbMultiByte));
    std::vector<WCHAR> wide;
    for (std::size_t nAt = 0; nAt < text.size();) {
        const char32_t code = sim::TakeUtf8(text, nAt);
        if (code >= 0x10000) {
            wide.push_back(static_cast<WCHAR>(0xD800 + ((code - 0x10000) >> 10)));
            wide.push_back(static_cast<WCHAR>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        } else {
            wide.push_back(static_cast<WCHAR>(code));
        }
    }
    return sim::StoreText(wide, lpWideCharStr, cchWideChar);
}

char* lstrcpyA(char* lpString1, const char* lpString2) {
    std::memcpy(lpString1, lpString2, std::strlen(lpString2) + 1);
    return lpString1;
}

// Registry.

LONG RegOpenKeyExA(HKEY hKey, const char* lpSubKey, DWORD /*ulOptions*/, DWORD /*samDesired*/,
                   HKEY* phkResult) {
    CWorld* pWorld = Enter(ECall::RegOpenKeyExA);
    if (pWorld == nullptr) {
        return ERROR_GEN_FAILURE;
    }
    if (!pWorld->bRegistryKeyExists || hKey != HKEY_LOCAL_MACHINE ||
        !sim::EqualWithoutCase(lpSubKey, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0")) {
        return ERROR_FILE_NOT_FOUND;
    }
    *phkResult = static_cast<HKEY>(pWorld->Add(std::make_shared<sim::CRegistryKey>()));
    return ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY hKey, const char* lpValueName, DWORD* /*lpReserved*/, DWORD* lpType,
                      BYTE* lpData, DWORD* lpcbData) {
    CWorld* pWorld = Enter(ECall::RegQueryValueExA);
    if (pWorld == nullptr) {
        return ERROR_GEN_FAILURE;
    }
    if (!pWorld->Get<sim::CRegistryKey>(hKey)) {
        return ERROR_INVALID_HANDLE;
    }
    if (!sim::EqualWithoutCase(lpValueName, "~MHz") || !pWorld->dwCpuMHz) {
        return ERROR_FILE_NOT_FOUND;
    }
    const DWORD dwRoom = *lpcbData;
    *lpcbData = sizeof(DWORD);
    if (lpType != nullptr) {
        *lpType = REG_DWORD;
    }
    if (lpData != nullptr && dwRoom < sizeof(DWORD)) {
        return ERROR_MORE_DATA;
    }
    if (lpData != nullptr) {
        std::memcpy(lpData, &*pWorld->dwCpuMHz, sizeof(DWORD));
    }
    return ERROR_SUCCESS;
}

LONG RegCloseKey(HKEY hKey) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && pWorld->Get<sim::CRegistryKey>(hKey) && pWorld->Remove(hKey)
               ? LONG{ERROR_SUCCESS}
               : LONG{ERROR_INVALID_HANDLE};
}

// Processes.

HANDLE CreateToolhelp32Snapshot(DWORD /*dwFlags*/, DWORD /*th32ProcessID*/) {
    CWorld* pWorld = Enter(ECall::CreateToolhelp32Snapshot);
    if (pWorld == nullptr) {
        return nullptr;
    }
    auto pSnapshot = std::make_shared<sim::CSnapshot>();
    pSnapshot->m_processes = pWorld->processes;
    return pWorld->Add(pSnapshot);
}

BOOL Process32First(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    CWorld* pWorld = CWorld::Current();
    const auto pSnapshot = pWorld != nullptr ? pWorld->Get<sim::CSnapshot>(hSnapshot) : nullptr;
    if (pSnapshot) {
        pSnapshot->m_dwNext = 0;
    }
    return sim::NextProcess(hSnapshot, lppe, ECall::Process32First);
}

BOOL Process32Next(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    return sim::NextProcess(hSnapshot, lppe, ECall::Process32Next);
}

HANDLE OpenProcess(DWORD /*dwDesiredAccess*/, BOOL /*bInheritHandle*/, DWORD dwProcessId) {
    CWorld* pWorld = Enter(ECall::OpenProcess);
    if (pWorld == nullptr) {
        return nullptr;
    }
    for (const CWorld::CProcess& process : pWorld->processes) {
        if (process.dwId == dwProcessId && process.bOpenable) {
            return pWorld->Add(std::make_shared<sim::CProcessHandle>(dwProcessId));
        }
    }
    SetError(ERROR_ACCESS_DENIED);
    return nullptr;
}

BOOL TerminateProcess(HANDLE hProcess, UINT /*uExitCode*/) {
    CWorld* pWorld = Enter(ECall::TerminateProcess);
    const auto pProcess = pWorld != nullptr ? pWorld->Get<sim::CProcessHandle>(hProcess) : nullptr;
    if (!pProcess) {
        return FALSE;
    }
    std::erase_if(pWorld->processes, [&](const CWorld::CProcess& process) {
        if (process.dwId != pProcess->m_dwId) {
            return false;
        }
        pWorld->strEndedProcesses.push_back(process.strFile);
        pWorld->Note("process end %s", process.strFile.c_str());
        return true;
    });
    return TRUE;
}

// Device interfaces.

HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* /*Enumerator*/,
                              HWND /*hwndParent*/, DWORD Flags) {
    static const GUID DEVICE_CLASS = {
        0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
    CWorld* pWorld = Enter(ECall::SetupDiGetClassDevsA);
    if (pWorld == nullptr || std::memcmp(ClassGuid, &DEVICE_CLASS, sizeof(GUID)) != 0 ||
        Flags != (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
        return INVALID_HANDLE_VALUE;
    }
    return pWorld->Add(std::make_shared<sim::CInterfaceSet>());
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* /*DeviceInfoData*/,
                                 const GUID* /*InterfaceClassGuid*/, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData) {
    CWorld* pWorld = Enter(ECall::SetupDiEnumDeviceInterfaces);
    if (pWorld == nullptr) {
        return FALSE;
    }
    if (!pWorld->Get<sim::CInterfaceSet>(DeviceInfoSet) ||
        DeviceInterfaceData->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA)) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    const bool bThere = pWorld->AskForDevice();
    pWorld->Note(bThere ? "ask, present" : "ask, gone");
    if (!bThere || MemberIndex > 0) {
        return FailWith(ERROR_NO_MORE_ITEMS);
    }
    DeviceInterfaceData->dwIndex = MemberIndex;
    DeviceInterfaceData->hSet = DeviceInfoSet;
    return TRUE;
}

BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO DeviceInfoSet,
                                      SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* DeviceInterfaceDetailData,
                                      DWORD DeviceInterfaceDetailDataSize, DWORD* RequiredSize,
                                      void* /*DeviceInfoData*/) {
    CWorld* pWorld = Enter(ECall::SetupDiGetDeviceInterfaceDetailA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    const std::size_t dwPath = std::strlen(sim::DEVICE_NODE) + 1;
    const std::size_t dwNeeded = DETAIL_PATH_OFFSET + dwPath;
    if (!pWorld->Get<sim::CInterfaceSet>(DeviceInfoSet) ||
        DeviceInterfaceData->hSet != DeviceInfoSet ||
        (DeviceInterfaceDetailData != nullptr &&
         DeviceInterfaceDetailData->cbSize != DETAIL_RECORD_SIZE)) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    if (RequiredSize != nullptr) {
        *RequiredSize = static_cast<DWORD>(dwNeeded);
    }
    if (DeviceInterfaceDetailData == nullptr || DeviceInterfaceDetailDataSize < dwNeeded) {
        return FailWith(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(reinterpret_cast<char*>(DeviceInterfaceDetailData) + DETAIL_PATH_OFFSET,
                sim::DEVICE_NODE, dwPath);
    return TRUE;
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && pWorld->Get<sim::CInterfaceSet>(DeviceInfoSet) &&
                   pWorld->Remove(DeviceInfoSet)
               ? TRUE
               : FailWith(ERROR_INVALID_HANDLE);
}

// Windows.

HWND CreateMessageWindow() {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr) {
        return nullptr;
    }
    static std::uintptr_t qwLast = 0x10000;
    const HWND hWnd = reinterpret_cast<HWND>(qwLast += 2);
    pWorld->windows[hWnd] = {};
    return hWnd;
}

BOOL WaitWindowMessage(HWND hWnd, DWORD dwTimeoutMs, WINDOWMESSAGE* lpMessage) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr) {
        return FALSE;
    }
    const auto qwDue = pWorld->DueAfter(dwTimeoutMs);
    for (sim::EWake eWake = sim::EWake::Woken;;) {
        const auto it = pWorld->windows.find(hWnd);
        if (it == pWorld->windows.end()) {
            return FailWith(ERROR_INVALID_WINDOW_HANDLE);
        }
        auto& messages = it->second.messages;
        if (!messages.empty()) {
            *lpMessage = messages.front();
            messages.erase(messages.begin());
            return TRUE;
        }
        if (eWake != sim::EWake::Woken || dwTimeoutMs == 0) {
            return FailWith(WAIT_TIMEOUT);
        }
        eWake = pWorld->Block(hWnd, qwDue, "a window message");
    }
}

int GetMessageWindowDescriptor(HWND /*hWnd*/) {
    return -1;
}

BOOL DestroyMessageWindow(HWND hWnd) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr || pWorld->windows.erase(hWnd) == 0) {
        return FailWith(ERROR_INVALID_WINDOW_HANDLE);
    }
    pWorld->WakeAll(hWnd);
    return TRUE;
}

BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    CWorld* pWorld = Enter(ECall::PostMessageA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    const auto it = pWorld->windows.find(hWnd);
    if (it == pWorld->windows.end()) {
        return FailWith(ERROR_INVALID_WINDOW_HANDLE);
    }
    it->second.messages.push_back({Msg, wParam, lParam});
    pWorld->posted.push_back({hWnd, Msg, wParam, lParam, pWorld->NowMs()});
    pWorld->Note("post %u", static_cast<unsigned>(Msg));
    pWorld->WakeAll(hWnd);
    return TRUE;
}

} // namespace platform
