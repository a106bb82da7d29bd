// File descriptors, the walk that cannot leave a folder, and times, for the agent's POSIX half.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

#include "agent/device_folder.h"

namespace agent {

// Owns a file descriptor.
class CFd {
  public:
    CFd() = default;
    explicit CFd(int fd) : m_fd(fd) {}
    CFd(CFd&& other) noexcept : m_fd(other.Release()) {}
    CFd& operator=(CFd&& other) noexcept {
        if (this != &other) {
            Close();
            m_fd = other.Release();
        }
        return *this;
    }
    ~CFd() { Close(); }

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Close(); // keeps errno

  private:
    int m_fd = -1;
};

// Opens strPath (components separated by '/'; empty for the folder itself) below fdFolder. Neither
// the path nor a link in it leads out of the folder. Not valid on failure, errno says why. Where
// the kernel has no way of its own to hold the walk inside, no link is followed at all.
CFd OpenBelow(int fdFolder, const std::string& strPath, int nFlags, mode_t mode = 0);

// The same without the kernel's help.
CFd OpenBelowByWalk(int fdFolder, const std::string& strPath, int nFlags, mode_t mode = 0);

// Where the file behind an open descriptor lies now. Empty when the system does not tell.
std::string PathOf(int fd);

// A whole write, over short ones and signals. False with errno set.
bool WriteWhole(int fd, const void* lpBytes, std::size_t dwBytes);

// Bytes from a position on, over short reads and signals: fewer than data holds only at the end of
// the file or on an error.
std::size_t ReadAt(int fd, std::uint64_t qwAt, std::span<std::uint8_t> data);

// The read-only attribute: nobody may write.
inline bool IsReadOnly(const struct stat& status) {
    return (status.st_mode & 0222) == 0;
}

// Whether another file system, or another part of one, begins at fd in a folder on deviceAbove.
// Also true when that cannot be told.
bool IsMountPoint(int fd, dev_t deviceAbove);

// NO_SPACE for a disk or limit that is full, else REFUSED.
EResult ResultOf(int nError);

std::uint64_t FileTimeOf(const timespec& time);
timespec TimeOf(std::uint64_t ftTime);

// The creation time that a copy has brought is kept beside the file in an extended attribute,
// since the system sets its own; files that have none there give the system's.
void KeepCreationTime(int fd, std::uint64_t ftCreation);
CFileTimes TimesOf(int fd, const struct stat& status);

} // namespace agent
