// Every way in which a copy ends.

#include "platform/file.h"
#include "tests/library/transfer_run.h"

namespace {

constexpr std::uint64_t SILENCE = READS_AT_MOST * FAILED_HEAD_TRY_MS;
constexpr std::uint64_t ANY = ~0ull;
const Bytes OLD = {'o', 'l', 'd'};

struct CRow {
    std::string strWords;
    DWORD dwErrCode;
    std::uint64_t qwMs = ANY; // from the request to the drain
};

// The same for both directions. All reads of a device that has gone fail at once.
void ExpectOutcome(CTransfer& run, const CRow& row, bool bDrains = true) {
    run.packages["short"] = {0, 0xE0, 0, 0};
    run.Play(row.strWords);
    const bool bGone = row.strWords.find("gone") != std::string::npos;
    const std::uint64_t qwDrain = !bDrains ? 0 : bGone ? 4 * READ_MS + 3 * 300 : DRAIN_MS;
    run.Run(row.dwErrCode,
            row.qwMs == ANY ? std::optional<std::uint64_t>() : LINK_UP_MS + row.qwMs + qwDrain);
}

// Pushes of one file of 30000 bytes, in three packages.
TEST(CopyToDevice, EndsInEachWay) {
    const std::string strFirst = ">request ack >p1 ";
    const std::string strAll = strFirst + "ack >p2 >p3 ack ";
    const std::vector<CRow> drained = {
        {"-27", 0, 0}, // the request's memory, and the resend buffer's
        {"noresend", 0, 0},
        {"linked hang", GONE, 27 + 500},
        {">request", FAIL, FAILED_READ_MS},
        {">request short", FAIL, 10},
        {">request retransmit", FAIL, 10},
        {">request gone", FAIL, 10},
        {"grown " + strAll + "done", 0},
        {strAll + "done", 0, 80 + 2 * 70 + 20},
        {strAll + "result0", 0},
        {strAll + "result-1", NO_SPACE},
        {strAll + "result-2", REFUSED},
        {strAll + "abort1", 0},
        {strAll + "abort-1", 0},
        {strAll + "abort-2", REFUSED},
        {strAll + "ack", 0, 80 + 2 * 70 + 10},
        {strAll + "short", 0, 80 + 2 * 70 + 10},
        {strAll + "cut", 0, 80 + 2 * 70 + 20},
        {strAll, 0, 80 + 2 * 70 + READS_AT_MOST * FAILED_TRY_MS}};
    // Behind a send that fails in the contents: no final package, no reply, no drain, but a fresh
    // node.
    const std::vector<CRow> reopened = {{strFirst + "ack !WritePipe", GONE, 80 + 70},
                                        {strFirst + "abort", PROTOCOL, 80 + 10},
                                        {strFirst + "gone", GONE, 80 + 10 + 500},
                                        {">request ack -12280", FAIL, 70},
                                        {">request ack noread", FAIL, 80},
                                        {"huge >request ack", FAIL, 70},
                                        {"shrunk " + strFirst + "ack >p2", FAIL, 80 + 70 + 20},
                                        {">request ack cancel >a1", CANCELLED, 80}};
    for (const auto* pRows : {&drained, &reopened}) {
        for (const CRow& row : *pRows) {
            CTransfer run(DAK_TO_DEVICE, row.strWords);
            const auto resize = [&](std::size_t dwBytes, std::uint64_t qwReported) {
                run.list.RemoveAll();
                run.AddFile("C:\\s\\a", Pattern(dwBytes));
                run.world.HostFile("C:/s/a")->qwReportedSize = qwReported;
            };
            resize(30'000, 30'000);
            run.Stream(Join(U32(1), FileRecord(DAK_WIDE("a"), Pattern(30'000))));
            for (const int nResult : {0, 1, -1, -2}) {
                const std::string strResult = std::to_string(nResult);
                run.packages["result" + strResult] = Response(17, nResult); // any code
                run.packages["abort" + strResult] = Join(Control(DAK_ABORT), Response(8, nResult));
            }
            run.packages["cut"] = Join(Control(DAK_LAST_REPLY), Bytes{8, 0, 0xFE, 0xFF});
            run.actions["shrunk"] = [&] { resize(25'000, 30'000); };
            run.actions["grown"] = [&] { resize(40'000, 30'000); };
            run.actions["huge"] = [&] { resize(30'000, 1ull << 32); };
            run.actions["noread"] = [&] {
                run.world.onFileRead = [](sim::CFileRead& read) { read.bFail = true; };
            };
            run.actions["noresend"] = [&] {
                run.world.dwFailAllocationsOf = DAK_WINDOW_SIZE;
                run.dak.emplace();
            };
            ExpectOutcome(run, row, pRows == &drained);
            EXPECT_EQ(run.device.Opens(), pRows == &drained || !run.world.IsPlugged() ? 1 : 2);
        }
    }
}

// A send that fails in a record: the final package goes out all the same, and unless that one meets
// a dead device the reply is awaited; but what the device then says makes no success of it.
TEST(CopyToDevice, ARecordThatFailsClosesTheStream) {
    const Bytes contents = Pattern(DAK_DATA_SIZE - 32 - 10); // the next record's times are cut
    for (const CRow& row :
         std::vector<CRow>{{">request ack hang hang refused", GONE},
                           {">request ack hang > ack refused", GONE},
                           {">request ack hang > ack done", GONE},
                           {">request ack >p1 abort > abort ack", PROTOCOL},
                           {">request ack >p1 gone", GONE},
                           {">request ack cancel 2*>a1 refused@5000", CANCELLED}}) {
        CTransfer run(DAK_TO_DEVICE, row.strWords);
        run.AddFile("C:\\s\\a", contents);
        run.AddFile("C:\\s\\b", {1});
        run.Stream(
            Join(U32(2), FileRecord(DAK_WIDE("a"), contents), FileRecord(DAK_WIDE("b"), {1})));
        run.packages["refused"] = Response(8, -2);
        ExpectOutcome(run, row);
        EXPECT_EQ(run.device.Opens(), 1);
    }
}

// Pulls over an old file; of 30000 bytes, in three packages.
struct CPull : CTransfer {
    explicit CPull(const std::string& strName) : CTransfer(DAK_FROM_DEVICE, strName) {
        world.WriteHostFile("C:/s/a.bin", OLD);
        Stream(Records(FileRecord(DAK_WIDE("a.bin"), Pattern(30'000))));
    }
    void ExpectOldFile() {
        EXPECT_EQ(world.HostFiles("C:/"), std::vector<std::string>{"s/a.bin"});
        EXPECT_EQ(world.ReadHostFile("C:/s/a.bin"), OLD);
        EXPECT_TRUE(platform::CreateDirectoryA("C:/s/b", nullptr)) << "nobody has made it";
    }
};

TEST(CopyFromDevice, AnyFailureLeavesTheOldFile) {
    const std::string strOpen = ">request ack ";
    const std::string strAll = strOpen + "p1 p2 p3 ";
    constexpr std::uint64_t SWALLOW = 5010;
    const CRow rows[] = {
        // The request.
        {"!LocalAlloc#4", 0, 0},
        {"linked hang", GONE, 31 + 500},
        {">request", GONE, READS_AT_MOST * FAILED_TRY_MS},
        {">request short", FAIL, 10},
        {">request abort", FAIL, 10},
        // The stream.
        {strOpen, PROTOCOL, 510 + SILENCE},
        {strOpen + "gone@515", GONE, 510 + 10 + 500},
        {strOpen + "p1", PROTOCOL, 530 + SILENCE},
        {strOpen + "p1 gone@535", GONE, 530 + 10 + 500},
        {strOpen + "p1 abort", PROTOCOL, 540},
        {strOpen + "p1 disconnect", GONE, 550},
        {strOpen + "p1 three >ack", PROTOCOL, 550 + 500 + SILENCE},
        {strOpen + "inrecord >ack", PROTOCOL, 530 + 500 + SILENCE},
        {strOpen + "aheadofit >ack", PROTOCOL, 530 + 500},
        {strOpen + "p1 nothing >abort", PROTOCOL},
        // The host, while the stream goes on and when it is over.
        {"!GetTempFileNameA " + strAll + ">abort", FAIL},
        {"!GetTempFileNameA#1=112 " + strAll + ">abort", NO_SPACE},
        {"!CreateFileA#3 " + strAll + ">abort", FAIL},
        {"!WriteFile " + strAll + ">abort", FAIL},
        {"!WriteFile#2=112 " + strAll + ">abort", NO_SPACE},
        {"!CreateFileA#4 " + strAll + ">ack", FAIL},
        {"!SetFilePointer " + strAll + ">ack", FAIL},
        {"!WriteFile#3=112 " + strAll + ">ack", NO_SPACE},
        {"!MoveFileExA " + strAll + ">ack", FAIL},
        // A cancel, where the worker looks and nowhere else.
        {">request cancel@100 >abort", CANCELLED, FAILED_TRY_MS + SWALLOW},
        {">request cancel@100 hang", GONE, FAILED_TRY_MS + SWALLOW + 508},
        {strOpen + "cancel@610 >abort", CANCELLED, 510 + FAILED_HEAD_TRY_MS + SWALLOW},
        {strOpen + "p1 cancel@610", PROTOCOL, 530 + FAILED_HEAD_TRY_MS},
        {strOpen + "p1 p2 cancel@610 p3@1000 >abort", CANCELLED, 1010 + 500},
        {strOpen + "p1 cancel@610 bad@1000 >abort", CANCELLED, 1010}};
    for (const CRow& row : rows) {
        CPull run(row.strWords);
        const auto last = [first = run.packages["p1"]](std::ptrdiff_t nBytes) {
            return DataPackage(DAK_LAST_REPLY, 8,
                               Bytes(first.begin() + 14, first.begin() + 14 + nBytes));
        };
        run.packages["three"] = last(3);
        run.packages["inrecord"] = last(30);
        run.packages["aheadofit"] = last(8);
        run.packages["nothing"] = DataPackage(DAK_REPLY_PACKAGE, 8, {});
        run.packages["bad"] = DataPackage(DAK_REPLY_PACKAGE, 9, {1});
        ExpectOutcome(run, row);
        run.ExpectOldFile();
    }
}

// A caller that gave up on a job deletes its part file, and what comes after that is no whole file.
TEST(CopyFromDevice, APartFileThatIsLostIsNotTaken) {
    CPull run("");
    run.Play(">request ack p1 p2 p3@2000 >ack");
    EXPECT_EQ(run.Start(), 0u);
    platform::Sleep(1500);
    for (const std::string& strFile : run.world.HostFiles("C:/s")) {
        strFile != "a.bin" ? platform::DeleteFileA(("C:/s/" + strFile).c_str()) : FALSE;
    }
    run.ExpectEnd(FAIL);
    run.ExpectOldFile();
}

// A text without an end, and one whose rest is not in the next package.
TEST(CopyFromDevice, ANameThatDoesNotEnd) {
    for (const std::size_t dwBytes : {3u, 6u, 500u, 4000u}) {
        for (const std::size_t dwLeft : {0u, 1u, 3u, 200u, 519u, 520u, 521u}) {
            CPull run(std::to_string(dwLeft) + " of " + std::to_string(dwBytes));
            const Bytes name(std::max(dwBytes, dwLeft), 'x');
            run.Stream(Records(
                FileRecord(DAK_WIDE("a.bin"), Pattern(DAK_DATA_SIZE - 8 - 36 - 24 - dwLeft)),
                Join(U64(9), U64(0), U64(0), name)));
            const char* lpszRest = dwLeft == name.size() ? ">ack"
                                   : dwLeft < 520        ? "p2 >ack"
                                                         : ">abort";
            ExpectOutcome(run, {std::string(">request ack p1 ") + lpszRest, PROTOCOL});
            EXPECT_EQ(run.world.HostFiles("C:/s").size(), 1u);
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
            Bytes piece(names.begin() + static_cast<std::ptrdiff_t>(dwAt), names.end());
            const bool bLast = piece.size() <= 12'278;
            piece.resize(std::min<std::size_t>(12'278, piece.size()));
            run.device.Expect(Package(bLast ? DAK_LAST_PACKAGE : DAK_PACKAGE, Join(U16(8), piece)));
            run.Play("ack");
        }
        ExpectOutcome(run, {run.Stream(Records()), 0, 3 * 10 + 500 + 20 + 500});
    }
}

// Of two pieces. One count of failed reads serves all waits, of which each makes at least one read.
TEST(CopyFromDevice, ALongRequestThatFails) {
    constexpr std::uint64_t SILENT = READS_AT_MOST * FAILED_TRY_MS;
    for (const CRow& row :
         std::vector<CRow>{{"linked hang >", GONE, 12'788},
                           {"> abort >", GONE, 10},
                           {"> >", GONE, SILENT},
                           {"> gone", GONE, 510},
                           {In("> ack", 600 * FAILED_TRY_MS + 15) + " >", GONE, SILENT + 15},
                           {In("> ack", 1200 * FAILED_TRY_MS + 15) + " >", GONE, SILENT + 15},
                           {"toolong", FAIL, 0}}) {
        CPull run(row.strWords);
        for (int i = 0; i < 25; ++i) {
            run.list.Add(std::string(259, 'x').c_str());
        }
        run.actions["toolong"] = [&] { run.list.Add(std::string(260, 'x').c_str()); };
        ExpectOutcome(run, row);
        run.ExpectOldFile();
    }
}

// Room for the file and 102400 bytes beside it; an old target counts, and goes first only where
// the room is short without it.
TEST(CopyFromDevice, RoomIsAskedForEachFile) {
    constexpr std::uint64_t LARGE = 20'000 + 102'400;
    const Rows<std::uint64_t, std::size_t, std::uint64_t, bool, bool> rows = {
        {20'000, 0, LARGE, true, false},           {20'000, 0, LARGE - 1, false, false},
        {20'000, 5000, LARGE, true, false},        {20'000, 5000, LARGE - 1, true, true},
        {20'000, 5000, LARGE - 5000, true, true},  {20'000, 5000, LARGE - 5001, false, false},
        {1ull << 40, 0, 1ull << 40, false, false}, {~0ull, 5000, 1ull << 40, false, false}};
    for (const auto& [qwSize, dwOldSize, qwFree, bEnough, bOldGoesFirst] : rows) {
        CTransfer run(DAK_FROM_DEVICE, std::to_string(qwFree) + " free");
        dwOldSize != 0 ? run.world.WriteHostFile("C:/s/a.bin", Bytes(dwOldSize)) : void();
        run.world.qwFreeBytes = qwFree;
        run.Stream(
            Records(Join(U64(qwSize), U64(1), U64(2), Text(DAK_WIDE("a.bin")), Pattern(20'000))));
        run.Play(bEnough ? ">request ack p1 p2 >ack" : ">request ack p1 p2 >abort");
        run.Run(bEnough ? 0 : NO_SPACE);
        EXPECT_EQ(run.world.Trace({"file delete C:/s/a.bin"}).size(), bOldGoesFirst ? 1u : 0u);
        EXPECT_EQ(run.world.HostFiles("C:/s").size(), bEnough || dwOldSize != 0 ? 1u : 0u);
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
    const std::basic_string<WCHAR> strLong(255, DAK_WIDE('x'));
    for (const std::basic_string_view<WCHAR> name :
         {DAK_WIDE(".."), DAK_WIDE("..\\x"), DAK_WIDE("../x"), DAK_WIDE("b\\..\\..\\x"),
          DAK_WIDE("b\\../x"), DAK_WIDE("b\\.."), DAK_WIDE("\\x"), DAK_WIDE("/x"),
          DAK_WIDE("C:\\x"), DAK_WIDE("c:x"), DAK_WIDE("b\\\\x"), DAK_WIDE("b\\"), DAK_WIDE(".\\x"),
          DAK_WIDE(""), DAK_WIDE("x\xD800y"), strLong.c_str()}) {
        CPull run(testing::PrintToString(name));
        run.Stream(Records(FileRecord(name, Pattern(20'000))));
        ExpectOutcome(run, {">request ack p1 p2 >abort", name.size() > 200 ? FAIL : PROTOCOL});
        run.ExpectOldFile();
    }
    // The longest there can be: 259 characters in all. What came ahead of a bad name stays.
    CTransfer run(DAK_FROM_DEVICE);
    run.PlayWhole(Records(FileRecord(strLong.c_str() + 1, {1}), FileRecord(DAK_WIDE("..\\x"), {2}),
                          FileRecord(DAK_WIDE("c"), {3})));
    run.Run(PROTOCOL);
    EXPECT_EQ(run.world.HostFiles("C:/"), std::vector<std::string>{"s/" + std::string(254, 'x')});
}

// A destination that is not there, and one that the host's code page does not have, not even where
// a folder has the name that comes out.
TEST(CopyFromDevice, ADestinationThatIsNone) {
    for (const WCHAR* lpszDest : {DAK_WIDE("C:\\t"), DAK_WIDE("C:\\\xD800")}) {
        CPull run("");
        run.world.MakeHostFolder("C:/\xEF\xBF\xBD");
        run.Play("> ack " + run.Stream(Records(FileRecord(DAK_WIDE("a"), {1}))));
        EXPECT_EQ(run.Start(lpszDest), 0u);
        run.ExpectEnd(FAIL);
        run.ExpectOldFile();
    }
}

} // namespace
