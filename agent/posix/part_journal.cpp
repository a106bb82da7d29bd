#include "agent/posix/part_journal.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/random.h>
#include <unistd.h>

namespace agent {

static constexpr std::string_view s_strJournal = ".journal";
static constexpr std::string_view s_strPart = ".part";

static bool LockWhole(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

CPartJournal::CPartJournal(int fdTop) : m_fdTop(OpenBelow(fdTop, "", O_PATH | O_DIRECTORY)) {
    DrawIdentity();
}

void CPartJournal::DrawIdentity() {
    std::array<std::uint8_t, 8> random{};
    if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
        // Unique enough: the journal is made with O_EXCL.
        const auto dwPid = static_cast<std::uint32_t>(::getpid());
        timespec time{};
        ::clock_gettime(CLOCK_REALTIME, &time);
        for (std::size_t i = 0; i < 4; ++i) {
            random[i] = static_cast<std::uint8_t>(dwPid >> (8 * i));
            random[4 + i] = static_cast<std::uint8_t>(time.tv_nsec >> (8 * i));
        }
    }
    m_strIdentity = RESERVED_PREFIX;
    for (const std::uint8_t byNext : random) {
        static constexpr char s_szDigits[] = "0123456789abcdef";
        m_strIdentity.push_back(s_szDigits[byNext >> 4]);
        m_strIdentity.push_back(s_szDigits[byNext & 15]);
    }
    m_strName = m_strIdentity + std::string(s_strJournal);
    m_strPartName = m_strIdentity + std::string(s_strPart);
}

// Another agent that starts just now may take the fresh file for one that is left over, until the
// lock is on it: the file must still have its name behind the lock. The other removes it at once.
bool CPartJournal::Make() {
    for (int nTry = 0; nTry < 10; ++nTry) {
        CFd fd(::openat(m_fdTop.Get(), m_strName.c_str(),
                        O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd && errno != EEXIST) {
            return false;
        }
        struct stat status {};
        if (fd && LockWhole(fd.Get()) && ::fstat(fd.Get(), &status) == 0 && status.st_nlink > 0) {
            m_fd = std::move(fd);
            m_strFolder.clear();
            return true;
        }
        ::sched_yield();
    }
    errno = EBUSY;
    return false;
}

// One write, so that a kill finds the old folder or the new one; the zero ends it.
bool CPartJournal::Enter(const std::string& strFolder) {
    const bool bFresh = !m_fd;
    if (bFresh && !Make()) {
        return false;
    }
    if (!bFresh && strFolder == m_strFolder) {
        return true;
    }
    const std::size_t dwBytes = strFolder.size() + 1;
    const ssize_t nWritten = ::pwrite(m_fd.Get(), strFolder.c_str(), dwBytes, 0);
    if (nWritten != static_cast<ssize_t>(dwBytes)) {
        errno = nWritten < 0 ? errno : ENOSPC;
        return false;
    }
    m_strFolder = strFolder;
    return true;
}

void CPartJournal::Clear() {
    if (m_fd) {
        ::unlinkat(m_fdTop.Get(), m_strName.c_str(), 0);
        m_fd.Close();
    }
}

void CPartJournal::Abandon() {
    m_fd.Close();
    DrawIdentity();
}

bool CPartJournal::IsJournal(std::string_view strName) {
    return strName.starts_with(RESERVED_PREFIX) && strName.ends_with(s_strJournal);
}

static std::vector<std::string> JournalsIn(int fdTop) {
    std::vector<std::string> names;
    CFd fd(::openat(fdTop, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR* pDir = fd ? ::fdopendir(fd.Get()) : nullptr;
    if (!pDir) {
        return names;
    }
    fd.Release();
    while (const dirent* pEntry = ::readdir(pDir)) {
        if (CPartJournal::IsJournal(pEntry->d_name)) {
            names.emplace_back(pEntry->d_name);
        }
    }
    ::closedir(pDir);
    return names;
}

void CPartJournal::CleanUp(
    const std::function<bool(const std::string&, const std::string&)>& remove) const {
    const int fdTop = m_fdTop.Get();
    for (const std::string& strName : JournalsIn(fdTop)) {
        CFd fd(::openat(fdTop, strName.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!fd || !LockWhole(fd.Get())) {
            continue;
        }
        std::array<char, PATH_MAX> content{};
        const std::string strIdentity = strName.substr(0, strName.size() - s_strJournal.size());
        if (::pread(fd.Get(), content.data(), content.size() - 1, 0) < 0 ||
            remove(content.data(), strIdentity + std::string(s_strPart))) {
            ::unlinkat(fdTop, strName.c_str(), 0);
        }
    }
}

} // namespace agent
