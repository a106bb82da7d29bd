// What the command makes of texts, names, amounts and times: on the way in, and as it shows them.
#include "agent/command_line.h"
#include "cli/device_command.h"
#include "cli/device_path.h"
#include "cli/file_facts.h"
#include "cli/progress.h"
#include "cli/results.h"
#include "cli/table.h"
#include "cli/text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace cli {
namespace {

constexpr std::uint64_t A_TIME = 126'444'736'001'234'567; // 2001-09-09T01:46:40.1234567Z

// The normal form, its folder and name, and a slash where it stood for a folder.
std::string Path(const char* lpszGiven) {
    const auto strPath = NormalDevicePath(lpszGiven);
    const DEVICEPATH path = SplitDevicePath(strPath.value_or("\\none"));
    return strPath.value_or("none") + " " + path.strFolder + " " + path.strName +
           (NamesFolder(lpszGiven) ? "/" : "");
}

std::string LocalTime(std::uint64_t ftTime, bool bSeconds, const char* lpszZone) {
    std::string strVariable = std::string("TZ=") + lpszZone; // what is to be added to get UTC
    ::putenv(strVariable.data());
    ::tzset();
    const std::string strTime = FormatLocalTime(ftTime, bSeconds);
    ::putenv(const_cast<char*>("TZ="));
    return strTime;
}

TEST(Text, GoesFromOneFormIntoAnother) {
    const PROGRESS progress{"Docs/\xE6\xBC\xA2\xE5\xAD\x97/a long name of a file.bin", 450, 1000,
                            50, 0};
    const char* const lpszWide = "a\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80";
    const WCHAR unpaired[] = {0xD83D, 'x', 0xDE00, 0};
    const struct {
        std::string strIs;
        std::string strWanted;
    } rows[] = {
        {WideToUtf8(DAK_WIDE("a\u00E4\u6F22\U0001F600")), lpszWide},
        {WideToUtf8(Utf8ToWide(lpszWide)->c_str()), lpszWide},
        {WideToUtf8(unpaired), "\xEF\xBF\xBDx\xEF\xBF\xBD"},
        {Printable("a\x1B[2Jb\n\xC2\x9Bm\xFFz"), "a?[2Jb??m\xEF\xBF\xBDz"},
        {FormatBytes(999) + FormatBytes(1000), "999 B1.0 kB"},
        {FormatBytes(999'949) + FormatBytes(999'950), "999.9 kB1.0 MB"},
        {FormatDuration(7) + " " + FormatDuration(3599), "0:07 59:59"},
        {FormatDuration(3723), "1:02:03"},
        {Base64("") + Base64("f") + Base64("fo"), "Zg==Zm8="},
        {Base64(std::string("\xFB\xFF\x00\xBF", 4)), "+/8Avw=="},
        {HexDump(std::string("0123456789abcdef\x00\x7F~", 19)),
         "00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
         "00000010  00 7f 7e                                         ..~\n"},
        {FormatAttributes(0x33) + FormatAttributes(0x8020), "drha---a"},
        {NameAttributes(0x11) + " " + NameAttributes(0x8000), "folder, read-only none"},
        {FormatUtcTime(0) + FormatUtcTime(1), "1601-01-01T00:00:00.0000001Z"},
        {FormatUtcTime(UINT64_MAX), "60056-05-28T05:36:10.9551615Z"},
        {LocalTime(A_TIME, true, "DAK-2"), "2001-09-09 03:46:40 +0200"},
        {LocalTime(1, false, "DAK-2"), "1601-01-01 02:00"},
        {LocalTime(1, true, "DAK3:30"), "1600-12-31 20:30:00 -0330"},
        {LocalTime(A_TIME, true, "DAK3:30"), "2001-09-08 22:16:40 -0330"},
        {LocalTime(0, true, "DAK"), "-"},
        {Path("/Docs/a.txt"), "\\Docs\\a.txt \\Docs a.txt"},
        {Path("Docs//./a\\"), "\\Docs\\a \\Docs a/"},
        {Path("a") + Path("\\"), "\\a \\ a\\ \\ /"},
        {Path("/a/../b"), "\\a\\..\\b \\a\\.. b"},
        {JoinDevicePath("\\", "a") + JoinDevicePath("\\d", "s\\a"), "\\a\\d\\s\\a"},
        {JoinArguments({"a", "-b", "/c"}), "a -b /c"},
        {ExplainOperation(Action::Move, DAKERROR_FAIL, DAKERROR_FAIL).lpszKey, "failed"},
        {ExplainOperation(Action::Move, DAKERROR_FAIL, DAKERROR_NO_SPACE).lpszKey, "no_space"},
        {ExplainOperation(Action::Move, DAKERROR_NO_DEVICE, DAKERROR_NO_DEVICE).strSentence,
         Explain(Action::Move, Stage::Opening, DAKERROR_NO_DEVICE).strSentence},
        {FormatProgress(progress, 100),
         "Docs/\xE6\xBC\xA2\xE5\xAD\x97/a long name of a file.bin  45% [#########-----------]"
         "  50 B/s  0:11 left"},
        {FormatProgress(progress, 40), "...of a file.bin  45%  50 B/s  0:11 left"},
        {FormatProgress({"a", 0, 0, 0, 0}, 79), "a 100% [####################]  finishing"},
        {FormatProgress({"a", 1, 200, 0, 0}, 79), "a   0% [--------------------]"},
        {FormatProgress({"a", 1, 2, 9, 65}, 79),
         "a  50% [##########----------]  waiting for the device 1:05"}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.strIs, row.strWanted);
    }
    for (int nColumns = 0; nColumns < 120; ++nColumns) {
        EXPECT_LE(DisplayWidth(FormatProgress(progress, nColumns)), nColumns);
    }
    EXPECT_EQ(FormatTable({{"a", "1", "\x1b[2J"}, {"漢字", "100"}, {"", "", "x"}},
                          {Align::Left, Align::Right, Align::Left}),
              (std::vector<std::string>{"a       1  ?[2J", "漢字  100", "           x"}));
    const std::vector<std::string> arguments = {"plain", "",  "two words", "it's", "\"",    "\\",
                                                "\\'\"", "*", "$HOME",     "\n",   "größe", "-v"};
    EXPECT_EQ(agent::SplitCommandLine(JoinArguments(arguments)), arguments);
}

