// What a failed operation means. The library has one word for what the device refused and for a
// device that went away in the middle: the device is asked which it was.
#pragma once

#include "cli/report.h"

#include "link/dak_vorn.h"

namespace cli {

// Of the object's latest operation, which returned dwResult. May use the object for one more.
MEANING JudgeOperation(CONTEXT& context, CDAKVorn& dak, Action action, DWORD dwResult);

} // namespace cli
