// How long the agent works before it looks at the host again. Whoever goes through entries or bytes
// says what each step came to, leaves off where the slice is over, and goes on when it is called
// again: a handshake thus waits for one slice at most, whatever is in work.
//
// A slice ends by the clock, and by its steps as well. Without a clock, in virtual time, the same
// work falls into the same slices every time.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

namespace agent {

class CWorkSlice {
  public:
    using Clock = std::function<std::uint64_t()>; // milliseconds from any fixed start

    // Entries looked at or removed, or KiB copied; far more than a disk does in the time, and so
    // much that no rest between two slices counts.
    static constexpr unsigned MOST_STEPS = 1024;
    static constexpr std::uint64_t MOST_MS = 10;

    CWorkSlice() = default;
    explicit CWorkSlice(Clock lpClock) : m_lpClock(std::move(lpClock)) {}

    void Begin(std::uint64_t qwMostMs = MOST_MS) {
        m_qwEndMs = m_lpClock ? m_lpClock() + qwMostMs : 0;
        m_nSteps = 0;
    }
    // Further steps in the same time.
    void GoOn() { m_nSteps = 0; }

    void Spend(unsigned nSteps = 1) { m_nSteps += nSteps; }

    bool OutOfTime() const { return m_lpClock && m_lpClock() >= m_qwEndMs; }
    bool Over() const { return m_nSteps >= MOST_STEPS || OutOfTime(); }

  private:
    Clock m_lpClock;
    std::uint64_t m_qwEndMs = 0;
    unsigned m_nSteps = 0;
};

} // namespace agent
