#include "platform/file.h"
#include "platform/windows/device_node.h"
#include "platform/windows/handles.h"
#include "platform/windows/paths.h"

#include <cstring>
#include <string_view>

namespace platform {
namespace {

using windows::IsPlainPath;
using windows::MayBeHandle;

// What the system wants to be left behind the folder of a temporary file: a separator, a name of
// eight characters with an ending of three, and the terminator.
constexpr std::size_t TEMP_NAME_ROOM = 14;

// A time to set: none where it is zero.
const FILETIME* UnlessZero(const FILETIME* lpTime) {
    return lpTime != nullptr && (lpTime->dwLowDateTime | lpTime->dwHighDateTime) != 0 ? lpTime
                                                                                      : nullptr;
}

bool IsTime(const FILETIME* lpTime) {
    return lpTime == nullptr || lpTime->dwHighDateTime < 0x80000000;
}

// Whether a file may not be changed, with the error number set then: it is read-only or a folder,
// which not every file system or user is refused by the system.
bool IsProtected(const char* lpszPath) {
    const DWORD dwAttributes = ::GetFileAttributesA(lpszPath);
    if (dwAttributes == INVALID_FILE_ATTRIBUTES ||
        (dwAttributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY)) == 0) {
        return false;
    }
    ::SetLastError(ERROR_ACCESS_DENIED);
    return true;
}

// Whether somebody has a file open who does not let it go.
bool IsHeld(const char* lpszPath) {
    constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE hFile =
        ::CreateFileA(lpszPath, DELETE, SHARE_ALL, nullptr, OPEN_EXISTING, 0, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) {
        ::CloseHandle(hFile);
        return false;
    }
    return ::GetLastError() == ERROR_SHARING_VIOLATION;
}

} // namespace

HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   _SECURITY_ATTRIBUTES* lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    if (windows::IsInterfacePath(lpFileName)) {
        // Overlapped, so that a stop can end a transfer.
        return windows::RememberNode(::CreateFileA(lpFileName, dwDesiredAccess, dwShareMode,
                                                   lpSecurityAttributes, dwCreationDisposition,
                                                   dwFlagsAndAttributes | FILE_FLAG_OVERLAPPED,
                                                   hTemplateFile),
                                     lpFileName);
    }
    if (!IsPlainPath(lpFileName) ||
        ((dwDesiredAccess & GENERIC_WRITE) != 0 && dwCreationDisposition != CREATE_NEW &&
         IsProtected(lpFileName))) {
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE hFile =
        ::CreateFileA(lpFileName, dwDesiredAccess, dwShareMode, lpSecurityAttributes,
                      dwCreationDisposition, dwFlagsAndAttributes, hTemplateFile);
    if (hFile != INVALID_HANDLE_VALUE && ::GetFileType(hFile) != FILE_TYPE_DISK) {
        ::CloseHandle(hFile);
        ::SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    return hFile;
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* lpDistanceHigh, DWORD dwMoveMethod) {
    return MayBeHandle(hFile) ? ::SetFilePointer(hFile, lDistance, lpDistanceHigh, dwMoveMethod)
                              : INVALID_SET_FILE_POINTER;
}

DWORD GetFileSize(HANDLE hFile, DWORD* lpFileSizeHigh) {
    return MayBeHandle(hFile) ? ::GetFileSize(hFile, lpFileSizeHigh) : INVALID_FILE_SIZE;
}

BOOL GetFileTime(HANDLE hFile, FILETIME* lpCreationTime, FILETIME* lpLastAccessTime,
                 FILETIME* lpLastWriteTime) {
    return MayBeHandle(hFile)
               ? ::GetFileTime(hFile, lpCreationTime, lpLastAccessTime, lpLastWriteTime)
               : FALSE;
}

BOOL SetFileTime(HANDLE hFile, const FILETIME* lpCreationTime, const FILETIME* lpLastAccessTime,
                 const FILETIME* lpLastWriteTime) {
    if (!MayBeHandle(hFile)) {
        return FALSE;
    }
    if (!IsTime(lpCreationTime) || !IsTime(lpLastAccessTime) || !IsTime(lpLastWriteTime)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return ::SetFileTime(hFile, UnlessZero(lpCreationTime), UnlessZero(lpLastAccessTime),
                         UnlessZero(lpLastWriteTime));
}

BOOL DeleteFileA(const char* lpFileName) {
    return IsPlainPath(lpFileName) && !IsProtected(lpFileName) ? ::DeleteFileA(lpFileName) : FALSE;
}

bool HasDrives() {
    return true;
}

// Not the system's call of this name, which copies a file to another volume.
BOOL MoveFileA(const char* lpExistingFileName, const char* lpNewFileName) {
    return IsPlainPath(lpExistingFileName) && IsPlainPath(lpNewFileName)
               ? ::MoveFileExA(lpExistingFileName, lpNewFileName, 0)
               : FALSE;
}

BOOL MoveFileExA(const char* lpExistingFileName, const char* lpNewFileName, DWORD dwFlags) {
    if (!IsPlainPath(lpExistingFileName) || !IsPlainPath(lpNewFileName) ||
        IsProtected(lpNewFileName)) {
        return FALSE;
    }
    if (::MoveFileExA(lpExistingFileName, lpNewFileName, dwFlags) != FALSE) {
        return TRUE;
    }
    // A target that somebody has open is refused like one that may not be replaced.
    const DWORD dwError = ::GetLastError();
    ::SetLastError(dwError == ERROR_ACCESS_DENIED && IsHeld(lpNewFileName) ? ERROR_SHARING_VIOLATION
                                                                           : dwError);
    return FALSE;
}

BOOL SetFileAttributesA(const char* lpFileName, DWORD dwFileAttributes) {
    return IsPlainPath(lpFileName) ? ::SetFileAttributesA(lpFileName, dwFileAttributes) : FALSE;
}

BOOL CreateDirectoryA(const char* lpPathName, _SECURITY_ATTRIBUTES* lpSecurityAttributes) {
    return IsPlainPath(lpPathName) ? ::CreateDirectoryA(lpPathName, lpSecurityAttributes) : FALSE;
}

// The name begins as the library's own: the system would take three units of the prefix as they
// are, a stream's colon or half a character among them.
UINT GetTempFileNameA(const char* lpPathName, const char* /*lpPrefixString*/, UINT uUnique,
                      char* lpTempFileName) {
    // Not every system refuses by itself a folder that leaves no room for the name.
    if (std::strlen(lpPathName) > MAX_PATH - TEMP_NAME_ROOM) {
        ::SetLastError(ERROR_INVALID_NAME);
        return 0;
    }
    return IsPlainPath(lpPathName) ? ::GetTempFileNameA(lpPathName, "dak", uUnique, lpTempFileName)
                                   : 0;
}

BOOL GetDiskFreeSpaceExA(const char* lpDirectoryName, std::uint64_t* lpFreeBytesAvailable,
                         std::uint64_t* lpTotalNumberOfBytes,
                         std::uint64_t* lpTotalNumberOfFreeBytes) {
    ULARGE_INTEGER counts[3];
    char szFolder[MAX_PATH + 1];
    const std::size_t dwLength = std::strlen(lpDirectoryName);
    if (dwLength >= MAX_PATH) {
        ::SetLastError(ERROR_INVALID_NAME);
        return FALSE;
    }
    std::memcpy(szFolder, lpDirectoryName, dwLength + 1);
    const std::string_view folder(szFolder, dwLength);
    if (folder.starts_with("\\\\") && !folder.ends_with('\\')) {
        std::memcpy(szFolder + dwLength, "\\", 2); // as the system wants it of a share's root
    }
    if (!IsPlainPath(lpDirectoryName) ||
        ::GetDiskFreeSpaceExA(szFolder, &counts[0], &counts[1], &counts[2]) == FALSE) {
        return FALSE;
    }
    std::uint64_t* const targets[] = {lpFreeBytesAvailable, lpTotalNumberOfBytes,
                                      lpTotalNumberOfFreeBytes};
    for (int i = 0; i < 3; ++i) {
        if (targets[i] != nullptr) {
            *targets[i] = counts[i].QuadPart;
        }
    }
    return TRUE;
}

} // namespace platform
