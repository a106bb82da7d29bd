// What of the two streams no operation shows by itself: the receiver's states one by one, the
// number of abort packages, and a sender that goes on after failures.

#include "tests/library/library_run.h"
#include "transfer/io_buf.h"

namespace {

constexpr WORD CODE = DAK_FUNC_TRANSMIT_FILES;
constexpr DWORD KEPT = 77; // m_dwErrCode as it was ahead of the call

// An object whose device is open, in the middle of an operation.
struct CLink : CRun {
    explicit CLink(const std::string& strName = {}) : CRun(strName) {
        world.bTrace = false;
        Access::OpenDevice(*dak);
        Access::m_bCopying(*dak) = 1;
        Access::m_dwSentPackages(*dak) = 1;
        Access::m_dwErrCode(*dak) = KEPT;
        world.WriteHostFile("C:/f", Bytes(100));
        EXPECT_EQ(g_IoBuf.InitIoBuf(16, "C:/f"), 1);
    }
    ~CLink() {
        Cancel();
        g_IoBuf.DeinitIoBuf();
    }
    int Send(unsigned uSeed, bool bLast = false) {
        return Access::SendDataPackage(*dak, FullPackage(uSeed).data(), DAK_PACKAGE_SIZE,
                                       bLast ? 1 : 0);
    }
    static Bytes FullPackage(unsigned uSeed) {
        return DataPackage(DAK_PACKAGE, CODE, Pattern(DAK_DATA_SIZE, uSeed));
    }
};

// A stream that goes on after failures, as its owner closes it, stays within the resend buffer; a
// confirmed one leaves it empty.
TEST(Sender, GoesOnAfterFailures) {
    CLink link;
    link.world.FailCall(ECall::WritePipe, 1, 0, 60);
    for (unsigned u = 1; u <= 60; ++u) {
        EXPECT_EQ(link.Send(u), 0);
    }
    link.Play("> retransmit");
    for (unsigned u = 1; u <= 50; ++u) {
        link.device.Expect(link.FullPackage(u < 50 ? u : 61));
    }
    link.Play("ack");
    EXPECT_EQ(link.Send(61, true), 1);
    const BYTE* const lpSlots = Access::m_lpResendBuf(*link.dak);
    EXPECT_EQ(std::count(lpSlots, lpSlots + DAK_WINDOW_SIZE, 0), DAK_WINDOW_SIZE);
}

// The packages of the device that the receiver's words name: good and last have 17 bytes.
std::map<std::string, Bytes> Received() {
    const Bytes good = DataPackage(DAK_REPLY_PACKAGE, CODE, {1, 2, 3});
    const auto head = [](DWORD dwLength, DWORD dwWord = DAK_REPLY_PACKAGE) {
        return Join(U32(dwWord), U32(dwLength), U32(CODE), U16(CODE));
    };
    std::map<std::string, Bytes> packages = {
        {"good", good},
        {"last", DataPackage(DAK_LAST_REPLY, CODE, {1, 2, 3})},
        {"empty", DataPackage(DAK_LAST_REPLY, CODE, {})},
        {"bad", good},
        {"word", good},
        {"code", DataPackage(DAK_REPLY_PACKAGE, CODE + 1, {1})},
        {"cut", Bytes(good.begin(), good.end() - 1)},
        {"head", Bytes(good.begin(), good.begin() + 14)},
        {"long", head(12281)},
        {"short", head(5)},
        {"longleave", head(12281, DAK_DISCONNECT)},
        {"shortleave", Control(DAK_DISCONNECT)},
        {"leave", Handshake(DAK_DISCONNECT)}};
    ++packages["bad"][DAK_OFFSET_CHECKSUM];
    DakPutU32(packages["word"].data(), DAK_PACKAGE);
    return packages;
}

TEST(Receiver, EndsInEachWay) {
    constexpr std::uint64_t SILENCE = READS_AT_MOST * FAILED_HEAD_TRY_MS;
    const std::string strBad = "bad >retransmit ";
    const struct {
        std::string strWords;
        DWORD dwErrCode;
        std::uint64_t qwMs;
        DWORD dwBytes = 0;    // of the package that was delivered
        DWORD dwAccepted = 0; // ahead of it
    } rows[] = {
        {"", 2, SILENCE, 0, 1},
        {"abort", 2, 10},
        {"leave", GONE, 20},
        {"longleave", GONE, 10},
        {"cut", 2, 20},
        {"head", 2, 20 + 503},
        {"gone@100", GONE, 600},
        {"head gone@100", GONE, 100},
        {"bad !WritePipe", GONE, 20},
        {"last !WritePipe", GONE, 20},
        {"empty >ack", 0, 510, 14},
        // A recovery, with the 100 ms of an object whose delays were not reckoned.
        {"word >retransmit good", 0, 140, 17},
        {"code >retransmit good", 0, 140, 17},
        {"short >retransmit good", 0, 130, 17},
        {"long >retransmit good", 0, 130, 17},
        {strBad + "long >retransmit good", 0, 250, 17},
        {Times(11, strBad) + "good", 0, 1340, 17},
        {Times(11, strBad) + "bad", 2, 1340},
        {strBad + "shortleave", GONE, 130},
        {strBad + "leave", GONE, 140},
        {strBad + "cut >retransmit good", 0, 260, 17},
        {strBad + "ack >retransmit good", 0, 250, 17},
        {"bad 11*>retransmit", 2, 20 + 11 * (100 + SILENCE)},
        {"gone@50 " + strBad, GONE, 120},
        {"gone@200 " + strBad, GONE, 700},
        // Packages that are dropped.
        {strBad + "5*good bad good", 0, 260, 17, 6},
        {strBad + "ack cut last good", 0, 190, 17, 3},
        {strBad + "good long", 2, 150, 0, 2},
        {strBad + "good head", GONE, 150 + 513, 0, 2},
        {"gone@145 " + strBad + "good", GONE, 650, 0, 2},
        {strBad + In("good", 100 + SILENCE + 5), 0, 140 + SILENCE, 17, 1}, // one never comes
        // A cancel.
        {"cancel@100", 2, 1024},
        {"cancel@100 gone@200", GONE, 700},
        {"cancel good", 0, 20, 17},
        {"cancel leave", 0, 20, 20},
        {"cancel long", 0, 10, 8},
        {"cancel last >abort", 1, 520},
        {"cancel last !WritePipe", GONE, 20},
        {"last cancel@100 >ack", KEPT, 520, 17}, // in the pause behind it
        {"cancel@50 " + strBad + "ack", 0, 130, 8},
        {"cancel@50 " + strBad + "last >abort", 1, 640},
        // No room for the data.
        {"full good >abort", 3, 10},
        {"full >abort", 3, 3010, 0, 1},
        {"full -614400 good >abort", 3, 0},
        {"full good !WritePipe", 3, 10},
    };
    for (const auto& row : rows) {
        CLink link(row.strWords);
        link.packages.merge(Received());
        link.actions["full"] = [&] { Access::m_dwErrCode(*link.dak) = NO_SPACE; };
        link.Play(row.strWords);
        Access::m_dwRecvPackages(*link.dak) = row.dwAccepted;
        Access::m_nResendCount(*link.dak) = static_cast<int>(row.dwAccepted);
        Bytes buffer(DAK_PACKAGE_SIZE + 64, 0xEE);
        DWORD dwBytes = 0;
        int bEnd = 0;
        EXPECT_EQ(Access::ReceiveDataPackage(*link.dak, buffer.data(), dwBytes, bEnd, CODE),
                  row.dwBytes != 0 ? 1 : 0);
        EXPECT_EQ(std::count(buffer.end() - 64, buffer.end(), 0xEE), 64);
        EXPECT_EQ(link.dak->GetLastError(), row.dwErrCode);
        EXPECT_EQ(link.world.NowMs(), row.qwMs);
        if (row.dwBytes != 0) {
            EXPECT_EQ(dwBytes, row.dwBytes);
            EXPECT_EQ(Access::m_dwRecvPackages(*link.dak), row.dwAccepted + 1);
        }
    }
}

} // namespace
