// Text of the command: names of the host are UTF-8, names of the device UTF-16.
#pragma once

#include "platform/types.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace cli {

using WideText = std::basic_string<WCHAR>;

// Nothing when the text is not UTF-8 (overlong forms, surrogates and cut sequences included).
std::optional<WideText> Utf8ToWide(std::string_view strText);

// An unpaired surrogate becomes U+FFFD.
std::string WideToUtf8(std::basic_string_view<WCHAR> strText);

// The text with control characters and bytes that are not UTF-8 replaced, so that a name can be
// shown on a terminal without steering it.
std::string Printable(std::string_view strText);

// Columns that printable text takes on a terminal: 2 for wide East Asian characters and emoji, 0
// for combining marks.
int DisplayWidth(std::string_view strText);

// The end of the text, with "..." in place of what is cut, so that it takes at most nColumns.
std::string FitTail(const std::string& strText, int nColumns);

// "0 B", "999 B", "1.0 kB", "3.1 MB": decimal units.
std::string FormatBytes(std::uint64_t qwBytes);

// "0:07", "12:30", "1:02:03".
std::string FormatDuration(std::uint64_t qwSeconds);

// "1 file", "2 files".
std::string Count(std::uint64_t qwCount, std::string_view strNoun);

// A number as a person writes it, decimal or with 0x: nothing for any other text, and for numbers
// above qwMost.
std::optional<std::uint64_t> ParseNumber(std::string_view strText, std::uint64_t qwMost);

// Bytes in the letters of JSON: base64 with padding.
std::string Base64(std::string_view strBytes);

// Bytes for a person: lines of 16 with their offset, in hexadecimal and as characters.
std::string HexDump(std::string_view strBytes);

} // namespace cli
