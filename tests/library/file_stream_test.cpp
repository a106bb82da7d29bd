// Reads and writes by handle: streams of all sizes in their time, resends, and every way in which a
// stream ends.

#include "tests/library/library_run.h"
#include "transfer/io_buf.h"

namespace {

void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{0xFFFFFFFE});
constexpr std::size_t DATA = DAK_DATA_SIZE;
constexpr std::uint64_t STREAM_MS = LINK_UP_MS + READ_MS; // the command has been acknowledged
constexpr DWORD FAIL = DAKERROR_FAIL;
constexpr DWORD GONE = DAKERROR_NO_DEVICE;

// A write or a read. The packages of its stream are called p1, p2 and so on; s2 is p2 as it is
// sent again, in full, and a2 as it tells of a cancel.
struct CStreamRun : CRun {
    CStreamRun(std::uint16_t codeFunc, std::size_t dwBytes, const std::string& strName = {})
        : CRun(std::to_string(dwBytes) + " " + strName), code(codeFunc), data(Pattern(dwBytes)) {
        const bool bRead = code == DAK_FUNC_READ_FILE;
        const Bytes size = U32(static_cast<DWORD>(dwBytes));
        stream =
            bRead ? StreamPackages(code, Join(size, data), DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false)
                  : StreamPackages(code, data, DAK_PACKAGE, DAK_LAST_PACKAGE, false);
        for (std::size_t i = 0; i < stream.size(); ++i) {
            const std::string strNumber = std::to_string(i + 1);
            Bytes slot = stream[i];
            packages["p" + strNumber] = slot;
            slot.resize(DAK_PACKAGE_SIZE);
            packages["s" + strNumber] = slot;
            DakPutHeader(slot.data(), DAK_ABORT, 0);
            packages["a" + strNumber] = slot;
        }
        packages["done"] = Response(code, 1);
        buffer = bRead ? Bytes(dwBytes + 1, 0xEE) : data;
        buffer.resize(dwBytes + 1, 0xEE);
        device.ExpectCommand(code, U32(0xFFFFFFFE), size).At(LINK_UP_MS);
        device.Reply(Ack()).Do([this] { EXPECT_TRUE(dak->IsTransmitting()); });
    }
    // qwMs: of the stream and what follows it, up to the closing.
    void Check(DWORD dwResult, DWORD dwError, std::size_t dwExpected,
               std::optional<std::uint64_t> qwMs = {}) {
        const auto call =
            code == DAK_FUNC_READ_FILE ? &CDAKVorn::DAKReadFile : &CDAKVorn::DAKWriteFile;
        DWORD dwCount = 77;
        EXPECT_EQ(
            ((*dak).*call)(FILE_HANDLE, buffer.data(), static_cast<DWORD>(data.size()), &dwCount),
            dwResult);
        EXPECT_EQ(dak->GetLastError(), dwError);
        EXPECT_EQ(dwCount, dwExpected);
        EXPECT_TRUE(std::equal(data.begin(), data.begin() + dwCount, buffer.begin()));
        EXPECT_EQ(buffer[dwCount], dwCount == data.size() ? 0xEE : buffer[dwCount]);
        EXPECT_FALSE(dak->IsTransmitting());
        EXPECT_EQ(device.PendingPackages(), 0u);
        const std::uint64_t qwClosing = world.IsPlugged() ? READ_MS : 0;
        EXPECT_EQ(world.NowMs(), qwMs ? STREAM_MS + *qwMs + qwClosing : world.NowMs());
    }

    std::uint16_t code;
    Bytes data;
    Bytes buffer; // with one byte behind
    std::vector<Bytes> stream;
};

TEST(FileStream, ReadsOfAllSizesInTheirTime) {
    for (const std::size_t dwSize :
         {std::size_t{0}, std::size_t{1}, DATA - 4, DATA - 3, DATA, DATA + 1, 49 * DATA - 4,
          49 * DATA - 3, 50 * DATA - 4, 50 * DATA - 3, 100 * DATA - 4}) {
        CStreamRun run(DAK_FUNC_READ_FILE, dwSize);
        std::uint64_t qwMs = 0;
        for (std::size_t i = 1; i <= run.stream.size(); ++i) {
            run.device.Reply(run.stream[i - 1]);
            qwMs += 2 * READ_MS; // head and body
            if (i % 50 == 0 || i == run.stream.size()) {
                run.Play(In(">ack", STREAM_MS + qwMs));
                qwMs += 500;
            }
        }
        run.Check(dwSize == 0 ? FAIL : 0, 0, dwSize, qwMs);
    }
}

