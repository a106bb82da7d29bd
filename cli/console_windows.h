// What the two halves of the console on this system share: console_windows.cpp and
// standard_streams_windows.cpp.
#pragma once

#include "cli/console.h"

#include "platform/types.h"

namespace console::windows {

HANDLE HandleOf(Stream stream);
bool IsConsole(HANDLE hStream);

// Shows UTF-8 on a console, whose own code page may be any. The system's error number, or 0.
DWORD WriteToConsole(HANDLE hConsole, std::string_view strText);

} // namespace console::windows
