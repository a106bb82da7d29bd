// An exchange whose work is done behind the acknowledgement, whether or not the host comes for a
// response.
#pragma once

#include "agent/exchange.h"

namespace agent {

class CPromptExchange : public CExchange {
  public:
    void Take(std::span<const std::uint8_t>, COutbox&, std::uint64_t) final {}

    void Prepare(COutbox& outbox) final {
        DoWork();
        Respond(outbox);
    }

    void Tick(COutbox&, std::uint64_t) final { DoWork(); }

    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const final {
        return m_bWorked ? std::nullopt : std::optional(qwNowMs);
    }

  protected:
    // Called once.
    virtual void Work() = 0;

    // The work is done and the host asks.
    virtual void Respond(COutbox& outbox) = 0;

  private:
    void DoWork() {
        if (!m_bWorked) {
            m_bWorked = true;
            Work();
        }
    }

    bool m_bWorked = false;
};

} // namespace agent
