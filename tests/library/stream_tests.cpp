// The bulk streams in both directions, and the fields laid over them, against a device that checks
// every byte and the exact virtual time.

#include "link/debug_trace.h"
#include "link/shared_word.h"
#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"
#include "transfer/io_buf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

using Access = CDAKVornTestAccess;
using sim::Bytes;
using sim::Control;
using sim::DataPackage;
using sim::ECall;

constexpr WORD CODE = DAK_FUNC_TRANSMIT_FILES;
constexpr std::uint64_t BASE_MS = 100; // m_dwRetryBase of an object that was not calibrated
constexpr std::uint64_t HEAD_WAIT_MS = 1201ull * (10 + 514 + 500); // a silent device
constexpr DWORD GONE = DAKERROR_NO_DEVICE;

std::vector<std::string> g_lines;

// An object whose device is open, in the middle of an operation.
struct CLink {
    CLink() {
        world.bTrace = false;
        SetDebugTraceSink([](const char* lpszLine) { g_lines.emplace_back(lpszLine); });
        EXPECT_EQ(Access::OpenDevice(dak), 1);
        Access::m_bCopying(dak) = 1;
        Access::m_dwSentPackages(dak) = 1;
        world.WriteHostFile("C:/f", Bytes(100));
        EXPECT_EQ(g_IoBuf.InitIoBuf(16, "C:/f"), 1);
        g_lines.clear();
    }
    ~CLink() {
        Access::m_bCopying(dak) = 0;
        g_IoBuf.DeinitIoBuf();
        SetDebugTraceSink(nullptr);
    }
    void Cancel() { StoreShared(Access::m_bCopying(dak), BOOL{0}); }
    static bool IsReadAheadOpen() {
        DWORD dwHigh = 0;
        return g_IoBuf.IoGetFileSize(&dwHigh) != 0;
    }
    // Sends a package as it is to look on the wire; what lies behind it in the buffer is 5A.
    int Send(Bytes wire, bool bLast) {
        const auto dwBytes = static_cast<DWORD>(wire.size());
        wire.resize(DAK_PACKAGE_SIZE, 0x5A);
        DakPutU32(wire.data() + DAK_OFFSET_CHECKSUM, 0);
        return Access::SendDataPackage(dak, wire.data(), dwBytes, bLast ? 1 : 0);
    }
    // Receives a package into buffer, behind which nothing may be written.
    int Receive() {
        Access::m_nResendCount(dak) = static_cast<int>(Access::m_dwRecvPackages(dak));
        buffer.assign(DAK_PACKAGE_SIZE + 64, 0xEE);
        const int nResult =
            Access::ReceiveDataPackage(dak, buffer.data(), dwPackageBytes, bEnd, CODE);
        EXPECT_EQ(std::count(buffer.end() - 64, buffer.end(), 0xEE), 64);
        buffer.resize(std::min<std::size_t>(dwPackageBytes, DAK_PACKAGE_SIZE));
        return nResult;
    }
    // What the host has written, control packages alone: a letter for each.
    std::string Controls() const {
        std::string strLetters;
        for (const auto& package : device.Packages()) {
            const DWORD dwWord = DakGetU32(package.bytes.data());
            EXPECT_EQ(package.bytes, Control(dwWord));
            strLetters += dwWord == DAK_SUCCESS      ? 'S'
                          : dwWord == DAK_RETRANSMIT ? 'R'
                          : dwWord == DAK_ABORT      ? 'A'
                                                     : '?';
        }
        return strLetters;
    }
    // Takes what the host writes, and lays the packages ready for the first DAK_RETRANSMIT.
    void OnRetransmit(std::vector<Bytes> packages) {
        device.onPackage = [this, packages = std::move(packages)](const Bytes& got) mutable {
            if (DakGetU32(got.data()) == DAK_RETRANSMIT) {
                std::ranges::for_each(packages, [this](const Bytes& one) { device.Give(one); });
                packages.clear();
            }
        };
    }

    sim::CWorld world;
    sim::CScriptedDevice device{world};
    CDAKVorn dak;
    Bytes buffer;
    DWORD dwPackageBytes = 0;
    int bEnd = 0;
};

