// The copy from the device: the request, what becomes of the stream on the host's disk, and what a
// job ends with.

#include "tests/library/transfer_support.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::uint64_t SETTLE_MS = 500;
constexpr std::uint64_t PACKAGE_MS = 2 * READ_MS;
constexpr std::uint64_t ACKNOWLEDGED_MS = 500;
constexpr std::uint64_t OPEN_MS = LINK_UP_MS + READ_MS + SETTLE_MS; // the stream begins
constexpr std::uint64_t FAILED_HEAD_TRY_MS = FAILED_HEAD_MS + 500;
constexpr std::uint64_t SPARE_ROOM = 102'400;

const Bytes OLD = {'o', 'l', 'd'};

class CopyFromDevice : public TransferTest {
  protected:
    CopyFromDevice() { world.MakeHostFolder("C:/s"); }

    // A job for which the device has that stream.
    void RunStream(const Bytes& stream, DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        ExpectPull().Reply(Ack());
        GiveStream(stream);
        RunPull(dwErrCode, qwMs);
    }
    // The same, but the host is to stop the stream ahead of its last package.
    void RunStoppedStream(const Bytes& stream, DWORD dwErrCode) {
        ExpectPull().Reply(Ack());
        for (const Bytes& package : PullPackages(stream)) {
            device.Reply(package);
        }
        device.Expect(sim::Control(DAK_ABORT));
        RunPull(dwErrCode);
    }
    void ExpectFile(const std::string& strPath, const Bytes& contents) {
        const sim::CHostFile* pFile = world.HostFile(strPath);
        ASSERT_NE(pFile, nullptr) << strPath;
        EXPECT_EQ(pFile->bytes, contents) << strPath;
        EXPECT_EQ(std::memcmp(&pFile->ftCreation, U64(CREATED).data(), 8), 0);
        EXPECT_EQ(std::memcmp(&pFile->ftWrite, U64(WRITTEN).data(), 8), 0);
    }
    // A target that was there is there, and nothing beside it.
    void ExpectOldFile() {
        EXPECT_EQ(world.HostFiles("C:/s"), std::vector<std::string>{"a.bin"});
        EXPECT_EQ(world.ReadHostFile("C:/s/a.bin"), OLD);
    }
};

TEST_F(CopyFromDevice, AWholeCopyInBytes) {
    list.Add("a.txt");
    const Bytes request = {0x21, 0xE0, 0, 0,    35, 0,    0, 0,    8, 0, 0, 0x5C, 0, 0x64, 0, 0,
                           0,    0x43, 0, 0x3A, 0,  0x5C, 0, 0x73, 0, 0, 0, 1,    0, 0,    0, 0x61,
                           0,    0x2E, 0, 0x74, 0,  0x78, 0, 0x74, 0, 0, 0};
    ASSERT_EQ(request.size(), 43u);
    device.Expect(request).At(LINK_UP_MS).Reply(Ack());
    GiveStream(Stream(Record(DAK_WIDE("a.txt"), {'h', 'e', 'l', 'l', 'o'})));
    RunPull(DAKERROR_NONE, OPEN_MS + PACKAGE_MS + ACKNOWLEDGED_MS + DRAIN_MS);
    ExpectFile("C:/s/a.txt", {'h', 'e', 'l', 'l', 'o'});
    EXPECT_STREQ(Access::m_szSourcePath(*dak), "\\d\\a.txt");
    EXPECT_STREQ(Access::m_szDestPath(*dak), "C:\\s\\a.txt");
    list.RemoveAll();
    RunStream(Stream(), DAKERROR_NONE); // a device that has nothing
}

