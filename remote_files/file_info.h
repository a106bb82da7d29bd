// The record of one file or folder on the device.
#pragma once

#include "platform/types.h"

#include <cstddef>

// 1236 bytes without padding, the same in memory and in the reply of DAKGetFileInfo. The library
// reads no field of it; docs/device.md says what the agent of this project writes into each.
struct _tagFileInfo {
    WCHAR szText1[260];
    WCHAR szText2[260];
    WCHAR szText3[80];
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
};
static_assert(sizeof(_tagFileInfo) == 1236);
static_assert(offsetof(_tagFileInfo, szText3) == 1040);
static_assert(offsetof(_tagFileInfo, ftLastWriteTime) == 1220);
static_assert(offsetof(_tagFileInfo, nFileSizeLow) == 1232);
