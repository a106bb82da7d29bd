// Which device a verb works with.
#pragma once

#include "cli/report.h"

namespace cli {

// Finds the device of -d, of $DAK_DEVICE, or the only one there is, and holds the library to it for
// as long as the command runs: to none where none is attached. False when the verb is not to run;
// then it is finished.
bool FindDevice(CONTEXT& context, const char* lpszVerb);

} // namespace cli
