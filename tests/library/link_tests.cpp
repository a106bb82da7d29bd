// The link: handshake, pipe, bringing up and taking down, the lock, the object, the trace.

#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"

#include "link/debug_trace.h"
#include "link/device_connection.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

using Access = CDAKVornTestAccess;
using sim::Bytes;
using sim::ECall;

constexpr char LOCK[] = "NadoxUSBAPI";

bool IsLockHeld(sim::CWorld& world) {
    return world.locks.contains(LOCK) && world.locks[LOCK]->bHeld;
}

struct CRun {
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    CDAKVorn dak;
    // The object's own memory is all that may be open between operations.
    void ExpectIdle() {
        EXPECT_EQ(Access::m_hDevice(dak), INVALID_HANDLE_VALUE);
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        EXPECT_EQ(world.Open().size(), 1u);
        EXPECT_EQ(world.LiveThreads(), 0);
    }
    void LeaveOpen() {
        EXPECT_TRUE(Access::Initial(dak));
        EXPECT_TRUE(Access::OpenDevice(dak));
    }
};

TEST(Object, AFreshOneHasItsMembersInOrder) {
    sim::CWorld world;
    CDAKVorn dak;
    EXPECT_EQ(Access::m_dwWindowPackages(dak), 50u);
    EXPECT_EQ(Access::m_dwPackageSize(dak), 12288u);
    EXPECT_EQ(world.blocks.at(Access::m_lpResendBuf(dak)), 614400u);
    EXPECT_EQ(Access::m_dwRetryStep(dak), 30);
    EXPECT_EQ(Access::m_dwRetryBase(dak), 100);
    EXPECT_EQ(Access::m_dwCpuMHz(dak), 847u);
    EXPECT_EQ(Access::m_hDevice(dak), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Access::m_nCopyResult(dak), 1);
    EXPECT_EQ(Access::m_hNotifyWnd(dak), nullptr);
    EXPECT_EQ(Access::m_hCommitThread(dak), nullptr);
    for (const std::uint64_t qwZero :
         {std::uint64_t{dak.GetLastError()}, std::uint64_t{Access::m_dwRecvPackages(dak)},
          std::uint64_t{Access::m_dwSentPackages(dak)}, std::uint64_t{Access::m_bSyncStopped(dak)},
          std::uint64_t{Access::m_dwDeviceVersion(dak)}, Access::m_dwSizeCopied(dak),
          Access::m_dwSizeTotal(dak)}) {
        EXPECT_EQ(qwZero, 0u);
    }
    EXPECT_EQ(dak.IsTransmitting(), 0);
    for (const char* lpszPath :
         {Access::m_szSourcePath(dak), Access::m_szDestPath(dak), Access::m_szPartPath(dak)}) {
        EXPECT_EQ(std::count(lpszPath, lpszPath + 260, '\0'), 260);
    }
    const void* const members[] = {&Access::m_dwRecvPackages(dak), &Access::m_dwWindowPackages(dak),
                                   &Access::m_dwSentPackages(dak), &Access::m_dwPackageSize(dak),
                                   &Access::m_bSyncStopped(dak),   &Access::m_dwRetryStep(dak),
                                   &Access::m_dwRetryBase(dak),    &Access::m_dwCpuMHz(dak),
                                   &Access::m_hDevice(dak),        &Access::m_dwErrCode(dak),
                                   &Access::m_hNotifyWnd(dak),     &Access::m_dwDeviceVersion(dak),
                                   &Access::m_nCopyResult(dak),    &Access::m_bCopying(dak),
                                   &Access::m_hCommitThread(dak),  &Access::m_dwSizeCopied(dak),
                                   &Access::m_dwSizeTotal(dak)};
    EXPECT_TRUE(std::ranges::is_sorted(members));
    const auto nBetween = reinterpret_cast<const char*>(&Access::m_hDevice(dak)) -
                          reinterpret_cast<const char*>(&Access::m_dwCpuMHz(dak));
    EXPECT_EQ(nBetween, sizeof(void*) == 8 ? 36 : 20) << "the worker's four are between";
    DWORD dwFirst = 7;
    DWORD dwSecond = 8;
    dak.DAKGetVersionNumber(nullptr, nullptr);
    dak.DAKGetVersionNumber(&dwFirst, &dwSecond);
    EXPECT_EQ(dwFirst, 26869961u);
    EXPECT_EQ(dwSecond, 65541u);
    EXPECT_EQ(world.CallCount(ECall::WritePipe) + world.Questions() + world.NowMs(), 0u);
}

