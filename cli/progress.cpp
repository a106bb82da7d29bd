#include "cli/progress.h"

#include "cli/console.h"
#include "cli/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace cli {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds DRAW_INTERVAL{100};
constexpr seconds RATE_SPAN{6};
// A window, its confirmation and the delays of a resend stay below it.
constexpr std::uint64_t IDLE_SHOWN_SECONDS = 5;
constexpr int BAR_COLUMNS = 20;
constexpr int NAME_COLUMNS = 12; // the name's share that the bar itself gives way to

std::string Blanks(int nColumns) {
    return std::string(static_cast<std::size_t>(std::max(0, nColumns)), ' ');
}

std::string FormatBar(int nPercent) {
    const int nFilled = nPercent * BAR_COLUMNS / 100;
    return " [" + std::string(static_cast<std::size_t>(nFilled), '#') +
           std::string(static_cast<std::size_t>(BAR_COLUMNS - nFilled), '-') + "]";
}

std::string FormatPace(const PROGRESS& progress) {
    if (progress.qwIdleSeconds >= IDLE_SHOWN_SECONDS) {
        return "  waiting for the device " + FormatDuration(progress.qwIdleSeconds);
    }
    if (progress.qwDone >= progress.qwTotal) {
        return "  finishing";
    }
    if (progress.qwBytesPerSecond == 0) {
        return "";
    }
    const std::uint64_t qwLeft = (progress.qwTotal - progress.qwDone) / progress.qwBytesPerSecond;
    return "  " + FormatBytes(progress.qwBytesPerSecond) + "/s  " + FormatDuration(qwLeft) +
           " left";
}

} // namespace

std::string FormatProgress(const PROGRESS& progress, int nColumns) {
    const bool bWhole = progress.qwDone >= progress.qwTotal;
    const int nPercent = bWhole ? 100
                                : static_cast<int>(static_cast<double>(progress.qwDone) /
                                                   static_cast<double>(progress.qwTotal) * 100);
    std::array<char, 16> szPercent{};
    std::snprintf(szPercent.data(), szPercent.size(), " %3d%%", nPercent);
    std::string strLine = szPercent.data() + FormatBar(nPercent) + FormatPace(progress);
    if (DisplayWidth(strLine) + NAME_COLUMNS > nColumns) {
        strLine = szPercent.data() + FormatPace(progress);
    }
    strLine = FitTail(Printable(progress.strFile), nColumns - DisplayWidth(strLine)) + strLine;
    return FitTail(strLine, nColumns);
}

void CRateMeter::Add(TimePoint now, std::uint64_t qwBytes) {
    if (m_samples.empty() || qwBytes > m_samples.back().qwBytes) {
        m_moved = now;
    }
    m_samples.push_back({now, qwBytes});
    while (m_samples.size() > 2 && now - m_samples[1].time >= RATE_SPAN) {
        m_samples.pop_front();
    }
}

std::uint64_t CRateMeter::BytesPerSecond() const {
    if (m_samples.size() < 2) {
        return 0;
    }
    const auto span =
        duration_cast<milliseconds>(m_samples.back().time - m_samples.front().time).count();
    const std::uint64_t qwBytes = m_samples.back().qwBytes - m_samples.front().qwBytes;
    // A rate from less than half a second is noise.
    return span < 500 ? 0 : qwBytes * 1000 / static_cast<std::uint64_t>(span);
}

std::uint64_t CRateMeter::IdleSeconds(TimePoint now) const {
    return m_samples.empty()
               ? 0
               : static_cast<std::uint64_t>(duration_cast<seconds>(now - m_moved).count());
}

CProgressDisplay::CProgressDisplay(const CONTEXT& context) : m_context(context) {
    if (context.output.bQuiet || context.output.bJson) {
        m_eMode = Mode::None;
    } else {
        m_eMode = console::IsTerminal(console::Stream::Error) ? Mode::Bar : Mode::Lines;
    }
}

void CProgressDisplay::BeginFile(const std::string& strFrom, const std::string& strTo) {
    if (m_eMode == Mode::Lines) {
        Say(m_context, strFrom + " -> " + strTo);
        console::Flush();
    }
}

void CProgressDisplay::Show(PROGRESS progress, std::uint64_t qwMoved) {
    const auto now = std::chrono::steady_clock::now();
    m_rate.Add(now, qwMoved);
    if (m_eMode != Mode::Bar || now - m_drawn < DRAW_INTERVAL) {
        return;
    }
    m_drawn = now;
    progress.qwBytesPerSecond = m_rate.BytesPerSecond();
    progress.qwIdleSeconds = m_rate.IdleSeconds(now);
    Draw(progress);
}

void CProgressDisplay::ShowCount(const std::string& strWhat, std::size_t nDone,
                                 std::size_t nTotal) {
    if (m_eMode == Mode::Bar) {
        Draw({.strFile = strWhat, .qwDone = nDone, .qwTotal = nTotal});
    }
}

void CProgressDisplay::Draw(const PROGRESS& progress) {
    // The last column stays free: some terminals begin a new line when it is written.
    const std::string strLine = FormatProgress(progress, console::Width() - 1);
    const int nColumns = DisplayWidth(strLine);
    console::Print(console::Stream::Error, "\r" + strLine + Blanks(m_nColumnsDrawn - nColumns));
    m_nColumnsDrawn = nColumns;
}

void CProgressDisplay::Clear() {
    if (m_nColumnsDrawn > 0) {
        // A terminal shows Ctrl-C as two characters behind the bar.
        const int nColumns = std::min(m_nColumnsDrawn + 2, console::Width() - 1);
        console::Print(console::Stream::Error,
                       std::string("\r").append(Blanks(nColumns)).append("\r"));
        m_nColumnsDrawn = 0;
    }
}

} // namespace cli
