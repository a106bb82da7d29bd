// What a push takes of this computer's folders, what of it has arrived for certain, and what a pull
// asks for and puts into place.
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/pull_folder.h"
#include "cli/pull_plan.h"
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

// Of a wanted folder d and a wanted file f: folders have a slash, '+' has come, '!' would end a
// copy of its folder, '?' is not wholly known. Then what is asked for, the empty folders, the
// missing.
TEST_F(Plan, APullAsksForWhatIsDueAndNamesWhatIsMissing) {
    const std::pair<std::string, std::string> rows[] = {
        {"d/ d\\a d\\s/ d\\s\\b f", "d f ; ; \\d \\f "},
        {"d/ d\\a! d\\s/ d\\s\\b d\\s\\c+", "d\\s\\b ; ; \\d\\a \\d\\s\\b "},
        {"d/ d\\s/! d\\u/? d\\v/ d\\v\\a+ f+", "d\\u ; ; \\d\\s "},
        {"d/ d\\e/ d\\e\\g/ f", "f ; d d\\e d\\e\\g ; \\f "},
        {"d/ d\\n234567/ d\\n234567\\x d\\a", "d\\a ; ; \\d \\d\\n234567 "},
    };
    PULLGROUP group;
    for (const auto& [strEntries, strPlan] : rows) {
        group = {"\\", {"d", "f"}, {}, {}};
        std::istringstream stream(strEntries);
        for (std::string strName; stream >> strName;) {
            const auto has = [&](char ch) { return strName.find(ch) != strName.npos; };
            const std::string strOnly = strName.substr(0, strName.find_first_of("/+!?"));
            group.Add({strOnly, has('/'), 0, 0, has('?'), has('!'), has('+'), has('!') ? "!" : ""});
        }
        LeaveOutWhatCannotCome(group, 8);
        std::vector<LEFTOUT> missing;
        AddMissing(group, "", missing);
        std::string strFound;
        const auto add = [&](const std::string& strName) { strFound += strName + " "; };
        std::ranges::for_each(NamesToAsk(group), add);
        add(";");
        std::ranges::for_each(EmptyFolders(group), add);
        add(";");
        std::ranges::for_each(missing, add, &LEFTOUT::strPath);
        EXPECT_EQ(strFound, strPlan) << strEntries;
    }
    EXPECT_EQ(AskedName(group, "D\\x"), "d\\x");
    EXPECT_FALSE(AskedName(group, "Makefile") || AskedName(group, "dd\\x"));
}

// Of folders like a pull's own there are a dead one's and one that only looks so, and a live one.
TEST_F(Plan, APullPutsFilesIntoPlaceAndLeavesNothingElse) {
    test::TREE tree = {{"folder/x", "x"}, {"file", "f"}, {".dak-pull-0123/a", "a"}};
    folder.Write("dest", tree);
    folder.Write("dest/.dak-pull-4567", {{"pull", ""}, {"i/d/part", "p"}});
    {
        CPullFolder pull("dest");
        ASSERT_FALSE(pull.Make());
        CPullFolder("dest").ClearDead();
        std::ofstream(ToPath(pull.LibraryPath()) / "new") << "new";
        EXPECT_FALSE(pull.Place("new", "folder").empty() || pull.Place("new", "file\\x").empty());
        EXPECT_EQ(pull.Place("new", "s\\t\\new"), "");
    }
    tree["s/t/new"] = "new";
    EXPECT_TRUE(test::ReadTree("dest") == tree && !fs::exists("dest/.dak-pull-4567"));
}

} // namespace
} // namespace cli