TEST(Object, CopiesShareNothingThatIsOpen) {
    sim::CWorld world;
    world.dwCpuMHz = 1000;
    sim::CScriptedDevice device(world);
    {
        CDAKVorn source;
        ASSERT_EQ(source.ConnectDevice(), 0u);
        Access::m_dwErrCode(source) = DAKERROR_NO_SPACE;
        ASSERT_TRUE(Access::OpenDevice(source));
        CDAKVorn copy(source);
        CDAKVorn target;
        ASSERT_TRUE(Access::OpenDevice(target));
        const BYTE* lpTargetBuf = Access::m_lpResendBuf(target);
        target = source;
        EXPECT_EQ(device.OpenNow(), 1) << "the target's own node is closed, the source's is not";
        EXPECT_EQ(Access::m_lpResendBuf(target), lpTargetBuf);
        for (CDAKVorn* pDak : {&copy, &target}) {
            EXPECT_EQ(pDak->GetLastError(), DAKERROR_NO_SPACE);
            EXPECT_EQ(Access::m_dwRetryBase(*pDak), 80);
            EXPECT_EQ(Access::m_dwDeviceVersion(*pDak), DAK_PROTOCOL_VERSION);
            EXPECT_EQ(Access::m_hDevice(*pDak), INVALID_HANDLE_VALUE);
            EXPECT_NE(Access::m_lpResendBuf(*pDak), Access::m_lpResendBuf(source));
            EXPECT_EQ(world.blocks.at(Access::m_lpResendBuf(*pDak)), 614400u);
        }
        CDAKVorn& alias = source;
        source = alias;
        EXPECT_NE(Access::m_hDevice(source), INVALID_HANDLE_VALUE);
        EXPECT_EQ(copy.ConnectDevice(), 0u);
    }
    EXPECT_EQ(world.Open(), std::vector<std::string>());
}

TEST(Calibration, DelaysFollowTheProcessor) {
    struct {
        std::optional<DWORD> dwMHz;
        int nBase;
        int nStep;
    } const rows[] = {{199, 1, 1},   {200, 1, 1},    {299, 1, 1},     {300, 10, 3},
                      {847, 60, 20}, {1000, 80, 26}, {2400, 220, 73}, {std::nullopt, 60, 20},
                      {0, 1, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.dwMHz.value_or(0));
        CRun run;
        run.world.dwCpuMHz = row.dwMHz;
        run.dak.ConnectDevice();
        EXPECT_EQ(Access::m_dwRetryBase(run.dak), row.nBase);
        EXPECT_EQ(Access::m_dwRetryStep(run.dak), row.nStep);
        // What was read once stands where there is no answer any more.
        run.world.bRegistryKeyExists = false;
        run.dak.ConnectDevice();
        EXPECT_EQ(Access::m_dwRetryBase(run.dak), row.nBase);
        run.ExpectIdle();
    }
}

TEST(Handshake, BytesAndReplies) {
    const auto reply = [](DWORD wCommand, DWORD dwLength, DWORD dwLink, DWORD dwVersion,
                          DWORD dwMax) {
        return sim::Join(sim::U32(wCommand), sim::U32(dwLength), sim::U32(dwLink),
                         sim::U32(dwVersion), sim::U32(dwMax));
    };
    EXPECT_EQ(sim::Handshake(DAK_CONNECT),
              (Bytes{0x10, 0xE0, 0, 0, 12, 0, 0, 0, 10, 0, 0, 0, 0, 0, 3, 0, 0xF8, 0x2F, 0, 0}));
    for (const bool bConnect : {true, false}) {
        const DWORD w = bConnect ? DAK_CONNECT : DAK_DISCONNECT;
        const std::uint64_t qwSilent = bConnect ? 310 : 530;
        const Bytes silence;
        const Bytes good = reply(w, 12, 10, 0x30000, 12280);
        struct {
            const char* lpszName;
            Bytes bytes;
            bool bPasses;
            std::uint64_t qwMs;
        } const rows[] = {
            {"good", good, true, 10},
            {"minor version", reply(w, 12, 10, 0x30002, 12280), true, 10},
            {"major version", reply(w, 12, 10, 0x40000, 12280), !bConnect, 10},
            {"length 0", reply(w, 0, 10, 0x30000, 12280), true, 10},
            {"other word", reply(w ^ 0xEF, 12, 10, 0x30000, 12280), false, 10},
            {"high half of the word", reply(w | 0x10000, 12, 10, 0x30000, 12280), false, 10},
            {"link code", reply(w, 12, 11, 0x30000, 12280), false, 10},
            {"size", reply(w, 12, 10, 0x30000, 12281), false, 10},
            {"19 bytes", Bytes(good.begin(), good.end() - 1), false, 10},
            {"silence", silence, false, qwSilent}};
        for (const auto& row : rows) {
            SCOPED_TRACE(row.lpszName);
            CRun run;
            run.LeaveOpen();
            run.device.ExpectHandshake(w, row.bytes).At(0);
            EXPECT_EQ(bConnect ? Access::Connect(run.dak) : Access::DisConnect(run.dak),
                      row.bPasses);
            EXPECT_EQ(run.world.NowMs(), row.qwMs);
            EXPECT_EQ(Access::m_dwDeviceVersion(run.dak),
                      row.bPasses ? DakGetU32(row.bytes.data() + DAK_OFFSET_VERSION) : 0);
            EXPECT_FALSE(IsLockHeld(run.world));
        }
    }
}

