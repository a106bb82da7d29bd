// The simulated host itself, and its devices.

#include "tests/sim/agent_peer.h"
#include "tests/sim/scripted_device.h"

#include "platform/file.h"
#include "platform/thread.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <deque>
#include <set>

// A core that gives back what it takes, in the place of the real one.
namespace agent {

class CDevice {};

class CAgentCore::CState {
  public:
    std::deque<sim::Bytes> packages;
};

CAgentCore::CAgentCore(CDevice& /*device*/) : m_pState(std::make_unique<CState>()) {}
CAgentCore::~CAgentCore() = default;
void CAgentCore::TakePackage(std::span<const std::uint8_t> package) {
    m_pState->packages.emplace_back(package.begin(), package.end());
}
std::size_t CAgentCore::GiveBytes(std::span<std::uint8_t> buffer) {
    sim::Bytes& package = m_pState->packages.front();
    const std::size_t dwCount = std::min(buffer.size(), package.size());
    std::copy_n(package.begin(), dwCount, buffer.begin());
    package.erase(package.begin(), package.begin() + static_cast<std::ptrdiff_t>(dwCount));
    package.empty() ? m_pState->packages.pop_front() : void();
    return dwCount;
}
std::span<const std::uint8_t> CAgentCore::NextBytes() {
    return m_pState->packages.empty() ? std::span<const std::uint8_t>()
                                      : m_pState->packages.front();
}
void CAgentCore::SetTime(std::uint64_t /*qwNowMs*/) {}
std::optional<std::uint64_t> CAgentCore::NextDueMs() const {
    return {};
}
void CAgentCore::HostGone() {
    m_pState->packages.clear();
}

} // namespace agent

