// What the device tells of one of its files or folders, as the command shows it.
#pragma once

#include "remote_files/file_info.h"

#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace cli {

struct FILEFACTS {
    std::string strName;
    std::string strPath;
    std::string strType; // "TXT file"
    DWORD dwAttributes = 0;
    std::uint64_t qwSize = 0;
    // In 100 ns since 1601, UTC; 0 when the device does not tell.
    std::uint64_t qwCreated = 0;
    std::uint64_t qwAccessed = 0;
    std::uint64_t qwWritten = 0;

    bool IsFolder() const;
    bool IsReadOnly() const;
    std::string ShownName() const; // a folder's with a slash behind it
};

// No text is read past its field, whatever the record holds.
FILEFACTS TakeFacts(const _tagFileInfo& info);

// "drha": a letter for each of folder, read-only, hidden and archive, "-" for what is not set.
std::string FormatAttributes(DWORD dwAttributes);

// The same in words: "folder, read-only"; "none".
std::string NameAttributes(DWORD dwAttributes);

// The time here, "2001-09-09 03:46"; with bFine "2001-09-09 03:46:40 +0200". "-" for 0.
std::string FormatLocalTime(std::uint64_t qwFileTime, bool bFine);

// For programs, "2001-09-09T01:46:40.1234567Z"; empty for 0.
std::string FormatUtcTime(std::uint64_t qwFileTime);

nlohmann::json FactsJson(const FILEFACTS& facts);

} // namespace cli
