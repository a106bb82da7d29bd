#include "platform/windows/device_node.h"

#include "platform/device.h"
#include "platform/windows/handles.h"
#include "platform/windows/waiting.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string_view>

namespace platform::windows {
namespace {

// How long the end of a cancelled transfer is waited for: a driver needs a moment. Where it needs
// more, the next transfer waits for the rest.
constexpr DWORD CANCEL_MS = 200;

// The nodes that are open, and those closed ones that the system still has bytes of. They do not
// end with the library, which may be unloaded before the system is through.
SRWLOCK g_TableLock = SRWLOCK_INIT;
CDeviceNode* g_pFirst = nullptr;

// Frees the closed nodes that the system is through with.
void Sweep() {
    for (CDeviceNode** ppNode = &g_pFirst; *ppNode != nullptr;) {
        CDeviceNode* const pNode = *ppNode;
        if (pNode->m_hNode == nullptr && pNode->HasEnded()) {
            *ppNode = pNode->m_pNext;
            delete pNode;
        } else {
            ppNode = &pNode->m_pNext;
        }
    }
}

CDeviceNode* FindOpen(HANDLE hNode) {
    CDeviceNode* pNode = g_pFirst;
    while (pNode != nullptr && pNode->m_hNode != hNode) {
        pNode = pNode->m_pNext;
    }
    return pNode;
}

// What transfers fail with when the device has been removed.
bool IsRemoval(DWORD dwError) {
    constexpr DWORD NO_SUCH_DEVICE = 433; // not in every compiler's winerror.h
    return dwError == ERROR_DEVICE_NOT_CONNECTED || dwError == ERROR_DEVICE_REMOVED ||
           dwError == ERROR_DEV_NOT_EXIST || dwError == NO_SUCH_DEVICE ||
           dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_BAD_COMMAND ||
           dwError == ERROR_BROKEN_PIPE || dwError == ERROR_PIPE_NOT_CONNECTED;
}

// DAK_PACE=full takes every device for one that needs its pauses.
bool MayBePrompt() {
    constexpr std::string_view FULL = "full";
    char szPace[FULL.size() + 1] = {};
    return ::GetEnvironmentVariableA("DAK_PACE", szPace, sizeof(szPace)) != FULL.size() ||
           szPace != FULL;
}

bool HasPath(HDEVINFO hSet, ::SP_DEVICE_INTERFACE_DATA& data, const char* lpszPath) {
    union {
        ::SP_DEVICE_INTERFACE_DETAIL_DATA_A detail;
        char room[1024]; // a longer path would be no node that was opened
    } record;
    record.detail.cbSize = sizeof(record.detail);
    return ::SetupDiGetDeviceInterfaceDetailA(hSet, &data, &record.detail, sizeof(record), nullptr,
                                              nullptr) != FALSE &&
           ::lstrcmpiA(record.detail.DevicePath, lpszPath) == 0;
}

// What the interface's driver has written into its key: "Prompt", a REG_DWORD of 1.
bool SaysPrompt(const char* lpszPath) {
    const HDEVINFO hSet = ::SetupDiGetClassDevsA(&DEVICE_INTERFACE_CLASS, nullptr, nullptr,
                                                 DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (hSet == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD dwPrompt = 0;
    ::SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    for (DWORD i = 0;
         ::SetupDiEnumDeviceInterfaces(hSet, nullptr, &DEVICE_INTERFACE_CLASS, i, &data) != FALSE;
         ++i) {
        if (!HasPath(hSet, data, lpszPath)) {
            continue;
        }
        const HKEY hKey = ::SetupDiOpenDeviceInterfaceRegKey(hSet, &data, 0, KEY_READ);
        DWORD dwBytes = sizeof(dwPrompt);
        if (hKey != INVALID_HANDLE_VALUE) {
            ::RegGetValueA(hKey, nullptr, "Prompt", RRF_RT_REG_DWORD, nullptr, &dwPrompt, &dwBytes);
            ::RegCloseKey(hKey);
        }
    }
    ::SetupDiDestroyDeviceInfoList(hSet);
    return dwPrompt == 1;
}

} // namespace

CNodeTransfer::CNodeTransfer() : m_hDone(::CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
    if (m_hDone == nullptr) {
        throw std::bad_alloc();
    }
}

bool CNodeTransfer::Settle(HANDLE hNode) {
    if (m_bOpen && WaitUnlessStopped(m_hDone, INFINITE) != WAIT_OBJECT_0) {
        return false;
    }
    if (m_bOpen) {
        Collect(hNode);
    }
    return true;
}

BYTE* CNodeTransfer::MakeRoom(DWORD dwSize) {
    try {
        m_bytes.resize(std::max<std::size_t>({m_bytes.size(), dwSize, 1}));
    } catch (const std::exception&) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return m_bytes.data();
}

OVERLAPPED* CNodeTransfer::Begin() {
    m_overlapped = {};
    m_overlapped.hEvent = m_hDone;
    return &m_overlapped;
}

bool CNodeTransfer::AwaitEnd(HANDLE hNode, BOOL bBegun) {
    m_bOpen = bBegun != FALSE || ::GetLastError() == ERROR_IO_PENDING;
    if (!m_bOpen) {
        return false;
    }
    if (WaitUnlessStopped(m_hDone, INFINITE) == WAIT_OBJECT_0) {
        return Collect(hNode);
    }
    ::CancelIoEx(hNode, &m_overlapped);
    if (::WaitForSingleObject(m_hDone, CANCEL_MS) == WAIT_OBJECT_0) {
        Collect(hNode);
    }
    ::SetLastError(ERROR_OPERATION_ABORTED);
    return false;
}

bool CNodeTransfer::Collect(HANDLE hNode) {
    m_bOpen = false;
    m_dwTaken = 0;
    const bool bDone = ::GetOverlappedResult(hNode, &m_overlapped, &m_dwCount, FALSE) != FALSE;
    if (!bDone && ::GetLastError() != ERROR_OPERATION_ABORTED) {
        m_dwCount = 0;
    }
    return bDone;
}

DWORD CNodeTransfer::Take(void* lpBuffer, DWORD dwSize) {
    const DWORD dwTaken = std::min(dwSize, Kept());
    std::copy_n(m_bytes.begin() + m_dwTaken, dwTaken, static_cast<BYTE*>(lpBuffer));
    m_dwTaken += dwTaken;
    return dwTaken;
}

bool CNodeTransfer::HasEnded() const {
    return !m_bOpen || ::WaitForSingleObject(m_hDone, 0) == WAIT_OBJECT_0;
}

CDeviceNode::CDeviceNode(HANDLE hNode, const char* lpszPath)
    : m_hNode(hNode), m_bPrompt(MayBePrompt() && SaysPrompt(lpszPath)) {}

bool CDeviceNode::Read(void* lpBuffer, DWORD dwSize, DWORD& dwCount) {
    if (!m_read.Settle(m_hNode)) {
        return false;
    }
    if (m_read.Kept() == 0) {
        BYTE* const lpBytes = m_read.MakeRoom(dwSize);
        if (lpBytes == nullptr ||
            !AwaitEnd(m_read, ::ReadFile(m_hNode, lpBytes, dwSize, nullptr, m_read.Begin()))) {
            return false;
        }
    }
    dwCount = m_read.Take(lpBuffer, dwSize);
    return true;
}

bool CDeviceNode::Write(const void* lpBuffer, DWORD dwSize, DWORD& dwCount) {
    BYTE* const lpBytes = m_write.Settle(m_hNode) ? m_write.MakeRoom(dwSize) : nullptr;
    if (lpBytes == nullptr) {
        return false;
    }
    std::memcpy(lpBytes, lpBuffer, dwSize);
    if (!AwaitEnd(m_write, ::WriteFile(m_hNode, lpBytes, dwSize, nullptr, m_write.Begin()))) {
        return false;
    }
    dwCount = m_write.Count();
    return true;
}

bool CDeviceNode::AwaitEnd(CNodeTransfer& transfer, BOOL bBegun) {
    const bool bDone = transfer.AwaitEnd(m_hNode, bBegun);
    if (!bDone && IsRemoval(::GetLastError())) {
        m_bLost.store(true);
    }
    return bDone;
}

HANDLE RememberNode(HANDLE hNode, const char* lpszPath) {
    if (hNode == INVALID_HANDLE_VALUE) {
        return hNode;
    }
    try {
        auto pNode = std::make_unique<CDeviceNode>(hNode, lpszPath);
        const CLockHold hold(g_TableLock);
        Sweep();
        pNode->m_pNext = g_pFirst;
        g_pFirst = pNode.release();
        return hNode;
    } catch (const std::exception&) {
        ::CloseHandle(hNode);
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
}

CDeviceNode* FindNode(HANDLE hObject) {
    const CLockHold hold(g_TableLock);
    return hObject != nullptr ? FindOpen(hObject) : nullptr;
}

void ForgetNode(HANDLE hObject) {
    const CLockHold hold(g_TableLock);
    if (CDeviceNode* const pNode = FindOpen(hObject)) {
        pNode->m_hNode = nullptr;
        Sweep();
    }
}
} // namespace platform::windows
