// The command as a shell and a program see it: exit statuses, sentences, JSON, signals.
#include "tests/end_to_end/processes.h"

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <set>

namespace end_to_end {
namespace {

using nlohmann::json;

// What a verb with --json has said: the object and nothing else, in agreement with the exit status.
json JsonOf(CProgram& program, const std::string& strVerb, int nExit) {
    EXPECT_EQ(program.End(), nExit) << program.Output();
    EXPECT_EQ(program.Errors(), "");
    json object = json::parse(program.Output(), nullptr, false);
    EXPECT_TRUE(object.is_object() && object["verb"] == strVerb && object["exit"] == nExit &&
                object["message"] != "")
        << program.Output();
    return object;
}

json RunJson(CWorld& world, std::vector<std::string> arguments, int nExit) {
    arguments.insert(arguments.begin() + 1, "--json");
    return JsonOf(*world.Run(arguments), arguments[0], nExit);
}

TEST(Command, SaysHowItWent) {
    CWorld world;
    EXPECT_EQ(RunJson(world, {"status"}, 3)["result"], "no_device");
    world.Write("host", {{"f", "f"}});
    EXPECT_EQ(RunJson(world, {"push", "f", "/"}, 3)["result"], "no_device");
    EXPECT_EQ(RunJson(world, {"pull", "/f", "made"}, 3)["result"], "no_device");
    EXPECT_FALSE(fs::exists(world.Path("host/made")));
    world.StartAgent();

    const struct {
        std::vector<std::string> arguments;
        int nExit;
        const char* lpszResult;
    } cases[] = {
        {{"status"}, 0, "ok"},
        {{"mkdir", "/Docs"}, 0, "ok"},
        {{"mkdir", "/Docs"}, 5, "failed"},
        {{"mkdir", "/none/Docs"}, 5, "failed"},
        {{"rm", "/Docs"}, 0, "ok"},
        {{"rm", "/Docs"}, 5, "failed"},
        {{"push", "none", "/Docs"}, 1, "nothing"},
        {{"pull", "/f", "f"}, 8, "host"},
        {{"rm", ""}, 2, "usage"},
    };
    for (const auto& [arguments, nExit, lpszResult] : cases) {
        SCOPED_TRACE(arguments[0] + " " + arguments.back());
        EXPECT_EQ(RunJson(world, arguments, nExit)["result"], lpszResult);
    }
    EXPECT_EQ(world.Exit({"fly"}), 2);
    EXPECT_EQ(world.Exit({"push", "f"}), 2);

    for (const int nExit : {0, 5}) {
        const std::unique_ptr<CProgram> pQuiet = world.Run({"mkdir", "--quiet", "/Docs"});
        EXPECT_EQ(pQuiet->End(), nExit);
        EXPECT_EQ(pQuiet->Output(), "");
        EXPECT_EQ(pQuiet->Errors().starts_with("dak: \\Docs: "), nExit != 0) << pQuiet->Errors();
    }
}

TEST(Command, NamesWhatACopyCannotCarryAndCopiesTheRest) {
    CWorld world;
    world.StartAgent();
    const TREE photos = {{"one.jpg", Content(50'000, 1)}, {"trip/two.jpg", "two"}};
    world.Write("host/photos", photos);
    fs::create_directory(world.Path("host/photos/nobody"));
    fs::create_symlink("nowhere", world.Path("host/photos/dangling"));
    ASSERT_EQ(::mkfifo(world.Path("host/photos/pipe").c_str(), 0600), 0);
    world.Write("host/photos", {{"huge", ""}});
    fs::resize_file(world.Path("host/photos/huge"), std::uintmax_t{1} << 32);

    const json push = RunJson(world, {"push", "photos", "absent", "/Docs"}, 1);
    EXPECT_EQ(push["result"], "partial");
    EXPECT_EQ(push["files_arrived"], 2);
    EXPECT_EQ(push["bytes_arrived"], 50'003);
    EXPECT_EQ(push["empty_folders"], json::array({"photos/nobody"}));
    std::set<std::string> leftOut;
    for (const json& entry : push["left_out"]) {
        leftOut.insert(entry["path"]);
    }
    EXPECT_EQ(leftOut,
              (std::set<std::string>{"absent", "photos/dangling", "photos/huge", "photos/pipe"}));
    EXPECT_TRUE(ReadTree(world.Path("device/Docs/photos")) == photos);

    // The destination is made, and what the device does not have is named.
    const std::unique_ptr<CProgram> pPull =
        world.Run({"pull", "--quiet", "/Docs/photos", "/Docs/absent", "back/to"});
    EXPECT_EQ(pPull->End(), 1);
    EXPECT_TRUE(pPull->Says("\\Docs\\absent") && !pPull->Says("photos")) << pPull->Errors();
    EXPECT_TRUE(ReadTree(world.Path("host/back/to/photos")) == photos);
}

TEST(Command, ListsAndDescribesWhatIsThere) {
    CWorld world;
    world.Write("device/Docs", {{"b.txt", "bb"}, {"a\x1b[2Jb", "a"}, {"trip/c", "c"}});
    fs::create_directory(world.Path("device/empty"));
    world.StartAgent();
    EXPECT_EQ(world.Run({"ls", "/Docs"})->Output(), "a?[2Jb\nb.txt\ntrip/\n");
    EXPECT_EQ(world.Run({"ls"})->Output(), "Docs/\nempty/\n");
    const std::string strLong = world.Run({"ls", "-l", "/Docs/?.txt"})->Output();
    EXPECT_TRUE(strLong.starts_with("---a  2  20") && strLong.ends_with("  b.txt\n")) << strLong;

    // A listing that says nothing is told apart.
    EXPECT_EQ(RunJson(world, {"ls", "/empty"}, 0)["entries"], json::array());
    EXPECT_EQ(RunJson(world, {"ls", "/none"}, 5)["result"], "failed");
    EXPECT_EQ(RunJson(world, {"ls", "/none/*"}, 5)["result"], "failed");
    EXPECT_EQ(RunJson(world, {"ls", "/Docs/*.jpg"}, 1)["result"], "nothing");

    json entry = RunJson(world, {"ls", "/Docs/b*"}, 0)["entries"][0];
    const json stat = RunJson(world, {"stat", "Docs/b.txt/"}, 0);
    EXPECT_EQ(stat["path"], "\\Docs\\b.txt");
    EXPECT_EQ(stat["size"], 2);
    EXPECT_EQ(stat["type"], "TXT file");
    for (const auto& [strKey, value] : entry.items()) {
        EXPECT_EQ(stat[strKey], value) << strKey;
    }
    EXPECT_EQ(RunJson(world, {"stat", "/Docs"}, 0)["folder"], true);
    EXPECT_EQ(RunJson(world, {"stat", "/none"}, 5)["path"], "\\none");
}

TEST(Command, CarriesBytesAsTheyAre) {
    CWorld world;
    world.StartAgent();
    const std::string strBig = Content(4'200'000, 1); // more than one operation takes
    const std::string strSome = Content(200'000, 2);  // more than a pipe takes
    world.Write("host", {{"big", strBig}, {"some", strSome}, {"none", ""}});
    world.Write("device", {{"old", "old"}, {"Docs/f", "f"}});
    EXPECT_EQ(world
                  .StartShell("dak write /big < big && dak write /old < some && "
                              "dak write /empty < none && dak cat /big > back && "
                              "dak cat /empty > none && dak cat --json /Docs/f > object")
                  ->End(),
              0);
    EXPECT_TRUE(ReadTree(world.Path("device")) ==
                (TREE{{"big", strBig}, {"old", strSome}, {"empty", ""}, {"Docs/f", "f"}}));
    EXPECT_TRUE(ReadBytes(world.Path("host/back")) == strBig);
    EXPECT_EQ(ReadBytes(world.Path("host/none")), "");
    EXPECT_EQ(json::parse(ReadBytes(world.Path("host/object")))["base64"], "Zg==");

    const struct {
        const char* lpszScript;
        int nExit;
    } cases[] = {
        {"dak cat /old | head -c 9 >/dev/null; exit ${PIPESTATUS[0]}", 141},
        {"dak cat /old > /dev/full", 8},
        {"dak cat /Docs", 5},
        {"dak cat /none", 5},
        {"dak write /Docs < big", 5},
        {"dak write /none/f < big", 5},
        {"dak write /Docs/ < big", 2},
        {"dak write /Docs/f < .", 8},
    };
    for (const auto& [lpszScript, nExit] : cases) {
        const std::unique_ptr<CProgram> pShell = world.StartShell(lpszScript);
        EXPECT_EQ(pShell->End(), nExit) << lpszScript << "\n" << pShell->Errors();
    }
    EXPECT_TRUE(world.Agent().IsRunning()) << world.Agent().Errors();
    EXPECT_EQ(ReadTree(world.Path("device/Docs")), (TREE{{"f", "f"}}));
}

TEST(Command, AWriteThatIsCutShortLeavesTheOldFile) {
    CWorld world;
    world.StartAgent();
    world.Write("host", {{"big", Content(5'000'000, 1)}});
    world.Write("device", {{"f", "old"}});
    const std::unique_ptr<CProgram> pWrite = world.StartShell(
        "mkfifo pipe; (cat big; sleep 90) > pipe & exec " DAK_PROGRAM " write --json /f < pipe");
    ASSERT_TRUE(Eventually([&] { return ReadTree(world.Path("device")).size() == 2; }));
    Pause(200);
    pWrite->Signal(SIGINT);
    EXPECT_EQ(JsonOf(*pWrite, "write", 130)["result"], "cancelled");
    EXPECT_EQ(ReadTree(world.Path("device")), (TREE{{"f", "old"}}));
}

TEST(Command, MovesAndCopiesOnTheDevice) {
    CWorld world;
    world.StartAgent();
    world.Write("device", {{"a", "a"}, {"b", "b"}, {"Docs/c", "c"}});
    EXPECT_EQ(RunJson(world, {"mv", "/a", "/Docs/"}, 0)["destination"], "\\Docs\\a");
    EXPECT_EQ(world.Exit({"mv", "/b", "/Docs/c"}), 5); // is in use
    EXPECT_EQ(world.Exit({"cp", "--no-clobber", "/b", "/Docs/c"}), 5);
    EXPECT_EQ(world.Exit({"cp", "/Docs", "/Old"}), 0);
    EXPECT_EQ(world.Exit({"cp", "/b", "/Docs/c"}), 0);
    EXPECT_EQ(world.Exit({"cp", "/b", "/Docs"}), 5); // would replace all that is in it
    EXPECT_EQ(world.Exit({"cp", "/none", "/new"}), 5);
    EXPECT_TRUE(
        ReadTree(world.Path("device")) ==
        (TREE{{"b", "b"}, {"Docs/a", "a"}, {"Docs/c", "b"}, {"Old/a", "a"}, {"Old/c", "c"}}));
}

TEST(Command, TellsAndEmptiesStorages) {
    CWorld world;
    world.Write("card", {{"trip/photo", "p"}});
    world.StartAgent({"--storage", "Card=" + world.Path("card"), "--allow-format"});
    const json df = RunJson(world, {"df"}, 0);
    EXPECT_GT(df["total_bytes"], df["free_bytes"]);
    EXPECT_GT(RunJson(world, {"df", "/Card"}, 0)["free_bytes"], 0);
    EXPECT_EQ(RunJson(world, {"df", "/none"}, 5)["result"], "refused");
    const json storages = RunJson(world, {"storages"}, 0)["storages"];
    ASSERT_EQ(storages.size(), 2U);
    EXPECT_EQ(storages[0]["name"], "\\");
    EXPECT_EQ(storages[1]["name"], "Card");
    EXPECT_GE(storages[1]["total_bytes"], storages[1]["free_bytes"]);

    EXPECT_EQ(world.StartShell("yes | dak format Card")->End(), 2); // that is nobody
    EXPECT_EQ(RunJson(world, {"format", "Card"}, 2)["result"], "usage");
    EXPECT_EQ(ReadTree(world.Path("card")).size(), 1U);
    EXPECT_EQ(world.Exit({"format", "--yes", "Other"}), 5);
    EXPECT_EQ(RunJson(world, {"format", "--yes", "Card"}, 0)["name"], "Card");
    EXPECT_TRUE(Eventually([&] { return fs::is_empty(world.Path("card")); }));
}

TEST(Command, ReachesTheSystemOfTheDevice) {
    CWorld world;
    world.Write("device", {{"bin/tell", "#!/bin/sh\nprintf '<%s>' \"$@\" > told\nexit $1\n"}});
    fs::permissions(world.Path("device/bin/tell"), fs::perms::owner_all);
    world.StartAgent({"--allow-exec"});
    const json run = RunJson(world, {"run", "--wait", "/bin/tell", "3", "--json", "it's"}, 9);
    EXPECT_EQ(run["exit_status"], 3);
    EXPECT_EQ(ReadBytes(world.Path("device/told")), "<3><--json><it's>");
    EXPECT_EQ(world.Exit({"run", "-w", "/bin/tell", "0"}), 0);
    EXPECT_EQ(world.Exit({"run", "/bin/tell", "7"}), 0);
    EXPECT_TRUE(Eventually([&] { return ReadBytes(world.Path("device/told")) == "<7>"; }));
    EXPECT_EQ(world.Exit({"run", "/bin/none"}), 5);
    EXPECT_EQ(world.Exit({"run"}), 2);

    world.Write("host", {{"ping", std::string("a\0\xFF", 3)}});
    EXPECT_EQ(RunJson(world, {"ioctl", "1", "--in", "ping"}, 0)["output"], "YQD/");
    EXPECT_EQ(world.Run({"ioctl", "--raw", "0x1", "--in", "ping"})->Output(),
              std::string("a\0\xFF", 3));
    EXPECT_EQ(world.Exit({"ioctl", "0x4711"}), 5);
    EXPECT_EQ(world.Exit({"ioctl", "0"}), 2);
    EXPECT_EQ(world.Exit({"ioctl", "1", "--in", "none"}), 8);

    const json named = RunJson(world, {"message", "Refresh", "7", "-1"}, 0);
    EXPECT_GE(named["number"], 0xC000);
    EXPECT_EQ(named["lparam"], -1);
    EXPECT_EQ(world.Exit({"message", std::to_string(named["number"].get<int>())}), 0);
    EXPECT_TRUE(world.Agent().Says("Refresh"));
    EXPECT_EQ(world.Exit({"message", "0"}), 2);
    EXPECT_EQ(world.Exit({"message", "Refresh", "seven"}), 2);
}

// What is said to have arrived has, whole; what is not there whole is not there at all.
class Cancel : public testing::TestWithParam<bool> {};

TEST_P(Cancel, InterruptedItSaysWhatArrived) {
    const bool bPush = GetParam();
    CWorld world;
    world.StartAgent();
    TREE tree;
    for (unsigned i = 0; i < 60; ++i) {
        tree[std::to_string(10 + i)] = Content(400'000, i);
    }
    world.Write(bPush ? "host/Docs" : "device/Docs", tree);
    const std::string strTarget = world.Path(bPush ? "device/Docs" : "host/Docs");
    const std::unique_ptr<CProgram> pCopy = world.Start(
        {bPush ? "push" : "pull", "--json", bPush ? "Docs" : "/Docs", bPush ? "/" : "."});
    ASSERT_TRUE(Eventually([&] { return fs::exists(strTarget + "/12"); }));
    pCopy->Signal(SIGINT);
    const json said = JsonOf(*pCopy, bPush ? "push" : "pull", 130);
    ASSERT_EQ(said["result"], "cancelled");

    EXPECT_EQ(world.Exit({"status"}), 0);
    const TREE there = ReadTree(strTarget);
    for (const auto& [strName, strBytes] : there) {
        EXPECT_TRUE(tree.contains(strName) && tree[strName] == strBytes) << strName;
    }
    EXPECT_LT(there.size(), tree.size());
    std::set<std::string> named;
    if (bPush) {
        // Files behind the device's last confirmation may have arrived as well.
        EXPECT_LE(said["files_arrived"], there.size());
        for (const json& path : said["unconfirmed"]) {
            named.insert(fs::path(path).filename());
        }
        for (const auto& [strName, strBytes] : tree) {
            EXPECT_TRUE(there.contains(strName) || named.contains(strName)) << strName;
        }
    } else {
        EXPECT_EQ(said["files_arrived"], there.size());
        for (const json& file : said["arrived"]) {
            named.insert(fs::path(file["path"]).filename());
        }
        for (const auto& [strName, strBytes] : there) {
            EXPECT_TRUE(named.contains(strName)) << strName;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothWays, Cancel, testing::Bool(), testing::PrintToStringParamName());

} // namespace
} // namespace end_to_end