TEST(ConnectDevice, EveryRoadInItsTime) {
    static const Bytes silence;
    static const Bytes wrong = sim::Handshake(DAK_CONNECT, 0x40000);
    using D = sim::CScriptedDevice;
    const auto fail = [](ECall eCall, std::uint64_t nNumber) {
        return [=](CRun& run, D&) { run.world.FailCall(eCall, nNumber); };
    };
    struct {
        const char* lpszName;
        std::function<void(CRun&, D&)> prepare;
        DWORD dwResult;
        std::uint64_t qwMs;
        int nOpens;
    } const rows[] = {
        {"answers",
         [](CRun&, D& d) {
             d.ExpectHandshake(DAK_CONNECT).At(0).ExpectHandshake(DAK_DISCONNECT).At(310);
         },
         0, 320, 1},
        {"silent, then answers",
         [](CRun&, D& d) {
             d.ExpectHandshake(DAK_CONNECT, silence).At(0).ExpectHandshake(DAK_CONNECT).At(310);
             d.ExpectHandshake(DAK_DISCONNECT).At(620);
         },
         0, 630, 2},
        {"wrong, then right",
         [](CRun&, D& d) {
             d.ExpectHandshake(DAK_CONNECT, wrong).At(0).ExpectHandshake(DAK_CONNECT).At(10);
         },
         0, 330, 2},
        {"silent throughout",
         [](CRun&, D& d) {
             d.ExpectHandshake(DAK_CONNECT, silence).At(0);
             d.ExpectHandshake(DAK_CONNECT, silence).At(310);
             d.ExpectHandshake(DAK_DISCONNECT, silence).At(920);
         },
         DAKERROR_NO_DEVICE, 1450, 2},
        {"gone behind the first handshake",
         [](CRun&, D& d) { d.ExpectHandshake(DAK_CONNECT, silence).VanishAfter(200); },
         DAKERROR_NO_DEVICE, 500, 1},
        {"does not take the handshake",
         [](CRun&, D& d) { d.DoNotTake().At(520).ExpectHandshake(DAK_CONNECT).At(520); }, 0, 840,
         2},
        {"stale handle",
         [](CRun& run, D& d) {
             Access::OpenDevice(run.dak);
             run.world.Unplug();
             run.world.Plug(d);
             d.ExpectHandshake(DAK_CONNECT).At(0);
         },
         0, 320, 2},
        {"link left open by a job",
         [](CRun& run, D& d) {
             run.LeaveOpen();
             d.ExpectHandshake(DAK_DISCONNECT).At(0).ExpectHandshake(DAK_CONNECT).At(10);
             d.ExpectHandshake(DAK_DISCONNECT).At(320);
         },
         0, 330, 1},
        {"no device", [](CRun& run, D&) { run.world.Unplug(); }, DAKERROR_NO_DEVICE, 300, 0},
        {"lock in use", [](CRun& run, D&) { run.world.OtherProcessOpensLock(LOCK); }, DAKERROR_BUSY,
         0, 0},
        {"no lock to be had", fail(ECall::CreateMutexA, 1), DAKERROR_BUSY, 0, 0},
        {"no memory for it", fail(ECall::LocalAlloc, 1), DAKERROR_NO_DEVICE, 300, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszName);
        CRun run;
        row.prepare(run, run.device);
        EXPECT_EQ(run.dak.ConnectDevice(), row.dwResult);
        EXPECT_EQ(run.dak.GetLastError(), row.dwResult);
        EXPECT_EQ(run.world.NowMs(), row.qwMs);
        EXPECT_EQ(run.device.Opens(), row.nOpens);
        run.ExpectIdle();
        // Whatever it was, nothing of it is left.
        run.world.OtherProcessClosesLock(LOCK);
        run.world.Plug(run.device);
        EXPECT_EQ(run.dak.ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), row.qwMs + 320);
    }
}

