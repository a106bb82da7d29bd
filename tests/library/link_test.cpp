// The link: the object, the handshake, bringing up and taking down, the lock.

#include "tests/library/library_run.h"

namespace {

TEST(Object, CopiesShareNothingThatIsOpen) {
    CRun run;
    CDAKVorn& source = *run.dak;
    EXPECT_EQ(source.DAKDeleteFile(nullptr), FAIL);
    CDAKVorn target;
    ASSERT_TRUE(Access::OpenDevice(source) && Access::OpenDevice(target));
    target = source;
    const CDAKVorn copy(source);
    EXPECT_EQ(run.device.OpenNow(), 1) << "the target's own node is closed, the source's is not";
    EXPECT_EQ(run.world.Open().size(), 4u) << "three resend buffers and the source's node";
    EXPECT_EQ(target.GetLastError(), FAIL);
    DWORD dwVersions[] = {7, 8};
    source.DAKGetVersionNumber(nullptr, &dwVersions[0]);
    EXPECT_EQ(dwVersions[0], 7u);
    source.DAKGetVersionNumber(&dwVersions[0], &dwVersions[1]);
    EXPECT_TRUE(dwVersions[0] == 26869961 && dwVersions[1] == 65541);
}

TEST(ConnectDevice, EveryRoadInItsTime) {
    const std::string strClosing = " >disconnect@310 disconnect";
    const std::string strAgain = " >connect@10 connect >disconnect@320 disconnect";
    const std::string strTwice = " >connect@310 connect >disconnect@620 disconnect";
    const Rows<std::string, DWORD, std::uint64_t, int> rows = {
        {">10E00000.0C000000.0A000000.00000300.F82F0000 connect" + strClosing, 0, 320, 1},
        {">connect minor" + strClosing, 0, 320, 1},
        {">connect" + strTwice, 0, 630, 2},
        {">connect@0 >connect@310 >disconnect@920", GONE, 1450, 2},
        {">connect@0 gone@200", GONE, 500, 1},
        {"hang >connect@520 connect >disconnect@830 disconnect", 0, 840, 2},
        {"stale >connect connect" + strClosing, 0, 320, 2},
        {"gone", GONE, 300, 0},
        {"!LocalAlloc", GONE, 300, 0},
        {"!OpenNode", GONE, 300, 0},
        {"!CreateMutexA", DAKERROR_BUSY, 0, 0},
        {"other", DAKERROR_BUSY, 0, 0},
        // Answers that are none.
        {">connect major" + strAgain, 0, 330, 2},
        {">connect length" + strAgain, 0, 330, 2},
        {">connect code" + strAgain, 0, 330, 2},
        {">connect disconnect" + strAgain, 0, 330, 2},
        {">connect high" + strAgain, 0, 330, 2},
        {">connect cut" + strAgain, 0, 330, 2}};
    for (const auto& [strWords, dwResult, qwMs, nOpens] : rows) {
        CRun run(strWords);
        const Bytes reply = run.packages["connect"];
        run.packages.insert({{"minor", With(reply, DAK_OFFSET_VERSION, 0x30002)},
                             {"major", With(reply, DAK_OFFSET_VERSION, 0x40000)},
                             {"length", With(reply, DAK_OFFSET_MAX_LENGTH, 12'281)},
                             {"code", With(reply, DAK_OFFSET_LINK_CODE, 11)},
                             {"high", With(reply, 0, DAK_CONNECT | 0x10000)},
                             {"cut", Part(reply, 0, 19)}});
        run.actions["stale"] = [&] { // the first write fails
            EXPECT_TRUE(Access::OpenDevice(*run.dak));
            run.world.Plug(run.device);
        };
        run.device.ServeHandshakes(false);
        run.Play(strWords);
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
    const Rows<Names, Names> rows = {
        // those that run, with "!" such as cannot be opened; those that are ended, two at most
        {{"a.exe", "WCESCOMM", "xWCESMgr.exe", "WCESMgr.exe\\x"}, {}},
        {{"C:\\Program Files\\wcesMGR.EXE"}, {"C:\\Program Files\\wcesMGR.EXE"}},
        {{"a", "WCESMgr.exe", "WCESCOMM.EXE", "WCESCOMM.exe"}, {"WCESMgr.exe", "WCESCOMM.EXE"}},
        {{"!WCESMgr.exe", "WCESCOMM.exe", "WCESCOMM.exe"}, {"WCESCOMM.exe"}}};
    for (const auto& [processes, ended] : rows) {
        CRun run(processes[0]);
        for (const std::string& str : processes) {
            run.world.AddProcess(str.substr(str.find_first_not_of('!')), str[0] != '!');
        }
        ASSERT_TRUE(Access::OpenDevice(*run.dak)); // a handle that the ended processes spoil
        EXPECT_EQ(run.dak->ConnectDevice(), 0u);
        EXPECT_EQ(run.world.NowMs(), 320u);
        EXPECT_EQ(run.world.strEndedProcesses, ended);
        EXPECT_EQ(run.device.Opens(), ended.empty() ? 1 : 2);
    }
}

// Other threads are let in between, or not, as they find the lock; operations wait for one another.
TEST(Lock, IsHeldUnderEveryPackageAndOverTheExchange) {
    CRun run;
    CDAKVorn second;
    run.packages["delete"] = Command(2, Text(DAK_WIDE("\\a")));
    run.packages["done"] = Response(2, 1);
    run.device.ServeHandshakes(false);
    run.Play(">connect@0 connect@50 >delete@350 ack@50 done@5000 >disconnect@5530 disconnect "
             ">connect@5540 connect >delete@5850 ack done >disconnect@5870 disconnect");
    const auto threads = {
        run.world.Spawn([&] {
            platform::Sleep(400);
            EXPECT_EQ(second.DAKDeleteFile(DAK_WIDE("\\a")), 0u);
        }),
        run.world.Spawn([&] {
            for (const auto& [dwMs, bHeld] :
                 {std::pair(5u, true), {100, false}, {360, true}, {3000, true}, {5535, true}}) {
                platform::Sleep(dwMs - static_cast<DWORD>(run.world.NowMs()));
                const DWORD dwWait = platform::WaitForSingleObject(g_hDeviceMutex, 0);
                EXPECT_EQ(dwWait, bHeld ? WAIT_TIMEOUT : WAIT_OBJECT_0) << dwMs;
                bHeld ? void() : ReleaseDeviceLock();
            }
        })};
    EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), 0u);
    std::ranges::for_each(threads, [&](HANDLE hThread) { run.world.Join(hThread); });
}

} // namespace
