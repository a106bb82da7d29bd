// The link: the object, the delays, the handshake, bringing up and taking down, the lock.

#include "link/debug_trace.h"
#include "tests/library/library_run.h"

namespace {

TEST(Object, CopiesShareNothingThatIsOpen) {
    CRun run;
    CDAKVorn& source = *run.dak;
    ASSERT_EQ(source.ConnectDevice(), 0u);
    Access::m_dwErrCode(source) = NO_SPACE;
    CDAKVorn target;
    ASSERT_TRUE(Access::OpenDevice(source) && Access::OpenDevice(target));
    target = source;
    CDAKVorn copy(source);
    EXPECT_EQ(run.device.OpenNow(), 1) << "the target's own node is closed, the source's is not";
    EXPECT_EQ(run.world.Open().size(), 4u) << "three resend buffers and the source's node";
    for (CDAKVorn* pDak : {&copy, &target}) {
        EXPECT_EQ(pDak->GetLastError(), NO_SPACE);
        EXPECT_EQ(Access::m_dwRetryBase(*pDak), 60);
        EXPECT_EQ(Access::m_dwDeviceVersion(*pDak), DAK_PROTOCOL_VERSION);
    }
    DWORD dwVersion = 7;
    source.DAKGetVersionNumber(nullptr, &dwVersion);
    EXPECT_EQ(dwVersion, 7u);
    source.DAKGetVersionNumber(&dwVersion, &Access::m_dwErrCode(source));
    EXPECT_TRUE(dwVersion == 26869961 && source.GetLastError() == 65541);
    CDAKVorn& alias = source;
    source = alias;
    EXPECT_EQ(run.device.OpenNow(), 1);
}

std::string g_strTrace;

// A transfer that is stopped at its time-out ends as a failed one does, before its caller goes on.
TEST(Pipe, TraceOfAStoppedTransfer) {
    CRun run;
    SetDebugTraceSink([](const char* lpszLine) { g_strTrace += lpszLine; });
    BYTE bytes[8];
    DWORD dwCount = 77;
    Access::OpenDevice(*run.dak);
    EXPECT_EQ(Access::ReadUSBData(*run.dak, bytes, DWORD{8}, &dwCount, DWORD{300}), 0);
    EXPECT_EQ(run.world.NowMs(), READ_MS + 300);
    const auto low = [](const void* lp) {
        return std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(lp)));
    };
    EXPECT_EQ(
        g_strTrace,
        "Succeed to ReadUSBThread CreateThread\nReadUSBThread usbApi->m_lpReadBuf = " + low(bytes) +
            ",usbApi->m_dwSizeIn=8\nReadUSBData TerminateThread\nReadUSBThread return 0;\n"
            "error = 995, usbApi->m_lpdwSizeOut=" +
            low(&dwCount) + " \n");
    TraceLine("after %s\n", std::string(1000, 'x').c_str());
    EXPECT_TRUE(g_strTrace.ends_with("after " + std::string(253, 'x')));
    SetDebugTraceSink(nullptr);
}

TEST(Calibration, DelaysFollowTheProcessor) {
    const Rows<std::optional<DWORD>, int, int> rows = {
        {199, 1, 1},   {200, 1, 1},    {299, 1, 1},     {300, 10, 3},
        {847, 60, 20}, {1000, 80, 26}, {2400, 220, 73}, {std::nullopt, 60, 20}};
    for (const auto& [dwMHz, nBase, nStep] : rows) {
        CRun run(std::to_string(nBase));
        run.world.dwCpuMHz = dwMHz;
        for (const bool bKey : {true, false}) { // what was read once stands
            run.world.bRegistryKeyExists = bKey;
            run.dak->ConnectDevice();
            EXPECT_EQ(Access::m_dwRetryBase(*run.dak), nBase);
            EXPECT_EQ(Access::m_dwRetryStep(*run.dak), nStep);
        }
    }
}

TEST(Handshake, BytesAndReplies) {
    EXPECT_EQ(Handshake(DAK_CONNECT),
              (Bytes{0x10, 0xE0, 0, 0, 12, 0, 0, 0, 10, 0, 0, 0, 0, 0, 3, 0, 0xF8, 0x2F, 0, 0}));
    for (const DWORD wCommand : {DAK_CONNECT, DAK_DISCONNECT}) {
        const bool bConnect = wCommand == DAK_CONNECT;
        // dwOffset: 20: cut to that many bytes
        const Rows<std::size_t, DWORD, bool> rows = {
            {12, 0x30000, true}, {12, 0x30002, true}, {12, 0x40000, !bConnect},
            {4, 0, true},        {8, 11, false},      {0, wCommand ^ 0xEF, false},
            {16, 12281, false},  {20, 19, false},     {0, wCommand | 0x10000, false}};
        for (const auto& [dwOffset, dwValue, bPasses] : rows) {
            CRun run(std::to_string(dwOffset) + ": " + std::to_string(dwValue));
            Bytes reply = Handshake(wCommand);
            dwOffset == 20 ? reply.resize(dwValue) : DakPutU32(reply.data() + dwOffset, dwValue);
            EXPECT_TRUE(Access::Initial(*run.dak) && Access::OpenDevice(*run.dak));
            run.device.ExpectHandshake(wCommand, reply);
            EXPECT_EQ(bConnect ? Access::Connect(*run.dak) : Access::DisConnect(*run.dak), bPasses);
            EXPECT_EQ(Access::m_dwDeviceVersion(*run.dak),
                      bPasses ? DakGetU32(reply.data() + DAK_OFFSET_VERSION) : 0);
        }
    }
}

