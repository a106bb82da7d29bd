#include "agent_host.h"

#include <fcntl.h>

#include "agent/posix/system_file.h"
#include "session_script.h"

namespace {

TEST(Core, Handshakes) {
    CAgentHost host;
    Bytes package(20);
    DakPutHandshake(package.data(), DAK_CONNECT, DAK_PROTOCOL_VERSION);
    for (int i = 0; i < 3; ++i) { // several in a row: the last answer stands
        host.Put(package);
    }
    Bytes reply(20);
    DakPutHandshake(reply.data(), DAK_CONNECT, 0x30001);
    EXPECT_EQ(host.Take(), reply);
    EXPECT_TRUE(host.Take().empty());

    // Of another version or length: answered with the agent's own, for the host to judge.
    DakPutU32(package.data() + 12, 0x40000);
    DakPutU32(package.data() + 16, 4096);
    host.Put(package);
    EXPECT_EQ(host.Take(), reply);

    // No handshake at all: of another link, too short, too long.
    Bytes foreign = reply;
    DakPutU32(foreign.data() + 8, 11);
    Bytes longer = reply;
    longer.push_back(0);
    for (const Bytes& wrong : {foreign, longer, Bytes(reply.begin(), reply.end() - 1)}) {
        host.Put(wrong);
        EXPECT_TRUE(host.Take().empty());
    }
}

TEST(Core, PackagesAreTakenInPartsAndNeverRunTogether) {
    CAgentHost host;
    host.Put(Command(10, Text(u"\\x")));
    EXPECT_EQ(host.Take(3).size(), 3U);
    EXPECT_EQ(host.Take(100).size(), 5U);
    EXPECT_EQ(host.Take(8).size(), 8U);
    EXPECT_EQ(host.Take(100).size(), 6U);
    EXPECT_EQ(host.Take(100).size(), 0U);
    // A handshake drops the rest of a package that is half taken.
    host.Put(Command(2, Text(u"\\x")));
    EXPECT_EQ(host.Take(3).size(), 3U);
    EXPECT_TRUE(host.Handshake());
    EXPECT_TRUE(host.Take().empty());
}

TEST(Core, WhatIsNoCommandGetsSilence) {
    CAgentHost host;
    Bytes longer = Command(2, Text(u"\\a"));
    longer.push_back(0);
    Bytes unterminated = Command(2, {0x5C, 0});
    Bytes trailing = Text(u"\\a");
    trailing.push_back(0);
    Bytes reply = Command(2, Text(u"\\a"));
    DakPutU32(reply.data(), DAK_LAST_REPLY);
    const Bytes packages[] = {{},
                              {1, 2, 3},
                              Control(DAK_SUCCESS),
                              Control(DAK_RETRANSMIT),
                              longer,
                              unterminated,
                              Command(2, trailing),
                              Command(2, {}),
                              reply,
                              Command(3, {}),
                              Command(0xFFFF, {}),
                              Control(DAK_LAST_PACKAGE),
                              AbortPackage()};
    for (const Bytes& package : packages) {
        host.Put(package);
        EXPECT_TRUE(host.Take().empty());
    }
    EXPECT_EQ(host.Plain(10, Text(u"\\a")), 1);
}

TEST(Paths, DeleteAndMakeFolder) {
    CAgentHost host;
    host.WriteFile("d/file", {1});
    host.WriteFile("d/ro", {1});
    host.WriteFile("d/.dak-x", {1});
    std::filesystem::permissions(host.Root() / "d/ro", std::filesystem::perms(0444));
    std::filesystem::create_directory_symlink(host.Base(), host.Root() / "up");
    std::filesystem::create_directory_symlink("d", host.Root() / "same");
    std::filesystem::create_symlink(host.Base() / "outside.txt", host.Root() / "d/link");
    struct CStep {
        std::uint16_t codeFunc;
        std::u16string strPath;
        std::int32_t nResult;
    };
    const CStep steps[] = {
        {10, u"\\new", 1},
        {10, u"\\new", 0},
        {10, u"\\new\\a\\b", 0},
        {10, u"new/a", 1},
        {10, u"\\\\new\\.\\a\\\\b\\", 1},
        {2, u"\\new", 0}, // not empty
        {2, u"\\new\\a\\b", 1},
        {2, u"\\new\\a", 1},
        {2, u"\\d\\file", 1},
        {2, u"\\d\\file", 0},
        {2, u"\\d\\ro", 0},
        {2, u"\\d\\.dak-x", 0},
        {2, u"\\", 0},
        {2, u"", 0},
        {2, u"\\Card", 0},
        {10, u"\\Card\\x", 1},
        {2, u"\\Card\\x", 1},
        {10, u"\\Card", 0},
        {10, u"\\same\\x", 1}, // a link that stays inside
        {2, u"\\d\\x", 1},
        {2, u"\\up\\outside.txt", 0},
        {10, u"\\up\\x", 0},
        {2, u"\\..\\outside.txt", 0},
        {2, u"\\d\\..\\..\\outside.txt", 0},
        {10, u"C:\\x", 0},
        {10, u"\\.dak-x", 0},
        {10, u"\\.DaK-y", 0},
        {10, std::u16string(u"\\") + char16_t(0xDC00), 0},
        {10, u"\\" + std::u16string(5000, u'x'), 0},
        {2, u"\\d\\link", 1}, // the link, not what it leads to
    };
    for (const CStep& step : steps) {
        EXPECT_EQ(host.Plain(step.codeFunc, Text(step.strPath)), step.nResult)
            << step.codeFunc << " "
            << std::string(step.strPath.begin(), step.strPath.end()).substr(0, 40);
    }
    EXPECT_TRUE(std::filesystem::exists(host.Base() / "outside.txt"));
    EXPECT_TRUE(host.ReadFile("d/ro"));
    EXPECT_TRUE(host.ReadFile("d/.dak-x"));
}

// Both ways of walking hold their folder: the kernel's and the agent's own.
TEST(Paths, WalkStaysBelow) {
    CAgentHost host;
    host.WriteFile("d/e/file", {1});
    std::filesystem::create_symlink("e/file", host.Root() / "d/link");
    std::filesystem::create_symlink("../../outside.txt", host.Root() / "d/out");
    std::filesystem::create_directory_symlink(host.Base(), host.Root() / "d/up");
    const agent::CFd fdRoot(::open(host.Root().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const auto lpOpen : {agent::OpenBelow, agent::OpenBelowByWalk}) {
        const auto opens = [&](const char* lpszPath) {
            return static_cast<bool>(lpOpen(fdRoot.Get(), lpszPath, O_RDONLY, 0));
        };
        EXPECT_TRUE(opens(""));
        EXPECT_TRUE(opens("d/e/file"));
        EXPECT_FALSE(opens("d/out"));
        EXPECT_FALSE(opens("d/up/outside.txt"));
        EXPECT_FALSE(opens("../outside.txt"));
        EXPECT_FALSE(opens("d/../../outside.txt"));
        EXPECT_FALSE(opens("d/missing/file"));
    }
    EXPECT_TRUE(agent::OpenBelow(fdRoot.Get(), "d/link", O_RDONLY));
}

TEST(Leftovers, AreCleanedAwayButNoLivingOnes) {
    CAgentHost host;
    // What a killed agent leaves: its journal without a lock, and the part file that it names.
    const std::string strPart = ".dak-0123456789abcdef.part";
    host.WriteFile("d/sub/" + strPart, {1});
    host.WriteFile("d/sub/kept", {1});
    host.WriteFile(".dak-0123456789abcdef.journal", {'d', '/', 's', 'u', 'b', 0, 'x'});
    std::ofstream(host.Base() / "card" / ".dak-1.part") << "part";
    host.WriteFile(".dak-1.journal", {'C', 'a', 'r', 'd', 0});
    host.WriteFile(".dak-2.journal", {'.', '.', 0});
    std::ofstream(host.Base() / ".dak-2.part") << "outside";
    host.Restart();
    EXPECT_EQ(host.Tree(), (std::vector<std::string>{".dak-2.part", "card", "outside.txt", "root",
                                                     "root/d", "root/d/sub", "root/d/sub/kept"}));

    // A second agent on the folder leaves alone what the first has in work.
    ASSERT_TRUE(host.OpenPush());
    const std::vector<Bytes> packages = Packages(Stream({{u"a", Content(30'000)}}));
    host.Put(packages[0]);
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    const std::vector<std::string> working = host.Tree();
    agent::CDeviceOptions options;
    options.strRoot = host.Root().string();
    std::string strError;
    ASSERT_TRUE(agent::CDevice::Open(options, strError));
    EXPECT_EQ(host.Tree(), working);
    EXPECT_EQ(host.SendAll(packages, 1), 1);
    EXPECT_EQ(host.ReadFile("d/a"), Content(30'000));
}

// Random packages, and exchanges that begin well and are then spoilt. Whatever came, the next
// handshake is served, a copy goes through, and nothing beside the root has changed.
TEST(Core, AnythingAtAnyMoment) {
    const char* lpszSeed = std::getenv("DAK_AGENT_SEED");
    const std::uint32_t dwFirst =
        lpszSeed ? static_cast<std::uint32_t>(std::strtoul(lpszSeed, nullptr, 10)) : 1;
    const std::uint32_t dwLast = lpszSeed ? dwFirst : 150;
    for (std::uint32_t dwSeed = dwFirst; dwSeed <= dwLast; ++dwSeed) {
        SCOPED_TRACE("to repeat: DAK_AGENT_SEED=" + std::to_string(dwSeed) +
                     " agent_tests --gtest_filter=Core.AnythingAtAnyMoment");
        CAgentHost host(dwSeed % 3 == 0 ? std::optional<std::uint64_t>(5'000'000) : std::nullopt);
        host.WriteFile("d/there", Content(40'000));
        std::mt19937 random(dwSeed);
        for (int nRun = 0; nRun < 4; ++nRun) {
            RunSessionScript(host.Core(),
                             Content(200 + random() % 2000, static_cast<std::uint32_t>(random())));
        }
        ASSERT_TRUE(host.Handshake());
        const CFileRecord file{u"after", Content(700'000, dwSeed)};
        ASSERT_EQ(host.Push({file}), 1);
        const std::vector<CFileRecord> back = host.Pull(u"\\d", {file.strName});
        ASSERT_EQ(back.size(), 1U);
        ASSERT_EQ(back[0].data, file.data);
        std::size_t nBeside = 0;
        for (const auto& entry : std::filesystem::directory_iterator(host.Base())) {
            nBeside += entry.exists() ? 1U : 0U;
        }
        ASSERT_EQ(nBeside, 3U);
        for (const std::string& strName : host.Tree()) {
            ASSERT_EQ(strName.find(".dak-"), std::string::npos) << strName;
        }
    }
}

} // namespace
