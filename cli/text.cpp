#include "cli/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdio>

namespace cli {
namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;

// Takes the next character off strText; nothing when its bytes are not UTF-8, and then one byte is
// taken off.
std::optional<char32_t> TakeCharacter(std::string_view& strText) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(strText[i]); };
    const unsigned char chLead = byteAt(0);
    std::size_t nBytes = 1;
    char32_t chValue = chLead;
    char32_t chLeast = 0;
    if (chLead >= 0xF0 && chLead <= 0xF4) {
        nBytes = 4, chValue = chLead & 0x07U, chLeast = 0x10000;
    } else if (chLead >= 0xE0 && chLead < 0xF0) {
        nBytes = 3, chValue = chLead & 0x0FU, chLeast = 0x800;
    } else if (chLead >= 0xC0 && chLead < 0xE0) {
        nBytes = 2, chValue = chLead & 0x1FU, chLeast = 0x80;
    }
    bool bGood = (chLead < 0x80 || nBytes > 1) && strText.size() >= nBytes;
    for (std::size_t i = 1; bGood && i < nBytes; ++i) {
        bGood = (byteAt(i) & 0xC0U) == 0x80;
        chValue = (chValue << 6) | (byteAt(i) & 0x3FU);
    }
    if (!bGood || chValue < chLeast || chValue > 0x10FFFF ||
        (chValue >= 0xD800 && chValue < 0xE000)) {
        strText.remove_prefix(1);
        return std::nullopt;
    }
    strText.remove_prefix(nBytes);
    return chValue;
}

void AppendUtf8(std::string& strText, char32_t chValue) {
    const auto append = [&](char32_t chByte) { strText += static_cast<char>(chByte); };
    if (chValue < 0x80) {
        append(chValue);
    } else if (chValue < 0x800) {
        append(0xC0 | (chValue >> 6));
        append(0x80 | (chValue & 0x3F));
    } else if (chValue < 0x10000) {
        append(0xE0 | (chValue >> 12));
        append(0x80 | ((chValue >> 6) & 0x3F));
        append(0x80 | (chValue & 0x3F));
    } else {
        append(0xF0 | (chValue >> 18));
        append(0x80 | ((chValue >> 12) & 0x3F));
        append(0x80 | ((chValue >> 6) & 0x3F));
        append(0x80 | (chValue & 0x3F));
    }
}

struct RANGE {
    char32_t chFirst;
    char32_t chLast;
};

template <std::size_t N>
bool IsIn(const std::array<RANGE, N>& ranges, char32_t chValue) {
    for (const RANGE& range : ranges) {
        if (chValue >= range.chFirst && chValue <= range.chLast) {
            return true;
        }
    }
    return false;
}

int CharacterWidth(char32_t chValue) {
    static constexpr std::array<RANGE, 6> none{{{0x300, 0x36F},
                                                {0x200B, 0x200F},
                                                {0x20D0, 0x20FF},
                                                {0xFE00, 0xFE0F},
                                                {0xFE20, 0xFE2F},
                                                {0xE0100, 0xE01EF}}};
    static constexpr std::array<RANGE, 10> two{{{0x1100, 0x115F},
                                                {0x2E80, 0x303E},
                                                {0x3041, 0x33FF},
                                                {0x3400, 0x4DBF},
                                                {0x4E00, 0x9FFF},
                                                {0xA000, 0xA4CF},
                                                {0xAC00, 0xD7A3},
                                                {0xF900, 0xFAFF},
                                                {0xFF00, 0xFF60},
                                                {0x1F300, 0x3FFFD}}};
    return IsIn(none, chValue) ? 0 : IsIn(two, chValue) ? 2 : 1;
}

} // namespace

std::optional<WideText> Utf8ToWide(std::string_view strText) {
    WideText strWide;
    while (!strText.empty()) {
        const std::optional<char32_t> chValue = TakeCharacter(strText);
        if (!chValue) {
            return std::nullopt;
        }
        if (*chValue < 0x10000) {
            strWide += static_cast<WCHAR>(*chValue);
        } else {
            strWide += static_cast<WCHAR>(0xD800 + ((*chValue - 0x10000) >> 10));
            strWide += static_cast<WCHAR>(0xDC00 + ((*chValue - 0x10000) & 0x3FF));
        }
    }
    return strWide;
}

std::string WideToUtf8(std::basic_string_view<WCHAR> strText) {
    std::string strNarrow;
    for (std::size_t i = 0; i < strText.size(); ++i) {
        char32_t chValue = strText[i];
        if (chValue >= 0xD800 && chValue < 0xE000) {
            const char32_t chNext = i + 1 < strText.size() ? strText[i + 1] : 0;
            const bool bPair = chValue < 0xDC00 && chNext >= 0xDC00 && chNext < 0xE000;
            chValue =
                bPair ? 0x10000 + ((chValue - 0xD800) << 10) + (chNext - 0xDC00) : REPLACEMENT;
            i += bPair ? 1 : 0;
        }
        AppendUtf8(strNarrow, chValue);
    }
    return strNarrow;
}