TEST_F(CopyFromDevice, FoldersAreMadeAndFilesReplaced) {
    const Bytes exact =
        sim::Pattern(DAK_DATA_SIZE - 8 - Record(DAK_WIDE("a\\b\\exact"), {}).size());
    const Bytes large = sim::Pattern(30'000);
    world.MakeHostFolder("D:/x/a");
    world.WriteHostFile("D:/x/large", OLD);
    world.WriteHostFile("D:/x/locked", OLD);
    world.HostFile("D:/x/locked")->bReadOnly = true;
    device
        .ExpectCommand(8, Bytes{0}, Text(DAK_WIDE("\\d\\")), Text(DAK_WIDE("D:\\x\\\\")),
                       U32(0)) // as it was given
        .Reply(Ack());
    GiveStream(Stream(Record(DAK_WIDE("a\\b\\exact"), exact), Record(DAK_WIDE("a\\c/empty"), {}),
                      Record(DAK_WIDE("large"), large), Record(DAK_WIDE("..\u00FC..\\\u65E5"), {1}),
                      Record(DAK_WIDE("locked"), {2})));
    EXPECT_EQ(dak->DAKTransmitFiles(DAK_FROM_DEVICE, DAK_WIDE("\\d\\"), DAK_WIDE("D:\\x\\\\"),
                                    &list, window),
              0u);
    ExpectEnd(DAKERROR_NONE);
    ExpectFile("D:/x/a/b/exact", exact);
    ExpectFile("D:/x/a/c/empty", {});
    ExpectFile("D:/x/large", large);
    ExpectFile("D:/x/..\xC3\xBC../\xE6\x97\xA5", {1});
    ExpectFile("D:/x/locked", {2});
    EXPECT_EQ(world.HostFiles("D:/x").size(), 5u);
    EXPECT_STREQ(Access::m_szSourcePath(*dak), "\\d\\locked");
    EXPECT_STREQ(Access::m_szDestPath(*dak), "D:\\x\\locked");
    EXPECT_TRUE(world.Trace({"file delete"}).empty()); // each was replaced in one step
}

// The pieces of a chained request, cut inside a short name and wherever else they end. A run of
// names begins at an odd byte, so a cut always parts a character, and no piece is ever just full.
TEST_F(CopyFromDevice, ALongRequestIsCutAnywhere) {
    for (const std::size_t dwCut : {1u, 3u, 5u, 7u}) {
        SCOPED_TRACE(dwCut);
        Bytes run = Join(Bytes{0}, Text(DAK_WIDE("\\d")), Text(DAK_WIDE("C:\\s")), U32(49));
        const auto add = [&](std::size_t dwChars) {
            list.Add(std::string(dwChars, 'n').c_str());
            run = Join(run, Text(std::basic_string<WCHAR>(dwChars, DAK_WIDE('n'))));
        };
        list.RemoveAll();
        for (int i = 0; i < 23; ++i) {
            add(259);
        }
        add((DAK_PACKAGE_SIZE - 10 - run.size() - dwCut) / 2 - 1);
        EXPECT_EQ(10 + run.size(), DAK_PACKAGE_SIZE - dwCut);
        add(2);
        for (int i = 0; i < 24; ++i) {
            add(259);
        }
        std::size_t dwAt = 0;
        for (const std::size_t dwBytes :
             {std::size_t{12'278}, std::size_t{12'278}, run.size() - 2 * 12'278}) {
            const auto begin = run.begin() + static_cast<std::ptrdiff_t>(dwAt);
            dwAt += dwBytes;
            device
                .Expect(sim::Package(
                    dwAt < run.size() ? DAK_PACKAGE : DAK_LAST_PACKAGE,
                    Join(sim::U16(8), Bytes(begin, begin + static_cast<std::ptrdiff_t>(dwBytes)))))
                .Reply(Ack());
        }
        GiveStream(Stream());
        RunPull(DAKERROR_NONE, OPEN_MS + 2 * READ_MS + PACKAGE_MS + ACKNOWLEDGED_MS + DRAIN_MS);
    }
}

TEST_F(CopyFromDevice, ARequestThatFailsEndsTheJob) {
    const auto piece = [this](DWORD wCommand) -> auto& {
        return device.ExpectThat(
            [=](const Bytes& got) { EXPECT_EQ(DakGetU32(got.data()), wCommand); });
    };
    const auto first = [&]() -> auto& {
        return piece(DAK_PACKAGE);
    };
    const auto last = [&]() -> auto& {
        return piece(DAK_LAST_PACKAGE);
    };
    const auto hang = [&] { device.ExpectHandshake(DAK_CONNECT).DoNotTake(); };
    const auto refused = sim::Control(DAK_ABORT);
    constexpr std::uint64_t SILENCE = READS_AT_MOST * FAILED_TRY_MS;
    const struct {
        const char* lpszWhat;
        int nNames; // 25 need two pieces
        std::function<void()> play;
        DWORD dwErrCode;
        std::uint64_t qwMs; // from the request to the drain
    } cases[] = {
        {"no memory", 1, [&] { world.dwFailAllocationsOf = 12'288; }, DAKERROR_NONE, 0},
        {"name too long", 26, [] {}, DAKERROR_FAIL, 0},
        {"hangs", 0, hang, DAKERROR_NO_DEVICE, 31 + 500},
        {"silence", 0, [&] { last(); }, DAKERROR_NO_DEVICE, SILENCE},
        {"short", 0,
         [&] {
             last().Reply({0, 0xE0, 0, 0});
         },
         DAKERROR_FAIL, READ_MS},
        {"other word", 0, [&] { last().Reply(refused); }, DAKERROR_FAIL, READ_MS},
        {"first hangs", 25, [&] { hang(), last(); }, DAKERROR_NO_DEVICE, 12'788},
        {"first refused", 25, [&] { first().Reply(refused), last(); }, DAKERROR_NO_DEVICE, READ_MS},
        {"first silent", 25, [&] { first(), last(); }, DAKERROR_NO_DEVICE, SILENCE},
        {"first gone", 25, [&] { first().Vanish(); }, DAKERROR_NO_DEVICE, READ_MS + 500 - 4 * 508},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        list.RemoveAll();
        for (int i = 0; i < one.nNames; ++i) {
            list.Add(std::string(i < 25 ? 259 : 260, 'x').c_str());
        }
        one.play();
        RunPull(one.dwErrCode, LINK_UP_MS + one.qwMs + DRAIN_MS);
    }

    // One count of failed reads for all the waits, of which each makes at least one read.
    list.RemoveAll();
    for (int i = 0; i < 25; ++i) {
        list.Add(std::string(259, 'x').c_str());
    }
    for (const std::uint64_t nFailed : {600u, 1200u}) {
        first().ReplyAfter(nFailed * FAILED_TRY_MS + 15, Ack());
        last();
        RunPull(DAKERROR_NO_DEVICE, LINK_UP_MS + 15 + SILENCE + DRAIN_MS);
    }
}

TEST_F(CopyFromDevice, AStreamThatBreaksLeavesTheOldFile) {
    constexpr std::uint64_t SILENCE = READS_AT_MOST * FAILED_HEAD_TRY_MS;
    constexpr std::uint64_t GONE = FAILED_HEAD_TRY_MS - 514 - 4 * 508; // all reads fail at once
    const Bytes stream = Stream(Record(DAK_WIDE("a.bin"), sim::Pattern(30'000)));
    const auto packages = PullPackages(stream);
    const auto end = [&](const Bytes& data) {
        device.Reply(sim::DataPackage(DAK_LAST_REPLY, 8, data)).Expect(Ack());
    };
    const auto give = [&](Bytes package) { device.Reply(std::move(package)); };
    const auto unplug = [&](std::uint64_t qwMs) {
        world.At(world.NowMs() + qwMs, [this] { world.Unplug(); });
    };
    const struct {
        const char* lpszWhat;
        std::function<void()> play;
        DWORD dwErrCode;
        std::uint64_t qwMs; // of the stream
    } cases[] = {
        {"no head", [] {}, DAKERROR_PROTOCOL, SILENCE},
        {"gone ahead of it", [&] { unplug(OPEN_MS + 5); }, DAKERROR_NO_DEVICE, GONE},
        {"no contents", [&] { give(packages[0]); }, DAKERROR_PROTOCOL, PACKAGE_MS + SILENCE},
        {"gone in contents", [&] { give(packages[0]), unplug(OPEN_MS + PACKAGE_MS + 5); },
         DAKERROR_NO_DEVICE, PACKAGE_MS + GONE},
        {"aborted", [&] { give(packages[0]), give(sim::Control(DAK_ABORT)); }, DAKERROR_PROTOCOL,
         PACKAGE_MS + READ_MS},
        {"left", [&] { give(packages[0]), give(sim::Handshake(DAK_DISCONNECT)); },
         DAKERROR_NO_DEVICE, 2 * PACKAGE_MS},
        {"over in contents",
         [&] {
             give(packages[0]), end({1, 2, 3});
         },
         DAKERROR_PROTOCOL, 2 * PACKAGE_MS + ACKNOWLEDGED_MS + SILENCE},
        {"over in a record", [&] { end(Bytes(stream.begin(), stream.begin() + 30)); },
         DAKERROR_PROTOCOL, PACKAGE_MS + ACKNOWLEDGED_MS + SILENCE},
        {"over ahead of a record", [&] { end(Bytes(stream.begin(), stream.begin() + 8)); },
         DAKERROR_PROTOCOL, PACKAGE_MS + ACKNOWLEDGED_MS},
    };
    world.WriteHostFile("C:/s/a.bin", OLD);
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        ExpectPull().Reply(Ack());
        one.play();
        RunPull(one.dwErrCode, OPEN_MS + one.qwMs + DRAIN_MS);
        ExpectOldFile();
    }
}

TEST_F(CopyFromDevice, AHostThatFailsLeavesTheOldFile) {
    using enum sim::ECall;
    const struct {
        const char* lpszWhat;
        sim::ECall eCall;
        std::uint64_t nNumber;
        DWORD dwError;
        bool bStops; // the stream is not over yet
        DWORD dwErrCode;
    } cases[] = {
        {"no part file", GetTempFileNameA, 1, 0, true, DAKERROR_FAIL},
        {"no part file for lack of room", GetTempFileNameA, 1, ERROR_DISK_FULL, true,
         DAKERROR_NO_SPACE},
        {"part file not opened", CreateFileA, 3, 0, true, DAKERROR_FAIL},
        {"first write", WriteFile, 1, 0, true, DAKERROR_FAIL},
        {"second write", WriteFile, 2, ERROR_DISK_FULL, true, DAKERROR_NO_SPACE},
        {"part file not opened again", CreateFileA, 4, 0, false, DAKERROR_FAIL},
        {"no seek", SetFilePointer, 1, 0, false, DAKERROR_FAIL},
        {"last write", WriteFile, 3, ERROR_DISK_FULL, false, DAKERROR_NO_SPACE},
        {"move", MoveFileExA, 1, 0, false, DAKERROR_FAIL},
    };
    const Bytes stream = Stream(Record(DAK_WIDE("a.bin"), sim::Pattern(30'000)));
    world.WriteHostFile("C:/s/a.bin", OLD);
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        world.FailCall(one.eCall, one.nNumber, one.dwError);
        one.bStops ? RunStoppedStream(stream, one.dwErrCode) : RunStream(stream, one.dwErrCode);
        ExpectOldFile();
    }
    // A destination that is not there, and one that the host's code page does not have, not even
    // where a folder has the name that comes out.
    world.MakeHostFolder("C:/\xEF\xBF\xBD");
    for (const WCHAR* lpDest : {DAK_WIDE("C:\\t"), DAK_WIDE("C:\\\xD800")}) {
        device.ExpectCommand(8, Bytes{0}, Text(DAK_WIDE("\\d")), Text(lpDest), U32(0)).Reply(Ack());
        GiveStream(Stream(Record(DAK_WIDE("a.bin"), {1})));
        EXPECT_EQ(dak->DAKTransmitFiles(DAK_FROM_DEVICE, DAK_WIDE("\\d"), lpDest, &list, window),
                  0u);
        ExpectEnd(DAKERROR_FAIL);
    }
    ExpectOldFile();
    EXPECT_EQ(world.files.size(), 1u);
}

TEST_F(CopyFromDevice, RoomIsAskedForEachFile) {
    constexpr std::uint64_t LARGE = 20'000; // two packages
    constexpr std::uint64_t SMALL = 100;
    constexpr std::uint64_t PLENTY = 1ull << 40;
    const struct {
        std::uint64_t qwSize;
        std::uint64_t qwOldSize;
        std::uint64_t qwFree;
        bool bAsks; // otherwise the host cannot tell its room
        bool bEnough;
        bool bOldGoesFirst;
    } cases[] = {
        {LARGE, 0, LARGE + SPARE_ROOM, true, true, false},
        {LARGE, 0, LARGE + SPARE_ROOM - 1, true, false, false},
        {LARGE, 5000, LARGE + SPARE_ROOM, true, true, false},
        {LARGE, 5000, LARGE + SPARE_ROOM - 1, true, true, true},
        {LARGE, 5000, LARGE + SPARE_ROOM - 5000, true, true, true},
        {LARGE, 5000, LARGE + SPARE_ROOM - 5001, true, false, false},
        {LARGE, 5000, PLENTY, false, false, false},
        {SMALL, 5000, SMALL, true, false, false},
        {1ull << 40, 0, PLENTY, true, false, false},
        {~0ull, 5000, PLENTY, true, false, false},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::to_string(one.qwSize) + " over " + std::to_string(one.qwOldSize) +
                     " with " + std::to_string(one.qwFree));
        const Bytes contents = sim::Pattern(std::min(one.qwSize, LARGE));
        const Bytes stream = Stream(Record(DAK_WIDE("a.bin"), contents, one.qwSize));
        const std::size_t dwDeleted = world.Trace({"file delete C:/s/a.bin"}).size();
        world.files.clear();
        if (one.qwOldSize != 0) {
            world.WriteHostFile("C:/s/a.bin", Bytes(one.qwOldSize));
        }
        world.qwFreeBytes = one.qwFree;
        if (!one.bAsks) {
            world.FailCall(sim::ECall::GetDiskFreeSpaceExA, 1);
        }
        // What lies in the package in hand whole is written all the same.
        const bool bWritten = one.bEnough || one.qwSize == SMALL;
        const DWORD dwErrCode = one.bEnough ? DAKERROR_NONE : DAKERROR_NO_SPACE;
        bWritten ? RunStream(stream, dwErrCode) : RunStoppedStream(stream, dwErrCode);
        EXPECT_EQ(world.Trace({"file delete C:/s/a.bin"}).size() - dwDeleted,
                  one.bOldGoesFirst ? 1u : 0u);
        if (bWritten) {
            ExpectFile("C:/s/a.bin", contents);
        }
        EXPECT_EQ(world.HostFiles("C:/s").size(), bWritten || one.qwOldSize != 0 ? 1u : 0u);
    }
    // Where the room was short, no later failure says otherwise.
    world.qwFreeBytes = SMALL;
    world.FailCall(sim::ECall::MoveFileExA, 1);
    RunStream(Stream(Record(DAK_WIDE("a.bin"), sim::Pattern(SMALL))), DAKERROR_NO_SPACE);
}

TEST_F(CopyFromDevice, ANameStaysBelowTheFolder) {
    world.WriteHostFile("C:/s/a.bin", OLD);
    const std::basic_string<WCHAR> strLong(255, DAK_WIDE('x'));
    const std::basic_string<WCHAR> strLongest(259, DAK_WIDE('x'));
    for (const std::basic_string_view<WCHAR> name :
         {DAK_WIDE(".."), DAK_WIDE("..\\x"), DAK_WIDE("../x"), DAK_WIDE("b\\..\\..\\x"),
          DAK_WIDE("b\\../x"), DAK_WIDE("b\\.."), DAK_WIDE("\\x"), DAK_WIDE("/x"),
          DAK_WIDE("C:\\x"), DAK_WIDE("c:x"), DAK_WIDE("b\\\\x"), DAK_WIDE("b\\"), DAK_WIDE(".\\x"),
          DAK_WIDE(""), DAK_WIDE("x\xD800y"), strLong.c_str(), strLongest.c_str()}) {
        SCOPED_TRACE(::testing::PrintToString(name));
        const auto folders = world.folders;
        RunStoppedStream(Stream(Record(name, sim::Pattern(20'000))),
                         name.size() > 200 ? DAKERROR_FAIL : DAKERROR_PROTOCOL);
        EXPECT_EQ(world.folders, folders);
        EXPECT_EQ(world.files.size(), 1u);
    }
    // The longest there can be: 259 characters in all. What came ahead of a bad name stays.
    RunStream(Stream(Record(strLong.substr(1), {1}), Record(DAK_WIDE("..\\x"), {2}),
                     Record(DAK_WIDE("c"), {3})),
              DAKERROR_PROTOCOL);
    ExpectFile("C:/s/" + std::string(254, 'x'), {1});
    EXPECT_EQ(world.files.size(), 2u);
}

// A cancel is seen where the worker looks, and nowhere else.
TEST_F(CopyFromDevice, ACancelAtEachOfItsPlaces) {
    const auto packages = PullPackages(Stream(Record(DAK_WIDE("a.bin"), sim::Pattern(30'000))));
    const Bytes abort = sim::Control(DAK_ABORT);
    Bytes bad = packages[1];
    ++bad.back();
    constexpr std::uint64_t SWALLOW_MS = READ_MS + 5000;
    constexpr std::uint64_t HEAD_MS = OPEN_MS + FAILED_HEAD_TRY_MS;
    const auto pull = [this]() -> sim::CScriptedDevice& { return ExpectPull(); };
    const struct {
        const char* lpszWhat;
        std::uint64_t qwCancelMs;
        std::function<void()> play;
        DWORD dwErrCode;
        std::uint64_t qwEndMs; // where the drain begins
    } cases[] = {
        {"request", LINK_UP_MS + 100, [&] { pull().Expect(abort); }, DAKERROR_CANCELLED,
         LINK_UP_MS + FAILED_TRY_MS + SWALLOW_MS},
        {"request, and the device does not take the abort", LINK_UP_MS + 100,
         [&] { pull().DoNotTake(); }, DAKERROR_NO_DEVICE,
         LINK_UP_MS + FAILED_TRY_MS + SWALLOW_MS + 508},
        {"stream head", OPEN_MS + 100, [&] { pull().Reply(Ack()).Expect(abort); },
         DAKERROR_CANCELLED, HEAD_MS + SWALLOW_MS},
        {"header wait", OPEN_MS + 100, [&] { pull().Reply(Ack()).Reply(packages[0]); },
         DAKERROR_PROTOCOL, HEAD_MS + PACKAGE_MS},
        {"acknowledgement", OPEN_MS + 100,
         [&] {
             pull().Reply(Ack()).Reply(packages[0]).Reply(packages[1]);
             device.ReplyAfter(1000, packages[2]).Expect(abort);
         },
         DAKERROR_CANCELLED, LINK_UP_MS + 1000 + READ_MS + ACKNOWLEDGED_MS},
        {"bad package", OPEN_MS + 100,
         [&] {
             pull().Reply(Ack()).Reply(packages[0]);
             device.ReplyAfter(1000, bad).Expect(abort);
         },
         DAKERROR_CANCELLED, LINK_UP_MS + 1000 + READ_MS},
    };
    world.WriteHostFile("C:/s/a.bin", OLD);
    for (const auto& one : cases) {
        SCOPED_TRACE(one.lpszWhat);
        // The link that the case before has left open is closed first.
        dak.emplace();
        const std::uint64_t qwBegin = world.NowMs();
        one.play();
        CancelAt(qwBegin + one.qwCancelMs);
        RunPull(one.dwErrCode, one.qwEndMs + DRAIN_MS);
        ExpectOldFile();
    }
}

} // namespace