// What happens to a call, put together with +.
using Event = std::function<void(CLink&)>;
Event operator+(const Event& first, const Event& second) {
    return [=](CLink& link) { first(link), second(link); };
}
Event CancelAfter(std::uint64_t qwMs) {
    return [=](CLink& link) { link.world.At(qwMs, [&link] { link.Cancel(); }); };
}
Event VanishAfter(std::uint64_t qwMs) {
    return [=](CLink& link) { link.world.At(qwMs, [&link] { link.world.Unplug(); }); };
}
Event VanishAt(std::uint64_t nQuestion) {
    return [=](CLink& link) { link.world.UnplugAtQuestion(nQuestion); };
}
Event Fail(ECall eCall, std::uint64_t nNumber = 1) {
    return [=](CLink& link) { link.world.FailCall(eCall, nNumber); };
}
// One answer for each package of the host, the last one for all that follow; empty: silence.
Event Answer(Bytes first, Bytes then) {
    return [=](CLink& link) {
        link.device.onPackage = [&link, first, then](const Bytes&) {
            const Bytes& answer = link.device.Packages().size() == 1 ? first : then;
            answer.empty() ? void() : link.device.Give(answer);
        };
    };
}
Event Answer(DWORD dwWord) {
    return Answer(Control(dwWord), Control(dwWord));
}
// A package, and those that come for the first DAK_RETRANSMIT.
template <class... TMore>
Event Give(const Bytes& first, const TMore&... again) {
    return [=](CLink& link) { link.device.Give(first), link.OnRetransmit({again...}); };
}
Event More(const Bytes& package, int nTimes = 1) {
    return [=](CLink& link) {
        for (int i = 0; i < nTimes; ++i) {
            link.device.Give(package);
        }
    };
}
Event Accepted(DWORD dwPackages) {
    return [=](CLink& link) { Access::m_dwRecvPackages(link.dak) = dwPackages; };
}

Bytes FullPackage(unsigned uSeed) {
    return DataPackage(DAK_PACKAGE, CODE, sim::Pattern(DAK_DATA_SIZE, uSeed));
}
Bytes Reply(unsigned uSeed, bool bLast = false, std::size_t dwData = 3) {
    const DWORD dwWord = bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE;
    return DataPackage(dwWord, CODE, sim::Pattern(dwData, uSeed));
}
Bytes Spoilt(Bytes package) {
    ++package[DAK_OFFSET_CHECKSUM];
    return package;
}
Bytes HeadOfLength(DWORD dwLength, DWORD dwWord = DAK_REPLY_PACKAGE) {
    return sim::Join(sim::U32(dwWord), sim::U32(dwLength), sim::U32(CODE), sim::U16(CODE));
}
Bytes Behind(const Bytes& bytes, std::size_t dwFrom) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(dwFrom), bytes.end());
}

TEST(Sender, ChecksumOfHighBytes) {
    CLink link;
    link.device.Reply(sim::Ack()).ExpectThat([](const Bytes& got) {
        EXPECT_EQ(DakGetU32(got.data() + 8), 3129878u);
    });
    const Bytes high(DAK_DATA_SIZE, 0xFF);
    EXPECT_EQ(link.Send(DataPackage(DAK_LAST_PACKAGE, CODE, high), true), 1);
}

