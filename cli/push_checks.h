// What a push asks the device: ahead of its first byte whether there is a place for the files, and
// behind its last one whether they are there.
#pragma once

#include "cli/device_tree.h"
#include "cli/host_tree.h"
#include "cli/report.h"

#include "link/dak_vorn.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
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

// Why the copy is not to begin: DEST is no folder, there is no room for the files, or no link.
// Nothing where there is a place for them, and where the device does not tell. A file that is
// replaced gives its room back only when the new one is whole.
std::optional<MEANING> FindNoPlace(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                                   const std::vector<PUSHED>& files);

// Called ahead of each listing: the folder, how many have been listed, and how many there are.
using OnFolder =
    std::function<void(const std::string& strFolder, std::size_t nDone, std::size_t nFolders)>;

// Lists the folders of the files that are open or confirmed and gives those files their fate. One
// whose folder could not be listed keeps what it had. The meaning is that of DEVICETREE.
MEANING LookForPushed(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                      std::vector<PUSHED>& files, const OnFolder& onFolder);

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
