// What a push asks the device: ahead of its first byte whether there is a place for the files, and
// behind its last one whether they are there.
#pragma once

#include "cli/pushed_file.h"
#include "cli/report.h"

#include "link/dak_vorn.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace cli {

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

} // namespace cli
