// The seam: text conversion. Any thread.
#pragma once

#include "platform/types.h"

namespace platform {

// Converts UTF-16 to narrow text. The library always calls with CP_ACP, no flags, a source that
// ends in its terminator (cchWideChar -1) and no default character. Returns the bytes written,
// terminator included; 0 with ERROR_INSUFFICIENT_BUFFER when lpMultiByteStr, of cbMultiByte bytes,
// is too small, and then its contents mean nothing. What the code page cannot hold, unpaired
// surrogates included, is replaced and sets *lpUsedDefaultChar (unless null) to TRUE, otherwise
// it becomes FALSE.
int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, const WCHAR* lpWideCharStr, int cchWideChar,
                        char* lpMultiByteStr, int cbMultiByte, const char* lpDefaultChar,
                        BOOL* lpUsedDefaultChar);

// Converts narrow text to UTF-16; as above with the directions exchanged. Returns the characters
// written, terminator included. Malformed bytes are replaced.
int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, const char* lpMultiByteStr, int cbMultiByte,
                        WCHAR* lpWideCharStr, int cchWideChar);

// Copies text with its terminator; the target is large enough. Returns the target.
char* lstrcpyA(char* lpString1, const char* lpString2);

} // namespace platform
