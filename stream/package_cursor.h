// Where a reader stands in the package in hand.
#pragma once

#include "platform/types.h"

// The bytes behind the cursor that are the stream's. None where the package is shorter than its own
// head, as the empty one that a cancelled recovery delivers.
inline DWORD PackageRest(DWORD dwOffset, DWORD dwPackageBytes) {
    return dwPackageBytes > dwOffset ? dwPackageBytes - dwOffset : 0;
}