TEST(Sender, Resends) {
    const struct {
        unsigned uPackages;
        std::size_t dwFinal;
        unsigned uRetransmits; // answers ahead of DAK_SUCCESS
    } cases[] = {{1, 12288, 1}, {7, 500, 0}, {7, 500, 1},  {7, 500, 9},   {7, 500, 10},
                 {7, 500, 11},  {51, 14, 2}, {52, 500, 1}, {50, 12288, 1}};
    for (const auto& row : cases) {
        SCOPED_TRACE(std::to_string(row.uPackages) + ", " + std::to_string(row.uRetransmits));
        CLink link;
        Access::m_dwRetryStep(link.dak) = 7;
        Access::m_dwRetryBase(link.dak) = 40;
        std::vector<Bytes> window;
        for (unsigned u = 1; u < row.uPackages; ++u) {
            link.device.Expect(FullPackage(u));
            window.push_back(FullPackage(u));
            if (u % 50 == 1) {
                link.device.Reply(sim::Ack());
                window.clear();
            }
            ASSERT_EQ(link.Send(FullPackage(u), false), 1);
        }
        const Bytes final = DataPackage(DAK_LAST_PACKAGE, CODE, sim::Pattern(row.dwFinal - 14));
        window.push_back(final);
        window.back().resize(DAK_PACKAGE_SIZE, 0x5A); // every slot goes out in full
        std::uint64_t qwMs = link.world.NowMs();
        link.device.Expect(final).At(qwMs);
        for (unsigned uPass = 1; uPass <= std::min(row.uRetransmits, 10u); ++uPass) {
            link.device.Reply(Control(DAK_RETRANSMIT));
            qwMs += 10 + 7 * uPass + 40;
            for (const Bytes& slot : window) {
                link.device.Expect(slot).At(qwMs);
            }
        }
        link.device.Reply(Control(row.uRetransmits > 10 ? DAK_RETRANSMIT : DAK_SUCCESS));
        const bool bGood = row.uRetransmits < 10; // the answer to the tenth does not count
        EXPECT_EQ(link.Send(final, true), bGood ? 1 : 0);
        EXPECT_EQ(link.world.NowMs(), qwMs + 10 + (bGood ? 40 : 0));
        EXPECT_EQ(link.dak.GetLastError(), bGood ? DAKERROR_NONE : DAKERROR_PROTOCOL);
        EXPECT_EQ(Access::m_dwSentPackages(link.dak), row.uPackages + 1);
        EXPECT_EQ(Access::m_nResendCount(link.dak), bGood ? 0 : static_cast<int>(window.size()));
        const BYTE* const lpSlots = Access::m_lpResendBuf(link.dak);
        EXPECT_EQ(std::count(lpSlots, lpSlots + DAK_WINDOW_SIZE, 0) == DAK_WINDOW_SIZE, bGood);
    }
}

TEST(Sender, Aborts) {
    const struct {
        DWORD dwSent;
        int nSlots; // in use ahead of the call
        Event setup;
        std::size_t dwAborts;
        bool bWriteFails = false;
    } cases[] = {{51, 49, Accepted(0), 1},  {52, 0, Accepted(0), 50},
                 {3, 1, Accepted(0), 49},   {1, 0, Accepted(0), 1},
                 {3, 1, VanishAt(4), 4},    {3, 1, Fail(ECall::WritePipe, 3), 2, true},
                 {101, 49, Accepted(0), 1}, {3, 1, Fail(ECall::WritePipe, 1), 0, true}};
    for (const auto& row : cases) {
        SCOPED_TRACE(std::to_string(row.dwSent) + " sent");
        CLink link;
        Access::m_dwSentPackages(link.dak) = row.dwSent;
        Access::m_nResendCount(link.dak) = row.nSlots;
        Bytes abort = FullPackage(row.nSlots == 0 ? 2 : 1);
        std::ranges::copy(abort, Access::m_lpResendBuf(link.dak));
        DakPutHeader(abort.data(), DAK_ABORT, 0);
        row.setup(link);
        link.device.onPackage = [&](const Bytes& got) { EXPECT_TRUE(got == abort); };
        link.Cancel();
        EXPECT_EQ(link.Send(FullPackage(2), false), 0);
        EXPECT_EQ(link.device.Packages().size(), row.dwAborts);
        EXPECT_EQ(link.dak.GetLastError(), DAKERROR_CANCELLED);
        EXPECT_EQ(Access::m_dwSentPackages(link.dak), row.dwSent);
        EXPECT_FALSE(CLink::IsReadAheadOpen());
        EXPECT_EQ(g_lines.front(), "SendDataPackage_!m_bCopying\n");
        EXPECT_EQ(g_lines.back(), "SendDataPackage_!m_bCopying return FALSE\n");
        EXPECT_EQ(std::ranges::count(g_lines, "SendDataPackage_!m_bCopying_!WriteUSBData break\n"),
                  row.bWriteFails ? 1 : 0);
    }
}