TEST(ConnectDevice, EndsTheSynchronisation) {
    using Names = std::vector<std::string>;
    struct {
        Names processes; // with "!" ahead: cannot be opened
        Names ended;
        bool bFound;
        std::uint64_t nCalls; // one more than entries where the walk reaches the end
    } const rows[] = {
        {Names{"a.exe", "WCESCOMM", "xWCESMgr.exe", "WCESMgr.exe\\x"}, Names(), false, 5},
        {Names{"WCESCOMM.exe", "b"}, Names{"WCESCOMM.exe"}, true, 3},
        {Names{"C:\\Program Files\\wcesMGR.EXE"}, Names{"C:\\Program Files\\wcesMGR.EXE"}, true, 2},
        {Names{"a", "WCESMgr.exe", "WCESCOMM.EXE", "WCESCOMM.exe"},
         Names{"WCESMgr.exe", "WCESCOMM.EXE"}, true, 3},
        {Names{"!WCESMgr.exe", "WCESCOMM.exe", "WCESCOMM.exe"}, Names{"WCESCOMM.exe"}, true, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.processes[0]);
        CRun run;
        run.world.processes.clear();
        for (const std::string& str : row.processes) {
            const bool bClosed = str.starts_with('!');
            run.world.AddProcess(bClosed ? str.substr(1) : str, !bClosed);
        }
        ASSERT_TRUE(Access::OpenDevice(run.dak)); // a handle that the ended processes spoil
        EXPECT_EQ(run.dak.ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), 320u);
        EXPECT_EQ(run.world.strEndedProcesses, row.ended);
        EXPECT_EQ(run.device.Opens(), row.bFound ? 2 : 1);
        EXPECT_EQ(run.world.CallCount(ECall::Process32First) +
                      run.world.CallCount(ECall::Process32Next),
                  row.nCalls);
        run.ExpectIdle();
        run.world.processes.clear();
        run.dak.ConnectDevice();
        EXPECT_EQ(Access::m_bSyncStopped(run.dak), row.bFound ? 1u : 0u) << "nothing clears it";
    }
}

TEST(Lock, IsHeldUnderEveryPackageAndOverTheExchange) {
    CRun run;
    const auto held = [&](const Bytes&) { EXPECT_TRUE(IsLockHeld(run.world)); };
    run.device.ServeHandshakes(false);
    run.device.ExpectThat(held).Reply(sim::Handshake(DAK_CONNECT));
    run.world.At(100, [&] { EXPECT_FALSE(IsLockHeld(run.world)) << "ahead of the exchange"; });
    run.device.ExpectThat(held).At(310).Reply(sim::Ack());
    run.world.At(600, [&] { EXPECT_TRUE(IsLockHeld(run.world)) << "awaiting the response"; });
    run.device.ReplyAfter(5000, sim::Response(DAK_FUNC_DELETE_FILE, 1));
    run.device.ExpectThat(held).Reply(sim::Handshake(DAK_DISCONNECT));
    EXPECT_EQ(run.dak.DAKDeleteFile(DAK_WIDE("\\a")), 0u);
    run.ExpectIdle();
    // Taking down what is not up touches nothing.
    const auto calls = [&] {
        return run.world.CallCount(ECall::CloseHandle) + run.world.CallCount(ECall::ReleaseMutex) +
               run.world.CallCount(ECall::CreateThread);
    };
    const std::uint64_t nCalls = calls();
    Access::DeInitial(run.dak);
    EXPECT_EQ(calls(), nCalls);
}

