// Reads and writes by handle: streams of all sizes in their time, resends, and every way in which a
// stream ends.

#include "tests/library/library_run.h"
#include "transfer/io_buf.h"

namespace {

void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{0xFFFFFFFE});
constexpr std::size_t DATA = DAK_DATA_SIZE;
constexpr std::uint64_t STREAM_MS = LINK_UP_MS + READ_MS; // the command has been acknowledged

// A write or a read, and its words (CRun::Stream).
struct CFileStream : CRun {
    CFileStream(std::uint16_t codeFunc, std::size_t dwBytes, const std::string& strName = {})
        : CRun(std::to_string(dwBytes) + " " + strName), code(codeFunc), data(Pattern(dwBytes)) {
        world.bTrace = false;
        // An earlier stream has left these.
        Access::m_dwRecvPackages(*dak) = Access::m_dwSentPackages(*dak) = 7;
        Access::m_nResendCount(*dak) = 7;
        const Bytes size = U32(static_cast<DWORD>(dwBytes));
        strWhole = Stream(code, IsRead() ? Join(size, data) : data, !IsRead(), false);
        packages["done"] = Response(code, 1);
        buffer = IsRead() ? Bytes(dwBytes, 0xEE) : data;
        buffer.push_back(0xEE);
        device.ExpectCommand(code, U32(0xFFFFFFFE), size).At(LINK_UP_MS);
        device.Reply(Ack()).Do([this] { EXPECT_TRUE(dak->IsTransmitting()); });
    }
    bool IsRead() const { return code == DAK_FUNC_READ_FILE; }
    // qwMs: of the stream and what follows it, up to the closing.
    void Expect(DWORD dwResult, DWORD dwError, std::size_t dwExpected,
                std::optional<std::uint64_t> qwMs = {}) {
        const auto call = IsRead() ? &CDAKVorn::DAKReadFile : &CDAKVorn::DAKWriteFile;
        const auto dwBytes = static_cast<DWORD>(data.size());
        DWORD dwCount = 77;
        EXPECT_EQ(((*dak).*call)(FILE_HANDLE, buffer.data(), dwBytes, &dwCount), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwError);
        ASSERT_EQ(dwCount, dwExpected);
        EXPECT_TRUE(std::equal(data.begin(), data.begin() + dwCount, buffer.begin()));
        EXPECT_TRUE(!IsRead() || buffer[dwCount] == 0xEE) << "nothing behind what was delivered";
        EXPECT_FALSE(dak->IsTransmitting());
        const std::uint64_t qwClosing = world.IsPlugged() ? READ_MS : 0;
        EXPECT_EQ(world.NowMs(), qwMs ? STREAM_MS + *qwMs + qwClosing : world.NowMs());
    }

    std::uint16_t code;
    Bytes data;
    Bytes buffer; // with one byte behind
    std::string strWhole;
};

// A read costs two reads for each package and 500 ms for each acknowledgement, a write a verdict
// behind packages 1, 51 and so on, and the last.
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
        run.Play(run.strWhole + (run.IsRead() ? "" : "done"));
        run.Expect(0, 0, dwSize,
                   run.IsRead() ? qwPackages * 2 * READ_MS + qwWindows * 500
                                : qwWindows * (READ_MS + RETRY_BASE_MS) + READ_MS);
    }
    CFileStream run(16, 0);
    run.Play(run.strWhole);
    run.Expect(FAIL, 0, 0, 2 * READ_MS + 500);
}

// The final package is answered by DAK_RETRANSMIT so many times, then by DAK_SUCCESS; the answer to
// the tenth pass does not count.
TEST(FileStream, Resends) {
    const struct {
        int nPackages;
        int nFirst; // of the window
        int nRetransmits;
        std::uint64_t qwMs; // of the verdicts and the pauses ahead of each pass
    } rows[] = {{1, 1, 1, 160},
                {7, 2, 0, 140},
                {7, 2, 1, 230},
                {7, 2, 9, 140 + 9 * 70 + 900},
                {7, 2, 10, 80 + 10 * 70 + 1100},
                {7, 2, 11, 80 + 10 * 70 + 1100},
                {51, 2, 2, 340},
                {52, 52, 1, 300}};
    for (const auto& row : rows) {
        CFileStream run(17, static_cast<std::size_t>(row.nPackages - 1) * DATA + 500,
                        "resent " + std::to_string(row.nRetransmits));
        std::string strPass;
        for (int i = row.nFirst; i <= row.nPackages; ++i) {
            strPass += " >s" + std::to_string(i);
        }
        const auto nLast = run.strWhole.rfind("ack");
        run.Play(run.strWhole.substr(0, nLast) +
                 Times(std::min(row.nRetransmits, 10), "retransmit" + strPass));
        const bool bGood = row.nRetransmits < 10;
        run.Play(row.nRetransmits > 10 ? "retransmit" : bGood ? "ack done" : "ack");
        bGood ? run.Expect(0, 0, run.data.size(), row.qwMs + READ_MS)
              : run.Expect(FAIL, PROTOCOL, 6 * DATA, row.qwMs);
    }
}

