// An empty folder of the system for one test, gone with the object. Names below it are UTF-8, with
// forward slashes.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>

namespace test {

inline std::filesystem::path PathOf(const std::string& strName) {
    return std::filesystem::path(std::u8string(strName.begin(), strName.end()));
}

inline std::string NameOf(const std::filesystem::path& path) {
    const std::u8string strName = path.generic_u8string();
    return std::string(strName.begin(), strName.end());
}

// The files of a folder and of those below, by their names in it, with their bytes.
using TREE = std::map<std::string, std::string>;

inline std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline TREE ReadTree(const std::filesystem::path& folder) {
    TREE tree;
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, error)) {
        if (entry.is_regular_file(error)) {
            tree[NameOf(entry.path().lexically_relative(folder))] = ReadBytes(entry.path());
        }
    }
    return tree;
}

class CTempFolder {
  public:
    explicit CTempFolder(
        const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::random_device random;
        do {
            // Short: the path of a Unix socket must fit below it.
            m_path = parent / ("dak" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path));
    }
    ~CTempFolder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    const std::filesystem::path& Folder() const { return m_path; }
    std::filesystem::path operator/(const std::string& strBelow) const {
        return m_path / PathOf(strBelow);
    }
    std::string Path(const std::string& strBelow = {}) const {
        return NameOf(strBelow.empty() ? m_path : *this / strBelow);
    }

    // Makes a file and the folders above it.
    void Write(const std::string& strBelow, const std::string& strBytes) const {
        const std::filesystem::path path = *this / strBelow;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << strBytes;
    }
    void Write(const std::string& strBelow, const TREE& tree) const {
        for (const auto& [strName, strBytes] : tree) {
            Write(strBelow + "/" + strName, strBytes);
        }
    }

  private:
    std::filesystem::path m_path;
};

} // namespace test
