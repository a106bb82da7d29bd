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
    std::uint64_t qwUsedMs = 0; // when it was found last
};

class COpenFiles {
  public:
    // dwNext is the first handle that is given out; those that follow count up from it, so that a
    // handle returns only when all 2^32 have been used.
    COpenFiles(std::size_t nMost, std::uint32_t dwNext) : m_nMost(nMost), m_dwNext(dwNext) {}

    // A handle that was not used for so long may have been forgotten by a host that is no more.
    static constexpr std::uint64_t FORGOTTEN_MS = 600'000;

    // As CAgentCore::SetTime.
    void SetTime(std::uint64_t qwNowMs) { m_qwNowMs = qwNowMs; }

    bool HasRoom() const { return m_handles.size() < m_nMost; }

    // The handle that has not been used for longest, if that is FORGOTTEN_MS or more; else 0.
    std::uint32_t Forgotten() const;

    // The new handle, neither 0 nor all ones. There must be room.
    std::uint32_t Add(CFileHandle file);

    // Null when no such handle is open. Valid until the handle is closed. The handle counts as
    // used.
    CFileHandle* Find(std::uint32_t dwHandle);

    // Whatever the result, the handle is not open any more. Refused when it was not.
    EResult Close(std::uint32_t dwHandle);

  private:
    const std::size_t m_nMost;
    std::uint32_t m_dwNext;
    std::uint64_t m_qwNowMs = 0;
    std::map<std::uint32_t, CFileHandle> m_handles;
};

} // namespace agent
