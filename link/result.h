// Results of the exported operations, and the finer states that CDAKVorn::GetLastError gives.
#pragma once

#include "platform/types.h"

inline constexpr DWORD DAKERROR_NONE = 0;
inline constexpr DWORD DAKERROR_CANCELLED = 1;       // the caller cut a stream short
inline constexpr DWORD DAKERROR_PROTOCOL = 2;        // the device did not answer as it should
inline constexpr DWORD DAKERROR_NO_SPACE = 3;        // no room for the data
inline constexpr DWORD DAKERROR_DEVICE_REFUSED = 4;  // the device refused the data
inline constexpr DWORD DAKERROR_FOLDER_SPACE = 6;    // DAKGetFolderFreeSpace: no path, or refused
inline constexpr DWORD DAKERROR_FAIL = 0x10000;      // a bad argument, or no good response
inline constexpr DWORD DAKERROR_BUSY = 0x20000;      // another program is using the link
inline constexpr DWORD DAKERROR_NO_DEVICE = 0x30000; // no device, no handshake, or it went away

// The message that a job posts to its window when it has ended; both parameters are 0.
inline constexpr UINT WM_DAK_TRANSFER_END = 3028;
