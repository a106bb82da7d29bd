#include "platform/registry.h"

namespace platform {

LONG RegOpenKeyExA(HKEY hKey, const char* lpSubKey, DWORD ulOptions, DWORD samDesired,
                   HKEY* phkResult) {
    return ::RegOpenKeyExA(hKey, lpSubKey, ulOptions, samDesired, phkResult);
}

LONG RegQueryValueExA(HKEY hKey, const char* lpValueName, DWORD* lpReserved, DWORD* lpType,
                      BYTE* lpData, DWORD* lpcbData) {
    return ::RegQueryValueExA(hKey, lpValueName, lpReserved, lpType, lpData, lpcbData);
}

LONG RegCloseKey(HKEY hKey) {
    return ::RegCloseKey(hKey);
}

} // namespace platform
