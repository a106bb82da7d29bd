// What a format removes: the entries that lay in the folder when it was made, and no others. The
// list is written down ahead of the format, so that whoever goes on with the removal, this agent
// or one that starts behind it, leaves alone what has come since.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/posix/removal.h"

namespace agent {

// What formats themselves have in a folder: it is never listed.
inline constexpr char FORMAT_FOLDER[] = ".dak-format";
inline constexpr char FORMATTED_FOLDER[] = ".dak-formatted";

class CFormatList {
  public:
    // An entry by its path in the folder; without an inode, whatever lies there.
    void Add(std::string strPath, std::uint64_t qwInode = 0) {
        m_dwBytes += strPath.size() + sizeof(CListedEntry);
        m_entries.push_back({std::move(strPath), qwInode});
    }
    // Something is left out.
    void LeaveOut() { m_bWhole = false; }
    std::size_t Bytes() const { return m_dwBytes; } // in memory

    // False with errno set.
    bool Store(int fdAt, const std::string& strName) const;

    // False when there is none. One that was cut short is not whole.
    bool Load(int fdAt, const std::string& strName);

    bool Whole() const { return m_bWhole; }
    const std::vector<CListedEntry>& Entries() const { return m_entries; }

    // Whether nothing bears a listed name, and none was left out.
    bool AllGone(int fdFolder) const;

  private:
    std::vector<CListedEntry> m_entries;
    std::size_t m_dwBytes = 0;
    bool m_bWhole = true;
};

// Lists what lies in a folder, and in the folders in it that are on the way to what is spared.
class CFormatListing {
  public:
    // What is not reached by tEnd, or goes beyond 64 MiB, is left out.
    CFormatListing(int fdFolder, CSpared spared, std::chrono::steady_clock::time_point tEnd);

    // Goes on for a slice. False when the list is made.
    bool Step(CWorkSlice& slice);

    CFormatList list;

  private:
    struct CLevel {
        std::unique_ptr<CDirectory> pDirectory;
        std::string strFolder;
        bool bInodes;
    };
    void Enter(int fdFolder, const std::string& strFolder);
    void TakeEntry();

    const CSpared m_spared;
    const std::chrono::steady_clock::time_point m_tEnd;
    std::vector<CLevel> m_levels; // as deep as what is spared
    std::size_t m_nTaken = 0;
};

} // namespace agent
