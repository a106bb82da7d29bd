// Programs, I/O controls and messages of the device: the agent's own rules, with real programs.
#include "agent_host.h"

#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "agent/command_line.h"
#include "agent/posix/system_file.h"

namespace {

using Words = std::vector<std::string>;
namespace fs = std::filesystem;

TEST(CommandLine, Splits) {
    const std::pair<const char*, std::optional<Words>> rows[] = {
        {"", Words{}},
        {" \t a  b\n", Words{"a", "b"}},
        {R"(a" b "c'd e'f)", Words{"a b cd ef"}},
        {R"("" '' x)", Words{"", "", "x"}},
        {R"('a\b"c' "d'e")", Words{R"(a\b"c)", "d'e"}},
        {R"("\a\"\\\$\`")", Words{R"(\a"\$`)"}},
        {R"(a\ b \"c\' \\)", Words{"a b", R"("c')", R"(\)"}},
        {"a\\\nb \"c\\\nd\" 'e\\\nf'", Words{"ab", "cd", "e\\\nf"}},
        {"$HOME * #x ; |", Words{"$HOME", "*", "#x", ";", "|"}},
        {"\xC3\xA4 \"\xE4\xB8\xAD \"", Words{"\xC3\xA4", "\xE4\xB8\xAD "}},
        {"a 'b", {}},
        {"a \"b", {}},
        {R"("a\")", {}},
        {R"(a\)", {}},
        {R"("a\)", {}},
    };
    for (const auto& [lpszLine, words] : rows) {
        EXPECT_EQ(agent::SplitCommandLine(lpszLine), words) << lpszLine;
    }
}

class Services : public testing::Test {
  protected:
    using Answer = std::optional<std::pair<std::int32_t, std::uint32_t>>;

    Services() {
        host.onOptions = [this](agent::CDeviceOptions& options) { options.system = system; };
        system.bAllowExec = true;
        system.execPaths = {Folder("bin").string(), Folder("bin2").string()};
        system.lpNotice = [this](const std::string& strLine) { notices.push_back(strLine); };
    }
    ~Services() override {
        // Every program has been waited for by the agent.
        Until([this] {
            Tick();
            return ::waitpid(-1, nullptr, WNOHANG | WNOWAIT) < 0;
        });
    }

    fs::path Folder(const std::string& strName) const {
        fs::create_directories(host.Base() / strName);
        return host.Base() / strName;
    }
    // A script, its path relative to the folder of the test.
    void Script(const std::string& strName, const std::string& strText, unsigned nMode = 0755) {
        fs::create_directories((host.Base() / strName).parent_path());
        std::ofstream(host.Base() / strName) << "#!/bin/sh\n" << strText << "\n";
        ASSERT_EQ(::chmod((host.Base() / strName).c_str(), nMode), 0);
    }
    void Tick(std::uint64_t qwMs = 1) { host.Core().SetTime(m_qwNowMs += qwMs); }

    template <class F>
    static void Until(F done) {
        bool bDone = done();
        for (int i = 0; i < 5000 && !bDone; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            bDone = done();
        }
        EXPECT_TRUE(bDone);
    }

    void PutStart(std::u16string_view strImage, std::u16string_view strLine, bool bWait) {
        Bytes payload = Text(strImage);
        AppendText(payload, strLine);
        AppendU32(payload, bWait ? 1 : 0);
        host.Put(Command(12, payload));
        EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
        Tick();
    }
    // An 18-byte response, waited for.
    Answer TakeAnswer(std::uint16_t codeFunc) {
        Bytes reply;
        Until([&] {
            Tick();
            reply = host.Take();
            return !reply.empty();
        });
        if (reply.size() != 18 || DakGetU32(reply.data()) != DAK_LAST_REPLY ||
            DakGetU16(reply.data() + 8) != codeFunc) {
            return std::nullopt;
        }
        return std::pair(static_cast<std::int32_t>(DakGetU32(reply.data() + 10)),
                         DakGetU32(reply.data() + 14));
    }
    Answer Start(std::u16string_view strImage, std::u16string_view strLine = u"",
                 bool bWait = true) {
        PutStart(strImage, strLine, bWait);
        return TakeAnswer(12);
    }
    std::string Output() const {
        const Bytes bytes = host.ReadFile("out").value_or(Bytes{});
        return {bytes.begin(), bytes.end()};
    }

    static Bytes Control(std::uint32_t dwCode, const Bytes& input, std::uint32_t nOutSize) {
        Bytes payload;
        AppendU32(payload, dwCode);
        AppendU32(payload, static_cast<std::uint32_t>(input.size()));
        Append(payload, input);
        AppendU32(payload, nOutSize);
        payload.resize(payload.size() + nOutSize, 0xEE);
        return payload;
    }

    // Programs that read a line of the gate wait until one is let through for each.
    void MakeGate() {
        const fs::path path = host.Root() / "gate";
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        m_fdGate = agent::CFd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    }
    void LetThrough(std::size_t nPrograms) {
        ASSERT_TRUE(agent::WriteWhole(m_fdGate.Get(), Bytes(nPrograms, '\n').data(), nPrograms));
    }

    CAgentHost host;
    agent::CSystemOptions system; // what the next Restart gives to the device
    Words notices;

  private:
    agent::CFd m_fdGate;
    std::uint64_t m_qwNowMs = 0;
};

TEST_F(Services, OnlyAllowedProgramsRun) {
    const std::string strTell = "printf '%s|' \"$@\" > out; exit 7";
    for (const char* lpszName : {"root/d/tell", "bin2/only2", "bin/tool", "card/carded", "away/far",
                                 "root/both", "bin/both"}) {
        Script(lpszName, strTell);
    }
    Script("bin/both", "exit 9");
    Script("root/plain", strTell, 0644);
    Script("root/killed", "kill -9 $$");
    std::ofstream(host.Root() / "broken") << "#!/no/such/interpreter\n";
    ::chmod((host.Root() / "broken").c_str(), 0755);
    fs::create_symlink("d/tell", host.Root() / "inside");
    fs::create_symlink(host.Base() / "away/far", host.Root() / "out1");
    fs::create_symlink("../away/far", host.Root() / "out2");
    fs::create_symlink("../away", host.Root() / "outdir");
    fs::create_symlink("tool", Folder("bin") / "alias");
    fs::create_symlink("../away/far", Folder("bin") / "outalias");
    host.Restart();

    const struct {
        const char16_t* lpszImage;
        const char16_t* lpszLine;
        Answer answer;
        const char* lpszArguments;
    } rows[] = {
        {u"\\d\\tell", u"a 'b c' \"\" \x4E2D", {{1, 7}}, "a|b c||\xE4\xB8\xAD|"},
        {u"d/tell", u"", {{1, 7}}, "|"},
        {u"\\inside", u"$x", {{1, 7}}, "$x|"},
        {u"\\Card\\carded", u"1", {{1, 7}}, "1|"},
        {u"tool", u"2", {{1, 7}}, "2|"},
        {u"only2", u"3", {{1, 7}}, "3|"},
        {u"alias", u"4", {{1, 7}}, "4|"},
        {u"both", u"5", {{1, 7}}, "5|"},
        {u"\\killed", u"", {{1, 128 + SIGKILL}}, ""},
        {u"\\tool", u"", {{0, 0}}, ""},
        {u"outalias", u"", {{0, 0}}, ""},
        {u"\\out1", u"", {{0, 0}}, ""},
        {u"\\out2", u"", {{0, 0}}, ""},
        {u"\\outdir\\far", u"", {{0, 0}}, ""},
        {u"\\..\\away\\far", u"", {{0, 0}}, ""},
        {u"..\\bin\\tool", u"", {{0, 0}}, ""},
        {u"\\plain", u"", {{0, 0}}, ""},
        {u"\\broken", u"", {{0, 0}}, ""},
        {u"\\d", u"", {{0, 0}}, ""},
        {u"\\", u"", {{0, 0}}, ""},
        {u"", u"", {{0, 0}}, ""},
        {u"\\none", u"", {{0, 0}}, ""},
        {u"\\d\\tell", u"'open", {{0, 0}}, ""},
        {u"\\d\\tell", u"\xD800", {{0, 0}}, ""},
    };
    for (const auto& row : rows) {
        fs::remove(host.Root() / "out");
        EXPECT_EQ(Start(row.lpszImage, row.lpszLine), row.answer) << *agent::ToUtf8(row.lpszImage);
        EXPECT_EQ(Output(), row.lpszArguments) << *agent::ToUtf8(row.lpszImage);
    }
    // Without wait the value says nothing.
    EXPECT_EQ(Start(u"\\d\\tell", u"6", false), Answer({1, 0}));
    Until([this] { return Output() == "6|"; });

    fs::remove(host.Root() / "out");
    system.bAllowExec = false;
    host.Restart();
    EXPECT_EQ(Start(u"\\d\\tell"), Answer({0, 0}));
    EXPECT_EQ(Start(u"tool", u"", false), Answer({0, 0}));
    EXPECT_EQ(Output(), "");
}

TEST_F(Services, ProgramsInheritNothing) {
    // The signals first and by the shell itself, which changes its mask around other programs.
    Script("root/look", "{ while read -r a b; do case $a in Sig[BI]*) echo $a $b;; esac; done "
                        "< /proc/$$/status; ls -l /proc/$$/fd; cat; pwd; echo end; } > out");
    host.Restart();
    const int fd = ::open((host.Base() / "outside.txt").c_str(), O_RDONLY); // not close-on-exec
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto lpOld = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(Start(u"\\look"), Answer({1, 0}));
    std::signal(SIGPIPE, lpOld);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(fd);
    const std::string strOutput = Output();
    EXPECT_EQ(strOutput.find("outside.txt"), std::string::npos) << strOutput;
    EXPECT_EQ(strOutput.find(host.Base().string() + "/root\n"),
              strOutput.size() - 4 - host.Base().string().size() - 6)
        << "the folder of work, and no descriptor of it";
    EXPECT_NE(strOutput.find("0 -> /dev/null"), std::string::npos) << strOutput;
    EXPECT_NE(strOutput.find("SigBlk: 0000000000000000\nSigIgn: 0000000000000000"),
              std::string::npos)
        << strOutput;
}

// What stays on the disk, a storage and the way to it, keeps a root with a new folder of its name
// from being moved up.
TEST_F(Services, AFormatTakesProgramsAway) {
    Script("root/way/deep/old", "exit 5");
    host.onOptions = [this](agent::CDeviceOptions& options) {
        options.bAllowFormat = true;
        options.system = system;
        options.storages.push_back({"Deep", (host.Root() / "way/deep").string()});
    };
    host.Restart();
    EXPECT_EQ(Start(u"\\way\\deep\\old"), Answer({1, 5}));
    EXPECT_EQ(host.Plain(24, Text(u"\\")), 1);
    EXPECT_EQ(host.Plain(10, Text(u"\\way")), 1);
    EXPECT_EQ(Start(u"\\way\\deep\\old"), Answer({0, 0}));
    EXPECT_EQ(Start(u"\\Deep\\old"), Answer({1, 5}));
    Script("root/.dak-format/.dak-1/fresh", "pwd > out; exit 6");
    EXPECT_EQ(Start(u"\\fresh"), Answer({1, 6}));
    EXPECT_TRUE(host.ReadFile(".dak-format/.dak-1/out")) << "the root that the host sees";
}

TEST_F(Services, ALongProgramHoldsUpNothing) {
    MakeGate();
    Script("root/long", "read x < gate; echo \"$1\" >> out; exit 3");
    host.Restart();

    PutStart(u"\\long", u"first", true);
    for (int i = 0; i < 5; ++i) {
        Tick(1000);
        EXPECT_TRUE(host.Take(18).empty());
    }
    EXPECT_TRUE(host.Core().NextDueMs());
    EXPECT_TRUE(host.Handshake(DAK_DISCONNECT));
    EXPECT_TRUE(host.Handshake());
    EXPECT_EQ(host.Plain(10, Text(u"\\new")), 1);
    PutStart(u"\\long", u"second", true);
    EXPECT_TRUE(host.Take(18).empty());
    LetThrough(2);
    EXPECT_EQ(TakeAnswer(12), Answer({1, 3}));
    EXPECT_TRUE(host.Take().empty()) << "nothing of the first";
    Until([this] { return Output().size() == 13; });

    // No more at once than the bound; places come free again.
    for (std::size_t i = 0; i < agent::CDeviceProcesses::MOST_PROGRAMS; ++i) {
        EXPECT_EQ(Start(u"\\long", u"x", false), Answer({1, 0}));
    }
    EXPECT_EQ(Start(u"\\long", u"x", false), Answer({0, 0}));
    EXPECT_EQ(Start(u"\\long", u"x", true), Answer({0, 0}));
    LetThrough(agent::CDeviceProcesses::MOST_PROGRAMS);
    Until([this] { return Output().size() == 13 + 2 * agent::CDeviceProcesses::MOST_PROGRAMS; });
    Until([this] {
        Tick();
        return !host.Core().NextDueMs();
    });
    PutStart(u"\\long", u"last", true);
    LetThrough(1);
    EXPECT_EQ(TakeAnswer(12), Answer({1, 3}));
}

TEST_F(Services, KernelIoControls) {
    system.strName = "n\xC3\xA4me";
    system.strVersion = "1.2";
    host.Restart();
    Tick(5000);
    Tick(77);
    const Bytes large = Content(100'000);
    const Bytes uptime = {77, 0, 0, 0, 0, 0, 0, 0};
    const struct {
        std::uint32_t dwCode;
        Bytes input;
        std::uint32_t nOutSize;
        std::int32_t nResult;
        Bytes output;
    } rows[] = {
        {1, {}, 1, 1, {}},
        {1, {5}, 1, 1, {5}},
        {1, {5, 6}, 4, 1, {5, 6}},
        {1, {5, 6}, 1, 0, {}},
        {1, large, 100'000, 1, large},
        {1, large, 99'999, 0, {}},
        {2, {}, 8, 1, Text(u"1.2")},
        {3, {1}, 100, 1, Text(u"n\xE4me")},
        {3, {}, 9, 0, {}},
        {4, {}, 8, 1, uptime},
        {4, {}, 7, 0, {}},
        {5, {1, 0, 0}, 4, 0, {}},
        {5, {0xC1, 0x27, 9, 0}, 4, 0, {}}, // 600,001 ms
        {0, {}, 4, 0, {}},
        {6, {}, 4, 0, {}},
    };
    for (const auto& row : rows) {
        host.Put(Command(13, Control(row.dwCode, row.input, row.nOutSize)));
        EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
        const Bytes reply = host.Take(18);
        ASSERT_EQ(reply.size(), 18u);
        EXPECT_EQ(DakGetU16(reply.data() + 8), 13);
        EXPECT_EQ(DakGetU32(reply.data() + 10), static_cast<std::uint32_t>(row.nResult))
            << row.dwCode << ", " << row.nOutSize;
        EXPECT_EQ(DakGetU32(reply.data() + 14), row.output.size());
        EXPECT_TRUE(host.Take(200'000) == row.output) << row.dwCode << ", " << row.nOutSize;
        EXPECT_TRUE(host.Take().empty());
    }
    // Fields that do not come out even get silence.
    Bytes payload = Control(1, {5, 6}, 2);
    for (const std::size_t dwSize : {payload.size() + 1, payload.size() - 1, std::size_t{7}}) {
        payload.resize(dwSize);
        host.Put(Command(13, payload));
        EXPECT_TRUE(host.Take().empty());
    }
    // Without room for output no response is sent, and the work is done though nobody comes for
    // one.
    for (const std::uint32_t dwCode : {1U, 5U}) {
        host.Put(Command(13, Control(dwCode, {0x2C, 1, 0, 0}, 0)));
        EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
        if (dwCode == 1) {
            EXPECT_TRUE(host.Take().empty());
        } else {
            Tick(0);
        }
    }
    EXPECT_TRUE(host.Handshake(DAK_DISCONNECT));
    for (const auto& [qwMs, bUp] :
         {std::pair<std::uint64_t, bool>{999, true}, {1, false}, {299, false}, {1, true}}) {
        Tick(qwMs);
        EXPECT_EQ(host.Core().LinkUp(), bUp) << qwMs;
    }
    EXPECT_FALSE(host.Core().NextDueMs());
}

TEST_F(Services, WindowMessages) {
    Script("bin/note", "echo \"$1 $DAK_MESSAGE $DAK_MESSAGE_NAME $DAK_WPARAM $DAK_LPARAM\" >> " +
                           (host.Root() / "out").string());
    system.messageCommands = {(host.Base() / "bin/note").string() + " 'a b'", "false"};
    host.Restart();
    const auto number = [this](std::u16string_view strName) {
        host.Put(Command(21, Text(strName)));
        EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
        return host.TakeResult(19);
    };
    EXPECT_EQ(number(u"one\n"), 0xC000);
    EXPECT_EQ(number(u"two"), 0xC001);
    host.Core().HostGone();
    EXPECT_EQ(number(u"one\n"), 0xC000);
    EXPECT_EQ(number(u""), 0);
    EXPECT_EQ(number(u"\xD800"), 0);
    EXPECT_EQ(number(std::u16string(256, u'x')), 0);
    EXPECT_EQ(number(std::u16string(255, u'x')), 0xC002);

    const auto send = [this](std::uint32_t uMessage, std::uint32_t wParam, std::uint32_t lParam) {
        Bytes payload;
        for (const std::uint32_t dwValue : {uMessage, wParam, lParam}) {
            AppendU32(payload, dwValue);
        }
        return host.Plain(22, payload);
    };
    EXPECT_EQ(send(0, 1, 2), 0);
    EXPECT_EQ(send(0xC001, 7, 0xFFFFFFFE), 1);
    Until([this] { return Output() == "a b 49153 two 7 -2\n"; });
    EXPECT_EQ(send(1024, 0xFFFFFFFF, 3), 1);
    Until([this] { return Output() == "a b 49153 two 7 -2\na b 1024  4294967295 3\n"; });
    EXPECT_EQ(send(0xC000, 0, 0), 1);
    EXPECT_EQ(notices, (Words{"message 0xC001 \"two\" wParam 7 lParam -2",
                              "message 0x0400 wParam 4294967295 lParam 3",
                              "message 0xC000 \"one?\" wParam 0 lParam 0"}));

    // Numbers run out; those that are given stay.
    for (std::uint32_t i = 0xC003; i <= 0xFFFF; ++i) {
        ASSERT_EQ(number(u"n" + *agent::ToUtf16(std::to_string(i))), static_cast<std::int32_t>(i));
    }
    EXPECT_EQ(number(u"more"), 0);
    EXPECT_EQ(number(u"n65535"), 0xFFFF);
}

TEST_F(Services, MessageCommandsAreBounded) {
    MakeGate();
    Script("bin/hang", "read x < " + (host.Root() / "gate").string());
    system.messageCommands = {(host.Base() / "bin/hang").string()};
    system.bAllowExec = false;
    host.Restart();
    for (std::size_t i = 0; i <= agent::CDeviceProcesses::MOST_COMMANDS; ++i) {
        EXPECT_EQ(host.Plain(22, Bytes(12, 1)), 1);
    }
    ASSERT_EQ(notices.size(), agent::CDeviceProcesses::MOST_COMMANDS + 2);
    EXPECT_NE(notices.back().find("too many"), std::string::npos);
    EXPECT_EQ(Start(u"hang"), Answer({0, 0})) << "commands for messages do not allow programs";
    LetThrough(agent::CDeviceProcesses::MOST_COMMANDS);
    Until([this] {
        Tick();
        return !host.Core().NextDueMs();
    });
}

} // namespace
