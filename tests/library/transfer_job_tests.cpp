// The job around a copy: start, watching, cutting short, end.

#include "tests/library/transfer_support.h"

#include "link/device_connection.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

// A push of an empty list: request and acknowledgement, final package and verdict, the reply's two
// reads.
constexpr std::uint64_t PUSHED_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS;
constexpr std::uint64_t MESSAGE_MS = PUSHED_MS + DRAIN_MS;

class TransferJob : public TransferTest {
  protected:
    void ExpectEmptyPush() { ExpectWholePush(U32(0)); }

    // What GetCopyStatus stores into; as it was where there is no job.
    struct CStatus {
        std::string strSource;
        std::string strDest;
        DWORD dwTotal = 5;
        DWORD dwCopied = 6;
        int nPercent = 7;
        bool operator==(const CStatus&) const = default;
    };
    CStatus Status() {
        char szSource[260] = "x";
        char szDest[260] = "y";
        CStatus status;
        dak->GetCopyStatus(szSource, szDest, status.dwTotal, status.dwCopied, status.nPercent);
        status.strSource = szSource;
        status.strDest = szDest;
        return status;
    }
};

TEST_F(TransferJob, BadArgumentsTouchNothing) {
    const std::basic_string<WCHAR> strLong(260, DAK_WIDE('x'));
    const WCHAR* const lpLong = strLong.c_str();
    const auto expectRefusal = [&](UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                                   CStringArray* pList) {
        Access::m_dwErrCode(*dak) = 0;
        EXPECT_EQ(dak->DAKTransmitFiles(nDirection, lpSource, lpDest, pList, window),
                  DAKERROR_FAIL);
        EXPECT_EQ(dak->GetLastError(), DAKERROR_FAIL);
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
    };
    expectRefusal(2, DAK_WIDE("C:\\s"), DAK_WIDE("\\d"), &list);
    expectRefusal(1, nullptr, DAK_WIDE("\\d"), &list);
    expectRefusal(0, DAK_WIDE("\\d"), nullptr, &list);
    expectRefusal(1, DAK_WIDE("C:\\s"), DAK_WIDE("\\d"), nullptr);
    expectRefusal(1, lpLong, DAK_WIDE("\\d"), &list);
    expectRefusal(0, DAK_WIDE("\\d"), lpLong, &list);
    EXPECT_EQ(device.Opens(), 0);
    EXPECT_EQ(world.CallCount(sim::ECall::CreateMutexA), 0u);
    EXPECT_EQ(world.NowMs(), 0u);

    for (const WCHAR* lpFolder : {lpLong + 1, DAK_WIDE("")}) {
        device.ExpectCommand(8, Bytes{DAK_TO_DEVICE}, Text(lpFolder), Text(lpFolder))
            .Reply(sim::Control(DAK_ABORT));
        EXPECT_EQ(dak->DAKTransmitFiles(DAK_TO_DEVICE, lpFolder, lpFolder, &list, window),
                  DAKERROR_NONE);
        ExpectEnd(DAKERROR_FAIL);
    }
}

TEST_F(TransferJob, ALongDebugLogIsDeletedAheadOfEverythingElse) {
    const struct {
        std::uint64_t qwSize;
        bool bStays;
    } cases[] = {{5'242'880, true}, {5'242'881, false}, {(1ull << 32) + 7, true}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.qwSize);
        world.WriteHostFile("C:/DAKDebug.txt", {});
        world.HostFile("C:/DAKDebug.txt")->qwReportedSize = one.qwSize;
        dak->DAKTransmitFiles(DAK_TO_DEVICE, DAK_WIDE("C:\\s"), nullptr, &list, window);
        EXPECT_EQ(world.HostFileExists("C:/DAKDebug.txt"), one.bStays);
    }
    EXPECT_EQ(device.Opens(), 0);
}

