// The command as a shell, a program and a person meet it: exit statuses, sentences, JSON, streams,
// a terminal.
#include "tests/end_to_end/world.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;

// The words of a line, with the command ahead of them.
std::vector<std::string> Dak(const std::string& strLine) {
    std::istringstream words("dak " + strLine);
    return {std::istream_iterator<std::string>(words), {}};
}

// More than a package and than a pipe takes, with every byte there is.
const std::string g_strBytes = [] {
    std::string strBytes = "\r\n\n\x1A";
    for (int i = 0; i < 300'000; ++i) {
        strBytes += static_cast<char>(i * 7 + i / 12'274);
    }
    return strBytes;
}();

struct CVerb {
    const char* lpszLine;
    int nExit;
    std::string strSaid; // somewhere, and on an error for people behind the command's name
};

// One after the other, with the bytes at standard input.
void ExpectVerbs(const CWorld& world, const std::vector<CVerb>& verbs) {
    for (const CVerb& verb : verbs) {
        const auto words = Dak(verb.lpszLine);
        const auto pDak = world.Run(words, {.strInput = g_strBytes});
        const bool bJson = std::ranges::find(words, "--json") != words.end();
        const std::string strOutput = pDak->Output();
        const std::string strErrors = pDak->Errors();
        SCOPED_TRACE(std::string(verb.lpszLine) + "\n" + strOutput.substr(0, 2000) + strErrors);
        EXPECT_EQ(pDak->End(), verb.nExit);
        EXPECT_TRUE(pDak->Says(verb.strSaid));
        const bool bForPeople = verb.nExit != 0 && !bJson;
        EXPECT_EQ(strErrors.starts_with("dak: "), bForPeople);
        EXPECT_EQ(strErrors.empty(), !bForPeople);
        if (bJson) {
            const auto object = nlohmann::json::parse(strOutput, nullptr, false);
            EXPECT_TRUE(object.is_object() && object["verb"] == words[1] &&
                        object["exit"] == verb.nExit && object["message"] != "");
        }
    }
}

TEST(Command, ToldWrongOrWithoutADeviceDoesNothing) {
    CWorld world;
    world.folder.Write("host/f", "f");
    ExpectVerbs(world, {
                           {"", 2, "say what to do: give a verb\n"},
                           {"fly", 2, "there is no verb fly\n"},
                           {"push f", 2, ""},
                           {"write /Docs/", 2, ""},
                           {"ioctl 0", 2, ""},
                           {"message Refresh seven", 2, ""},
                           {"format --json Card", 2, "\"usage\""},
                           {"push none /", 1, "left out none: there is no such file"},
                           {"push --json none /", 1, "\"nothing\""},
                           {"pull /f f", 8, "cannot be made or used"},
                           {"status", 3, "no device is attached, or it does not answer"},
                           {"push --json f /", 3, "\"no_device\""},
                           {"pull /f made", 3, ""},
                           {"write /f", 3, ""},
                           {"--help", 0, "Usage: dak VERB"},
                           {"push --help", 0, "dak push notes.txt /Docs"},
                       });
    EXPECT_FALSE(fs::exists(world.folder / "host/made"));
}

TEST(Command, WorksOnFiles) {
    CWorld world;
    world.WriteFiles({{"a", "a"}, {"b", "b"}, {"Docs/c", "c"}, {"Docs/d\x1b[2J", "d"}});
    world.Plug();
    std::ofstream(world.folder / "host/huge").close();
    fs::resize_file(world.folder / "host/huge", 30'000'000); // more than the device has room for
    ExpectVerbs(world,
                {
                    {"status", 0, "a device is attached and answers\n"},
                    {"mkdir /New", 0, "made \\New\n"},
                    {"mkdir --quiet /New", 5, "dak: \\New: "},
                    {"mkdir --json /none/New", 5, "\"failed\""},
                    {"write /New/\xE6\xBC\xA2", 0, "wrote 300004 bytes to \\New\\\xE6\xBC\xA2\n"},
                    {"write --quiet /New/\xE6\xBC\xA2", 0, ""},
                    {"cat /New/\xE6\xBC\xA2", 0, g_strBytes},
                    {"cat --json /a", 0, "\"base64\": \"YQ==\""},
                    {"cat /Docs", 5, ""},
                    {"cat /none", 5, ""},
                    {"write /Docs", 5, ""},
                    {"write /none/f", 5, ""},
                    {"ls", 0, "Card/\nDocs/\nNew/\na\nb\n"},
                    {"ls /Docs", 0, "c\nd?[2J\n"},
                    {"ls -l /Docs/?", 0, "---a  1  20"},
                    {"ls --json /Card", 0, "\"entries\": []"},
                    {"ls --json /Docs/*.jpg", 1, "\"nothing\""},
                    {"ls /none", 5, ""},
                    {"stat --json Docs/c/", 0, "\"path\": \"\\\\Docs\\\\c\""},
                    {"stat /none", 5, ""},
                    {"mv --json /a /Docs/", 0, "\"destination\": \"\\\\Docs\\\\a\""},
                    {"mv /b /Docs/c", 5, ""},
                    {"cp --no-clobber /b /Docs/c", 5, ""},
                    {"cp /b /Docs/c", 0, "copied"},
                    {"cp /Docs /Old", 0, "copied"},
                    {"cp /b /Docs", 5, ""},
                    {"rm /Docs/c", 0, "deleted \\Docs\\c\n"},
                    {"rm /Docs", 5, ""},
                    {"push --json huge /", 6, "\"no_space\""},
                });
    EXPECT_TRUE(world.Files() == (TREE{{"b", "b"},
                                       {"Docs/a", "a"},
                                       {"Docs/d\x1b[2J", "d"},
                                       {"New/\xE6\xBC\xA2", g_strBytes},
                                       {"Old/a", "a"},
                                       {"Old/c", "b"},
                                       {"Old/d\x1b[2J", "d"}}));
}

TEST(Command, WorksOnTheSystem) {
    CWorld world;
    world.WriteFiles({{"bin/end", "#!/bin/sh\nexit $1\n"}, {"Card/old", "old"}, {"kept", "kept"}});
    world.Plug();
    ExpectVerbs(world, {
                           {"df --json", 0, "\"total_bytes\": "},
                           {"df /Card", 0, " free in \\Card\n"},
                           {"df /none", 5, ""},
                           {"storages", 0, "Card"},
                           {"format Card", 2, ""},
                           {"format --yes Other", 5, ""},
                           {"format --yes Card", 0, "formatted Card\n"},
                           {"run --wait --json /bin/end 3 --json", 9, "\"exit_status\": 3"},
                           {"run --wait /bin/end 0", 0, ""},
                           {"run /bin/end 7", 0, ""},
                           {"run /bin/none", 5, ""},
                           {"ioctl 1 --in - --raw --out-size 400000", 0, g_strBytes},
                           {"ioctl --json 0x1 --in none", 8, "\"host\""},
                           {"ioctl 0x4711", 5, ""},
                           {"message Sync 7 -1", 0, "sent message Sync"},
                       });
    EXPECT_TRUE(world.DeviceSays("\"Sync\" wParam 7 lParam -1"));
    EXPECT_TRUE(Eventually([&] { return world.Files().size() == 2; })); // the card is empty
}

// What a terminal of 100 columns shows while a file with a long name is on its way.
TEST(Command, ShowsATerminalWhatGoesOn) {
    CWorld world;
    world.Plug();
    world.folder.Write("host/" + std::string(90, 'n'), g_strBytes);
    CTerminal terminal;
    const auto line = [&] {
        const std::string strShown = terminal.Shown();
        return strShown.substr(strShown.find_last_of("\r\n") + 1);
    };
    world.HoldAfter(EWay::ToDevice, 100'000);
    const auto pPush =
        world.Start({"dak", "push", std::string(90, 'n'), "/"}, terminal.ForProgram());
    EXPECT_TRUE(Eventually([&] { return line().find("% [") != std::string::npos; }));
    EXPECT_EQ(line().size(), 99U) << line(); // the last column stays free
    EXPECT_TRUE(line().starts_with("...nnn")) << line();
    world.GoOn();
    EXPECT_EQ(pPush->End(), 0);
    EXPECT_EQ(line(), "");
    EXPECT_NE(terminal.Shown().find("pushed 1 file"), std::string::npos) << terminal.Shown();

    const auto pWrite = world.Start({"dak", "write", "/typed"}, terminal.ForProgram());
    EXPECT_TRUE(Eventually([&] { return world.Files().size() == 2; })); // it has begun
    terminal.Type("gr\xC3\xBC\xE6\xBC\xA2\r\x04");
    EXPECT_EQ(pWrite->End(), 0);
    EXPECT_TRUE(world.Files()["typed"].starts_with("gr\xC3\xBC\xE6\xBC\xA2"));
    const auto pCut = world.Start({"dak", "write", "/cut"}, terminal.ForProgram());
    EXPECT_TRUE(Eventually([&] { return world.Files().size() == 3; }));
    terminal.Type("\x03");
    EXPECT_EQ(pCut->End(), 130);
    EXPECT_EQ(world.Files().size(), 2U);
}

// Who writes its input leaves it open, who reads its output goes or does not read on.
TEST(Command, EndsInOrderWhateverItsPipesDo) {
    CWorld world;
    world.WriteFiles({{"f", g_strBytes}});
    world.Plug();
    const auto input = test::MakePipe();
    const auto pWrite = world.Start(Dak("write --json /f"), {.streams = {input[0], -1, -1}});
    EXPECT_TRUE(Eventually([&] { return world.Files().size() == 2; })); // it has begun
    pWrite->Signal(SIGINT);
    EXPECT_EQ(pWrite->End(), 130);
    EXPECT_TRUE(pWrite->Says("\"cancelled\""));
    ::close(input[1]);
    EXPECT_TRUE(world.Files() == (TREE{{"f", g_strBytes}}));

    for (const bool bGoes : {false, true}) {
        const auto output = test::MakePipe();
        const auto pCat = world.Start(Dak("cat /f"), {.streams = {-1, output[1], -1}});
        char chFirst = 0;
        EXPECT_EQ(::read(output[0], &chFirst, 1), 1);
        if (bGoes) {
            ::close(output[0]);
        } else {
            pCat->Signal(SIGINT);
        }
        EXPECT_EQ(pCat->End(), bGoes ? 141 : 130);
        EXPECT_EQ(pCat->Errors().empty(), bGoes) << pCat->Errors();
        if (!bGoes) {
            ::close(output[0]);
        }
    }
}

} // namespace
} // namespace end_to_end
