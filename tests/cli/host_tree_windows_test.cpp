// Names and entries that a walk meets on this system alone.
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/text.h"
#include "tests/cli/host_tree_support.h"
#include "tests/cli/temp_folder.h"

#include "platform/types.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace cli {
namespace {

TEST(HostTree, PathsWithADriveBeginAtItsRootOrItsCurrentFolder) {
    const CTempFolder folder;
    folder.Write("top/s/a", "1");
    const fs::path old = fs::current_path();
    fs::current_path(ToPath(folder.Path("top")));
    const std::string strHere = PathText(ToPath(folder.Path("top")));
    const std::string strDrive = strHere.substr(0, 2);
    const struct {
        std::string strSource;
        std::string strFolder;
        std::string strName;
    } rows[] = {
        {strHere, folder.Path(), "top\\s\\a"},
        {strHere + "\\s/a", folder.Path("top"), ""},
        {strHere + "/s\\.", strHere + "/s", "a"},
        {strDrive + "s", strDrive + ".", "s\\a"},
        {strDrive + "s\\a", strDrive + "./s", "a"},
        {strDrive, strDrive + ".", "s\\a"},
        {".\\s", ".", "s\\a"},
    };
    for (const auto& row : rows) {
        const HOSTTREE tree = CollectForPush({row.strSource}, "\\");
        ASSERT_EQ(tree.Files(), 1U) << row.strSource;
        const PUSHGROUP& group = tree.groups[0];
        ExpectLibraryFindsNames(group);
        if (!row.strName.empty()) {
            EXPECT_EQ(group.strSource, row.strFolder);
            EXPECT_EQ(group.entries[0].strName, row.strName);
        }
        EXPECT_EQ(HostPath(group.entries[0].strEntry).find('/'), std::string::npos);
    }
    EXPECT_EQ(CollectForPush({strDrive + "\\no such file"}, "\\").groups.size(), 0U);
    fs::current_path(old);
}

// The root of a drive is the one folder whose path ends in a separator.
TEST(HostTree, AFileCanLieInARoot) {
    const CTempFolder folder;
    const std::string strDrive = folder.Path().substr(0, 2);
    const std::string strName = "dak-test-in-root.tmp";
    std::ofstream(ToPath(strDrive + "\\" + strName)) << "1";
    for (const char* const lpszSeparator : {"\\", "/", "\\.\\"}) {
        const HOSTTREE tree = CollectForPush({strDrive + lpszSeparator + strName}, "\\");
        ASSERT_EQ(tree.Files(), 1U) << lpszSeparator;
        EXPECT_EQ(tree.groups[0].entries[0].strName, strName);
        ExpectLibraryFindsNames(tree.groups[0]);
    }
    fs::remove(ToPath(strDrive + "\\" + strName));
    EXPECT_EQ(CollectForPush({"Q:\\"}, "\\").leftOut.size(), 1U);
}

TEST(HostNames, APatternIsWhatItFits) {
    const CTempFolder folder;
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
        std::size_t nFits;
    } rows[] = {
        {"a.???", 2}, {"?.TXT", 3}, {"\xC3\x84.*", 1}, {"*", 6},     {"*.*", 6},
        {"*.", 1},    {"n?ne*", 1}, {"*t*t", 3},       {"**a*k", 1}, {"*txt*b?k*", 1},
    };
    for (const auto& row : rows) {
        const auto paths = ExpandWord(strFolder + row.lpszPattern);
        EXPECT_EQ(paths.size(), row.nFits) << row.lpszPattern;
        EXPECT_NE(paths[0], strFolder + row.lpszPattern);
    }
    for (const std::string& strWord :
         {strFolder + "*.none", strFolder + "a.tx*t?", strFolder + "??", strFolder + "a.txt"}) {
        EXPECT_EQ(ExpandWord(strWord), std::vector<std::string>{strWord});
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
}

TEST(HostNames, WhatTheCodePageLacksIsNotHandedToTheLibrary) {
    // Whoever starts the test says which code page it is meant for.
    const char* const lpszCodePage = std::getenv("DAK_TEST_CODE_PAGE");
    ASSERT_NE(lpszCodePage, nullptr);
    ASSERT_EQ(std::to_string(::GetACP()), lpszCodePage);
    const bool bAll = ::GetACP() == CP_UTF8;
    const struct {
        const char* lpszText;
        bool bFits; // code page 1252
    } rows[] = {
        {"plain", true},
        {"\xC3\xA4", true},
        {"\xE6\xBC\xA2", false},
        {"\xEF\xBC\x8F", false}, // only looks like a slash
    };
    for (const auto& row : rows) {
        const auto strNarrow = ToLibraryText(row.lpszText);
        EXPECT_EQ(strNarrow.has_value(), bAll || row.bFits) << row.lpszText;
        if (strNarrow) {
            EXPECT_EQ(FromLibraryText(strNarrow->c_str()), row.lpszText);
        }
    }
}

// Half of a character, which a name of this system may hold, is no text.
TEST(HostNames, OfHalfACharacterIsNoUtf8) {
    EXPECT_FALSE(Utf8ToWide(PathText(fs::path(L"a\xD83D"
                                              L"b"))));
    EXPECT_EQ(PathText(fs::path(L"a\xD83D\xDE00")), "a\xF0\x9F\x98\x80");
}

} // namespace
} // namespace cli
