#include "cli/file_facts.h"

#include "cli/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
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

std::int64_t UnixTime(std::uint64_t qwFileTime) {
    return static_cast<std::int64_t>(qwFileTime / TICKS_PER_SECOND) - SECONDS_1601_TO_1970;
}

// Date and time of day, of any time there is: not every system's own calendar goes back before
// 1970.
struct CALENDAR {
    std::int64_t nYear;
    unsigned nMonth;
    unsigned nDay;
    std::int64_t nSecondOfDay;
};

CALENDAR CalendarOf(std::int64_t nUnixTime) {
    constexpr std::int64_t nDaySeconds = 86400;
    constexpr std::int64_t nEraSeconds = 146097 * nDaySeconds; // 400 years: the calendar repeats
    // Since 1201, so that nothing is negative.
    const std::int64_t nTime = nUnixTime + SECONDS_1601_TO_1970 + nEraSeconds;
    const std::chrono::days days(nTime % nEraSeconds / nDaySeconds);
    const std::chrono::year_month_day date =
        std::chrono::sys_days(std::chrono::year(1201) / 1 / 1) + days;
    return {static_cast<int>(date.year()) + nTime / nEraSeconds * 400,
            static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
            nTime % nDaySeconds};
}

std::int64_t FromCalendar(const std::tm& time) {
    const std::chrono::sys_days day =
        std::chrono::year(time.tm_year + 1900) / (time.tm_mon + 1) / time.tm_mday;
    return std::int64_t{day.time_since_epoch().count()} * 86400 + time.tm_hour * 3600 +
           time.tm_min * 60 + time.tm_sec;
}

// How far the clock here is ahead of UTC, in seconds. For a time that the system's calendar does
// not know, that of the nearest year that all know.
std::int64_t ClockOffset(std::int64_t nUnixTime) {
    constexpr std::int64_t nFirst = 86400;
    constexpr std::int64_t nLast = 0x7FFFFFFF - 86400;
    for (const std::int64_t nAsked : {nUnixTime, std::clamp(nUnixTime, nFirst, nLast)}) {
        const auto time = static_cast<std::time_t>(nAsked);
        if (const std::tm* const pTime = std::localtime(&time)) {
            return pTime->tm_year > 30000 ? 0 : FromCalendar(*pTime) - nAsked;
        }
    }
    return 0;
}

template <typename... Fields>
std::string Format(const char* lpszFormat, Fields... fields) {
    std::array<char, 64> szText{};
    std::snprintf(szText.data(), szText.size(), lpszFormat, fields...);
    return szText.data();
}

// "2001-09-09", a separator, "03:46", and with bSeconds ":40".
std::string FormatCalendar(const CALENDAR& time, char chSeparator, bool bSeconds) {
    const auto nSecond = static_cast<int>(time.nSecondOfDay);
    const std::string strText =
        Format("%04lld-%02u-%02u%c%02d:%02d", static_cast<long long>(time.nYear), time.nMonth,
               time.nDay, chSeparator, nSecond / 3600, nSecond / 60 % 60);
    return bSeconds ? strText + Format(":%02d", nSecond % 60) : strText;
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
    const std::int64_t nTime = UnixTime(qwFileTime);
    const std::int64_t nOffset = ClockOffset(nTime);
    const std::string strText = FormatCalendar(CalendarOf(nTime + nOffset), ' ', bFine);
    const int nMinutes = static_cast<int>(std::abs(nOffset)) / 60;
    return bFine ? strText +
                       Format(" %c%02d%02d", nOffset < 0 ? '-' : '+', nMinutes / 60, nMinutes % 60)
                 : strText;
}

std::string FormatUtcTime(std::uint64_t qwFileTime) {
    if (qwFileTime == 0) {
        return "";
    }
    return FormatCalendar(CalendarOf(UnixTime(qwFileTime)), 'T', true) +
           Format(".%07uZ", static_cast<unsigned>(qwFileTime % TICKS_PER_SECOND));
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
