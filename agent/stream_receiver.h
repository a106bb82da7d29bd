// The device's end of a stream from the host: windows of data packages, each answered when it is
// whole.
//
// The first window is one package, every further one fifty, and the final package ends its window
// wherever it stands. A window is kept until the host waits for its verdict; then it is handed to
// the sink whole and confirmed, or asked for again. Nothing of a window that is not confirmed
// reaches the sink, and no more than one window is in memory.
//
// Packages have no sequence number, so the count of them is all that ties a package to its place.
// The host reads nothing from the pipe but verdicts; a package that arrives while a
// DAK_RETRANSMIT is still lying there therefore says that the host had not come to the end of its
// window. The verdict is then taken back and the count goes on, so that a cut or damaged package
// can never shift what follows it.
//
// A verdict can be lost on its way. The host then waits for it, is asked by silence to send again,
// and repeats a window that was confirmed: it is known by its first package, and confirmed once
// more without reaching the sink a second time.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "agent/exchange.h"

namespace agent {

// Takes the bytes of a stream, window by window.
class CStreamSink {
  public:
    CStreamSink() = default;
    virtual ~CStreamSink() = default; // gives up what is not complete
    CStreamSink(const CStreamSink&) = delete;
    CStreamSink& operator=(const CStreamSink&) = delete;

    // The data of a window that is to be confirmed, or what has not been taken of it yet. May be
    // cut anywhere. How much was taken: all, or as much as a slice has time for.
    virtual std::size_t Apply(std::span<const std::uint8_t> data) = 0;

    // The stream is complete: its result word.
    virtual std::int32_t End() = 0;

    // The stream ends without its rest, or its order is lost: what is not complete is given up,
    // and the result word is what it was, or nResult when nothing had failed yet.
    virtual std::int32_t GiveUp(std::int32_t nResult) = 0;
};

class CStreamReceiver final : public CExchange {
  public:
    // The host's silence in the middle of a window after which DAK_RETRANSMIT is laid ready. A host
    // that is only slow never sees it; one that waits for a verdict while the agent waits for a
    // package that was lost is helped out.
    static constexpr std::uint64_t SILENCE_MS = 5000;

    CStreamReceiver(std::uint16_t codeFunc, std::unique_ptr<CStreamSink> pSink);

    void Take(std::span<const std::uint8_t> package, COutbox& outbox,
              std::uint64_t qwNowMs) override;
    void Prepare(COutbox& outbox) override;
    void Tick(COutbox& outbox, std::uint64_t qwNowMs) override;
    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override;
    bool Ended() const override { return m_bEnded; }

  private:
    bool IsGood(std::span<const std::uint8_t> package) const;
    void Keep(std::span<const std::uint8_t> package);
    void Advance(COutbox& outbox);
    void Confirm(COutbox& outbox);
    void NoteTaken(const COutbox& outbox);
    void NoteFirst(std::span<const std::uint8_t> package);
    void AskAgain(COutbox& outbox);
    void EndAborted(COutbox& outbox);

    const std::uint16_t m_codeFunc;
    std::unique_ptr<CStreamSink> m_pSink;
    std::vector<std::uint8_t> m_window; // data of the window so far; empty once it is bad
    std::uint32_t m_nHeld = 0;          // packages of the window, bad ones and aborts included
    std::uint32_t m_nCapacity = 1;      // packages at which the window ends at the latest
    std::uint32_t m_nExpected = 0;      // packages of a window that is sent again; 0: not known
    bool m_bBad = false;                // a package of the window was bad
    bool m_bLast = false;               // the window ended with the final package
    bool m_bWhole = false;              // whole and good: to be applied when the host asks
    std::size_t m_dwApplied = 0;        // of that
    bool m_bAskedAgain = false;         // DAK_RETRANSMIT lies in the outbox, or was taken just now
    bool m_bAborted = false;
    bool m_bEnded = false;

    using Head = std::array<std::uint8_t, DAK_DATA_OFFSET>;
    Head m_first{};                 // of the window's first package
    Head m_confirmed{};             // of the first package of the last window confirmed
    std::uint32_t m_nConfirmed = 0; // packages of that window
    bool m_bMayRepeat = false;      // the host, asked by silence, may repeat that window
    bool m_bRepeat = false;         // it does

    std::uint64_t m_qwQuietSinceMs = 0;
    bool m_bQuietKnown = false;
};

} // namespace agent
