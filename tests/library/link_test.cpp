// The link: the object, the delays, the handshake, bringing up and taking down, the lock.

#include "tests/library/library_run.h"

namespace {

constexpr char LOCK[] = "NadoxUSBAPI";

TEST(Object, StartsFromFixedValuesInAFixedOrder) {
    CRun run;
    CDAKVorn& dak = *run.dak;
    const auto is = [](const auto& member, auto value) {
        return std::pair<const void*, bool>(&member, member == value);
    };
    const std::vector<std::pair<const void*, bool>> members = {
        is(Access::m_dwRecvPackages(dak), 0u), is(Access::m_dwWindowPackages(dak), 50u),
        is(Access::m_dwSentPackages(dak), 0u), is(Access::m_dwPackageSize(dak), 12288u),
        is(Access::m_bSyncStopped(dak), 0u),   is(Access::m_dwRetryStep(dak), 30),
        is(Access::m_dwRetryBase(dak), 100),   is(Access::m_dwCpuMHz(dak), 847u),
        is(Access::m_dwErrCode(dak), 0u),      is(Access::m_dwDeviceVersion(dak), 0u),
        is(Access::m_nCopyResult(dak), 1),     is(Access::m_bCopying(dak), 0),
        is(Access::m_dwSizeCopied(dak), 0u),   is(Access::m_dwSizeTotal(dak), 0u)};
    EXPECT_TRUE(std::ranges::is_sorted(members));
    EXPECT_TRUE(std::ranges::all_of(members, [](const auto& one) { return one.second; }));
    EXPECT_EQ(run.world.Open(), std::vector<std::string>{"memory block of 614400 bytes"});
    DWORD dwFirst = 7;
    DWORD dwSecond = 8;
    dak.DAKGetVersionNumber(nullptr, &dwSecond);
    dak.DAKGetVersionNumber(&dwFirst, nullptr);
    EXPECT_EQ(dwFirst + dwSecond, 15u);
    dak.DAKGetVersionNumber(&dwFirst, &dwSecond);
    EXPECT_EQ(dwFirst, 26869961u);
    EXPECT_EQ(dwSecond, 65541u);
}

TEST(Object, CopiesShareNothingThatIsOpen) {
    CRun run;
    run.world.dwCpuMHz = 1000;
    CDAKVorn& source = *run.dak;
    ASSERT_EQ(source.ConnectDevice(), 0u);
    Access::m_dwErrCode(source) = DAKERROR_NO_SPACE;
    ASSERT_TRUE(Access::OpenDevice(source));
    CDAKVorn target;
    ASSERT_TRUE(Access::OpenDevice(target));
    target = source;
    CDAKVorn copy(source);
    EXPECT_EQ(run.device.OpenNow(), 1) << "the target's own node is closed, the source's is not";
    EXPECT_EQ(run.world.Open().size(), 4u) << "three resend buffers and the source's node";
    for (CDAKVorn* pDak : {&copy, &target}) {
        EXPECT_EQ(pDak->GetLastError(), DAKERROR_NO_SPACE);
        EXPECT_EQ(Access::m_dwRetryBase(*pDak), 80);
        EXPECT_EQ(Access::m_dwDeviceVersion(*pDak), DAK_PROTOCOL_VERSION);
        EXPECT_EQ(Access::m_hDevice(*pDak), INVALID_HANDLE_VALUE);
    }
    CDAKVorn& alias = source;
    source = alias;
    EXPECT_NE(Access::m_hDevice(source), INVALID_HANDLE_VALUE);
    EXPECT_EQ(copy.ConnectDevice(), 0u);
}

TEST(Calibration, DelaysFollowTheProcessor) {
    const struct {
        std::optional<DWORD> dwMHz;
        int nBase;
        int nStep;
    } rows[] = {{199, 1, 1},   {200, 1, 1},    {299, 1, 1},     {300, 10, 3},
                {847, 60, 20}, {1000, 80, 26}, {2400, 220, 73}, {std::nullopt, 60, 20}};
    for (const auto& row : rows) {
        CRun run(std::to_string(row.nBase));
        run.world.dwCpuMHz = row.dwMHz;
        for (const bool bKey : {true, false}) { // what was read once stands
            run.world.bRegistryKeyExists = bKey;
            run.dak->ConnectDevice();
            EXPECT_EQ(Access::m_dwRetryBase(*run.dak), row.nBase);
            EXPECT_EQ(Access::m_dwRetryStep(*run.dak), row.nStep);
        }
    }
}

TEST(Handshake, BytesAndReplies) {
    EXPECT_EQ(Handshake(DAK_CONNECT),
              (Bytes{0x10, 0xE0, 0, 0, 12, 0, 0, 0, 10, 0, 0, 0, 0, 0, 3, 0, 0xF8, 0x2F, 0, 0}));
    for (const DWORD wCommand : {DAK_CONNECT, DAK_DISCONNECT}) {
        const bool bConnect = wCommand == DAK_CONNECT;
        const auto with = [&](std::size_t dwOffset, DWORD dwValue) {
            Bytes reply = Handshake(wCommand);
            DakPutU32(reply.data() + dwOffset, dwValue);
            return reply;
        };
        Bytes shorter = Handshake(wCommand);
        shorter.pop_back();
        const struct {
            const char* lpszName;
            Bytes reply;
            bool bPasses;
        } rows[] = {{"good", with(4, 12), true},
                    {"minor version", with(12, 0x30002), true},
                    {"major version", with(12, 0x40000), !bConnect},
                    {"length 0", with(4, 0), true},
                    {"other word", with(0, wCommand ^ 0xEF), false},
                    {"high half of the word", with(0, wCommand | 0x10000), false},
                    {"link code", with(8, 11), false},
                    {"size", with(16, 12281), false},
                    {"19 bytes", shorter, false}};
        for (const auto& row : rows) {
            CRun run(row.lpszName);
            EXPECT_TRUE(Access::Initial(*run.dak) && Access::OpenDevice(*run.dak));
            run.device.ExpectHandshake(wCommand, row.reply).At(0);
            EXPECT_EQ(bConnect ? Access::Connect(*run.dak) : Access::DisConnect(*run.dak),
                      row.bPasses);
            EXPECT_EQ(run.world.NowMs(), READ_MS);
            EXPECT_EQ(Access::m_dwDeviceVersion(*run.dak),
                      row.bPasses ? DakGetU32(row.reply.data() + DAK_OFFSET_VERSION) : 0);
        }
    }
}

TEST(ConnectDevice, EveryRoadInItsTime) {
    const struct {
        const char* lpszWords;
        DWORD dwResult;
        std::uint64_t qwMs;
        int nOpens;
    } rows[] = {{">connect@0 connect >disconnect@310 disconnect", 0, 320, 1},
                {">connect@0 >connect@310 connect >disconnect@620 disconnect", 0, 630, 2},
                {">connect@0 newer >connect@10 connect >disconnect@320 disconnect", 0, 330, 2},
                {">connect@0 >connect@310 >disconnect@920", DAKERROR_NO_DEVICE, 1450, 2},
                {">connect@0 gone@200", DAKERROR_NO_DEVICE, 500, 1},
                {"hang >connect@520 connect >disconnect@830 disconnect", 0, 840, 2},
                {"stale >connect@0 connect >disconnect@310 disconnect", 0, 320, 2},
                {"gone", DAKERROR_NO_DEVICE, 300, 0},
                {"!LocalAlloc", DAKERROR_NO_DEVICE, 300, 0},
                {"!OpenNode", DAKERROR_NO_DEVICE, 300, 0},
                {"!CreateToolhelp32Snapshot >connect connect >disconnect disconnect", 0, 320, 1},
                {"!CreateMutexA", DAKERROR_BUSY, 0, 0},
                {"other", DAKERROR_BUSY, 0, 0}};
    for (const auto& row : rows) {
        CRun run(row.lpszWords);
        run.packages["newer"] = Handshake(DAK_CONNECT, 0x40000);
        run.actions["other"] = [&] { run.world.OtherProcessOpensLock(LOCK); };
        run.actions["stale"] = [&] { // the first write fails
            EXPECT_TRUE(Access::OpenDevice(*run.dak));
            run.world.Unplug();
            run.world.Plug(run.device);
        };
        run.device.ServeHandshakes(false);
        run.Play(row.lpszWords);
        EXPECT_EQ(run.dak->ConnectDevice(), row.dwResult);
        EXPECT_EQ(run.dak->GetLastError(), row.dwResult);
        EXPECT_EQ(run.world.NowMs(), row.qwMs);
        EXPECT_EQ(run.device.Opens(), row.nOpens);
        EXPECT_EQ(run.device.OpenNow(), 0);
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        // Whatever it was, nothing of it is left.
        run.world.OtherProcessClosesLock(LOCK);
        run.world.Plug(run.device);
        run.device.ServeHandshakes();
        EXPECT_EQ(run.dak->ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), row.qwMs + 320);
    }
}

