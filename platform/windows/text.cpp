#include "platform/text.h"

#include <cstring>

namespace platform {
namespace {

bool IsUtf8(UINT CodePage) {
    return CodePage == CP_UTF8 || (CodePage == CP_ACP && ::GetACP() == CP_UTF8);
}

} // namespace

int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, const WCHAR* lpWideCharStr, int cchWideChar,
                        char* lpMultiByteStr, int cbMultiByte, const char* lpDefaultChar,
                        BOOL* lpUsedDefaultChar) {
    if (!IsUtf8(CodePage)) {
        // A character that only looks like the one it is turned into counts as replaced.
        return ::WideCharToMultiByte(CodePage, dwFlags | WC_NO_BEST_FIT_CHARS, lpWideCharStr,
                                     cchWideChar, lpMultiByteStr, cbMultiByte, lpDefaultChar,
                                     lpUsedDefaultChar);
    }
    // With this code page the system does not say whether it replaced anything; it only can refuse
    // to, which a first conversion into nothing tells.
    if (lpUsedDefaultChar != nullptr) {
        *lpUsedDefaultChar = ::WideCharToMultiByte(CodePage, WC_ERR_INVALID_CHARS, lpWideCharStr,
                                                   cchWideChar, nullptr, 0, nullptr, nullptr) == 0
                                 ? TRUE
                                 : FALSE;
    }
    return ::WideCharToMultiByte(CodePage, dwFlags, lpWideCharStr, cchWideChar, lpMultiByteStr,
                                 cbMultiByte, nullptr, nullptr);
}

int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, const char* lpMultiByteStr, int cbMultiByte,
                        WCHAR* lpWideCharStr, int cchWideChar) {
    return ::MultiByteToWideChar(CodePage, dwFlags, lpMultiByteStr, cbMultiByte, lpWideCharStr,
                                 cchWideChar);
}

char* lstrcpyA(char* lpString1, const char* lpString2) {
    return static_cast<char*>(std::memcpy(lpString1, lpString2, std::strlen(lpString2) + 1));
}

} // namespace platform
