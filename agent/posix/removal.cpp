#include "agent/posix/removal.h"

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "agent/posix/part_journal.h"

namespace agent {

static constexpr std::size_t s_nMostFrames = 32;

FolderIdentity IdentityOf(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? FolderIdentity(status.st_dev, status.st_ino)
                                     : FolderIdentity(0, 0);
}

void CSpared::Add(int fdSpared, int fdTop) {
    const FolderIdentity top = IdentityOf(fdTop);
    FolderIdentity here = IdentityOf(fdSpared);
    m_spared.insert(here);
    CFd fd(::openat(fdSpared, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::set<FolderIdentity> ways;
    while (fd) {
        const FolderIdentity above = IdentityOf(fd.Get());
        if (above == top) {
            m_ways.merge(ways);
            return;
        }
        if (above == here) { // the root of the system
            return;
        }
        ways.insert(above);
        here = above;
        fd = CFd(::openat(fd.Get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
}

CRemoval::CRemoval(CFd fdFolder, CSpared spared, int fdLift, CQuota& quota)
    : m_spared(std::move(spared)), m_fdLift(fdLift), m_quota(quota) {
    m_frames.push_back({std::make_unique<CDirectory>(std::move(fdFolder)), {}, true});
    if (!m_frames.back().pDirectory->Open()) {
        m_frames.clear();
        m_nStuck = 1;
    }
}

// The folders are gone through again and again, until a pass removes nothing: entries may be
// missed where others vanish while they are read.
bool CRemoval::Step() {
    if (m_frames.empty()) {
        return false;
    }
    CDirectory& directory = *m_frames.back().pDirectory;
    const dirent* pEntry = directory.Next();
    if (!pEntry) {
        return Leave();
    }
    if (m_frames.size() == 1 && CPartJournal::IsJournal(pEntry->d_name)) {
        return true;
    }
    struct stat status {};
    if (::fstatat(directory.Fd(), pEntry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        m_nStuck += errno == ENOENT ? 0 : 1;
    } else if (S_ISDIR(status.st_mode)) {
        Enter(pEntry->d_name);
    } else {
        RemoveEntry(pEntry->d_name, status);
    }
    return true;
}

void CRemoval::RemoveEntry(const char* lpszName, const struct stat& status) {
    const bool bFolder = S_ISDIR(status.st_mode);
    if (::unlinkat(m_frames.back().pDirectory->Fd(), lpszName, bFolder ? AT_REMOVEDIR : 0) != 0) {
        m_nStuck += errno == ENOENT ? 0 : 1;
        return;
    }
    ++m_qwRemoved;
    if (S_ISREG(status.st_mode) && status.st_nlink == 1) {
        m_quota.Remove(static_cast<std::uint64_t>(status.st_size));
    }
}

// The end of a folder: it goes too, or the next pass begins.
bool CRemoval::Leave() {
    if (m_frames.size() > 1) {
        const CFrame frame = std::move(m_frames.back());
        m_frames.pop_back();
        if (!frame.bStays) {
            struct stat status {};
            status.st_mode = S_IFDIR;
            RemoveEntry(frame.strName.c_str(), status);
        }
        return true;
    }
    if (m_qwRemoved == m_qwRemovedBefore) {
        m_frames.clear();
        return false;
    }
    m_qwRemovedBefore = m_qwRemoved;
    m_nStuck = 0;
    m_frames.back().pDirectory->Rewind();
    return true;
}

void CRemoval::Enter(const char* lpszName) {
    const int fdParent = m_frames.back().pDirectory->Fd();
    constexpr int nFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    CFd fd(::openat(fdParent, lpszName, nFlags));
    if (!fd && errno == EACCES && ::fchmodat(fdParent, lpszName, 0700, AT_SYMLINK_NOFOLLOW) == 0) {
        fd = CFd(::openat(fdParent, lpszName, nFlags));
    }
    if (!fd) {
        m_nStuck += errno == ENOENT ? 0 : 1;
        return;
    }
    const FolderIdentity identity = IdentityOf(fd.Get());
    if (m_spared.IsSpared(identity)) {
        return;
    }
    const bool bStays = m_spared.IsOnTheWay(identity);
    if (IsMountPoint(fd.Get(), IdentityOf(fdParent).first)) {
        m_nStuck += bStays ? 0 : 1;
        return;
    }
    if (!bStays && m_frames.size() >= s_nMostFrames) {
        if (Lift(fdParent, lpszName)) {
            ++m_qwRemoved;
        } else {
            ++m_nStuck;
        }
        return;
    }
    struct stat status {};
    if (!bStays && ::fstat(fd.Get(), &status) == 0 && (status.st_mode & 0700) != 0700) {
        // What lies in a folder that nobody may write goes with the rest. Where this fails, the
        // removal of its entries tells.
        static_cast<void>(::fchmod(fd.Get(), 0700));
    }
    auto pDirectory = std::make_unique<CDirectory>(std::move(fd));
    if (pDirectory->Open()) {
        m_frames.push_back({std::move(pDirectory), lpszName, bStays});
    } else {
        ++m_nStuck;
    }
}

// Names that an earlier removal has left are passed over.
bool CRemoval::Lift(int fdParent, const char* lpszName) {
    for (int nTry = 0; m_fdLift >= 0 && nTry < 100; ++nTry) {
        const std::string strLifted = "lifted-" + std::to_string(m_nLifted++);
        if (::renameat(fdParent, lpszName, m_fdLift, strLifted.c_str()) == 0) {
            return true;
        }
        if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR) {
            return false;
        }
    }
    return false;
}

} // namespace agent
