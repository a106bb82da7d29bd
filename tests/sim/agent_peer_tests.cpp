// The fault layer between the simulated host and the agent, with a core that gives back what it
// takes in the place of the real one.

#include "tests/sim/agent_peer.h"
#include "tests/support/packages.h"

#include "platform/file.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

namespace agent {

class CDevice {};

class CAgentCore::CState {
  public:
    std::deque<sim::Bytes> m_packages;
    std::uint64_t m_qwNowMs = 0;
};

CAgentCore::CAgentCore(CDevice& /*device*/) : m_pState(std::make_unique<CState>()) {}
CAgentCore::~CAgentCore() = default;
void CAgentCore::TakePackage(std::span<const std::uint8_t> package) {
    m_pState->m_packages.emplace_back(package.begin(), package.end());
}
bool CAgentCore::HasBytes() {
    return !m_pState->m_packages.empty();
}
std::size_t CAgentCore::GiveBytes(std::span<std::uint8_t> buffer) {
    if (!HasBytes()) {
        return 0;
    }
    sim::Bytes& package = m_pState->m_packages.front();
    const std::size_t dwCount = std::min(buffer.size(), package.size());
    std::copy_n(package.begin(), dwCount, buffer.begin());
    package.erase(package.begin(), package.begin() + static_cast<std::ptrdiff_t>(dwCount));
    if (package.empty()) {
        m_pState->m_packages.pop_front();
    }
    return dwCount;
}
void CAgentCore::DropPending() {
    m_pState->m_packages.clear();
}
void CAgentCore::SetTime(std::uint64_t qwNowMs) {
    m_pState->m_qwNowMs = qwNowMs;
}
std::optional<std::uint64_t> CAgentCore::NextDueMs() const {
    return {};
}
void CAgentCore::HostGone() {
    DropPending();
}

} // namespace agent

namespace {

using EFault = sim::CAgentPeer::EFault;

class CEcho : public ::testing::Test {
  protected:
    void Write(const sim::Bytes& bytes) {
        DWORD dwCount = 0;
        EXPECT_TRUE(
            platform::WriteFile(m_hNode, bytes.data(), static_cast<DWORD>(bytes.size()), &dwCount));
    }
    sim::Bytes Read(DWORD dwBytes) {
        sim::Bytes buffer(dwBytes);
        DWORD dwCount = 0;
        platform::ReadFile(m_hNode, buffer.data(), dwBytes, &dwCount);
        buffer.resize(dwCount);
        return buffer;
    }

    sim::CWorld m_world;
    agent::CDevice m_device;
    agent::CAgentCore m_core{m_device};
    sim::CAgentPeer m_agent{m_world, m_core};
    HANDLE m_hNode = platform::CreateFileA(sim::DEVICE_NODE, GENERIC_READ | GENERIC_WRITE, 0,
                                           nullptr, OPEN_EXISTING, 0, nullptr);
    const sim::Bytes m_package = sim::DataPackage(DAK_PACKAGE, 8, sim::Pattern(100));
};

TEST_F(CEcho, WithoutFaultsEveryByteComesThroughAndPackagesDoNotRunTogether) {
    Write(m_package);
    Write(sim::Ack());
    sim::Bytes got = Read(8);
    got = sim::Join(got, Read(6));
    EXPECT_EQ(got.size(), 14u);
    got = sim::Join(got, Read(1000));
    EXPECT_EQ(got, m_package);
    EXPECT_EQ(Read(1000), sim::Ack());
    EXPECT_EQ(m_agent.PackagesToHost(), 2u);
    EXPECT_EQ(m_agent.PackagesToDevice(), 2u);
}

TEST_F(CEcho, FaultsMeetTheirPackageAndNoOther) {
    m_agent.FaultToDevice(1, {EFault::Drop});
    m_agent.FaultToDevice(3, {EFault::Delay, 40});
    m_agent.FaultToHost(1, {EFault::Corrupt, 20});
    m_agent.FaultToHost(2, {EFault::Delay, 60});
    m_agent.FaultToHost(3, {EFault::Drop});
    m_agent.FaultToHost(4, {EFault::Cut, 9});
    m_agent.FaultToHost(5, {EFault::Vanish});
    Write(sim::Ack());
    Write(m_package);
    EXPECT_EQ(m_world.NowMs(), 0u);
    Write(sim::Response(2, 1));
    EXPECT_EQ(m_world.NowMs(), 40u);
    Write(sim::Response(3, 1));
    Write(sim::Response(4, 1));
    Write(sim::Response(5, 1));

    sim::Bytes damaged = m_package;
    damaged[20] ^= 0x10;
    sim::Bytes got = Read(8);
    got = sim::Join(got, Read(1000));
    EXPECT_EQ(got, damaged);
    EXPECT_EQ(Read(1000), sim::Response(2, 1));
    EXPECT_EQ(m_world.NowMs(), 100u);
    sim::Bytes cut = sim::Response(4, 1);
    cut.resize(9);
    EXPECT_EQ(Read(1000), cut);
    EXPECT_EQ(Read(1000), sim::Bytes{});
    EXPECT_FALSE(m_world.IsPlugged());
    EXPECT_EQ(m_agent.FaultsMet(), 7);
}

TEST_F(CEcho, AHandshakeDropsADamagedPackageThatIsHalfTaken) {
    m_agent.FaultToHost(1, {EFault::Corrupt, 20});
    Write(m_package);
    EXPECT_EQ(Read(8).size(), 8u);
    Write(sim::Handshake(DAK_CONNECT));
    EXPECT_EQ(Read(1000), sim::Handshake(DAK_CONNECT));
}

} // namespace
