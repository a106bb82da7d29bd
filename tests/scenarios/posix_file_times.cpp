#include "tests/scenarios/file_times.h"

#include <sys/stat.h>
#include <sys/xattr.h>

namespace scenario {

std::uint64_t WriteTimeOf(const std::filesystem::path& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return 116'444'736'000'000'000ull +
           static_cast<std::uint64_t>(status.st_mtim.tv_sec) * 10'000'000 +
           static_cast<std::uint64_t>(status.st_mtim.tv_nsec) / 100;
}

bool KeepsCreationTimes(const std::filesystem::path& folder) {
    return ::setxattr(folder.c_str(), "user.dak.probe", "1", 1, 0) == 0;
}

} // namespace scenario