TEST_F(TransferJob, AJobThatCannotStartLeavesNothingOpen) {
    const struct {
        std::function<void()> fail;
        DWORD dwResult;
    } cases[] = {
        {[this] { world.OtherProcessOpensLock("NadoxUSBAPI"); }, DAKERROR_BUSY},
        {[this] { world.Unplug(); }, DAKERROR_NO_DEVICE},
        {[this] { world.dwFailAllocationsOf = sizeof(_tagCommitParam); }, DAKERROR_FAIL},
        // The worker, behind the two threads of the handshake.
        {[this] { world.FailCall(sim::ECall::CreateThread, 3); }, DAKERROR_FAIL},
    };
    for (const auto& one : cases) {
        one.fail();
        EXPECT_EQ(Push(), one.dwResult);
        EXPECT_EQ(dak->GetLastError(), one.dwResult);
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
        EXPECT_EQ(device.OpenNow(), 0);
        EXPECT_EQ(world.LiveThreads(), 0);
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        world.OtherProcessClosesLock("NadoxUSBAPI");
        world.dwFailAllocationsOf = 0;
        if (!world.IsPlugged()) {
            EXPECT_EQ(world.NowMs(), 300u);
            world.Plug(device);
        }
    }
    EXPECT_TRUE(world.posted.empty());
    ExpectEmptyPush();
    RunPush(DAKERROR_NONE);
}

TEST_F(TransferJob, TheMessageComesOnceAheadOfTheClosing) {
    ExpectEmptyPush();
    EXPECT_EQ(Push(), DAKERROR_NONE);
    EXPECT_EQ(world.NowMs(), LINK_UP_MS);
    EXPECT_EQ(dak->GetLastError(), DAKERROR_FAIL); // until the worker's first step
    EXPECT_EQ(dak->IsTransmitting(), TRUE);
    EXPECT_EQ(Access::m_nCopyResult(*dak), 1);
    ExpectEnd(DAKERROR_NONE, MESSAGE_MS);
    ASSERT_EQ(device.Handshakes().size(), 2u);
    EXPECT_EQ(device.Handshakes()[1].qwMs, MESSAGE_MS);
    EXPECT_EQ(world.NowMs(), MESSAGE_MS + READ_MS);
    EXPECT_EQ(CDAKVorn::Commit_Thread(nullptr), static_cast<DWORD>(-1));
    _tagCommitParam param{DAK_COPY_FILES, nullptr, nullptr, 0};
    EXPECT_EQ(CDAKVorn::Commit_Thread(&param), static_cast<DWORD>(-1));
}

TEST_F(TransferJob, WithoutAWindowTheStateStaysUntilItIsEnded) {
    window = nullptr;
    AddFile("C:\\s\\a.txt", {1, 2, 3});
    ExpectWholePush(Join(U32(1), Record(DAK_WIDE("a.txt"), {1, 2, 3})));
    EXPECT_EQ(Push(), DAKERROR_NONE);
    AwaitEnd();
    EXPECT_EQ(device.OpenNow(), 0);
    EXPECT_EQ(dak->IsTransmitting(), TRUE);
    EXPECT_EQ(Status(), (CStatus{"C:\\s\\a.txt", "\\d\\a.txt", 3, 3, 100}));
    dak->TerminateTransfer();
    EXPECT_EQ(dak->IsTransmitting(), FALSE);
    EXPECT_EQ(Status(), (CStatus{"x", "y"}));
    EXPECT_EQ(dak->GetLastError(), DAKERROR_NONE);
    EXPECT_STREQ(Access::m_szSourcePath(*dak), "");
    EXPECT_STREQ(Access::m_szDestPath(*dak), "");
    EXPECT_EQ(Access::m_dwSizeTotal(*dak), 0u);
    EXPECT_EQ(Access::m_hCommitThread(*dak), nullptr);

    // A window that is no longer alive is as good as any.
    window = platform::CreateMessageWindow();
    platform::DestroyMessageWindow(window);
    ExpectPush().Reply(sim::Control(DAK_ABORT)); // over at once
    EXPECT_EQ(Push(), DAKERROR_NONE);
    AwaitEnd();
    EXPECT_EQ(dak->IsTransmitting(), FALSE);
    EXPECT_TRUE(world.posted.empty());
}

