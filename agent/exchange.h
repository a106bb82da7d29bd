// An exchange is what a command opens and its last byte closes: a plain response, a stream from
// the host or a stream to the host. The core runs one at a time.
//
// Work on the device is done when the host asks for bytes (Prepare) or as time passes (Tick), not
// while a package is being taken in, so that no write of the host waits for a disk; and in slices
// (agent/work_slice.h), so that no handshake does.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "agent/outbox.h"

namespace agent {

class CExchange {
  public:
    CExchange() = default;
    // Gives up what is not complete: it is then as it was before the command.
    virtual ~CExchange() = default;
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    // One package from the host that is no handshake: any bytes, of any length.
    virtual void Take(std::span<const std::uint8_t> package, COutbox& outbox,
                      std::uint64_t qwNowMs) = 0;

    // The host asks and the outbox is empty: lay the next package into it if there is one.
    virtual void Prepare(COutbox& outbox) = 0;

    // Time has passed.
    virtual void Tick(COutbox&, std::uint64_t /*qwNowMs*/) {}

    // When the next Tick is wanted.
    virtual std::optional<std::uint64_t> DueMs(std::uint64_t /*qwNowMs*/) const { return {}; }

    // What lay in the outbox has been dropped by the pipe.
    virtual void PendingDropped() {}

    // The exchange needs nothing more; what it has laid into the outbox still goes out.
    virtual bool Ended() const = 0;
};

// A command with a 14-byte response: the work is done once, when the host asks for the response.
class CPlainExchange final : public CExchange {
  public:
    CPlainExchange(std::uint16_t codeFunc, std::function<std::int32_t()> work)
        : m_codeFunc(codeFunc), m_work(std::move(work)) {}

    void Take(std::span<const std::uint8_t>, COutbox&, std::uint64_t) override {}

    void Prepare(COutbox& outbox) override {
        outbox.PutResult(m_codeFunc, m_work());
        m_bEnded = true;
    }

    bool Ended() const override { return m_bEnded; }

  private:
    std::uint16_t m_codeFunc;
    std::function<std::int32_t()> m_work;
    bool m_bEnded = false;
};

} // namespace agent