TEST(FileStream, WritesOfAllSizesInTheirTime) {
    for (const std::size_t dwSize : {std::size_t{0}, std::size_t{1}, DATA, DATA + 1, 50 * DATA,
                                     50 * DATA + 1, 51 * DATA, 51 * DATA + 1, 101 * DATA + 5}) {
        CStreamRun run(DAK_FUNC_WRITE_FILE, dwSize);
        std::uint64_t qwMs = 0;
        for (std::size_t i = 1; i <= run.stream.size(); ++i) {
            run.device.Expect(run.stream[i - 1]).At(STREAM_MS + qwMs);
            if (i % 50 == 1 || i == run.stream.size()) {
                run.device.Reply(Ack());
                qwMs += READ_MS + RETRY_BASE_MS;
            }
        }
        run.Play("done");
        run.Check(0, 0, dwSize, qwMs + READ_MS);
    }
}

// The final package is answered by DAK_RETRANSMIT so many times, then by DAK_SUCCESS; the answer to
// the tenth pass does not count.
TEST(FileStream, Resends) {
    const struct {
        std::size_t dwPackages;
        std::size_t dwLast; // bytes in the last
        int nRetransmits;
    } rows[] = {{1, DATA, 1}, {7, 500, 0}, {7, 500, 1},  {7, 500, 9},  {7, 500, 10},
                {7, 500, 11}, {51, 1, 2},  {52, 500, 1}, {50, DATA, 1}};
    for (const auto& row : rows) {
        CStreamRun run(DAK_FUNC_WRITE_FILE, (row.dwPackages - 1) * DATA + row.dwLast,
                       "resent " + std::to_string(row.nRetransmits));
        std::uint64_t qwMs = STREAM_MS;
        std::size_t dwFirst = 1; // of the window
        for (std::size_t i = 1; i <= row.dwPackages; ++i) {
            run.Play(In(">p" + std::to_string(i), qwMs));
            if (i % 50 == 1 && i < row.dwPackages) {
                run.Play("ack");
                qwMs += READ_MS + RETRY_BASE_MS;
                dwFirst = i + 1;
            }
        }
        for (int nPass = 1; nPass <= std::min(row.nRetransmits, 10); ++nPass) {
            run.Play("retransmit");
            qwMs += READ_MS + static_cast<std::uint64_t>(20 * nPass) + RETRY_BASE_MS;
            for (std::size_t i = dwFirst; i <= row.dwPackages; ++i) {
                run.Play(In(">s" + std::to_string(i), qwMs));
            }
        }
        const bool bGood = row.nRetransmits < 10;
        run.Play(row.nRetransmits > 10 ? "retransmit" : bGood ? "ack done" : "ack");
        bGood ? run.Check(0, 0, run.data.size(), qwMs - STREAM_MS + 2 * READ_MS + RETRY_BASE_MS)
              : run.Check(FAIL, DAKERROR_PROTOCOL, 6 * DATA, qwMs - STREAM_MS + READ_MS);
    }
}

