// Bytes from and to files and the device node. Every transfer can be stopped: one of a file, which
// waits where the file lies with a server, by the system, and one of the node here.
#include "platform/file.h"
#include "platform/windows/handles.h"
#include "platform/windows/waiting.h"

namespace platform {
namespace {

using windows::MayBeHandle;

bool IsFile(HANDLE hFile) {
    return ::GetFileType(hFile) == FILE_TYPE_DISK;
}

// All that the system calls a lack of room.
bool IsNoRoom(DWORD dwError) {
    constexpr DWORD DISK_QUOTA_EXCEEDED = 1295; // not in every compiler's winerror.h
    return dwError == ERROR_DISK_FULL || dwError == ERROR_HANDLE_DISK_FULL ||
           dwError == DISK_QUOTA_EXCEEDED;
}

// Makes one overlapped transfer and waits for its end. True, with its count, when it completed,
// also where that was in spite of a stop: its bytes then are no longer with the device.
template <class START>
bool Transfer(HANDLE hNode, DWORD& dwCount, START start) {
    if (windows::IsStopped()) {
        return false;
    }
    const windows::CScopedHandle done(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (done.Get() == nullptr) {
        return false;
    }
    OVERLAPPED overlapped{};
    overlapped.hEvent = done.Get();
    if (start(&overlapped) == FALSE && ::GetLastError() != ERROR_IO_PENDING) {
        return false;
    }
    if (windows::WaitUnlessStopped(done.Get(), INFINITE) != WAIT_OBJECT_0) {
        ::CancelIoEx(hNode, &overlapped);
    }
    // The system has the buffer until the transfer has ended, cancelled or not.
    dwCount = 0;
    return ::GetOverlappedResult(hNode, &overlapped, &dwCount, TRUE) != FALSE;
}

} // namespace

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    if (!MayBeHandle(hFile)) {
        return FALSE;
    }
    DWORD dwCount = 0;
    const auto read = [&](OVERLAPPED* lpOverlapped) {
        return ::ReadFile(hFile, lpBuffer, nNumberOfBytesToRead, &dwCount, lpOverlapped);
    };
    // What a read had received before a stop cut it short counts like a whole transfer: the device
    // will not send it again.
    const bool bDone = IsFile(hFile)
                           ? !windows::IsStopped() && read(nullptr) != FALSE
                           : Transfer(hFile, dwCount, read) ||
                                 (::GetLastError() == ERROR_OPERATION_ABORTED && dwCount != 0);
    if (bDone) {
        *lpNumberOfBytesRead = dwCount;
    }
    return bDone ? TRUE : FALSE;
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    if (!MayBeHandle(hFile)) {
        return FALSE;
    }
    DWORD dwCount = 0;
    const auto write = [&](OVERLAPPED* lpOverlapped) {
        return ::WriteFile(hFile, lpBuffer, nNumberOfBytesToWrite, &dwCount, lpOverlapped);
    };
    const bool bDone = IsFile(hFile) ? !windows::IsStopped() && write(nullptr) != FALSE
                                     : Transfer(hFile, dwCount, write);
    if (bDone) {
        *lpNumberOfBytesWritten = dwCount;
    } else if (IsNoRoom(::GetLastError())) {
        ::SetLastError(ERROR_DISK_FULL);
    }
    return bDone ? TRUE : FALSE;
}

} // namespace platform
