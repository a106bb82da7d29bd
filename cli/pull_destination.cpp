#include "cli/pull_destination.h"

#include "cli/host_names.h"
#include "cli/text.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace cli {

std::error_code CMadeFolders::Make(const fs::path& folder) {
    std::vector<fs::path> missing;
    std::error_code error;
    // What has nothing above it, such as a drive that is not there, cannot be made.
    for (fs::path path = folder; path.has_relative_path() && !fs::exists(path, error);
         path = path.parent_path()) {
        missing.push_back(path);
    }
    error.clear();
    for (auto it = missing.rbegin(); it != missing.rend() && !error; ++it) {
        if (fs::create_directory(*it, error)) {
            m_made.push_back(*it);
        }
    }
    if (!error && !fs::is_directory(folder, error) && !error) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    return error;
}

CMadeFolders::~CMadeFolders() {
    // Deepest first; a folder that is not empty stays, and so do those above it.
    std::error_code error;
    for (auto it = m_made.rbegin(); it != m_made.rend(); ++it) {
        fs::remove(*it, error);
    }
}

const char* DestinationFault(const std::string& strDest) {
    const bool bBackslash = !IsHostSeparator('\\') && strDest.find('\\') != std::string::npos;
    return strDest.empty()        ? "DEST is empty: give a folder of this computer"
           : !Utf8ToWide(strDest) ? "DEST is not valid UTF-8: a copy needs a folder whose path is"
           : !ToLibraryText(strDest) ? "DEST has characters that this system's code page lacks"
           : bBackslash ? "DEST contains a backslash, which separates folders in a copy"
                        : nullptr;
}

std::string TrimDestination(std::string strDest) {
    const fs::path path = ToPath(strDest);
    const std::size_t nRoot = std::max<std::size_t>(PathText(path.root_path()).size(), 1);
    while (strDest.size() > nRoot && IsHostSeparator(strDest.back())) {
        strDest.pop_back();
    }
    return path.has_root_name() && path.root_name() == path ? strDest + "." : strDest;
}

} // namespace cli
