// The bytes that the agent lets the device's files grow to.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "agent/device_folder.h"

namespace agent {

class CQuota {
  public:
    void Set(std::uint64_t qwLimit, std::uint64_t qwUsed) {
        m_qwLimit = qwLimit;
        m_qwUsed = qwUsed;
    }

    bool HasRoom(std::uint64_t qwBytes) const {
        return !m_qwLimit || (m_qwUsed <= *m_qwLimit && qwBytes <= *m_qwLimit - m_qwUsed);
    }

    // What the quota leaves of the space of a file system.
    CSpace Bound(const CSpace& space) const {
        if (!m_qwLimit) {
            return space;
        }
        return {std::min(space.qwTotal, *m_qwLimit),
                std::min(space.qwFree, *m_qwLimit - std::min(m_qwUsed, *m_qwLimit))};
    }

    void Add(std::uint64_t qwBytes) { m_qwUsed += qwBytes; }

    // Never below nothing: files that others made or removed are not in the count.
    void Remove(std::uint64_t qwBytes) { m_qwUsed -= std::min(m_qwUsed, qwBytes); }

  private:
    std::optional<std::uint64_t> m_qwLimit;
    std::uint64_t m_qwUsed = 0;
};

} // namespace agent
