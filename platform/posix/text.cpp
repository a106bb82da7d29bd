// Text conversion: the ANSI code page of this platform is UTF-8.
#include "platform/text.h"

#include "platform/posix/handles.h"

#include <cstring>

namespace platform {
namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr UINT CP_UTF8 = 65001;

struct CHARACTER {
    char32_t dwCode;
    SIZE_T nUnits; // of the source
    bool bReplaced;
};

bool IsHighSurrogate(char32_t dwUnit) {
    return dwUnit >= 0xD800 && dwUnit <= 0xDBFF;
}

bool IsLowSurrogate(char32_t dwUnit) {
    return dwUnit >= 0xDC00 && dwUnit <= 0xDFFF;
}

// The first character of at least one unit.
CHARACTER Decode(const WCHAR* lpText, SIZE_T nLeft) {
    const char32_t dwUnit = lpText[0];
    if (IsHighSurrogate(dwUnit) && nLeft > 1 && IsLowSurrogate(lpText[1])) {
        return {0x10000 + ((dwUnit - 0xD800) << 10) + (lpText[1] - char32_t{0xDC00}), 2, false};
    }
    if (IsHighSurrogate(dwUnit) || IsLowSurrogate(dwUnit)) {
        return {REPLACEMENT, 1, true};
    }
    return {dwUnit, 1, false};
}

// How a sequence may begin: how many further bytes it has, and between what the first of them lies
// (that keeps out forms that are too long, surrogates, and codes above the last).
struct SEQUENCE {
    SIZE_T nFurther;
    BYTE bLowest;
    BYTE bHighest;
};

SEQUENCE SequenceOf(BYTE bLead) {
    if (bLead >= 0xC2 && bLead <= 0xDF) {
        return {1, 0x80, 0xBF};
    }
    if (bLead >= 0xE0 && bLead <= 0xEF) {
        return {2, static_cast<BYTE>(bLead == 0xE0 ? 0xA0 : 0x80),
                static_cast<BYTE>(bLead == 0xED ? 0x9F : 0xBF)};
    }
    if (bLead >= 0xF0 && bLead <= 0xF4) {
        return {3, static_cast<BYTE>(bLead == 0xF0 ? 0x90 : 0x80),
                static_cast<BYTE>(bLead == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

// The same for UTF-8. What begins well and then breaks off is replaced as one.
CHARACTER Decode(const char* lpText, SIZE_T nLeft) {
    const BYTE bLead = static_cast<BYTE>(lpText[0]);
    if (bLead < 0x80) {
        return {bLead, 1, false};
    }
    const SEQUENCE sequence = SequenceOf(bLead);
    if (sequence.nFurther == 0) {
        return {REPLACEMENT, 1, true};
    }
    char32_t dwCode = bLead & (0x3FU >> sequence.nFurther);
    for (SIZE_T i = 1; i <= sequence.nFurther; ++i) {
        const BYTE bNext = i < nLeft ? static_cast<BYTE>(lpText[i]) : BYTE{0};
        const BYTE bLowest = i == 1 ? sequence.bLowest : BYTE{0x80};
        const BYTE bHighest = i == 1 ? sequence.bHighest : BYTE{0xBF};
        if (bNext < bLowest || bNext > bHighest) {
            return {REPLACEMENT, i, true};
        }
        dwCode = (dwCode << 6) | (bNext & 0x3FU);
    }
    return {dwCode, sequence.nFurther + 1, false};
}

SIZE_T Encode(char32_t dwCode, char (&units)[4]) {
    if (dwCode < 0x80) {
        units[0] = static_cast<char>(dwCode);
        return 1;
    }
    const SIZE_T nFurther = dwCode < 0x800 ? 1 : dwCode < 0x10000 ? 2 : 3;
    for (SIZE_T i = nFurther; i > 0; --i) {
        units[i] = static_cast<char>(0x80 | (dwCode & 0x3F));
        dwCode >>= 6;
    }
    constexpr char32_t LEADS[] = {0, 0xC0, 0xE0, 0xF0};
    units[0] = static_cast<char>(LEADS[nFurther] | dwCode);
    return nFurther + 1;
}

SIZE_T Encode(char32_t dwCode, WCHAR (&units)[4]) {
    if (dwCode < 0x10000) {
        units[0] = static_cast<WCHAR>(dwCode);
        return 1;
    }
    units[0] = static_cast<WCHAR>(0xD800 + ((dwCode - 0x10000) >> 10));
    units[1] = static_cast<WCHAR>(0xDC00 + ((dwCode - 0x10000) & 0x3FF));
    return 2;
}

template <class UNIT>
SIZE_T LengthWithTerminator(const UNIT* lpText) {
    SIZE_T nLength = 0;
    while (lpText[nLength] != 0) {
        ++nLength;
    }
    return nLength + 1;
}

// With no target at all (nTarget 0) it only counts.
template <class FROM, class TO>
int Convert(const FROM* lpSource, int nSource, TO* lpTarget, int nTarget, bool& bReplaced) {
    bReplaced = false;
    if (lpSource == nullptr || nSource == 0 || nSource < -1 || nTarget < 0 ||
        (lpTarget == nullptr && nTarget != 0)) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const SIZE_T nUnits =
        nSource < 0 ? LengthWithTerminator(lpSource) : static_cast<SIZE_T>(nSource);
    const SIZE_T nRoom = nTarget == 0 ? SIZE_T{0x7FFFFFFF} : static_cast<SIZE_T>(nTarget);
    SIZE_T nWritten = 0;
    for (SIZE_T nRead = 0; nRead < nUnits;) {
        const CHARACTER character = Decode(lpSource + nRead, nUnits - nRead);
        nRead += character.nUnits;
        bReplaced = bReplaced || character.bReplaced;
        TO units[4];
        const SIZE_T nNew = Encode(character.dwCode, units);
        if (nNew > nRoom - nWritten) {
            posix::SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        if (nTarget != 0) {
            std::memcpy(lpTarget + nWritten, units, nNew * sizeof(TO));
        }
        nWritten += nNew;
    }
    return static_cast<int>(nWritten);
}

bool RefuseCodePage(UINT CodePage) {
    if (CodePage == CP_ACP || CodePage == CP_UTF8) {
        return false;
    }
    posix::SetLastError(ERROR_INVALID_PARAMETER);
    return true;
}

} // namespace

int WideCharToMultiByte(UINT CodePage, DWORD /*dwFlags*/, const WCHAR* lpWideCharStr,
                        int cchWideChar, char* lpMultiByteStr, int cbMultiByte,
                        const char* /*lpDefaultChar*/, BOOL* lpUsedDefaultChar) {
    if (RefuseCodePage(CodePage)) {
        return 0;
    }
    bool bReplaced = false;
    const int nWritten =
        Convert(lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte, bReplaced);
    if (lpUsedDefaultChar != nullptr) {
        *lpUsedDefaultChar = bReplaced ? TRUE : FALSE;
    }
    return nWritten;
}

int MultiByteToWideChar(UINT CodePage, DWORD /*dwFlags*/, const char* lpMultiByteStr,
                        int cbMultiByte, WCHAR* lpWideCharStr, int cchWideChar) {
    bool bReplaced = false;
    return RefuseCodePage(CodePage)
               ? 0
               : Convert(lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar, bReplaced);
}

char* lstrcpyA(char* lpString1, const char* lpString2) {
    if (lpString1 == nullptr || lpString2 == nullptr) {
        return nullptr;
    }
    std::memcpy(lpString1, lpString2, std::strlen(lpString2) + 1);
    return lpString1;
}

} // namespace platform
