#include "cli/file_facts.h"

#include "cli/text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <span>
#include <string_view>

#include <nlohmann/json.hpp>

namespace cli {
namespace {

struct ATTRIBUTE {
    DWORD dwBit;
    char chLetter;
    const char* lpszWord;
};
constexpr std::array<ATTRIBUTE, 4> ATTRIBUTES{{
    {0x10, 'd', "folder"},
    {0x01, 'r', "read-only"},
    {0x02, 'h', "hidden"},
    {0x20, 'a', "archive"},
}};
constexpr DWORD FOLDER_BIT = 0x10;
constexpr DWORD READ_ONLY_BIT = 0x01;

constexpr std::uint64_t TICKS_PER_SECOND = 10'000'000;
constexpr std::int64_t SECONDS_1601_TO_1970 = 11'644'473'600;

template <std::size_t N>
std::string FieldText(const WCHAR (&szField)[N]) {
    const std::span<const WCHAR> field(szField);
    const auto nEnd = std::find(field.begin(), field.end(), WCHAR{0}) - field.begin();
    return WideToUtf8(std::basic_string_view<WCHAR>(field.data(), static_cast<std::size_t>(nEnd)));
}

std::uint64_t Join(DWORD dwHigh, DWORD dwLow) {
    return std::uint64_t{dwHigh} << 32 | dwLow;
}

std::uint64_t Ticks(const FILETIME& time) {
    return Join(time.dwHighDateTime, time.dwLowDateTime);
}

std::time_t UnixTime(std::uint64_t qwFileTime) {
    return static_cast<std::int64_t>(qwFileTime / TICKS_PER_SECOND) - SECONDS_1601_TO_1970;
}

std::string FormatTime(const std::tm* pTime, const char* lpszFormat) {
    std::array<char, 64> szText{};
    if (pTime == nullptr || std::strftime(szText.data(), szText.size(), lpszFormat, pTime) == 0) {
        return "?";
    }
    return szText.data();
}

} // namespace

bool FILEFACTS::IsFolder() const {
    return (dwAttributes & FOLDER_BIT) != 0;
}

bool FILEFACTS::IsReadOnly() const {
    return (dwAttributes & READ_ONLY_BIT) != 0;
}

std::string FILEFACTS::ShownName() const {
    return strName + (IsFolder() && !strName.ends_with('\\') ? "/" : "");
}

FILEFACTS TakeFacts(const _tagFileInfo& info) {
    FILEFACTS facts;
    facts.strName = FieldText(info.szText1);
    facts.strPath = FieldText(info.szText2);
    facts.strType = FieldText(info.szText3);
    facts.dwAttributes = info.dwFileAttributes;
    facts.qwSize = Join(info.nFileSizeHigh, info.nFileSizeLow);
    facts.qwCreated = Ticks(info.ftCreationTime);
    facts.qwAccessed = Ticks(info.ftLastAccessTime);
    facts.qwWritten = Ticks(info.ftLastWriteTime);
    return facts;
}

std::string FormatAttributes(DWORD dwAttributes) {
    std::string strText;
    for (const ATTRIBUTE& attribute : ATTRIBUTES) {
        strText += (dwAttributes & attribute.dwBit) != 0 ? attribute.chLetter : '-';
    }
    return strText;
}

std::string NameAttributes(DWORD dwAttributes) {
    std::string strText;
    for (const ATTRIBUTE& attribute : ATTRIBUTES) {
        if ((dwAttributes & attribute.dwBit) != 0) {
            strText += (strText.empty() ? "" : ", ") + std::string(attribute.lpszWord);
        }
    }
    return strText.empty() ? "none" : strText;
}

std::string FormatLocalTime(std::uint64_t qwFileTime, bool bFine) {
    if (qwFileTime == 0) {
        return "-";
    }
    const std::time_t nTime = UnixTime(qwFileTime);
    return FormatTime(std::localtime(&nTime), bFine ? "%Y-%m-%d %H:%M:%S %z" : "%Y-%m-%d %H:%M");
}

std::string FormatUtcTime(std::uint64_t qwFileTime) {
    if (qwFileTime == 0) {
        return "";
    }
    const std::time_t nTime = UnixTime(qwFileTime);
    std::array<char, 16> szTicks{};
    std::snprintf(szTicks.data(), szTicks.size(), ".%07uZ",
                  static_cast<unsigned>(qwFileTime % TICKS_PER_SECOND));
    return FormatTime(std::gmtime(&nTime), "%Y-%m-%dT%H:%M:%S") + szTicks.data();
}

nlohmann::json FactsJson(const FILEFACTS& facts) {
    const auto time = [](std::uint64_t qwFileTime) {
        return qwFileTime == 0 ? nlohmann::json() : nlohmann::json(FormatUtcTime(qwFileTime));
    };
    return {{"name", facts.strName},
            {"path", facts.strPath},
            {"type", facts.strType},
            {"folder", facts.IsFolder()},
            {"attributes", facts.dwAttributes},
            {"size", facts.qwSize},
            {"created", time(facts.qwCreated)},
            {"accessed", time(facts.qwAccessed)},
            {"modified", time(facts.qwWritten)}};
}

} // namespace cli
