// The platform's words, records and constants where the system does not bring them. Values are
// those of the platform's own headers, for they appear in files, on the wire and in applications.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using BOOL = std::int32_t;
using WCHAR = char16_t;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using SIZE_T = std::size_t;
using HANDLE = void*;

// A message queue that an application creates: platform/message_window.h.
struct HWND__;
using HWND = HWND__*;

// An open registry key: platform/registry.h.
struct HKEY__;
using HKEY = HKEY__*;

// A set of device interfaces: platform/device.h.
using HDEVINFO = void*;

// A time as 100 ns units since 1601-01-01 00:00 UTC, in two halves.
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

// Accepted in signatures of the platform, never read by this implementation.
struct _SECURITY_ATTRIBUTES;

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};

// The calling convention of the platform's own calls and of a thread's procedure: none of its own
// here.
#define WINAPI

using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(void* lpParameter);

// A literal of WCHAR.
#define DAK_WIDE(literal) u##literal

inline constexpr BOOL FALSE = 0;
inline constexpr BOOL TRUE = 1;
inline constexpr DWORD MAX_PATH = 260;
inline constexpr DWORD INFINITE = 0xFFFFFFFF;
inline constexpr UINT CP_ACP = 0;
inline constexpr UINT WM_USER = 0x400;

// All ones: no handle.
inline void* const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

// Files.
inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD FILE_SHARE_READ = 0x1;
inline constexpr DWORD FILE_SHARE_WRITE = 0x2;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;
inline constexpr DWORD MOVEFILE_REPLACE_EXISTING = 0x1;

// Threads and waits.
inline constexpr DWORD CREATE_SUSPENDED = 0x4;
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

// Memory.
inline constexpr UINT LPTR = 0x40;

// Processes, registry, device interfaces.
inline constexpr DWORD TH32CS_SNAPPROCESS = 0x2;
inline constexpr DWORD PROCESS_TERMINATE = 0x1;
inline HKEY__* const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002});
inline constexpr DWORD KEY_READ = 0x20019;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD DIGCF_PRESENT = 0x2;
inline constexpr DWORD DIGCF_DEVICEINTERFACE = 0x10;

// Error numbers that platform::GetLastError gives.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_NOT_OWNER = 288;
inline constexpr DWORD ERROR_TOO_MANY_POSTS = 298;
inline constexpr DWORD ERROR_OPERATION_ABORTED = 995;
inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400;

namespace platform {

// Zeroed memory of the process, which every module can free; null when there is none.
inline void* AllocateRecords(SIZE_T dwCount, SIZE_T dwSize) {
    return std::calloc(dwCount, dwSize);
}
inline void FreeRecords(void* lpRecords) {
    std::free(lpRecords);
}

} // namespace platform
