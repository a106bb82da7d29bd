// The agent on its socket: a raw host against the server in this process, and against the program.
#include "agent_host.h"

#include <chrono>
#include <csignal>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "agent/posix/attachment.h"
#include "agent/posix/usbip_server.h"
#include "platform/posix/usbip.h"

namespace {

constexpr char s_szClass[] = "{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}";

// A device folder of the test's own, found through the environment.
class CDeviceDirectory {
  public:
    explicit CDeviceDirectory(const std::filesystem::path& path) : m_path(path) {
        ::setenv("DAK_DEVICE_DIR", path.c_str(), 1);
    }
    ~CDeviceDirectory() { ::unsetenv("DAK_DEVICE_DIR"); }

    std::filesystem::path Path(const std::string& strName) const {
        return m_path / s_szClass / strName;
    }

  private:
    std::filesystem::path m_path;
};

Bytes ImportRequest() {
    Bytes request(usbip::OP_REQ_IMPORT_SIZE);
    usbip::PutU16(request.data() + usbip::OP_OFFSET_VERSION, usbip::VERSION);
    usbip::PutU16(request.data() + usbip::OP_OFFSET_CODE, usbip::OP_REQ_IMPORT);
    std::copy_n(usbip::BUS_ID, sizeof(usbip::BUS_ID), request.data() + usbip::OP_OFFSET_BUS_ID);
    return request;
}

Bytes Submit(std::uint32_t dwSeqNum, std::uint32_t dwDirection, std::uint32_t dwLength,
             const Bytes& data = {}) {
    Bytes message(usbip::HEADER_SIZE);
    usbip::PutU32(message.data() + usbip::OFFSET_COMMAND, usbip::CMD_SUBMIT);
    usbip::PutU32(message.data() + usbip::OFFSET_SEQNUM, dwSeqNum);
    usbip::PutU32(message.data() + usbip::OFFSET_DEVID, usbip::DEVICE_ID);
    usbip::PutU32(message.data() + usbip::OFFSET_DIRECTION, dwDirection);
    usbip::PutU32(message.data() + usbip::OFFSET_ENDPOINT, usbip::BULK_ENDPOINT);
    usbip::PutU32(message.data() + usbip::OFFSET_BUFFER_LENGTH, dwLength);
    usbip::PutU32(message.data() + usbip::OFFSET_NUMBER_OF_PACKETS, 0xFFFFFFFF);
    Append(message, data);
    return message;
}

Bytes Write(std::uint32_t dwSeqNum, const Bytes& data) {
    return Submit(dwSeqNum, usbip::DIRECTION_OUT, static_cast<std::uint32_t>(data.size()), data);
}

Bytes Read(std::uint32_t dwSeqNum, std::uint32_t dwLength) {
    return Submit(dwSeqNum, usbip::DIRECTION_IN, dwLength);
}

Bytes Unlink(std::uint32_t dwSeqNum, std::uint32_t dwVictim) {
    Bytes message(usbip::HEADER_SIZE);
    usbip::PutU32(message.data() + usbip::OFFSET_COMMAND, usbip::CMD_UNLINK);
    usbip::PutU32(message.data() + usbip::OFFSET_SEQNUM, dwSeqNum);
    usbip::PutU32(message.data() + usbip::OFFSET_UNLINK_SEQNUM, dwVictim);
    return message;
}

Bytes ConnectPackage() {
    Bytes package(20);
    DakPutHandshake(package.data(), DAK_CONNECT, DAK_PROTOCOL_VERSION);
    return package;
}

struct CAnswer {
    std::uint32_t dwCommand = 0;
    std::uint32_t dwSeqNum = 0;
    std::int32_t nStatus = 0;
    std::uint32_t dwActual = 0;

