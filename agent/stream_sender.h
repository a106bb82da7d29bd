// The device's end of a stream to the host: data packages given one at a time, with a wait for the
// host's DAK_SUCCESS after every fiftieth and after the final one.
//
// On DAK_RETRANSMIT the host drops as many packages as it has accepted since the stream began and
// takes the next one. So the stream is given again from its first package, byte for byte, and the
// window ends that the host has confirmed are passed without a wait.
#pragma once

#include <memory>
#include <vector>

#include "agent/exchange.h"

namespace agent {

enum class EWork { MORE, DONE, FAILED };

// Gives the bytes of a stream, the same in every pass.
class CStreamSource {
  public:
    CStreamSource() = default;
    virtual ~CStreamSource() = default;
    CStreamSource(const CStreamSource&) = delete;
    CStreamSource& operator=(const CStreamSource&) = delete;

    // One bounded slice of the work that must be done before the length is known.
    virtual EWork Begin() = 0;

    // Bytes of the whole stream, at least one; fixed once Begin has said DONE.
    virtual std::uint64_t Length() const = 0;

    // Goes back to the first byte.
    virtual void Rewind() = 0;

    // Lays the next bytes into data and takes them off its front: all of it, or as many as a slice
    // has time for; never past Length. False when some cannot be had any more: there are zeroes in
    // their place, and the source stands behind them all the same.
    virtual bool Read(std::span<std::uint8_t>& data) = 0;

    // The stream is over, or cut short. The host has taken its first qwBytes bytes, as far as can
    // be known of a stream that was cut short.
    virtual void Ended(std::uint64_t /*qwBytes*/) {}
};

class CStreamSender final : public CExchange {
  public:
    CStreamSender(std::uint16_t codeFunc, std::unique_ptr<CStreamSource> pSource);
    ~CStreamSender() override;

    void Take(std::span<const std::uint8_t> package, COutbox& outbox,
              std::uint64_t qwNowMs) override;
    void Prepare(COutbox& outbox) override;
    void Tick(COutbox& outbox, std::uint64_t qwNowMs) override;
    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override;
    void PendingDropped() override;
    bool Ended() const override { return m_bEnded; }

  private:
    enum class EState { BEGINNING, GIVING, AWAITING, LEFT };

    void Advance(COutbox& outbox);
    void Fill(COutbox& outbox);
    void Leave(COutbox& outbox);
    void NoteTaken(const COutbox& outbox);

    const std::uint16_t m_codeFunc;
    std::unique_ptr<CStreamSource> m_pSource;
    EState m_eState = EState::BEGINNING;
    std::uint64_t m_qwPackages = 0;      // in the whole stream; 0 until the source has begun
    std::uint64_t m_qwGiven = 0;         // in this pass
    std::uint64_t m_qwTaken = 0;         // of those, out of the outbox
    std::uint64_t m_qwMostGiven = 0;     // in any pass
    std::uint64_t m_qwConfirmed = 0;     // by the host's DAK_SUCCESS
    std::vector<std::uint8_t> m_package; // the next one, in the making; else empty
    std::size_t m_dwFilled = 0;          // of it
    bool m_bHad = true;                  // all of that
    bool m_bEnded = false;
};

} // namespace agent
