// The simulated host itself.

#include "tests/sim/scripted_device.h"
#include "tests/sim/world.h"

#include "platform/device.h"
#include "platform/file.h"
#include "platform/thread.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

using sim::Bytes;

// The device node, opened by the road that the library takes.
HANDLE OpenNode() {
    const GUID guid = {
        0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
    const HDEVINFO hSet = platform::SetupDiGetClassDevsA(&guid, nullptr, nullptr,
                                                         DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    platform::SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    HANDLE hNode = INVALID_HANDLE_VALUE;
    if (platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &guid, 0, &data)) {
        DWORD dwSize = 0;
        platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, nullptr, 0, &dwSize, nullptr);
        std::vector<DWORD> record(dwSize / sizeof(DWORD) + 1);
        auto* lpDetail =
            reinterpret_cast<platform::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(record.data());
        lpDetail->cbSize = platform::DETAIL_RECORD_SIZE;
        EXPECT_TRUE(platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwSize,
                                                               nullptr, nullptr));
        hNode = platform::CreateFileA(
            reinterpret_cast<const char*>(record.data()) + platform::DETAIL_PATH_OFFSET,
            GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    platform::SetupDiDestroyDeviceInfoList(hSet);
    return hNode;
}

Bytes Read(HANDLE hNode, DWORD dwBytes) {
    Bytes buffer(dwBytes);
    DWORD dwCount = 0;
    EXPECT_TRUE(platform::ReadFile(hNode, buffer.data(), dwBytes, &dwCount));
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
        sim::CWorld world;
        const HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "lock");
        std::vector<HANDLE> threads;
        for (DWORD i = 0; i < 4; ++i) {
            threads.push_back(world.Spawn([=] {
                for (DWORD n = 0; n < 20; ++n) {
                    platform::Sleep(7 * (i + 1));
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
        if (nRun == 0) {
            first = world.Trace();
        }
        EXPECT_EQ(world.Trace(), first);
    }
}

TEST(SimulatedHost, TimeOutsAndWakesComeAtTheirMillisecond) {
    sim::CWorld world;
    const HANDLE hThread = world.Spawn([] { platform::Sleep(300); });
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 299), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(world.NowMs(), 299u);
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 1), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(world.NowMs(), 300u);

    DWORD dwWord = 5;
    world.At(400, [&] { dwWord = 6; });
    world.At(450, [&] { platform::WakeByAddressAll(&dwWord); });
    EXPECT_TRUE(platform::WaitOnAddress(&dwWord, 5, INFINITE));
    EXPECT_EQ(world.NowMs(), 450u);
    EXPECT_FALSE(platform::WaitOnAddress(&dwWord, 6, 50));
    EXPECT_EQ(platform::GetLastError(), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(world.NowMs(), 500u);
    platform::CloseHandle(hThread);
    EXPECT_TRUE(world.Open().empty());
}

TEST(SimulatedHost, ADeadlockFailsTheTestAndEndsEveryThread) {
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        {
            sim::CWorld world;
            sim::CScriptedDevice device(world);
            const HANDLE hNode = OpenNode();
            const HANDLE hThread = world.Spawn([hNode] {
                BYTE byte = 0;
                DWORD dwCount = 77;
                EXPECT_FALSE(platform::ReadFile(hNode, &byte, 1, &dwCount));
                EXPECT_EQ(dwCount, 77u);
            });
            EXPECT_EQ(platform::WaitForSingleObject(hThread, INFINITE), DWORD{WAIT_FAILED});
            EXPECT_EQ(platform::CreateMutexA(nullptr, FALSE, "lock"), nullptr);
        },
        "thread 2 waits for a read from the device (1)");
}

TEST(SimulatedHost, AThreadLeftBehindIsEndedWithItsWorld) {
    bool bEnded = false;
    {
        sim::CWorld world;
        world.Spawn([&] {
            platform::Sleep(INFINITE);
            bEnded = true;
        });
        platform::CreateThread(
            nullptr, 0, [](void*) { return DWORD{0}; }, nullptr, CREATE_SUSPENDED, nullptr);
        platform::Sleep(1);
        EXPECT_FALSE(bEnded);
    }
    EXPECT_TRUE(bEnded);
}

TEST(SimulatedHost, AStoppedTransferLosesNothingAndTakesNoTime) {
    sim::CWorld world;
    sim::CScriptedDevice device(world);
    const HANDLE hNode = OpenNode();
    Bytes buffer(8);
    DWORD dwCount = 0;
    const HANDLE hThread =
        world.Spawn([&] { platform::ReadFile(hNode, buffer.data(), 8, &dwCount); });
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 508), DWORD{WAIT_TIMEOUT});
    EXPECT_TRUE(platform::TerminateThread(hThread, 0));
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 0), DWORD{WAIT_OBJECT_0});
    device.Give({1, 2, 3, 4, 5});
    EXPECT_EQ(world.NowMs(), 508u);
    EXPECT_EQ(dwCount, 0u);
    EXPECT_EQ(buffer, Bytes(8));
    EXPECT_EQ(Read(hNode, 2), (Bytes{1, 2}));
    EXPECT_EQ(Read(hNode, 100), (Bytes{3, 4, 5}));
    platform::CloseHandle(hThread);
    EXPECT_EQ(world.Spawn([] {}) != nullptr, true);
}

