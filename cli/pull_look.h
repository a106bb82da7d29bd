// What a pull finds out about the device ahead of the copy.
#pragma once

#include "cli/device_tree.h"
#include "cli/pull_plan.h"

namespace cli {

// Asks the device what there is under the wanted names of a group. What is not there, or shows
// itself in a way that cannot be asked for, is added to the missing. EXIT_DONE, or what ended the
// look: the link, or a request to end.
MEANING LookAhead(CONTEXT& context, CDAKVorn& dak, PULLGROUP& group, std::vector<LEFTOUT>& missing,
                  const OnListing& onListing);

} // namespace cli
