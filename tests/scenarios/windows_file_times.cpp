#include "tests/scenarios/file_times.h"

#include "platform/types.h"

namespace scenario {

static std::uint64_t Ticks(const FILETIME& time) {
    return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

std::uint64_t WriteTimeOf(const std::filesystem::path& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    return Ticks(data.ftLastWriteTime);
}

// Wine takes a creation time and does not keep it.
bool KeepsCreationTimes(const std::filesystem::path& folder) {
    const FILETIME set = {1, 30'000'000};
    FILETIME kept{};
    const HANDLE hFolder =
        ::CreateFileW(folder.c_str(), FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    ::SetFileTime(hFolder, &set, nullptr, nullptr);
    ::GetFileTime(hFolder, &kept, nullptr, nullptr);
    ::CloseHandle(hFolder);
    return Ticks(kept) == Ticks(set);
}

} // namespace scenario
