// The platform's words, records and constants where they are the system's own.
#pragma once

#if !defined(NOMINMAX)
#define NOMINMAX
#endif
#if defined(DAK_WITH_MFC)
#include "platform/windows/framework_classes.h"
#endif

#if !defined(WIN32_LEAN_AND_MEAN)
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

// Behind it, for they use its names.
#include <setupapi.h>
#include <tlhelp32.h>

#include <cstddef>
#include <cstdint>

namespace platform {

// Zeroed memory of the process, which every module can free; null when there is none.
inline void* AllocateRecords(SIZE_T dwCount, SIZE_T dwSize) {
    return dwCount <= SIZE_MAX / dwSize
               ? ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, dwCount * dwSize)
               : nullptr;
}
inline void FreeRecords(void* lpRecords) {
    ::HeapFree(::GetProcessHeap(), 0, lpRecords);
}

} // namespace platform

// A literal of WCHAR.
#define DAK_WIDE(literal) L##literal
