#include "cli/file_stamp.h"

#include <sys/stat.h>

namespace cli {

std::optional<FILESTAMP> GetFileStamp(const std::string& strPath) {
    struct stat status = {};
    if (lstat(strPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FILESTAMP{status.st_ino, status.st_ctim.tv_sec * 1'000'000'000 + status.st_ctim.tv_nsec,
                     static_cast<std::uint64_t>(status.st_size)};
}

} // namespace cli