TEST(ConnectDevice, EndsTheSynchronisation) {
    using Names = std::vector<std::string>;
    const struct {
        Names processes; // with "!" ahead: cannot be opened
        Names ended;
        std::uint64_t nLeft; // of the list behind which the walk stops; its end is one more entry
    } rows[] = {
        {Names{"a.exe", "WCESCOMM", "xWCESMgr.exe", "WCESMgr.exe\\x"}, Names(), 0},
        {Names{"WCESCOMM.exe", "b"}, Names{"WCESCOMM.exe"}, 0},
        {Names{"C:\\Program Files\\wcesMGR.EXE"}, Names{"C:\\Program Files\\wcesMGR.EXE"}, 0},
        {Names{"a", "WCESMgr.exe", "WCESCOMM.EXE", "WCESCOMM.exe"},
         Names{"WCESMgr.exe", "WCESCOMM.EXE"}, 2},
        {Names{"!WCESMgr.exe", "WCESCOMM.exe", "WCESCOMM.exe"}, Names{"WCESCOMM.exe"}, 2}};
    for (const auto& row : rows) {
        CRun run(row.processes[0]);
        for (const std::string& str : row.processes) {
            const bool bClosed = str.starts_with('!');
            run.world.AddProcess(bClosed ? str.substr(1) : str, !bClosed);
        }
        ASSERT_TRUE(Access::OpenDevice(*run.dak)); // a handle that the ended processes spoil
        EXPECT_EQ(run.dak->ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), 320u);
        EXPECT_EQ(run.world.strEndedProcesses, row.ended);
        EXPECT_EQ(run.device.Opens(), row.ended.empty() ? 1 : 2);
        EXPECT_EQ(Access::m_bSyncStopped(*run.dak), row.ended.empty() ? 0u : 1u);
        // Two more are there in every world.
        EXPECT_EQ(run.world.CallCount(ECall::Process32First) +
                      run.world.CallCount(ECall::Process32Next),
                  2 + row.processes.size() + 1 - row.nLeft);
    }
}

