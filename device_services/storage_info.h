// The record of one storage on the device.
#pragma once

#include "platform/types.h"

// 120 bytes, the same in the reply of DAKGetStorageInfo and in the caller's array, except that
// dwReserved is 0 there. docs/device.md says what the agent of this project writes into it.
struct _tagStorageInfo {
    WCHAR szStorageName[52];
    DWORD dwValue1;
    DWORD dwValue2;
    DWORD dwValue3;
    DWORD dwReserved;
};
static_assert(sizeof(_tagStorageInfo) == 120);
