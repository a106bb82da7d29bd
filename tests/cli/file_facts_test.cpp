// What the device tells is shown whole and safely, and what a program of the device is told comes
// apart into the same words.
#include "cli/device_command.h"
#include "cli/device_path.h"
#include "cli/file_facts.h"
#include "cli/table.h"

#include "agent/command_line.h"
#include "tests/cli/time_zone.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

namespace cli {
namespace {

constexpr std::uint64_t A_TIME = 126'444'736'001'234'567; // 2001-09-09T01:46:40.1234567Z

TEST(FileFacts, OfARecordWithoutTerminatorsNothingBehindAFieldIsTaken) {
    _tagFileInfo info = {};
    std::fill(std::begin(info.szText1), std::end(info.szText1), DAK_WIDE('n'));
    std::fill(std::begin(info.szText2), std::end(info.szText2), DAK_WIDE('p'));
    std::fill(std::begin(info.szText3), std::end(info.szText3), DAK_WIDE('t'));
    info.dwFileAttributes = 0x11;
    info.nFileSizeHigh = 3;
    info.nFileSizeLow = 0xFFFFFFFF;
    info.ftLastWriteTime = {static_cast<DWORD>(A_TIME), static_cast<DWORD>(A_TIME >> 32)};
    const FILEFACTS facts = TakeFacts(info);
    EXPECT_EQ(facts.strName, std::string(260, 'n'));
    EXPECT_EQ(facts.strPath, std::string(260, 'p'));
    EXPECT_EQ(facts.strType, std::string(80, 't'));
    EXPECT_EQ(facts.ShownName(), facts.strName + "/");
    const nlohmann::json object = FactsJson(facts);
    EXPECT_EQ(object["size"], 0x3FFFFFFFFU);
    EXPECT_EQ(object["folder"], true);
    EXPECT_EQ(object["modified"], "2001-09-09T01:46:40.1234567Z");
    EXPECT_EQ(object["created"], nullptr);
}

TEST(FileFacts, TimesAreThoseHere) {
    const CTimeZone zone("DAK-2");
    EXPECT_EQ(FormatLocalTime(A_TIME, false), "2001-09-09 03:46");
    EXPECT_EQ(FormatLocalTime(A_TIME, true), "2001-09-09 03:46:40 +0200");
    EXPECT_EQ(FormatLocalTime(1, false), "1601-01-01 02:00");
    EXPECT_EQ(FormatLocalTime(0, false), "-");
    EXPECT_EQ(FormatUtcTime(0), "");
    // Beyond all calendars there is still a text.
    EXPECT_EQ(FormatUtcTime(UINT64_MAX), "60056-05-28T05:36:10.9551615Z");
    EXPECT_FALSE(FormatLocalTime(UINT64_MAX, true).empty());
}

TEST(FileFacts, WestOfGreenwichTimeBeginsAYearEarlier) {
    const CTimeZone zone("DAK3:30");
    EXPECT_EQ(FormatLocalTime(1, true), "1600-12-31 20:30:00 -0330");
    EXPECT_EQ(FormatUtcTime(1), "1601-01-01T00:00:00.0000001Z");
    EXPECT_EQ(FormatLocalTime(A_TIME, true), "2001-09-08 22:16:40 -0330");
}

TEST(FileFacts, AttributesHaveLettersAndWords) {
    EXPECT_EQ(FormatAttributes(0x33), "drha");
    EXPECT_EQ(FormatAttributes(0x8020), "---a");
    EXPECT_EQ(NameAttributes(0x11), "folder, read-only");
    EXPECT_EQ(NameAttributes(0x8000), "none");
}

TEST(Table, ColumnsStandBelowOneAnother) {
    const std::vector<std::string> lines =
        FormatTable({{"a", "1", "\x1b[2J"}, {"漢字", "100"}, {"", "", "x"}},
                    {Align::Left, Align::Right, Align::Left});
    EXPECT_EQ(lines, (std::vector<std::string>{"a       1  ?[2J", "漢字  100", "           x"}));
}

TEST(DeviceCommand, ArgumentsComeApartAsTheyWere) {
    const std::vector<std::string> arguments = {"plain", "",  "two words", "it's", "\"",    "\\",
                                                "\\'\"", "*", "$HOME",     "\n",   "größe", "-v"};
    EXPECT_EQ(agent::SplitCommandLine(JoinArguments(arguments)), arguments);
    EXPECT_EQ(JoinArguments({"a", "-b", "/c"}), "a -b /c");
    EXPECT_EQ(JoinArguments({}), "");
}

TEST(DevicePath, ASlashAtTheEndNamesAFolder) {
    EXPECT_TRUE(NamesFolder("/Docs/") && NamesFolder("\\Docs\\") && NamesFolder("/"));
    EXPECT_FALSE(NamesFolder("/Docs") || NamesFolder(""));
}

} // namespace
} // namespace cli
