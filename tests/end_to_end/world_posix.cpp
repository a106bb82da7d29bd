#include "tests/end_to_end/world.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;

// Where a test holds the device, a thread stands where hosts look for the agent's socket, and
// passes on what both say.
class CDevice final : public IDevice {
  public:
    explicit CDevice(const test::CTempFolder& folder) : m_folder(folder) {
        fs::create_directory(folder / "host");
        fs::create_directories(folder / "device/Card");
        ::setenv("DAK_DEVICE_DIR", folder.Path("attached").c_str(), 1);
        ::setenv("DAK_CPU_MHZ", "200", 1); // no delays inside the streams
    }
    ~CDevice() override {
        if (m_pAgent) {
            m_pAgent->Signal(SIGTERM);
            EXPECT_EQ(m_pAgent->End(), 0) << m_pAgent->Errors();
            EndRelay();
        }
    }

    void Plug() override {
        m_pAgent = std::make_unique<CProgram>(std::vector<std::string>{
            PathOfProgram("dak-agent"), "--root", m_folder.Path("device"), "--storage",
            "Card=" + m_folder.Path("device/Card"), "--allow-format", "--allow-exec", "--quota",
            "20000000", "--verbose"});
        EXPECT_TRUE(Eventually([this] { return !m_pAgent->Output().empty(); }));
    }
    void Unplug() override {
        EXPECT_EQ(m_pAgent->Kill(), CProgram::KILLED);
        m_pAgent.reset();
        EndRelay();
    }
    void HoldAfter(EWay way, std::uint64_t qwBytes) override {
        if (!m_relay.joinable()) {
            fs::rename(m_strSocket, m_strSocket + ".agent");
            m_fds[0].fd = Socket(::bind, m_strSocket);
            ::listen(m_fds[0].fd, 16);
            GoOn();
            m_bEnd = false;
            m_relay = std::thread([this] { Relay(); });
        }
        m_left[way == EWay::ToDevice ? 1 : 2] = qwBytes;
    }
    bool Holds() const override { return m_left[1] == 0 || m_left[2] == 0; }
    void GoOn() override { m_left[1] = m_left[2] = UINT64_MAX; }

    TREE Files() const override { return test::ReadTree(m_folder / "device"); }
    void Write(const TREE& files) override {
        m_folder.Write("device", files);
        for (const auto& [strName, strBytes] : files) {
            fs::permissions(m_folder / ("device/" + strName), fs::perms::owner_all);
        }
    }
    bool Says(const std::string& strText) const override { return m_pAgent->Says(strText); }

  private:
    template <class CALL>
    static int Socket(CALL call, const std::string& strPath) {
        const int nSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{AF_UNIX, {}};
        strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        call(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        return nSocket;
    }
    void HangUp(std::size_t nFrom) {
        for (std::size_t i = nFrom; i < m_fds.size(); ++i) {
            ::close(std::exchange(m_fds[i].fd, -1));
        }
    }
    void EndRelay() {
        if (m_relay.joinable()) {
            m_bEnd = true;
            m_relay.join();
            HangUp(0);
        }
    }
    void Relay() {
        while (!m_bEnd) {
            if (::poll(m_fds.data(), Holds() ? 0 : m_fds.size(), 2) <= 0) {
                continue;
            }
            if (m_fds[0].revents != 0) { // the last that came has the device
                HangUp(1);
                m_fds[1].fd = ::accept4(m_fds[0].fd, nullptr, nullptr, SOCK_CLOEXEC);
                m_fds[2].fd = Socket(::connect, m_strSocket + ".agent");
                continue;
            }
            for (std::size_t nFrom = 1; nFrom < 3; ++nFrom) {
                if (m_fds[nFrom].revents != 0 && !Holds() && !Carry(nFrom)) {
                    HangUp(1);
                    break;
                }
            }
        }
    }
    bool Carry(std::size_t nFrom) {
        std::array<char, 16384> bytes{};
        const auto nRoom = std::min<std::uint64_t>(bytes.size(), m_left[nFrom]);
        const ssize_t nCame = ::read(m_fds[nFrom].fd, bytes.data(), nRoom);
        if (nCame <= 0) {
            return false;
        }
        const auto nBytes = static_cast<std::size_t>(nCame);
        m_left[nFrom] -= m_left[nFrom] == UINT64_MAX ? 0 : nBytes;
        return ::send(m_fds[3 - nFrom].fd, bytes.data(), nBytes, MSG_NOSIGNAL) == nCame;
    }

    const test::CTempFolder& m_folder;
    const std::string m_strSocket =
        m_folder.Path("attached/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/device");
    std::unique_ptr<CProgram> m_pAgent;
    // By their number: the socket for hosts, the host, the agent; bytes that may yet come from it.
    std::array<pollfd, 3> m_fds = {{{-1, POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}}};
    std::array<std::atomic<std::uint64_t>, 3> m_left{};
    std::atomic<bool> m_bEnd = false;
    std::thread m_relay;
};

class CTerminal final : public ITerminal {
  public:
    CTerminal() {
        const winsize size{25, 100, 0, 0};
        EXPECT_TRUE(::grantpt(m_nOurs) == 0 && ::unlockpt(m_nOurs) == 0 &&
                    ::ioctl(m_nOurs, TIOCSWINSZ, &size) == 0);
    }
    ~CTerminal() override { ::close(m_nOurs); }
    CSurroundings ForProgram() const override {
        CSurroundings found;
        for (int& nStream : found.streams) {
            nStream = ::open(::ptsname(m_nOurs), O_RDWR | O_NOCTTY | O_CLOEXEC);
        }
        return found;
    }
    void Type(const std::string& strKeys) override {
        EXPECT_GT(::write(m_nOurs, strKeys.data(), strKeys.size()), 0);
    }
    std::string Shown() override {
        std::array<char, 4096> bytes{};
        for (ssize_t nCame = 0; (nCame = ::read(m_nOurs, bytes.data(), bytes.size())) > 0;) {
            m_strShown.append(bytes.data(), static_cast<std::size_t>(nCame));
        }
        return m_strShown;
    }

  private:
    const int m_nOurs = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    std::string m_strShown;
};

} // namespace

const std::vector<ETrouble> g_copyTroubles = {ETrouble::Cancelled, ETrouble::EndedAtOnce,
                                              ETrouble::Killed, ETrouble::Unplugged,
                                              ETrouble::BothGone};
const std::vector<std::uint64_t> g_copyMoments = {1'000, 640'000, 850'000};
const std::vector<std::pair<EWay, std::uint64_t>> g_commandMoments = {
    {EWay::ToDevice, 0}, {EWay::ToDevice, 90}, {EWay::ToDevice, 200}, {EWay::ToHost, 0},
    {EWay::ToHost, 400}, {EWay::ToHost, 500},  {EWay::ToHost, 1500}};
const int g_nOtherInterrupt = SIGTERM;

std::unique_ptr<IDevice> MakeDevice(const test::CTempFolder& folder) {
    return std::make_unique<CDevice>(folder);
}

std::unique_ptr<ITerminal> MakeTerminal() {
    return std::make_unique<CTerminal>();
}

std::string PathOfProgram(const std::string& strName) {
    return DAK_PROGRAMS "/" + strName;
}

} // namespace end_to_end
