#include "bench/instant_platform.h"

#include "link/wire.h"
#include "platform/device.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "platform/thread.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

const HANDLE NODE = reinterpret_cast<HANDLE>(std::uintptr_t{16});
const HANDLE MUTEX = reinterpret_cast<HANDLE>(std::uintptr_t{32});
const HANDLE THREAD = reinterpret_cast<HANDLE>(std::uintptr_t{48});

// The agent's half of function codes 16 and 17, as bare as it can be: checksums are not tested, for
// that is the device's work and not the host's.
class CInstantDevice {
  public:
    void Take(const BYTE* lpPackage, DWORD dwBytes) {
        const DAKHEADER header = DakGetHeader(lpPackage);
        if (header.wCommand == DAK_CONNECT || header.wCommand == DAK_DISCONNECT) {
            m_bStream = false;
            m_dwLeft = 0;
            Answer(lpPackage, dwBytes);
        } else if (m_bStream) {
            TakeData(header.wCommand == DAK_LAST_PACKAGE);
        } else if (header.wCommand == DAK_LAST_PACKAGE) {
            TakeCommand(DakGetU16(lpPackage + DAK_OFFSET_CODE));
        }
    }

    DWORD Give(BYTE* lpBuffer, DWORD dwBytes) {
        if (m_dwAnswerTaken == m_dwAnswerBytes) {
            NextAnswer();
        }
        const DWORD dwTaken = std::min(dwBytes, m_dwAnswerBytes - m_dwAnswerTaken);
        std::memcpy(lpBuffer, m_answer.data() + m_dwAnswerTaken, dwTaken);
        m_dwAnswerTaken += dwTaken;
        return dwTaken;
    }

    DWORD dwReadSize = 0;

  private:
    void TakeCommand(WORD codeFunc) {
        BYTE package[DAK_HEADER_SIZE];
        DakPutHeader(package, DAK_SUCCESS, 0);
        Answer(package, sizeof(package));
        m_bStream = codeFunc == DAK_FUNC_WRITE_FILE;
        m_dwPackages = 0;
        if (codeFunc == DAK_FUNC_READ_FILE) {
            m_dwLeft = dwReadSize + 4;
            m_bFirst = true;
        }
    }

    void TakeData(bool bLast) {
        if (m_dwPackages++ % DAK_WINDOW_PACKAGES == 0 || bLast) {
            BYTE package[DAK_HEADER_SIZE];
            DakPutHeader(package, DAK_SUCCESS, 0);
            Answer(package, sizeof(package));
        }
        if (bLast) {
            m_bStream = false;
            m_bClosing = true;
        }
    }

    void Answer(const BYTE* lpBytes, DWORD dwBytes) {
        std::memcpy(m_answer.data(), lpBytes, dwBytes);
        m_dwAnswerBytes = dwBytes;
        m_dwAnswerTaken = 0;
    }

    // The next package of a read, or the closing response of a write. All data bytes are 0, so that
    // the device's own checksum costs nothing.
    void NextAnswer() {
        m_answer.fill(0);
        m_dwAnswerTaken = 0;
        m_dwAnswerBytes = 0;
        if (m_bClosing) {
            m_bClosing = false;
            DakPutHeader(m_answer.data(), DAK_LAST_REPLY, 6);
            DakPutU16(m_answer.data() + DAK_OFFSET_CODE, DAK_FUNC_WRITE_FILE);
            DakPutU32(m_answer.data() + DAK_OFFSET_RESULT, 1);
            m_dwAnswerBytes = 14;
        } else if (m_dwLeft != 0) {
            const DWORD dwData = std::min(m_dwLeft, DAK_DATA_SIZE);
            m_dwLeft -= dwData;
            m_dwAnswerBytes = DAK_DATA_OFFSET + dwData;
            DWORD dwSum = DAK_FUNC_READ_FILE;
            if (m_bFirst) {
                DakPutU32(m_answer.data() + DAK_DATA_OFFSET, dwReadSize);
                for (DWORD i = 0; i < 4; ++i) {
                    dwSum += m_answer[DAK_DATA_OFFSET + i];
                }
                m_bFirst = false;
            }
            DakPutHeader(m_answer.data(), m_dwLeft != 0 ? DAK_REPLY_PACKAGE : DAK_LAST_REPLY,
                         m_dwAnswerBytes - DAK_HEADER_SIZE);
            DakPutU16(m_answer.data() + DAK_OFFSET_DATA_CODE, DAK_FUNC_READ_FILE);
            DakPutU32(m_answer.data() + DAK_OFFSET_CHECKSUM, dwSum);
        }
    }

    std::array<BYTE, DAK_PACKAGE_SIZE> m_answer{};
    DWORD m_dwAnswerBytes = 0;
    DWORD m_dwAnswerTaken = 0;
    bool m_bStream = false;
    bool m_bClosing = false;
    bool m_bFirst = false;
    DWORD m_dwPackages = 0;
    DWORD m_dwLeft = 0;
};

CInstantDevice g_device;

// What the measured operations never call.
[[noreturn]] void NotServed(const char* lpszCall) {
    std::fprintf(stderr, "the instant platform does not serve %s\n", lpszCall);
    std::abort();
}

} // namespace

void instant::SetReadSize(DWORD dwBytes) {
    g_device.dwReadSize = dwBytes;
}

