// What tells a file from another one that takes its name later, also one with the same bytes and
// times. Asked of the system: file_stamp_posix.cpp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cli {

struct FILESTAMP {
    std::uint64_t qwIdentity; // number of the file in its file system
    std::int64_t qwChanged;   // when its record there was changed, in the system's units
    std::uint64_t qwSize;     // bytes
    friend bool operator==(const FILESTAMP&, const FILESTAMP&) = default;
};

// Of a regular file; nothing for anything else. A link is not followed.
std::optional<FILESTAMP> GetFileStamp(const std::string& strPath);

} // namespace cli