TEST(SimulatedHost, TheScriptChecksBytesAndTimes) {
    sim::CWorld world;
    sim::CScriptedDevice device(world);
    device.Expect({1, 2, 3})
        .At(5)
        .Reply(sim::Ack())
        .ReplyAfter(100, {9})
        .DoNotTake()
        .At(200)
        .ExpectCommand(2, sim::Text(DAK_WIDE("\\a")))
        .Vanish();
    const HANDLE hNode = OpenNode();
    EXPECT_TRUE(Write(hNode, sim::Handshake(DAK_CONNECT)));
    EXPECT_EQ(Read(hNode, 100), sim::Handshake(DAK_CONNECT));
    platform::Sleep(5);
    EXPECT_TRUE(Write(hNode, {1, 2, 3}));
    EXPECT_EQ(Read(hNode, 100), sim::Ack());
    EXPECT_EQ(Read(hNode, 100), Bytes{9});
    EXPECT_EQ(world.NowMs(), 105u);
    const HANDLE hThread = world.Spawn([&] { EXPECT_FALSE(Write(hNode, {7})); });
    EXPECT_EQ(platform::WaitForSingleObject(hThread, 95), DWORD{WAIT_TIMEOUT});
    platform::TerminateThread(hThread, 0);
    EXPECT_TRUE(Write(hNode, {0x21, 0xE0, 0, 0, 8, 0, 0, 0, 2, 0, 0x5C, 0, 0x61, 0, 0, 0}));
    EXPECT_FALSE(world.IsPlugged());
    EXPECT_FALSE(Write(hNode, {1}));
    EXPECT_EQ(OpenNode(), INVALID_HANDLE_VALUE);
    world.Plug(device);
    EXPECT_FALSE(Write(hNode, {1})); // stale
    EXPECT_EQ(device.Handshakes().size(), 1u);

    EXPECT_NONFATAL_FAILURE(
        {
            device.Expect({1, 2, 3, 4});
            Write(OpenNode(), {1, 2, 5, 4});
        },
        "differ at byte 2");
    EXPECT_NONFATAL_FAILURE(Write(OpenNode(), {1}), "no step waits");
    EXPECT_NONFATAL_FAILURE(
        {
            device.Expect({1}).At(7);
            Write(OpenNode(), {1});
        },
        "came at 200 ms and not at 7 ms");
    EXPECT_NONFATAL_FAILURE(device.Expect({1}).Finish(), "1 steps of the script are left");
}

TEST(SimulatedHost, FaultsAreMetAtTheirNumber) {
    sim::CWorld world;
    world.qwFreeBytes = 10;
    world.FailCall(sim::ECall::CreateFileA, 2, ERROR_TOO_MANY_OPEN_FILES);
    const auto open = [] {
        return platform::CreateFileA("C:\\f", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    };
    const HANDLE hFile = open();
    EXPECT_EQ(open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), DWORD{ERROR_TOO_MANY_OPEN_FILES});
    DWORD dwCount = 0;
    EXPECT_TRUE(platform::WriteFile(hFile, "1234567", 7, &dwCount));
    EXPECT_FALSE(platform::WriteFile(hFile, "89abc", 5, &dwCount));
    EXPECT_EQ(platform::GetLastError(), DWORD{ERROR_DISK_FULL});
    EXPECT_EQ(world.ReadHostFile("C:/f")->size(), 10u);
    world.FailAnyCall(1);
    EXPECT_FALSE(platform::DeleteFileA("C:/f"));
    EXPECT_TRUE(platform::DeleteFileA("C:/f"));
    EXPECT_EQ(world.qwFreeBytes, 10u);
    EXPECT_EQ(world.FaultsMet(), 2);
    EXPECT_EQ(world.CallCount(), 6u);
    EXPECT_EQ(world.Open(), std::vector<std::string>{"file C:/f"});
}