TEST(Text, WhatIsNoTextOrNumberIsNotTaken) {
    for (const char* const lpszBad : {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                                      "\xF4\x90\x80\x80", "\xE6\xBC", "\xF0\x9F\x98\x41", "\xFF"}) {
        EXPECT_FALSE(Utf8ToWide(lpszBad) || NormalDevicePath(lpszBad)) << Printable(lpszBad);
    }
    EXPECT_FALSE(NormalDevicePath(""));
    EXPECT_EQ(ParseNumber("0x2A", 255).value() + ParseNumber("0", 255).value(), 42U);
    EXPECT_EQ(ParseNumber("255", 255), 255U);
    for (const char* const lpszBad : {"256", "0x100", "", "0x", "12a", "-1", "+1", " 1", "0x-1",
                                      "1 ", "99999999999999999999"}) {
        EXPECT_FALSE(ParseNumber(lpszBad, 255)) << lpszBad;
    }
}

TEST(Text, OfARecordWithoutTerminatorsNothingBehindAFieldIsTaken) {
    _tagFileInfo info = {};
    std::ranges::fill(info.szText1, DAK_WIDE('n'));
    std::ranges::fill(info.szText2, DAK_WIDE('p'));
    std::ranges::fill(info.szText3, DAK_WIDE('t'));
    info.dwFileAttributes = 0x11;
    info.nFileSizeHigh = 3;
    info.nFileSizeLow = 0xFFFFFFFF;
    info.ftLastWriteTime = {static_cast<DWORD>(A_TIME), static_cast<DWORD>(A_TIME >> 32)};
    const FILEFACTS facts = TakeFacts(info);
    EXPECT_EQ(facts.ShownName() + facts.strPath + facts.strType,
              std::string(260, 'n') + "/" + std::string(260, 'p') + std::string(80, 't'));
    const nlohmann::json object = FactsJson(facts);
    EXPECT_TRUE(object["size"] == 0x3FFFFFFFFU && object["folder"] == true &&
                object["modified"] == "2001-09-09T01:46:40.1234567Z" && object["created"].is_null())
        << object;
}

TEST(Text, TheRateForgetsWhatIsLongAgo) {
    CRateMeter rate;
    const auto at = [](int i) { return CRateMeter::TimePoint{std::chrono::milliseconds(100 * i)}; };
    for (int i = 0; i <= 200; ++i) { // ten seconds at 1000 B/s, then silence
        rate.Add(at(i), 100U * static_cast<unsigned>(std::min(i, 100)));
        EXPECT_TRUE(i != 100 || (rate.BytesPerSecond() == 1000 && rate.IdleSeconds(at(i)) == 0));
    }
    EXPECT_EQ(rate.BytesPerSecond(), 0U);
    EXPECT_EQ(rate.IdleSeconds(at(200)), 10U);
}

} // namespace
} // namespace cli