TEST(Lock, OperationsOfTwoThreadsWaitForOneAnother) {
    CRun run;
    CDAKVorn second;
    const Bytes response = sim::Response(DAK_FUNC_DELETE_FILE, 1);
    run.device.ExpectCommand(DAK_FUNC_DELETE_FILE, sim::Text(DAK_WIDE("\\1")))
        .At(310)
        .Reply(sim::Ack());
    run.device.ReplyAfter(400, response);
    run.device.ExpectCommand(DAK_FUNC_DELETE_FILE, sim::Text(DAK_WIDE("\\2")))
        .At(1030)
        .Reply(sim::Ack());
    run.device.Reply(response);
    const auto threads = {
        run.world.Spawn([&] { EXPECT_EQ(run.dak.DAKDeleteFile(DAK_WIDE("\\1")), 0u); }),
        run.world.Spawn([&] { EXPECT_EQ(second.DAKDeleteFile(DAK_WIDE("\\2")), 0u); }),
        run.world.Spawn([&] {
            platform::Sleep(500);
            EXPECT_EQ(run.dak.ConnectDevice(), 0u); // the first one's object
        })};
    for (const HANDLE hThread : threads) {
        run.world.Join(hThread);
    }
    EXPECT_EQ(run.world.NowMs(), 1380u);
}

// Transfers on an open pipe.
class Pipe : public testing::Test, protected CRun {
  protected:
    Pipe() { Access::OpenDevice(dak); }
    ~Pipe() override { Access::DeInitial(dak); }
    void Check(int nResult, DWORD dwSize, DWORD dwExpected, std::uint64_t qwEndMs) {
        EXPECT_EQ(nResult != 0, dwExpected > 0 || dwSize == 0);
        EXPECT_EQ(dwCount, dwExpected);
        EXPECT_EQ(world.NowMs(), qwEndMs);
        EXPECT_EQ(world.LiveThreads(), 0);
    }
    void ExpectRead(DWORD dwSize, DWORD dwTimeout, DWORD dwExpected, std::uint64_t qwMs) {
        const std::uint64_t qwEndMs = Prepare(dwSize) + qwMs;
        Check(Access::ReadUSBData(dak, buffer.data(), dwSize, &dwCount, dwTimeout), dwSize,
              dwExpected, qwEndMs);
    }
    void ExpectWrite(DWORD dwSize, DWORD dwExpected, std::uint64_t qwMs) {
        const std::uint64_t qwEndMs = Prepare(dwSize) + qwMs;
        Check(Access::WriteUSBData(dak, buffer.data(), dwSize, &dwCount), dwSize, dwExpected,
              qwEndMs);
    }
    std::uint64_t Prepare(DWORD dwSize) {
        buffer.assign(dwSize + 1, 0xEE);
        dwCount = 77;
        return world.NowMs();
    }
    DWORD dwCount = 0;
    Bytes buffer;
};

TEST_F(Pipe, TimeOuts) {
    ExpectRead(0, 0, 0, 0); // nothing asked for, nothing started
    ExpectWrite(0, 0, 0);
    EXPECT_EQ(world.CallCount(ECall::CreateThread), 0u);
    ExpectRead(20, 300, 0, 310);
    ExpectRead(8, 0, 0, 518);
    ExpectRead(1250, 0, 0, 1760);
    ExpectRead(614400, 3000, 0, 3010);
    for (const DWORD dwSize : {1u, 20u, 12288u}) {
        device.DoNotTake();
        ExpectWrite(dwSize, 0, dwSize + 500);
    }
    EXPECT_EQ(dak.GetLastError(), 0u);
    EXPECT_NE(Access::m_hDevice(dak), INVALID_HANDLE_VALUE);
}

TEST_F(Pipe, TheLastMillisecondCountsAndAKilledReadLosesNothing) {
    device.Give(Bytes(20, 1), 310);
    ExpectRead(20, 300, 20, 310);
    device.Give(Bytes(20, 2), 311);
    ExpectRead(20, 300, 0, 310);
    EXPECT_EQ(buffer[0], 0xEE);
    ExpectRead(20, 300, 20, 10);
    EXPECT_EQ(buffer[0], 2);
    device.DoNotTake();
    ExpectWrite(8, 0, 508);
    device.Expect(Bytes(8, 0xEE));
    ExpectWrite(8, 8, 0);
}

TEST_F(Pipe, ShortReadsAndPiecesOfAPackage) {
    device.Give(sim::Ack());
    ExpectRead(12288, 0, 8, 10);
    const Bytes package = sim::Pattern(100);
    device.Give(package);
    device.Give(sim::Ack());
    ExpectRead(14, 0, 14, 10);
    EXPECT_TRUE(std::equal(package.begin(), package.begin() + 14, buffer.begin()));
    ExpectRead(12274, 0, 86, 10);
    EXPECT_TRUE(std::equal(package.begin() + 14, package.end(), buffer.begin()));
    device.Drop();
    device.Give({});
    ExpectRead(8, 0, 0, 10); // a transfer of no bytes
}

