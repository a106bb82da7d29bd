// Open host files. The operations on names are in file_names.cpp, the device node in usb_node.cpp.
#include "platform/file.h"

#include "platform/posix/descriptors.h"
#include "platform/posix/file_times.h"
#include "platform/posix/handles.h"
#include "platform/posix/paths.h"
#include "platform/posix/usb_node.h"
#include "platform/posix/waiting.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace platform {
namespace posix {
namespace {

// The system keeps no creation time that a program can set, so it is kept beside the file's
// contents: 8 bytes, a FILETIME with its low half first, each half with its low byte first.
constexpr char CREATION_TIME[] = "user.dak.creation_time";
constexpr std::size_t CREATION_TIME_SIZE = 8;

// A long transfer looks for a stop of its thread at every such step.
constexpr DWORD STEP_BYTES = 256U << 10;

class CHostFile final : public CObject {
  public:
    CHostFile(CDescriptor file, bool bForWriting)
        : m_file(std::move(file)), m_bForWriting(bForWriting) {}

    BOOL Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override;
    BOOL Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override;
    bool HandleClosed() noexcept override;

    int Descriptor() const { return m_file.Get(); }
    bool IsForWriting() const { return m_bForWriting; }

  private:
    // Calls step(offset, bytes) until all is done, or it did nothing. False, with the error number,
    // on failure.
    template <class STEP>
    static bool InSteps(DWORD dwSize, DWORD& dwDone, STEP step);

