#include "cli/host_names.h"

#include <climits>
#include <system_error>

namespace cli {

std::filesystem::path ToPath(const std::string& strText) {
    return strText;
}

std::string PathText(const std::filesystem::path& path) {
    return path.native();
}

bool IsHostSeparator(char ch) {
    return ch == '/';
}

std::optional<std::string> ToLibraryText(const std::string& strText) {
    return strText;
}

std::string FromLibraryText(const char* lpszText) {
    return lpszText;
}

bool IsLink(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_symlink(std::filesystem::symlink_status(path, error));
}

std::vector<std::string> ExpandWord(const std::string& strWord) {
    return {strWord};
}

std::string NameKey(const std::string& strName) {
    return strName;
}

const char* NameFault(const std::string& strName) {
    return strName.size() > NAME_MAX ? "no file here can have a name of more than 255 bytes"
                                     : nullptr;
}

} // namespace cli
