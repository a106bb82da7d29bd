// The platform's words, records and constants where they are the system's own.
#pragma once

#if defined(DAK_WITH_MFC)
#include "platform/windows/framework_classes.h"
#endif

#if !defined(WIN32_LEAN_AND_MEAN)
#define WIN32_LEAN_AND_MEAN
#endif
#if !defined(NOMINMAX)
#define NOMINMAX
#endif
#include <windows.h>

// Behind it, for they use its names.
#include <setupapi.h>
#include <tlhelp32.h>

#include <cstddef>
#include <cstdint>

// A literal of WCHAR.
#define DAK_WIDE(literal) L##literal
