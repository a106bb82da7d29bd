// Removes listed entries of a folder, one at a time and folders with all that they hold, so that
// whoever drives it decides how long it works. Links are removed and never followed, and other file
// systems mounted below are left alone.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/posix/directory.h"
#include "agent/posix/room.h"

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
    bool Empty() const { return m_spared.empty(); }

  private:
    std::set<FolderIdentity> m_spared;
    std::set<FolderIdentity> m_ways;
};

// An entry to be removed: its path in the folder, and what tells it from another one that has come
// under its name; 0 for whatever bears it.
struct CListedEntry {
    std::string strPath;
    std::uint64_t qwInode = 0;
};

class CRemoval {
  public:
    // Folders deeper than descriptors are spent on are lifted into the folder LIFTED of fdLift,
    // which is listed too; -1 for none. The quota gets back what is removed. What is passed in
    // outlives the object.
    CRemoval(int fdFolder, const std::vector<CListedEntry>& entries, CSpared spared, int fdLift,
             CRoom& room)
        : m_fdFolder(fdFolder), m_entries(entries), m_spared(std::move(spared)), m_fdLift(fdLift),
          m_room(room) {}

    static constexpr char LIFTED[] = "lifted";

    // Removes about one entry. False when nothing is left that could be removed.
    bool Step();

    // Behind the last step: nothing that is listed is left but what is spared.
    bool Complete() const { return m_nStuck == 0; }

    std::uint64_t Removed() const { return m_qwRemoved; }

  private:
    struct CFrame {
        std::unique_ptr<CDirectory> pDirectory;
        std::string strName;
        bool bStays;
    };

    int Parent() const; // of the last frame
    void BeginListed(const CListedEntry& entry);
    bool EndPass();
    void Leave();
    void Remove(int fdParent, const char* lpszName, std::uint64_t qwInode);
    void Enter(int fdParent, const char* lpszName, std::uint64_t qwInode);
    bool Lift(int fdParent, const char* lpszName);
    void Unlink(int fdParent, const char* lpszName, const struct stat& status);

    const int m_fdFolder;
    const std::vector<CListedEntry>& m_entries;
    std::size_t m_nNext = 0;      // of the entries
    CFd m_fdParent;               // of the entry in work
    std::string m_strParent;      // its path
    std::vector<CFrame> m_frames; // the folders in work, the listed one first
    CSpared m_spared;
    int m_fdLift;
    CRoom& m_room;
    std::uint64_t m_qwRemoved = 0;
    std::uint64_t m_qwRemovedBefore = 0; // before the pass in work
    std::uint64_t m_nStuck = 0;          // in the pass in work
    unsigned m_nLifted = 0;
};

} // namespace agent