// A cancel in the middle of a pass: the rest of the pass are abort packages.
TEST(Sender, CancelInAPass) {
    CLink link;
    std::vector<Bytes> window;
    Access::m_dwSentPackages(link.dak) = 2;
    for (unsigned u = 2; u <= 7; ++u) {
        window.push_back(u < 7 ? FullPackage(u) : DataPackage(DAK_LAST_PACKAGE, CODE, {1, 2}));
        link.device.Expect(window.back());
        ASSERT_TRUE(u == 7 || link.Send(window.back(), false) == 1);
    }
    Bytes abort = window[0];
    DakPutHeader(abort.data(), DAK_ABORT, 0);
    link.device.Reply(Control(DAK_RETRANSMIT));
    link.device.Expect(window[0]).Expect(window[1]).Expect(window[2]);
    link.device.Do([&] { link.Cancel(); });
    for (int i = 1; i <= 3 + 6; ++i) {
        link.device.Expect(abort);
        if (i == 3) {
            link.device.Reply(Control(DAK_RETRANSMIT));
        }
    }
    link.device.Reply(sim::Ack());
    EXPECT_EQ(link.Send(window[5], true), 1); // the device has confirmed after all
    EXPECT_EQ(link.dak.GetLastError(), 0u);
    link.device.Finish();
    link.device.onPackage = [](const Bytes&) {};
    const std::size_t dwBefore = link.device.Packages().size();
    EXPECT_EQ(link.Send(FullPackage(8), false), 0); // and the next package finds the cancel
    EXPECT_EQ(link.device.Packages().size() - dwBefore, 44u);
    EXPECT_EQ(link.dak.GetLastError(), DAKERROR_CANCELLED);
}

// Every way in which a write or a wait ends, in a stream of one package of 500 bytes.
TEST(Sender, Outcomes) {
    const Event retransmit = Answer(DAK_RETRANSMIT);
    const Bytes ask = Control(DAK_RETRANSMIT);
    const Event late = [](CLink& link) {
        link.device.onPackage = [&link](const Bytes&) { link.device.Give(sim::Ack(), 500); };
    };
    const Event hang = [](CLink& link) { link.device.DoNotTake().At(1000); };
    const std::string strGood = "600k_header1.wCommand=57344\n";
    const std::string strFirst = "2!WriteUSBData return FALSE\n";
    const std::string strBreak = "600k_bBreak\n";
    const struct {
        const char* lpszName;
        Event setup;
        DWORD dwErrCode;
        bool bReadAheadOpen;
        std::string strLast;
        std::size_t dwPackages;
        std::uint64_t qwMs;
    } cases[] = {
        {"confirmed", Answer(DAK_SUCCESS), 0, true, strGood, 1, 110},
        {"confirmed, gone", Answer(DAK_SUCCESS) + VanishAt(1), 0, true, strGood, 1, 110},
        {"cancel in the wait", late + CancelAfter(100), 0, true, strGood, 1, 600},
        {"write fails", Fail(ECall::WritePipe), GONE, false, strFirst, 0, 0},
        {"write hangs", hang, GONE, false, strFirst, 0, 1000},
        {"no thread", Fail(ECall::CreateThread), GONE, false, strFirst, 0, 0},
        {"resend fails", retransmit + Fail(ECall::WritePipe, 2), GONE, true,
         "600k_4!WriteUSBData\n", 1, 140},
        {"abort fails", retransmit + Fail(ECall::WritePipe, 2) + CancelAfter(50), 1, true,
         "600k_3!WriteUSBData\n", 1, 140},
        {"ten passes", retransmit, 2, true, "600k_nTry>=COUNT_TRY\n", 11, 110 + 1000 + 30 * 55},
        {"refused", Answer(DAK_ABORT), 2, false, strBreak, 1, 10},
        {"strange word", Answer(0xFFFFE000), 2, false, strBreak, 1, 10},
        {"silence", Answer({}, {}), 2, false, strBreak, 1, 1201ull * (10 + 12788 + 500)},
        {"refused behind aborts", Answer(ask, Control(DAK_ABORT)) + CancelAfter(50), 1, false,
         strBreak, 2, 150},
        {"gone in the wait", Answer({}, {}) + VanishAfter(100), GONE, false, strBreak, 1, 600},
        {"gone with the answer", retransmit + VanishAt(1), GONE, false, strBreak, 1, 10},
        {"gone behind the answer", retransmit + VanishAt(2), GONE, false, strBreak, 1, 10},
        {"gone ahead of a pass", retransmit + VanishAt(3), GONE, false, strBreak, 1, 650},
        {"gone in a pass", retransmit + VanishAt(4), GONE, false, strBreak, 2, 650},
        {"gone with the next answer", retransmit + VanishAt(5), GONE, false, strBreak, 2, 150},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.lpszName);
        CLink link;
        row.setup(link);
        EXPECT_EQ(link.Send(DataPackage(DAK_LAST_PACKAGE, CODE, Bytes(486, 1)), true),
                  row.dwErrCode == 0 ? 1 : 0);
        EXPECT_EQ(link.dak.GetLastError(), row.dwErrCode);
        EXPECT_EQ(CLink::IsReadAheadOpen(), row.bReadAheadOpen);
        EXPECT_EQ(g_lines.back(), "SendDataPackage_" + row.strLast);
        EXPECT_EQ(link.device.Packages().size(), row.dwPackages);
        EXPECT_EQ(link.world.NowMs(), row.qwMs);
    }
}