    bool operator==(const CAnswer&) const = default;
};

class CRawHost {
  public:
    explicit CRawHost(const std::filesystem::path& path)
        : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        m_bConnected = ::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address),
                                 sizeof(address)) == 0;
    }

    bool Connected() const { return m_bConnected; }

    void Send(const Bytes& bytes) {
        EXPECT_EQ(::send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // Exactly so many bytes, or fewer when the connection ends or nothing comes for long.
    Bytes Receive(std::size_t dwBytes, int nTimeoutMs = 10'000) {
        Bytes bytes;
        while (bytes.size() < dwBytes) {
            pollfd fd{m_fd.Get(), POLLIN, 0};
            Bytes part(dwBytes - bytes.size());
            const ssize_t nRead = ::poll(&fd, 1, nTimeoutMs) == 1
                                      ? ::recv(m_fd.Get(), part.data(), part.size(), 0)
                                      : -1;
            if (nRead <= 0) {
                m_bClosed = nRead == 0;
                break;
            }
            part.resize(static_cast<std::size_t>(nRead));
            Append(bytes, part);
        }
        return bytes;
    }

    CAnswer ReceiveAnswer() {
        const Bytes header = Receive(usbip::HEADER_SIZE);
        if (header.size() != usbip::HEADER_SIZE) {
            return {};
        }
        return {usbip::GetU32(header.data() + usbip::OFFSET_COMMAND),
                usbip::GetU32(header.data() + usbip::OFFSET_SEQNUM),
                static_cast<std::int32_t>(usbip::GetU32(header.data() + usbip::OFFSET_STATUS)),
                usbip::GetU32(header.data() + usbip::OFFSET_ACTUAL_LENGTH)};
    }

    bool Import() {
        Send(ImportRequest());
        return Receive(usbip::OP_REP_IMPORT_SIZE).size() == usbip::OP_REP_IMPORT_SIZE;
    }

    bool IsSilent() { return Receive(1, 50).empty() && !m_bClosed; }
    bool IsClosed() { return Receive(1).empty() && m_bClosed; }

  private:
    agent::CFd m_fd;
    bool m_bConnected = false;
    bool m_bClosed = false;
};

bool Works(CRawHost& host) {
    host.Send(Write(900, ConnectPackage()));
    host.Send(Read(901, 20));
    return host.ReceiveAnswer() == CAnswer{usbip::RET_SUBMIT, 900, 0, 20} &&
           host.ReceiveAnswer() == CAnswer{usbip::RET_SUBMIT, 901, 0, 20} &&
           host.Receive(20).size() == 20;
}

class Transport : public testing::Test {
  protected:
    void SetUp() override {
        std::string strError;
        m_pAttachment = agent::CAttachment::Attach("t", strError);
        ASSERT_TRUE(m_pAttachment) << strError;
        m_pServer = std::make_unique<agent::CUsbipServer>(m_folder.Core(), m_pAttachment->Socket(),
                                                          nullptr);
        m_thread = std::thread([this] { EXPECT_TRUE(m_pServer->Run(m_fdStop.Get())); });
    }
    void TearDown() override {
        if (m_thread.joinable()) {
            ASSERT_EQ(::eventfd_write(m_fdStop.Get(), 1), 0);
            m_thread.join();
        }
    }

    CAgentHost m_folder;
    CDeviceDirectory m_directory{m_folder.Base() / "dev"};
    agent::CFd m_fdStop{::eventfd(0, EFD_CLOEXEC)};
    std::unique_ptr<agent::CAttachment> m_pAttachment;
    std::unique_ptr<agent::CUsbipServer> m_pServer;
    std::thread m_thread;
};

TEST_F(Transport, ImportAndFirstTransfersInOneWrite) {
    CRawHost host(m_directory.Path("t"));
    Bytes all = ImportRequest();
    Append(all, Write(1, ConnectPackage()));
    Append(all, Read(2, 14));
    Append(all, Read(3, 14));
    Append(all, Read(4, 14));
    // In parts that fall anywhere.
    for (std::size_t dwAt = 0; dwAt < all.size(); dwAt += 37) {
        const auto itAt = all.begin() + static_cast<std::ptrdiff_t>(dwAt);
        host.Send(Bytes(itAt, itAt + std::min<std::ptrdiff_t>(37, all.end() - itAt)));
    }
    const Bytes reply = host.Receive(usbip::OP_REP_IMPORT_SIZE);
    ASSERT_EQ(reply.size(), usbip::OP_REP_IMPORT_SIZE);
    EXPECT_EQ(usbip::GetU16(reply.data() + usbip::OP_OFFSET_CODE), usbip::OP_REP_IMPORT);
    EXPECT_EQ(usbip::GetU32(reply.data() + usbip::OP_OFFSET_STATUS), 0U);
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 1, 0, 20}));
    // One package, taken in two reads; the third waits.
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 2, 0, 14}));
    Bytes answer = host.Receive(14);
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 3, 0, 6}));
    Append(answer, host.Receive(6));
    EXPECT_EQ(DakGetU32(answer.data() + 16), DAK_MAXPACKAGELENGTH);
    EXPECT_TRUE(host.IsSilent());
}

