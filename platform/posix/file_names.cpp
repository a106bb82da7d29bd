// Operations on the names of host files and folders.
#include "platform/file.h"
#include "platform/posix/descriptors.h"
#include "platform/posix/handles.h"
#include "platform/posix/paths.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace platform {
namespace posix {
namespace {

BOOL Result(bool bDone) {
    if (!bDone) {
        SetLastErrorFromErrno(errno);
    }
    return bDone ? TRUE : FALSE;
}

// A file is read-only when its owner may not write it. The mode itself is asked, as a user who may
// do everything would be let through.
bool RefuseReadOnly(const struct stat& status) {
    if (S_ISLNK(status.st_mode) || (status.st_mode & S_IWUSR) != 0) {
        return false;
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return true;
}

bool MoveToFreeName(const char* lpFrom, const char* lpTo) {
    if (::syscall(SYS_renameat2, AT_FDCWD, lpFrom, AT_FDCWD, lpTo, RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // Where the system or the file system has no such rename, a second name cannot come in the
    // place of another file either.
    if (::link(lpFrom, lpTo) != 0) {
        return false;
    }
    if (::unlink(lpFrom) != 0) {
        const int nError = errno;
        ::unlink(lpTo);
        errno = nError;
        return false;
    }
    return true;
}

BOOL MoveOver(const char* lpFrom, const char* lpTo) {
    struct stat status {};
    if (::lstat(lpTo, &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        if (RefuseReadOnly(status)) {
            return FALSE;
        }
        if (S_ISREG(status.st_mode)) {
            // Where the file system has no permissions to set, there are none to take over. What a
            // program may do as somebody else was given to the old bytes alone.
            static_cast<void>(::chmod(lpFrom, status.st_mode & 0777));
        }
    }
    return Result(::rename(lpFrom, lpTo) == 0);
}

// As much of the prefix as serves: whole characters, no separator, at most nRoom bytes.
std::string_view PrefixFor(const char* lpPrefixString, std::size_t nRoom) {
    const std::string_view strWhole = lpPrefixString == nullptr ? "" : lpPrefixString;
    std::string_view strPrefix = strWhole.substr(0, strWhole.find_first_of("/\\"));
    if (strPrefix.size() > nRoom) {
        // Not in the middle of a character.
        while (nRoom > 0 && (static_cast<BYTE>(strPrefix[nRoom]) & 0xC0) == 0x80) {
            --nRoom;
        }
        strPrefix = strPrefix.substr(0, nRoom);
    }
    return strPrefix;
}

UINT RandomNumber() {
    UINT nNumber = 0;
    if (::getrandom(&nNumber, sizeof(nNumber), GRND_NONBLOCK) !=
        static_cast<ssize_t>(sizeof(nNumber))) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        nNumber = static_cast<UINT>(now.tv_nsec) ^ (static_cast<UINT>(::getpid()) << 16);
    }
    return nNumber == 0 ? 1 : nNumber;
}

UINT MakeTempFile(const char* lpPathName, const char* lpPrefixString, char* lpTempFileName) {
    constexpr std::size_t PREFIX_SIZE = 16;
    constexpr std::size_t SUFFIX_SIZE = 13; // "-", 8 digits, ".tmp"
    std::string strFolder;
    if (!HostPath(lpPathName, strFolder)) {
        return 0;
    }
    if (strFolder.back() != '/') {
        strFolder += '/';
    }
    if (strFolder.size() + SUFFIX_SIZE >= MAX_PATH) {
        SetLastError(ERROR_INVALID_NAME);
        return 0;
    }
    const std::size_t nRoom = MAX_PATH - 1 - SUFFIX_SIZE - strFolder.size();
    const std::string strBegin =
        strFolder + std::string(PrefixFor(lpPrefixString, std::min(nRoom, PREFIX_SIZE)));
    for (int nTries = 0; nTries < 100; ++nTries) {
        const UINT nNumber = RandomNumber();
        char szSuffix[SUFFIX_SIZE + 1];
        std::snprintf(szSuffix, sizeof(szSuffix), "-%08x.tmp", nNumber);
        const std::string strPath = strBegin + szSuffix;
        const CDescriptor file(
            ::open(strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (file) {
            std::memcpy(lpTempFileName, strPath.c_str(), strPath.size() + 1);
            return nNumber;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    SetLastErrorFromErrno(errno);
    return 0;
}

} // namespace

bool HostPath(const char* lpPath, std::string& strPath) {
    if (lpPath == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::size_t nLength = ::strnlen(lpPath, PATH_MAX);
    if (nLength == 0 || nLength >= PATH_MAX) {
        SetLastError(nLength == 0 ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_NAME);
        return false;
    }
    strPath.assign(lpPath, nLength);
    std::replace(strPath.begin(), strPath.end(), '\\', '/');
    return true;
}

} // namespace posix

bool HasDrives() {
    return false;
}

BOOL DeleteFileA(const char* lpFileName) {
    return posix::WithMemory<BOOL>(FALSE, [&] {
        std::string strPath;
        struct stat status {};
        if (!posix::HostPath(lpFileName, strPath)) {
            return FALSE;
        }
        if (::lstat(strPath.c_str(), &status) != 0) {
            return posix::Result(false);
        }
        return posix::RefuseReadOnly(status) ? FALSE
                                             : posix::Result(::unlink(strPath.c_str()) == 0);
    });
}

BOOL MoveFileA(const char* lpExistingFileName, const char* lpNewFileName) {
    return MoveFileExA(lpExistingFileName, lpNewFileName, 0);
}

BOOL MoveFileExA(const char* lpExistingFileName, const char* lpNewFileName, DWORD dwFlags) {
    return posix::WithMemory<BOOL>(FALSE, [&] {
        std::string strFrom;
        std::string strTo;
        if (!posix::HostPath(lpExistingFileName, strFrom) ||
            !posix::HostPath(lpNewFileName, strTo)) {
            return FALSE;
        }
        switch (dwFlags) {
        case 0:
            return posix::Result(posix::MoveToFreeName(strFrom.c_str(), strTo.c_str()));
        case MOVEFILE_REPLACE_EXISTING:
            return posix::MoveOver(strFrom.c_str(), strTo.c_str());
        default:
            posix::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
    });
}

BOOL SetFileAttributesA(const char* lpFileName, DWORD dwFileAttributes) {
    return posix::WithMemory<BOOL>(FALSE, [&] {
        std::string strPath;
        struct stat status {};
        if (!posix::HostPath(lpFileName, strPath)) {
            return FALSE;
        }
        if (::lstat(strPath.c_str(), &status) != 0) {
            return posix::Result(false);
        }
        if (S_ISLNK(status.st_mode)) {
            posix::SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        constexpr mode_t ALL_WRITE = S_IWUSR | S_IWGRP | S_IWOTH;
        const mode_t nMode = status.st_mode & 07777;
        const bool bReadOnly = (dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
        const mode_t nNewMode = bReadOnly ? nMode & ~ALL_WRITE : nMode | S_IWUSR;
        return posix::Result(nNewMode == nMode || ::chmod(strPath.c_str(), nNewMode) == 0);
    });
}

BOOL CreateDirectoryA(const char* lpPathName, _SECURITY_ATTRIBUTES* /*lpSecurityAttributes*/) {
    return posix::WithMemory<BOOL>(FALSE, [&] {
        std::string strPath;
        return posix::HostPath(lpPathName, strPath)
                   ? posix::Result(::mkdir(strPath.c_str(), 0777) == 0)
                   : FALSE;
    });
}

UINT GetTempFileNameA(const char* lpPathName, const char* lpPrefixString, UINT uUnique,
                      char* lpTempFileName) {
    if (lpTempFileName == nullptr || uUnique != 0) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return posix::WithMemory<UINT>(
        0, [&] { return posix::MakeTempFile(lpPathName, lpPrefixString, lpTempFileName); });
}

BOOL GetDiskFreeSpaceExA(const char* lpDirectoryName, std::uint64_t* lpFreeBytesAvailable,
                         std::uint64_t* lpTotalNumberOfBytes,
                         std::uint64_t* lpTotalNumberOfFreeBytes) {
    return posix::WithMemory<BOOL>(FALSE, [&] {
        std::string strPath;
        struct statvfs volume {};
        if (!posix::HostPath(lpDirectoryName, strPath)) {
            return FALSE;
        }
        if (::statvfs(strPath.c_str(), &volume) != 0) {
            return posix::Result(false);
        }
        const std::uint64_t qwBlock = volume.f_frsize == 0 ? 1 : volume.f_frsize;
        const auto store = [&](std::uint64_t* lpBytes, std::uint64_t qwBlocks) {
            constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
            if (lpBytes != nullptr) {
                *lpBytes = qwBlocks > MOST / qwBlock ? MOST : qwBlocks * qwBlock;
            }
        };
        store(lpFreeBytesAvailable, volume.f_bavail);
        store(lpTotalNumberOfBytes, volume.f_blocks);
        store(lpTotalNumberOfFreeBytes, volume.f_bfree);
        return TRUE;
    });
}

} // namespace platform