TEST(SimulatedHost, ASweepFailsEveryCallOnce) {
    std::set<std::array<BOOL, 3>> results;
    const std::uint64_t nFaults = sim::Sweep([&](sim::CWorld& world) {
        const HANDLE hFile = platform::CreateFileA("f", GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD dwCount = 0;
        const BOOL bWritten = platform::WriteFile(hFile, "a", 1, &dwCount);
        const BOOL bClosed = platform::CloseHandle(hFile);
        results.insert({bClosed, bWritten, platform::DeleteFileA("f")});
        EXPECT_TRUE(world.Open().empty());
    });
    EXPECT_EQ(nFaults, 3u);
    EXPECT_EQ(results, (std::set<std::array<BOOL, 3>>{{0, 0, 0}, {1, 0, 1}, {1, 1, 0}, {1, 1, 1}}));
}

// A thread that looks again after every refused wait must neither keep others from running nor
// time from passing.
TEST(SimulatedHost, AStoppedThreadThatInsistsIsWaitedFor) {
    sim::CWorld world;
    DWORD dwWord = 1;
    world.Spawn([&] {
        platform::Sleep(50);
        dwWord = 0;
    });
    const HANDLE hThread = world.Spawn([&] {
        while (dwWord != 0) {
            EXPECT_EQ(platform::WaitOnAddress(&dwWord, 1, INFINITE), FALSE);
        }
    });
    platform::Sleep(1);
    EXPECT_TRUE(platform::TerminateThread(hThread, 0));
    EXPECT_EQ(dwWord, 0u);
    EXPECT_EQ(world.NowMs(), 50u);
}

TEST(SimulatedHost, TheHostIsAsTheTestSetsIt) {
    sim::CWorld world;
    sim::CScriptedDevice device(world);
    world.UnplugAtQuestion(2);
    platform::CloseHandle(OpenNode());
    EXPECT_EQ(OpenNode(), INVALID_HANDLE_VALUE);
    world.Plug(device);
    world.bNodeOpens = false;
    EXPECT_EQ(OpenNode(), INVALID_HANDLE_VALUE);

    // A lock that another process has open exists, and can be held there.
    world.OtherProcessOpensLock("lock", true);
    const HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "lock");
    EXPECT_EQ(platform::GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    world.At(70, [&] { world.OtherProcessClosesLock("lock"); });
    EXPECT_EQ(platform::WaitForSingleObject(hLock, INFINITE), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(world.NowMs(), 70u);
    platform::CloseHandle(hLock);
    platform::CloseHandle(platform::CreateMutexA(nullptr, FALSE, "lock"));
    EXPECT_EQ(platform::GetLastError(), DWORD{ERROR_SUCCESS});

    // A file that tells another size than it has, and a read that the test cuts and slows.
    world.WriteHostFile("D:/a/b/c", sim::Pattern(1000), {1, 2}, {3, 4});
    world.HostFile("D:\\a\\b\\c")->qwReportedSize = 5'000'000'000;
    world.onFileRead = [](sim::CFileRead& read) {
        platform::Sleep(30);
        read.dwBytes = 10;
    };
    const HANDLE hFile = platform::CreateFileA("D:/a/../a/b\\c", GENERIC_READ, FILE_SHARE_READ,
                                               nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD dwHigh = 0;
    EXPECT_EQ(platform::GetFileSize(hFile, &dwHigh), DWORD{5'000'000'000 & 0xFFFFFFFF});
    EXPECT_EQ(dwHigh, 1u);
    EXPECT_EQ(Read(hFile, 1000), sim::Pattern(10));
    EXPECT_EQ(world.NowMs(), 100u);
    EXPECT_EQ(world.HostFiles("D:/a"), std::vector<std::string>{"b/c"});
    platform::CloseHandle(hFile);
    EXPECT_TRUE(world.Open().empty());
}

} // namespace
