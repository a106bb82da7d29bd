// Progress of a copy: a bar on a terminal, a line for each file elsewhere.
#pragma once

#include "cli/report.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace cli {

// What a bar shows. qwDone and qwTotal are of whatever the bar measures, the whole copy or a file.
struct PROGRESS {
    std::string strFile;
    std::uint64_t qwDone = 0;
    std::uint64_t qwTotal = 0;
    std::uint64_t qwBytesPerSecond = 0; // 0: not known yet
    std::uint64_t qwIdleSeconds = 0;    // since a byte moved last
};

// The bar as one line of at most nColumns columns.
std::string FormatProgress(const PROGRESS& progress, int nColumns);

// The rate of a copy over its last seconds: the link moves bytes in bursts of a window.
class CRateMeter {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Bytes moved in all so far, never falling.
    void Add(TimePoint now, std::uint64_t qwBytes);
    std::uint64_t BytesPerSecond() const;
    std::uint64_t IdleSeconds(TimePoint now) const;

  private:
    struct SAMPLE {
        TimePoint time;
        std::uint64_t qwBytes;
    };
    std::deque<SAMPLE> m_samples;
    TimePoint m_moved{}; // when the bytes grew last
};

class CProgressDisplay {
  public:
    explicit CProgressDisplay(const CONTEXT& context);
    ~CProgressDisplay() { Clear(); }
    CProgressDisplay(const CProgressDisplay&) = delete;
    CProgressDisplay& operator=(const CProgressDisplay&) = delete;

    // A file begins.
    void BeginFile(const std::string& strFrom, const std::string& strTo);

    // Where the copy stands; qwMoved is what the rate is reckoned from. Draws at most ten times a
    // second.
    void Show(PROGRESS progress, std::uint64_t qwMoved);

    // Something else that is counted, without a rate.
    void ShowCount(const std::string& strWhat, std::size_t nDone, std::size_t nTotal);

    // Takes the bar off the terminal, so that other text can be written.
    void Clear();

  private:
    void Draw(const PROGRESS& progress);

    enum class Mode { None, Lines, Bar };

    const CONTEXT& m_context;
    Mode m_eMode;
    CRateMeter m_rate;
    CRateMeter::TimePoint m_drawn{};
    int m_nColumnsDrawn = 0;
};

} // namespace cli