struct CRow {
    std::string strWords;
    DWORD dwResult;
    DWORD dwError;
    std::size_t dwCount;
    std::optional<std::uint64_t> qwMs = {};
};

void ExpectEach(std::uint16_t code, std::size_t dwBytes, const std::vector<CRow>& rows) {
    for (const CRow& row : rows) {
        CFileStream run(code, dwBytes, row.strWords);
        run.packages.merge(std::map<std::string, Bytes>{
            {"strange", Control(0xFFFFE000)},
            {"leaves", Control(DAK_DISCONNECT)},
            {"full", Response(17, -1)},
            {"refused", Response(17, -2)},
            {"two", Response(17, 2)},
            {"bad", DataPackage(DAK_REPLY_PACKAGE, 17, {})},
            {"five", DataPackage(DAK_LAST_REPLY, 16, Join(U32(5), Pattern(5)))},
            {"toomany", DataPackage(DAK_REPLY_PACKAGE, 16, U32(20001))},
            {"count", DataPackage(DAK_REPLY_PACKAGE, 16, U32(20000))},
            {"nothing", DataPackage(DAK_REPLY_PACKAGE, 16, {})}});
        run.Play(row.strWords);
        run.Expect(row.dwResult, row.dwError, row.dwCount, row.qwMs);
    }
}

TEST(FileStream, WritesThatEndInEachWay) {
    ExpectEach(17, 486,
               {{">p1 gone?1 ack", FAIL, 0, 486, 10 + 60 + 10 + 500},
                {">p1 cancel@100 ack@500 done", 0, 0, 486, 500 + 60 + 10},
                {"!WritePipe", FAIL, GONE, 0, 0},
                {"hang", FAIL, GONE, 0, 1000},
                {"!CreateThread#2", FAIL, GONE, 0, 0},
                {">p1 retransmit !WritePipe", FAIL, GONE, 0, 90},
                {">p1 retransmit !WritePipe cancel@50", FAIL, CANCELLED, 0, 90},
                {">p1 abort", FAIL, PROTOCOL, 0, 10},
                {">p1 strange", FAIL, PROTOCOL, 0, 10},
                {">p1", FAIL, PROTOCOL, 0, READS_AT_MOST * (10 + 12788 + 500)},
                {">p1 retransmit cancel@50 >a1 abort", FAIL, CANCELLED, 0, 100},
                {">p1 gone@100", FAIL, GONE, 0, 600},
                {">p1 gone?1 retransmit", FAIL, GONE, 0, 10},
                {">p1 gone?2 retransmit", FAIL, GONE, 0, 10},
                {">p1 gone?3 retransmit", FAIL, GONE, 0, 600},
                {">p1 gone?4 retransmit >s1", FAIL, GONE, 0, 600},
                {">p1 gone?5 retransmit >s1 retransmit", FAIL, GONE, 0, 100}});
    ExpectEach(17, 20000,
               {{">p1 ack >p2 ack full", FAIL, NO_SPACE, 20000},
                {">p1 ack >p2 ack refused", FAIL, REFUSED, 20000},
                {">p1 ack >p2 ack two", FAIL, 0, 20000},
                {">p1 gone@100", FAIL, GONE, 0},
                {">p1 abort", FAIL, GONE, 0},
                {"cancel >a1", FAIL, GONE, 0, 0},
                {">p1 ack cancel@30 50*>a2", FAIL, CANCELLED, DATA, 70},
                {">p1 ack >p2 leaves", FAIL, PROTOCOL, DATA},
                {"-12288", FAIL, FAIL, 0, 0}});
    // A cancel in the middle of a pass: the rest of it are abort packages, and so is the next one.
    // What the device confirms after all is confirmed.
    const std::string strPass =
        ">p1 ack >p2 >p3 >p4 >p5 >p6 >p7 retransmit >s2 >s3 >s4 cancel 3*>a2 ";
    ExpectEach(17, 7 * DATA,
               {{strPass + "retransmit 6*>a2 ack done", 0, 0, 7 * DATA},
                {">p1 ack >p2 >p3 >p4 cancel 47*>a2", FAIL, GONE, 4 * DATA},
                {">p1 ack >p2 >p3 >p4 cancel gone?4 4*>a2", FAIL, GONE, 4 * DATA},
                {">p1 ack >p2 >p3 >p4 cancel 2*>a2 !WritePipe", FAIL, GONE, 4 * DATA}});
}

TEST(FileStream, ReadsThatEndInEachWay) {
    ExpectEach(16, 20000,
               {{"five >ack", 0, 0, 5},
                {"toomany >abort@340", FAIL, PROTOCOL, 0},
                {"gone@50", FAIL, GONE, 0},
                {"disconnect", FAIL, GONE, 0},
                {"p1 gone@500", 0, 0, 12270},
                {"count gone@500", FAIL, GONE, 0},
                {"p1 nothing >abort", 0, 0, 12270},
                {"count nothing >abort", FAIL, PROTOCOL, 0},
                {"p1 bad >retransmit p1 p2 >ack", 0, 0, 20000},
                {"cancel@80", FAIL, PROTOCOL, 0},
                {"cancel@25 p1 p2 >abort", 0, 0, 12270},
                {"-12288", FAIL, FAIL, 0}});
}

} // namespace
