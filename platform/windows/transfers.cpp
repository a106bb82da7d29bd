// Bytes from and to files and the device node. Every transfer can be stopped: one of a file, which
// waits where the file lies with a server, by the system, and one of the node by the node.
#include "platform/file.h"
#include "platform/windows/device_node.h"
#include "platform/windows/handles.h"
#include "platform/windows/waiting.h"

namespace platform {

using windows::MayBeHandle;

// All that the system calls a lack of room.
static bool IsNoRoom(DWORD dwError) {
    constexpr DWORD DISK_QUOTA_EXCEEDED = 1295; // not in every compiler's winerror.h
    return dwError == ERROR_DISK_FULL || dwError == ERROR_HANDLE_DISK_FULL ||
           dwError == DISK_QUOTA_EXCEEDED;
}

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    if (!MayBeHandle(hFile) || windows::IsStopped()) {
        return FALSE;
    }
    DWORD dwCount = 0;
    windows::CDeviceNode* const pNode = windows::FindNode(hFile);
    const bool bDone = pNode != nullptr ? pNode->Read(lpBuffer, nNumberOfBytesToRead, dwCount)
                                        : ::ReadFile(hFile, lpBuffer, nNumberOfBytesToRead,
                                                     &dwCount, nullptr) != FALSE;
    if (bDone) {
        *lpNumberOfBytesRead = dwCount;
    }
    return bDone ? TRUE : FALSE;
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    if (!MayBeHandle(hFile) || windows::IsStopped()) {
        return FALSE;
    }
    DWORD dwCount = 0;
    windows::CDeviceNode* const pNode = windows::FindNode(hFile);
    const bool bDone = pNode != nullptr ? pNode->Write(lpBuffer, nNumberOfBytesToWrite, dwCount)
                                        : ::WriteFile(hFile, lpBuffer, nNumberOfBytesToWrite,
                                                      &dwCount, nullptr) != FALSE;
    if (bDone) {
        *lpNumberOfBytesWritten = dwCount;
    } else if (IsNoRoom(::GetLastError())) {
        ::SetLastError(ERROR_DISK_FULL);
    }
    return bDone ? TRUE : FALSE;
}

} // namespace platform
