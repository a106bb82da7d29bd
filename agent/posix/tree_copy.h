// Copies a file, or a folder with all that it holds, to a name of its own, in slices.
//
// Permissions and last-write times go along, links go as links, reserved names stay behind. What
// is neither file, folder nor link, and a file that is written while it is copied, end the copy.
// Where the source is to go behind the copy, creation times go along too, and folders whose entries
// change meanwhile or on which something is mounted, which could not go, end the copy as well; so
// do reserved names, which would go without having been copied.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/posix/directory.h"
#include "agent/quota.h"

namespace agent {

// Whether what is the same file or folder has not been written in between.
bool SameContent(const struct stat& a, const struct stat& b);

class CTreeCopy {
  public:
    // fdSource is open for reading. The copy becomes strName in fdFolder, which must be free.
    // bMove: the source is to go. fdFolder and quota outlive the object.
    CTreeCopy(CFd fdSource, const struct stat& source, int fdFolder, std::string strName,
              bool bMove, CQuota& quota)
        : m_fdSource(std::move(fdSource)), m_bFolder(S_ISDIR(source.st_mode)), m_fdFolder(fdFolder),
          m_strName(std::move(strName)), m_bMove(bMove), m_quota(quota) {}

    // Gives up the work, and keeps nothing open.
    void Stop() {
        m_file.reset();
        m_levels.clear();
    }

    bool IsFolder() const { return m_bFolder; }

    // Goes on for a slice. Nothing when there is more to do; what stands under the name when it
    // failed is the caller's to remove.
    std::optional<EResult> Step(CWorkSlice slice);

  private:
    struct CFileInWork {
        CFd fdSource;
        CFd fdTarget;
        struct stat source;
        std::uint64_t qwLeft;
    };
    struct CLevel {
        CDirectory source;
        CFd fdTarget;
        struct stat status;
    };

    EResult BeginFile(CFd fdSource, int fdFolder, const std::string& strName);
    EResult BeginFolder(CFd fdSource, int fdFolder, const std::string& strName);
    EResult CopyEntry();
    EResult CopyLink(const char* lpszName);
    EResult CopyBytes();
    EResult FinishFile();
    EResult FinishFolder();
    void Dress(int fdTarget, int fdSource, const struct stat& source) const;

    CFd m_fdSource; // until the work begins
    const bool m_bFolder;
    const int m_fdFolder;
    const std::string m_strName;
    const bool m_bMove;
    CQuota& m_quota;
    std::vector<std::unique_ptr<CLevel>> m_levels;
    std::optional<CFileInWork> m_file;
    std::vector<std::uint8_t> m_buffer;
};

} // namespace agent