std::string Printable(std::string_view strText) {
    std::string strShown;
    while (!strText.empty()) {
        const char32_t chValue = TakeCharacter(strText).value_or(REPLACEMENT);
        const bool bControl = chValue < 0x20 || (chValue >= 0x7F && chValue < 0xA0);
        AppendUtf8(strShown, bControl ? U'?' : chValue);
    }
    return strShown;
}

int DisplayWidth(std::string_view strText) {
    int nColumns = 0;
    while (!strText.empty()) {
        nColumns += CharacterWidth(TakeCharacter(strText).value_or(REPLACEMENT));
    }
    return nColumns;
}

std::string FitTail(const std::string& strText, int nColumns) {
    if (DisplayWidth(strText) <= nColumns) {
        return strText;
    }
    const std::string strMark(
        static_cast<std::size_t>(nColumns < 3 ? (nColumns < 0 ? 0 : nColumns) : 3), '.');
    std::string_view strTail = strText;
    while (!strTail.empty() && DisplayWidth(strTail) > nColumns - 3) {
        TakeCharacter(strTail);
    }
    return strMark + std::string(strTail);
}

std::string FormatBytes(std::uint64_t qwBytes) {
    if (qwBytes < 1000) {
        return std::to_string(qwBytes) + " B";
    }
    static constexpr std::array<const char*, 4> units{"kB", "MB", "GB", "TB"};
    double dValue = static_cast<double>(qwBytes) / 1000;
    std::size_t nUnit = 0;
    // 999.95 and more would be shown as 1000.0.
    while (dValue >= 999.95 && nUnit + 1 < units.size()) {
        dValue /= 1000;
        ++nUnit;
    }
    std::array<char, 32> szText{};
    std::snprintf(szText.data(), szText.size(), "%.1f %s", dValue, units.at(nUnit));
    return szText.data();
}

std::string FormatDuration(std::uint64_t qwSeconds) {
    const unsigned long long qwHours = qwSeconds / 3600;
    const unsigned nMinutes = static_cast<unsigned>(qwSeconds / 60 % 60);
    const unsigned nSeconds = static_cast<unsigned>(qwSeconds % 60);
    std::array<char, 40> szText{};
    if (qwHours > 0) {
        std::snprintf(szText.data(), szText.size(), "%llu:%02u:%02u", qwHours, nMinutes, nSeconds);
    } else {
        std::snprintf(szText.data(), szText.size(), "%u:%02u", nMinutes, nSeconds);
    }
    return szText.data();
}

std::string Count(std::uint64_t qwCount, std::string_view strNoun) {
    return std::to_string(qwCount) + " " + std::string(strNoun) + (qwCount == 1 ? "" : "s");
}

std::optional<std::uint64_t> ParseNumber(std::string_view strText, std::uint64_t qwMost) {
    const bool bHex = strText.starts_with("0x") || strText.starts_with("0X");
    strText.remove_prefix(bHex ? 2 : 0);
    std::uint64_t qwValue = 0;
    const char* const lpEnd = strText.data() + strText.size();
    const auto [lpStop, error] = std::from_chars(strText.data(), lpEnd, qwValue, bHex ? 16 : 10);
    if (error != std::errc() || lpStop != lpEnd || qwValue > qwMost) {
        return std::nullopt;
    }
    return qwValue;
}

std::string Base64(std::string_view strBytes) {
    static constexpr std::string_view strLetters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string strText;
    strText.reserve((strBytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < strBytes.size(); i += 3) {
        const std::size_t nBytes = std::min<std::size_t>(3, strBytes.size() - i);
        std::uint32_t dwGroup = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            dwGroup =
                dwGroup << 8 | (k < nBytes ? static_cast<unsigned char>(strBytes[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            strText += k <= nBytes ? strLetters[dwGroup >> (18 - 6 * k) & 0x3F] : '=';
        }
    }
    return strText;
}

std::string HexDump(std::string_view strBytes) {
    constexpr std::size_t nInLine = 16;
    std::string strText;
    for (std::size_t nLine = 0; nLine < strBytes.size(); nLine += nInLine) {
        std::array<char, 24> szCell{};
        std::snprintf(szCell.data(), szCell.size(), "%08zx ", nLine);
        strText += szCell.data();
        std::string strCharacters;
        for (std::size_t i = nLine; i < nLine + nInLine; ++i) {
            if (i >= strBytes.size()) {
                strText += "   ";
                continue;
            }
            const auto chByte = static_cast<unsigned char>(strBytes[i]);
            std::snprintf(szCell.data(), szCell.size(), " %02x", chByte);
            strText += szCell.data();
            strCharacters += chByte >= 0x20 && chByte < 0x7F ? strBytes[i] : '.';
        }
        strText += "  " + strCharacters + "\n";
    }
    return strText;
}

} // namespace cli