// A stream that goes on after failures, as its owner closes it, stays within the resend buffer.
TEST(Sender, GoesOnAfterFailures) {
    CLink link;
    link.world.FailCall(ECall::WritePipe, 1, 0, 60);
    for (unsigned u = 1; u <= 60; ++u) {
        EXPECT_EQ(link.Send(FullPackage(u), false), 0);
    }
    link.device.Expect(FullPackage(61)).Reply(Control(DAK_RETRANSMIT));
    for (unsigned u = 1; u < 50; ++u) {
        link.device.Expect(FullPackage(u));
    }
    link.device.Expect(FullPackage(61)).Reply(sim::Ack());
    EXPECT_EQ(link.Send(FullPackage(61), true), 1);
}

TEST(Receiver, Outcomes) {
    const Bytes good = Reply(1);
    const Bytes last = Reply(1, true);
    const Bytes bad = Spoilt(good);
    Bytes foreign = good;
    DakPutU32(foreign.data(), DAK_PACKAGE);
    const Bytes head(good.begin(), good.begin() + 14);
    const Bytes cut(good.begin(), good.end() - 1);
    const Bytes farewell = sim::Handshake(DAK_DISCONNECT);
    const Event cancel = &CLink::Cancel;
    const Event noWrite = Fail(ECall::WritePipe);
    const Event late = [&](CLink& link) {
        link.device.Give(good, 20 + BASE_MS + HEAD_WAIT_MS + 5);
    };
    const Event noSpace = [](CLink& link) { Access::m_dwErrCode(link.dak) = DAKERROR_NO_SPACE; };
    const Event noMemory = [](CLink& link) { link.world.dwFailAllocationsOf = DAK_WINDOW_SIZE; };
    constexpr DWORD KEPT = 77; // m_dwErrCode as it was ahead of the call
    const struct {
        const char* lpszName;
        Event setup;
        DWORD dwErrCode;
        std::string strControls;
        std::uint64_t qwMs;
        DWORD dwBytes = 0; // of the package that was delivered
    } cases[] = {
        {"silence", Accepted(1), 2, "", HEAD_WAIT_MS},
        {"control package", Give(Control(DAK_ABORT)), 2, "", 10},
        {"farewell", Give(farewell), GONE, "", 20},
        {"farewell, no length", Give(HeadOfLength(12281, DAK_DISCONNECT)), GONE, "", 10},
        {"short body", Give(cut), 2, "", 20},
        {"no body", Give(head), 2, "", 20 + 503},
        {"gone in the head", VanishAfter(100), GONE, "", 600},
        {"gone in the body", Give(head) + VanishAfter(100), GONE, "", 100},
        {"cannot ask", Give(bad) + noWrite, GONE, "", 20},
        {"cannot acknowledge", Give(last) + noWrite, GONE, "", 20},
        // A recovery.
        {"word", Give(foreign, good), 0, "R", 140, 17},
        {"code", Give(DataPackage(DAK_REPLY_PACKAGE, CODE + 1, {1}), good), 0, "R", 140, 17},
        {"length 5", Give(HeadOfLength(5), good), 0, "R", 130, 17},
        {"length 12281", Give(HeadOfLength(12281), good), 0, "R", 130, 17},
        {"then length 12281", Give(bad, HeadOfLength(12281), good), 0, "RR", 250, 17},
        {"11 bad", Give(bad) + More(bad, 10) + More(good), 0, std::string(11, 'R'), 1340, 17},
        {"12 bad", Give(bad) + More(bad, 11) + More(good), 2, std::string(11, 'R'), 1340},
        {"then short farewell", Give(bad, Control(DAK_DISCONNECT)), GONE, "R", 130},
        {"then farewell", Give(bad, farewell), GONE, "R", 140},
        {"then short body", Give(bad, cut, good), 0, "RR", 260, 17},
        {"then control", Give(bad, sim::Ack(), good), 0, "RR", 250, 17},
        {"then silence", Give(bad), 2, std::string(11, 'R'), 20 + 11 * (BASE_MS + HEAD_WAIT_MS)},
        {"gone in the pause", Give(bad) + VanishAfter(50), GONE, "R", 120},
        {"gone in the next head", Give(bad) + VanishAfter(200), GONE, "R", 700},
        // Packages that are dropped.
        {"six dropped", Accepted(6) + Give(bad, good, good, good, good, good, bad, good), 0, "R",
         20 + BASE_MS + 7 * 20, 17},
        {"any dropped", Accepted(3) + Give(bad, sim::Ack(), cut, last, good), 0, "R", 190, 17},
        {"dropped, too long", Accepted(2) + Give(bad, good, HeadOfLength(12281)), 2, "R", 150},
        {"dropped, no body", Accepted(2) + Give(bad, good, head), GONE, "R", 150 + 513},
        {"dropped, gone", Accepted(2) + Give(bad, good) + VanishAfter(145), GONE, "R", 650},
        {"never comes", Accepted(1) + Give(bad) + late, 0, "R", 140 + HEAD_WAIT_MS, 17},
        // A cancel.
        {"cancel in the head", CancelAfter(100), 2, "", 1024},
        {"cancel, gone", CancelAfter(100) + VanishAfter(200), GONE, "", 700},
        {"cancelled", Give(good) + cancel, 0, "", 20, 17},
        {"cancelled, farewell", Give(farewell) + cancel, 0, "", 20, 20},
        {"cancelled, no length", Give(HeadOfLength(12281)) + cancel, 0, "", 10, 8},
        {"cancelled, final", Give(last) + cancel, 1, "A", 520},
        {"cancelled, cannot abort", Give(last) + cancel + noWrite, GONE, "", 20},
        {"cancel in the last pause", Give(last) + CancelAfter(100), KEPT, "S", 520, 17},
        {"cancel, then control", Give(bad, sim::Ack()) + CancelAfter(50), 0, "R", 130, 8},
        {"cancel, then final", Give(bad, last) + CancelAfter(50), 1, "RA", 640},
        // No room for the data.
        {"drain", Give(good) + noSpace, 3, "A", 10},
        {"drain, nothing", Accepted(1) + noSpace, 3, "A", 3010},
        {"drain, no memory", Give(good) + noSpace + noMemory, 3, "A", 0},
        {"drain, cannot abort", Give(good) + noSpace + noWrite, 3, "", 10},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.lpszName);
        CLink link;
        link.OnRetransmit({});
        Access::m_dwErrCode(link.dak) = KEPT;
        row.setup(link);
        const DWORD dwAccepted = Access::m_dwRecvPackages(link.dak);
        ASSERT_EQ(link.Receive(), row.dwBytes != 0 ? 1 : 0);
        EXPECT_EQ(link.dak.GetLastError(), row.dwErrCode);
        EXPECT_EQ(link.Controls(), row.strControls);
        EXPECT_EQ(link.world.NowMs(), row.qwMs);
        if (row.dwBytes != 0) {
            EXPECT_EQ(link.dwPackageBytes, row.dwBytes);
            EXPECT_EQ(Access::m_dwRecvPackages(link.dak), dwAccepted + 1);
        }
    }
}

