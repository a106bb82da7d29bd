#include "cli/device_path.h"
#include "cli/progress.h"
#include "cli/text.h"

#include <gtest/gtest.h>

#include <chrono>

namespace cli {
namespace {

TEST(Text, Utf8IsTakenOnlyWhenItIsUtf8) {
    EXPECT_EQ(Utf8ToWide("a\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80"),
              DAK_WIDE("a\u00E4\u6F22\U0001F600"));
    const char* const bad[] = {"\x80",         "\xC3",
                               "\xC0\xAF",     "\xE0\x80\xAF",
                               "\xED\xA0\x80", "\xF4\x90\x80\x80",
                               "\xE6\xBC",     "\xF0\x9F\x98\x41",
                               "\xFF"};
    for (const char* const lpszBad : bad) {
        EXPECT_FALSE(Utf8ToWide(lpszBad)) << Printable(lpszBad);
    }
    EXPECT_EQ(WideToUtf8(DAK_WIDE("a\u00E4\u6F22\U0001F600")),
              "a\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80");
    const WCHAR unpaired[] = {0xD83D, 'x', 0xDE00, 0};
    EXPECT_EQ(WideToUtf8(unpaired), "\xEF\xBF\xBDx\xEF\xBF\xBD");
}

TEST(Text, ANameCannotSteerTheTerminal) {
    EXPECT_EQ(Printable("a\x1B[2Jb\n\xC2\x9Bm\xFFz"), "a?[2Jb??m\xEF\xBF\xBDz");
}

TEST(Text, AmountsReadAsPeopleWriteThem) {
    EXPECT_EQ(FormatBytes(999), "999 B");
    EXPECT_EQ(FormatBytes(1000), "1.0 kB");
    EXPECT_EQ(FormatBytes(999'949), "999.9 kB");
    EXPECT_EQ(FormatBytes(999'950), "1.0 MB");
    EXPECT_EQ(FormatBytes(4'294'967'295), "4.3 GB");
    EXPECT_EQ(FormatDuration(7), "0:07");
    EXPECT_EQ(FormatDuration(3599), "59:59");
    EXPECT_EQ(FormatDuration(3723), "1:02:03");
}

TEST(Text, DevicePathsBecomeNormal) {
    const struct {
        const char* lpszGiven;
        const char* lpszNormal;
        const char* lpszFolder;
        const char* lpszName;
    } rows[] = {
        {"/Docs/a.txt", "\\Docs\\a.txt", "\\Docs", "a.txt"},
        {"Docs//./a\\", "\\Docs\\a", "\\Docs", "a"},
        {"a", "\\a", "\\", "a"},
        {"\\", "\\", "\\", ""},
        {".", "\\", "\\", ""},
        {"/a/../b", "\\a\\..\\b", "\\a\\..", "b"},
    };
    for (const auto& row : rows) {
        const auto strNormal = NormalDevicePath(row.lpszGiven);
        ASSERT_TRUE(strNormal) << row.lpszGiven;
        EXPECT_EQ(*strNormal, row.lpszNormal);
        EXPECT_EQ(SplitDevicePath(*strNormal).strFolder, row.lpszFolder);
        EXPECT_EQ(SplitDevicePath(*strNormal).strName, row.lpszName);
    }
    EXPECT_FALSE(NormalDevicePath(""));
    EXPECT_FALSE(NormalDevicePath("/\xFF"));
    EXPECT_EQ(JoinDevicePath("\\", "a"), "\\a");
    EXPECT_EQ(JoinDevicePath("\\d", "s\\a"), "\\d\\s\\a");
}

TEST(Progress, ALineFitsItsTerminal) {
    const PROGRESS progress{"Docs/\xE6\xBC\xA2\xE5\xAD\x97/a long name of a file.bin", 450, 1000,
                            50, 0};
    EXPECT_EQ(FormatProgress(progress, 100),
              "Docs/\xE6\xBC\xA2\xE5\xAD\x97/a long name of a file.bin  45% [#########-----------]"
              "  50 B/s  0:11 left");
    for (int nColumns = 0; nColumns < 120; ++nColumns) {
        EXPECT_LE(DisplayWidth(FormatProgress(progress, nColumns)), nColumns);
    }
    EXPECT_EQ(FormatProgress(progress, 40), "...of a file.bin  45%  50 B/s  0:11 left");
}

TEST(Progress, SaysWhatItIsWaitingFor) {
    EXPECT_EQ(FormatProgress({"a", 0, 0, 0, 0}, 79), "a 100% [####################]  finishing");
    EXPECT_EQ(FormatProgress({"a", 1, 200, 0, 0}, 79), "a   0% [--------------------]");
    EXPECT_EQ(FormatProgress({"a", 1, 2, 9, 65}, 79),
              "a  50% [##########----------]  waiting for the device 1:05");
}

TEST(Progress, TheRateForgetsWhatIsLongAgo) {
    const CRateMeter::TimePoint start{};
    CRateMeter rate;
    for (int i = 0; i <= 100; ++i) { // ten seconds at 1000 B/s, then silence
        rate.Add(start + std::chrono::milliseconds(100 * i), 100U * static_cast<unsigned>(i));
    }
    EXPECT_EQ(rate.BytesPerSecond(), 1000U);
    EXPECT_EQ(rate.IdleSeconds(start + std::chrono::seconds(10)), 0U);
    for (int i = 101; i <= 200; ++i) {
        rate.Add(start + std::chrono::milliseconds(100 * i), 10000);
    }
    EXPECT_EQ(rate.BytesPerSecond(), 0U);
    EXPECT_EQ(rate.IdleSeconds(start + std::chrono::seconds(20)), 10U);
}

TEST(Text, NumbersAreWholeAndWithinTheirBound) {
    const struct {
        const char* lpszText;
        std::optional<std::uint64_t> qwValue;
    } rows[] = {{"0", 0},     {"42", 42},   {"0x2A", 42},  {"0XfF", 255},
                {"255", 255}, {"256", {}},  {"0x100", {}}, {"", {}},
                {"0x", {}},   {"12a", {}},  {"-1", {}},    {"+1", {}},
                {" 1", {}},   {"0x-1", {}}, {"1 ", {}},    {"99999999999999999999", {}}};
    for (const auto& row : rows) {
        EXPECT_EQ(ParseNumber(row.lpszText, 255), row.qwValue) << row.lpszText;
    }
}

TEST(Text, BytesAreShownAndPackedWhole) {
    EXPECT_EQ(Base64(""), "");
    EXPECT_EQ(Base64("f"), "Zg==");
    EXPECT_EQ(Base64("fo"), "Zm8=");
    EXPECT_EQ(Base64(std::string("\xFB\xFF\x00\xBF", 4)), "+/8Avw==");
    EXPECT_EQ(HexDump(""), "");
    EXPECT_EQ(HexDump(std::string("0123456789abcdef\x00\x7F~", 19)),
              "00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "00000010  00 7f 7e                                         ..~\n");
}

} // namespace
} // namespace cli
