// The copy to the device: what goes over the wire, byte for byte, and what a job ends with.

#include "tests/library/transfer_support.h"

namespace {

constexpr std::uint64_t OPEN_MS = LINK_UP_MS + READ_MS + RETRY_BASE_MS; // the stream begins
constexpr std::uint64_t VERDICT_MS = READ_MS + RETRY_BASE_MS;
constexpr std::uint64_t REPLY_MS = 2 * READ_MS;
constexpr std::uint64_t FILL_MS = 10; // a look at a read-ahead buffer that is not filled yet

class CopyToDevice : public TransferTest {
  protected:
    // Changes the first file of the list behind the back of who asks for its size.
    void Resize(std::size_t dwBytes, std::uint64_t qwReportedSize) {
        world.HostFile(list[0].operator const char*())->bytes = sim::Pattern(dwBytes);
        world.HostFile(list[0].operator const char*())->qwReportedSize = qwReportedSize;
    }
    void ExpectAborts(int nPackages) {
        for (; nPackages > 0; --nPackages) {
            device.ExpectThat([](const Bytes& got) {
                EXPECT_EQ(got.size(), DAK_PACKAGE_SIZE);
                EXPECT_EQ(DakGetU32(got.data()), DAK_ABORT);
                EXPECT_EQ(DakGetU32(got.data() + 4), 0u);
            });
        }
    }
    bool bReadsFail = false;
};

TEST_F(CopyToDevice, AWholeCopyInBytes) {
    AddFile("C:\\s\\a.txt", {'h', 'e', 'l', 'l', 'o'});
    device
        .Expect({0x21, 0xE0, 0, 0,    0x13, 0, 0, 0,    0x08, 0,    0x01, 0x43, 0, 0x3A,
                 0,    0x5C, 0, 0x73, 0,    0, 0, 0x5C, 0,    0x64, 0,    0,    0})
        .At(LINK_UP_MS)
        .Reply(Ack())
        .Expect({0x21, 0xE0, 0,    0,    0x33, 0,    0,    0,    0xD9, 0x04, 0,    0,
                 0x08, 0,    0x01, 0,    0,    0,    0x05, 0,    0,    0,    0,    0,
                 0,    0,    0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x11, 0x12,
                 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x61, 0,    0x2E, 0,    0x74, 0,
                 0x78, 0,    0x74, 0,    0,    0,    0x68, 0x65, 0x6C, 0x6C, 0x6F})
        .At(OPEN_MS + FILL_MS)
        .Reply(Ack())
        .Reply({0x22, 0xE0, 0, 0, 6, 0, 0, 0, 8, 0, 1, 0, 0, 0});
    RunPush(DAKERROR_NONE, OPEN_MS + FILL_MS + VERDICT_MS + REPLY_MS + DRAIN_MS);
}

// Several files in one stream, among them empty ones and such that cannot be opened; they have been
// counted all the same.
TEST_F(CopyToDevice, FilesFollowOneAnother) {
    const Bytes contents = sim::Pattern(40'000);
    AddFile("C:\\s\\a.bin", contents);
    list.Add("C:\\s\\missing");
    list.Add(("C:\\s\\" + std::string(255, 'x')).c_str()); // 260 characters
    AddFile("C:\\s\\b\\\xC3\xBC\xE6\x97\xA5", {});
    AddFile("C:\\s\\z", {7});
    ExpectWholePush(Join(U32(5), Record(DAK_WIDE("a.bin"), contents),
                         Record(DAK_WIDE("b\\\u00FC\u65E5"), {}), Record(DAK_WIDE("z"), {7})));
    RunPush(DAKERROR_NONE);

    // A list of which nothing can be opened, and the entry that is the source folder itself.
    list.RemoveAll();
    list.Add("C:\\missing");
    ExpectWholePush(U32(1));
    RunPush(DAKERROR_NONE);

    list.RemoveAll();
    AddFile("C:\\f", {5});
    device.ExpectCommand(8, Bytes{1}, Text(DAK_WIDE("C:\\f")), Text(DAK_WIDE("\\d\\\\")))
        .Reply(Ack());
    ExpectStream(Join(U32(1), Record(DAK_WIDE(""), {5})));
    device.Do([this] { EXPECT_STREQ(Access::m_szDestPath(*dak), "\\d\\"); }); // trimmed here alone
    device.Reply(sim::Response(8, 1));
    EXPECT_EQ(
        dak->DAKTransmitFiles(DAK_TO_DEVICE, DAK_WIDE("C:\\f"), DAK_WIDE("\\d\\\\"), &list, window),
        0u);
    ExpectEnd(DAKERROR_NONE);
}

// A first file of such a size that the package ends dwCut bytes into the next record: ahead of it,
// in each of its fields, in its contents and behind them.
TEST_F(CopyToDevice, ARecordIsCutAnywhere) {
    const Bytes next = Record(DAK_WIDE("\u00E4\\\u65E5.x"), sim::Pattern(9, 3));
    const std::size_t dwAhead = 4 + Record(DAK_WIDE("a"), {}).size();
    list.Add("C:\\s\\a");
    list.Add("C:\\s\\\xC3\xA4\\\xE6\x97\xA5.x");
    world.WriteHostFile(list[1].operator const char*(), sim::Pattern(9, 3), Time(CREATED),
                        Time(WRITTEN));
    for (std::size_t dwCut = 0; dwCut <= next.size(); ++dwCut) {
        SCOPED_TRACE(dwCut);
        const Bytes contents = sim::Pattern(DAK_DATA_SIZE - dwAhead - dwCut);
        world.WriteHostFile("C:/s/a", contents, Time(CREATED), Time(WRITTEN));
        ExpectWholePush(Join(U32(2), Record(DAK_WIDE("a"), contents), next));
        RunPush(DAKERROR_NONE);
    }
    // The package with the 14 bytes of an empty end has gone over the wire, too.
    EXPECT_EQ(device.Packages().back().bytes,
              (Bytes{0x21, 0xE0, 0, 0, 6, 0, 0, 0, 8, 0, 0, 0, 8, 0}));
}

TEST_F(CopyToDevice, ARequestThatFailsEndsTheJob) {
    const auto reply = [this](Bytes package) { ExpectPush().Reply(std::move(package)); };
    const struct {
        const char* lpszWhat;
        std::function<void()> play;
        DWORD dwErrCode;
        std::uint64_t qwMs; // from the request to the drain
    } cases[] = {
        {"no memory", [&] { world.dwFailAllocationsOf = 27; }, DAKERROR_NONE, 0},
        {"write hangs", [&] { device.ExpectHandshake(DAK_CONNECT).DoNotTake(); },
         DAKERROR_NO_DEVICE, 27 + 500},
        {"silence", [&] { ExpectPush(); }, DAKERROR_FAIL, FAILED_READ_MS},
        {"short",
         [&] {
             reply({0, 0xE0, 0, 0});
         },
         DAKERROR_FAIL, READ_MS},
        {"other word", [&] { reply(sim::Control(DAK_RETRANSMIT)); }, DAKERROR_FAIL, READ_MS},
        // The reads of the drain fail at once, too.
        {"gone", [&] { ExpectPush().Vanish(); }, DAKERROR_FAIL,
         READ_MS - 4 * (FAILED_READ_MS - READ_MS)},
    };
    AddFile("C:\\s\\a", {1});
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        one.play();
        RunPush(one.dwErrCode, LINK_UP_MS + one.qwMs + DRAIN_MS);
    }

    // An object that has no buffer for a resend sends nothing.
    world.dwFailAllocationsOf = DAK_WINDOW_SIZE;
    dak.emplace();
    world.dwFailAllocationsOf = 0;
    RunPush(DAKERROR_NONE);
}

// Of an empty list, whose one package has been confirmed.
TEST_F(CopyToDevice, TheFinalReplyDecides) {
    const auto reply = [](std::int32_t nResult) { return sim::Response(8, nResult); };
    const auto aborted = [&](std::int32_t nResult) {
        return Join(sim::Control(DAK_ABORT), reply(nResult));
    };
    const struct {
        Bytes reply;
        DWORD dwErrCode;
        int nCopyResult; // 1 at the start of a job
        std::uint64_t qwMs;
    } cases[] = {
        {reply(1), DAKERROR_NONE, 1, REPLY_MS},
        {reply(0), DAKERROR_NONE, 0, REPLY_MS},
        {reply(-1), DAKERROR_NO_SPACE, -1, REPLY_MS},
        {sim::Response(17, -2), DAKERROR_DEVICE_REFUSED, -2, REPLY_MS}, // any code
        {aborted(1), DAKERROR_NONE, 1, REPLY_MS},
        {aborted(0), DAKERROR_NONE, 0, REPLY_MS},
        {aborted(-1), DAKERROR_NONE, -1, REPLY_MS},
        {aborted(-2), DAKERROR_DEVICE_REFUSED, -2, REPLY_MS},
        {Ack(), DAKERROR_NONE, 1, READ_MS},
        {{0x22, 0xE0, 0, 0}, DAKERROR_NONE, 1, READ_MS},
        {Join(sim::Control(DAK_LAST_REPLY), Bytes{8, 0, 0xFE, 0xFF}), DAKERROR_NONE, 1, REPLY_MS},
        {{}, DAKERROR_NONE, 1, READS_AT_MOST * FAILED_TRY_MS},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(::testing::PrintToString(one.reply));
        ExpectPush().Reply(Ack());
        ExpectStream(U32(0));
        if (!one.reply.empty()) {
            device.Reply(one.reply);
        }
        RunPush(one.dwErrCode, OPEN_MS + VERDICT_MS + one.qwMs + DRAIN_MS);
        EXPECT_EQ(Access::m_nCopyResult(*dak), one.nCopyResult);
    }
}

// A send that fails in the contents: no final package, no reply, no drain, but a fresh node.
TEST_F(CopyToDevice, ASendThatFailsInContentsReplacesTheNode) {
    const Bytes contents = sim::Pattern(30'000);
    AddFile("C:\\s\\a", contents);
    const auto packages = PushPackages(Join(U32(1), Record(DAK_WIDE("a"), contents)));
    constexpr std::uint64_t FIRST_MS = OPEN_MS + FILL_MS;
    const auto open = [&]() -> auto& {
        return ExpectPush().Reply(Ack());
    };
    const auto first = [&]() -> auto& {
        return open().Expect(packages[0]);
    };
    const struct {
        const char* lpszWhat;
        std::function<void()> play;
        DWORD dwErrCode;
        std::uint64_t qwMs;
    } cases[] = {
        {"hangs", [&] { first().Reply(Ack()).DoNotTake(); }, DAKERROR_NO_DEVICE,
         FIRST_MS + VERDICT_MS + 12'788},
        {"abort", [&] { first().Reply(sim::Control(DAK_ABORT)); }, DAKERROR_PROTOCOL,
         FIRST_MS + READ_MS},
        {"gone", [&] { first().Vanish(); }, DAKERROR_NO_DEVICE, FIRST_MS + READ_MS + 500},
        {"no memory", [&] { open(), world.dwFailAllocationsOf = 12'280; }, DAKERROR_FAIL, OPEN_MS},
        {"read error", [&] { open(), bReadsFail = true; }, DAKERROR_FAIL, FIRST_MS},
        // The buffer that came short, and the one behind it that is empty.
        {"shrunk", [&] { first().Reply(Ack()).Expect(packages[1]), Resize(25'000, 30'000); },
         DAKERROR_FAIL, FIRST_MS + VERDICT_MS + 2 * FILL_MS},
        {"4 GiB", [&] { open(), Resize(25'000, 1ull << 32); }, DAKERROR_FAIL, OPEN_MS},
    };
    world.onFileRead = [this](sim::CFileRead& read) { read.bFail = bReadsFail; };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        const int nOpens = device.Opens();
        one.play();
        RunPush(one.dwErrCode, one.qwMs);
        EXPECT_EQ(device.Opens() - nOpens,
                  one.dwErrCode == DAKERROR_NO_DEVICE && one.qwMs < 12'788 ? 1 : 2);
        bReadsFail = false;
    }
    // One that has grown goes out as it was when it was opened.
    Resize(40'000, 30'000);
    ExpectWholePush(Join(U32(1), Record(DAK_WIDE("a"), sim::Pattern(30'000))));
    RunPush(DAKERROR_NONE);
}

// A send that fails in a record: the final package goes out all the same, and unless that one meets
// a dead device the reply is awaited.
TEST_F(CopyToDevice, ASendThatFailsInARecordClosesTheStream) {
    constexpr std::size_t AHEAD = 4 + 28;
    AddFile("C:\\s\\a",
            sim::Pattern(DAK_DATA_SIZE - AHEAD - 10)); // the next record's times are cut
    AddFile("C:\\s\\b", {1});
    const Bytes stream =
        Join(U32(2), Record(DAK_WIDE("a"), sim::Pattern(DAK_DATA_SIZE - AHEAD - 10)),
             Record(DAK_WIDE("b"), {1}));
    const Bytes first = PushPackages(stream)[0];
    const auto isLast = [](const Bytes& got) {
        EXPECT_EQ(DakGetU32(got.data()), DAK_LAST_PACKAGE);
        EXPECT_EQ(DakGetU32(got.data() + 4) + 8, got.size());
    };
    const struct {
        const char* lpszWhat;
        std::function<void()> play;
        DWORD dwErrCode;
    } cases[] = {
        {"write hangs twice", [&] { device.DoNotTake().DoNotTake().Reply(sim::Response(8, -2)); },
         DAKERROR_NO_DEVICE},
        {"write hangs once",
         [&] { device.DoNotTake().ExpectThat(isLast).Reply(Ack()).Reply(sim::Response(8, -2)); },
         DAKERROR_DEVICE_REFUSED},
        {"aborted twice",
         [&] {
             device.Expect(first).Reply(sim::Control(DAK_ABORT)).ExpectThat(isLast);
             device.Reply(sim::Control(DAK_ABORT)).Reply(Ack());
         },
         DAKERROR_PROTOCOL},
        {"gone", [&] { device.Expect(first).Vanish(); }, DAKERROR_NO_DEVICE},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        ExpectPush().Reply(Ack());
        one.play();
        RunPush(one.dwErrCode);
    }
}

// The cancel comes while the device thinks about the first package; the next full one is not sent.
TEST_F(CopyToDevice, ACancelInContents) {
    const Bytes contents = sim::Pattern(60'000);
    AddFile("C:\\s\\a", contents);
    const auto packages = PushPackages(Join(U32(1), Record(DAK_WIDE("a"), contents)));
    ExpectPush().Reply(Ack()).Expect(packages[0]).ReplyAfter(600, Ack());
    ExpectAborts(50); // packages 2 to 51
    EXPECT_EQ(Push(), DAKERROR_NONE);
    platform::Sleep(500);
    dak->TerminateTransfer();
    const std::uint64_t qwEnd = OPEN_MS + FILL_MS + 600 + RETRY_BASE_MS;
    EXPECT_EQ(world.NowMs(), qwEnd); // the worker ends at once: no reply, no drain
    EXPECT_EQ(device.Opens(), 2);
    ExpectEnd(DAKERROR_CANCELLED, qwEnd);
    EXPECT_EQ(device.Handshakes().size(), 1u);
    // The cancelled job's leftovers are no matter of the next one.
    ExpectWholePush(Join(U32(1), Record(DAK_WIDE("a"), contents)));
    RunPush(DAKERROR_NONE);
}

// As above, but what fills the package is a record: the final package is aborted as well, and the
// reply awaited.
TEST_F(CopyToDevice, ACancelInARecord) {
    constexpr std::size_t SIZE = 2 * DAK_DATA_SIZE - 32 - 10;
    AddFile("C:\\s\\a", sim::Pattern(SIZE));
    AddFile("C:\\s\\b", {1});
    const auto packages = PushPackages(
        Join(U32(2), Record(DAK_WIDE("a"), sim::Pattern(SIZE)), Record(DAK_WIDE("b"), {1})));
    ExpectPush().Reply(Ack()).Expect(packages[0]).ReplyAfter(600, Ack());
    ExpectAborts(2 * 50);
    device.ReplyAfter(5000, Join(sim::Control(DAK_ABORT), sim::Response(8, 1)));
    CancelAt(500);
    EXPECT_EQ(Push(), DAKERROR_NONE);
    ExpectEnd(DAKERROR_CANCELLED);
    EXPECT_EQ(device.Opens(), 1);
    EXPECT_EQ(device.Packages().back().qwMs, OPEN_MS + FILL_MS + 600 + RETRY_BASE_MS);
    EXPECT_EQ(Access::m_nCopyResult(*dak), 1);
}

} // namespace
