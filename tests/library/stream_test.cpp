// The four operations with a stream: reads and writes by handle, copies in both directions. Streams
// of all sizes in their time, resends, and every way in which they end.

#include "platform/file.h"
#include "tests/library/library_run.h"

namespace {

constexpr std::size_t DATA = DAK_DATA_SIZE;
// All reads of a package's head, and of a verdict.
constexpr std::uint64_t SILENCE = READS_AT_MOST * (READ_MS + 514 + 500);
constexpr std::uint64_t NO_VERDICT = READS_AT_MOST * (READ_MS + 12'788 + 500);
constexpr std::uint64_t ANY = ~0ull;
constexpr DWORD UNSAID = 77; // a failure, with a state of success

enum EKind { READ, WRITE, PULL, PUSH, PUSH_REOPENS };

struct CEnd {
    std::string strWords;
    DWORD dwErrCode;
    std::uint64_t qwMs;      // from the request to the closing, or to a job's drain
    std::size_t dwCount = 0; // what a read or write tells
};

struct CStream : CTransfer {
    CStream(EKind kind, std::size_t dwBytes, const std::string& strName = {})
        : CTransfer(kind == PULL ? DAK_FROM_DEVICE : DAK_TO_DEVICE, strName), eKind(kind),
          data(Pattern(dwBytes)), buffer(kind == READ ? Bytes(dwBytes, 0xEE) : data) {
        world.bTrace = false;
        buffer.push_back(0xEE);
        const Bytes size = U32(static_cast<DWORD>(dwBytes));
        if (IsFile()) {
            LayStream(Code(), eKind == READ ? Join(size, data) : data, eKind == WRITE, false);
            packages["request"] = Command(Code(), U32(0xFFFFFFFE), size);
            packages["done"] = Response(17, 1);
            lines["whole"] += eKind == READ ? "" : " done";
        } else {
            eKind == PULL ? world.WriteHostFile("C:/s/a", OLD) : Resize(dwBytes, dwBytes);
            LayRecords(FileRecord(DAK_WIDE("a"), data));
        }
    }
    bool IsFile() const { return eKind == READ || eKind == WRITE; }
    std::uint16_t Code() const { return IsFile() ? eKind == READ ? 16 : 17 : 8; }
    // The file of a push becomes another one.
    void Resize(std::size_t dwBytes, std::uint64_t qwReported) {
        list.RemoveAll();
        AddFile("C:\\s\\a", Pattern(dwBytes));
        world.HostFile("C:/s/a")->qwReportedSize = qwReported;
    }
    // Packages that are not as they ought to be, and what goes wrong on the host.
    void LayFaults() {
        const auto reply = [&](const Bytes& bytes, DWORD dwWord = DAK_REPLY_PACKAGE) {
            return DataPackage(dwWord, Code(), bytes);
        };
        const Bytes three = reply({1, 2, 3});
        const Bytes p1 = packages["p1"];
        packages.merge(std::map<std::string, Bytes>{
            {"bad", With(three, DAK_OFFSET_CHECKSUM, 7)},
            {"code", With(With(p1, 12, DakGetU32(&p1[12]) + 1), 8, DakGetU32(&p1[8]) + 1)},
            {"cut", Part(three, 0, 16)},
            {"head", Part(three, 0, 14)},
            {"long", With(three, DAK_OFFSET_LENGTH, 12'281)},
            {"short", With(three, DAK_OFFSET_LENGTH, 5)},
            {"nothing", reply({})},
            {"end", reply({}, DAK_LAST_REPLY)},
            {"five", reply(Join(U32(5), Part(data, 0, 5)), DAK_LAST_REPLY)},
            {"count", reply(U32(30'000))},
            {"toomany", reply(U32(30'001))},
            {"first8", reply(Part(p1, 14, 22), DAK_LAST_REPLY)},
            {"first30", reply(Part(p1, 14, 44), DAK_LAST_REPLY)},
            {"result0", Response(17, 0)}, // of any code
            {"result-1", Response(17, -1)},
            {"result-2", Response(17, -2)},
            {"abort1", Join(Control(DAK_ABORT), Response(8, 1))},
            {"abort-1", Join(Control(DAK_ABORT), Response(8, -1))},
            {"abort-2", Join(Control(DAK_ABORT), Response(8, -2))},
            {"foreign", Response(99, 1)},
            {"cutresult", Part(Response(Code(), 1), 0, 12)}});
        packages["long"].resize(14), packages["short"].resize(14);
        lines["again"] = "bad >retransmit";
        actions["shrunk"] = [&] { Resize(25'000, 30'000); };
        actions["grown"] = [&] { Resize(40'000, 30'000); };
        actions["huge"] = [&] { Resize(30'000, 1ull << 32); };
        actions["noroom"] = [&] { world.qwFreeBytes = 100; };
        actions["noread"] = [&] {
            world.onFileRead = [](sim::CFileRead& read) { read.bFail = true; };
        };
        actions["toolong"] = [&] { list.Add(std::string(260, 'x').c_str()); };
        actions["chained"] = [&] { // a request of two pieces
            for (int i = 0; i < 25; ++i) {
                list.Add(std::string(259, 'x').c_str());
            }
        };
        actions["lost"] = [&] { // as a caller deletes the part file that gave up on the job
            for (const std::string& strFile : world.HostFiles("C:/s")) {
                strFile != "a" ? platform::DeleteFileA(("C:/s/" + strFile).c_str()) : FALSE;
            }
        };
        for (int i = 1; i <= 11; ++i) { // by somebody else, for longer than is waited for
            lines["held"] += " !MoveFileExA#" + std::to_string(i) + "=32";
        }
        actions["noresend"] = [&] {
            world.dwFailAllocationsOf = DAK_WINDOW_SIZE;
            dak.emplace();
        };
    }
    void Expect(const CEnd& end) { IsFile() ? ExpectFile(end) : ExpectJob(end); }

    static inline const Bytes OLD = {'o', 'l', 'd'};
    EKind eKind;
    Bytes data;
    Bytes buffer; // with one byte behind

  private:
    void ExpectFile(const CEnd& end) {
        const auto call = eKind == READ ? &CDAKVorn::DAKReadFile : &CDAKVorn::DAKWriteFile;
        const std::uint64_t qwRequest = world.NowMs() + LINK_UP_MS;
        const auto qwWidened = static_cast<std::uintptr_t>(std::intptr_t{-2}); // the same handle
        DWORD dwCount = 77;
        Play(end.strWords);
        const DWORD dwResult =
            ((*dak).*call)(reinterpret_cast<void*>(eKind == READ ? qwWidened : 0xFFFFFFFE),
                           buffer.data(), static_cast<DWORD>(data.size()), &dwCount);
        EXPECT_EQ(dwResult == 0, eKind == READ ? end.dwCount > 0 : end.dwErrCode == 0);
        EXPECT_EQ(dak->GetLastError(), end.dwErrCode == UNSAID ? 0 : end.dwErrCode);
        EXPECT_EQ(world.NowMs() - qwRequest, end.qwMs + (world.IsPlugged() ? READ_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        ASSERT_EQ(dwCount, end.dwCount);
        EXPECT_EQ(Part(buffer, 0, dwCount), Part(data, 0, dwCount));
        EXPECT_TRUE(eKind != READ || buffer[dwCount] == 0xEE) << "nothing behind it";
    }
    // A push that fails in the contents ends without a final package, a reply and a drain, but with
    // a fresh node. All reads of a device that has gone fail at once.
    void ExpectJob(const CEnd& end) {
        const bool bGone = end.strWords.find("gone") != std::string::npos;
        const std::uint64_t qwDrain = eKind == PUSH_REOPENS ? 0 : bGone ? 940 : DRAIN_MS;
        Run(end.strWords, end.dwErrCode,
            end.qwMs == ANY ? std::optional<std::uint64_t>() : LINK_UP_MS + end.qwMs + qwDrain);
        EXPECT_EQ(device.Opens(), eKind == PUSH_REOPENS && !bGone ? 2 : 1);
        if (eKind == PULL) {
            EXPECT_EQ(world.HostFiles("C:/"), std::vector<std::string>{"s/a"});
            EXPECT_EQ(world.ReadHostFile("C:/s/a"), OLD);
        }
    }
};

// A read costs two reads for each package and 500 ms for each acknowledgement, a write a verdict
// behind packages 1, 51 and so on, and the last. Each is done twice, for one counts its packages
// from where the one before has left them.
TEST(Streams, OfAllSizesInTheirTime) {
    const Rows<EKind, std::size_t, std::uint64_t, std::uint64_t> rows = {
        {READ, 1, 1, 1},           {READ, DATA - 4, 1, 1},       {READ, DATA - 3, 2, 1},
        {READ, DATA, 2, 1},        {READ, 49 * DATA - 4, 49, 1}, {READ, 50 * DATA - 4, 50, 1},
        {READ, 50 * DATA, 51, 2},  {READ, 100 * DATA, 101, 3},   {WRITE, 0, 1, 1},
        {WRITE, 1, 1, 1},          {WRITE, DATA, 1, 1},          {WRITE, DATA + 1, 2, 2},
        {WRITE, 50 * DATA, 50, 2}, {WRITE, 51 * DATA, 51, 2},    {WRITE, 51 * DATA + 1, 52, 3},
        {READ, 0, 1, 1},           {WRITE, 101 * DATA, 101, 3}};
    for (const auto& [eKind, dwSize, qwPackages, qwWindows] : rows) {
        CStream run(eKind, dwSize, std::to_string(dwSize));
        const std::uint64_t qwMs = eKind == READ ? qwPackages * 2 * READ_MS + qwWindows * 500
                                                 : qwWindows * (READ_MS + RETRY_BASE_MS) + READ_MS;
        run.Expect({"whole", 0, READ_MS + qwMs, dwSize});
        run.Expect({"whole", 0, READ_MS + qwMs, dwSize});
    }
}

// A prompt device gets and gives the same bytes, and nobody pauses for it.
TEST(Streams, WithoutPausesForAPromptDevice) {
    constexpr std::uint64_t AT_ONCE = 0 - LINK_UP_MS - READ_MS;
    for (const EKind eKind : {READ, WRITE, PULL, PUSH}) {
        for (const std::size_t dwBytes : {std::size_t{1}, 52 * DATA, std::size_t{3'000'000}}) {
            CStream run(eKind, dwBytes, std::to_string(eKind) + " " + std::to_string(dwBytes));
            run.world.bPromptDevice = true;
            if (run.IsFile()) {
                run.Expect({"whole", 0, AT_ONCE, dwBytes});
            } else {
                run.Run("whole", 0, 0);
            }
        }
    }
    CStream again(WRITE, 500);
    again.world.bPromptDevice = true;
    again.Expect({"open sent retransmit >s1 retransmit >s1 ack done", 0, AT_ONCE, 500});
}

// The verdict on the final package is DAK_RETRANSMIT so many times, then DAK_SUCCESS; the answer to
// the tenth pass does not count. Pauses follow the processor: the base is 60 ms and the step 20 ms
// where it does not tell its speed.
TEST(Streams, ResendsAndTheirPauses) {
    const Rows<DWORD, std::size_t, std::size_t, std::size_t, std::string, std::uint64_t> rows = {
        // MHz; packages, the first of the window, retransmits and what follows; from the request
        {847, 1, 1, 1, "ack done", 180},
        {847, 7, 2, 0, "ack done", 160},
        {847, 7, 2, 1, "ack done", 250},
        {847, 7, 2, 9, "ack done", 160 + 9 * 70 + 900},
        {847, 7, 2, 10, "ack", 90 + 10 * 70 + 1100},
        {847, 7, 2, 10, "retransmit", 90 + 10 * 70 + 1100},
        {847, 51, 2, 2, "ack done", 360},
        {847, 52, 52, 1, "ack done", 320},
        {199, 1, 1, 1, "ack done", 40 + 3 * 1},
        {299, 1, 1, 1, "ack done", 40 + 3 * 1},
        {300, 1, 1, 1, "ack done", 40 + 2 * 10 + 3},
        {2400, 1, 1, 1, "ack done", 40 + 2 * 220 + 73}};
    for (const auto& [dwMHz, dwPackages, dwFirst, dwPasses, strEnd, qwMs] : rows) {
        CStream run(WRITE, (dwPackages - 1) * DATA + 500, std::to_string(dwPasses) + strEnd);
        run.world.dwCpuMHz = dwMHz;
        run.lines["pass"] = "retransmit";
        for (std::size_t i = dwFirst; i <= dwPackages; ++i) {
            run.lines["pass"] += " >s" + std::to_string(i);
        }
        const bool bGood = strEnd == "ack done";
        run.Expect({"open sent " + std::to_string(dwPasses) + "*pass " + strEnd,
                    bGood ? 0 : PROTOCOL, qwMs, bGood ? run.data.size() : 6 * DATA});
    }
}

// Of three packages.
void ExpectEnds(EKind eKind, const std::vector<CEnd>& ends) {
    for (const CEnd& end : ends) {
        CStream run(eKind, 30'000, end.strWords);
        run.LayFaults();
        run.Expect(end);
    }
}

TEST(Streams, WritesThatEndInEachWay) {
    const std::string strTwo = "open >p1 ack >p2 ";
    ExpectEnds(WRITE,
               {{"!LocalAlloc#2", FAIL, 0}, // the request's memory
                {"linked hang", GONE, 18 + 500},
                {">request", FAIL, READS_AT_MOST * FAILED_TRY_MS},
                {">request gone@200", GONE, 700},
                {">request shortack", FAIL, 10},
                {"open -12288", FAIL, 10},
                // The result.
                {"open sent ack", UNSAID, 150 + SILENCE, 30'000},
                {"open sent ack result0", UNSAID, 160, 30'000},
                {"open sent ack result-1", NO_SPACE, 160, 30'000},
                {"open sent ack result-2", REFUSED, 160, 30'000},
                {"open sent ack cutresult", UNSAID, 160, 30'000},
                {"open sent ack foreign done", UNSAID, 160, 30'000},
                // Within the stream a package that did not go well counts as a lost link.
                {"open >p1 gone@100", GONE, 10 + 600},
                {"open >p1 abort", GONE, 20},
                {"open cancel >a1", GONE, 10},
                // The final package.
                {strTwo + "!WritePipe", GONE, 80, 2 * DATA},
                {strTwo + "hang", GONE, 80 + 5466 + 500, 2 * DATA},
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
                // A cancel: abort packages up to where the device answers, or in place of what is
                // sent again. What it confirms after all is confirmed.
                {strTwo + "cancel 49*>a2", CANCELLED, 80, 2 * DATA},
                {strTwo + "cancel gone?4 4*>a2", CANCELLED, 80, 2 * DATA},
                {strTwo + "cancel 2*>a2 !WritePipe", CANCELLED, 80, 2 * DATA},
                {"open sent cancel@100 ack@500 done", 0, 80 + 500 + 70, 30'000},
                {"open sent retransmit cancel@50 2*>a2 abort", CANCELLED, 180, 2 * DATA},
                {"open sent retransmit >s2 cancel >a2 retransmit 2*>a2 ack done", 0, 360, 30'000}});
}

TEST(Streams, ReadsThatEndInEachWay) {
    ExpectEnds(READ,
               {{"linked hang", FAIL, 18 + 500},
                {">request", FAIL, READS_AT_MOST * FAILED_TRY_MS},
                {">request gone@200", FAIL, 700},
                {">request shortack", FAIL, 10},
                {"open -12288", FAIL, 10},
                {"open", PROTOCOL, 10 + SILENCE},
                {"open five >ack", 0, 530, 5},
                {"open end >ack", PROTOCOL, 520},
                {"open toomany >abort", PROTOCOL, 30},
                {"open count nothing >abort", PROTOCOL, 40},
                {"open p1 nothing >abort", 0, 40, 12'270},
                {"open abort", PROTOCOL, 20},
                {"open disconnect", GONE, 30},
                {"open cut", PROTOCOL, 30},
                {"open head", PROTOCOL, 20 + 513},
                {"open head gone@100", GONE, 100},
                {"open gone@100", GONE, 600},
                {"open p1 gone@500", 0, 1000, 12'270},
                {"open bad !WritePipe", GONE, 30},
                {"open five !WritePipe", GONE, 30},
                // A bad package is asked for again, so often and no more.
                {"open code >retransmit sent >ack", 0, 650, 30'000},
                {"open short >retransmit sent >ack", 0, 640, 30'000},
                {"open again long >retransmit sent >ack", 0, 720, 30'000},
                {"open again cut >retransmit sent >ack", 0, 730, 30'000},
                {"open again ack >retransmit sent >ack", 0, 720, 30'000},
                {"open 11*again sent >ack", 0, 570 + 11 * 80, 30'000},
                {"open 11*again bad", PROTOCOL, 30 + 11 * 80},
                {"open bad 11*>retransmit", PROTOCOL, 30 + 11 * (60 + SILENCE)},
                {"open again disconnect", GONE, 110},
                {"open gone@50 again", GONE, 90},
                {"open gone@200 again", GONE, 700},
                // The device repeats what came ahead of it, and that is dropped.
                {"open p1 p2 again sent >ack", 0, 690, 30'000},
                {"open p1 p2 again ack cut p3 >ack", 0, 680, 30'000},
                {In("open p1 again p2", 60 + SILENCE + 5) + " p3 >ack", 0, 650 + SILENCE, 30'000},
                // A cancel: what came well is delivered, anything else is not asked for again.
                {"open cancel@100", PROTOCOL, 10 + 1024},
                {"open cancel@25 sent >abort", 0, 570, 24'544},
                {"open cancel disconnect >abort", CANCELLED, 30},
                {"open cancel five >abort", CANCELLED, 530},
                {"open cancel five !WritePipe", GONE, 30},
                {"open five cancel@100 >ack", 0, 530, 5},
                {"open cancel@50 again ack >abort", CANCELLED, 100}});
}

TEST(Streams, PushesThatEndInEachWay) {
    ExpectEnds(PUSH, {{"-27", 0, 0}, // the request's memory
                      {"noresend", 0, 0},
                      {"linked hang", GONE, 27 + 500},
                      {">request", FAIL, FAILED_READ_MS},
                      {">request shortack", FAIL, 10},
                      {">request gone", FAIL, 10},
                      {"grown whole", 0, 240},
                      {"whole", 0, 80 + 2 * 70 + 20},
                      {"open sent ack", 0, 220 + READS_AT_MOST * FAILED_TRY_MS},
                      {"open sent ack result0", 0, 240},
                      {"open sent ack result-1", NO_SPACE, 240},
                      {"open sent ack result-2", REFUSED, 240},
                      {"open sent ack abort1", 0, 240},
                      {"open sent ack abort-1", 0, 240},
                      {"open sent ack abort-2", REFUSED, 240},
                      {"open sent ack ack", 0, 230},
                      {"open sent ack cutresult", 0, 240}});
    ExpectEnds(PUSH_REOPENS, {{"open >p1 ack !WritePipe", GONE, 150},
                              {"open >p1 abort", PROTOCOL, 90},
                              {"open >p1 gone", GONE, 90 + 500},
                              {"open -12280", FAIL, 70},
                              {"open noread", FAIL, 80},
                              {"huge open", FAIL, 70},
                              {"shrunk open >p1 ack >p2", FAIL, 170},
                              {"open cancel >a1", CANCELLED, 80}});
}

// A send that fails in a record, which the end of a package cuts: the final package goes out all
// the same, and unless that one meets a dead device the reply is awaited; but what the device then
// says makes no success of it. The window stays within what is kept of it to be sent again.
TEST(Streams, PushesThatFailInARecord) {
    const Rows<std::size_t, std::string, DWORD> rows = {
        {1, "open hang hang result-2", GONE},
        {1, "open hang > ack result-2", GONE},
        {1, "open hang > ack done", GONE},
        {1, "open >p1 abort > abort ack", PROTOCOL},
        {1, "open cancel 2*>a1 result-2@5000", CANCELLED},
        {51, "open >p1 ack 49*> >p51 abort > retransmit kept > ack done", PROTOCOL}};
    for (const auto& [dwPackages, strWords, dwErrCode] : rows) {
        CStream run(PUSH, dwPackages * DATA - 32 - 10, strWords); // the next one's times are cut
        run.LayFaults();
        run.AddFile("C:\\s\\b", {1});
        run.LayRecords(FileRecord(DAK_WIDE("a"), run.data), FileRecord(DAK_WIDE("b"), {1}));
        for (int i = 2; i < 51; ++i) {
            run.lines["kept"] += " >s" + std::to_string(i);
        }
        run.Expect({strWords, dwErrCode, ANY});
    }
}

TEST(Streams, PullsThatEndInEachWayLeaveTheOldFile) {
    constexpr std::uint64_t SWALLOW = 5010; // what comes ahead of an abort
    constexpr std::uint64_t LAST_TRY = (READS_AT_MOST - 1) * FAILED_TRY_MS + 15;
    ExpectEnds(PULL, {{"!LocalAlloc#4", 0, 0},
                      {"linked hang", GONE, 31 + 500},
                      {">request", GONE, READS_AT_MOST * FAILED_TRY_MS},
                      {">request shortack", FAIL, 10},
                      {">request abort", FAIL, 10},
                      {"toolong", FAIL, 0},
                      // Of two pieces. One count of failed reads serves all waits, of which each
                      // makes at least one read.
                      {"chained linked hang >", GONE, 12'788},
                      {"chained > abort >", GONE, 10},
                      {"chained > >", GONE, READS_AT_MOST * FAILED_TRY_MS},
                      {In("chained > ack", LAST_TRY) + " >", GONE, FAILED_TRY_MS + LAST_TRY},
                      // The stream, behind 10 ms for that and 500 ms ahead of it.
                      {"open", PROTOCOL, 510 + SILENCE},
                      {"open gone@515", GONE, 520 + 500},
                      {"open p1", PROTOCOL, 530 + SILENCE},
                      {"open p1 abort", PROTOCOL, 540},
                      {"open first8 >ack", PROTOCOL, 1030}, // ahead of the record
                      {"open first30 >ack", PROTOCOL, 1030 + SILENCE},
                      {"open p1 nothing >abort", PROTOCOL, ANY},
                      {"open p1 again long", PROTOCOL, 530 + 90}, // in place of what is repeated
                      {"open p1 again head", GONE, 530 + 90 + 513},
                      {"open p1 gone@645 again p1", GONE, 1145},
                      // The host, while the stream goes on and when it is over.
                      {"!GetTempFileNameA#1=112 open sent >abort", NO_SPACE, ANY},
                      {"!WriteFile#2=112 open sent >abort", NO_SPACE, ANY},
                      {"!WriteFile#3=112 whole", NO_SPACE, ANY},
                      {"!MoveFileExA whole", FAIL, 1070},
                      {"held whole", FAIL, 1070 + 1000},
                      {"!CloseHandle#14=112 whole", NO_SPACE, ANY}, // of the part file
                      {"!CloseHandle#15=112 whole", NO_SPACE, ANY}, // and once more, with its rest
                      {"open p1 again lost sent >ack", FAIL, ANY},
                      {"noroom open p1 -614400 >abort", NO_SPACE, 530},
                      {"noroom open p1 >abort", NO_SPACE, 530 + 3010},
                      {"noroom open p1 !WritePipe", NO_SPACE, 530 + 3010},
                      {"noroom !WriteFile open p1 >abort", NO_SPACE, 530 + 3010},
                      // A cancel, where the worker looks and nowhere else.
                      {">request cancel@100 >abort", CANCELLED, FAILED_TRY_MS + SWALLOW},
                      {">request cancel@100 hang", GONE, FAILED_TRY_MS + SWALLOW + 508},
                      {"open cancel@610 >abort", CANCELLED, 510 + 1024 + SWALLOW},
                      {"open p1 cancel@610", PROTOCOL, 530 + 1024},
                      {"open p1 p2 cancel@610 p3@1000 >abort", CANCELLED, 1510},
                      {"open p1 cancel@610 bad@1000 >abort", CANCELLED, 1010}});
}

} // namespace
