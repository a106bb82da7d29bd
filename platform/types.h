// The platform's words, records and constants, under the platform's own names and widths: DWORD,
// LONG, BOOL and UINT have 32 bits, WCHAR has 16, HANDLE is a pointer. On Windows they are the
// system's own; elsewhere platform/posix/types.h defines those that the library uses.
#pragma once

#if defined(_WIN32)
#include "platform/windows/types.h"
#else
#include "platform/posix/types.h"
#endif

static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4 && sizeof(BOOL) == 4 && sizeof(UINT) == 4);
static_assert(sizeof(WCHAR) == 2 && sizeof(HANDLE) == sizeof(void*) && sizeof(FILETIME) == 8);
