// The agent on its socket: a host played by hand against the server in this process, and the
// program's arguments.
#include <thread>

#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "agent/posix/attachment.h"
#include "agent/posix/usbip_server.h"
#include "tests/support/packages.h"
#include "tests/support/temp_folder.h"

// The system's own call, but for one socket, which takes all but so many bytes at once.
static int s_fdTaking = -1;
static std::size_t s_dwLeaves = 0;
static std::size_t s_dwTook = 0;
extern "C" ssize_t send(int fd, const void* lpBytes, std::size_t dwBytes, int nFlags) {
    if (fd != s_fdTaking) {
        return ::sendto(fd, lpBytes, dwBytes, nFlags, nullptr, 0);
    }
    errno = EAGAIN;
    s_dwTook += dwBytes - std::min(dwBytes, s_dwLeaves);
    return dwBytes <= s_dwLeaves ? -1 : static_cast<ssize_t>(dwBytes - s_dwLeaves);
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
enum : std::uint32_t { OUT = 0, IN = 1, DEVICE = 0x10001 };
constexpr auto RESET = static_cast<std::uint32_t>(-104); // of a transfer that was taken back

Bytes Import(std::uint8_t byVersion = 0x11, char chPort = '1') {
    Bytes request = {
        0x01, byVersion, 0x80, 0x03, 0, 0, 0, 0, '1', '-', static_cast<std::uint8_t>(chPort)};
    request.resize(40);
    return request;
}
Bytes Write(std::uint32_t dwNumber, const Bytes& data) {
    return Message({SUBMIT, dwNumber, DEVICE, OUT, 1, 0, static_cast<std::uint32_t>(data.size())},
                   data);
}
Bytes Reads(std::uint32_t dwFirst, std::uint32_t dwLength, std::uint32_t nReads = 1) {
    Bytes reads;
    for (std::uint32_t i = 0; i < nReads; ++i) {
        reads = Join(reads, Message({SUBMIT, dwFirst + i, DEVICE, IN, 1, 0, dwLength}));
    }
    return reads;
}
Bytes Unlink(std::uint32_t dwNumber, std::uint32_t dwVictim) {
    return Message({UNLINK, dwNumber, DEVICE, 0, 0, dwVictim});
}
Bytes Submitted(std::uint32_t dwNumber, const Bytes& data, std::size_t dwTaken = 0,
                std::uint32_t dwStatus = 0) {
    return Message(
        {SUBMITTED, dwNumber, 0, 0, 0, dwStatus, static_cast<std::uint32_t>(data.size() + dwTaken)},
        data);
}
Bytes Unlinked(std::uint32_t dwNumber, std::uint32_t dwStatus) {
    return Message({UNLINKED, dwNumber, 0, 0, 0, dwStatus});
}

const Bytes CONNECT = Handshake(DAK_CONNECT);
const Bytes REPLY = Handshake(DAK_CONNECT, DAK_PROTOCOL_VERSION + 1);
const Bytes PULL = Command(8, Bytes{0}, Text(u"\\d"), Text(u"C:\\t"), U32(1), Text(u"a"));

class CHost {
  public:
    explicit CHost(const std::string& strPath)
        : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(
            ::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    void Send(const Bytes& bytes) const {
        EXPECT_EQ(::send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Fewer bytes when the connection ends.
    Bytes Receive(std::size_t dwBytes) const {
        Bytes bytes(dwBytes);
        std::size_t dwHad = 0;
        pollfd fd{m_fd.Get(), POLLIN, 0};
        for (ssize_t nRead = 1; dwHad < dwBytes && nRead > 0 && ::poll(&fd, 1, 20'000) == 1;) {
            nRead = ::recv(m_fd.Get(), bytes.data() + dwHad, dwBytes - dwHad, 0);
            dwHad += nRead > 0 ? static_cast<std::size_t>(nRead) : 0;
        }
        bytes.resize(dwHad);
        return bytes;
    }
    bool IsClosed() const { // within the bound of a receipt
        char ch = 0;
        const bool bNothing = Receive(1).empty();
        const ssize_t nRead = ::recv(m_fd.Get(), &ch, 1, MSG_DONTWAIT);
        return bNothing && (nRead == 0 || (nRead < 0 && errno != EAGAIN));
    }
    bool Imports() const {
        Send(Import());
        const Bytes reply = Receive(std::size_t{320});
        return reply.size() == std::size_t{320} &&
               Bytes(reply.begin(), reply.begin() + 8) == Bytes{0x01, 0x11, 0, 0x03, 0, 0, 0, 0};
    }
    void Expect(const Bytes& send, const Bytes& answer) const {
        Send(send);
        EXPECT_EQ(Receive(answer.size()), answer);
    }
    void Shakes() const {
        Expect(Join(Write(900, CONNECT), Reads(901, 20)),
               Join(Submitted(900, {}, 20), Submitted(901, REPLY)));
    }

  private:
    agent::CFd m_fd;
};

// A device folder of the test's own, found through the environment.
class Transport : public testing::Test {
  protected:
    Transport() {
        ::setenv("DAK_DEVICE_DIR", base.Path("dev").c_str(), 1);
        base.Write("root/d/a", std::string(2'000'000, 'a'));
        agent::CDeviceOptions options;
        options.strRoot = base.Path("root");
        m_pDevice = agent::CDevice::Open(options, strError);
        pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
    }
    ~Transport() override {
        if (m_thread.joinable()) {
            EXPECT_EQ(::eventfd_write(m_fdStop.Get(), 1), 0);
            m_thread.join();
        }
        ::unsetenv("DAK_DEVICE_DIR");
    }
    void Serve() {
        m_pAttachment = agent::CAttachment::Attach("t", strError);
        ASSERT_TRUE(m_pAttachment) << strError;
        m_pServer =
            std::make_unique<agent::CUsbipServer>(*pCore, m_pAttachment->Socket(), true, nullptr);
        m_thread = std::thread([this] { EXPECT_TRUE(m_pServer->Run(m_fdStop.Get())); });
    }
    std::string Node(const std::string& strName = "t") const {
        return base.Path("dev/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/" + strName);
    }

    const CTempFolder base;
    std::string strError;
    std::unique_ptr<agent::CAgentCore> pCore;

  private:
    agent::CFd m_fdStop{::eventfd(0, EFD_CLOEXEC)};
    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAttachment> m_pAttachment;
    std::unique_ptr<agent::CUsbipServer> m_pServer;
    std::thread m_thread;
};

TEST_F(Transport, TransfersCutAnywhereAndTakenBack) {
    Serve();
    const CHost host(Node());
    ASSERT_TRUE(host.Imports());
    const Bytes all = Join(Write(1, CONNECT), Reads(2, 14, 3));
    for (std::size_t dwAt = 0; dwAt < all.size(); dwAt += 37) {
        host.Send(Bytes(&all[dwAt], &all[dwAt] + std::min<std::size_t>(37, all.size() - dwAt)));
    }
    // One package in two reads; the third waits, and is taken back. What was answered before is
    // not. An endpoint that the device does not have is stalled, its data passed over.
    const Bytes begin(REPLY.begin(), REPLY.begin() + 14);
    const Bytes end(REPLY.begin() + 14, REPLY.end());
    const std::pair<Bytes, Bytes> rows[] = {
        {{}, Join(Submitted(1, {}, 20), Submitted(2, begin), Submitted(3, end))},
        {Unlink(5, 4), Unlinked(5, RESET)},
        {Join(Write(6, CONNECT), Unlink(7, 4)), Join(Submitted(6, {}, 20), Unlinked(7, 0))},
        {Reads(8, 20), Submitted(8, REPLY)},
        {Unlink(9, 8), Unlinked(9, 0)},
        {Message({SUBMIT, 10, DEVICE, OUT, 0, 0, 20}, CONNECT),
         Submitted(10, {}, 0, static_cast<std::uint32_t>(-32))},
        {Join(Write(11, {}), Reads(12, 0)), Join(Submitted(11, {}), Submitted(12, {}))}};
    for (const auto& [send, answer] : rows) {
        host.Expect(send, answer);
    }
    host.Shakes();
}

TEST_F(Transport, OneHostAtATimeAndTheLatest) {
    Serve();
    const CHost good(Node());
    ASSERT_TRUE(good.Imports());
    for (const Bytes& request : {Import(9), Import(0x11, '2'), Bytes(40, 0xFF)}) {
        const CHost bad(Node());
        bad.Send(request);
        EXPECT_TRUE(bad.IsClosed());
    }
    good.Shakes(); // who is no host takes nothing over
    for (const Bytes& message : {Message({77, 1, DEVICE, IN, 1, 0, 20}),
                                 Message({SUBMIT, 1, DEVICE, OUT, 1, 0, 0xFFFFFFFF}),
                                 Message({SUBMIT, 1, DEVICE, IN, 1, 0, 0x80000000}),
                                 Message({SUBMIT, 1, DEVICE, 2, 1, 0, 20}), Reads(1, 20, 100)}) {
        const CHost bad(Node());
        ASSERT_TRUE(bad.Imports());
        bad.Send(message);
        EXPECT_TRUE(bad.IsClosed());
    }
    EXPECT_TRUE(good.IsClosed());
    // Half a header that never ends, many that say nothing, one that asks and does not read: nobody
    // is held up, and what was in work for one does not go on for the next.
    const CHost first(Node());
    ASSERT_TRUE(first.Imports());
    first.Send(Join(Write(1, PULL), Bytes(20)));
    std::vector<std::unique_ptr<CHost>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<CHost>(Node()));
    }
    const CHost deaf(Node());
    ASSERT_TRUE(deaf.Imports());
    EXPECT_EQ(first.Receive(48), Submitted(1, {}, PULL.size()));
    EXPECT_TRUE(first.IsClosed());
    deaf.Expect(Join(Write(1, Command(10, Text(u"\\new"))), Reads(2, 8)),
                Join(Submitted(1, {}, 20), Submitted(2, Ack())));
    deaf.Expect(Reads(3, 14), Submitted(3, Response(10, 1)));
    deaf.Send(Join(Write(4, PULL), Reads(5, DAK_PACKAGE_SIZE, 50)));
    const CHost next(Node());
    ASSERT_TRUE(next.Imports());
    next.Shakes();
}

// A host that never takes the last byte does not make the rest pile up.
TEST_F(Transport, OutputIsBounded) {
    int fds[2] = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    agent::CUsbipConnection connection{agent::CFd(fds[0])};
    const agent::CFd fdHost(fds[1]);
    s_fdTaking = fds[0];
    s_dwLeaves = 1;
    Bytes unlinks;
    for (std::uint32_t i = 0; i < 100; ++i) {
        unlinks = Join(unlinks, Unlink(i, 0));
    }
    const auto held = ::mallinfo2();
    for (int i = 0; i < 2000; ++i) {
        EXPECT_TRUE(agent::WriteWhole(fdHost.Get(), unlinks.data(), unlinks.size()));
        EXPECT_TRUE(connection.Fill());
        EXPECT_EQ(connection.Work(*pCore), nullptr);
    }
    const auto now = ::mallinfo2();
    EXPECT_LT(now.uordblks + now.hblkhd, held.uordblks + held.hblkhd + (1U << 20));
    // Nobody calls again where all is taken: what there was no room for goes out at once, behind
    // the byte that was left.
    s_dwLeaves = 0;
    s_dwTook = 0;
    const Bytes pull = Join(Write(1, PULL), Reads(2, DAK_PACKAGE_SIZE, 51));
    EXPECT_TRUE(agent::WriteWhole(fdHost.Get(), pull.data(), pull.size()));
    EXPECT_TRUE(connection.Fill());
    EXPECT_EQ(connection.Work(*pCore), nullptr);
    EXPECT_EQ(s_dwTook, 1 + 48 + 48 + 8 + 50 * (48 + std::size_t{DAK_PACKAGE_SIZE}));
    s_fdTaking = -1;
}

TEST_F(Transport, OneAgentToAName) {
    Serve();
    EXPECT_FALSE(agent::CAttachment::Attach("t", strError));
    EXPECT_NE(strError.find("another agent"), std::string::npos);
    EXPECT_TRUE(agent::CAttachment::Attach("other", strError)) << strError;
    EXPECT_FALSE(std::filesystem::exists(Node("other")) ||
                 std::filesystem::exists(Node("other.lock")));
    for (const std::string strName : {"", ".", "..", ".x", "a/b", "a.lock", "a b", "a\n", "a\\b"}) {
        EXPECT_FALSE(agent::CAttachment::Attach(strName, strError)) << strName;
    }
    EXPECT_FALSE(agent::CAttachment::Attach(std::string(65, 'x'), strError));
    EXPECT_TRUE(agent::CAttachment::Attach(std::string(64, 'x'), strError)) << strError;
}

TEST_F(Transport, TheProgramRefusesWhatItCannotServe) {
    Serve();
    const std::string strRoot = " --root " + base.Path("root");
    for (const std::string& strArguments :
         {std::string(), std::string(" --root"), strRoot + "/none", strRoot + " --storage Card",
          strRoot + " --storage a/b=/", strRoot + " --storage C=/none", strRoot + " --quota -1",
          strRoot + " --quota much", strRoot + " --name a/b", strRoot + " --what",
          strRoot + " --exec-path /", strRoot + " --allow-exec --exec-path /none",
          strRoot + " --on-message no-such-command-anywhere"}) {
        EXPECT_EQ(std::system((DAK_AGENT_PROGRAM + strArguments + " 2>&1 | grep -q .").c_str()), 0)
            << strArguments;
        EXPECT_EQ(std::system((DAK_AGENT_PROGRAM + strArguments + " >/dev/null 2>&1").c_str()),
                  2 << 8)
            << strArguments;
    }
    EXPECT_EQ(std::system((DAK_AGENT_PROGRAM + strRoot + " --name t >/dev/null 2>&1").c_str()),
              1 << 8);
}

} // namespace
} // namespace test
