// The agent on its socket: a host played by hand against the server in this process, and against
// the program.
#include <thread>

#include <csignal>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "agent/posix/attachment.h"
#include "agent/posix/usbip_server.h"
#include "tests/agent/agent_host.h"
#include "tests/support/temp_folder.h"

// The system's own call, but for one socket, which takes all but so many bytes at once.
static int s_fdTaking = -1;
static std::size_t s_dwLeaves = 0;
static std::size_t s_dwTaken = 0;
extern "C" ssize_t send(int fd, const void* lpBytes, std::size_t dwBytes, int nFlags) {
    if (fd != s_fdTaking) {
        return ::sendto(fd, lpBytes, dwBytes, nFlags, nullptr, 0);
    }
    if (dwBytes <= s_dwLeaves) {
        errno = EAGAIN;
        return -1;
    }
    s_dwTaken += dwBytes - s_dwLeaves;
    return static_cast<ssize_t>(dwBytes - s_dwLeaves);
}

namespace test {
namespace {

// A message of 48 bytes: what it is, its number, and the words behind, the highest byte first.
Bytes Message(std::initializer_list<std::uint32_t> words, const Bytes& data = {}) {
    Bytes message;
    for (const std::uint32_t dwWord : words) {
        for (const int nShift : {24, 16, 8, 0}) {
            message.push_back(static_cast<std::uint8_t>(dwWord >> nShift));
        }
    }
    message.resize(48);
    return Join(message, data);
}
enum : std::uint32_t { SUBMIT = 1, UNLINK, SUBMITTED, UNLINKED };
enum : std::uint32_t { OUT = 0, IN = 1 };
constexpr std::uint32_t DEVICE = 0x10001;
constexpr std::uint32_t RESET =
    static_cast<std::uint32_t>(-104); // of a transfer that was taken back

Bytes Import(std::uint8_t byVersion = 0x11, const std::string& strBus = "1-1") {
    Bytes request = {0x01, byVersion, 0x80, 0x03, 0, 0, 0, 0};
    request.insert(request.end(), strBus.begin(), strBus.end());
    request.resize(40);
    return request;
}
Bytes Write(std::uint32_t dwNumber, const Bytes& data) {
    return Message({SUBMIT, dwNumber, DEVICE, OUT, 1, 0, static_cast<std::uint32_t>(data.size())},
                   data);
}
Bytes Read(std::uint32_t dwNumber, std::uint32_t dwLength) {
    return Message({SUBMIT, dwNumber, DEVICE, IN, 1, 0, dwLength});
}
Bytes Unlink(std::uint32_t dwNumber, std::uint32_t dwVictim) {
    return Message({UNLINK, dwNumber, DEVICE, 0, 0, dwVictim});
}
Bytes Submitted(std::uint32_t dwNumber, const Bytes& data, std::uint32_t dwTaken = 0,
                std::int32_t nStatus = 0) {
    return Message({SUBMITTED, dwNumber, 0, 0, 0, static_cast<std::uint32_t>(nStatus),
                    static_cast<std::uint32_t>(data.size()) + dwTaken},
                   data);
}
Bytes Unlinked(std::uint32_t dwNumber, std::uint32_t dwStatus) {
    return Message({UNLINKED, dwNumber, 0, 0, 0, dwStatus});
}

const Bytes CONNECT = Handshake(DAK_CONNECT);
const Bytes REPLY = Handshake(DAK_CONNECT, DAK_PROTOCOL_VERSION + 1);

class CRawHost {
  public:
    explicit CRawHost(const std::filesystem::path& path)
        : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(
            ::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    void Send(const Bytes& bytes) {
        EXPECT_EQ(::send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Fewer bytes when the connection ends.
    Bytes Receive(std::size_t dwBytes) {
        Bytes bytes(dwBytes);
        std::size_t dwHad = 0;
        for (pollfd fd{m_fd.Get(), POLLIN, 0}; dwHad < dwBytes && ::poll(&fd, 1, 20'000) == 1;) {
            const ssize_t nRead = ::recv(m_fd.Get(), bytes.data() + dwHad, dwBytes - dwHad, 0);
            m_bClosed = nRead <= 0;
            if (m_bClosed) {
                break;
            }
            dwHad += static_cast<std::size_t>(nRead);
        }
        bytes.resize(dwHad);
        return bytes;
    }
    bool IsClosed() { return Receive(1).empty() && m_bClosed; }
    bool Imports() {
        Send(Import());
        return Receive(std::size_t{320}).size() == std::size_t{320};
    }
    void Expect(const Bytes& send, const Bytes& answer) {
        Send(send);
        EXPECT_EQ(Receive(answer.size()), answer);
    }
    void Shakes() {
        Expect(Join(Write(900, CONNECT), Read(901, 20)),
               Join(Submitted(900, {}, 20), Submitted(901, REPLY)));
    }

  private:
    agent::CFd m_fd;
    bool m_bClosed = false;
};

// A device folder of the test's own, found through the environment.
class Transport : public testing::Test {
  protected:
    Transport() { ::setenv("DAK_DEVICE_DIR", base.Path("dev").c_str(), 1); }
    ~Transport() override {
        if (m_thread.joinable()) {
            EXPECT_EQ(::eventfd_write(m_fdStop.Get(), 1), 0);
            m_thread.join();
        }
        ::unsetenv("DAK_DEVICE_DIR");
    }
    void Serve() {
        base.Write("root/d/a", std::string(2'000'000, 'a'));
        m_pAgent = std::make_unique<CAgentHost>(ServedFrom(base.Path("root")));
        m_pAttachment = agent::CAttachment::Attach("t", strError);
        ASSERT_TRUE(m_pAttachment) << strError;
        m_pServer = std::make_unique<agent::CUsbipServer>(m_pAgent->Core(), m_pAttachment->Socket(),
                                                          nullptr);
        m_thread = std::thread([this] { EXPECT_TRUE(m_pServer->Run(m_fdStop.Get())); });
    }
    std::filesystem::path Device(const std::string& strName) const {
        return base / ("dev/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/" + strName);
    }

    const CTempFolder base;
    std::string strError;

  private:
    agent::CFd m_fdStop{::eventfd(0, EFD_CLOEXEC)};
    std::unique_ptr<CAgentHost> m_pAgent;
    std::unique_ptr<agent::CAttachment> m_pAttachment;
    std::unique_ptr<agent::CUsbipServer> m_pServer;
    std::thread m_thread;
};

TEST_F(Transport, TransfersCutAnywhereAndTakenBack) {
    Serve();
    CRawHost host(Device("t"));
    const Bytes all = Join(Import(), Write(1, CONNECT), Read(2, 14), Read(3, 14), Read(4, 14));
    for (std::size_t dwAt = 0; dwAt < all.size(); dwAt += 37) {
        const auto it = all.begin() + static_cast<std::ptrdiff_t>(dwAt);
        host.Send(Bytes(it, it + std::min<std::ptrdiff_t>(37, all.end() - it)));
    }
    const Bytes reply = host.Receive(std::size_t{320});
    ASSERT_EQ(reply.size(), std::size_t{320});
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 8), (Bytes{0x01, 0x11, 0, 0x03, 0, 0, 0, 0}));
    // One package in two reads; the third waits, and is taken back. What was answered before is
    // not.
    const Bytes begin(REPLY.begin(), REPLY.begin() + 14);
    const Bytes end(REPLY.begin() + 14, REPLY.end());
    host.Expect({}, Join(Submitted(1, {}, 20), Submitted(2, begin), Submitted(3, end)));
    host.Expect(Unlink(5, 4), Unlinked(5, RESET));
    host.Expect(Join(Write(6, CONNECT), Unlink(7, 4)), Join(Submitted(6, {}, 20), Unlinked(7, 0)));
    host.Expect(Read(8, 20), Submitted(8, REPLY));
    host.Expect(Unlink(9, 8), Unlinked(9, 0));
    // An endpoint that the device does not have is stalled, its data passed over.
    host.Expect(Message({SUBMIT, 10, DEVICE, OUT, 0, 0, 20}, CONNECT), Submitted(10, {}, 0, -32));
    host.Expect(Join(Write(11, {}), Read(12, 0)), Join(Submitted(11, {}), Submitted(12, {})));
    host.Shakes();
}

TEST_F(Transport, OneHostAtATimeAndTheLatest) {
    Serve();
    CRawHost good(Device("t"));
    ASSERT_TRUE(good.Imports());
    for (const Bytes& request : {Import(9), Import(0x11, "2-1"), Bytes(40, 0xFF)}) {
        CRawHost bad(Device("t"));
        bad.Send(request);
        EXPECT_TRUE(bad.IsClosed());
    }
    good.Shakes(); // who is no host takes nothing over
    Bytes greedy;
    for (std::uint32_t i = 0; i < 100; ++i) {
        greedy = Join(greedy, Read(i, 20));
    }
    for (const Bytes& message : {Message({77, 1, DEVICE, IN, 1, 0, 20}),
                                 Message({SUBMIT, 1, DEVICE, OUT, 1, 0, 0xFFFFFFFF}),
                                 Message({SUBMIT, 1, DEVICE, IN, 1, 0, 0x80000000}),
                                 Message({SUBMIT, 1, DEVICE, 2, 1, 0, 20}), greedy}) {
        CRawHost bad(Device("t"));
        ASSERT_TRUE(bad.Imports());
        bad.Send(message);
        EXPECT_TRUE(bad.IsClosed());
    }
    EXPECT_TRUE(good.IsClosed());
    // Half a header that never ends, many that say nothing, one that asks and does not read: nobody
    // is held up, and what was in work for one does not go on for the next.
    CRawHost first(Device("t"));
    ASSERT_TRUE(first.Imports());
    first.Send(Join(Write(1, Command(8, CAgentHost::PullFields(u"\\d", {u"a"}))), Bytes(20)));
    std::vector<std::unique_ptr<CRawHost>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<CRawHost>(Device("t")));
    }
    CRawHost deaf(Device("t"));
    ASSERT_TRUE(deaf.Imports());
    Bytes reads = Write(1, Command(10, Text(u"\\new")));
    EXPECT_EQ(first.Receive(48),
              Submitted(1, {},
                        static_cast<std::uint32_t>(
                            Command(8, CAgentHost::PullFields(u"\\d", {u"a"})).size())));
    EXPECT_TRUE(first.IsClosed());
    deaf.Expect(Join(reads, Read(2, 8)), Join(Submitted(1, {}, 20), Submitted(2, Ack())));
    deaf.Expect(Read(3, 14), Submitted(3, Response(10, 1)));
    reads = Write(4, Command(8, CAgentHost::PullFields(u"\\d", {u"a"})));
    for (std::uint32_t i = 5; i < 55; ++i) {
        reads = Join(reads, Read(i, DAK_PACKAGE_SIZE));
    }
    deaf.Send(reads);
    CRawHost next(Device("t"));
    ASSERT_TRUE(next.Imports());
    next.Shakes();
}

// What one call of the connection answers, and what it holds for a host.
TEST_F(Transport, OutputThatTheSocketTakesAtOnceAndNever) {
    base.Write("root/d/a", std::string(2'000'000, 'a'));
    CAgentHost agent(ServedFrom(base.Path("root")));
    int fds[2] = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    agent::CUsbipConnection connection{agent::CFd(fds[0])};
    const agent::CFd fdHost(fds[1]);
    const auto put = [&](const Bytes& bytes) {
        EXPECT_TRUE(agent::WriteWhole(fdHost.Get(), bytes.data(), bytes.size()));
        EXPECT_TRUE(connection.Fill());
        EXPECT_EQ(connection.Work(agent.Core()), nullptr);
    };
    s_fdTaking = fds[0];
    put(Join(Write(1, Command(8, CAgentHost::PullFields(u"\\d", {u"a"}))), Read(2, 8)));
    agent.Settle();
    s_dwTaken = 0;
    Bytes reads;
    for (std::uint32_t i = 3; i < 53; ++i) {
        reads = Join(reads, Read(i, DAK_PACKAGE_SIZE));
    }
    put(reads);
    EXPECT_EQ(s_dwTaken, 50 * (48 + DAK_PACKAGE_SIZE)) << "a window";
    s_dwLeaves = 1;
    Bytes unlinks;
    for (std::uint32_t i = 0; i < 100; ++i) {
        unlinks = Join(unlinks, Unlink(i, 0));
    }
    const auto held = ::mallinfo2();
    for (int i = 0; i < 2000; ++i) {
        put(unlinks);
    }
    EXPECT_TRUE(connection.WantsOutput());
    const auto now = ::mallinfo2();
    EXPECT_LT(now.uordblks + now.hblkhd, held.uordblks + held.hblkhd + (1U << 20));
    s_fdTaking = -1;
}

TEST_F(Transport, OneAgentToAName) {
    Serve();
    EXPECT_FALSE(agent::CAttachment::Attach("t", strError));
    EXPECT_NE(strError.find("another agent"), std::string::npos);
    EXPECT_TRUE(agent::CAttachment::Attach("other", strError)) << strError;
    EXPECT_FALSE(std::filesystem::exists(Device("other")));
    EXPECT_FALSE(std::filesystem::exists(Device("other.lock")));
    for (const char* lpszName : {"", ".", "..", ".x", "a/b", "a.lock", "a b", "a\n", "a\\b"}) {
        EXPECT_FALSE(agent::CAttachment::Attach(lpszName, strError)) << lpszName;
    }
    EXPECT_FALSE(agent::CAttachment::Attach(std::string(65, 'x'), strError));
    EXPECT_TRUE(agent::CAttachment::Attach(std::string(64, 'x'), strError)) << strError;
}

// The program: what it says first, and how it ends.
class CAgentProcess {
  public:
    explicit CAgentProcess(std::vector<std::string> arguments) {
        int fds[2] = {};
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), DAK_AGENT_PROGRAM);
        std::vector<char*> argv;
        for (std::string& strNext : arguments) {
            argv.push_back(strNext.data());
        }
        argv.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives a test that is killed
            ::dup2(fds[1], STDOUT_FILENO);
            ::dup2(fds[1], STDERR_FILENO);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(fds[1]);
        for (char ch = 0; ::read(fds[0], &ch, 1) == 1 && ch != '\n';) {
            strLine.push_back(ch);
        }
        ::close(fds[0]);
    }
    // The exit status, negative for a signal.
    int End(int nSignal = 0) {
        int nStatus = 0;
        ::kill(m_pid, nSignal);
        ::waitpid(m_pid, &nStatus, 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }
    std::string strLine;

  private:
    pid_t m_pid = -1;
};

TEST_F(Transport, TheProgramAttachesAndDetaches) {
    base.Write("root/x", "");
    const std::string strRoot = base.Path("root");
    for (const int nSignal : {SIGTERM, SIGINT}) {
        CAgentProcess program({"--root", strRoot, "--name", "t"});
        EXPECT_NE(program.strLine.find("attached as t"), std::string::npos);
        CRawHost host(Device("t"));
        ASSERT_TRUE(host.Imports());
        host.Shakes();
        CAgentProcess second({"--root", strRoot, "--name", "t"});
        EXPECT_NE(second.strLine.find("another agent"), std::string::npos);
        EXPECT_EQ(second.End(), 1);
        EXPECT_EQ(program.End(nSignal), 0);
        EXPECT_TRUE(std::filesystem::is_empty(Device("")));
    }
    const std::pair<std::vector<std::string>, int> rows[] = {
        {{}, 2},
        {{"--root"}, 2},
        {{"--root", strRoot + "/none"}, 2},
        {{"--root", strRoot, "--storage", "Card"}, 2},
        {{"--root", strRoot, "--storage", "a/b=" + strRoot}, 2},
        {{"--root", strRoot, "--storage", "C=" + strRoot + "/none"}, 2},
        {{"--root", strRoot, "--quota", "-1"}, 2},
        {{"--root", strRoot, "--quota", "much"}, 2},
        {{"--root", strRoot, "--name", "a/b"}, 2},
        {{"--root", strRoot, "--what"}, 2},
        {{"--root", strRoot, "--exec-path", strRoot}, 2},
        {{"--root", strRoot, "--allow-exec", "--exec-path", strRoot + "/none"}, 2},
        {{"--root", strRoot, "--on-message", "no-such-command-anywhere"}, 2},
        {{"--help"}, 0},
        {{"--version"}, 0}};
    for (const auto& [arguments, nExit] : rows) {
        CAgentProcess program(arguments);
        EXPECT_FALSE(program.strLine.empty());
        EXPECT_EQ(program.End(), nExit) << (arguments.empty() ? "no arguments" : arguments.back());
    }
}

} // namespace
} // namespace test
