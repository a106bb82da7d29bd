// The simulated host itself, and its devices.

#include "agent/device.h"
#include "tests/sim/agent_peer.h"
#include "tests/sim/scripted_device.h"

#include "platform/file.h"
#include "platform/thread.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <set>

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

// Each call fails once, of whatever kind it is; and the room on the volume is taken and given back.
TEST(SimulatedHost, AnyCallFailsAtItsNumber) {
    std::set<std::vector<std::string>> traces;
    for (std::uint64_t n = 1; n <= 6; ++n) {
        CWorld world;
        world.qwFreeBytes = 10;
        world.FailAnyCall(n);
        const HANDLE hFile = platform::CreateFileA("C:\\f", GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr);
        if (Write(hFile, Bytes(7))) {
            EXPECT_EQ(world.qwFreeBytes, 3u);
            EXPECT_FALSE(Write(hFile, Bytes(5)));
        }
        platform::CloseHandle(hFile);
        const bool bMoved = platform::MoveFileA("C:/f", "/C:/g") != FALSE;
        if (platform::DeleteFileA(bMoved ? "C:/g" : "C:/f")) {
            EXPECT_EQ(world.qwFreeBytes, 10u);
        }
        EXPECT_EQ(world.FaultsMet(), n <= world.CallCount() ? 1 : 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        traces.insert(world.Trace({"fault", "file delete"}));
    }
    EXPECT_EQ(traces.size(), 5u) << "of two writes the trace says the same";
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
    EXPECT_NONFATAL_FAILURE(sim::CScriptedDevice(world).Expect(wrong), "steps of the script");
}

TEST(AgentPeer, AFaultMeetsItsPackage) {
    using EFault = sim::CAgentPeer::EFault;
    Bytes reply = sim::Handshake(DAK_CONNECT, DAK_PROTOCOL_VERSION);
    reply[12] = 1; // connected
    Bytes corrupt = reply;
    corrupt[9] ^= 0x10;
    constexpr std::uint64_t NEVER = 1000;
    const struct {
        bool bToHost;
        sim::CAgentPeer::CFault fault;
        Bytes reply;
        std::uint64_t qwMs;
    } rows[] = {
        {false, {EFault::Drop}, {}, NEVER},
        {false, {EFault::Corrupt, 0}, {}, NEVER},
        {false, {EFault::Cut, 19}, {}, NEVER},
        {false, {EFault::Delay, 40}, reply, 40},
        {false, {EFault::Vanish}, {}, 0},
        {true, {EFault::Drop}, {}, NEVER},
        {true, {EFault::Corrupt, 9}, corrupt, 0},
        {true, {EFault::Cut, 9}, Bytes(reply.begin(), reply.begin() + 9), 0},
        {true, {EFault::Delay, 60}, reply, 60},
        {true, {EFault::Vanish}, {}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        CWorld world;
        const test::CTempFolder folder;
        std::string strError;
        const auto pDevice = agent::CDevice::Open({folder.Path(), {}, {}, {}}, strError);
        agent::CAgentCore core(*pDevice);
        sim::CAgentPeer peer(world, core);
        peer.onPackage = [&](bool bToHost, std::uint64_t n) {
            return bToHost == row.bToHost && n == 1 ? std::optional(row.fault) : std::nullopt;
        };
        Bytes got;
        const HANDLE hThread = world.Spawn([&, hNode = OpenNode()] {
            Write(hNode, sim::Handshake(DAK_CONNECT));
            got = Read(hNode, 8);
            got = sim::Join(got, got.empty() ? got : Read(hNode, 100));
        });
        platform::WaitForSingleObject(hThread, NEVER);
        platform::TerminateThread(hThread, 0);
        EXPECT_EQ(got, row.reply);
        EXPECT_EQ(world.NowMs(), row.qwMs);
        EXPECT_EQ(world.IsPlugged(), row.fault.eFault != EFault::Vanish);
    }
}

} // namespace
