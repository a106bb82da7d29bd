#include "agent/posix/removal.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

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

int CRemoval::Parent() const {
    return m_frames.size() > 1 ? m_frames[m_frames.size() - 2].pDirectory->Fd() : m_fdParent.Get();
}

bool CRemoval::Step() {
    if (m_frames.empty()) {
        if (m_nNext == m_entries.size()) {
            return EndPass();
        }
        BeginListed(m_entries[m_nNext++]);
        return true;
    }
    CDirectory& directory = *m_frames.back().pDirectory;
    if (const dirent* pEntry = directory.Next()) {
        Remove(directory.Fd(), pEntry->d_name, 0);
    } else {
        Leave();
    }
    return true;
}

// The list is gone through again and again, until a pass removes nothing: entries may be missed
// where others vanish while they are read.
bool CRemoval::EndPass() {
    if (m_qwRemoved == m_qwRemovedBefore) {
        return false;
    }
    m_qwRemovedBefore = m_qwRemoved;
    m_nStuck = 0;
    m_nNext = 0;
    return true;
}

void CRemoval::BeginListed(const CListedEntry& entry) {
    const std::size_t dwSlash = entry.strPath.rfind('/');
    const std::string strParent =
        entry.strPath.substr(0, dwSlash == std::string::npos ? 0 : dwSlash);
    if (!m_fdParent || strParent != m_strParent) {
        m_fdParent = OpenBelowByWalk(m_fdFolder, strParent, O_RDONLY | O_DIRECTORY);
        m_strParent = strParent;
    }
    if (m_fdParent) {
        Remove(m_fdParent.Get(), entry.strPath.c_str() + (dwSlash + 1), entry.qwInode);
    } else {
        m_nStuck += errno == ENOENT ? 0 : 1;
    }
}

void CRemoval::Remove(int fdParent, const char* lpszName, std::uint64_t qwInode) {
    struct stat status {};
    if (::fstatat(fdParent, lpszName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        m_nStuck += errno == ENOENT ? 0 : 1;
    } else if (S_ISDIR(status.st_mode)) {
        Enter(fdParent, lpszName, qwInode);
    } else if (qwInode == 0 || qwInode == status.st_ino) {
        Unlink(fdParent, lpszName, status);
    }
}

void CRemoval::Unlink(int fdParent, const char* lpszName, const struct stat& status) {
    if (m_room.Unlink(fdParent, lpszName, status)) {
        ++m_qwRemoved;
    } else {
        m_nStuck += errno == ENOENT ? 0 : 1;
    }
}

// The end of a folder: it goes too.
void CRemoval::Leave() {
    const int fdParent = Parent();
    const CFrame frame = std::move(m_frames.back());
    m_frames.pop_back();
    if (!frame.bStays) {
        struct stat status {};
        status.st_mode = S_IFDIR;
        Unlink(fdParent, frame.strName.c_str(), status);
    }
}

void CRemoval::Enter(int fdParent, const char* lpszName, std::uint64_t qwInode) {
    // Whether the folder may be touched is asked before it is: its permissions do not matter for
    // that.
    constexpr int nFlags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const CFd fd(::openat(fdParent, lpszName, O_PATH | nFlags));
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
    if (qwInode != 0 && qwInode != identity.second) {
        return; // it came under the name of a listed one, which is gone
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
        // What lies in a folder that nobody may read or write goes with the rest. Where this fails,
        // the removal of its entries tells.
        static_cast<void>(::fchmodat(fdParent, lpszName, 0700, AT_SYMLINK_NOFOLLOW));
    }
    auto pDirectory = std::make_unique<CDirectory>(CFd(::openat(fd.Get(), ".", O_RDONLY | nFlags)));
    if (pDirectory->Open()) {
        m_frames.push_back({std::move(pDirectory), lpszName, bStays});
    } else {
        ++m_nStuck;
    }
}

// Names that an earlier removal has left are passed over.
bool CRemoval::Lift(int fdParent, const char* lpszName) {
    if (m_fdLift < 0 || (::mkdirat(m_fdLift, LIFTED, 0700) != 0 && errno != EEXIST)) {
        return false;
    }
    for (int nTry = 0; nTry < 100; ++nTry) {
        const std::string strLifted = std::string(LIFTED) + "/" + std::to_string(m_nLifted++);
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