TEST_F(Transport, UnlinkTakesBackWhatWaitsAndLosesNothing) {
    CRawHost host(m_directory.Path("t"));
    ASSERT_TRUE(host.Import());
    host.Send(Read(1, 20));
    EXPECT_TRUE(host.IsSilent());
    host.Send(Unlink(2, 1));
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_UNLINK, 2, usbip::STATUS_UNLINKED, 0}));
    host.Send(Write(3, ConnectPackage()));
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 3, 0, 20}));
    EXPECT_TRUE(host.IsSilent()) << "the read was taken back";
    // Unlinked too late: the bytes come first, and the unlink says so.
    host.Send(Read(4, 20));
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 4, 0, 20}));
    EXPECT_EQ(host.Receive(20).size(), 20U);
    host.Send(Unlink(5, 4));
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_UNLINK, 5, 0, 0}));
    host.Send(Unlink(6, 4711));
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_UNLINK, 6, 0, 0}));
}

TEST_F(Transport, GarbageEndsItsConnectionAndNoOther) {
    Bytes wrongVersion = ImportRequest();
    wrongVersion[0] = 9;
    Bytes wrongBus = ImportRequest();
    wrongBus[usbip::OP_OFFSET_BUS_ID] = '2';
    CRawHost good(m_directory.Path("t"));
    ASSERT_TRUE(good.Import());
    for (const Bytes& request : {wrongVersion, wrongBus, Bytes(40, 0xFF)}) {
        CRawHost bad(m_directory.Path("t"));
        bad.Send(request);
        EXPECT_TRUE(bad.IsClosed());
    }
    EXPECT_TRUE(Works(good)) << "who is no host takes nothing over";

    Bytes unknown = Submit(1, usbip::DIRECTION_IN, 20);
    usbip::PutU32(unknown.data(), 77);
    const Bytes absurd[] = {
        unknown,
        Submit(1, usbip::DIRECTION_OUT, 0xFFFFFFFF),
        Submit(1, usbip::DIRECTION_IN, 0x80000000),
        Submit(1, 2, 20),
    };
    for (const Bytes& message : absurd) {
        CRawHost bad(m_directory.Path("t"));
        ASSERT_TRUE(bad.Import());
        bad.Send(message);
        EXPECT_TRUE(bad.IsClosed());
    }
    // Reads without end: bounded, and the connection is the price.
    CRawHost greedy(m_directory.Path("t"));
    ASSERT_TRUE(greedy.Import());
    Bytes reads;
    for (std::uint32_t i = 0; i < 100; ++i) {
        Append(reads, Read(i, 20));
    }
    greedy.Send(reads);
    EXPECT_TRUE(greedy.IsClosed());

    // An endpoint that the device does not have is stalled, its data passed over.
    CRawHost host(m_directory.Path("t"));
    ASSERT_TRUE(host.Import());
    Bytes control = Write(1, ConnectPackage());
    usbip::PutU32(control.data() + usbip::OFFSET_ENDPOINT, 0);
    host.Send(control);
    EXPECT_EQ(host.ReceiveAnswer(), (CAnswer{usbip::RET_SUBMIT, 1, -32, 0}));
    EXPECT_TRUE(Works(host));
}

TEST_F(Transport, LatestImportTakesTheDevice) {
    CRawHost first(m_directory.Path("t"));
    ASSERT_TRUE(first.Import());
    ASSERT_TRUE(Works(first));
    first.Send(Bytes(20, 0)); // half a header that never ends
    std::vector<std::unique_ptr<CRawHost>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<CRawHost>(m_directory.Path("t")));
        ASSERT_TRUE(silent.back()->Connected());
    }
    CRawHost second(m_directory.Path("t"));
    ASSERT_TRUE(second.Import());
    EXPECT_TRUE(first.IsClosed());
    EXPECT_TRUE(Works(second));
}

// A host that asks and does not read: the agent goes on serving others, and holds no more than its
// bounds for this one.
TEST_F(Transport, HostThatDoesNotReadHoldsUpNobody) {
    m_folder.WriteFile("d/a.txt", Content(2'000'000));
    CRawHost deaf(m_directory.Path("t"));
    ASSERT_TRUE(deaf.Import());
    deaf.Send(Write(1, Command(8, m_folder.PullPayload(u"\\d", {u"a.txt"}))));
    Bytes reads;
    for (std::uint32_t i = 2; i < 52; ++i) {
        Append(reads, Read(i, DAK_PACKAGE_SIZE));
    }
    deaf.Send(reads);
    CRawHost next(m_directory.Path("t"));
    ASSERT_TRUE(next.Import());
    EXPECT_TRUE(Works(next));
}

