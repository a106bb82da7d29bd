#include "cli/host_tree.h"
#include "tests/cli/host_tree_support.h"
#include "tests/cli/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

namespace fs = std::filesystem;

namespace cli {
namespace {

TEST(HostTree, FoldersAreWalkedInOrderWithBackslashesBelowTheSource) {
    const CTempFolder folder;
    folder.Write("top/b/2.txt", "22");
    folder.Write("top/b/1.txt", "1");
    folder.Write("top/a.txt", "");
    folder.Write("top/\xE6\xBC\xA2/\xC3\xA4.txt", "x");
    fs::create_directory(ToPath(folder.Path("top/empty")));

    const HOSTTREE tree = CollectForPush({folder.Path("top/")}, "\\d");
    ASSERT_EQ(tree.groups.size(), 1U);
    EXPECT_EQ(tree.groups[0].strSource, folder.Path());
    EXPECT_EQ(Names(tree.groups[0]),
              (std::vector<std::string>{"top\\a.txt", "top\\b\\1.txt", "top\\b\\2.txt",
                                        "top\\\xE6\xBC\xA2\\\xC3\xA4.txt"}));
    ExpectLibraryFindsNames(tree.groups[0]);
    EXPECT_TRUE(tree.leftOut.empty());
    EXPECT_EQ(tree.emptyFolders, std::vector<std::string>{folder.Path("top/empty")});
    EXPECT_EQ(tree.Bytes(), 4U);
}

TEST(HostTree, SourcesOfOneParentShareAJob) {
    const CTempFolder folder;
    folder.Write("x/a", "1");
    folder.Write("x/c", "1");
    folder.Write("y/b", "1");
    folder.Write("y/a", "1");
    const HOSTTREE tree = CollectForPush(
        {folder.Path("x/a"), folder.Path("y/b"), folder.Path("x/c"), folder.Path("y/a")}, "\\");
    ASSERT_EQ(tree.groups.size(), 2U);
    EXPECT_EQ(Names(tree.groups[0]), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(Names(tree.groups[1]), (std::vector<std::string>{"b"}));
    ExpectLibraryFindsNames(tree.groups[0]);
    ExpectLibraryFindsNames(tree.groups[1]);
    // y/a would land on x/a.
    ASSERT_EQ(tree.leftOut.size(), 1U);
    EXPECT_EQ(tree.leftOut[0].strPath, folder.Path("y/a"));
}

TEST(HostTree, APathEndingInADotStandsForTheContents) {
    const CTempFolder folder;
    folder.Write("top/a", "1");
    folder.Write("top/s/b", "1");
    for (const char* const lpszPath : {"top/.", "top/./", "top/s/.."}) {
        const HOSTTREE tree = CollectForPush({folder.Path(lpszPath)}, "\\");
        ASSERT_EQ(tree.groups.size(), 1U) << lpszPath;
        EXPECT_EQ(Names(tree.groups[0]), (std::vector<std::string>{"a", "s\\b"}));
        ExpectLibraryFindsNames(tree.groups[0]);
    }
}

TEST(HostTree, PathsFitTheLibrarysBuffers) {
    const CTempFolder folder;
    const std::size_t nRoom = 259 - folder.Path().size() - 1;
    folder.Write(std::string(nRoom - 2, 'a') + "/b", "1"); // 259 bytes
    folder.Write(std::string(nRoom - 2, 'c') + "/dd", "1");
    const HOSTTREE tree = CollectForPush({folder.Path(".")}, "\\");
    ASSERT_EQ(tree.Files(), 1U);
    EXPECT_EQ(tree.groups[0].entries[0].strEntry.size(), 259U);
}

TEST(HostTree, TheDevicesPathCountsToo) {
    const CTempFolder folder;
    folder.Write("a", "1");
    EXPECT_EQ(CollectForPush({folder.Path("a")}, "\\" + std::string(256, 'd')).Files(), 1U);
    EXPECT_EQ(CollectForPush({folder.Path("a")}, "\\" + std::string(257, 'd')).Files(), 0U);
}

TEST(HostTree, ChangesDuringACopyAreSeen) {
    const CTempFolder folder;
    for (const char* const lpszName : {"gone", "grown", "same", "touched"}) {
        folder.Write(std::string("t/") + lpszName, "1");
    }
    const HOSTTREE tree = CollectForPush({folder.Path("t")}, "\\");
    EXPECT_TRUE(ChangedSince(tree.groups[0]).empty());
    fs::remove(folder.Path("t/gone"));
    folder.Write("t/grown", "22");
    fs::last_write_time(folder.Path("t/touched"),
                        fs::file_time_type::clock::now() + std::chrono::hours(1));
    const std::vector<CHANGED> changed = ChangedSince(tree.groups[0]);
    ASSERT_EQ(changed.size(), 3U);
    EXPECT_EQ(changed[0].nEntry, 0U);
    EXPECT_EQ(changed[1].nEntry, 1U);
    EXPECT_EQ(changed[2].nEntry, 3U);
}

// Package k of the stream ends behind byte 12274 * k; the device confirms packages 1, 51, 101, ...
TEST(HostTree, OnlyConfirmedWindowsCount) {
    constexpr std::uint64_t qwPackage = 12274;
    constexpr std::uint64_t qwHead = 8 + 16 + 2 * 2; // of a record with a name of one character
    const auto entry = [](std::uint64_t qwSize) { return HOSTENTRY{"s/n", "n", qwSize, {}, 1}; };
    const std::uint64_t qwFirst = qwPackage - 4 - qwHead;   // ends with package 1
    const std::uint64_t qwSecond = 50 * qwPackage - qwHead; // ends with package 51
    const PUSHGROUP group{"s", {entry(qwFirst), entry(qwSecond), entry(0), entry(5'000'000)}};
    const struct {
        std::size_t nCurrent;
        std::uint64_t qwCopied;
        std::size_t nConfirmed;
    } rows[] = {{0, 0, 0},
                {0, qwFirst - 1, 0},
                {0, qwFirst, 1},
                {1, 0, 1},
                {1, qwSecond - 1, 1},
                {1, qwSecond, 2},
                {2, 0, 2},
                {3, 0, 2},
                {3, 49 * qwPackage, 2},
                {3, 50 * qwPackage, 3},
                {3, 5'000'000, 3}};
    for (const auto& row : rows) {
        EXPECT_EQ(ConfirmedFiles(group, row.nCurrent, row.qwCopied), row.nConfirmed)
            << row.nCurrent << " " << row.qwCopied;
    }
    // One byte behind the confirmed package.
    EXPECT_EQ(ConfirmedFiles({"s", {entry(qwFirst + 1)}}, 0, qwFirst + 1), 0U);
}

} // namespace
} // namespace cli
