// The job around a copy: start, watching, cutting short, end.

#include "tests/library/transfer_run.h"

namespace {

// A push of an empty list: request and acknowledgement, final package and verdict, the reply's two
// reads; and its message behind the drain.
constexpr std::uint64_t PUSHED_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS;
constexpr std::uint64_t MESSAGE_MS = PUSHED_MS + DRAIN_MS;

struct CPush : CTransfer {
    explicit CPush(const std::string& strName = {}) : CTransfer(DAK_TO_DEVICE, strName) {
        world.bTrace = false;
        packages["zero"] = Response(8, 0);
        actions["other"] = [&] { world.OtherProcessOpensLock("NadoxUSBAPI"); };
    }
    // What GetCopyStatus stores; nothing where there is no job.
    std::string Status() {
        char szSource[270] = "";
        char szDest[270] = "";
        DWORD dwTotal = 5;
        DWORD dwCopied = 6;
        int nPercent = 7;
        dak->GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
        return (testing::Message() << szSource << ' ' << szDest << ' ' << dwTotal << ' ' << dwCopied
                                   << ' ' << nPercent)
            .GetString();
    }
    void StartEmpty() {
        PlayWhole(U32(0));
        EXPECT_EQ(Start(), DAKERROR_NONE);
    }
    void SleepUntil(std::uint64_t qwMs) {
        platform::Sleep(static_cast<DWORD>(qwMs - world.NowMs()));
    }
};

TEST(TransferJob, RefusedArgumentsTouchNothing) {
    CPush run;
    const std::basic_string<WCHAR> strLong(260, DAK_WIDE('x'));
    const Rows<UINT, const WCHAR*, const WCHAR*, CStringArray*> rows = {
        {2, DAK_WIDE("a"), DAK_WIDE("b"), &run.list},
        {1, nullptr, DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), nullptr, &run.list},
        {1, DAK_WIDE("a"), DAK_WIDE("b"), nullptr},
        {1, strLong.c_str(), DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), strLong.c_str(), &run.list}};
    for (const auto& [nDirection, lpSource, lpDest, pList] : rows) {
        EXPECT_EQ(run.dak->DAKTransmitFiles(nDirection, lpSource, lpDest, pList, run.window), FAIL);
        EXPECT_EQ(run.dak->GetLastError(), FAIL);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
    }
    EXPECT_EQ(run.world.CallCount(ECall::CreateMutexA), 0u);
    for (const WCHAR* lpFolder : {strLong.c_str() + 1, DAK_WIDE("")}) {
        run.packages["request"] = Command(8, Bytes{1}, Text(lpFolder), Text(lpFolder));
        run.world.posted.clear();
        run.Play(">request abort");
        EXPECT_EQ(run.Start(lpFolder, lpFolder), DAKERROR_NONE);
        run.ExpectEnd(FAIL);
    }
}

TEST(TransferJob, ALongDebugLogIsDeletedAheadOfEverythingElse) {
    for (const std::uint64_t qwSize : {5'242'880ull, 5'242'881ull, (1ull << 32) + 7}) {
        CPush run(std::to_string(qwSize));
        run.world.WriteHostFile("C:/DAKDebug.txt", {});
        run.world.HostFile("C:/DAKDebug.txt")->qwReportedSize = qwSize;
        run.Start(DAK_WIDE("a"), nullptr);
        EXPECT_EQ(run.world.HostFileExists("C:/DAKDebug.txt"), qwSize != 5'242'881);
    }
}

TEST(TransferJob, OneThatCannotStartLeavesNothingOpen) {
    const std::pair<std::string, DWORD> rows[] = {{"other", DAKERROR_BUSY},
                                                  {"gone", GONE},
                                                  {"!LocalAlloc#2", FAIL},
                                                  {"!LocalAlloc#3", FAIL},
                                                  {"!CreateThread#3", FAIL}};
    for (const auto& [strWords, dwResult] : rows) {
        CPush run(strWords);
        run.Play(strWords);
        EXPECT_EQ(run.Start(), dwResult);
        EXPECT_EQ(run.dak->GetLastError(), dwResult);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
        EXPECT_EQ(run.device.OpenNow(), 0);
        run.world.OtherProcessClosesLock("NadoxUSBAPI");
        run.world.Plug(run.device);
        run.StartEmpty();
        run.ExpectEnd(DAKERROR_NONE);
    }
}