TEST(Lock, IsHeldUnderEveryPackageAndOverTheExchange) {
    CRun run;
    run.device.ServeHandshakes(false);
    run.packages["request"] = Command(DAK_FUNC_DELETE_FILE, Text(DAK_WIDE("\\a")));
    run.packages["done"] = Response(DAK_FUNC_DELETE_FILE, 1);
    run.Play(">connect@0 connect@50 >request@350 ack@50 done@5000 >disconnect@5530 disconnect");
    const HANDLE hOther = run.world.Spawn([&] {
        const std::pair<std::uint64_t, bool> moments[] = {
            {5, true}, {100, false}, {360, true}, {3000, true}, {5535, true}};
        for (const auto& [qwMs, bHeld] : moments) {
            platform::Sleep(static_cast<DWORD>(qwMs - run.world.NowMs()));
            const DWORD dwWait = platform::WaitForSingleObject(g_hDeviceMutex, 0);
            EXPECT_EQ(dwWait == WAIT_TIMEOUT, bHeld) << "at " << qwMs;
            dwWait == WAIT_OBJECT_0 ? ReleaseDeviceLock() : void();
        }
    });
    EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), 0u);
    run.world.Join(hOther);
    // Taking down what is not up touches nothing.
    const std::size_t nEvents = run.world.Trace().size();
    Access::DeInitial(*run.dak);
    EXPECT_EQ(run.world.Trace().size(), nEvents);
}

TEST(Lock, OperationsOfThreadsWaitForOneAnother) {
    CRun run;
    CDAKVorn second;
    run.packages = {{"1", Command(DAK_FUNC_DELETE_FILE, Text(DAK_WIDE("\\1")))},
                    {"2", Command(DAK_FUNC_DELETE_FILE, Text(DAK_WIDE("\\2")))},
                    {"ack", Ack()},
                    {"done", Response(DAK_FUNC_DELETE_FILE, 1)}};
    run.Play(">1@310 ack done@400 >2@1030 ack done");
    const auto threads = {
        run.world.Spawn([&] { EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\1")), 0u); }),
        run.world.Spawn([&] { EXPECT_EQ(second.DAKDeleteFile(DAK_WIDE("\\2")), 0u); }),
        run.world.Spawn([&] {
            platform::Sleep(500);
            EXPECT_EQ(run.dak->ConnectDevice(), 0u); // the first one's object
        })};
    for (const HANDLE hThread : threads) {
        run.world.Join(hThread);
    }
    EXPECT_EQ(run.world.NowMs(), 1380u);
}

} // namespace
