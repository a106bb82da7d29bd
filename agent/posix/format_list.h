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
    // Takes in what lies in fdFolder, and in the folders in it that are on the way to what is
    // spared. What is not reached by tEnd, or goes beyond 64 MiB, is left out, and the list is not
    // whole.
    void TakeIn(int fdFolder, const CSpared& spared, std::chrono::steady_clock::time_point tEnd);

    // An entry by its path in the folder, whatever lies there.
    void Add(std::string strPath) { m_entries.push_back({std::move(strPath), 0}); }

    // False with errno set.
    bool Store(int fdAt, const std::string& strName) const;

    // False when there is none. One that was cut short is not whole.
    bool Load(int fdAt, const std::string& strName);

    bool Whole() const { return m_bWhole; }
    const std::vector<CListedEntry>& Entries() const { return m_entries; }

    // Whether nothing bears a listed name, and none was left out.
    bool AllGone(int fdFolder) const;

  private:
    void TakeInFolder(int fdFolder, const std::string& strFolder, const CSpared& spared,
                      std::chrono::steady_clock::time_point tEnd);

    std::vector<CListedEntry> m_entries;
    std::size_t m_dwBytes = 0;
    bool m_bWhole = true;
};

} // namespace agent
