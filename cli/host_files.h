// What a pull asks of the system about files and folders of this computer. One file a system:
// host_files_posix.cpp, host_files_windows.cpp.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

namespace cli {

// Holds a file, which every other process can tell as long as this one lives.
class CHeldFile {
  public:
    enum class How { New, Existing };

    // Held() tells whether it is held: not when it cannot be made or opened, is a link, is held by
    // another process, or this file system does not tell the held from the others.
    CHeldFile(const std::filesystem::path& path, How eHow);
    ~CHeldFile();
    CHeldFile(const CHeldFile&) = delete;
    CHeldFile& operator=(const CHeldFile&) = delete;

    bool Held() const { return m_nHandle != NONE; }

    // Whether the path still leads to the file.
    bool IsAt(const std::filesystem::path& path) const;

  private:
    static constexpr std::intptr_t NONE = -1;
    std::intptr_t m_nHandle = NONE;
};

// A folder under the shortest path that leads there as long as the object lives: the paths that
// the library takes are short.
class CShortPath {
  public:
    explicit CShortPath(const std::filesystem::path& folder);
    ~CShortPath();
    CShortPath(const CShortPath&) = delete;
    CShortPath& operator=(const CShortPath&) = delete;

    const std::string& Text() const { return m_strText; } // UTF-8

  private:
    std::string m_strText;
    int m_nFolder = -1;
};

// Makes a folder that only this user can enter, where the system has such.
std::error_code MakeOwnFolder(const std::filesystem::path& path);

// Whether it is a folder of this user's, and no link.
bool IsOwnFolder(const std::filesystem::path& path);

// Gives a file the name of another one in one step, also of a read-only one, whose permissions it
// takes over; a link there is replaced and not followed. Somebody who just looks at the file, as a
// scanner does with every new one, is waited for. std::errc::cross_device_link: it lies on another
// file system than its new name.
std::error_code MoveOver(const std::filesystem::path& from, const std::filesystem::path& to);

} // namespace cli
