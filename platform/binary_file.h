// CFile, the host's binary file object, as far as the library uses it: a thin layer over
// platform/file.h, the same on every platform.
#pragma once

#include "platform/file.h"

namespace platform {

class CFile {
  public:
    enum OpenFlags : UINT {
        modeWrite = 0x0001,
        modeCreate = 0x1000,
        modeNoTruncate = 0x2000,
        typeBinary = 0x8000,
    };

    CFile() = default;
    ~CFile() { Close(); }
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // Opens for writing. modeCreate makes the file, and empties one that exists unless
    // modeNoTruncate is given too. Returns false on failure.
    bool Open(const char* lpszFileName, UINT nOpenFlags) {
        Close();
        DWORD dwDisposition = OPEN_EXISTING;
        if ((nOpenFlags & modeCreate) != 0) {
            dwDisposition = (nOpenFlags & modeNoTruncate) != 0 ? OPEN_ALWAYS : CREATE_ALWAYS;
        }
        m_hFile = CreateFileA(lpszFileName, GENERIC_WRITE, FILE_SHARE_READ, nullptr, dwDisposition,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
        return IsOpen();
    }

    // Writes all bytes at the position. False, with the error number set, when not all were taken.
    bool Write(const void* lpBuffer, UINT nCount) {
        DWORD dwWritten = 0;
        return nCount == 0 ||
               (WriteFile(m_hFile, lpBuffer, nCount, &dwWritten) != FALSE && dwWritten == nCount);
    }

    bool SeekToEnd() {
        return SetFilePointer(m_hFile, 0, nullptr, FILE_END) != INVALID_SET_FILE_POINTER;
    }

    // The size in bytes, or all ones.
    std::uint64_t GetLength() const {
        DWORD dwHigh = 0;
        const DWORD dwLow = GetFileSize(m_hFile, &dwHigh);
        return (std::uint64_t{dwHigh} << 32) | dwLow;
    }

    bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }

    // False, with the error number set, when bytes that were taken did not reach the disk.
    bool Close() {
        if (!IsOpen()) {
            return true;
        }
        const bool bClosed = CloseHandle(m_hFile) != FALSE;
        m_hFile = INVALID_HANDLE_VALUE;
        return bClosed;
    }

  private:
    HANDLE m_hFile = INVALID_HANDLE_VALUE;
};

} // namespace platform
