// What a reader asks of the package in hand.
#pragma once

#include "platform/types.h"

// Whether the package in lpBuffer, of 12288 bytes, is a whole data package of a stream from the
// device that carries codeFunc: command word, length, function code, checksum.
bool IsSoundDataPackage(const BYTE* lpBuffer, WORD codeFunc);

// The bytes behind the cursor that are the stream's. None where the package is shorter than its own
// head, as the empty one that a cancelled recovery delivers.
inline DWORD PackageRest(DWORD dwOffset, DWORD dwPackageBytes) {
    return dwPackageBytes > dwOffset ? dwPackageBytes - dwOffset : 0;
}