TEST(ConnectDevice, EveryRoadInItsTime) {
    const Rows<std::string, DWORD, std::uint64_t, int> rows = {
        {">connect@0 connect >disconnect@310 disconnect", 0, 320, 1},
        {">connect@0 >connect@310 connect >disconnect@620 disconnect", 0, 630, 2},
        {">connect@0 newer >connect@10 connect >disconnect@320 disconnect", 0, 330, 2},
        {">connect@0 >connect@310 >disconnect@920", GONE, 1450, 2},
        {">connect@0 gone@200", GONE, 500, 1},
        {"hang >connect@520 connect >disconnect@830 disconnect", 0, 840, 2},
        {"stale >connect@0 connect >disconnect@310 disconnect", 0, 320, 2},
        {"gone", GONE, 300, 0},
        {"!LocalAlloc", GONE, 300, 0},
        {"!OpenNode", GONE, 300, 0},
        {"!CreateMutexA", DAKERROR_BUSY, 0, 0},
        {"other", DAKERROR_BUSY, 0, 0}};
    for (const auto& [lpszWords, dwResult, qwMs, nOpens] : rows) {
        CRun run(lpszWords);
        run.packages["newer"] = Handshake(DAK_CONNECT, 0x40000);
        run.actions["other"] = [&] { run.world.OtherProcessOpensLock("NadoxUSBAPI"); };
        run.actions["stale"] = [&] { // the first write fails
            EXPECT_TRUE(Access::OpenDevice(*run.dak));
            run.world.Plug(run.device);
        };
        run.device.ServeHandshakes(false);
        run.Play(lpszWords);
        EXPECT_EQ(run.dak->ConnectDevice(), dwResult);
        EXPECT_EQ(run.dak->GetLastError(), dwResult);
        EXPECT_EQ(run.world.NowMs(), qwMs);
        EXPECT_EQ(run.device.Opens(), nOpens);
        EXPECT_EQ(run.world.Open().size(), 1u) << "the resend buffer";
        // Whatever it was, nothing of it is left.
        run.world.OtherProcessClosesLock("NadoxUSBAPI");
        run.world.Plug(run.device);
        run.device.ServeHandshakes();
        EXPECT_EQ(run.dak->ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), qwMs + 320);
    }
}

TEST(ConnectDevice, EndsTheSynchronisation) {
    using Names = std::vector<std::string>;
    // processes: with "!" ahead: cannot be opened
    // nLooks: at these, behind the two of every world, and at the list's end
    const Rows<Names, Names, std::uint64_t> rows = {
        {{"a.exe", "WCESCOMM", "xWCESMgr.exe", "WCESMgr.exe\\x"}, {}, 5},
        {{"WCESCOMM.exe", "b"}, {"WCESCOMM.exe"}, 3},
        {{"C:\\Program Files\\wcesMGR.EXE"}, {"C:\\Program Files\\wcesMGR.EXE"}, 2},
        {{"a", "WCESMgr.exe", "WCESCOMM.EXE", "WCESCOMM.exe"}, {"WCESMgr.exe", "WCESCOMM.EXE"}, 3},
        {{"!WCESMgr.exe", "WCESCOMM.exe", "WCESCOMM.exe"}, {"WCESCOMM.exe"}, 2}};
    for (const auto& [processes, ended, nLooks] : rows) {
        CRun run(processes[0]);
        for (const std::string& str : processes) {
            run.world.AddProcess(str.substr(str.find_first_not_of('!')), str[0] != '!');
        }
        ASSERT_TRUE(Access::OpenDevice(*run.dak)); // a handle that the ended processes spoil
        EXPECT_EQ(run.dak->ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), 320u);
        EXPECT_EQ(run.world.strEndedProcesses, ended);
        EXPECT_EQ(run.device.Opens(), ended.empty() ? 1 : 2);
        EXPECT_EQ(run.world.CallCount(ECall::Process32First) +
                      run.world.CallCount(ECall::Process32Next),
                  2 + nLooks);
    }
}

// Other threads are let in between, or not, as they find the lock; operations wait for one another.
TEST(Lock, IsHeldUnderEveryPackageAndOverTheExchange) {
    CRun run;
    CDAKVorn second;
    run.packages["delete"] = Command(DAK_FUNC_DELETE_FILE, Text(DAK_WIDE("\\a")));
    run.packages["done"] = Response(DAK_FUNC_DELETE_FILE, 1);
    run.device.ServeHandshakes(false);
    run.Play(">connect@0 connect@50 >delete@350 ack@50 done@5000 >disconnect@5530 disconnect "
             ">connect@5540 connect >delete@5850 ack done >disconnect@5870 disconnect");
    const auto threads = {run.world.Spawn([&] {
                              platform::Sleep(400);
                              EXPECT_EQ(second.DAKDeleteFile(DAK_WIDE("\\a")), 0u);
                          }),
                          run.world.Spawn([&] {
                              for (const int nMs : {5, -100, 360, 3000, 5535}) {
                                  platform::Sleep(static_cast<DWORD>(std::abs(nMs)) -
                                                  static_cast<DWORD>(run.world.NowMs()));
                                  const DWORD dwWait =
                                      platform::WaitForSingleObject(g_hDeviceMutex, 0);
                                  EXPECT_EQ(dwWait, nMs > 0 ? WAIT_TIMEOUT : WAIT_OBJECT_0) << nMs;
                                  nMs > 0 ? void() : ReleaseDeviceLock();
                              }
                          })};
    EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), 0u);
    std::ranges::for_each(threads, [&](HANDLE hThread) { run.world.Join(hThread); });
    // Taking down what is not up touches nothing.
    const std::size_t nEvents = run.world.Trace().size();
    Access::DeInitial(*run.dak);
    EXPECT_EQ(run.world.Trace().size(), nEvents);
}

} // namespace
