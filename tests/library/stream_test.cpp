// The four operations with a stream: reads and writes by handle, copies in both directions. Streams
// of all sizes in their time, resends, and every way in which they end.

#include "tests/library/library_run.h"

namespace {

constexpr std::size_t DATA = DAK_DATA_SIZE;
// All reads of a package's head, and of a verdict.
constexpr std::uint64_t SILENCE = READS_AT_MOST * (READ_MS + 514 + 500);
constexpr std::uint64_t NO_VERDICT = READS_AT_MOST * (READ_MS + 12'788 + 500);
constexpr DWORD UNSAID = 77; // a failure, with a state of success

struct CEnd {
    std::string strWords;
    DWORD dwErrCode;
    std::uint64_t qwMs;      // from the request to the closing, or to a job's drain
    std::size_t dwCount = 0; // what a read or write tells
};

// A read (16) or a write (17).
struct CFileStream : CRun {
    CFileStream(std::uint16_t codeFunc, std::size_t dwBytes, const std::string& strName = {})
        : CRun(std::to_string(dwBytes) + " " + strName), code(codeFunc), data(Pattern(dwBytes)) {
        world.bTrace = false;
        const Bytes size = U32(static_cast<DWORD>(dwBytes));
        LayStream(code, IsRead() ? Join(size, data) : data, !IsRead(), false);
        packages["request"] = Command(code, U32(0xFFFFFFFE), size);
        packages["done"] = Response(code, 1);
        lines["whole"] += IsRead() ? "" : " done";
        buffer = IsRead() ? Bytes(dwBytes, 0xEE) : data;
        buffer.push_back(0xEE);
    }
    bool IsRead() const { return code == 16; }
    void Run(const CEnd& end) {
        Play(end.strWords);
        const auto call = IsRead() ? &CDAKVorn::DAKReadFile : &CDAKVorn::DAKWriteFile;
        DWORD dwCount = 77;
        const std::uint64_t qwBegin = world.NowMs() + LINK_UP_MS;
        const DWORD dwResult =
            ((*dak).*call)(reinterpret_cast<void*>(std::uintptr_t{0xFFFFFFFE}), buffer.data(),
                           static_cast<DWORD>(data.size()), &dwCount);
        const bool bDone = IsRead() ? end.dwCount > 0 : end.dwErrCode == 0;
        EXPECT_EQ(dwResult, bDone ? 0 : FAIL);
        EXPECT_EQ(dak->GetLastError(), end.dwErrCode == UNSAID ? 0 : end.dwErrCode);
        EXPECT_EQ(world.NowMs() - qwBegin, end.qwMs + (world.IsPlugged() ? READ_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        ASSERT_EQ(dwCount, end.dwCount);
        EXPECT_TRUE(std::equal(data.begin(), data.begin() + dwCount, buffer.begin()));
        EXPECT_TRUE(!IsRead() || buffer[dwCount] == 0xEE) << "nothing behind what was delivered";
    }

    std::uint16_t code;
    Bytes data;
    Bytes buffer; // with one byte behind
};

// A read costs two reads for each package and 500 ms for each acknowledgement, a write a verdict
// behind packages 1, 51 and so on, and the last. Each is done twice, for one counts its packages
// from where the one before has left them.
TEST(FileStream, AllSizesInTheirTime) {
    const Rows<std::uint16_t, std::size_t, std::uint64_t, std::uint64_t> rows = {
        {16, 1, 1, 1},           {16, DATA - 4, 1, 1},       {16, DATA - 3, 2, 1},
        {16, DATA, 2, 1},        {16, 49 * DATA - 4, 49, 1}, {16, 50 * DATA - 4, 50, 1},
        {16, 50 * DATA, 51, 2},  {16, 100 * DATA, 101, 3},   {17, 0, 1, 1},
        {17, 1, 1, 1},           {17, DATA, 1, 1},           {17, DATA + 1, 2, 2},
        {17, 50 * DATA, 50, 2},  {17, 51 * DATA, 51, 2},     {17, 51 * DATA + 1, 52, 3},
        {17, 101 * DATA, 101, 3}};
    for (const auto& [code, dwSize, qwPackages, qwWindows] : rows) {
        CFileStream run(code, dwSize);
        const std::uint64_t qwMs = run.IsRead() ? qwPackages * 2 * READ_MS + qwWindows * 500
                                                : qwWindows * (READ_MS + RETRY_BASE_MS) + READ_MS;
        run.Run({"whole", 0, READ_MS + qwMs, dwSize});
        run.Run({"whole", 0, READ_MS + qwMs, dwSize});
    }
    CFileStream(16, 0).Run({"whole", 0, 3 * READ_MS + 500, 0});
}

// The verdict on the final package is DAK_RETRANSMIT so many times, then DAK_SUCCESS; the answer to
// the tenth pass does not count. Pauses follow the processor: the base is 60 ms and the step 20 ms
// where it does not tell its speed.
TEST(FileStream, ResendsAndTheirPauses) {
    const Rows<std::optional<DWORD>, std::size_t, std::size_t, std::size_t, std::uint64_t> rows = {
        // MHz, packages, the first of the window, retransmits, the time from the request
        {std::nullopt, 1, 1, 1, 180},
        {std::nullopt, 7, 2, 0, 160},
        {std::nullopt, 7, 2, 1, 250},
        {std::nullopt, 7, 2, 9, 160 + 9 * 70 + 900},
        {std::nullopt, 7, 2, 10, 90 + 10 * 70 + 1100},
        {std::nullopt, 7, 2, 11, 90 + 10 * 70 + 1100},
        {std::nullopt, 51, 2, 2, 360},
        {std::nullopt, 52, 52, 1, 320},
        {199, 1, 1, 1, 40 + 3 * 1},
        {299, 1, 1, 1, 40 + 3 * 1},
        {300, 1, 1, 1, 40 + 2 * 10 + 3},
        {847, 1, 1, 1, 180},
        {2400, 1, 1, 1, 40 + 2 * 220 + 73}};
    for (const auto& [dwMHz, dwPackages, dwFirst, dwRetransmits, qwMs] : rows) {
        CFileStream run(17, (dwPackages - 1) * DATA + 500, testing::PrintToString(dwRetransmits));
        run.world.dwCpuMHz = dwMHz;
        run.lines["pass"] = "retransmit";
        for (std::size_t i = dwFirst; i <= dwPackages; ++i) {
            run.lines["pass"] += " >s" + std::to_string(i);
        }
        const std::string strPasses =
            "open sent " + std::to_string(std::min<std::size_t>(dwRetransmits, 10)) + "*pass ";
        dwRetransmits < 10 ? run.Run({strPasses + "ack done", 0, qwMs, run.data.size()})
                           : run.Run({strPasses + (dwRetransmits > 10 ? "retransmit" : "ack"),
                                      PROTOCOL, qwMs, 6 * DATA});
    }
}

// Of three packages.
void ExpectFileEnds(std::uint16_t code, const std::vector<CEnd>& ends) {
    for (const CEnd& end : ends) {
        CFileStream run(code, 30'000, end.strWords);
        const auto data = [](const Bytes& bytes, DWORD dwWord = DAK_REPLY_PACKAGE) {
            return DataPackage(dwWord, 16, bytes);
        };
        const auto head = [](DWORD dwLength) {
            return Join(U32(DAK_REPLY_PACKAGE), U32(dwLength), U32(0), U16(16));
        };
        const Bytes p1 = run.packages["p1"];
        run.packages.merge(std::map<std::string, Bytes>{
            {"full", Response(17, -1)},
            {"refused", Response(17, -2)},
            {"bad", With(data({1, 2, 3}), DAK_OFFSET_CHECKSUM, 7)},
            {"word", With(p1, 0, DAK_PACKAGE)},
            {"code", With(p1, DAK_OFFSET_CHECKSUM, DakGetU32(&p1[8]) + 1)},
            {"cut", Part(data({1, 2, 3}), 0, 16)},
            {"head", Part(data({1, 2, 3}), 0, 14)},
            {"long", head(12'281)},
            {"short", head(5)},
            {"longleave", With(head(12'281), 0, DAK_DISCONNECT)},
            {"shortleave", Control(DAK_DISCONNECT)},
            {"five", data(Join(U32(5), Part(run.data, 0, 5)), DAK_LAST_REPLY)},
            {"toomany", data(U32(30'001))},
            {"count", data(U32(30'000))},

            {"nothing", data({})},
            {"end", data({}, DAK_LAST_REPLY)}});
        run.packages["code"][DAK_OFFSET_DATA_CODE] = 17;
        run.lines["again"] = "bad >retransmit";
        run.Run(end);
    }
}

TEST(FileStream, WritesThatEndInEachWay) {
    const std::string strTwo = "open >p1 ack >p2 ";
    ExpectFileEnds(
        17, {{"open sent ack full", NO_SPACE, 160, 30'000},
             {"open sent ack refused", REFUSED, 160, 30'000},
             {"open -12288", FAIL, 10},
             // Within the stream a package that did not go well counts as a lost link.
             {"open >p1 gone@100", GONE, 10 + 600},
             {"open >p1 abort", GONE, 20},
             {"open cancel >a1", GONE, 10},
             // The final package.
             {strTwo + "!WritePipe", GONE, 80, 2 * DATA},
             {strTwo + "hang", GONE, 80 + 5466 + 500, 2 * DATA},
             {strTwo + "!CreateThread", GONE, 80, 2 * DATA},
             {"open sent", PROTOCOL, 80 + NO_VERDICT, 2 * DATA},
             {"open sent abort", PROTOCOL, 90, 2 * DATA},
             {"open sent gone@100", GONE, 680, 2 * DATA},
             {"open sent gone?1 ack", UNSAID, 660, 30'000},
             {"open sent retransmit !WritePipe", GONE, 170, 2 * DATA},
             {"open sent retransmit !WritePipe cancel@50", CANCELLED, 170, 2 * DATA},
             // The device goes ahead of a pass, ahead of its writes, and between them.
             {"open sent gone?2 retransmit", GONE, 90, 2 * DATA},
             {"open sent gone?3 retransmit", GONE, 680, 2 * DATA},
             {"open sent gone?4 retransmit >s2", GONE, 680, 2 * DATA},
             // A cancel: abort packages up to where the device answers, or in place of what is sent
             // again. What it confirms after all is confirmed.
             {strTwo + "cancel 49*>a2", CANCELLED, 80, 2 * DATA},
             {strTwo + "cancel gone?4 4*>a2", CANCELLED, 80, 2 * DATA},
             {strTwo + "cancel 2*>a2 !WritePipe", CANCELLED, 80, 2 * DATA},
             {"open sent cancel@100 ack@500 done", 0, 80 + 500 + 70, 30'000},
             {"open sent retransmit cancel@50 2*>a2 abort", CANCELLED, 180, 2 * DATA},
             {"open sent retransmit >s2 cancel >a2 retransmit 2*>a2 ack done", 0, 360, 30'000}});
}

TEST(FileStream, ReadsThatEndInEachWay) {
    ExpectFileEnds(
        16, {{"open -12288", FAIL, 10},
             {"open", PROTOCOL, 10 + SILENCE},
             {"open five >ack", 0, 530, 5},
             {"open end >ack", PROTOCOL, 520},
             {"open toomany >abort", PROTOCOL, 30},
             {"open count nothing >abort", PROTOCOL, 40},
             {"open p1 nothing >abort", 0, 40, 12'270},
             {"open abort", PROTOCOL, 20},
             {"open disconnect", GONE, 30},
             {"open longleave", GONE, 20},
             {"open cut", PROTOCOL, 30},
             {"open head", PROTOCOL, 20 + 513},
             {"open head gone@100", GONE, 100},
             {"open gone@100", GONE, 600},
             {"open p1 gone@500", 0, 1000, 12'270},
             {"open count gone@500", GONE, 1000},
             {"open bad !WritePipe", GONE, 30},
             {"open five !WritePipe", GONE, 30},
             // A bad package is asked for again, so often and no more.
             {"open word >retransmit sent >ack", 0, 650, 30'000},
             {"open code >retransmit sent >ack", 0, 650, 30'000},
             {"open short >retransmit sent >ack", 0, 640, 30'000},
             {"open again long >retransmit sent >ack", 0, 720, 30'000},
             {"open again cut >retransmit sent >ack", 0, 730, 30'000},
             {"open again ack >retransmit sent >ack", 0, 720, 30'000},
             {"open 11*again sent >ack", 0, 570 + 11 * 80, 30'000},
             {"open 11*again bad", PROTOCOL, 30 + 11 * 80},
             {"open bad 11*>retransmit", PROTOCOL, 30 + 11 * (60 + SILENCE)},
             {"open again shortleave", GONE, 100},
             {"open again disconnect", GONE, 110},
             {"open gone@50 again", GONE, 90},
             {"open gone@200 again", GONE, 700},
             // The device repeats what came ahead of it, and that is dropped.
             {"open p1 p2 again sent >ack", 0, 690, 30'000},
             {"open p1 p2 again ack cut p3 >ack", 0, 680, 30'000},
             {In("open p1 again p2", 60 + SILENCE + 5) + " p3 >ack", 0, 650 + SILENCE, 30'000},
             // A cancel: what came well is delivered, anything else is not asked for again.
             {"open cancel@100", PROTOCOL, 10 + 1024},
             {"open cancel@100 gone@200", GONE, 700},
             {"open cancel@25 sent >abort", 0, 570, 24'544},
             {"open cancel disconnect >abort", CANCELLED, 30},
             {"open cancel long >abort", CANCELLED, 20},
             {"open cancel five >abort", CANCELLED, 530},
             {"open cancel five !WritePipe", GONE, 30},
             {"open five cancel@100 >ack", 0, 530, 5},
             {"open cancel@50 again ack >abort", CANCELLED, 100},
             {"open cancel@50 again five >abort", CANCELLED, 610}});
}

constexpr std::uint64_t ANY = ~0ull;

// Whether the pipe is drained at the end. All reads of a device that has gone fail at once.
void ExpectEnd(CTransfer& run, const CEnd& end, bool bDrains = true) {
    run.packages["cut"] = Join(Control(DAK_LAST_REPLY), Bytes{8, 0, 0xFE, 0xFF});
    const bool bGone = end.strWords.find("gone") != std::string::npos;
    const std::uint64_t qwDrain = !bDrains ? 0 : bGone ? 4 * READ_MS + 3 * 300 : DRAIN_MS;
    run.Run(end.strWords, end.dwErrCode,
            end.qwMs == ANY ? std::optional<std::uint64_t>() : LINK_UP_MS + end.qwMs + qwDrain);
}

// Of one file in three packages.
TEST(CopyToDevice, EndsInEachWay) {
    const std::vector<CEnd> drained = {{"-27", 0, 0}, // the request's memory
                                       {"noresend", 0, 0},
                                       {"linked hang", GONE, 27 + 500},
                                       {">request", FAIL, FAILED_READ_MS},
                                       {">request shortack", FAIL, 10},
                                       {">request retransmit", FAIL, 10},
                                       {">request gone", FAIL, 10},
                                       {"grown whole", 0, ANY},
                                       {"whole", 0, 80 + 2 * 70 + 20},
                                       {"open sent ack", 0, 220 + READS_AT_MOST * FAILED_TRY_MS},
                                       {"open sent ack result0", 0, 240},
                                       {"open sent ack result-1", NO_SPACE, 240},
                                       {"open sent ack result-2", REFUSED, 240},
                                       {"open sent ack abort1", 0, 240},
                                       {"open sent ack abort-1", 0, 240},
                                       {"open sent ack abort-2", REFUSED, 240},
                                       {"open sent ack ack", 0, 230},
                                       {"open sent ack shortack", 0, 230},
                                       {"open sent ack cut", 0, 240}};
    // A send that fails in the contents: no final package, no reply, no drain, but a fresh node.
    const std::vector<CEnd> reopened = {{"open >p1 ack !WritePipe", GONE, 150},
                                        {"open >p1 abort", PROTOCOL, 90},
                                        {"open >p1 gone", GONE, 90 + 500},
                                        {"open -12280", FAIL, 70},
                                        {"open noread", FAIL, 80},
                                        {"huge open", FAIL, 70},
                                        {"shrunk open >p1 ack >p2", FAIL, 170},
                                        {"open cancel >a1", CANCELLED, 80}};
    for (const auto* pEnds : {&drained, &reopened}) {
        for (const CEnd& end : *pEnds) {
            CTransfer run(DAK_TO_DEVICE, end.strWords);
            const auto resize = [&](std::size_t dwBytes, std::uint64_t qwReported) {
                run.list.RemoveAll();
                run.AddFile("C:\\s\\a", Pattern(dwBytes));
                run.world.HostFile("C:/s/a")->qwReportedSize = qwReported;
            };
            resize(30'000, 30'000);
            run.LayRecords(FileRecord(DAK_WIDE("a"), Pattern(30'000)));
            for (const int nResult : {0, 1, -1, -2}) {
                const std::string strResult = std::to_string(nResult);
                run.packages["result" + strResult] = Response(17, nResult); // any code
                run.packages["abort" + strResult] = Join(Control(DAK_ABORT), Response(8, nResult));
            }
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
            ExpectEnd(run, end, pEnds == &drained);
            EXPECT_EQ(run.device.Opens(), pEnds == &drained || !run.world.IsPlugged() ? 1 : 2);
        }
    }
}

// A send that fails in a record, which the end of a package cuts: the final package goes out all
// the same, and unless that one meets a dead device the reply is awaited; but what the device then
// says makes no success of it. The window stays within what is kept of it to be sent again.
TEST(CopyToDevice, ARecordThatFailsClosesTheStream) {
    const Rows<std::size_t, std::string, DWORD> rows = {
        {1, "open hang hang refused", GONE},
        {1, "open hang > ack refused", GONE},
        {1, "open hang > ack done", GONE},
        {1, "open >p1 abort > abort ack", PROTOCOL},
        {1, "open >p1 gone", GONE},
        {1, "open cancel 2*>a1 refused@5000", CANCELLED},
        {51, "open first > retransmit kept > ack done", PROTOCOL}};
    for (const auto& [dwPackages, strWords, dwErrCode] : rows) {
        CTransfer run(DAK_TO_DEVICE, strWords);
        const Bytes contents = Pattern(dwPackages * DATA - 32 - 10); // the next one's times are cut
        run.AddFile("C:\\s\\a", contents);
        run.AddFile("C:\\s\\b", {1});
        run.LayRecords(FileRecord(DAK_WIDE("a"), contents), FileRecord(DAK_WIDE("b"), {1}));
        run.packages["refused"] = Response(8, -2);
        run.lines["first"] = ">p1 ack 49*> >p51 abort";
        for (int i = 2; i < 51; ++i) {
            run.lines["kept"] += " >s" + std::to_string(i);
        }
        ExpectEnd(run, {strWords, dwErrCode, ANY});
        EXPECT_EQ(run.device.Opens(), 1);
    }
}

// Over an old file, of three packages.
TEST(CopyFromDevice, EndsInEachWayAndLeavesTheOldFile) {
    constexpr std::uint64_t SWALLOW = 5010; // what comes ahead of an abort
    const CEnd ends[] = {                   // The request.
                         {"!LocalAlloc#4", 0, 0},
                         {"linked hang", GONE, 31 + 500},
                         {">request", GONE, READS_AT_MOST * FAILED_TRY_MS},
                         {">request shortack", FAIL, 10},
                         {">request abort", FAIL, 10},
                         // The stream, behind 10 ms for that and 500 ms ahead of it.
                         {"open", PROTOCOL, 510 + SILENCE},
                         {"open gone@515", GONE, 520 + 500},
                         {"open p1", PROTOCOL, 530 + SILENCE},
                         {"open p1 abort", PROTOCOL, 540},
                         {"open p1 disconnect", GONE, 550},
                         {"open p1 three >ack", PROTOCOL, 1050 + SILENCE},
                         {"open thirty >ack", PROTOCOL, 1030 + SILENCE}, // in the record
                         {"open eight >ack", PROTOCOL, 1030},            // ahead of it
                         {"open p1 nothing >abort", PROTOCOL, ANY},
                         {"open p1 again long", PROTOCOL, 530 + 90}, // in place of what is repeated
                         {"open p1 again head", GONE, 530 + 90 + 511},
                         {"open p1 gone@645 again p1", GONE, 1145},
                         // The host, while the stream goes on and when it is over.
                         {"!GetTempFileNameA open sent >abort", FAIL, ANY},
                         {"!GetTempFileNameA#1=112 open sent >abort", NO_SPACE, ANY},
                         {"!CreateFileA#3 open sent >abort", FAIL, ANY},
                         {"!WriteFile open sent >abort", FAIL, ANY},
                         {"!WriteFile#2=112 open sent >abort", NO_SPACE, ANY},
                         {"!CreateFileA#4 whole", FAIL, ANY},
                         {"!SetFilePointer whole", FAIL, ANY},
                         {"!WriteFile#3=112 whole", NO_SPACE, ANY},
                         {"!MoveFileExA whole", FAIL, ANY},
                         {"short open p1 -614400 >abort", NO_SPACE, 530},
                         {"short open p1 >abort", NO_SPACE, 530 + 3010},
                         {"short open p1 !WritePipe", NO_SPACE, 530 + 3010},
                         // A cancel, where the worker looks and nowhere else.
                         {">request cancel@100 >abort", CANCELLED, FAILED_TRY_MS + SWALLOW},
                         {">request cancel@100 hang", GONE, FAILED_TRY_MS + SWALLOW + 508},
                         {"open cancel@610 >abort", CANCELLED, 510 + 1024 + SWALLOW},
                         {"open p1 cancel@610", PROTOCOL, 530 + 1024},
                         {"open p1 p2 cancel@610 p3@1000 >abort", CANCELLED, 1510},
                         {"open p1 cancel@610 bad@1000 >abort", CANCELLED, 1010}};
    for (const CEnd& end : ends) {
        CTransfer run(DAK_FROM_DEVICE, end.strWords);
        const Bytes old = {'o', 'l', 'd'};
        run.world.WriteHostFile("C:/s/a.bin", old);
        run.LayRecords(FileRecord(DAK_WIDE("a.bin"), Pattern(30'000)));
        for (const auto& [strName, dwBytes] :
             std::map<std::string, std::size_t>{{"three", 3}, {"eight", 8}, {"thirty", 30}}) {
            run.packages[strName] =
                DataPackage(DAK_LAST_REPLY, 8, Part(run.packages["p1"], 14, 14 + dwBytes));
        }
        run.packages["nothing"] = DataPackage(DAK_REPLY_PACKAGE, 8, {});
        run.packages["bad"] = DataPackage(DAK_REPLY_PACKAGE, 9, {1});
        run.packages["head"] = Part(run.packages["bad"], 0, 14);
        run.packages["long"] = With(run.packages["head"], DAK_OFFSET_LENGTH, 12'281);
        run.lines["again"] = "bad >retransmit";
        run.actions["short"] = [&] { run.world.qwFreeBytes = 100; };
        ExpectEnd(run, end);
        EXPECT_EQ(run.world.HostFiles("C:/"), std::vector<std::string>{"s/a.bin"});
        EXPECT_EQ(run.world.ReadHostFile("C:/s/a.bin"), old);
    }
}

} // namespace
