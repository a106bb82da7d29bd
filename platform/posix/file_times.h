// The platform's times and the system's.
#pragma once

#include "platform/types.h"

#include <time.h>

namespace platform::posix {

// Below 1601 or above the last representable time the nearest one is taken.
FILETIME FileTimeOf(const timespec& time);

// False for a time that the platform itself does not take: its first bit is set.
bool TimeOf(const FILETIME& fileTime, timespec& time);

} // namespace platform::posix
