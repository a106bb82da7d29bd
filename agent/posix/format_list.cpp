#include "agent/posix/format_list.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "agent/posix/part_journal.h"
#include "link/wire.h"

namespace agent {

static constexpr std::size_t s_dwMostBytes = std::size_t{64} << 20;
static constexpr std::size_t s_dwInode = 8;

// Entries between two looks at the clock: a list of fewer is whole however busy the system is.
static constexpr std::size_t s_nLook = 4096;

// File systems whose inode numbers stay with the file as long as it lives, also when it is mounted
// anew. On others the name alone says which entry is meant.
static bool KeepsInodes(int fdFolder) {
    static constexpr std::array<std::int64_t, 5> s_keep = {
        EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, BTRFS_SUPER_MAGIC, TMPFS_MAGIC, F2FS_SUPER_MAGIC};
    struct statfs status {};
    return ::fstatfs(fdFolder, &status) == 0 &&
           std::find(s_keep.begin(), s_keep.end(), std::int64_t{status.f_type}) != s_keep.end();
}

static bool IsOwn(const std::string& strName) {
    return strName == FORMAT_FOLDER || strName == FORMATTED_FOLDER ||
           CPartJournal::IsJournal(strName);
}

static CFd OpenFolder(int fdFolder, const std::string& strPath) {
    return OpenBelowByWalk(fdFolder, strPath, O_RDONLY | O_DIRECTORY);
}

CFormatListing::CFormatListing(int fdFolder, CSpared spared,
                               std::chrono::steady_clock::time_point tEnd)
    : m_spared(std::move(spared)), m_tEnd(tEnd) {
    Enter(fdFolder, {});
}

void CFormatListing::Enter(int fdFolder, const std::string& strFolder) {
    auto pDirectory = std::make_unique<CDirectory>(OpenFolder(fdFolder, {}));
    if (pDirectory->Open()) {
        m_levels.push_back({std::move(pDirectory), strFolder, KeepsInodes(fdFolder)});
    } else {
        list.LeaveOut();
    }
}

bool CFormatListing::Step(CWorkSlice& slice) {
    for (; !m_levels.empty() && !slice.Over(); slice.Spend()) {
        TakeEntry();
    }
    return !m_levels.empty();
}

void CFormatListing::TakeEntry() {
    const CLevel& level = m_levels.back();
    errno = 0;
    const dirent* pEntry = level.pDirectory->Next();
    if (!pEntry) {
        if (errno != 0) {
            list.LeaveOut();
        }
        m_levels.pop_back();
        return;
    }
    const int fdFolder = level.pDirectory->Fd();
    std::string strPath =
        level.strFolder.empty() ? pEntry->d_name : level.strFolder + "/" + pEntry->d_name;
    if (level.strFolder.empty() && IsOwn(strPath)) {
        return;
    }
    if (!m_spared.Empty() && (pEntry->d_type == DT_DIR || pEntry->d_type == DT_UNKNOWN)) {
        const CFd fd = OpenFolder(fdFolder, pEntry->d_name);
        const FolderIdentity identity = IdentityOf(fd.Get());
        if (fd && m_spared.IsSpared(identity)) {
            return;
        }
        if (fd && m_spared.IsOnTheWay(identity)) {
            if (!IsMountPoint(fd.Get(), IdentityOf(fdFolder).first)) {
                Enter(fd.Get(), strPath);
            }
            return;
        }
    }
    list.Add(std::move(strPath), level.bInodes ? std::uint64_t{pEntry->d_ino} : 0);
    if (list.Bytes() > s_dwMostBytes ||
        (++m_nTaken % s_nLook == 0 && std::chrono::steady_clock::now() >= m_tEnd)) {
        list.LeaveOut();
        m_levels.clear();
    }
}

// For each entry its inode, 8 bytes, and its path with a terminator; behind the last an empty path.
bool CFormatList::Store(int fdAt, const std::string& strName) const {
    std::string strBytes;
    strBytes.reserve(m_dwBytes);
    const auto append = [&strBytes](std::uint64_t qwInode, const std::string& strPath) {
        std::uint8_t bytes[s_dwInode];
        DakPutU32(bytes, static_cast<std::uint32_t>(qwInode));
        DakPutU32(bytes + 4, static_cast<std::uint32_t>(qwInode >> 32));
        strBytes.append(bytes, bytes + s_dwInode).append(strPath).push_back('\0');
    };
    for (const CListedEntry& entry : m_entries) {
        append(entry.qwInode, entry.strPath);
    }
    if (m_bWhole) {
        append(0, {});
    }
    const CFd fd(::openat(fdAt, strName.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd && WriteWhole(fd.Get(), strBytes.data(), strBytes.size())) {
        return true;
    }
    const int nError = errno;
    ::unlinkat(fdAt, strName.c_str(), 0);
    errno = nError;
    return false;
}

bool CFormatList::Load(int fdAt, const std::string& strName) {
    const CFd fd(::openat(fdAt, strName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    std::vector<std::uint8_t> bytes(
        std::min(static_cast<std::size_t>(status.st_size), s_dwMostBytes));
    bytes.resize(ReadAt(fd.Get(), 0, bytes));
    m_entries.clear();
    m_bWhole = false;
    for (auto it = bytes.begin(); bytes.end() - it > std::ptrdiff_t{s_dwInode};) {
        const auto itPath = it + std::ptrdiff_t{s_dwInode};
        const auto itEnd = std::find(itPath, bytes.end(), std::uint8_t{0});
        m_bWhole = itEnd == itPath;
        if (m_bWhole || itEnd == bytes.end()) {
            break;
        }
        m_entries.push_back({std::string(itPath, itEnd),
                             DakGetU32(&*it) | (std::uint64_t{DakGetU32(&*it + 4)} << 32)});
        it = itEnd + 1;
    }
    return true;
}

bool CFormatList::AllGone(int fdFolder) const {
    return m_bWhole && std::all_of(m_entries.begin(), m_entries.end(), [&](const auto& entry) {
               return !OpenBelowByWalk(fdFolder, entry.strPath, O_PATH) && errno == ENOENT;
           });
}

} // namespace agent
