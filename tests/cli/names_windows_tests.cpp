// Names and paths that a walk meets on this system alone.
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/text.h"
#include "platform/types.h"
#include "tests/support/temp_folder.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

namespace fs = std::filesystem;

TEST(HostNames, PathsWithADriveBeginAtItsRootOrItsCurrentFolder) {
    const test::CTempFolder folder;
    folder.Write("top/s/a", "1");
    const fs::path old = fs::current_path();
    fs::current_path(folder / "top");
    const std::string strHere = PathText(fs::current_path());
    const std::string strDrive = strHere.substr(0, 2);
    const std::string strInRoot = "dak-test-in-root.tmp"; // the one folder that ends in a separator
    std::ofstream(ToPath(strDrive + "\\" + strInRoot)) << "1";
    for (const auto& [strSource, strName] : std::vector<std::pair<std::string, std::string>>{
             {strHere, "top\\s\\a"},
             {strHere + "\\s/a", "a"},
             {strHere + "/s\\.", "a"},
             {strDrive + "s", "s\\a"},
             {strDrive + "s\\a", "a"},
             {strDrive, "s\\a"},
             {".\\s", "s\\a"},
             {strDrive + "\\" + strInRoot, strInRoot},
             {strDrive + "/" + strInRoot, strInRoot},
             {strDrive + "\\.\\" + strInRoot, strInRoot}}) {
        const HOSTTREE tree = CollectForPush({strSource}, "\\");
        ASSERT_EQ(tree.Files(), 1U) << strSource;
        const std::string& strEntry = tree.groups[0].entries[0].strEntry;
        EXPECT_EQ(tree.groups[0].entries[0].strName, strName) << strSource;
        EXPECT_EQ(strEntry.substr(tree.groups[0].strSource.size() + 1), strName);
        EXPECT_TRUE(fs::exists(ToPath(HostPath(strEntry)))) << strSource;
        EXPECT_EQ(HostPath(strEntry).find('/'), std::string::npos);
    }
    EXPECT_EQ(CollectForPush({strDrive + "\\no such file", "Q:\\"}, "\\").leftOut.size(), 2U);
    fs::remove(ToPath(strDrive + "\\" + strInRoot));
    fs::current_path(old);
}

TEST(HostNames, APatternIsWhatItFits) {
    const test::CTempFolder folder;
    for (const char* const lpszName :
         {"b.txt", "\xC3\xA4.txt", "a.txt", "a.bin", "a.txtbak", "none"}) {
        folder.Write(lpszName, "1");
    }
    const std::string strFolder = folder.Path() + "/";
    EXPECT_EQ(ExpandWord(strFolder + "*.txt"),
              (std::vector<std::string>{strFolder + "a.txt", strFolder + "b.txt",
                                        strFolder + "\xC3\xA4.txt"}));
    const struct {
        const char* lpszPattern;
        std::size_t nFits; // 0: it stays as it is
    } rows[] = {{"a.???", 2},  {"?.TXT", 3},   {"\xC3\x84.*", 1}, {"*", 6},     {"*.*", 6},
                {"*.", 1},     {"n?ne*", 1},   {"*t*t", 3},       {"**a*k", 1}, {"*txt*b?k*", 1},
                {"*.none", 0}, {"a.tx*t?", 0}, {"??", 0},         {"a.txt", 0}};
    for (const auto& row : rows) {
        const auto paths = ExpandWord(strFolder + row.lpszPattern);
        EXPECT_EQ(paths.size(), std::max<std::size_t>(row.nFits, 1)) << row.lpszPattern;
        EXPECT_EQ(paths[0] == strFolder + row.lpszPattern, row.nFits == 0) << row.lpszPattern;
    }
}

TEST(HostNames, OfTheDeviceThatNoFileHereCanHaveAreKnown) {
    for (const char* const lpszName : {"a:b", "a?", "a<b", "\"", "a\tb", "a/b", "a.", "a ", "NUL",
                                       "com1", "Com0 .txt", "lpt9.a.b", "conin$"}) {
        EXPECT_NE(NameFault(lpszName), nullptr) << lpszName;
    }
    for (const char* const lpszName :
         {"a", ".a", "a b", "nulls", "com", "com10", "coma", "a.nul", "\xE6\xBC\xA2"}) {
        EXPECT_EQ(NameFault(lpszName), nullptr) << lpszName;
    }
    EXPECT_EQ(NameKey("Gr\xC3\xB6\xC3\x9F"
                      "e"),
              NameKey("gR\xC3\x96\xC3\x9F"
                      "E"));
    EXPECT_NE(NameKey("a"), NameKey("b"));
    EXPECT_FALSE(Utf8ToWide(PathText(fs::path(L"a\xD83D"
                                              L"b")))); // half a character is no text
}

// Whoever starts the test says which code page it is meant for.
TEST(HostNames, WhatTheCodePageLacksIsNotHandedToTheLibrary) {
    const char* const lpszCodePage = std::getenv("DAK_TEST_CODE_PAGE");
    ASSERT_EQ(std::to_string(::GetACP()), lpszCodePage != nullptr ? lpszCodePage : "");
    const struct {
        const char* lpszText;
        bool bFits; // code page 1252
    } rows[] = {{"plain", true},
                {"\xC3\xA4", true},
                {"\xE6\xBC\xA2", false},
                {"\xEF\xBC\x8F", false}}; // only looks like a slash
    for (const auto& row : rows) {
        const auto strNarrow = ToLibraryText(row.lpszText);
        EXPECT_EQ(strNarrow.has_value(), ::GetACP() == CP_UTF8 || row.bFits) << row.lpszText;
        EXPECT_TRUE(!strNarrow || FromLibraryText(strNarrow->c_str()) == row.lpszText);
    }
}

} // namespace
} // namespace cli
