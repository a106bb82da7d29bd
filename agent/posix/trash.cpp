#include "agent/posix/trash.h"

#include <cerrno>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

static constexpr std::string_view s_strTrash = ".trash";

// Entries in one step.
static constexpr int s_nSlice = 256;

std::string CTrash::Name(std::uint64_t qwItem) const {
    return m_strIdentity + "-" + std::to_string(qwItem) + std::string(s_strTrash);
}

bool CTrash::Move(int fdFolder, const std::string& strName) {
    // To change its parent a folder must be writable, and its own permissions do not matter now.
    const auto rename = [&] {
        return ::renameat(fdFolder, strName.c_str(), m_fdTop.Get(), Name(m_qwEnd).c_str()) == 0;
    };
    if (!rename() &&
        (errno != EACCES || ::fchmodat(fdFolder, strName.c_str(), 0700, AT_SYMLINK_NOFOLLOW) != 0 ||
         !rename())) {
        return false;
    }
    ++m_qwEnd;
    return true;
}

bool CTrash::TakeIn(int fdFolder, const std::string& strName) {
    return Move(fdFolder, strName) || (errno == EXDEV && RemoveTree(fdFolder, strName));
}

void CTrash::Adopt() {
    CDirectory directory(OpenBelow(m_fdTop.Get(), "", O_RDONLY | O_DIRECTORY));
    if (!directory.Open()) {
        return;
    }
    std::vector<std::string> names;
    while (const dirent* pEntry = directory.Next()) {
        const std::string_view strName = pEntry->d_name;
        if (strName.starts_with(RESERVED_PREFIX) && strName.ends_with(s_strTrash)) {
            names.emplace_back(strName);
        }
    }
    for (const std::string& strName : names) {
        // What cannot be taken over stays for the next agent.
        static_cast<void>(Move(m_fdTop.Get(), strName));
    }
}

// A file, or a folder that is empty.
bool CTrash::Unlink(int fdFolder, const char* lpszName, bool& bFolder) {
    struct stat status {};
    if (::fstatat(fdFolder, lpszName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    bFolder = S_ISDIR(status.st_mode);
    if (::unlinkat(fdFolder, lpszName, bFolder ? AT_REMOVEDIR : 0) != 0) {
        return false;
    }
    if (S_ISREG(status.st_mode) && status.st_nlink == 1) {
        m_quota.Remove(static_cast<std::uint64_t>(status.st_size));
    }
    return true;
}

bool CTrash::RemoveEntry(const char* lpszName) {
    bool bFolder = false;
    return Unlink(m_pOpen->Fd(), lpszName, bFolder) || (bFolder && Move(m_pOpen->Fd(), lpszName));
}

// Opens the next item. One that is no folder, or gone, is passed.
bool CTrash::Open() {
    const std::string strName = Name(m_qwNext);
    bool bFolder = false;
    if (!Unlink(m_fdTop.Get(), strName.c_str(), bFolder) && bFolder) {
        static_cast<void>(::fchmodat(m_fdTop.Get(), strName.c_str(), 0700, AT_SYMLINK_NOFOLLOW));
        m_pOpen = std::make_unique<CDirectory>(
            OpenBelow(m_fdTop.Get(), strName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
        m_bProgress = false;
        if (m_pOpen->Open()) {
            return true;
        }
        m_pOpen.reset();
    }
    ++m_qwNext;
    return false;
}

void CTrash::Step() {
    for (int i = 0; i < s_nSlice && !Empty(); ++i) {
        if (!m_pOpen && !Open()) {
            continue;
        }
        if (const dirent* pEntry = m_pOpen->Next()) {
            m_bProgress = RemoveEntry(pEntry->d_name) || m_bProgress;
            continue;
        }
        // A folder that changes while it is read may have more to show in another pass; the next
        // opening tells. What is left when nothing could be removed stays for the next agent.
        m_pOpen.reset();
        if (!m_bProgress) {
            ++m_qwNext;
        }
    }
}

bool CTrash::RemoveTree(int fdFolder, const std::string& strName) {
    bool bFolder = false;
    if (Unlink(fdFolder, strName.c_str(), bFolder)) {
        return true;
    }
    if (!bFolder) {
        return false;
    }
    static_cast<void>(::fchmodat(fdFolder, strName.c_str(), 0700, AT_SYMLINK_NOFOLLOW));
    CDirectory directory(
        CFd(::openat(fdFolder, strName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    if (!directory.Open()) {
        return false;
    }
    while (const dirent* pEntry = directory.Next()) {
        if (!RemoveTree(directory.Fd(), pEntry->d_name)) {
            return false;
        }
    }
    return ::unlinkat(fdFolder, strName.c_str(), AT_REMOVEDIR) == 0;
}

} // namespace agent
