// The folder of a pull's own, inside its destination. What comes lands in it and is then moved into
// place file by file, so that a device can add and replace nothing that was not asked for.
#pragma once

#include "cli/host_files.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace cli {

// A file in it.
struct LANDED {
    std::string strName; // below the folder, with backslashes between the components
    std::uint64_t qwSize = 0;
};

class CPullFolder {
  public:
    // Nothing is made yet.
    explicit CPullFolder(std::filesystem::path dest) : m_dest(std::move(dest)) {}

    // Takes the folder away with what is left in it.
    ~CPullFolder();
    CPullFolder(const CPullFolder&) = delete;
    CPullFolder& operator=(const CPullFolder&) = delete;

    // Takes away the folders of pulls into the same destination that are no more. A folder that is
    // not certainly such a one stays, and so do one that is in use and whatever a pull does not put
    // there.
    void ClearDead() const;

    // Makes the folder, new and empty.
    std::error_code Make();

    // What the library is given as the destination, UTF-8.
    const std::string& LibraryPath() const { return m_pShort->Text(); }

    // The files that are there, sorted by name. A file may still be growing.
    std::vector<LANDED> Look() const;

    // Moves a file to the name in the destination, with backslashes as well, in one step; the
    // folders on the way are made. Empty when it is there, else why it is not.
    std::string Place(const std::string& strName, const std::string& strTarget) const;

    // Takes away what is in it.
    void Empty() const;

    // The library still writes into it: its path there goes on leading nowhere else.
    void KeepPath() { static_cast<void>(m_pShort.release()); }

  private:
    std::filesystem::path Landing() const;
    static std::error_code CopyOver(const std::filesystem::path& from,
                                    const std::filesystem::path& to);

    const std::filesystem::path m_dest;
    std::filesystem::path m_folder; // empty: not made
    std::unique_ptr<CHeldFile> m_pHeld;
    std::unique_ptr<CShortPath> m_pShort;
};

// The longest path below the library's destination folder that a copy can give a file.
std::size_t MostNameBytes(const std::string& strLibraryPath);

// A name with backslashes as a path of this computer.
std::filesystem::path BelowPath(const std::string& strName);

} // namespace cli
