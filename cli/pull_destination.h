// The folder of this computer that a pull goes to.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace cli {

// Folders made for a pull. Those that nothing has come into are taken away again.
class CMadeFolders {
  public:
    CMadeFolders() = default;
    ~CMadeFolders();
    CMadeFolders(const CMadeFolders&) = delete;
    CMadeFolders& operator=(const CMadeFolders&) = delete;

    // Makes the folder and those above it.
    std::error_code Make(const std::filesystem::path& folder);

  private:
    std::vector<std::filesystem::path> m_made;
};

// Why a folder cannot be the destination of a copy, or null.
const char* DestinationFault(const std::string& strDest);

// A folder as the library takes it. A root keeps its separator, and a drive alone stands for its
// current folder.
std::string TrimDestination(std::string strDest);

} // namespace cli
