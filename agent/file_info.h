// What the host is told of a file or folder, alone or as an entry of a listing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "agent/device_folder.h"

namespace agent {

// Widths of the texts, in UTF-16 units with the terminator.
inline constexpr std::size_t FILE_TEXT_CHARS = 260;
inline constexpr std::size_t FILE_TYPE_CHARS = 80;

struct CFileFields {
    std::u16string strName; // all three without their terminator, and never wider than their field
    std::u16string strPath;
    std::u16string strType;
    std::uint32_t dwAttributes = 0;
    CFileTimes times;
    std::uint64_t ftLastAccess = 0;
    std::uint64_t qwSize = 0;
};

// Texts that are too long are cut. Without an info the entry has gone since it was seen: it keeps
// its texts, and attributes, times and size are 0.
CFileFields FieldsOf(const CDevicePath& path, const std::optional<CEntryInfo>& info);

} // namespace agent