    CDescriptor m_file;
    const bool m_bForWriting;
};

template <class STEP>
bool CHostFile::InSteps(DWORD dwSize, DWORD& dwDone, STEP step) {
    dwDone = 0;
    while (dwDone < dwSize) {
        if (RefuseWhenStopping()) {
            return false;
        }
        const ssize_t nMoved = step(dwDone, std::min(dwSize - dwDone, STEP_BYTES));
        if (nMoved == 0) {
            break;
        }
        if (nMoved > 0) {
            dwDone += static_cast<DWORD>(nMoved);
        } else if (errno != EINTR) {
            SetLastErrorFromErrno(errno);
            return false;
        }
    }
    return !RefuseWhenStopping();
}

BOOL CHostFile::Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    DWORD dwDone = 0;
    if (!InSteps(dwSize, dwDone, [&](DWORD dwOffset, DWORD dwBytes) {
            return ::read(m_file.Get(), static_cast<BYTE*>(lpBuffer) + dwOffset, dwBytes);
        })) {
        return FALSE;
    }
    *lpdwCount = dwDone;
    return TRUE;
}

BOOL CHostFile::Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    DWORD dwDone = 0;
    if (!InSteps(dwSize, dwDone, [&](DWORD dwOffset, DWORD dwBytes) {
            return ::write(m_file.Get(), static_cast<const BYTE*>(lpBuffer) + dwOffset, dwBytes);
        })) {
        return FALSE;
    }
    if (dwDone != dwSize) {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    *lpdwCount = dwDone;
    return TRUE;
}

// Network and user-space file systems tell of a full disk only here. After EINTR, too, the
// descriptor is gone.
bool CHostFile::HandleClosed() noexcept {
    if (::close(m_file.Release()) == 0 || errno == EINTR) {
        return true;
    }
    SetLastErrorFromErrno(errno);
    return false;
}

// The flags for open, but for emptying: that waits until the file has been looked at. -1: no such
// disposition.
int FlagsOf(DWORD dwDesiredAccess, DWORD dwCreationDisposition) {
    int nFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    switch (dwDesiredAccess) {
    case GENERIC_READ:
        nFlags |= O_RDONLY;
        break;
    case GENERIC_WRITE:
        nFlags |= O_WRONLY;
        break;
    case GENERIC_READ | GENERIC_WRITE:
        nFlags |= O_RDWR;
        break;
    default:
        return -1;
    }
    switch (dwCreationDisposition) {
    case CREATE_NEW:
        return nFlags | O_CREAT | O_EXCL;
    case CREATE_ALWAYS:
    case OPEN_ALWAYS:
        return nFlags | O_CREAT;
    case OPEN_EXISTING:
        return nFlags;
    case TRUNCATE_EXISTING:
        return (dwDesiredAccess & GENERIC_WRITE) != 0 ? nFlags : -1;
    default:
        return -1;
    }
}

bool RefuseToOpen(const struct stat& status, bool bForWriting) {
    if (S_ISREG(status.st_mode) && (!bForWriting || (status.st_mode & S_IWUSR) != 0)) {
        return false;
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return true;
}

HANDLE OpenHostFile(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwCreationDisposition) {
    std::string strPath;
    if (!HostPath(lpFileName, strPath)) {
        return nullptr;
    }
    const int nFlags = FlagsOf(dwDesiredAccess, dwCreationDisposition);
    if (nFlags < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const bool bForWriting = (dwDesiredAccess & GENERIC_WRITE) != 0;
    struct stat status {};
    // Looked at before it is opened, as opening alone can have an effect on what is no file.
    if (::stat(strPath.c_str(), &status) == 0 && (nFlags & O_EXCL) == 0 &&
        RefuseToOpen(status, bForWriting)) {
        return nullptr;
    }
    CDescriptor file(::open(strPath.c_str(), nFlags, 0666));
    if (!file) {
        const bool bExists = errno == EEXIST;
        SetLastErrorFromErrno(errno);
        if (bExists) {
            SetLastError(ERROR_FILE_EXISTS);
        }
        return nullptr;
    }
    if (::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const bool bEmpty =
        dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == TRUNCATE_EXISTING;
    if (bEmpty && status.st_size != 0 && ::ftruncate(file.Get(), 0) != 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    return AddHandle(std::make_shared<CHostFile>(std::move(file), bForWriting));
}

bool ReadKeptCreationTime(int nFile, FILETIME& fileTime) {
    BYTE kept[CREATION_TIME_SIZE + 1];
    if (::fgetxattr(nFile, CREATION_TIME, kept, sizeof(kept)) !=
        static_cast<ssize_t>(CREATION_TIME_SIZE)) {
        return false;
    }
    std::uint64_t qwTicks = 0;
    for (std::size_t i = CREATION_TIME_SIZE; i > 0; --i) {
        qwTicks = (qwTicks << 8) | kept[i - 1];
    }
    fileTime = {static_cast<DWORD>(qwTicks), static_cast<DWORD>(qwTicks >> 32)};
    return true;
}

void KeepCreationTime(int nFile, const FILETIME& fileTime) {
    BYTE kept[CREATION_TIME_SIZE];
    const std::uint64_t qwTicks =
        (std::uint64_t{fileTime.dwHighDateTime} << 32) | fileTime.dwLowDateTime;
    for (std::size_t i = 0; i < CREATION_TIME_SIZE; ++i) {
        kept[i] = static_cast<BYTE>(qwTicks >> (8 * i));
    }
    // A file system without such attributes cannot keep it, and then nothing can.
    static_cast<void>(::fsetxattr(nFile, CREATION_TIME, kept, sizeof(kept), 0));
}

timespec TimeOfStatx(const statx_timestamp& time) {
    return {time.tv_sec, time.tv_nsec};
}

bool IsZero(const FILETIME* lpTime) {
    return lpTime == nullptr || (lpTime->dwLowDateTime == 0 && lpTime->dwHighDateTime == 0);
}

// A time that is to stay, or the one given. False when that is none.
bool TimeToSet(const FILETIME* lpTime, timespec& time) {
    if (IsZero(lpTime)) {
        time.tv_sec = 0;
        time.tv_nsec = UTIME_OMIT;
        return true;
    }
    return TimeOf(*lpTime, time);
}

} // namespace
} // namespace posix

using posix::CHostFile;

HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD /*dwShareMode*/,
                   _SECURITY_ATTRIBUTES* /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                   DWORD /*dwFlagsAndAttributes*/, HANDLE /*hTemplateFile*/) {
    return posix::WithMemory<HANDLE>(INVALID_HANDLE_VALUE, [&] {
        const std::string_view strName = lpFileName == nullptr ? "" : lpFileName;
        HANDLE hFile = nullptr;
        if (strName.starts_with(posix::DEVICE_PATH_MARK)) {
            hFile = posix::OpenUsbNode(lpFileName + posix::DEVICE_PATH_MARK.size());
        } else {
            hFile = posix::OpenHostFile(lpFileName, dwDesiredAccess, dwCreationDisposition);
        }
        return hFile == nullptr ? INVALID_HANDLE_VALUE : hFile;
    });
}

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    const auto pObject = posix::FindAnyObject(hFile);
    return pObject == nullptr ? FALSE
                              : pObject->Read(lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead);
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    const auto pObject = posix::FindAnyObject(hFile);
    return pObject == nullptr
               ? FALSE
               : pObject->Write(lpBuffer, nNumberOfBytesToWrite, lpNumberOfBytesWritten);
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* lpDistanceHigh, DWORD dwMoveMethod) {
    const auto pFile = posix::FindObject<CHostFile>(hFile);
    if (pFile == nullptr) {
        return INVALID_SET_FILE_POINTER;
    }
    std::int64_t nDistance = lDistance;
    if (lpDistanceHigh != nullptr) {
        nDistance =
            static_cast<std::int64_t>((std::uint64_t{static_cast<DWORD>(*lpDistanceHigh)} << 32) |
                                      static_cast<DWORD>(lDistance));
    }
    static_assert(FILE_BEGIN == SEEK_SET && FILE_CURRENT == SEEK_CUR && FILE_END == SEEK_END);
    const off_t nBefore = ::lseek(pFile->Descriptor(), 0, SEEK_CUR);
    const off_t nPosition = dwMoveMethod > FILE_END ? -1
                                                    : ::lseek(pFile->Descriptor(), nDistance,
                                                              static_cast<int>(dwMoveMethod));
    const bool bFits = lpDistanceHigh != nullptr || nPosition < 0xFFFFFFFF;
    if (nPosition < 0 || !bFits) {
        ::lseek(pFile->Descriptor(), nBefore, SEEK_SET);
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (lpDistanceHigh != nullptr) {
        *lpDistanceHigh = static_cast<LONG>(nPosition >> 32);
    }
    posix::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(nPosition);
}

DWORD GetFileSize(HANDLE hFile, DWORD* lpFileSizeHigh) {
    const auto pFile = posix::FindObject<CHostFile>(hFile);
    if (pFile == nullptr) {
        return INVALID_FILE_SIZE;
    }
    struct stat status {};
    if (::fstat(pFile->Descriptor(), &status) != 0) {
        posix::SetLastErrorFromErrno(errno);
        return INVALID_FILE_SIZE;
    }
    if (lpFileSizeHigh != nullptr) {
        *lpFileSizeHigh = static_cast<DWORD>(status.st_size >> 32);
    }
    posix::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(status.st_size);
}

BOOL GetFileTime(HANDLE hFile, FILETIME* lpCreationTime, FILETIME* lpLastAccessTime,
                 FILETIME* lpLastWriteTime) {
    const auto pFile = posix::FindObject<CHostFile>(hFile);
    if (pFile == nullptr) {
        return FALSE;
    }
    struct statx status {};
    if (::statx(pFile->Descriptor(), "", AT_EMPTY_PATH, STATX_MTIME | STATX_ATIME | STATX_BTIME,
                &status) != 0) {
        posix::SetLastErrorFromErrno(errno);
        return FALSE;
    }
    const FILETIME ftLastWrite = posix::FileTimeOf(posix::TimeOfStatx(status.stx_mtime));
    if (lpCreationTime != nullptr &&
        !posix::ReadKeptCreationTime(pFile->Descriptor(), *lpCreationTime)) {
        // A file system that knows no birth time leaves the last write as the best guess: it came
        // at the birth or after it.
        *lpCreationTime = (status.stx_mask & STATX_BTIME) != 0
                              ? posix::FileTimeOf(posix::TimeOfStatx(status.stx_btime))
                              : ftLastWrite;
    }
    if (lpLastAccessTime != nullptr) {
        *lpLastAccessTime = posix::FileTimeOf(posix::TimeOfStatx(status.stx_atime));
    }
    if (lpLastWriteTime != nullptr) {
        *lpLastWriteTime = ftLastWrite;
    }
    return TRUE;
}

BOOL SetFileTime(HANDLE hFile, const FILETIME* lpCreationTime, const FILETIME* lpLastAccessTime,
                 const FILETIME* lpLastWriteTime) {
    const auto pFile = posix::FindObject<CHostFile>(hFile);
    if (pFile == nullptr) {
        return FALSE;
    }
    if (!pFile->IsForWriting()) {
        posix::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    timespec created{};
    timespec times[2];
    if (!posix::TimeToSet(lpCreationTime, created) ||
        !posix::TimeToSet(lpLastAccessTime, times[0]) ||
        !posix::TimeToSet(lpLastWriteTime, times[1])) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!posix::IsZero(lpCreationTime)) {
        posix::KeepCreationTime(pFile->Descriptor(), *lpCreationTime);
    }
    if (::futimens(pFile->Descriptor(), times) != 0) {
        posix::SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}

} // namespace platform
