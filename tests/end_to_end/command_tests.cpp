// The command as a shell, a program and a person meet it: exit statuses, sentences, JSON, streams,
// a terminal.
#include "tests/end_to_end/world.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace end_to_end {
namespace {

// More than a package and than a pipe takes, with every byte there is.
const std::string g_strBytes = [] {
    std::string strBytes = "\r\n\n\x1A";
    for (int i = 0; i < 300'000; ++i) {
        strBytes += static_cast<char>(i * 7 + i / 12'274);
    }
    return strBytes;
}();

// Verbs one after the other, with those bytes at standard input: the words, the exit status, and a
// part of what is said.
struct CVerb {
    std::string strWords;
    int nExit;
    std::string strSaid;
};
void ExpectVerbs(const CWorld& world, const std::vector<CVerb>& verbs) {
    for (const auto& [strWords, nExit, strSaid] : verbs) {
        const auto pDak = world.Run("dak " + strWords, {.strInput = g_strBytes});
        const bool bJson = strWords.find("--json") != std::string::npos;
        SCOPED_TRACE(strWords + "\n" + pDak->Output().substr(0, 2000) + pDak->Errors());
        EXPECT_EQ(pDak->End(), nExit);
        EXPECT_TRUE(pDak->Says(strSaid));
        EXPECT_EQ(pDak->Errors().starts_with("dak: "), nExit != 0 && !bJson);
        EXPECT_EQ(pDak->Errors().empty(), nExit == 0 || bJson);
        EXPECT_TRUE(!bJson || (nlohmann::json::accept(pDak->Output()) &&
                               pDak->Says("\"exit\": " + std::to_string(nExit))));
    }
}

TEST(Command, ToldWrongOrWithoutADeviceDoesNothing) {
    const CWorld world;
    world.folder.Write("host/f", "f");
    ExpectVerbs(world, {{"", 2, "say what to do: give a verb\n"},
                        {"fly", 2, "there is no verb fly\n"},
                        {"push f", 2, ""},
                        {"ioctl 0", 2, ""},
                        {"format --json Card", 2, "\"usage\""},
                        {"push none /", 1, "left out none: there is no such file"},
                        {"pull /f f", 8, "cannot be made or used"},
                        {"push --json f /", 3, "\"no_device\""},
                        {"pull /f made", 3, ""},
                        {"write /f", 3, "the device is not attached, or it does not answer"},
                        {"push --help", 0, "dak push notes.txt /Docs"}});
    EXPECT_FALSE(exists(world.folder / "host/made"));
}

const std::string g_strPart = "~dak00000001.tmp"; // the first write's, of somebody else

TEST(Command, WorksOnFiles) {
    const CWorld world;
    world.pDevice->Write(
        {{"a", "a"}, {"b", "b"}, {g_strPart, "p"}, {"Docs/c", "c"}, {"Docs/d\x1b[2J", "d"}});
    world.pDevice->Plug();
    world.folder.Write("host/huge", std::string(21'000'000, 'h'));
    ExpectVerbs(world, {{"status", 0, " is attached and answers\n"},
                        {"mkdir /New", 0, "made \\New\n"},
                        {"mkdir --json /New", 5, "\"failed\""},
                        {"write /New/\xE6\xBC\xA2", 0, "wrote 300004 bytes to \\New\\\xE6\xBC\xA2"},
                        {"write --quiet /New/\xE6\xBC\xA2", 0, ""},
                        {"cat /New/\xE6\xBC\xA2", 0, g_strBytes},
                        {"cat --json /a", 0, "\"base64\": \"YQ==\""},
                        {"cat /none", 5, ""},
                        {"write /Docs", 5, ""},
                        {"write /~DAK0000000A.tmp", 2, "another one"},
                        {"write " + g_strPart, 2, ""},
                        {"ls", 0, "Card/\nDocs/\nNew/\na\nb\n" + g_strPart},
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
                        {"cp /New /Docs", 5, ""},
                        {"rm /Docs/c", 0, "deleted \\Docs\\c\n"},
                        {"rm /Docs", 5, ""},
                        {"push --json huge /", 6, "Nothing was copied"},
                        {"push --no-verify --json huge /", 6, "\"no_space\""},
                        {"push huge /b/x", 5, "\\b is a file of the device"},
                        {"run /New", 5, "it is a folder"}});
    EXPECT_TRUE(world.pDevice->Files() == (TREE{{"b", "b"},
                                                {g_strPart, "p"},
                                                {"Docs/a", "a"},
                                                {"Docs/d\x1b[2J", "d"},
                                                {"Old/a", "a"},
                                                {"Old/c", "b"},
                                                {"Old/d\x1b[2J", "d"},
                                                {"New/\xE6\xBC\xA2", g_strBytes}}));
}

TEST(Command, WorksOnTheSystem) {
    const CWorld world;
    world.pDevice->Write({{"bin/end", "#!/bin/sh\nexit $1\n"}, {"Card/old", "old"}});
    world.pDevice->Plug();
    ExpectVerbs(world, {{"df --json", 0, "\"total_bytes\": "},
                        {"df /Card", 0, " free in \\Card\n"},
                        {"df /none", 5, ""},
                        {"storages", 0, "Card"},
                        {"format Card", 2, ""},
                        {"format --yes Other", 5, ""},
                        {"format --yes Card", 0, "formatted Card\n"},
                        {"run --wait --json /bin/end 3 --json", 9, "\"exit_status\": 3"},
                        {"run --wait /bin/end 0", 0, ""},
                        {"run /bin/none", 5, "no such program"},
                        {"ioctl 1 --in - --raw --out-size 400000", 0, g_strBytes},
                        {"ioctl --json 0x1 --in none", 8, "\"host\""},
                        {"ioctl 0x4711", 5, ""},
                        {"message Sync 7 -1", 0, "sent message Sync"}});
    EXPECT_TRUE(world.pDevice->Says("\"Sync\" wParam 7 lParam -1"));
    EXPECT_TRUE(Eventually([&] { return world.pDevice->Files().size() == 1; })); // no old ones
}

// It has begun to write a file of the device, beside so many others.
bool HasBegun(const CWorld& world, std::size_t nOthers) {
    return Eventually([&] { return world.pDevice->Files().size() == nOthers + 1; });
}

TEST(Command, WorksWithAPersonAtATerminal) {
    const CWorld world;
    world.pDevice->Plug();
    const std::string strName(90, 'n');
    world.folder.Write("host/" + strName, g_strBytes);
    const auto pTerminal = MakeTerminal();
    const auto line = [&] {
        const std::string strShown = pTerminal->Shown();
        return strShown.substr(strShown.find_last_of("\r\n") + 1);
    };
    world.pDevice->HoldAfter(EWay::ToDevice, 100'000);
    const auto pPush = world.Start("dak push " + strName + " /", pTerminal->ForProgram());
    EXPECT_TRUE(Eventually([&] { return line().find("% [") != std::string::npos; }));
    EXPECT_TRUE(line().starts_with("...nnn") && line().size() == 99) << line();
    world.pDevice->GoOn();
    EXPECT_EQ(pPush->End(), 0);
    EXPECT_EQ(line(), "");
    EXPECT_NE(pTerminal->Shown().find("pushed 1 file"), std::string::npos) << pTerminal->Shown();

    const auto pWrite = world.Start("dak write /typed", pTerminal->ForProgram());
    EXPECT_TRUE(HasBegun(world, 1));
    pTerminal->Type("gr\xC3\xBC\xE6\xBC\xA2\r");
    pTerminal->Type("\4\r");
    EXPECT_EQ(pWrite->End(), 0);
    EXPECT_TRUE(world.pDevice->Files()["typed"].starts_with("gr\xC3\xBC\xE6\xBC\xA2"));
    const auto pCut = world.Start("dak write /cut", pTerminal->ForProgram());
    EXPECT_TRUE(HasBegun(world, 2));
    pTerminal->Type("\3");
    EXPECT_EQ(pCut->End(), 130);
    EXPECT_EQ(world.pDevice->Files().size(), 2U);
    const auto pKilled = world.Start("dak write /killed", pTerminal->ForProgram());
    EXPECT_TRUE(HasBegun(world, 2));
    pKilled->Kill();
    EXPECT_EQ(world.Run("dak write /typed", {.strInput = "t"})->End(), 0);
    EXPECT_EQ(world.pDevice->Files().size(), 2U); // the next one has cleared away
}

// Nobody writes its input, reads its output, or the reader goes.
TEST(Command, EndsInOrderWhateverItsPipesDo) {
    const CWorld world;
    const TREE tree = {{"f", g_strBytes}, {"g", g_strBytes}};
    world.folder.Write("host", tree);
    world.pDevice->Write(tree);
    world.pDevice->Plug();
    for (const auto& [strWords, nExit] :
         {std::pair("write /f", 130), {"cat /f", 130}, {"cat /f", 141}, {"push f g /", 141}}) {
        const auto pipe = test::MakePipe();
        const bool bWrites = nExit == 130 && strWords[0] == 'w';
        CSurroundings found;
        found.streams[bWrites ? 0 : 1] = pipe[bWrites ? 0 : 1];
        if (strWords[0] == 'p') { // between its two sentences
            world.pDevice->HoldAfter(EWay::ToDevice, 100'000);
        }
        const auto pDak = world.Start(std::string("dak ") + strWords, found);
        char chFirst = 0;
        EXPECT_TRUE(bWrites ? HasBegun(world, 2) : ::read(pipe[0], &chFirst, 1) == 1);
        if (nExit == 130) {
            pDak->Signal(SIGINT);
            EXPECT_EQ(pDak->End(), nExit);
        }
        ::close(pipe[bWrites ? 1 : 0]);
        world.pDevice->GoOn();
        EXPECT_EQ(pDak->End(), nExit);
        EXPECT_EQ(pDak->Says("cancelled"), strWords[0] != 'c' || nExit == 130) << pDak->Errors();
    }
    EXPECT_TRUE(world.pDevice->Files() == tree);
}

} // namespace
} // namespace end_to_end