TEST_F(Transport, OneAgentToAName) {
    std::string strError;
    EXPECT_FALSE(agent::CAttachment::Attach("t", strError));
    EXPECT_NE(strError.find("another agent"), std::string::npos);
    EXPECT_TRUE(agent::CAttachment::Attach("other", strError)) << strError;
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("other"))) << "detached again";
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("other.lock")));
    const std::string names[] = {
        "", ".", "..", ".x", "a/b", "a.lock", "a b", "a\n", std::string(65, 'x')};
    for (const std::string& strName : names) {
        EXPECT_FALSE(agent::CAttachment::Attach(strName, strError)) << strName;
    }
    EXPECT_TRUE(agent::CAttachment::Attach(std::string(64, 'x'), strError)) << strError;
}

// The program in a process of its own.
class CAgentProcess {
  public:
    explicit CAgentProcess(const std::vector<std::string>& arguments) {
        int fds[2] = {};
        if (::pipe(fds) != 0) {
            ADD_FAILURE() << "no pipe";
            return;
        }
        m_fdOutput = agent::CFd(fds[0]);
        std::vector<char*> argv = {const_cast<char*>(DAK_AGENT_PROGRAM)};
        for (const std::string& strNext : arguments) {
            argv.push_back(const_cast<char*>(strNext.c_str()));
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
    }
    ~CAgentProcess() {
        if (m_pid > 0) {
            End(SIGKILL);
        }
    }
    CAgentProcess(const CAgentProcess&) = delete;
    CAgentProcess& operator=(const CAgentProcess&) = delete;

    // What it says up to the end of a line, or all when it ends before.
    std::string Line() {
        std::string strLine;
        char c = 0;
        while (::read(m_fdOutput.Get(), &c, 1) == 1 && c != '\n') {
            strLine.push_back(c);
        }
        return strLine;
    }

    // Sends the signal (0: none) and waits for the end: the exit status, negative for a signal.
    int End(int nSignal) {
        if (nSignal != 0) {
            ::kill(m_pid, nSignal);
        }
        int nStatus = 0;
        ::waitpid(m_pid, &nStatus, 0);
        m_pid = -1;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }

  private:
    agent::CFd m_fdOutput;
    pid_t m_pid = -1;
};

TEST(Program, AttachesAndDetaches) {
    CAgentHost folder;
    const CDeviceDirectory directory(folder.Base() / "dev");
    const std::vector<std::string> arguments = {"--root", folder.Root().string(), "--name", "t"};
    for (const int nSignal : {SIGTERM, SIGINT}) {
        CAgentProcess program(arguments);
        EXPECT_NE(program.Line().find("attached as t"), std::string::npos);
        CRawHost host(directory.Path("t"));
        ASSERT_TRUE(host.Import());
        EXPECT_TRUE(Works(host));
        CAgentProcess second(arguments);
        EXPECT_NE(second.Line().find("another agent"), std::string::npos);
        EXPECT_EQ(second.End(0), 1);
        EXPECT_EQ(program.End(nSignal), 0);
        EXPECT_TRUE(std::filesystem::is_empty(directory.Path("")));
    }
}

TEST(Program, BadOptions) {
    CAgentHost folder;
    const CDeviceDirectory directory(folder.Base() / "dev");
    const std::string strRoot = folder.Root().string();
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{}, 2},
        {{"--root"}, 2},
        {{"--root", strRoot + "/none"}, 2},
        {{"--root", strRoot, "--storage", "Card"}, 2},
        {{"--root", strRoot, "--storage", "a/b=" + strRoot}, 2},
        {{"--root", strRoot, "--storage", "Card=" + strRoot + "/none"}, 2},
        {{"--root", strRoot, "--quota", "-1"}, 2},
        {{"--root", strRoot, "--quota", "much"}, 2},
        {{"--root", strRoot, "--name", "a/b"}, 2},
        {{"--root", strRoot, "--what"}, 2},
        {{"--root", strRoot, "--exec-path", strRoot}, 2},
        {{"--root", strRoot, "--allow-exec", "--exec-path", strRoot + "/none"}, 2},
        {{"--root", strRoot, "--on-message", "no-such-command-anywhere"}, 2},
        {{"--root", strRoot, "--on-message", "true 'open"}, 2},
        {{"--help"}, 0},
        {{"--version"}, 0},
    };
    for (const auto& [arguments, nExit] : cases) {
        CAgentProcess program(arguments);
        EXPECT_FALSE(program.Line().empty());
        EXPECT_EQ(program.End(0), nExit) << (arguments.empty() ? "no arguments" : arguments.back());
    }
}

} // namespace
