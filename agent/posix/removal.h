// Removes what a folder holds, one entry at a time, so that whoever drives it decides how long it
// works. Links are removed and never followed, and other file systems mounted below are left alone.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/posix/directory.h"
#include "agent/quota.h"

namespace agent {

// What makes a folder that folder, whatever it is called.
using FolderIdentity = std::pair<dev_t, ino_t>;

// Nothing for a descriptor that cannot be asked: two zeroes.
FolderIdentity IdentityOf(int fd);

// Folders that a removal spares. The folders on the way to them stay too, without what else they
// hold.
class CSpared {
  public:
    // fdSpared may lie anywhere; only what is below fdTop matters.
    void Add(int fdSpared, int fdTop);

    bool IsSpared(const FolderIdentity& identity) const { return m_spared.contains(identity); }
    bool IsOnTheWay(const FolderIdentity& identity) const { return m_ways.contains(identity); }

  private:
    std::set<FolderIdentity> m_spared;
    std::set<FolderIdentity> m_ways;
};

class CRemoval {
  public:
    // The folder itself stays, and so do journals of part files that lie in it. Folders deeper than
    // descriptors are spent on are lifted into fdLift, which lies in the folder; -1 for none. The
    // quota gets back what is removed.
    CRemoval(CFd fdFolder, CSpared spared, int fdLift, CQuota& quota);

    // Removes about one entry. False when nothing is left that could be removed.
    bool Step();

    // Behind the last step: nothing is left but what is spared.
    bool Complete() const { return m_nStuck == 0; }

    std::uint64_t Removed() const { return m_qwRemoved; }

  private:
    struct CFrame {
        std::unique_ptr<CDirectory> pDirectory;
        std::string strName;
        bool bStays;
    };

    bool Leave();
    void Enter(const char* lpszName);
    bool Lift(int fdParent, const char* lpszName);
    void RemoveEntry(const char* lpszName, const struct stat& status);

    std::vector<CFrame> m_frames; // the folder, and below it the folders in work
    CSpared m_spared;
    int m_fdLift;
    CQuota& m_quota;
    std::uint64_t m_qwRemoved = 0;
    std::uint64_t m_qwRemovedBefore = 0; // before the pass in work
    std::uint64_t m_nStuck = 0;          // in the pass in work
    unsigned m_nLifted = 0;
};

} // namespace agent
