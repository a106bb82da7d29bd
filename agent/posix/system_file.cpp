#include "agent/posix/system_file.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <string_view>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "link/wire.h"

namespace agent {

static constexpr char s_szCreationTime[] = "user.dak.creation_time";

// Seconds from 1601 to 1970, and FILETIME units in a second.
static constexpr std::int64_t s_llEpoch = 11'644'473'600;
static constexpr std::uint64_t s_qwPerSecond = 10'000'000;

void CFd::Close() {
    if (m_fd >= 0) {
        const int nError = errno;
        ::close(m_fd);
        errno = nError;
        m_fd = -1;
    }
}

CFd OpenBelowByWalk(int fdFolder, const std::string& strPath, int nFlags, mode_t mode) {
    CFd fdOwned;
    int fdAt = fdFolder;
    std::string_view strRest = strPath;
    for (;;) {
        const std::size_t dwSlash = strRest.find('/');
        const bool bLast = dwSlash == std::string_view::npos;
        const std::string strComponent(strRest.empty() ? std::string_view(".")
                                                       : strRest.substr(0, dwSlash));
        if (strComponent == "..") {
            errno = EXDEV;
            return CFd();
        }
        CFd fdNext(::openat(fdAt, strComponent.c_str(),
                            (bLast ? nFlags : O_PATH | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC,
                            bLast ? mode : 0));
        if (bLast || !fdNext) {
            return fdNext;
        }
        fdOwned = std::move(fdNext);
        fdAt = fdOwned.Get();
        strRest.remove_prefix(dwSlash + 1);
    }
}

CFd OpenBelow(int fdFolder, const std::string& strPath, int nFlags, mode_t mode) {
    static std::atomic<bool> s_bNoCall{false};
    if (s_bNoCall) {
        return OpenBelowByWalk(fdFolder, strPath, nFlags, mode);
    }
    open_how how{};
    how.flags = static_cast<__u64>(static_cast<unsigned>(nFlags | O_CLOEXEC));
    how.mode = mode;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const char* lpszPath = strPath.empty() ? "." : strPath.c_str();
    long nFd = -1;
    // The kernel says EAGAIN when something was renamed under the walk.
    for (int nTry = 0; nTry < 10; ++nTry) {
        nFd = ::syscall(SYS_openat2, fdFolder, lpszPath, &how, sizeof(how));
        if (nFd >= 0 || errno != EAGAIN) {
            break;
        }
    }
    if (nFd < 0 && (errno == ENOSYS || errno == EPERM)) {
        // EPERM is also what a filter of system calls answers; the walk decides then.
        s_bNoCall = s_bNoCall || errno == ENOSYS;
        return OpenBelowByWalk(fdFolder, strPath, nFlags, mode);
    }
    return CFd(static_cast<int>(nFd));
}

std::string PathOf(int fd) {
    std::array<char, PATH_MAX> path{};
    const std::string strLink = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t nLength = ::readlink(strLink.c_str(), path.data(), path.size());
    return nLength > 0 ? std::string(path.data(), static_cast<std::size_t>(nLength))
                       : std::string();
}

bool WriteWhole(int fd, const void* lpBytes, std::size_t dwBytes) {
    const char* lpNext = static_cast<const char*>(lpBytes);
    while (dwBytes > 0) {
        const ssize_t nWritten = ::write(fd, lpNext, dwBytes);
        if (nWritten < 0 && errno == EINTR) {
            continue;
        }
        if (nWritten <= 0) {
            return false;
        }
        lpNext += nWritten;
        dwBytes -= static_cast<std::size_t>(nWritten);
    }
    return true;
}

std::size_t ReadAt(int fd, std::uint64_t qwAt, std::span<std::uint8_t> data) {
    std::size_t dwDone = 0;
    while (dwDone < data.size()) {
        const ssize_t nRead = ::pread(fd, data.data() + dwDone, data.size() - dwDone,
                                      static_cast<off_t>(qwAt + dwDone));
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead <= 0) {
            break;
        }
        dwDone += static_cast<std::size_t>(nRead);
    }
    return dwDone;
}

bool IsMountPoint(int fd, dev_t deviceAbove) {
    struct statx status {};
    struct stat plain {};
    return ::fstat(fd, &plain) != 0 || plain.st_dev != deviceAbove ||
           ::statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &status) != 0 ||
           (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

EResult ResultOf(int nError) {
    return nError == ENOSPC || nError == EDQUOT || nError == EFBIG ? EResult::NO_SPACE
                                                                   : EResult::REFUSED;
}

std::uint64_t FileTimeOf(const timespec& time) {
    const std::int64_t llSeconds = static_cast<std::int64_t>(time.tv_sec) + s_llEpoch;
    if (llSeconds < 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(llSeconds) * s_qwPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec) / 100;
}

timespec TimeOf(std::uint64_t ftTime) {
    timespec time{};
    time.tv_sec =
        static_cast<time_t>(static_cast<std::int64_t>(ftTime / s_qwPerSecond) - s_llEpoch);
    time.tv_nsec = static_cast<long>(ftTime % s_qwPerSecond) * 100;
    return time;
}

void KeepCreationTime(int fd, std::uint64_t ftCreation) {
    std::uint8_t bytes[8];
    DakPutU32(bytes, static_cast<std::uint32_t>(ftCreation));
    DakPutU32(bytes + 4, static_cast<std::uint32_t>(ftCreation >> 32));
    // A file system that keeps no such attributes is no failure of the copy.
    static_cast<void>(::fsetxattr(fd, s_szCreationTime, bytes, sizeof(bytes), 0));
}

CFileTimes TimesOf(int fd, const struct stat& status) {
    CFileTimes times;
    times.ftLastWrite = FileTimeOf(status.st_mtim);
    std::uint8_t bytes[8];
    if (::fgetxattr(fd, s_szCreationTime, bytes, sizeof(bytes)) == sizeof(bytes)) {
        times.ftCreation = DakGetU32(bytes) | (std::uint64_t{DakGetU32(bytes + 4)} << 32);
        return times;
    }
    struct statx birth {};
    if (::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &birth) == 0 &&
        (birth.stx_mask & STATX_BTIME) != 0) {
        timespec time{};
        time.tv_sec = static_cast<time_t>(birth.stx_btime.tv_sec);
        time.tv_nsec = static_cast<long>(birth.stx_btime.tv_nsec);
        times.ftCreation = FileTimeOf(time);
    } else {
        times.ftCreation = times.ftLastWrite;
    }
    return times;
}

} // namespace agent