TEST_F(TransferJob, CopyStatusShowsTheCurrentFile) {
    const struct {
        std::uint64_t qwTotal;
        std::uint64_t qwCopied;
        int nPercent;
    } cases[] = {{100, 29, 28},
                 {0, 0, 0},
                 {100, 101, 0},
                 {100, 100, 100},
                 {0xFFFFFFFF, 0xC0000000, 75},
                 {0xAFFFFFFFF, 0xB00000001, 0}};
    for (const auto& one : cases) {
        Access::m_bCopying(*dak) = 1;
        Access::m_dwSizeTotal(*dak) = one.qwTotal;
        Access::m_dwSizeCopied(*dak) = one.qwCopied;
        EXPECT_EQ(Status(), (CStatus{"", "", static_cast<DWORD>(one.qwTotal),
                                     static_cast<DWORD>(one.qwCopied), one.nPercent}));
    }
    Access::m_bCopying(*dak) = 0;

    // While a job waits for the first verdict: bytes count once their package has gone out whole.
    const Bytes contents = sim::Pattern(20'000);
    AddFile("C:\\s\\b\\a.bin", contents);
    const auto packages = PushPackages(Join(U32(1), Record(DAK_WIDE("b\\a.bin"), contents)));
    ExpectPush().Reply(Ack()).Expect(packages[0]).ReplyAfter(400, Ack());
    device.Expect(packages[1]).Reply(Ack()).Reply(sim::Response(8, 1));
    EXPECT_EQ(Push(), DAKERROR_NONE);
    for (const bool bWhole : {false, true}) {
        platform::Sleep(300);
        EXPECT_EQ(Status(), (CStatus{"C:\\s\\b\\a.bin", "\\d\\b\\a.bin", 20'000,
                                     bWhole ? 20'000u : 0u, bWhole ? 100 : 0}));
    }
    ExpectEnd(DAKERROR_NONE);
}

TEST_F(TransferJob, TerminatingAnIdleObjectChangesNothing) {
    Access::m_dwErrCode(*dak) = 77;
    Access::m_dwSizeTotal(*dak) = 5;
    world.WriteHostFile("C:/s/part", {1});
    std::strcpy(Access::m_szPartPath(*dak), "C:\\s\\part");
    dak->TerminateTransfer();
    EXPECT_EQ(dak->GetLastError(), 77u);
    EXPECT_EQ(Access::m_dwSizeTotal(*dak), 5u);
    EXPECT_TRUE(world.HostFileExists("C:/s/part"));
    EXPECT_EQ(world.NowMs(), 0u);
}

// A cancel during the drain: the exchange is over, so only the wait of the caller decides.
TEST_F(TransferJob, TerminatingWaitsTwoSecondsForTheWorker) {
    ExpectEmptyPush();
    EXPECT_EQ(Push(), DAKERROR_NONE);
    platform::Sleep(static_cast<DWORD>(MESSAGE_MS + READ_MS - 1999 - LINK_UP_MS));
    dak->TerminateTransfer();
    EXPECT_EQ(world.NowMs(), MESSAGE_MS + READ_MS); // with the worker's closing
    ExpectEnd(DAKERROR_NONE, MESSAGE_MS);

    const std::uint64_t qwBegin = world.NowMs();
    ExpectEmptyPush();
    EXPECT_EQ(Push(), DAKERROR_NONE);
    platform::Sleep(static_cast<DWORD>(MESSAGE_MS - 2001 - LINK_UP_MS));
    dak->TerminateTransfer();
    EXPECT_EQ(world.NowMs(), qwBegin + MESSAGE_MS - 1);
    EXPECT_EQ(dak->GetLastError(), DAKERROR_CANCELLED);
    EXPECT_EQ(dak->IsTransmitting(), FALSE);
    EXPECT_TRUE(world.posted.empty());
    ExpectEnd(DAKERROR_CANCELLED, qwBegin + MESSAGE_MS);
    EXPECT_EQ(device.Handshakes().size(), 3u); // the second job did not disconnect
}

// The read-ahead buffer belongs to a worker that reads from it, also when the caller has given up.
TEST_F(TransferJob, TerminatingLeavesTheBufferToAWorkerThatReads) {
    const auto hasReadAhead = [this] {
        return std::ranges::count(world.Open(), "memory block of 1310720 bytes") == 2;
    };
    for (const bool bDestroy : {false, true}) {
        SCOPED_TRACE(bDestroy);
        list.RemoveAll();
        AddFile("C:\\s\\a.bin", sim::Pattern(20'000));
        world.onFileRead = [](sim::CFileRead&) { platform::Sleep(5000); };
        ExpectPush().Reply(Ack());
        device.ExpectThat([](const Bytes& got) { // instead of the first package
            EXPECT_EQ(got.size(), DAK_PACKAGE_SIZE);
            EXPECT_EQ(DakGetU32(got.data()), DAK_ABORT);
        });
        EXPECT_EQ(Push(), DAKERROR_NONE);
        platform::Sleep(1000);
        EXPECT_TRUE(hasReadAhead());
        if (bDestroy) {
            const std::uint64_t qwBegin = world.NowMs();
            dak.reset();
            EXPECT_EQ(world.LiveThreads(), 0);
            EXPECT_GT(world.NowMs(), qwBegin + 2000);
            EXPECT_EQ(world.posted.size(), 1u);
            EXPECT_EQ(device.OpenNow(), 0);
        } else {
            dak->TerminateTransfer();
            EXPECT_EQ(dak->GetLastError(), DAKERROR_CANCELLED);
            EXPECT_TRUE(hasReadAhead());
            ExpectEnd(DAKERROR_CANCELLED);
            EXPECT_FALSE(hasReadAhead());
        }
    }
}

TEST_F(TransferJob, AnOperationThatAnswersTheMessageWaitsForTheClosing) {
    ExpectEmptyPush();
    EXPECT_EQ(Push(), DAKERROR_NONE);
    for (const bool bJob : {true, false}) {
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(window, INFINITE, &message));
        const std::uint64_t qwClosed = world.NowMs() + READ_MS;
        if (bJob) {
            ExpectEmptyPush();
            EXPECT_EQ(Push(), DAKERROR_NONE);
        } else {
            EXPECT_EQ(dak->ConnectDevice(), DAKERROR_NONE);
        }
        const auto itConnect = device.Handshakes().end() - (bJob ? 1 : 2);
        EXPECT_EQ(DakGetU32(itConnect->bytes.data()), DAK_CONNECT);
        EXPECT_EQ(itConnect->qwMs, qwClosed);
    }
    ASSERT_EQ(world.posted.size(), 2u);
    EXPECT_EQ(world.posted[1].qwMs, 2 * MESSAGE_MS + READ_MS);
}

TEST_F(TransferJob, ObjectsShareTheLinkAndNothingElse) {
    CDAKVorn other;
    const HWND hOther = platform::CreateMessageWindow();
    ExpectEmptyPush();
    EXPECT_EQ(Push(), DAKERROR_NONE);
    // A further job is refused without a trace, whatever its arguments.
    world.WriteHostFile("C:/DAKDebug.txt", Bytes(5'242'881));
    const std::uint64_t qwCalls = world.CallCount();
    for (CDAKVorn* pDak : {&*dak, &other}) {
        const DWORD dwErrCode = pDak->GetLastError();
        EXPECT_EQ(
            pDak->DAKTransmitFiles(DAK_FROM_DEVICE, DAK_WIDE(""), DAK_WIDE(""), &list, hOther),
            DAKERROR_BUSY);
        EXPECT_EQ(pDak->DAKTransmitFiles(7, nullptr, DAK_WIDE(""), nullptr, hOther), DAKERROR_BUSY);
        EXPECT_EQ(pDak->GetLastError(), dwErrCode);
    }
    EXPECT_EQ(world.CallCount(), qwCalls);
    EXPECT_EQ(world.NowMs(), LINK_UP_MS);
    EXPECT_EQ(Access::m_hNotifyWnd(*dak), window);
    EXPECT_EQ(other.IsTransmitting(), FALSE);
    other.TerminateTransfer();
    EXPECT_EQ(dak->IsTransmitting(), TRUE);
    { const CDAKVorn third(other); }
    // Any other operation waits for the worker's end.
    EXPECT_EQ(other.ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(world.NowMs(), MESSAGE_MS + READ_MS + LINK_UP_MS + READ_MS);
    ExpectEnd(DAKERROR_NONE, MESSAGE_MS);
}

// Both wait for an operation; the one that starts first makes the other a further job.
TEST_F(TransferJob, OfTwoJobsThatWaitTheSecondIsRefused) {
    CDAKVorn other;
    std::array<DWORD, 2> results{};
    std::uint64_t qwRefusedMs = 0;
    ExpectEmptyPush();
    const std::array threads = {
        world.Spawn([&] { other.ConnectDevice(); }),
        world.Spawn([&] { results[0] = Push(); }),
        world.Spawn([&] {
            results[1] =
                other.DAKTransmitFiles(DAK_TO_DEVICE, DAK_WIDE(""), DAK_WIDE(""), &list, nullptr);
            qwRefusedMs = world.NowMs();
        }),
    };
    for (const HANDLE hThread : threads) {
        world.Join(hThread);
    }
    EXPECT_EQ(results, (std::array{DAKERROR_NONE, DAKERROR_BUSY}));
    EXPECT_EQ(qwRefusedMs, 2 * LINK_UP_MS + READ_MS);
    ExpectEnd(DAKERROR_NONE, LINK_UP_MS + READ_MS + MESSAGE_MS);
}

TEST_F(TransferJob, TheDrainEndsWithAFailedReadAndNotBeforeTheFourth) {
    const struct {
        std::size_t dwJunk; // bytes behind the reply
        std::uint64_t qwMs;
    } cases[] = {{0, DRAIN_MS},
                 {8, READ_MS + 3 * FAILED_READ_MS + 2 * 300},
                 {20, 3 * READ_MS + FAILED_READ_MS},
                 {800, 100 * READ_MS + FAILED_READ_MS}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.dwJunk);
        ExpectEmptyPush();
        if (one.dwJunk != 0) {
            device.Reply(Bytes(one.dwJunk));
        }
        RunPush(DAKERROR_NONE, PUSHED_MS + one.qwMs);
    }
}

// What a cancelled job leaves, and who takes it over.
TEST_F(TransferJob, TheNextOperationTakesTheLinkOver) {
    const auto cancelled = [this] {
        ExpectPush().Reply(Ack()).Expect(
            sim::DataPackage(DAK_LAST_PACKAGE, 8, U32(0))); // and no verdict for a while
        device.ReplyAfter(600, Ack()).Reply(sim::Response(8, 0));
        EXPECT_EQ(Push(), DAKERROR_NONE);
        platform::Sleep(200);
        dak->TerminateTransfer();
        ExpectEnd(DAKERROR_CANCELLED);
        EXPECT_TRUE(IsHandleOpen(Access::m_hDevice(*dak)));
        EXPECT_TRUE(IsHandleOpen(g_hDeviceMutex));
    };
    const auto words = [this](std::size_t dwFrom) {
        std::vector<std::uint32_t> seen;
        for (; dwFrom < device.Handshakes().size(); ++dwFrom) {
            seen.push_back(DakGetU32(device.Handshakes()[dwFrom].bytes.data()));
        }
        return seen;
    };
    cancelled();
    const std::uint64_t qwBegin = world.NowMs();
    EXPECT_EQ(dak->ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(words(0), (std::vector{DAK_CONNECT, DAK_DISCONNECT, DAK_CONNECT, DAK_DISCONNECT}));
    EXPECT_EQ(device.Opens(), 1); // the node stayed open
    EXPECT_EQ(world.NowMs(), qwBegin + READ_MS + LINK_UP_MS + READ_MS);

    // An object made in between starts afresh; the first one still has its node.
    cancelled();
    {
        CDAKVorn other;
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        EXPECT_EQ(other.ConnectDevice(), DAKERROR_NONE);
        EXPECT_EQ(device.OpenNow(), 1);
    }
    EXPECT_EQ(dak->ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(device.OpenNow(), 0);

    // The destructor closes what is open.
    cancelled();
    const std::size_t dwHandshakes = device.Handshakes().size();
    dak.reset();
    EXPECT_EQ(words(dwHandshakes), std::vector{DAK_DISCONNECT});
    EXPECT_EQ(device.OpenNow(), 0);
    EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
}

} // namespace
