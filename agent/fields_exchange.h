// A command whose response has fields behind its result.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "agent/exchange.h"
#include "link/wire.h"

namespace agent {

using CFieldBytes = std::vector<std::uint8_t>;

inline void AppendU32(CFieldBytes& fields, std::uint32_t dwValue) {
    fields.resize(fields.size() + 4);
    DakPutU32(fields.data() + fields.size() - 4, dwValue);
}

// The work gives the result and lays the fields, when the host asks for the response; or nothing
// when it needs another call a little later.
class CFieldsExchange final : public CExchange {
  public:
    using Work = std::function<std::optional<std::int32_t>(CFieldBytes& fields)>;

    CFieldsExchange(std::uint16_t codeFunc, Work work)
        : m_codeFunc(codeFunc), m_work(std::move(work)) {}

    void Take(std::span<const std::uint8_t>, COutbox&, std::uint64_t) override {}

    void Prepare(COutbox& outbox) override {
        CFieldBytes fields;
        const std::optional<std::int32_t> nResult = m_work(fields);
        m_bGoesOn = !nResult;
        if (m_bGoesOn) {
            return;
        }
        std::vector<std::uint8_t> package(DAK_DATA_OFFSET);
        package.insert(package.end(), fields.begin(), fields.end());
        DakPutHeader(package.data(), DAK_LAST_REPLY,
                     static_cast<std::uint32_t>(package.size() - DAK_HEADER_SIZE));
        DakPutU16(package.data() + DAK_OFFSET_CODE, m_codeFunc);
        DakPutU32(package.data() + DAK_OFFSET_RESULT, static_cast<std::uint32_t>(*nResult));
        outbox.Put(std::move(package));
        m_bEnded = true;
    }

    void Tick(COutbox& outbox, std::uint64_t) override {
        if (m_bGoesOn) {
            Prepare(outbox);
        }
    }

    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override {
        return m_bGoesOn ? std::optional(qwNowMs + 1) : std::nullopt;
    }

    bool Ended() const override { return m_bEnded; }

  private:
    std::uint16_t m_codeFunc;
    Work m_work;
    bool m_bGoesOn = false;
    bool m_bEnded = false;
};

} // namespace agent
