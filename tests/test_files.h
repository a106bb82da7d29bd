// Files of the system that tests work with. Names are UTF-8, with forward slashes.
#pragma once

#include <filesystem>
#include <random>
#include <string>

inline std::filesystem::path PathOf(const std::string& strName) {
    return std::filesystem::path(std::u8string(strName.begin(), strName.end()));
}

inline std::string NameOf(const std::filesystem::path& path) {
    const std::u8string strName = path.generic_u8string();
    return std::string(strName.begin(), strName.end());
}

// A folder for one test.
inline std::filesystem::path MakeTemporaryFolder(const std::string& strPrefix) {
    std::random_device random;
    for (;;) {
        const std::filesystem::path path =
            std::filesystem::temp_directory_path() / (strPrefix + std::to_string(random()));
        if (std::filesystem::create_directory(path)) {
            return path;
        }
    }
}
