// Reads the entries of a folder, for the agent's POSIX half.
#pragma once

#include <cstring>

#include <dirent.h>

#include "agent/posix/system_file.h"

namespace agent {

class CDirectory {
  public:
    explicit CDirectory(CFd fd) : m_pDir(fd ? ::fdopendir(fd.Get()) : nullptr) {
        if (m_pDir) {
            fd.Release();
        }
    }
    ~CDirectory() {
        if (m_pDir) {
            ::closedir(m_pDir);
        }
    }
    CDirectory(const CDirectory&) = delete;
    CDirectory& operator=(const CDirectory&) = delete;

    bool Open() const { return m_pDir != nullptr; }
    int Fd() const { return ::dirfd(m_pDir); }

    // Null at the end.
    const dirent* Next() {
        while (const dirent* pEntry = ::readdir(m_pDir)) {
            if (std::strcmp(pEntry->d_name, ".") != 0 && std::strcmp(pEntry->d_name, "..") != 0) {
                return pEntry;
            }
        }
        return nullptr;
    }

    void Rewind() { ::rewinddir(m_pDir); }

  private:
    DIR* m_pDir;
};

} // namespace agent