namespace platform {

DWORD GetLastError() {
    return 0;
}
void Sleep(DWORD) {}
HANDLE CreateThread(_SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE lpStartAddress,
                    void* lpParameter, DWORD, DWORD*) {
    lpStartAddress(lpParameter);
    return THREAD;
}
DWORD ResumeThread(HANDLE) {
    return 1;
}
BOOL TerminateThread(HANDLE, DWORD) {
    return TRUE;
}
DWORD WaitForSingleObject(HANDLE, DWORD) {
    return WAIT_OBJECT_0;
}
HANDLE CreateMutexA(_SECURITY_ATTRIBUTES*, BOOL, const char*) {
    return MUTEX;
}
BOOL ReleaseMutex(HANDLE) {
    return TRUE;
}
BOOL CloseHandle(HANDLE) {
    return TRUE;
}
BOOL WaitOnAddress(DWORD*, DWORD, DWORD) {
    return TRUE;
}
void WakeByAddressAll(DWORD*) {}

HANDLE CreateFileA(const char*, DWORD, DWORD, _SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
    return NODE;
}
BOOL ReadFile(HANDLE, void* lpBuffer, DWORD dwBytes, DWORD* lpdwCount) {
    *lpdwCount = g_device.Give(static_cast<BYTE*>(lpBuffer), dwBytes);
    return TRUE;
}
BOOL WriteFile(HANDLE, const void* lpBuffer, DWORD dwBytes, DWORD* lpdwCount) {
    g_device.Take(static_cast<const BYTE*>(lpBuffer), dwBytes);
    *lpdwCount = dwBytes;
    return TRUE;
}
DWORD SetFilePointer(HANDLE, LONG, LONG*, DWORD) {
    NotServed("SetFilePointer");
}
DWORD GetFileSize(HANDLE, DWORD*) {
    NotServed("GetFileSize");
}
BOOL GetFileTime(HANDLE, FILETIME*, FILETIME*, FILETIME*) {
    NotServed("GetFileTime");
}
BOOL SetFileTime(HANDLE, const FILETIME*, const FILETIME*, const FILETIME*) {
    NotServed("SetFileTime");
}
BOOL DeleteFileA(const char*) {
    return FALSE;
}
BOOL MoveFileExA(const char*, const char*, DWORD) {
    NotServed("MoveFileExA");
}
BOOL SetFileAttributesA(const char*, DWORD) {
    NotServed("SetFileAttributesA");
}
BOOL CreateDirectoryA(const char*, _SECURITY_ATTRIBUTES*) {
    NotServed("CreateDirectoryA");
}
UINT GetTempFileNameA(const char*, const char*, UINT, char*) {
    NotServed("GetTempFileNameA");
}
BOOL GetDiskFreeSpaceExA(const char*, std::uint64_t*, std::uint64_t*, std::uint64_t*) {
    NotServed("GetDiskFreeSpaceExA");
}

void* LocalAlloc(UINT, SIZE_T uBytes) {
    return std::calloc(1, uBytes);
}
void* LocalFree(void* hMem) {
    std::free(hMem);
    return nullptr;
}
int WideCharToMultiByte(UINT, DWORD, const WCHAR*, int, char*, int, const char*, BOOL*) {
    NotServed("WideCharToMultiByte");
}
int MultiByteToWideChar(UINT, DWORD, const char*, int, WCHAR*, int) {
    NotServed("MultiByteToWideChar");
}
char* lstrcpyA(char*, const char*) {
    NotServed("lstrcpyA");
}

HANDLE CreateToolhelp32Snapshot(DWORD, DWORD) {
    return nullptr;
}
BOOL Process32First(HANDLE, PROCESSENTRY32*) {
    return FALSE;
}
BOOL Process32Next(HANDLE, PROCESSENTRY32*) {
    return FALSE;
}
HANDLE OpenProcess(DWORD, BOOL, DWORD) {
    return nullptr;
}
BOOL TerminateProcess(HANDLE, UINT) {
    return FALSE;
}
LONG RegOpenKeyExA(HKEY, const char*, DWORD, DWORD, HKEY*) {
    return 2;
}
LONG RegQueryValueExA(HKEY, const char*, DWORD*, DWORD*, BYTE*, DWORD*) {
    return 2;
}
LONG RegCloseKey(HKEY) {
    return 0;
}
BOOL PostMessageA(HWND, UINT, WPARAM, LPARAM) {
    return TRUE;
}

HDEVINFO SetupDiGetClassDevsA(const GUID*, const char*, HWND, DWORD) {
    return NODE;
}
BOOL SetupDiEnumDeviceInterfaces(HDEVINFO, void*, const GUID*, DWORD, SP_DEVICE_INTERFACE_DATA*) {
    return TRUE;
}
BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO, SP_DEVICE_INTERFACE_DATA*,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* lpDetail, DWORD,
                                      DWORD* lpdwRequired, void*) {
    if (lpDetail == nullptr) {
        *lpdwRequired = DETAIL_RECORD_SIZE;
        return FALSE;
    }
    lpDetail->DevicePath[0] = '\0';
    return TRUE;
}
BOOL SetupDiDestroyDeviceInfoList(HDEVINFO) {
    return TRUE;
}
BOOL IsDeviceNodeLost(HANDLE) {
    return FALSE;
}

} // namespace platform
