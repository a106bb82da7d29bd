// The job around a copy: start, watching, cutting short, end.

#include "tests/library/transfer_run.h"

namespace {

struct CPush : CTransfer {
    explicit CPush(const std::string& strName = {}) : CTransfer(DAK_TO_DEVICE, strName) {
        world.bTrace = false;
    }
    // What GetCopyStatus stores; nothing where there is no job.
    std::string Status() {
        char szSource[260] = "";
        char szDest[260] = "";
        DWORD dwTotal = 5;
        DWORD dwCopied = 6;
        int nPercent = 7;
        dak->GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
        return std::string(szSource) + " " + szDest + " " + std::to_string(dwTotal) + " " +
               std::to_string(dwCopied) + " " + std::to_string(nPercent);
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
    const struct {
        UINT nDirection;
        const WCHAR* lpSource;
        const WCHAR* lpDest;
        CStringArray* pList;
    } rows[] = {{2, DAK_WIDE("a"), DAK_WIDE("b"), &run.list},
                {1, nullptr, DAK_WIDE("b"), &run.list},
                {0, DAK_WIDE("a"), nullptr, &run.list},
                {1, DAK_WIDE("a"), DAK_WIDE("b"), nullptr},
                {1, strLong.c_str(), DAK_WIDE("b"), &run.list},
                {0, DAK_WIDE("a"), strLong.c_str(), &run.list}};
    for (const auto& row : rows) {
        EXPECT_EQ(run.dak->DAKTransmitFiles(row.nDirection, row.lpSource, row.lpDest, row.pList,
                                            run.window),
                  DAKERROR_FAIL);
        EXPECT_EQ(run.dak->GetLastError(), DAKERROR_FAIL);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
    }
    EXPECT_EQ(run.world.CallCount(ECall::CreateMutexA), 0u);
    EXPECT_EQ(run.world.NowMs(), 0u);
    for (const WCHAR* lpFolder : {strLong.c_str() + 1, DAK_WIDE("")}) {
        run.packages["request"] = Command(8, Bytes{1}, Text(lpFolder), Text(lpFolder));
        run.Play(">request abort");
        EXPECT_EQ(run.Start(lpFolder, lpFolder), DAKERROR_NONE);
        run.ExpectEnd(DAKERROR_FAIL);
    }
}

TEST(TransferJob, ALongDebugLogIsDeletedAheadOfEverythingElse) {
    const std::pair<std::uint64_t, bool> rows[] = {
        {5'242'880, true}, {5'242'881, false}, {(1ull << 32) + 7, true}};
    for (const auto& [qwSize, bStays] : rows) {
        CPush run(std::to_string(qwSize));
        run.world.WriteHostFile("C:/DAKDebug.txt", {});
        run.world.HostFile("C:/DAKDebug.txt")->qwReportedSize = qwSize;
        run.Start(DAK_WIDE("a"), nullptr);
        EXPECT_EQ(run.world.HostFileExists("C:/DAKDebug.txt"), bStays);
    }
}

TEST(TransferJob, OneThatCannotStartLeavesNothingOpen) {
    const std::pair<std::string, DWORD> rows[] = {
        {"other", DAKERROR_BUSY},
        {"gone", DAKERROR_NO_DEVICE},
        {"!LocalAlloc#2", DAKERROR_FAIL}, // behind the node's: the two records of the job
        {"!LocalAlloc#3", DAKERROR_FAIL},
        {"!CreateThread#3", DAKERROR_FAIL}}; // behind the two of the handshake
    for (const auto& [strWords, dwResult] : rows) {
        CPush run(strWords);
        run.actions["other"] = [&] { run.world.OtherProcessOpensLock("NadoxUSBAPI"); };
        run.Play(strWords);
        EXPECT_EQ(run.Start(), dwResult);
        EXPECT_EQ(run.dak->GetLastError(), dwResult);
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
        EXPECT_EQ(run.device.OpenNow(), 0);
        EXPECT_TRUE(run.world.posted.empty());
        run.world.OtherProcessClosesLock("NadoxUSBAPI");
        run.world.Plug(run.device);
        run.PlayWhole(U32(0));
        run.Run(DAKERROR_NONE);
    }
}

TEST(TransferJob, TheMessageComesOnceAheadOfTheClosing) {
    CPush run;
    run.StartEmpty();
    EXPECT_EQ(run.world.NowMs(), LINK_UP_MS);
    EXPECT_EQ(run.dak->GetLastError(), DAKERROR_FAIL); // until the worker's first step
    EXPECT_EQ(run.dak->IsTransmitting(), TRUE);
    run.ExpectEnd(DAKERROR_NONE, MESSAGE_MS);
    EXPECT_EQ(run.device.Handshakes()[1].qwMs, MESSAGE_MS);
    EXPECT_EQ(run.world.NowMs(), MESSAGE_MS + READ_MS);
    EXPECT_EQ(CDAKVorn::Commit_Thread(nullptr), static_cast<DWORD>(-1));
    _tagCommitParam param{DAK_COPY_FILES, nullptr, nullptr, 0};
    EXPECT_EQ(CDAKVorn::Commit_Thread(&param), static_cast<DWORD>(-1));
}

TEST(TransferJob, WithoutAWindowTheStateStaysUntilItIsEnded) {
    CPush run;
    run.AddFile("C:\\s\\a.txt", {1, 2, 3});
    run.PlayWhole(Join(U32(1), FileRecord(DAK_WIDE("a.txt"), {1, 2, 3})));
    const HWND window = std::exchange(run.window, nullptr);
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    run.AwaitEnd();
    EXPECT_EQ(run.device.OpenNow(), 0);
    EXPECT_EQ(run.Status(), "C:\\s\\a.txt \\d\\a.txt 3 3 100");
    run.dak->TerminateTransfer();
    EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
    EXPECT_EQ(run.dak->GetLastError(), DAKERROR_NONE);
    EXPECT_EQ(Access::m_dwSizeTotal(*run.dak), 0u);
    Access::m_bCopying(*run.dak) = 1;
    EXPECT_EQ(run.Status(), "  0 0 0");
    Access::m_bCopying(*run.dak) = 0;
    // A window that is no longer alive is as good as any.
    run.window = window;
    platform::DestroyMessageWindow(window);
    run.Play(">request abort"); // over at once
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    run.AwaitEnd();
    EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
    EXPECT_TRUE(run.world.posted.empty());
}

TEST(TransferJob, CopyStatusShowsTheCurrentFile) {
    const struct {
        std::uint64_t qwTotal;
        std::uint64_t qwCopied;
        const char* lpszStatus;
    } rows[] = {{100, 29, "  100 29 28"},
                {0, 0, "  0 0 0"},
                {100, 101, "  100 101 0"},
                {100, 100, "  100 100 100"},
                {0xFFFFFFFF, 0xC0000000, "  4294967295 3221225472 75"},
                {0xA00000005, 0xB00000001, "  5 1 20"}};
    CPush run;
    EXPECT_EQ(run.Status(), "  5 6 7") << "idle";
    for (const auto& row : rows) {
        Access::m_bCopying(*run.dak) = 1;
        Access::m_dwSizeTotal(*run.dak) = row.qwTotal;
        Access::m_dwSizeCopied(*run.dak) = row.qwCopied;
        EXPECT_EQ(run.Status(), row.lpszStatus);
    }
    Access::m_bCopying(*run.dak) = 0;
    // Bytes count once their package has gone out whole, the verdict on it included.
    const Bytes contents = Pattern(20'000);
    run.AddFile("C:\\s\\b\\a.bin", contents);
    run.Stream(Join(U32(1), FileRecord(DAK_WIDE("b\\a.bin"), contents)));
    run.Play(">request ack >p1 ack@400 >p2 ack done");
    EXPECT_EQ(run.Start(), DAKERROR_NONE);
    run.SleepUntil(600);
    EXPECT_EQ(run.Status(), "C:\\s\\b\\a.bin \\d\\b\\a.bin 20000 0 0");
    run.SleepUntil(900);
    EXPECT_EQ(run.Status(), "C:\\s\\b\\a.bin \\d\\b\\a.bin 20000 20000 100");
    run.ExpectEnd(DAKERROR_NONE);
}

TEST(TransferJob, TerminatingAnIdleObjectChangesNothing) {
    CPush run;
    Access::m_dwErrCode(*run.dak) = 77;
    Access::m_dwSizeTotal(*run.dak) = 5;
    run.world.WriteHostFile("C:/s/part", {1});
    std::ranges::copy("C:\\s\\part", Access::m_szPartPath(*run.dak));
    run.dak->TerminateTransfer();
    EXPECT_EQ(run.dak->GetLastError(), 77u);
    EXPECT_EQ(Access::m_dwSizeTotal(*run.dak), 5u);
    EXPECT_TRUE(run.world.HostFileExists("C:/s/part"));
    EXPECT_EQ(run.world.NowMs(), 0u);
}

// During the drain, when the exchange is over and only the caller's wait decides: it lasts two
// seconds, to the worker's closing.
TEST(TransferJob, TerminatingWaitsTwoSecondsForTheWorker) {
    for (const bool bInTime : {true, false}) {
        CPush run(bInTime ? "in time" : "too late");
        run.StartEmpty();
        run.SleepUntil(MESSAGE_MS + READ_MS - (bInTime ? 1999 : 2001));
        run.dak->TerminateTransfer();
        EXPECT_EQ(run.world.NowMs(), MESSAGE_MS + READ_MS - (bInTime ? 0 : 1));
        EXPECT_EQ(run.dak->IsTransmitting(), FALSE);
        // Behind the message, which came in between, the cancel is too late for the link.
        run.AwaitEnd();
        EXPECT_EQ(run.dak->GetLastError(), bInTime ? DAKERROR_NONE : DAKERROR_CANCELLED);
        EXPECT_EQ(run.device.Handshakes().size(), 2u);
        EXPECT_EQ(run.world.posted.size(), 1u);
    }
    CPush run;
    run.StartEmpty();
    run.SleepUntil(MESSAGE_MS - 2001);
    run.dak->TerminateTransfer();
    EXPECT_EQ(run.world.NowMs(), MESSAGE_MS - 1);
    EXPECT_EQ(run.dak->GetLastError(), DAKERROR_CANCELLED);
    EXPECT_TRUE(run.world.posted.empty());
    run.ExpectEnd(DAKERROR_CANCELLED, MESSAGE_MS);
    EXPECT_EQ(run.device.Handshakes().size(), 1u);
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
        DakPutHeader(run.packages["p1"].data(), DAK_ABORT, 0);
        run.world.onFileRead = [](sim::CFileRead&) { platform::Sleep(5000); };
        run.Play(">request ack >p1");
        EXPECT_EQ(run.Start(), DAKERROR_NONE);
        run.SleepUntil(1000);
        EXPECT_EQ(buffers(), 2);
        if (bDestroy) {
            run.dak.reset();
            EXPECT_GT(run.world.NowMs(), 3000u);
            EXPECT_EQ(run.world.LiveThreads(), 0);
            EXPECT_EQ(run.world.posted.size(), 1u);
        } else {
            run.dak->TerminateTransfer();
            EXPECT_EQ(run.world.NowMs(), 3000u);
            EXPECT_EQ(run.dak->GetLastError(), DAKERROR_CANCELLED);
            EXPECT_EQ(buffers(), 2);
            run.ExpectEnd(DAKERROR_CANCELLED);
            EXPECT_EQ(buffers(), 0);
        }
    }
}

TEST(TransferJob, AnOperationThatAnswersTheMessageWaitsForTheClosing) {
    for (const bool bJob : {true, false}) {
        CPush run(bJob ? "a job" : "an operation");
        run.StartEmpty();
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(run.window, INFINITE, &message));
        EXPECT_EQ(run.world.NowMs(), MESSAGE_MS);
        bJob ? run.StartEmpty() : static_cast<void>(run.dak->ConnectDevice());
        run.AwaitEnd();
        EXPECT_EQ(run.device.Handshakes()[2].qwMs, MESSAGE_MS + READ_MS);
    }
}

TEST(TransferJob, ObjectsShareTheLinkAndNothingElse) {
    CPush run;
    CDAKVorn other;
    run.StartEmpty();
    // A further job is refused without a trace, whatever its arguments.
    const std::uint64_t qwCalls = run.world.CallCount();
    for (CDAKVorn* pDak : {&*run.dak, &other}) {
        const DWORD dwErrCode = pDak->GetLastError();
        EXPECT_EQ(pDak->DAKTransmitFiles(7, nullptr, DAK_WIDE(""), nullptr, nullptr),
                  DAKERROR_BUSY);
        EXPECT_EQ(pDak->GetLastError(), dwErrCode);
    }
    EXPECT_EQ(run.world.CallCount(), qwCalls);
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
    for (const HANDLE hThread : threads) {
        run.world.Join(hThread);
    }
    run.ExpectEnd(DAKERROR_NONE, LINK_UP_MS + READ_MS + MESSAGE_MS);
}

TEST(TransferJob, TheDrainEndsWithAFailedReadAndNotBeforeTheFourth) {
    const std::pair<std::size_t, std::uint64_t> rows[] = {
        // bytes behind the reply, and the time it takes
        {0, DRAIN_MS},
        {8, READ_MS + 3 * FAILED_READ_MS + 2 * 300},
        {20, 3 * READ_MS + FAILED_READ_MS},
        {800, 100 * READ_MS + FAILED_READ_MS}};
    for (const auto& [dwBytes, qwMs] : rows) {
        CPush run(std::to_string(dwBytes));
        run.PlayWhole(U32(0));
        dwBytes != 0 ? run.device.Reply(Bytes(dwBytes)) : run.device;
        run.Run(DAKERROR_NONE, PUSHED_MS + qwMs);
    }
}

// What a cancelled job leaves, and who takes it over: the next operation, an object made in
// between, or the object's end.
TEST(TransferJob, TheLinkOfACancelledJobIsTakenOver) {
    for (const std::string strBy : {"operation", "object", "end"}) {
        CPush run(strBy);
        run.Stream(U32(0));
        run.packages["zero"] = Response(8, 0);
        run.Play(">request ack >p1 ack@600 zero");
        EXPECT_EQ(run.Start(), DAKERROR_NONE);
        run.SleepUntil(LINK_UP_MS + 200);
        run.dak->TerminateTransfer();
        run.ExpectEnd(DAKERROR_CANCELLED);
        EXPECT_TRUE(IsHandleOpen(Access::m_hDevice(*run.dak)));
        EXPECT_TRUE(IsHandleOpen(g_hDeviceMutex));
        const std::uint64_t qwBegin = run.world.NowMs();
        if (strBy == "object") {
            CDAKVorn other;
            EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
            EXPECT_EQ(other.ConnectDevice(), DAKERROR_NONE);
            EXPECT_EQ(run.device.OpenNow(), 1) << "the first object's";
        }
        strBy == "end" ? run.dak.reset() : static_cast<void>(run.dak->ConnectDevice());
        EXPECT_EQ(run.device.OpenNow(), 0);
        std::vector<std::uint32_t> words;
        for (const auto& handshake : run.device.Handshakes()) {
            words.push_back(DakGetU32(handshake.bytes.data()));
        }
        if (strBy == "operation") {
            EXPECT_EQ(run.world.NowMs(), qwBegin + READ_MS + LINK_UP_MS + READ_MS);
            EXPECT_EQ(run.device.Opens(), 1) << "the node stayed open";
        }
        if (strBy != "object") {
            words.resize(2);
            EXPECT_EQ(words, (std::vector{DAK_CONNECT, DAK_DISCONNECT}));
        }
    }
}

} // namespace
