#include "cli/pushed_file.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <ratio>

namespace cli {
namespace {

// In 100 ns since 1601; 0 for what is earlier.
std::uint64_t TicksOf(std::filesystem::file_time_type time) {
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    constexpr std::int64_t n1601To1970 = 116'444'736'000'000'000;
    const auto system = std::filesystem::file_time_type::clock::to_sys(time);
    const auto sinceEpoch = std::chrono::floor<Ticks>(system.time_since_epoch());
    return static_cast<std::uint64_t>(std::max(sinceEpoch.count(), -n1601To1970) + n1601To1970);
}

} // namespace

Fate JudgePushed(const HOSTENTRY& sent, const DEVICEENTRY* pFound) {
    // Devices keep times of even seconds from 1980 to 2107, if not finer ones.
    constexpr std::uint64_t qwCoarsest = 20'000'000;
    constexpr std::uint64_t qwFirst = 119'600'928'000'000'000; // 1980-01-02
    constexpr std::uint64_t qwLast = 159'992'064'000'000'000;  // 2107-12-31
    if (pFound == nullptr || pFound->bFolder) {
        return Fate::Missing;
    }
    if (pFound->qwSize != sent.qwSize) {
        return Fate::OtherSize;
    }
    const std::uint64_t qwSent = TicksOf(sent.timeWritten);
    const auto [qwEarlier, qwLater] = std::minmax(qwSent, pFound->qwWritten);
    const bool bTells = pFound->qwWritten != 0 && qwSent >= qwFirst && qwSent < qwLast;
    return bTells && qwLater - qwEarlier > qwCoarsest ? Fate::OtherTime : Fate::There;
}

std::uint64_t RoomNeeded(const std::vector<REPLACED>& files) {
    constexpr std::uint64_t qwMostOld = std::uint64_t{1} << 40; // whatever a device tells
    std::int64_t nMore = 0;                                     // new sizes have 32 bits
    std::int64_t nMost = 0;
    for (const REPLACED& file : files) {
        nMore += static_cast<std::int64_t>(file.qwNew);
        nMost = std::max(nMost, nMore);
        nMore -= static_cast<std::int64_t>(std::min(file.qwOld, qwMostOld));
    }
    return static_cast<std::uint64_t>(nMost);
}

} // namespace cli