// A reader's or writer's place in its stream.
struct CCursor {
    explicit CCursor(CLink& owner) : link(owner) {}

    void Begin(DWORD dwAt = DAK_DATA_OFFSET) {
        DakPutHeader(buffer.data(), DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
        DakPutU16(buffer.data() + DAK_OFFSET_DATA_CODE, CODE);
        dwOffset = dwAt;
    }
    int Add(const Bytes& field) {
        return Access::AddBuffData(link.dak, buffer.data(), field.data(),
                                   static_cast<DWORD>(field.size()), dwOffset, DAK_PACKAGE_SIZE,
                                   CODE);
    }
    int Get(Bytes& field) {
        return Access::GetBuffData(link.dak, buffer.data(), field.data(),
                                   static_cast<DWORD>(field.size()), dwOffset, dwPackageBytes, bEnd,
                                   CODE);
    }
    int GetText(std::basic_string<WCHAR>& text) {
        text.assign(DAK_MAX_NAME, DAK_WIDE('\0'));
        const int nResult = Access::GetBuffString(link.dak, buffer.data(), text.data(), dwOffset,
                                                  dwPackageBytes, bEnd, int{DAK_MAX_NAME});
        text.resize(std::min(text.find(DAK_WIDE('\0')), text.size()));
        return nResult;
    }
    // At the end of a full package that holds dwLeft further bytes; the next one holds the rest.
    void StandBefore(const Bytes& stream, std::size_t dwLeft) {
        std::ranges::fill(buffer, BYTE{0xCC});
        std::copy_n(stream.begin(), dwLeft, buffer.end() - static_cast<std::ptrdiff_t>(dwLeft));
        dwOffset = static_cast<DWORD>(DAK_PACKAGE_SIZE - dwLeft);
        dwPackageBytes = DAK_PACKAGE_SIZE;
        Access::m_dwRecvPackages(link.dak) = 1;
        link.device.Drop();
        link.device.Give(DataPackage(DAK_REPLY_PACKAGE, CODE, Behind(stream, dwLeft)));
    }
    // A field of dwBytes has been read from there.
    void ExpectBehind(std::size_t dwBytes, std::size_t dwLeft) const {
        const bool bFetched = dwLeft < dwBytes;
        EXPECT_EQ(dwOffset, (bFetched ? 14 : 12288) + dwBytes - dwLeft);
        EXPECT_EQ(link.device.PendingPackages(), bFetched ? 0u : 1u);
    }

    CLink& link;
    Bytes buffer = Bytes(DAK_PACKAGE_SIZE);
    DWORD dwOffset = 0;
    DWORD dwPackageBytes = 0;
    int bEnd = 0;
};

TEST(Packing, RefusedArguments) {
    CLink link;
    BYTE buffer[DAK_PACKAGE_SIZE] = {};
    DWORD dwCursor = 14;
    const auto expectRefusal = [&](BYTE* lpBuffer, const BYTE* lpData, DWORD dwBytes,
                                   const std::string& strWhy) {
        EXPECT_EQ(
            Access::AddBuffData(link.dak, lpBuffer, lpData, dwBytes, dwCursor, DWORD{12287}, CODE),
            0);
        EXPECT_EQ(g_lines.back(), "AddBuffData " + strWhy + "\n");
        EXPECT_EQ(dwCursor, 14u);
    };
    expectRefusal(nullptr, nullptr, 0, "lpBuffer==NULL");
    expectRefusal(buffer, nullptr, 0, "lpData==NULL");
    expectRefusal(buffer, buffer, 0, "nDataBytes==0");
    expectRefusal(buffer, buffer, 4, "nBufferSize<(sizeof(DAKHEADER)+DAK_MAXPACKAGELENGTH)");
}

TEST(Packing, WrittenFieldsCutAtEveryByte) {
    CLink link;
    for (DWORD dwFrom = 12279; dwFrom <= 12288; ++dwFrom) {
        for (const std::size_t dwBytes : {1u, 4u, 8u, 12274u}) {
            SCOPED_TRACE(std::to_string(dwBytes) + " bytes at " + std::to_string(dwFrom));
            Access::m_dwSentPackages(link.dak) = 2; // no wait is due
            CCursor writer(link);
            writer.Begin(dwFrom);
            const Bytes field = sim::Pattern(dwBytes, dwFrom);
            const std::size_t dwFits = std::min<std::size_t>(dwBytes, DAK_PACKAGE_SIZE - dwFrom);
            const bool bSent = dwFrom + dwBytes >= DAK_PACKAGE_SIZE;
            Bytes data(DAK_DATA_SIZE);
            std::copy_n(field.begin(), dwFits, data.begin() + (dwFrom - 14));
            if (bSent) {
                link.device.Expect(DataPackage(DAK_PACKAGE, CODE, data));
                data = Behind(field, dwFits);
                data.resize(DAK_DATA_SIZE);
            }
            ASSERT_EQ(writer.Add(field), 1);
            EXPECT_EQ(writer.dwOffset, bSent ? 14 + dwBytes - dwFits : dwFrom + dwBytes);
            Bytes rest = DataPackage(DAK_PACKAGE, CODE, data);
            DakPutU32(rest.data() + DAK_OFFSET_CHECKSUM, 0);
            EXPECT_TRUE(writer.buffer == rest);
        }
    }
    // The rest exceeds a package: nothing is sent. The send fails: the cursor stays.
    CCursor writer(link);
    writer.Begin(12286);
    EXPECT_EQ(writer.Add(Bytes(2 + 12275)), 0);
    link.world.FailCall(ECall::WritePipe, 1);
    EXPECT_EQ(writer.Add(Bytes(4)), 0);
    EXPECT_EQ(g_lines.back(), "AddBuffData !SendDataPackage\n");
    EXPECT_EQ(writer.dwOffset, 12286u);
}

TEST(Packing, ReadFieldsCutAtEveryByte) {
    CLink link;
    CCursor reader(link);
    const std::basic_string<WCHAR> texts[] = {
        DAK_WIDE(""), DAK_WIDE("a"), DAK_WIDE("ab\u0100\u00FFc"),
        DAK_WIDE("\u4E00\u0100\U0001F4C1\uFF00z"),
        std::basic_string<WCHAR>(DAK_MAX_NAME - 1, DAK_WIDE('\u0101'))};
    for (const std::basic_string<WCHAR>& text : texts) {
        const Bytes bytes = sim::Text(text);
        const Bytes stream = sim::Join(bytes, Bytes(600, 0xA5));
        for (std::size_t dwLeft = 0; dwLeft <= bytes.size() + 9; ++dwLeft) {
            SCOPED_TRACE(std::to_string(text.size()) + " characters, left " +
                         std::to_string(dwLeft));
            std::basic_string<WCHAR> got;
            reader.StandBefore(stream, dwLeft);
            ASSERT_EQ(reader.GetText(got), 1);
            EXPECT_TRUE(got == text);
            reader.ExpectBehind(bytes.size(), dwLeft);
            Bytes field(bytes.size());
            reader.StandBefore(stream, dwLeft);
            ASSERT_EQ(reader.Get(field), 1);
            EXPECT_TRUE(field == bytes);
            reader.ExpectBehind(bytes.size(), dwLeft);
        }
    }
}

// Texts without an end, and fields whose rest is not in the next package: the cursor stays.
TEST(Packing, FieldsThatDoNotEnd) {
    CLink link;
    CCursor reader(link);
    for (const std::size_t dwBytes : {3u, 4u, 6u, 500u, 4000u}) {
        for (const std::size_t dwLeft : {0u, 1u, 3u, 200u, 519u, 520u, 521u, 4000u}) {
            SCOPED_TRACE(std::to_string(dwLeft) + " of " + std::to_string(dwBytes));
            std::basic_string<WCHAR> got;
            reader.StandBefore(Bytes(std::max(dwBytes, dwLeft), 'x'), dwLeft);
            EXPECT_EQ(reader.GetText(got), 0);
            EXPECT_EQ(link.dak.GetLastError(), DAKERROR_PROTOCOL);
            EXPECT_EQ(reader.dwOffset, 12288 - dwLeft);
            EXPECT_EQ(link.device.PendingPackages(), dwLeft < 520 ? 0u : 1u);
            Bytes field(std::max(dwBytes, dwLeft) + 1);
            reader.StandBefore(Bytes(field.size() - 1, 'x'), dwLeft);
            EXPECT_EQ(reader.Get(field), 0);
            EXPECT_EQ(link.dak.GetLastError(), DAKERROR_PROTOCOL);
            EXPECT_EQ(reader.dwOffset, 12288 - dwLeft);
        }
    }
}

// What a cancelled recovery delivers, with data or without, is nobody's field.
TEST(Packing, CancelledRecovery) {
    for (const Bytes& package : {sim::Ack(), HeadOfLength(12281), Spoilt(Reply(2))}) {
        for (const bool bText : {false, true}) {
            CLink link;
            (Give(Spoilt(Reply(1)), package) + CancelAfter(50))(link);
            CCursor reader(link);
            Bytes field(3);
            std::basic_string<WCHAR> got;
            EXPECT_EQ(bText ? reader.GetText(got) : reader.Get(field), 0);
            EXPECT_EQ(link.dak.GetLastError(), DAKERROR_CANCELLED);
            EXPECT_EQ(link.Controls(), "RA");
            // Nobody reads on from an empty one, wherever the cursor stands.
            for (reader.dwOffset = 14; reader.dwPackageBytes == 8 && reader.dwOffset < 12288;
                 reader.dwOffset += 6137) {
                EXPECT_EQ(bText ? reader.GetText(got) : reader.Get(field), 0);
            }
        }
    }
}

} // namespace
