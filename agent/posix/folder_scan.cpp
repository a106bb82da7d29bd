#include "agent/posix/folder_scan.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>

#include "agent/posix/directory.h"

namespace agent {

namespace {

class CPosixScan final : public CFolderScan {
  public:
    CPosixScan(CFd fdFolder, CDevicePath folder, std::vector<std::string> first, OpenPath open)
        : m_folder(std::move(folder)), m_first(std::move(first)), m_open(std::move(open)),
          m_directory(std::move(fdFolder)) {}

    bool Open() const { return m_directory.Open(); }

    ENext Next(std::string& strName) override {
        if (m_nFirst < m_first.size()) {
            strName = m_first[m_nFirst++];
            return ENext::NAME;
        }
        errno = 0;
        const dirent* pEntry = m_directory.Next();
        if (!pEntry) {
            return errno == 0 ? ENext::END : ENext::FAILED;
        }
        strName = pEntry->d_name;
        const bool bHidden = std::find(m_first.begin(), m_first.end(), strName) != m_first.end();
        return !bHidden && IsNameForHost(strName) ? KindOf(*pEntry) : ENext::SKIPPED;
    }

    std::optional<bool> FoldsCase(const std::string& strName) override;

  private:
    // For the host are files and folders, and links to one that may be followed.
    ENext KindOf(const dirent& entry) const {
        if (entry.d_type == DT_REG || entry.d_type == DT_DIR) {
            return ENext::NAME;
        }
        if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) {
            return ENext::SKIPPED;
        }
        struct stat own {};
        struct stat status {};
        const CFd fd = m_open(m_folder.Entry(entry.d_name), O_PATH);
        if (!fd || ::fstat(fd.Get(), &status) != 0 ||
            ::fstatat(m_directory.Fd(), entry.d_name, &own, AT_SYMLINK_NOFOLLOW) != 0) {
            return ENext::SKIPPED;
        }
        return S_ISREG(status.st_mode)    ? ENext::NAME
               : !S_ISDIR(status.st_mode) ? ENext::SKIPPED
               : S_ISLNK(own.st_mode)     ? ENext::LINK
                                          : ENext::NAME;
    }

    const CDevicePath m_folder;
    const std::vector<std::string> m_first;
    std::size_t m_nFirst = 0;
    const OpenPath m_open;
    CDirectory m_directory;
};

// There is no question for it that every file system answers, so the entry is looked up with the
// letters of its name turned over.
std::optional<bool> CPosixScan::FoldsCase(const std::string& strName) {
    std::string strTurned = strName;
    for (char& chNext : strTurned) {
        const bool bLetter = (chNext >= 'a' && chNext <= 'z') || (chNext >= 'A' && chNext <= 'Z');
        chNext = bLetter ? static_cast<char>(chNext ^ 0x20) : chNext;
    }
    struct stat own {};
    struct stat turned {};
    if (strTurned == strName ||
        ::fstatat(m_directory.Fd(), strName.c_str(), &own, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return ::fstatat(m_directory.Fd(), strTurned.c_str(), &turned, AT_SYMLINK_NOFOLLOW) == 0 &&
           own.st_dev == turned.st_dev && own.st_ino == turned.st_ino;
}

} // namespace

std::unique_ptr<CFolderScan> MakeScan(CFd fdFolder, const CDevicePath& folder,
                                      std::vector<std::string> first, OpenPath open) {
    auto pScan = std::make_unique<CPosixScan>(std::move(fdFolder), folder, std::move(first),
                                              std::move(open));
    return pScan->Open() ? std::move(pScan) : nullptr;
}

} // namespace agent