// Every way in which a write or a verdict ends.
TEST(FileStream, WritesThatEndInEachWay) {
    struct CRow {
        std::string strWords;
        DWORD dwResult;
        DWORD dwError;
        std::size_t dwCount;
        std::optional<std::uint64_t> qwMs = {};
    };
    const auto check = [](std::size_t dwBytes, const std::vector<CRow>& rows) {
        for (const CRow& row : rows) {
            CStreamRun run(DAK_FUNC_WRITE_FILE, dwBytes, row.strWords);
            run.packages["strange"] = Control(0xFFFFE000);
            run.packages["leaves"] = Control(DAK_DISCONNECT);
            run.packages["full"] = Response(17, -1);
            run.packages["refused"] = Response(17, -2);
            run.packages["two"] = Response(17, 2);
            run.actions["nomemory"] = [&] { run.world.dwFailAllocationsOf = DAK_PACKAGE_SIZE; };
            run.Play(row.strWords);
            run.Check(row.dwResult, row.dwError, row.dwCount, row.qwMs);
        }
    };
    check(486, {{">p1 gone?1 ack", FAIL, 0, 486, 10 + 60 + 10 + 500},
                {">p1 cancel@100 ack@500 done", 0, 0, 486, 500 + 60 + 10},
                {"!WritePipe", FAIL, GONE, 0, 0},
                {"hang", FAIL, GONE, 0, 1000},
                {"!CreateThread#2", FAIL, GONE, 0, 0},
                {">p1 retransmit !WritePipe", FAIL, GONE, 0, 90},
                {">p1 retransmit !WritePipe cancel@50", FAIL, DAKERROR_CANCELLED, 0, 90},
                {">p1 abort", FAIL, DAKERROR_PROTOCOL, 0, 10},
                {">p1 strange", FAIL, DAKERROR_PROTOCOL, 0, 10},
                {">p1", FAIL, DAKERROR_PROTOCOL, 0, READS_AT_MOST * (10 + 12788 + 500)},
                {">p1 retransmit cancel@50 >a1 abort", FAIL, DAKERROR_CANCELLED, 0, 100},
                {">p1 gone@100", FAIL, GONE, 0, 600},
                {">p1 gone?1 retransmit", FAIL, GONE, 0, 10},
                {">p1 gone?2 retransmit", FAIL, GONE, 0, 10},
                {">p1 gone?3 retransmit", FAIL, GONE, 0, 600},
                {">p1 gone?4 retransmit >s1", FAIL, GONE, 0, 600},
                {">p1 gone?5 retransmit >s1 retransmit", FAIL, GONE, 0, 100}});
    check(20000, {{">p1 ack >p2 ack full", FAIL, DAKERROR_NO_SPACE, 20000},
                  {">p1 ack >p2 ack refused", FAIL, DAKERROR_DEVICE_REFUSED, 20000},
                  {">p1 ack >p2 ack two", FAIL, 0, 20000},
                  {">p1 gone@100", FAIL, GONE, 0},
                  {">p1 abort", FAIL, GONE, 0},
                  {"cancel >a1", FAIL, GONE, 0, 0},
                  {">p1 ack cancel@30 " + Times(50, ">a2"), FAIL, DAKERROR_CANCELLED, DATA, 70},
                  {">p1 ack >p2 gone@100", FAIL, GONE, DATA},
                  {">p1 ack >p2 leaves", FAIL, DAKERROR_PROTOCOL, DATA},
                  {"nomemory", FAIL, FAIL, 0, 0}});
    // A cancel in the middle of a pass: the rest of it are abort packages, and so is the next one.
    // What the device confirms after all is confirmed.
    check(7 * DATA, {{">p1 ack >p2 >p3 >p4 >p5 >p6 >p7 retransmit >s2 >s3 >s4 cancel 3*>a2 "
                      "retransmit 6*>a2 ack done",
                      0, 0, 7 * DATA}});
}

TEST(FileStream, ReadsThatEndInEachWay) {
    const struct {
        std::string strWords;
        DWORD dwResult;
        DWORD dwError;
        std::size_t dwCount;
    } rows[] = {{"five >ack", 0, 0, 5},
                {"toomany >abort@340", FAIL, DAKERROR_PROTOCOL, 0},
                {"gone@50", FAIL, GONE, 0},
                {"disconnect", FAIL, GONE, 0},
                {"p1 gone@500", 0, 0, 12270},
                {"count gone@500", FAIL, GONE, 0},
                {"p1 nothing >abort", 0, 0, 12270},
                {"count nothing >abort", FAIL, DAKERROR_PROTOCOL, 0},
                {"p1 bad >retransmit p1 p2 >ack", 0, 0, 20000},
                {"cancel@80", FAIL, DAKERROR_PROTOCOL, 0},
                {"cancel@25 p1 p2 >abort", 0, 0, 12270},
                {"nomemory", FAIL, FAIL, 0}};
    for (const auto& row : rows) {
        CStreamRun run(DAK_FUNC_READ_FILE, 20000, row.strWords);
        run.packages["bad"] = run.packages["p2"];
        run.packages["bad"][20] ^= 1;
        run.packages["five"] = DataPackage(
            DAK_LAST_REPLY, 16, Join(U32(5), Bytes(run.data.begin(), run.data.begin() + 5)));
        run.packages["toomany"] = StreamPackages(16, Join(U32(20001), run.data), DAK_REPLY_PACKAGE,
                                                 DAK_LAST_REPLY, false)[0];
        run.packages["count"] = DataPackage(DAK_REPLY_PACKAGE, 16, U32(20000));
        run.packages["nothing"] = DataPackage(DAK_REPLY_PACKAGE, 16, {});
        run.actions["nomemory"] = [&] { run.world.dwFailAllocationsOf = DAK_PACKAGE_SIZE; };
        run.Play(row.strWords);
        run.Check(row.dwResult, row.dwError, row.dwCount);
    }
}

} // namespace