TEST_F(Pipe, FailedTransfers) {
    device.Give(sim::Ack());
    world.FailCall(ECall::CreateThread, 1, 0, 2);
    ExpectRead(8, 0, 0, 10);
    ExpectWrite(8, 0, 0);
    world.FailCall(ECall::ReadPipe, 1);
    ExpectRead(8, 0, 0, 10);
    world.FailCall(ECall::WritePipe, 1);
    ExpectWrite(8, 0, 0);
    ExpectRead(8, 0, 8, 10);
    world.At(world.NowMs() + 100, [&] { world.Unplug(); });
    ExpectRead(8, 0, 0, 100); // the unplugged device ends the read
    ExpectRead(8, 0, 0, 10);
    ExpectWrite(8, 0, 0);
    platform::CloseHandle(Access::m_hDevice(dak));
    Access::m_hDevice(dak) = INVALID_HANDLE_VALUE;
    ExpectRead(8, 0, 0, 10);
    ExpectWrite(8, 0, 0);
}

std::string g_strTrace;

TEST_F(Pipe, TraceLines) {
    SetDebugTraceSink([](const char* lpszLine) { g_strTrace += lpszLine; });
    const auto low = [](const void* lp) {
        return std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(lp)));
    };
    BYTE bytes[8] = {};
    DWORD dw = 0;
    const auto lines = [&](bool bRead) {
        g_strTrace.clear();
        bRead ? Access::ReadUSBData(dak, bytes, DWORD{8}, &dw, DWORD{0})
              : Access::WriteUSBData(dak, bytes, DWORD{8}, &dw);
        return g_strTrace;
    };
    device.Expect(sim::Ack());
    DakPutU32(bytes, DAK_SUCCESS);
    for (const bool bRead : {false, true}) {
        const std::string strThread = bRead ? "ReadUSBThread" : "WriteUSBThread";
        const std::string strCall = bRead ? "ReadUSBData" : "WriteUSBData";
        const std::string strMade = (bRead ? strThread : strCall) + " CreateThread\n";
        const std::string strBegin =
            "Succeed to " + strMade + strThread +
            (bRead ? " usbApi->m_lpReadBuf = " : " usbApi->m_lpWriteBuf = ") + low(bytes) +
            ",usbApi->m_dwSizeIn=8\n";
        bRead ? device.Give(sim::Ack()) : void();
        EXPECT_EQ(lines(bRead), strBegin + (bRead ? "Succeed read. read" : "Succeed write. write") +
                                    " size = 8\n");
        bRead ? device.Drop() : static_cast<void>(device.DoNotTake());
        EXPECT_TRUE(lines(bRead).starts_with(strBegin + strCall + " TerminateThread\n"));
        world.FailCall(bRead ? ECall::ReadPipe : ECall::WritePipe, 1, 31);
        EXPECT_EQ(lines(bRead), strBegin + strThread +
                                    " return 0;\nerror = 31, usbApi->m_lpdwSizeOut=" +
                                    (bRead ? low(&dw) + " \n" : " " + low(&dw) + "\n"));
        world.FailCall(ECall::CreateThread, 1);
        EXPECT_EQ(lines(bRead), "Fail to " + strMade);
    }

    // The lines of a command stand around those of its transfers.
    SetDebugTraceSink([](const char* lpszLine) {
        const std::string_view line = lpszLine;
        if (line.starts_with("before") || line.starts_with("after") || line.starts_with("read ")) {
            g_strTrace += line;
        }
    });
    g_strTrace.clear();
    device.ExpectCommand(DAK_FUNC_MOVE_FILE, sim::Text(DAK_WIDE("\\a")), sim::Text(DAK_WIDE("b")));
    device.Reply(sim::Ack()).Reply(sim::Response(DAK_FUNC_MOVE_FILE, 1));
    EXPECT_EQ(dak.DAKMoveFile(DAK_WIDE("\\a"), DAK_WIDE("b")), 0u);
    TraceLine("after %s\n", std::string(1000, 'x').c_str());
    SetDebugTraceSink(nullptr);
    TraceLine("after all, nowhere\n");
    EXPECT_EQ(g_strTrace, "before send codeFunc=1, packageLength=20\n"
                          "after send codeFunc=1, packageLength=20, dwReadBytes=20\n"
                          "after read dwReadBytes=8\nread pass\nafter " +
                              std::string(253, 'x'));
}

} // namespace
