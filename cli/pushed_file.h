// A file of a push, and what its place on the device tells of it.
#pragma once

#include "cli/device_tree.h"
#include "cli/host_tree.h"

#include <cstdint>
#include <vector>

namespace cli {

// What is known of a file that is to be on the device.
enum class Fate {
    NotSent,
    Open,      // sent, or begun, and nobody has said what became of it
    Confirmed, // the device has confirmed its bytes
    Changed,   // here, while it was sent
    // And when the device has been asked:
    There,
    Missing,
    OtherSize,
    OtherTime, // of its size, but as if it were the file that was there before
};

struct PUSHED {
    const HOSTENTRY* pEntry;
    Fate eFate = Fate::NotSent;
};

// What the device's entry makes of a file that was sent; null when there is none.
Fate JudgePushed(const HOSTENTRY& sent, const DEVICEENTRY* pFound);

// The most bytes that are there at a time beyond those that were, when the files come one after the
// other and each takes the place of one of so many bytes.
struct REPLACED {
    std::uint64_t qwNew;
    std::uint64_t qwOld;
};
std::uint64_t RoomNeeded(const std::vector<REPLACED>& files);

} // namespace cli
