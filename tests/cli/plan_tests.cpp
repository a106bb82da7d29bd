// What a push takes of this computer's folders, what of it has arrived for certain, and what a pull
// has brought.
#include "cli/arrivals.h"
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/pushed_file.h"
#include "tests/support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace cli {
namespace {

namespace fs = std::filesystem;

// In a folder of its own, so that paths below it are the same on every system.
class Plan : public testing::Test {
  protected:
    Plan() { fs::current_path(folder.Folder()); }
    ~Plan() override { fs::current_path(m_old); }

    // Each job with its folder, what is left out behind "-", empty folders behind "0".
    static std::string Push(const std::vector<std::string>& sources) {
        const HOSTTREE tree = CollectForPush(sources, "\\d");
        std::string strPlan;
        const auto add = [&](const char* lpszMark, std::string strPath) {
            std::ranges::replace(strPath, '\\', '/');
            strPlan += lpszMark + strPath;
        };
        for (const PUSHGROUP& group : tree.groups) {
            add(" ", group.strSource + ":");
            for (const HOSTENTRY& entry : group.entries) {
                add(" ", entry.strName);
                // What the library cuts off an entry: the source folder and one separator.
                EXPECT_EQ(entry.strEntry.substr(group.strSource.size() + 1), entry.strName);
                EXPECT_TRUE(fs::exists(ToPath(HostPath(entry.strEntry)))) << entry.strEntry;
            }
        }
        for (const LEFTOUT& entry : tree.leftOut) {
            add(" -", entry.strPath);
        }
        for (const std::string& strFolder : tree.emptyFolders) {
            add(" 0", strFolder);
        }
        return strPlan;
    }

    const test::CTempFolder folder;
    const fs::path m_old = fs::current_path();
};

TEST_F(Plan, APushTakesWhatCanTravelInOrder) {
    folder.Write("top", {{"b/2", "22"}, {"b/1", "1"}, {"a", ""}, {"\xE6\xBC\xA2/\xC3\xA4", "x"}});
    fs::create_directory("top/empty");
    folder.Write(".", {{"x/a", "1"}, {"x/c", "1"}, {"y/b", "1"}, {"y/a", "1"}});
    folder.Write("kept", {{".DAK-a", ""}, {".dak", ""}, {"..dak-a", ""}});
    EXPECT_EQ(CollectForPush({"top"}, "\\d").Bytes(), 4U);
    const struct {
        std::vector<std::string> sources;
        std::string strPlan;
    } rows[] = {
        {{"top/"}, " .: top/a top/b/1 top/b/2 top/\xE6\xBC\xA2/\xC3\xA4 0top/empty"},
        {{"top/b/."}, " top/b: 1 2"},
        {{"top/b/.."}, " top/b/..: a b/1 b/2 \xE6\xBC\xA2/\xC3\xA4 0top/b/../empty"},
        {{"x/a", "y/b", "x/c", "y/a"}, " x: a c y: b -y/a"}, // it would land on x/a
        {{"none", "x/a"}, " x: a -none"},
        {{"kept"}, " .: kept/..dak-a kept/.dak -kept/.DAK-a"}, // what a device keeps for itself
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Push(row.sources), row.strPlan);
    }
}

// In a path of this computer, and in one of the device.
TEST_F(Plan, PathsFitTheLibrarysBuffers) {
    folder.Write(std::string(200, 'a'), {{std::string(56, 'b'), "1"}, {std::string(57, 'c'), "1"}});
    EXPECT_EQ(CollectForPush({"."}, "\\").Files(), 1U); // "./", 200, a separator, 56: 259 bytes
    folder.Write("f", "1");
    EXPECT_EQ(CollectForPush({"f"}, "\\" + std::string(256, 'd')).Files(), 1U);
    EXPECT_EQ(CollectForPush({"f"}, "\\" + std::string(257, 'd')).Files(), 0U);
}

// Package k of the stream ends behind byte 12274 * k; the device confirms packages 1, 51, 101, ...
TEST_F(Plan, OnlyConfirmedWindowsCount) {
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

// Times are of two seconds on some devices; nothing is said of those that not every device can
// keep.
TEST_F(Plan, ThePushedFileIsToldFromAnother) {
    constexpr std::uint64_t qw2001 = 126'444'736'000'000'000; // 1'000'000'000 since 1970
    const auto judge = [](int nSent, bool bFolder, std::uint64_t qwSize, std::uint64_t qwWritten) {
        const std::chrono::sys_seconds time{std::chrono::seconds(nSent)};
        const DEVICEENTRY found{"n", bFolder, qwSize, qwWritten, 0};
        return JudgePushed({"s/n", "n", 5, fs::file_time_type::clock::from_sys(time), 1}, &found);
    };
    EXPECT_EQ(judge(1'000'000'000, false, 5, qw2001 - 20'000'000), Fate::There);
    EXPECT_EQ(judge(1'000'000'000, false, 5, qw2001 - 20'000'001), Fate::OtherTime);
    EXPECT_EQ(judge(1'000'000'000, false, 5, UINT64_MAX), Fate::OtherTime);
    EXPECT_EQ(judge(1'000'000'000, false, 5, 0), Fate::There);
    EXPECT_EQ(judge(0, false, 5, qw2001), Fate::There);
    EXPECT_EQ(judge(1'000'000'000, false, 6, qw2001), Fate::OtherSize);
    EXPECT_EQ(judge(1'000'000'000, true, 5, qw2001), Fate::Missing);
    EXPECT_EQ(RoomNeeded({{5, 0}, {5, 9}, {3, 0}}), 10U);
    EXPECT_EQ(RoomNeeded({{5, 9}, {5, UINT64_MAX}, {8, 0}}), 5U);
}

TEST_F(Plan, NewAndReplacedFilesArriveAndOthersDoNot) {
    folder.Write(".", {{"old", "1"}, {"same", "1"}, {"dir/kept", "1"}, {"dir/same", "1"}});
    const CArrivals arrivals(".", {"new", "old", "same", "dir", "newdir", "absent", "emptydir"});
    EXPECT_TRUE(arrivals.Arrived().empty());
    // The same bytes and times under the same name, as a second pull of the same file brings them.
    for (const char* const lpszName : {"same", "dir/same"}) {
        folder.Write("part", "1");
        fs::last_write_time("part", fs::last_write_time(lpszName));
        fs::rename("part", lpszName);
    }
    folder.Write(".", {{"new", "123"}, {"newdir/s/a", "12"}, {"unwanted", "1"}});
    fs::create_directory("emptydir");
    std::string strArrived;
    for (const ARRIVAL& file : arrivals.Arrived()) {
        strArrived +=
            ToPath(file.strPath).generic_string() + " " + std::to_string(file.qwSize) + "; ";
    }
    EXPECT_EQ(strArrived, "./dir/same 1; ./new 3; ./newdir/s/a 2; ./same 1; ");
    EXPECT_EQ(arrivals.Missing(), (std::vector<std::string>{"old", "absent", "emptydir"}));
}

} // namespace
} // namespace cli
