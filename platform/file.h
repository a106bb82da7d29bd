// The seam: host files, and the device node as a file.
//
// Paths are narrow text in the ANSI code page (UTF-8 where the system has none), with either slash
// as separator. Every function may be called from any thread; one handle is used by one thread at
// a time. TRUE is success. A failing call sets the error number (platform/thread.h).
#pragma once

#include "platform/thread.h"
#include "platform/types.h"

namespace platform {

// Opens a regular file, or the device node whose path platform/device.h gave. Returns
// INVALID_HANDLE_VALUE on failure: the file is missing (or, with CREATE_NEW, exists), is a folder
// or another thing whose opening or reading could block, or may not be opened so. Access is
// GENERIC_READ, GENERIC_WRITE or both; CREATE_ALWAYS and CREATE_NEW make the file with ordinary
// rights. Opening the device node does not wait for the device.
HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   _SECURITY_ATTRIBUTES* lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);

// File: reads up to nNumberOfBytesToRead bytes at the file position and moves it; fewer only at
// the end of the file, where TRUE comes with a count of 0. Device node: blocks until the device's
// current package delivers and returns with what that has, at most the size asked for; what is not
// taken of a package stays for the next read. The count is stored only on completion; it is left as
// the caller set it when the call fails or is stopped (TerminateThread).
BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead, DWORD* lpNumberOfBytesRead);

// File: writes all bytes at the file position and moves it; FALSE with ERROR_DISK_FULL when there
// is no room, and then some of them may have been written. Device node: one call is one package,
// and it blocks until the device has taken it. The count is stored only on completion.
BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten);

// Moves the file position by lDistance from dwMoveMethod (FILE_BEGIN, FILE_CURRENT, FILE_END) and
// returns its low half, INVALID_SET_FILE_POINTER on failure. lpDistanceHigh is null wherever the
// library calls.
DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* lpDistanceHigh, DWORD dwMoveMethod);

// Low half of the size in bytes; the high half through lpFileSizeHigh unless null.
// INVALID_FILE_SIZE on failure.
DWORD GetFileSize(HANDLE hFile, DWORD* lpFileSizeHigh);

// The file's times; each pointer may be null.
BOOL GetFileTime(HANDLE hFile, FILETIME* lpCreationTime, FILETIME* lpLastAccessTime,
                 FILETIME* lpLastWriteTime);

// Sets the times whose pointers are not null; a time of zero leaves that one as it is, and one
// beyond 0x7FFFFFFFFFFFFFFF is refused. The handle was opened for writing. A creation time that the
// file system cannot keep is no failure.
BOOL SetFileTime(HANDLE hFile, const FILETIME* lpCreationTime, const FILETIME* lpLastAccessTime,
                 const FILETIME* lpLastWriteTime);

// Whether paths may begin with the letter of a drive.
bool HasDrives();

// Deletes a file. Refuses one that is missing, is a folder, or is read-only.
BOOL DeleteFileA(const char* lpFileName);

// Renames a file within its volume. Refuses a target that exists (ERROR_ALREADY_EXISTS).
BOOL MoveFileA(const char* lpExistingFileName, const char* lpNewFileName);

// The same with dwFlags MOVEFILE_REPLACE_EXISTING: a file that has the new name is replaced in one
// step, so that at every moment the name leads to the whole old file or the whole new one. A target
// that is a folder or read-only is refused. On failure both stay as they were;
// ERROR_SHARING_VIOLATION says that somebody has one of them open. Where files have permissions
// beside the read-only attribute, the new one takes over those of the one that it replaces.
BOOL MoveFileExA(const char* lpExistingFileName, const char* lpNewFileName, DWORD dwFlags);

// FILE_ATTRIBUTE_NORMAL makes a file writable again, FILE_ATTRIBUTE_READONLY read-only. A symbolic
// link is not followed, and refused.
BOOL SetFileAttributesA(const char* lpFileName, DWORD dwFileAttributes);

// Makes one folder; its parent must exist. FALSE with ERROR_ALREADY_EXISTS when the name is taken.
BOOL CreateDirectoryA(const char* lpPathName, _SECURITY_ATTRIBUTES* lpSecurityAttributes);

// Makes a new empty file with a unique name in lpPathName and stores its full path in
// lpTempFileName, of 260 bytes. uUnique is 0 wherever the library calls; as much of lpPrefixString
// as the system likes begins the name. Returns 0 on failure.
UINT GetTempFileNameA(const char* lpPathName, const char* lpPrefixString, UINT uUnique,
                      char* lpTempFileName);

// Free bytes that the caller may use on the volume of a folder, and two further counts, each unless
// its pointer is null.
BOOL GetDiskFreeSpaceExA(const char* lpDirectoryName, std::uint64_t* lpFreeBytesAvailable,
                         std::uint64_t* lpTotalNumberOfBytes,
                         std::uint64_t* lpTotalNumberOfFreeBytes);

} // namespace platform
