#include "agent/posix/tree_copy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

static constexpr std::size_t s_dwBuffer = std::size_t{64} << 10;
static constexpr unsigned s_nBufferSteps = s_dwBuffer / 1024;
static constexpr unsigned s_nEntrySteps = 4;

// Folders in folders; two descriptors each.
static constexpr std::size_t s_nMaxDepth = 128;

bool SameContent(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

std::optional<EResult> CTreeCopy::Step(CWorkSlice slice) {
    if (m_fdSource) {
        const EResult eResult = m_bFolder
                                    ? BeginFolder(std::move(m_fdSource), m_fdFolder, m_strName)
                                    : BeginFile(std::move(m_fdSource), m_fdFolder, m_strName);
        return eResult == EResult::SUCCESS ? std::nullopt : std::optional(eResult);
    }
    do {
        if (!m_file && m_levels.empty()) {
            return EResult::SUCCESS;
        }
        slice.Spend(m_file ? s_nBufferSteps : s_nEntrySteps);
        const EResult eResult = m_file ? CopyBytes() : CopyEntry();
        if (eResult != EResult::SUCCESS) {
            return eResult;
        }
    } while (!slice.Over());
    return std::nullopt;
}

EResult CTreeCopy::BeginFile(CFd fdSource, int fdFolder, const std::string& strName) {
    struct stat source {};
    if (!fdSource || ::fstat(fdSource.Get(), &source) != 0 || !S_ISREG(source.st_mode)) {
        return EResult::REFUSED;
    }
    const auto qwSize = static_cast<std::uint64_t>(source.st_size);
    if (!m_quota.HasRoom(qwSize)) {
        return EResult::NO_SPACE;
    }
    CFd fdTarget(::openat(fdFolder, strName.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fdTarget) {
        return ResultOf(errno);
    }
    m_file.emplace(CFileInWork{std::move(fdSource), std::move(fdTarget), source, qwSize});
    return EResult::SUCCESS;
}

EResult CTreeCopy::BeginFolder(CFd fdSource, int fdFolder, const std::string& strName) {
    struct stat source {};
    if (m_levels.size() == s_nMaxDepth || !fdSource || ::fstat(fdSource.Get(), &source) != 0) {
        return EResult::REFUSED;
    }
    if (::mkdirat(fdFolder, strName.c_str(), 0700) != 0) {
        return ResultOf(errno);
    }
    CFd fdTarget(
        ::openat(fdFolder, strName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fdTarget) {
        return ResultOf(errno);
    }
    m_levels.emplace_back(new CLevel{CDirectory(std::move(fdSource)), std::move(fdTarget), source});
    return m_levels.back()->source.Open() ? EResult::SUCCESS : EResult::REFUSED;
}

EResult CTreeCopy::CopyEntry() {
    CLevel& level = *m_levels.back();
    errno = 0;
    const dirent* pEntry = level.source.Next();
    if (!pEntry) {
        if (errno != 0) {
            return EResult::REFUSED;
        }
        return FinishFolder();
    }
    const std::string strName = pEntry->d_name;
    if (IsReserved(strName)) {
        // It would go with the source, and another agent may have it in work.
        return m_bMove ? EResult::REFUSED : EResult::SUCCESS;
    }
    struct stat status {};
    if (::fstatat(level.source.Fd(), strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return EResult::REFUSED;
    }
    if (S_ISLNK(status.st_mode)) {
        return CopyLink(strName.c_str());
    }
    const auto open = [&](int nFlags) {
        CFd fd(::openat(level.source.Fd(), strName.c_str(),
                        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | nFlags));
        // Layered file systems may give files other devices than folders.
        const dev_t device = S_ISDIR(status.st_mode) ? level.status.st_dev : status.st_dev;
        return m_bMove && fd && IsMountPoint(fd.Get(), device) ? CFd() : std::move(fd);
    };
    if (S_ISDIR(status.st_mode)) {
        return BeginFolder(open(O_DIRECTORY), level.fdTarget.Get(), strName);
    }
    return S_ISREG(status.st_mode) ? BeginFile(open(0), level.fdTarget.Get(), strName)
                                   : EResult::REFUSED;
}

EResult CTreeCopy::CopyLink(const char* lpszName) {
    const CLevel& level = *m_levels.back();
    std::array<char, PATH_MAX> text{};
    const ssize_t nLength = ::readlinkat(level.source.Fd(), lpszName, text.data(), text.size() - 1);
    if (nLength < 0) {
        return EResult::REFUSED;
    }
    return ::symlinkat(text.data(), level.fdTarget.Get(), lpszName) == 0 ? EResult::SUCCESS
                                                                         : ResultOf(errno);
}

EResult CTreeCopy::CopyBytes() {
    m_buffer.resize(s_dwBuffer);
    const auto dwWanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(m_file->qwLeft, m_buffer.size()));
    const ssize_t nRead = ::read(m_file->fdSource.Get(), m_buffer.data(), dwWanted);
    if (nRead < 0) {
        return errno == EINTR ? EResult::SUCCESS : EResult::REFUSED;
    }
    if (nRead == 0) {
        return FinishFile();
    }
    const auto dwBytes = static_cast<std::size_t>(nRead);
    if (!m_quota.HasRoom(dwBytes)) {
        return EResult::NO_SPACE;
    }
    const std::uint64_t qwBefore =
        static_cast<std::uint64_t>(m_file->source.st_size) - m_file->qwLeft;
    if (!WriteWhole(m_file->fdTarget.Get(), m_buffer.data(), dwBytes)) {
        const EResult eResult = ResultOf(errno);
        // What there is of it comes back when the file is removed.
        struct stat target {};
        if (::fstat(m_file->fdTarget.Get(), &target) == 0) {
            m_quota.Add(static_cast<std::uint64_t>(target.st_size) - qwBefore);
        }
        return eResult;
    }
    m_quota.Add(dwBytes);
    m_file->qwLeft -= dwBytes;
    return EResult::SUCCESS;
}

// A copy that mixes two contents, or has lost its end, is none.
EResult CTreeCopy::FinishFile() {
    struct stat now {};
    if (::fstat(m_file->fdSource.Get(), &now) != 0 || !SameContent(now, m_file->source) ||
        m_file->qwLeft != 0) {
        return EResult::REFUSED;
    }
    Dress(m_file->fdTarget.Get(), m_file->fdSource.Get(), m_file->source);
    m_file.reset();
    return EResult::SUCCESS;
}

EResult CTreeCopy::FinishFolder() {
    const CLevel& level = *m_levels.back();
    struct stat now {};
    if (m_bMove && (::fstat(level.source.Fd(), &now) != 0 || !SameContent(now, level.status))) {
        return EResult::REFUSED;
    }
    Dress(level.fdTarget.Get(), level.source.Fd(), level.status);
    m_levels.pop_back();
    return EResult::SUCCESS;
}

// Behind the last change of the contents, which would move the time. A file system that keeps no
// permissions or times has none to hand on.
void CTreeCopy::Dress(int fdTarget, int fdSource, const struct stat& source) const {
    if (m_bMove) {
        KeepCreationTime(fdTarget, TimesOf(fdSource, source).ftCreation);
    }
    static_cast<void>(::fchmod(fdTarget, source.st_mode & 0777));
    const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, source.st_mtim};
    static_cast<void>(::futimens(fdTarget, times.data()));
}

} // namespace agent