// The message comes once, ahead of the closing; who answers it with a job or an operation waits for
// that.
TEST(TransferJob, TheMessageComesOnceAheadOfTheClosing) {
    for (const bool bJob : {true, false}) {
        CPush run(bJob ? "a job" : "an operation");
        run.StartEmpty();
        EXPECT_EQ(run.world.NowMs(), LINK_UP_MS);
        EXPECT_EQ(run.dak->IsTransmitting(), TRUE);
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(run.window, INFINITE, &message));
        EXPECT_EQ(run.world.NowMs(), MESSAGE_MS);
        bJob ? run.StartEmpty() : static_cast<void>(run.dak->ConnectDevice());
        run.AwaitEnd();
        EXPECT_EQ(run.world.posted.size(), bJob ? 2u : 1u);
        EXPECT_EQ(run.device.Handshakes()[1].qwMs, MESSAGE_MS);
        EXPECT_EQ(run.device.Handshakes()[2].qwMs, MESSAGE_MS + READ_MS);
    }
    _tagCommitParam param{DAK_COPY_FILES, nullptr, nullptr, 0};
    EXPECT_EQ(CDAKVorn::Commit_Thread(nullptr), static_cast<DWORD>(-1));
    EXPECT_EQ(CDAKVorn::Commit_Thread(&param), static_cast<DWORD>(-1));
}

TEST(TransferJob, WithoutAWindowTheStateStaysUntilItIsEnded) {
    CPush run;
    const std::string strLong(260, 'x'); // longer than what shows a path
    run.AddFile("C:\\s\\a.txt", {1, 2, 3});
    run.list.Add(strLong.c_str());
    run.PlayWhole(Join(U32(2), FileRecord(DAK_WIDE("a.txt"), {1, 2, 3})));
    const HWND window = std::exchange(run.window, nullptr);
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    run.AwaitEnd();
    EXPECT_EQ(run.device.OpenNow(), 0);
    EXPECT_EQ(run.Status(), strLong.substr(1) + " \\d\\a.txt 0 0 0");
    run.dak->TerminateTransfer();
    EXPECT_EQ(run.dak->GetLastError(), DAKERROR_NONE);
    EXPECT_EQ(run.Status(), "  5 6 7");
    Access::m_dwSizeTotal(*run.dak) = Access::m_dwErrCode(*run.dak) = 77;
    run.dak->TerminateTransfer(); // changes nothing
    EXPECT_TRUE(Access::m_dwSizeTotal(*run.dak) == 77 && run.dak->GetLastError() == 77);
    Access::m_dwSizeTotal(*run.dak) = 0;
    Access::m_bCopying(*run.dak) = 1;
    EXPECT_EQ(run.Status(), "  0 0 0");
    run.Cancel();
    // A window that is no longer alive is as good as any.
    run.window = window;
    platform::DestroyMessageWindow(window);
    run.Play(">request abort"); // over at once
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    run.AwaitEnd();
    EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
}

