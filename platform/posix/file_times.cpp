#include "platform/posix/file_times.h"

#include <cstdint>
#include <limits>

namespace platform::posix {
namespace {

constexpr std::int64_t TICKS_PER_SECOND = 10000000;
constexpr std::int64_t NS_PER_TICK = 100;
// From 1601-01-01 to 1970-01-01.
constexpr std::int64_t SECONDS_TO_EPOCH = 11644473600;
constexpr std::int64_t LAST_TICK = std::numeric_limits<std::int64_t>::max();

} // namespace

FILETIME FileTimeOf(const timespec& time) {
    std::int64_t nTicks = 0;
    if (time.tv_sec > LAST_TICK / TICKS_PER_SECOND - SECONDS_TO_EPOCH - 1) {
        nTicks = LAST_TICK;
    } else if (time.tv_sec >= -SECONDS_TO_EPOCH) {
        nTicks = (time.tv_sec + SECONDS_TO_EPOCH) * TICKS_PER_SECOND + time.tv_nsec / NS_PER_TICK;
    }
    return {static_cast<DWORD>(nTicks & 0xFFFFFFFF), static_cast<DWORD>(nTicks >> 32)};
}

bool TimeOf(const FILETIME& fileTime, timespec& time) {
    const std::uint64_t qwTicks =
        (std::uint64_t{fileTime.dwHighDateTime} << 32) | fileTime.dwLowDateTime;
    if (qwTicks > static_cast<std::uint64_t>(LAST_TICK)) {
        return false;
    }
    // The quotient of an unsigned count, so that the fraction of a time before 1970 still counts
    // forward from its second.
    const auto nTicks = static_cast<std::int64_t>(qwTicks);
    time.tv_sec = nTicks / TICKS_PER_SECOND - SECONDS_TO_EPOCH;
    time.tv_nsec = nTicks % TICKS_PER_SECOND * NS_PER_TICK;
    return true;
}

} // namespace platform::posix
