// Every way in which a copy ends.

#include "tests/library/transfer_run.h"

namespace {

constexpr DWORD GONE = DAKERROR_NO_DEVICE;
constexpr DWORD NO_SPACE = DAKERROR_NO_SPACE;
constexpr std::uint64_t FILL_MS = 10; // a look at a read-ahead buffer that is not filled yet
constexpr std::uint64_t VERDICT_MS = READ_MS + RETRY_BASE_MS;
constexpr std::uint64_t PUSH_MS = LINK_UP_MS + READ_MS + RETRY_BASE_MS + FILL_MS; // a first package
constexpr std::uint64_t REPLY_MS = PUSH_MS + 2 * VERDICT_MS;
constexpr std::uint64_t PULL_MS = LINK_UP_MS + READ_MS + 500; // a stream is asked for
constexpr std::uint64_t PACKAGE_MS = 2 * READ_MS;
constexpr std::uint64_t SILENCE_MS = READS_AT_MOST * FAILED_HEAD_TRY_MS;
constexpr std::uint64_t GONE_DRAIN_MS = 4 * READ_MS + 3 * 300; // all reads fail at once
constexpr std::uint64_t SWALLOW_MS = READ_MS + 5000;
const Bytes OLD = {'o', 'l', 'd'};

struct CRow {
    std::string strWords;
    DWORD dwErrCode;
    std::optional<std::uint64_t> qwMs = {}; // of the message
};

// A push of one file of 30000 bytes, in three packages.
struct CPush : CTransfer {
    explicit CPush(const std::string& strName) : CTransfer(DAK_TO_DEVICE, strName) {
        AddFile("C:\\s\\a", Pattern(30'000));
        Stream(Join(U32(1), FileRecord(DAK_WIDE("a"), Pattern(30'000))));
        for (const int nResult : {1, 0, -1, -2}) {
            const std::string strResult = std::to_string(nResult);
            packages["result" + strResult] = Response(17, nResult); // any code
            packages["abort" + strResult] = Join(Control(DAK_ABORT), Response(8, nResult));
        }
        packages["short"] = {0x22, 0xE0, 0, 0};
        packages["cut"] = Join(Control(DAK_LAST_REPLY), Bytes{8, 0, 0xFE, 0xFF});
        actions["shrunk"] = [this] { Resize(25'000, 30'000); };
        actions["grown"] = [this] { Resize(40'000, 30'000); };
        actions["huge"] = [this] { Resize(30'000, 1ull << 32); };
        actions["noread"] = [this] {
            world.onFileRead = [](sim::CFileRead& read) { read.bFail = true; };
        };
        actions["noresend"] = [this] {
            world.dwFailAllocationsOf = DAK_WINDOW_SIZE;
            dak.emplace();
        };
    }
    void Resize(std::size_t dwBytes, std::uint64_t qwReported) {
        list.RemoveAll();
        AddFile("C:\\s\\a", Pattern(dwBytes));
        world.HostFile("C:/s/a")->qwReportedSize = qwReported;
    }
};

TEST(CopyToDevice, EndsInEachWay) {
    const std::string strFirst = ">request ack >p1 ";
    const std::string strWhole = strFirst + "ack >p2 >p3 ack ";
    const CRow rows[] = {// The request.
                         {"-27", 0, LINK_UP_MS + DRAIN_MS},
                         {"noresend", 0, LINK_UP_MS + DRAIN_MS},
                         {"linked hang", GONE, LINK_UP_MS + 27 + 500 + DRAIN_MS},
                         {">request", DAKERROR_FAIL, LINK_UP_MS + FAILED_READ_MS + DRAIN_MS},
                         {">request short", DAKERROR_FAIL, LINK_UP_MS + READ_MS + DRAIN_MS},
                         {">request retransmit", DAKERROR_FAIL, LINK_UP_MS + READ_MS + DRAIN_MS},
                         {">request gone", DAKERROR_FAIL, LINK_UP_MS + READ_MS + GONE_DRAIN_MS},
                         // The contents: no final package, no reply, no drain, but a fresh node.
                         {strFirst + "ack !WritePipe reopened", GONE, PUSH_MS + VERDICT_MS},
                         {strFirst + "abort reopened", DAKERROR_PROTOCOL, PUSH_MS + READ_MS},
                         {strFirst + "gone", GONE, PUSH_MS + READ_MS + 500},
                         {">request ack -12280 reopened", DAKERROR_FAIL, PUSH_MS - FILL_MS},
                         {">request ack noread reopened", DAKERROR_FAIL, PUSH_MS},
                         {"huge >request ack reopened", DAKERROR_FAIL, PUSH_MS - FILL_MS},
                         {"shrunk " + strFirst + "ack >p2 reopened", DAKERROR_FAIL,
                          PUSH_MS + VERDICT_MS + 2 * FILL_MS},
                         {"grown " + strWhole + "done", 0},
                         {">request ack cancel >a1 reopened", DAKERROR_CANCELLED, PUSH_MS},
                         // The final reply.
                         {strWhole + "done", 0, REPLY_MS + 2 * READ_MS + DRAIN_MS},
                         {strWhole + "result0", 0},
                         {strWhole + "result-1", NO_SPACE},
                         {strWhole + "result-2", DAKERROR_DEVICE_REFUSED},
                         {strWhole + "abort1", 0},
                         {strWhole + "abort-1", 0},
                         {strWhole + "abort-2", DAKERROR_DEVICE_REFUSED},
                         {strWhole + "ack", 0, REPLY_MS + READ_MS + DRAIN_MS},
                         {strWhole + "short", 0, REPLY_MS + READ_MS + DRAIN_MS},
                         {strWhole + "cut", 0, REPLY_MS + 2 * READ_MS + DRAIN_MS},
                         {strWhole, 0, REPLY_MS + READS_AT_MOST * FAILED_TRY_MS + DRAIN_MS}};
    for (const CRow& row : rows) {
        CPush run(row.strWords);
        bool bReopened = false;
        run.actions["reopened"] = [&] { bReopened = true; };
        run.Play(row.strWords);
        run.Run(row.dwErrCode, row.qwMs);
        EXPECT_EQ(run.device.Opens(), bReopened ? 2 : 1);
    }
}

// A send that fails in a record: the final package goes out all the same, and unless that one meets
// a dead device the reply is awaited.
TEST(CopyToDevice, ARecordThatFailsClosesTheStream) {
    const Bytes contents = Pattern(DAK_DATA_SIZE - 32 - 10); // the next record's times are cut
    const CRow rows[] = {{">request ack hang hang result-2", GONE},
                         {">request ack hang > ack result-2", DAKERROR_DEVICE_REFUSED},
                         {">request ack >p1 abort > abort ack", DAKERROR_PROTOCOL},
                         {">request ack >p1 gone", GONE},
                         {">request ack cancel 2*>a1 abort1@5000", DAKERROR_CANCELLED}};
    for (const CRow& row : rows) {
        CPush run(row.strWords);
        run.AddFile("C:\\s\\a", contents);
        run.list.RemoveAll();
        run.list.Add("C:\\s\\a");
        run.AddFile("C:\\s\\b", {1});
        run.Stream(
            Join(U32(2), FileRecord(DAK_WIDE("a"), contents), FileRecord(DAK_WIDE("b"), {1})));
        run.Play(row.strWords);
        run.Run(row.dwErrCode);
        EXPECT_EQ(run.device.Opens(), 1);
    }
}

// A pull of one file of 30000 bytes, in three packages, over an old one.
struct CPull : CTransfer {
    explicit CPull(const std::string& strName) : CTransfer(DAK_FROM_DEVICE, strName) {
        world.WriteHostFile("C:/s/a.bin", OLD);
    }
    void ExpectOldFile() {
        EXPECT_EQ(world.HostFiles("C:/s"), std::vector<std::string>{"a.bin"});
        EXPECT_EQ(world.ReadHostFile("C:/s/a.bin"), OLD);
    }
};

TEST(CopyFromDevice, AnyFailureLeavesTheOldFile) {
    const std::string strOpen = ">request ack ";
    const std::string strAll = strOpen + "p1 p2 p3 ";
    constexpr std::uint64_t REQUEST_MS = LINK_UP_MS + FAILED_TRY_MS;
    constexpr std::uint64_t HEAD_MS = PULL_MS + FAILED_HEAD_TRY_MS;
    const CRow rows[] = {
        // The request.
        {"!LocalAlloc#4", 0, LINK_UP_MS + DRAIN_MS},
        {"linked hang", GONE, LINK_UP_MS + 31 + 500 + DRAIN_MS},
        {">request", GONE, LINK_UP_MS + READS_AT_MOST * FAILED_TRY_MS + DRAIN_MS},
        {">request short", DAKERROR_FAIL, LINK_UP_MS + READ_MS + DRAIN_MS},
        {">request abort", DAKERROR_FAIL, LINK_UP_MS + READ_MS + DRAIN_MS},
        // The stream.
        {strOpen, DAKERROR_PROTOCOL, PULL_MS + SILENCE_MS + DRAIN_MS},
        {strOpen + "gone@515", GONE, PULL_MS + READ_MS + 500 + GONE_DRAIN_MS},
        {strOpen + "p1", DAKERROR_PROTOCOL, PULL_MS + PACKAGE_MS + SILENCE_MS + DRAIN_MS},
        {strOpen + "p1 gone@535", GONE, PULL_MS + PACKAGE_MS + READ_MS + 500 + GONE_DRAIN_MS},
        {strOpen + "p1 abort", DAKERROR_PROTOCOL, PULL_MS + PACKAGE_MS + READ_MS + DRAIN_MS},
        {strOpen + "p1 disconnect", GONE, PULL_MS + 2 * PACKAGE_MS + DRAIN_MS},
        {strOpen + "p1 three >ack", DAKERROR_PROTOCOL,
         PULL_MS + 2 * PACKAGE_MS + 500 + SILENCE_MS + DRAIN_MS},
        {strOpen + "inrecord >ack", DAKERROR_PROTOCOL,
         PULL_MS + PACKAGE_MS + 500 + SILENCE_MS + DRAIN_MS},
        {strOpen + "aheadofit >ack", DAKERROR_PROTOCOL, PULL_MS + PACKAGE_MS + 500 + DRAIN_MS},
        {strOpen + "p1 nothing >abort", DAKERROR_PROTOCOL},
        {strOpen + "endless >ack", DAKERROR_PROTOCOL},
        // The host, while the stream goes on and when it is over.
        {"!GetTempFileNameA " + strAll + ">abort", DAKERROR_FAIL},
        {"!GetTempFileNameA#1=112 " + strAll + ">abort", NO_SPACE},
        {"!CreateFileA#3 " + strAll + ">abort", DAKERROR_FAIL},
        {"!WriteFile " + strAll + ">abort", DAKERROR_FAIL},
        {"!WriteFile#2=112 " + strAll + ">abort", NO_SPACE},
        {"!CreateFileA#4 " + strAll + ">ack", DAKERROR_FAIL},
        {"!SetFilePointer " + strAll + ">ack", DAKERROR_FAIL},
        {"!WriteFile#3=112 " + strAll + ">ack", NO_SPACE},
        {"!MoveFileExA " + strAll + ">ack", DAKERROR_FAIL},
        // A cancel, where the worker looks and nowhere else.
        {">request cancel@100 >abort", DAKERROR_CANCELLED, REQUEST_MS + SWALLOW_MS + DRAIN_MS},
        {">request cancel@100 hang", GONE, REQUEST_MS + SWALLOW_MS + 508 + DRAIN_MS},
        {strOpen + "cancel@610 >abort", DAKERROR_CANCELLED, HEAD_MS + SWALLOW_MS + DRAIN_MS},
        {strOpen + "p1 cancel@610", DAKERROR_PROTOCOL, HEAD_MS + PACKAGE_MS + DRAIN_MS},
        {strOpen + "p1 p2 cancel@610 p3@1000 >abort", DAKERROR_CANCELLED,
         LINK_UP_MS + 1000 + READ_MS + 500 + DRAIN_MS},
        {strOpen + "p1 cancel@610 bad@1000 >abort", DAKERROR_CANCELLED,
         LINK_UP_MS + 1000 + READ_MS + DRAIN_MS}};
    for (const CRow& row : rows) {
        CPull run(row.strWords);
        const Bytes stream = Records(FileRecord(DAK_WIDE("a.bin"), Pattern(30'000)));
        const auto last = [&](std::ptrdiff_t nFrom, std::ptrdiff_t nTo) {
            return DataPackage(DAK_LAST_REPLY, 8,
                               Bytes(stream.begin() + nFrom, stream.begin() + nTo));
        };
        run.Stream(stream);
        run.packages["short"] = {0, 0xE0, 0, 0};
        run.packages["three"] = last(40, 43);
        run.packages["inrecord"] = last(0, 30);
        run.packages["aheadofit"] = last(0, 8);
        run.packages["nothing"] = DataPackage(DAK_REPLY_PACKAGE, 8, {});
        run.packages["endless"] =
            DataPackage(DAK_LAST_REPLY, 8, Join(last(0, 32), Bytes(520, 'x')));
        run.packages["bad"] = run.packages["p2"];
        ++run.packages["bad"].back();
        run.Play(row.strWords);
        run.Run(row.dwErrCode, row.qwMs);
        run.ExpectOldFile();
    }
}

// A text without an end, and one whose rest is not in the next package.
TEST(CopyFromDevice, ANameThatDoesNotEnd) {
    for (const std::size_t dwBytes : {3u, 4u, 6u, 500u, 4000u}) {
        for (const std::size_t dwLeft : {0u, 1u, 3u, 200u, 519u, 520u, 521u}) {
            CPull run(std::to_string(dwLeft) + " of " + std::to_string(dwBytes));
            const Bytes first =
                FileRecord(DAK_WIDE("a"), Pattern(DAK_DATA_SIZE - 8 - 28 - 24 - dwLeft));
            const Bytes name(std::max(dwBytes, dwLeft), 'x');
            const bool bLast = dwLeft == name.size();
            run.Stream(Records(first, Join(U64(9), U64(0), U64(0), name)));
            run.Play(">request ack p1" + std::string(bLast          ? " >ack"
                                                     : dwLeft < 520 ? " p2 >ack"
                                                                    : ""));
            run.Run(DAKERROR_PROTOCOL);
            EXPECT_EQ(run.world.HostFiles("C:/s").size(), 2u);
        }
    }
}

// The pieces of a chained request, cut inside a short name and wherever else they end. A run of
// names begins at an odd byte, so a cut always parts a character, and no piece is ever just full.
TEST(CopyFromDevice, ALongRequestIsCutAnywhere) {
    for (const std::size_t dwCut : {1u, 3u, 5u, 7u}) {
        CPull run(std::to_string(dwCut));
        Bytes names = Join(Bytes{0}, Text(DAK_WIDE("\\d")), Text(DAK_WIDE("C:\\s")), U32(49));
        const std::size_t dwOdd = (DAK_PACKAGE_SIZE - 10 - names.size() - 23 * 520 - dwCut) / 2 - 1;
        for (int i = 0; i < 49; ++i) {
            const std::size_t dwChars = i == 23 ? dwOdd : i == 24 ? 2 : 259;
            run.list.Add(std::string(dwChars, 'n').c_str());
            names = Join(names, Text(std::basic_string<WCHAR>(dwChars, DAK_WIDE('n'))));
        }
        for (std::size_t dwAt = 0; dwAt < names.size(); dwAt += 12'278) {
            const auto begin = names.begin() + static_cast<std::ptrdiff_t>(dwAt);
            const std::size_t dwBytes = std::min<std::size_t>(12'278, names.size() - dwAt);
            run.device
                .Expect(Package(
                    dwAt + dwBytes < names.size() ? DAK_PACKAGE : DAK_LAST_PACKAGE,
                    Join(U16(8), Bytes(begin, begin + static_cast<std::ptrdiff_t>(dwBytes)))))
                .Reply(Ack());
        }
        run.Play(run.Stream(Records()));
        run.Run(DAKERROR_NONE, PULL_MS + 2 * READ_MS + PACKAGE_MS + 500 + DRAIN_MS);
    }
}

// Of two pieces. One count of failed reads serves all waits, of which each makes at least one read.
TEST(CopyFromDevice, ALongRequestThatFails) {
    constexpr std::uint64_t SILENT_MS = LINK_UP_MS + READS_AT_MOST * FAILED_TRY_MS + DRAIN_MS;
    const CRow rows[] = {{"linked hang >", GONE, LINK_UP_MS + 12'788 + DRAIN_MS},
                         {"> abort >", GONE, LINK_UP_MS + READ_MS + DRAIN_MS},
                         {"> >", GONE, SILENT_MS},
                         {"> gone", GONE, LINK_UP_MS + READ_MS + 500 + GONE_DRAIN_MS},
                         {In("> ack", 600 * FAILED_TRY_MS + 15) + " >", GONE, SILENT_MS + 15},
                         {In("> ack", 1200 * FAILED_TRY_MS + 15) + " >", GONE, SILENT_MS + 15},
                         {"toolong", DAKERROR_FAIL, LINK_UP_MS + DRAIN_MS}};
    for (const CRow& row : rows) {
        CPull run(row.strWords);
        for (int i = 0; i < 25; ++i) {
            run.list.Add(std::string(259, 'x').c_str());
        }
        run.actions["toolong"] = [&] { run.list.Add(std::string(260, 'x').c_str()); };
        run.Play(row.strWords);
        run.Run(row.dwErrCode, row.qwMs);
        run.ExpectOldFile();
    }
}

// Room for the file and 102400 bytes beside it; an old target counts, and goes first only where
// the room is short without it.
TEST(CopyFromDevice, RoomIsAskedForEachFile) {
    constexpr std::uint64_t LARGE = 20'000 + 102'400;
    const struct {
        std::uint64_t qwSize;
        std::size_t dwOldSize;
        std::uint64_t qwFree;
        bool bEnough;
        bool bOldGoesFirst;
    } rows[] = {
        {20'000, 0, LARGE, true, false},           {20'000, 0, LARGE - 1, false, false},
        {20'000, 5000, LARGE, true, false},        {20'000, 5000, LARGE - 1, true, true},
        {20'000, 5000, LARGE - 5000, true, true},  {20'000, 5000, LARGE - 5001, false, false},
        {1ull << 40, 0, 1ull << 40, false, false}, {~0ull, 5000, 1ull << 40, false, false}};
    for (const auto& row : rows) {
        CTransfer run(DAK_FROM_DEVICE, std::to_string(row.qwFree) + " free");
        row.dwOldSize != 0 ? run.world.WriteHostFile("C:/s/a.bin", Bytes(row.dwOldSize)) : void();
        run.world.qwFreeBytes = row.qwFree;
        run.Stream(Records(
            Join(U64(row.qwSize), U64(1), U64(2), Text(DAK_WIDE("a.bin")), Pattern(20'000))));
        run.Play(std::string(">request ack p1 p2 ") + (row.bEnough ? ">ack" : ">abort"));
        run.Run(row.bEnough ? DAKERROR_NONE : NO_SPACE);
        EXPECT_EQ(run.world.Trace({"file delete C:/s/a.bin"}).size(), row.bOldGoesFirst ? 1u : 0u);
        EXPECT_EQ(run.world.HostFiles("C:/s").size(), row.bEnough || row.dwOldSize != 0 ? 1u : 0u);
    }
    // What lies in the package in hand whole is written all the same, and no later failure says
    // otherwise than that the room was short. A host that cannot tell has none.
    for (const std::string strFault : {"", "!MoveFileExA", "!GetDiskFreeSpaceExA"}) {
        CTransfer run(DAK_FROM_DEVICE, strFault);
        run.world.qwFreeBytes = strFault == "!GetDiskFreeSpaceExA" ? 1ull << 40 : 100;
        run.Play(strFault);
        run.PlayWhole(Records(FileRecord(DAK_WIDE("a.bin"), Pattern(100))));
        run.Run(NO_SPACE);
        EXPECT_EQ(run.world.HostFileExists("C:/s/a.bin"), strFault != "!MoveFileExA");
    }
}

TEST(CopyFromDevice, ANameStaysBelowTheFolder) {
    const std::basic_string<WCHAR> strLong(259, DAK_WIDE('x'));
    for (const std::basic_string_view<WCHAR> name :
         {DAK_WIDE(".."), DAK_WIDE("..\\x"), DAK_WIDE("../x"), DAK_WIDE("b\\..\\..\\x"),
          DAK_WIDE("b\\../x"), DAK_WIDE("b\\.."), DAK_WIDE("\\x"), DAK_WIDE("/x"),
          DAK_WIDE("C:\\x"), DAK_WIDE("c:x"), DAK_WIDE("b\\\\x"), DAK_WIDE("b\\"), DAK_WIDE(".\\x"),
          DAK_WIDE(""), DAK_WIDE("x\xD800y"), strLong.c_str() + 4, strLong.c_str()}) {
        CPull run(testing::PrintToString(name));
        run.Stream(Records(FileRecord(name, Pattern(20'000))));
        run.Play(">request ack p1 p2 >abort");
        run.Run(name.size() > 200 ? DAKERROR_FAIL : DAKERROR_PROTOCOL);
        run.ExpectOldFile();
        EXPECT_FALSE(run.world.HostFolderExists("C:/s/b"));
        EXPECT_EQ(run.world.HostFiles("C:/").size(), 1u);
    }
    // The longest there can be: 259 characters in all. What came ahead of a bad name stays.
    CTransfer run(DAK_FROM_DEVICE);
    run.PlayWhole(Records(FileRecord(strLong.c_str() + 5, {1}), FileRecord(DAK_WIDE("..\\x"), {2}),
                          FileRecord(DAK_WIDE("c"), {3})));
    run.Run(DAKERROR_PROTOCOL);
    EXPECT_EQ(run.world.HostFiles("C:/"), std::vector<std::string>{"s/" + std::string(254, 'x')});
}

// A destination that is not there, and one that the host's code page does not have, not even where
// a folder has the name that comes out.
TEST(CopyFromDevice, ADestinationThatIsNone) {
    for (const WCHAR* lpszDest : {DAK_WIDE("C:\\t"), DAK_WIDE("C:\\\xD800")}) {
        CTransfer run(DAK_FROM_DEVICE);
        run.world.MakeHostFolder("C:/\xEF\xBF\xBD");
        run.packages["request"] =
            Command(8, Bytes{0}, Text(DAK_WIDE("\\d")), Text(lpszDest), U32(0));
        run.PlayWhole(Records(FileRecord(DAK_WIDE("a"), {1})));
        EXPECT_EQ(run.Start(lpszDest), 0u);
        run.ExpectEnd(DAKERROR_FAIL);
        EXPECT_EQ(run.world.HostFiles("C:/").size(), 0u);
    }
}

} // namespace