namespace {

using sim::Bytes;
using sim::CWorld;

HANDLE OpenNode() {
    return platform::CreateFileA(sim::DEVICE_NODE.data(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
}

Bytes Read(HANDLE hNode, DWORD dwBytes) {
    Bytes buffer(dwBytes);
    DWORD dwCount = 0;
    platform::ReadFile(hNode, buffer.data(), dwBytes, &dwCount);
    buffer.resize(dwCount);
    return buffer;
}

BOOL Write(HANDLE hNode, const Bytes& bytes) {
    DWORD dwCount = 0;
    return platform::WriteFile(hNode, bytes.data(), static_cast<DWORD>(bytes.size()), &dwCount);
}

TEST(SimulatedHost, TheClockJumpsAndARunIsTheSameEveryTime) {
    std::vector<std::string> first;
    for (int nRun = 0; nRun < 3; ++nRun) {
        CWorld world;
        const HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "lock");
        std::vector<HANDLE> threads;
        for (DWORD i = 1; i <= 4; ++i) {
            threads.push_back(world.Spawn([=] {
                for (DWORD n = 0; n < 20; ++n) {
                    platform::Sleep(7 * i);
                    platform::WaitForSingleObject(hLock, INFINITE);
                    platform::Sleep(600'000);
                    platform::ReleaseMutex(hLock);
                }
            }));
        }
        for (const HANDLE hThread : threads) {
            world.Join(hThread);
        }
        EXPECT_EQ(world.NowMs(), 7u + 80u * 600'000u);
        first = nRun == 0 ? world.Trace() : first;
        EXPECT_EQ(world.Trace(), first);
    }
}

// At one moment actions come first, then threads by the time they began to wait; what comes with
// the time-out is in time.
TEST(SimulatedHost, WhatIsDueComesInItsOrderAtItsMillisecond) {
    CWorld world;
    std::string strOrder;
    for (const char ch : {'a', 'b'}) {
        platform::CloseHandle(world.Spawn([&world, &strOrder, ch] {
            platform::Sleep(ch == 'a' ? 1 : 2);
            platform::Sleep(static_cast<DWORD>(300 - world.NowMs()));
            strOrder += ch;
        }));
    }
    world.At(300, [&] { strOrder += '!'; });
    platform::Sleep(300);
    EXPECT_EQ(strOrder, "!");
    platform::Sleep(0);
    EXPECT_EQ(strOrder, "!ab");
    DWORD dwWord = 5;
    world.At(350, [&] { platform::WakeByAddressAll(&dwWord); });
    EXPECT_TRUE(platform::WaitOnAddress(&dwWord, 5, 50));
    EXPECT_FALSE(platform::WaitOnAddress(&dwWord, 5, 50));
    EXPECT_EQ(world.NowMs(), 400u);
}

TEST(SimulatedHost, ADeadlockFailsTheTestAndEndsEveryThread) {
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        {
            CWorld world;
            sim::CScriptedDevice device(world);
            const HANDLE hThread = world.Spawn([hNode = OpenNode()] { Read(hNode, 1); });
            EXPECT_EQ(platform::WaitForSingleObject(hThread, INFINITE), DWORD{WAIT_FAILED});
            EXPECT_EQ(platform::CreateMutexA(nullptr, FALSE, "lock"), nullptr);
        },
        "thread 2 waits for read of 1");
}

// A thread that looks again after every refused wait must neither keep others from running nor
// time from passing; one that is left behind ends with its world.
TEST(SimulatedHost, AStoppedThreadIsWaitedFor) {
    bool bEnded = false;
    DWORD dwWord = 1;
    {
        CWorld world;
        world.Spawn([&] {
            platform::Sleep(50);
            dwWord = 0;
            platform::Sleep(INFINITE);
            bEnded = true;
        });
        const HANDLE hThread = world.Spawn([&] {
            while (dwWord != 0) {
                platform::WaitOnAddress(&dwWord, 1, INFINITE);
            }
        });
        platform::Sleep(1);
        EXPECT_TRUE(platform::TerminateThread(hThread, 0));
        EXPECT_EQ(world.NowMs(), 50u);
        EXPECT_EQ(dwWord, 0u);
        EXPECT_FALSE(bEnded);
    }
    EXPECT_TRUE(bEnded);
}

// The room on the volume is taken and given back, and each call that can fail fails once.
TEST(SimulatedHost, ASweepFailsEveryCallOnce) {
    std::set<std::vector<std::string>> traces;
    const std::uint64_t nFaults = sim::Sweep([&](CWorld& world) {
        world.qwFreeBytes = 10;
        const HANDLE hFile = platform::CreateFileA("C:\\f", GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr);
        if (Write(hFile, Bytes(7))) {
            EXPECT_EQ(world.qwFreeBytes, 3u);
            EXPECT_FALSE(Write(hFile, Bytes(5)));
        }
        platform::CloseHandle(hFile);
        platform::DeleteFileA(platform::MoveFileA("C:/f", "/C:/g") ? "C:/g" : "C:/f");
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        traces.insert(world.Trace({"fault", "file delete"}));
    });
    EXPECT_EQ(nFaults, 5u);
    EXPECT_EQ(traces.size(), 6u);
}

TEST(ScriptedDevice, ChecksBytesAndTimes) {
    CWorld world;
    sim::CScriptedDevice device(world);
    device.Expect({1, 2, 3}).At(5).ReplyAfter(100, {9}).DoNotTake().At(200).Expect({7}).Vanish();
    const HANDLE hNode = OpenNode();
    EXPECT_TRUE(Write(hNode, sim::Handshake(DAK_CONNECT)));
    EXPECT_EQ(Read(hNode, 100), sim::Handshake(DAK_CONNECT));
    platform::Sleep(5);
    EXPECT_TRUE(Write(hNode, {1, 2, 3}));
    EXPECT_EQ(Read(hNode, 100), Bytes{9});
    const HANDLE hThread = world.Spawn([&] { EXPECT_FALSE(Write(hNode, {7})); });
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 95), DWORD{WAIT_TIMEOUT});
    platform::TerminateThread(hThread, 0);
    EXPECT_TRUE(Write(hNode, {7}));
    EXPECT_FALSE(world.IsPlugged());
    world.Plug(device);
    EXPECT_FALSE(Write(hNode, {1})) << "stale";

    const HANDLE hNew = OpenNode();
    const Bytes wrong = {1, 2, 5, 4};
    device.Expect({1, 2, 3, 4});
    EXPECT_NONFATAL_FAILURE(Write(hNew, wrong), "differ at byte 2");
    EXPECT_NONFATAL_FAILURE(Write(hNew, wrong), "no step waits");
    device.Expect(wrong).At(7);
    EXPECT_NONFATAL_FAILURE(Write(hNew, wrong), "is the time of step");
    EXPECT_NONFATAL_FAILURE(device.Expect(wrong).Finish(), "steps of the script are left");
}

TEST(AgentPeer, FaultsMeetTheirPackageAndNoOther) {
    CWorld world;
    agent::CDevice device;
    agent::CAgentCore core(device);
    sim::CAgentPeer peer(world, core);
    using EFault = sim::CAgentPeer::EFault;
    const HANDLE hNode = OpenNode();
    peer.FaultToDevice(2, {EFault::Drop});
    peer.FaultToDevice(3, {EFault::Delay, 40});
    peer.FaultToHost(2, {EFault::Corrupt, 9});
    peer.FaultToHost(3, {EFault::Delay, 60});
    peer.FaultToHost(4, {EFault::Drop});
    peer.FaultToHost(5, {EFault::Cut, 9});
    peer.FaultToHost(6, {EFault::Vanish});
    std::vector<Bytes> sent;
    for (std::uint32_t i = 0; i < 7; ++i) {
        sent.push_back(sim::Pattern(20, i));
        EXPECT_TRUE(Write(hNode, sent.back()));
    }
    EXPECT_EQ(world.NowMs(), 40u);
    sent[2][9] ^= 0x10;
    sent[5].resize(9);
    const Bytes head = Read(hNode, 8);
    EXPECT_EQ(sim::Join(head, Read(hNode, 100)), sent[0]);
    EXPECT_EQ(Read(hNode, 8), Bytes(sent[2].begin(), sent[2].begin() + 8));
    EXPECT_EQ(Read(hNode, 100), Bytes(sent[2].begin() + 8, sent[2].end()));
    EXPECT_EQ(Read(hNode, 100), sent[3]);
    EXPECT_EQ(world.NowMs(), 100u);
    EXPECT_EQ(Read(hNode, 100), sent[5]);
    EXPECT_EQ(Read(hNode, 100), Bytes{});
    EXPECT_FALSE(world.IsPlugged());
    EXPECT_EQ(peer.FaultsMet(), 7);

    // A handshake drops a damaged package that is half taken.
    world.Plug(peer);
    const HANDLE hNew = OpenNode();
    peer.FaultToHost(1, {EFault::Corrupt, 9});
    EXPECT_TRUE(Write(hNew, sent[0]));
    EXPECT_EQ(Read(hNew, 8).size(), 8u);
    EXPECT_TRUE(Write(hNew, sim::Handshake(DAK_CONNECT)));
    EXPECT_EQ(Read(hNew, 100), sim::Handshake(DAK_CONNECT));
}

} // namespace
