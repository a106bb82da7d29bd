// The job around a copy: start, watching, cutting short, end.

#include "tests/library/library_run.h"

namespace {

// A push of an empty list: request and acknowledgement, final package and verdict, the reply's two
// reads; and its message behind the drain.
constexpr std::uint64_t PUSHED_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS;
constexpr std::uint64_t MESSAGE_MS = PUSHED_MS + DRAIN_MS;

struct CPush : CTransfer {
    explicit CPush(const std::string& strName = {}) : CTransfer(DAK_TO_DEVICE, strName) {
        world.bTrace = false;
        LayRecords();
        packages["zero"] = Response(8, 0);
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
    void StartOne(const std::string& strWords = "whole") {
        Play(strWords);
        EXPECT_EQ(Start(), DAKERROR_NONE);
    }
    // A job of one file.
    void LayFile(const std::string& strPath, const WideText& strName) {
        AddFile(strPath, Pattern(20'000));
        LayRecords(FileRecord(strName, Pattern(20'000)));
    }
    void SleepUntil(std::uint64_t qwMs) {
        platform::Sleep(static_cast<DWORD>(qwMs - world.NowMs()));
    }
};

TEST(TransferJob, RefusedArgumentsTouchNothing) {
    CPush run;
    const WideText strLong(260, DAK_WIDE('x'));
    const Rows<UINT, const WCHAR*, const WCHAR*, CStringArray*> rows = {
        {2, DAK_WIDE("a"), DAK_WIDE("b"), &run.list},
        {1, nullptr, DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), nullptr, &run.list},
        {1, DAK_WIDE("a"), DAK_WIDE("b"), nullptr},
        {1, strLong.c_str(), DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), strLong.c_str(), &run.list}};
    // A long debug log goes ahead of everything else.
    for (const std::uint64_t qwSize : {5'242'880ull, (1ull << 32) + 7, 5'242'881ull}) {
        run.world.WriteHostFile("C:/DAKDebug.txt", {});
        run.world.HostFile("C:/DAKDebug.txt")->qwReportedSize = qwSize;
        for (const auto& [nDirection, lpSource, lpDest, pList] : rows) {
            EXPECT_EQ(run.dak->DAKTransmitFiles(nDirection, lpSource, lpDest, pList, run.window),
                      FAIL);
            EXPECT_TRUE(run.dak->GetLastError() == FAIL && !run.dak->IsTransmitting());
        }
        EXPECT_EQ(run.world.HostFileExists("C:/DAKDebug.txt"), qwSize != 5'242'881);
    }
    EXPECT_EQ(run.world.CallCount(ECall::CreateMutexA), 0u);
    run.LayRequest(strLong.c_str() + 1, DAK_WIDE(""));
    run.Play(">request abort");
    EXPECT_EQ(run.Start(strLong.c_str() + 1, DAK_WIDE("")), DAKERROR_NONE);
    run.ExpectEnd(FAIL);
    _tagCommitParam param{DAK_COPY_FILES, nullptr, nullptr, 0};
    EXPECT_EQ(CDAKVorn::Commit_Thread(nullptr), static_cast<DWORD>(-1));
    EXPECT_EQ(CDAKVorn::Commit_Thread(&param), static_cast<DWORD>(-1));
}

TEST(TransferJob, OneThatCannotStartLeavesNothingOpen) {
    const Rows<std::string, DWORD> rows = {{"other", DAKERROR_BUSY},
                                           {"gone", GONE},
                                           {"!LocalAlloc#2", FAIL},
                                           {"!LocalAlloc#3", FAIL},
                                           {"!CreateThread#3", FAIL}};
    for (const auto& [strWords, dwResult] : rows) {
        CPush run(strWords);
        run.Play(strWords);
        EXPECT_EQ(run.Start(), dwResult);
        EXPECT_TRUE(run.dak->GetLastError() == dwResult && !run.dak->IsTransmitting());
        EXPECT_EQ(run.device.OpenNow(), 0);
        run.world.OtherProcessClosesLock("NadoxUSBAPI");
        run.world.Plug(run.device);
        run.Run("whole", 0);
    }
}

// The message comes once, ahead of the closing; who answers it with a job or an operation waits for
// that. The drain ends with a read that fails, and not before the fourth.
TEST(TransferJob, TheMessageComesOnceBehindTheDrainAndAheadOfTheClosing) {
    const Rows<std::size_t, std::uint64_t> rows = {
        // bytes behind the reply, and the time that the drain takes
        {0, DRAIN_MS},
        {8, READ_MS + 3 * FAILED_READ_MS + 2 * 300},
        {800, 100 * READ_MS + FAILED_READ_MS}};
    for (const auto& [dwBytes, qwDrain] : rows) {
        CPush run(std::to_string(dwBytes));
        run.StartOne();
        dwBytes != 0 ? static_cast<void>(run.device.Reply(Bytes(dwBytes))) : void();
        EXPECT_EQ(run.world.NowMs(), LINK_UP_MS);
        EXPECT_EQ(run.dak->IsTransmitting(), TRUE);
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(run.window, INFINITE, &message));
        const std::uint64_t qwMessage = PUSHED_MS + qwDrain;
        EXPECT_EQ(run.world.NowMs(), qwMessage);
        const bool bJob = dwBytes == 0;
        bJob ? run.StartOne() : static_cast<void>(run.dak->ConnectDevice());
        run.AwaitEnd();
        EXPECT_EQ(run.world.posted.size(), bJob ? 2u : 1u);
        EXPECT_EQ(run.device.Handshakes()[1].qwMs, qwMessage);
        EXPECT_EQ(run.device.Handshakes()[2].qwMs, qwMessage + READ_MS);
    }
}

TEST(TransferJob, WithoutAWindowTheStateStaysUntilItIsEnded) {
    CPush run;
    const std::string strLong(260, 'x'); // longer than what shows a path
    run.LayFile("C:\\s\\a.txt", DAK_WIDE("a.txt"));
    run.list.Add(strLong.c_str());
    run.LayRecords(FileRecord(DAK_WIDE("a.txt"), Pattern(20'000)));
    const HWND window = std::exchange(run.window, nullptr);
    run.StartOne();
    run.AwaitEnd();
    EXPECT_EQ(run.device.OpenNow(), 0);
    EXPECT_EQ(run.Status(), strLong.substr(1) + " \\d\\a.txt 0 0 0");
    for (int i = 0; i < 2; ++i) { // the second changes nothing
        run.dak->TerminateTransfer();
        EXPECT_EQ(run.dak->GetLastError(), DAKERROR_NONE);
        EXPECT_EQ(run.Status(), "  5 6 7");
    }
    // A window that is no longer alive is as good as any.
    run.window = window;
    platform::DestroyMessageWindow(window);
    run.StartOne(">request abort"); // over at once
    run.AwaitEnd();
    EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
}

TEST(TransferJob, CopyStatusShowsTheCurrentFile) {
    const Rows<std::uint64_t, std::uint64_t, std::string> rows = {
        {100, 29, "  100 29 28"},
        {100, 101, "  100 101 0"},
        {0, 0, "  0 0 0"},
        {0xFFFFFFFF, 0xC0000000, "  4294967295 3221225472 75"},
        {0xA00000005, 0xB00000001, "  5 1 20"}};
    CPush run;
    for (const auto& [qwTotal, qwCopied, strStatus] : rows) {
        Access::Copying(*run.dak) = 1;
        Access::SizeTotal(*run.dak) = qwTotal;
        Access::SizeCopied(*run.dak) = qwCopied;
        EXPECT_EQ(run.Status(), strStatus);
    }
    run.Cancel();
    // Bytes count once their package has gone out whole, the verdict on it included.
    run.LayFile("C:\\s\\b\\a.bin", DAK_WIDE("b\\a.bin"));
    run.StartOne("open >p1 ack@400 >p2 ack done");
    run.SleepUntil(600);
    EXPECT_EQ(run.Status(), "C:\\s\\b\\a.bin \\d\\b\\a.bin 20000 0 0");
    run.SleepUntil(900);
    EXPECT_EQ(run.Status(), "C:\\s\\b\\a.bin \\d\\b\\a.bin 20000 20000 100");
    run.ExpectEnd(DAKERROR_NONE);
}

// During the drain, when the exchange is over and only the caller's wait decides: it lasts two
// seconds, to the worker's closing.
TEST(TransferJob, TerminatingWaitsTwoSecondsForTheWorker) {
    for (const std::uint64_t qwEarly : {0u, 1u}) {
        const std::uint64_t qwMessage = MESSAGE_MS - qwEarly * READ_MS;
        CPush run(std::to_string(qwEarly));
        run.StartOne();
        run.SleepUntil(qwMessage + READ_MS - 1999 - 2 * qwEarly);
        run.dak->TerminateTransfer();
        EXPECT_EQ(run.world.NowMs(), qwMessage + READ_MS - qwEarly);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
        run.ExpectEnd(qwEarly == 0 ? DAKERROR_NONE : CANCELLED, MESSAGE_MS);
        EXPECT_EQ(run.device.Handshakes().size(), 2 - qwEarly);
    }
}

// The read-ahead buffer belongs to a worker that reads from it, also when the caller has given up;
// and nobody waits for such a one.
TEST(TransferJob, TerminatingLeavesTheBufferToAWorkerThatReads) {
    for (const bool bDestroy : {false, true}) {
        CPush run(bDestroy ? "destroyed" : "terminated");
        const auto buffers = [&] {
            return std::ranges::count(run.world.Open(), "memory block of 1310720 bytes");
        };
        run.LayFile("C:\\s\\a.bin", DAK_WIDE("a.bin"));
        run.world.onFileRead = [](sim::CFileRead&) { platform::Sleep(5000); };
        run.StartOne("open >a1");
        run.SleepUntil(1000);
        bDestroy ? run.dak.reset() : run.dak->TerminateTransfer();
        EXPECT_EQ(run.world.LiveThreads() == 0, bDestroy);
        EXPECT_EQ(buffers(), bDestroy ? 0 : 2);
        EXPECT_EQ(run.world.posted.size(), bDestroy ? 1u : 0u);
        if (!bDestroy) {
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
    run.StartOne();
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
        run.world.Spawn([&] { other.ConnectDevice(); }), run.world.Spawn([&] { run.StartOne(); }),
        run.world.Spawn([&] {
            EXPECT_EQ(other.DAKTransmitFiles(1, DAK_WIDE(""), DAK_WIDE(""), &run.list, nullptr),
                      DAKERROR_BUSY);
            EXPECT_EQ(run.world.NowMs(), 2 * LINK_UP_MS + READ_MS);
        })};
    std::ranges::for_each(threads, [&](HANDLE hThread) { run.world.Join(hThread); });
    run.ExpectEnd(DAKERROR_NONE, LINK_UP_MS + READ_MS + MESSAGE_MS);
}

// What a cancelled job leaves, and who takes it over: the next operation, an object made in
// between, or the object's end.
TEST(TransferJob, TheLinkOfACancelledJobIsTakenOver) {
    for (const std::string strBy : {"operation", "object", "end"}) {
        CPush run(strBy);
        run.StartOne("open >p1 ack@600 zero");
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
        EXPECT_TRUE(strBy != "operation" ||
                    run.world.NowMs() - qwBegin == READ_MS + LINK_UP_MS + READ_MS);
    }
}

} // namespace
