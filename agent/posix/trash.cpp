#include "agent/posix/trash.h"

#include <cerrno>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

static constexpr std::string_view s_strTrash = ".trash";

// Each has a descriptor.
static constexpr std::size_t s_nMostElsewhere = 16;

std::string CTrash::Name(std::uint64_t qwItem) const {
    return m_strIdentity + "-" + std::to_string(qwItem) + std::string(s_strTrash);
}

bool CTrash::Move(int fdFolder, const std::string& strName) {
    const auto rename = [&] {
        return ::renameat(fdFolder, strName.c_str(), m_fdTop.Get(), Name(m_qwEnd).c_str()) == 0;
    };
    const auto allow = [&](mode_t mode) {
        return ::fchmodat(fdFolder, strName.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW) == 0;
    };
    if (!rename()) {
        // To change its parent a folder must be writable, and its own permissions do not matter
        // once it is here.
        struct stat status {};
        if (errno != EACCES ||
            ::fstatat(fdFolder, strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISDIR(status.st_mode) || !allow(0700)) {
            return false;
        }
        if (!rename()) {
            const int nError = errno;
            static_cast<void>(allow(status.st_mode)); // the owner, who could change it before
            errno = nError;
            return false;
        }
    }
    ++m_qwEnd;
    return true;
}

bool CTrash::TakeIn(int fdFolder, const std::string& strName) {
    if (Move(fdFolder, strName)) {
        return true;
    }
    if (m_elsewhere.size() == s_nMostElsewhere) {
        return false;
    }
    auto pTrash = std::make_unique<CTrash>(
        fdFolder, m_strIdentity + "-" + std::to_string(m_nElsewhere++), m_room);
    if (!pTrash->Move(fdFolder, strName)) {
        return false;
    }
    m_elsewhere.push_back(std::move(pTrash));
    return true;
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
    return m_room.Unlink(fdFolder, lpszName, status);
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
    if (m_qwNext != m_qwEnd) {
        StepOwn();
    } else if (!m_elsewhere.empty()) {
        m_elsewhere.back()->Step();
        if (m_elsewhere.back()->Empty()) {
            m_elsewhere.pop_back();
        }
    }
}

void CTrash::StepOwn() {
    if (!m_pOpen && !Open()) {
        return;
    }
    if (const dirent* pEntry = m_pOpen->Next()) {
        m_bProgress = RemoveEntry(pEntry->d_name) || m_bProgress;
        return;
    }
    // A folder that changes while it is read may have more to show in another pass; the next
    // opening tells. What is left when nothing could be removed stays for the next agent.
    m_pOpen.reset();
    if (!m_bProgress) {
        ++m_qwNext;
    }
}

} // namespace agent