TEST(TransferJob, CopyStatusShowsTheCurrentFile) {
    const Rows<std::uint64_t, std::uint64_t, std::string> rows = {
        {100, 29, "  100 29 28"},
        {100, 101, "  100 101 0"},
        {0xFFFFFFFF, 0xC0000000, "  4294967295 3221225472 75"},
        {0xA00000005, 0xB00000001, "  5 1 20"}};
    CPush run;
    for (const auto& [qwTotal, qwCopied, lpszStatus] : rows) {
        Access::m_bCopying(*run.dak) = 1;
        Access::m_dwSizeTotal(*run.dak) = qwTotal;
        Access::m_dwSizeCopied(*run.dak) = qwCopied;
        EXPECT_EQ(run.Status(), lpszStatus);
    }
    run.Cancel();
    // Bytes count once their package has gone out whole, the verdict on it included.
    run.AddFile("C:\\s\\b\\a.bin", Pattern(20'000));
    run.Stream(Join(U32(1), FileRecord(DAK_WIDE("b\\a.bin"), Pattern(20'000))));
    run.Play(">request ack >p1 ack@400 >p2 ack done");
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    for (const auto& [qwMs, strNumbers] :
         {std::pair(600u, "20000 0 0"), {900u, "20000 20000 100"}}) {
        run.SleepUntil(qwMs);
        EXPECT_EQ(run.Status(), std::string("C:\\s\\b\\a.bin \\d\\b\\a.bin ") + strNumbers);
    }
    run.ExpectEnd(DAKERROR_NONE);
}

// During the drain, when the exchange is over and only the caller's wait decides: it lasts two
// seconds, to the worker's closing.
TEST(TransferJob, TerminatingWaitsTwoSecondsForTheWorker) {
    for (const std::uint64_t qwEarly : {0u, 1u}) {
        const std::uint64_t qwMessage = MESSAGE_MS - qwEarly * READ_MS;
        CPush run(std::to_string(qwEarly));
        run.StartEmpty();
        run.SleepUntil(qwMessage + READ_MS - 1999 - 2 * qwEarly);
        run.dak->TerminateTransfer();
        EXPECT_EQ(run.world.NowMs(), qwMessage + READ_MS - qwEarly);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
        run.ExpectEnd(qwEarly == 0 ? DAKERROR_NONE : CANCELLED, MESSAGE_MS);
        EXPECT_EQ(run.device.Handshakes().size(), 2 - qwEarly);
    }
}

// The read-ahead buffer belongs to a worker that reads from it, also when the caller has given up.
TEST(TransferJob, TerminatingLeavesTheBufferToAWorkerThatReads) {
    for (const bool bDestroy : {false, true}) {
        CPush run(bDestroy ? "destroyed" : "terminated");
        const auto buffers = [&] {
            return std::ranges::count(run.world.Open(), "memory block of 1310720 bytes");
        };
        run.AddFile("C:\\s\\a.bin", Pattern(20'000));
        run.Stream(Join(U32(1), FileRecord(DAK_WIDE("a.bin"), Pattern(20'000))));
        run.world.onFileRead = [](sim::CFileRead&) { platform::Sleep(5000); };
        run.Play(">request ack >a1");
        EXPECT_EQ(run.Start(), DAKERROR_NONE);
        run.SleepUntil(1000);
        bDestroy ? run.dak.reset() : run.dak->TerminateTransfer();
        EXPECT_EQ(run.world.LiveThreads() == 0, bDestroy);
        EXPECT_EQ(buffers(), bDestroy ? 0 : 2);
        EXPECT_EQ(run.world.posted.size(), bDestroy ? 1u : 0u);
        if (!bDestroy) {
            // Nobody waits for a worker that was given up.
            CDAKVorn other;
            EXPECT_EQ(other.ConnectDevice(), DAKERROR_BUSY);
            EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), DAKERROR_BUSY);
            EXPECT_EQ(run.world.NowMs(), 3000u);
            run.ExpectEnd(CANCELLED);
            EXPECT_EQ(buffers(), 0);
        }
    }
}

TEST(TransferJob, ObjectsShareTheLinkAndNothingElse) {
    CPush run;
    CDAKVorn other;
    run.StartEmpty();
    // What can be refused or answered without the link is so at once; of the object with the job
    // the result tells, for its state is the job's.
    for (CDAKVorn* pDak : {&*run.dak, &other}) {
        const auto expect = [&, dwState = pDak->GetLastError()](DWORD dwResult, DWORD dwExpected) {
            EXPECT_EQ(dwResult, dwExpected);
            EXPECT_EQ(pDak->GetLastError(), pDak == &other ? dwExpected : dwState);
        };
        expect(pDak->DAKTransmitFiles(1, DAK_WIDE(""), DAK_WIDE(""), &run.list, nullptr),
               DAKERROR_BUSY);
        expect(pDak->DAKTransmitFiles(7, nullptr, DAK_WIDE(""), nullptr, nullptr), FAIL);
        expect(pDak->DAKDeleteFile(nullptr), FAIL);
        expect(pDak->DAKGetDeviceFreeSpace(nullptr, nullptr), DAKERROR_NONE);
    }
    EXPECT_EQ(run.world.NowMs(), LINK_UP_MS);
    other.TerminateTransfer();
    EXPECT_EQ(run.dak->IsTransmitting(), TRUE);
    { const CDAKVorn third(other); }
    // Any other operation waits for the worker's end.
    EXPECT_EQ(other.ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(run.world.NowMs(), MESSAGE_MS + READ_MS + LINK_UP_MS + READ_MS);
    run.ExpectEnd(DAKERROR_NONE, MESSAGE_MS);
}

// Both wait for an operation; the one that starts first makes the other a further job.
TEST(TransferJob, OfTwoJobsThatWaitTheSecondIsRefused) {
    CPush run;
    CDAKVorn other;
    const auto threads = {
        run.world.Spawn([&] { other.ConnectDevice(); }), run.world.Spawn([&] { run.StartEmpty(); }),
        run.world.Spawn([&] {
            EXPECT_EQ(other.DAKTransmitFiles(1, DAK_WIDE(""), DAK_WIDE(""), &run.list, nullptr),
                      DAKERROR_BUSY);
            EXPECT_EQ(run.world.NowMs(), 2 * LINK_UP_MS + READ_MS);
        })};
    std::ranges::for_each(threads, [&](HANDLE hThread) { run.world.Join(hThread); });
    run.ExpectEnd(DAKERROR_NONE, LINK_UP_MS + READ_MS + MESSAGE_MS);
}

TEST(TransferJob, TheDrainEndsWithAFailedReadAndNotBeforeTheFourth) {
    const std::pair<std::size_t, std::uint64_t> rows[] = {
        // bytes behind the reply, and the time it takes
        {8, READ_MS + 3 * FAILED_READ_MS + 2 * 300},
        {20, 3 * READ_MS + FAILED_READ_MS},
        {800, 100 * READ_MS + FAILED_READ_MS}};
    for (const auto& [dwBytes, qwMs] : rows) {
        CPush run(std::to_string(dwBytes));
        run.PlayWhole(U32(0));
        run.device.Reply(Bytes(dwBytes));
        run.Run(DAKERROR_NONE, PUSHED_MS + qwMs);
    }
}

// What a cancelled job leaves, and who takes it over: the next operation, an object made in
// between, or the object's end.
TEST(TransferJob, TheLinkOfACancelledJobIsTakenOver) {
    for (const std::string strBy : {"operation", "object", "end"}) {
        CPush run(strBy);
        run.Stream(U32(0));
        run.Play(">request ack >p1 ack@600 zero");
        EXPECT_EQ(run.Start(), DAKERROR_NONE);
        run.SleepUntil(LINK_UP_MS + 200);
        run.dak->TerminateTransfer();
        run.ExpectEnd(CANCELLED);
        EXPECT_TRUE(IsHandleOpen(g_hDeviceMutex));
        const std::uint64_t qwBegin = run.world.NowMs();
        if (strBy == "object") {
            CDAKVorn other;
            EXPECT_EQ(other.ConnectDevice(), DAKERROR_NONE);
            EXPECT_EQ(run.device.OpenNow(), 1) << "the first object's";
        }
        strBy == "end" ? run.dak.reset() : static_cast<void>(run.dak->ConnectDevice());
        EXPECT_EQ(run.device.OpenNow(), 0);
        const auto& second = run.device.Handshakes()[1];
        EXPECT_EQ(DakGetU32(second.bytes.data()), strBy == "object" ? DAK_CONNECT : DAK_DISCONNECT);
        EXPECT_EQ(run.device.Opens(), strBy == "object" ? 2 : 1) << "the node stays open";
        EXPECT_EQ(run.world.NowMs() - qwBegin, strBy == "operation" ? READ_MS + LINK_UP_MS + READ_MS
                                                                    : run.world.NowMs() - qwBegin);
    }
}

} // namespace
