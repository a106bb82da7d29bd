// The device's files that are open by handle. A handle belongs to the device and to no host: it
// stays valid until it is closed or the agent ends, however many links come and go meanwhile.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "agent/device_folder.h"

namespace agent {

struct CFileHandle {
    std::unique_ptr<COpenFile> pFile;
    std::string strPath; // as it was opened, for the log
    std::uint64_t qwPosition = 0;
};

class COpenFiles {
  public:
    // dwNext is the first handle that is given out; those that follow count up from it, so that a
    // handle returns only when all 2^32 have been used.
    COpenFiles(std::size_t nMost, std::uint32_t dwNext) : m_nMost(nMost), m_dwNext(dwNext) {}

    bool HasRoom() const { return m_handles.size() < m_nMost; }

    // The new handle, neither 0 nor all ones. There must be room.
    std::uint32_t Add(CFileHandle file);

    // Null when no such handle is open. Valid until the handle is closed.
    CFileHandle* Find(std::uint32_t dwHandle);

    // Whatever the result, the handle is not open any more. Refused when it was not.
    EResult Close(std::uint32_t dwHandle);

  private:
    const std::size_t m_nMost;
    std::uint32_t m_dwNext;
    std::map<std::uint32_t, CFileHandle> m_handles;
};

} // namespace agent
