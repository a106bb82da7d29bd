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
#include <limits>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;

constexpr char SOCKET[] = "attached/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/device";
constexpr std::uint64_t NO_LIMIT = std::numeric_limits<std::uint64_t>::max();

sockaddr_un AddressOf(const std::string& strPath) {
    sockaddr_un address{AF_UNIX, {}};
    strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// Stands where hosts look for the agent's socket, and passes on what both say.
class CRelay {
  public:
    explicit CRelay(const std::string& strSocket) : m_strAgent(strSocket + ".agent") {
        fs::rename(strSocket, m_strAgent);
        const sockaddr_un address = AddressOf(strSocket);
        EXPECT_EQ(::bind(m_fds[0].fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  0);
        ::listen(m_fds[0].fd, 16);
        m_thread = std::thread([this] { Run(); });
    }
    ~CRelay() {
        m_bEnd = true;
        m_thread.join();
        HangUp();
        ::close(m_fds[0].fd);
    }
    CRelay(const CRelay&) = delete;
    CRelay& operator=(const CRelay&) = delete;

    std::array<std::atomic<std::uint64_t>, 2> left = {NO_LIMIT, NO_LIMIT}; // by EWay
    std::atomic<bool> bHolds = false;

  private:
    static int NewSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

    void HangUp() {
        for (std::size_t i = 1; i < 3; ++i) {
            ::close(m_fds[i].fd);
            m_fds[i].fd = -1;
        }
    }

    void Run() {
        while (!m_bEnd) {
            const nfds_t nFds = bHolds ? 0 : m_fds.size();
            if (::poll(m_fds.data(), nFds, 2) <= 0) {
                continue;
            }
            if (m_fds[0].revents != 0) { // the last that came has the device
                HangUp();
                const sockaddr_un address = AddressOf(m_strAgent);
                m_fds[1].fd = ::accept4(m_fds[0].fd, nullptr, nullptr, SOCK_CLOEXEC);
                m_fds[2].fd = NewSocket();
                ::connect(m_fds[2].fd, reinterpret_cast<const sockaddr*>(&address),
                          sizeof(address));
            } else if (!((m_fds[1].revents == 0 || Carry(1, 2, left[0])) &&
                         (m_fds[2].revents == 0 || bHolds || Carry(2, 1, left[1])))) {
                HangUp();
            }
        }
    }

    bool Carry(std::size_t nFrom, std::size_t nTo, std::atomic<std::uint64_t>& qwLeft) {
        std::array<char, 16384> bytes{};
        const auto nRoom = std::min<std::uint64_t>(bytes.size(), qwLeft);
        const ssize_t nCame = ::read(m_fds[nFrom].fd, bytes.data(), nRoom);
        if (nCame <= 0 || ::send(m_fds[nTo].fd, bytes.data(), static_cast<std::size_t>(nCame),
                                 MSG_NOSIGNAL) < 0) {
            return false;
        }
        if (qwLeft != NO_LIMIT && (qwLeft -= static_cast<std::uint64_t>(nCame)) == 0) {
            bHolds = true;
        }
        return true;
    }

    const std::string m_strAgent;
    std::array<pollfd, 3> m_fds = {
        {{NewSocket(), POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}}}; // its own, host, agent
    std::atomic<bool> m_bEnd = false;
    std::thread m_thread;
};

} // namespace

const std::vector<std::uint64_t> CWorld::MOMENTS = {1'000, 300'000, 640'000, 850'000};
const std::vector<std::pair<EWay, std::uint64_t>> CWorld::OF_A_COMMAND = {
    {EWay::ToDevice, 0}, {EWay::ToDevice, 90}, {EWay::ToDevice, 200}, {EWay::ToHost, 0},
    {EWay::ToHost, 400}, {EWay::ToHost, 500},  {EWay::ToHost, 1500}};
const int CWorld::OTHER_INTERRUPT = SIGTERM;

class CWorld::CDevice {
  public:
    explicit CDevice(const CWorld& world)
        : agent({DAK_PROGRAMS "/dak-agent", "--root", world.folder.Path("device"), "--storage",
                 "Card=" + world.folder.Path("device/Card"), "--allow-format", "--allow-exec",
                 "--quota", "20000000", "--verbose"}) {
        EXPECT_TRUE(Eventually([this] { return !agent.Output().empty(); })) << agent.Errors();
        pRelay = std::make_unique<CRelay>(world.folder.Path(SOCKET));
    }
    CProgram agent;
    std::unique_ptr<CRelay> pRelay;
};

CWorld::CWorld() {
    fs::create_directory(folder / "host");
    fs::create_directories(folder / "device/Card");
    ::setenv("DAK_DEVICE_DIR", folder.Path("attached").c_str(), 1);
    ::setenv("DAK_CPU_MHZ", "200", 1); // no delays inside the streams
}

CWorld::~CWorld() {
    if (m_pDevice) {
        m_pDevice->agent.Signal(SIGTERM);
        EXPECT_EQ(m_pDevice->agent.End(), 0) << m_pDevice->agent.Errors();
    }
}

void CWorld::Plug() {
    m_pDevice = std::make_unique<CDevice>(*this);
}

void CWorld::Unplug() {
    EXPECT_EQ(m_pDevice->agent.Kill(), CProgram::KILLED);
    m_pDevice.reset();
}

void CWorld::HoldAfter(EWay way, std::uint64_t qwBytes) {
    m_pDevice->pRelay->left[way == EWay::ToDevice ? 0 : 1] = qwBytes;
    m_pDevice->pRelay->bHolds = qwBytes == 0;
}

bool CWorld::Holds() const {
    return m_pDevice->pRelay->bHolds;
}

void CWorld::GoOn() {
    m_pDevice->pRelay->left[0] = NO_LIMIT;
    m_pDevice->pRelay->left[1] = NO_LIMIT;
    m_pDevice->pRelay->bHolds = false;
}

bool CWorld::DeviceSays(const std::string& strText) const {
    return m_pDevice->agent.Says(strText);
}

TREE CWorld::Files() const {
    return test::ReadTree(folder / "device");
}

void CWorld::WriteFiles(const TREE& files) {
    folder.Write("device", files);
    for (const auto& [strName, strBytes] : files) {
        fs::permissions(folder / ("device/" + strName), fs::perms::owner_all);
    }
}

std::unique_ptr<CProgram> CWorld::Start(std::vector<std::string> words, CSurroundings found) const {
    words[0] = DAK_PROGRAMS "/" + words[0];
    found.strFolder = folder.Path("host");
    return std::make_unique<CProgram>(words, found);
}

CTerminal::CTerminal() : m_nOurs(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    const winsize size{25, 100, 0, 0};
    EXPECT_TRUE(::grantpt(m_nOurs) == 0 && ::unlockpt(m_nOurs) == 0 &&
                ::ioctl(m_nOurs, TIOCSWINSZ, &size) == 0);
}

CTerminal::~CTerminal() {
    ::close(m_nOurs);
}

CSurroundings CTerminal::ForProgram() const {
    CSurroundings found;
    for (int& nStream : found.streams) {
        nStream = ::open(::ptsname(m_nOurs), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    return found;
}

void CTerminal::Type(const std::string& strKeys) {
    EXPECT_EQ(::write(m_nOurs, strKeys.data(), strKeys.size()), ssize_t(strKeys.size()));
}

std::string CTerminal::Shown() {
    std::array<char, 4096> bytes{};
    for (ssize_t nCame = 0; (nCame = ::read(m_nOurs, bytes.data(), bytes.size())) > 0;) {
        m_strShown.append(bytes.data(), static_cast<std::size_t>(nCame));
    }
    return m_strShown;
}

} // namespace end_to_end
