// An empty folder of the host for one test, gone with the object.
#pragma once

#include "cli/host_names.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

class CTempFolder {
  public:
    CTempFolder() {
        std::random_device random;
        do {
            m_path =
                std::filesystem::temp_directory_path() / ("dak-test-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path));
    }
    ~CTempFolder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    std::string Path() const { return cli::PathText(m_path); }
    std::string Path(const std::string& strBelow) const {
        return cli::PathText((m_path / cli::ToPath(strBelow)).make_preferred());
    }

    // Makes a file and the folders above it.
    void Write(const std::string& strBelow, const std::string& strBytes) const {
        const std::filesystem::path path = m_path / cli::ToPath(strBelow);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << strBytes;
    }

  private:
    std::filesystem::path m_path;
};
