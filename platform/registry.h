// The seam: the registry, of which the library reads one number. Any thread.
#pragma once

#include "platform/types.h"

namespace platform {

// Each returns 0 for success and another number for failure.
LONG RegOpenKeyExA(HKEY hKey, const char* lpSubKey, DWORD ulOptions, DWORD samDesired,
                   HKEY* phkResult);

// Reads a value of an open key: its type (REG_DWORD for the 32-bit number read here) through
// lpType, its bytes into lpData, of *lpcbData bytes, and their number through lpcbData. Value names
// are compared without regard to case.
LONG RegQueryValueExA(HKEY hKey, const char* lpValueName, DWORD* lpReserved, DWORD* lpType,
                      BYTE* lpData, DWORD* lpcbData);

LONG RegCloseKey(HKEY hKey);

} // namespace platform
