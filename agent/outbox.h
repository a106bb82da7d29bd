// What lies ready for the host: whole packages in their order. The host may take one in parts; a
// part never runs into the next package.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "link/wire.h"

namespace agent {

class COutbox {
  public:
    bool Empty() const { return m_packages.empty(); }

    void Clear() {
        m_packages.clear();
        m_dwTaken = 0;
    }

    void Put(std::vector<std::uint8_t> package) { m_packages.push_back(std::move(package)); }

    void PutControl(std::uint32_t wCommand) {
        std::vector<std::uint8_t> package(DAK_HEADER_SIZE);
        DakPutHeader(package.data(), wCommand, 0);
        Put(std::move(package));
    }

    // A response of 14 bytes: result and no further field.
    void PutResult(std::uint16_t codeFunc, std::int32_t nResult) {
        std::vector<std::uint8_t> package(DAK_DATA_OFFSET);
        DakPutHeader(package.data(), DAK_LAST_REPLY, DAK_DATA_OFFSET - DAK_HEADER_SIZE);
        DakPutU16(package.data() + DAK_OFFSET_CODE, codeFunc);
        DakPutU32(package.data() + DAK_OFFSET_RESULT, static_cast<std::uint32_t>(nResult));
        Put(std::move(package));
    }

    // A response of 18 bytes: result and one further field.
    void PutResult(std::uint16_t codeFunc, std::int32_t nResult, std::uint32_t dwField) {
        PutResult(codeFunc, nResult);
        std::vector<std::uint8_t>& package = m_packages.back();
        package.resize(DAK_RESPONSE_FIELDS + 4);
        DakPutHeader(package.data(), DAK_LAST_REPLY, DAK_RESPONSE_FIELDS + 4 - DAK_HEADER_SIZE);
        DakPutU32(package.data() + DAK_RESPONSE_FIELDS, dwField);
    }

    // The rest of the first package.
    std::span<const std::uint8_t> Next() const {
        return m_packages.empty() ? std::span<const std::uint8_t>()
                                  : std::span(m_packages.front()).subspan(m_dwTaken);
    }

    // At most the rest of the first package.
    std::size_t Take(std::span<std::uint8_t> buffer) {
        if (m_packages.empty()) {
            return 0;
        }
        const std::vector<std::uint8_t>& package = m_packages.front();
        const std::size_t dwCount = std::min(buffer.size(), package.size() - m_dwTaken);
        std::copy_n(package.data() + m_dwTaken, dwCount, buffer.data());
        m_dwTaken += dwCount;
        if (m_dwTaken == package.size()) {
            m_packages.pop_front();
            m_dwTaken = 0;
        }
        return dwCount;
    }

  private:
    std::deque<std::vector<std::uint8_t>> m_packages;
    std::size_t m_dwTaken = 0; // of the first package
};

} // namespace agent
