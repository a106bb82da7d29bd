// Work goes in slices, and a handshake is served between any two: told by a clock that moves on
// with every look at it.
#include <gtest/gtest.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "tests/support/packages.h"
#include "tests/support/temp_folder.h"

namespace test {
namespace {

constexpr unsigned FILES = 150;

class CSlicedHost {
  public:
    CSlicedHost() {
        agent::CDeviceOptions options;
        options.strRoot = folder.Path();
        options.lpClock = [this] { return qwClockMs += qwTickMs; };
        std::string strError;
        pDevice = agent::CDevice::Open(options, strError);
        pCore.emplace(*pDevice);
    }
    Bytes Take() {
        Bytes bytes(DAK_PACKAGE_SIZE);
        bytes.resize(pCore->GiveBytes(bytes));
        return bytes;
    }
    // Slices until the host gets what it asks for; at most so many.
    unsigned Slices(unsigned nMost = 10'000) {
        unsigned nSlices = 0;
        for (; nSlices < nMost && !pCore->HasBytes(); ++nSlices) {
            EXPECT_TRUE(pCore->NextDueMs() && *pCore->NextDueMs() <= qwNowMs + 10);
            pCore->SetTime(++qwNowMs);
        }
        return nSlices;
    }
    void Begin(const Bytes& command) {
        pCore->TakePackage(command);
        EXPECT_EQ(Take(), Ack());
    }

    Bytes Answer(const Bytes& command) {
        Begin(command);
        Slices(1'000'000);
        return Take();
    }

    const CTempFolder folder;
    std::uint64_t qwNowMs = 0, qwClockMs = 0, qwTickMs = 1;
    std::unique_ptr<agent::CDevice> pDevice;
    std::optional<agent::CAgentCore> pCore;
};

TEST(Slices, AreBoundedWhateverIsInWork) {
    CSlicedHost host;
    Bytes stream = U32(FILES);
    for (unsigned i = 0; i < FILES; ++i) {
        const std::string strName = std::to_string(1000 + i);
        host.folder.Write("many/" + strName, strName);
        const std::u16string strWide(strName.begin(), strName.end());
        stream = Join(stream, Record({.strName = strWide, .bytes = {1}}));
    }
    const Bytes push = StreamPackages(8, stream, DAK_PACKAGE, DAK_LAST_PACKAGE, true)[0];
    const struct {
        const char* lpszWork;
        Bytes command;
        Bytes window;     // of a stream to the device
        unsigned nSlices; // at least
    } rows[] = {
        {"list", Command(7, Text(u"\\many")), {}, FILES / 20},
        {"pull", Command(8, Bytes{0}, Text(u"\\"), Text(u"t"), U32(1), Text(u"many")), {}, 10},
        {"copy", Command(20, Text(u"\\many"), Text(u"\\copy"), U32(0)), {}, FILES / 20},
        {"push", Command(8, Bytes{1}, Text(u"s"), Text(u"\\push")), push, FILES / 20},
    };
    for (const auto& row : rows) {
        for (const bool bCutShort : {true, false}) {
            host.Begin(row.command);
            if (!row.window.empty()) {
                host.pCore->TakePackage(row.window);
            }
            const unsigned nSlices = host.Slices(bCutShort ? 5 : 10'000);
            EXPECT_TRUE(bCutShort || nSlices >= row.nSlices) << row.lpszWork << ' ' << nSlices;
            host.pCore->TakePackage(Handshake(DAK_CONNECT));
            EXPECT_EQ(host.Take().size(), std::size_t{DAK_HANDSHAKE_SIZE}) << row.lpszWork;
        }
    }
    for (const auto* lpszFolder : {"copy/", "push/"}) {
        EXPECT_TRUE(std::filesystem::exists(host.folder / (lpszFolder + std::to_string(1149))));
    }
    // What is asked for at once comes in the time of one slice, and goes on behind it.
    host.folder.Write("large", std::string(20 * DAK_DATA_SIZE, 'x'));
    host.Begin(Command(8, Bytes{0}, Text(u"\\"), Text(u"t"), U32(1), Text(u"large")));
    host.Slices();
    unsigned nAtOnce = 0;
    for (; !host.Take().empty(); ++nAtOnce) {
    }
    EXPECT_TRUE(nAtOnce >= 1 && nAtOnce <= 12) << nAtOnce;
    EXPECT_EQ(host.Slices(), 1U);
}

// The blocks of a large file are freed by a thread, which is there from the first such file on.
TEST(Slices, LargeFilesAreLetGoBesideTheAgent) {
    const auto threads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto nBefore = threads();
    const std::string strLarge(std::size_t{17} << 20, 'x');
    const Bytes rows[] = {Command(2, Text(u"\\large")),
                          Command(20, Text(u"\\small"), Text(u"\\large"), U32(0)),
                          Command(15, Text(u"\\large"), U32(0x40000000), U32(3), U32(2))};
    for (const Bytes& command : rows) {
        CSlicedHost host;
        host.qwTickMs = 0;
        host.folder.Write("small", "x");
        host.folder.Write("large", strLarge);
        EXPECT_EQ(DakGetU32(host.Answer(command).data() + DAK_OFFSET_RESULT) & 0xFFFF, 1U);
        EXPECT_EQ(threads(), nBefore + 1) << &command - rows;
        std::error_code error;
        const auto qwSize = std::filesystem::file_size(host.folder / "large", error);
        EXPECT_TRUE(error || qwSize <= 1);
    }
}

// The host that asked for it goes while the thread has something else to do, or begins with it:
// what the next one writes stays, and the quota knows how much is left of what was there.
TEST(Slices, WhatIsWrittenBehindAnEmptyingThatWasGivenUpStays) {
    const std::string strLarge(std::size_t{17} << 20, 'x');
    const auto open = [](std::uint32_t dwDisposition) {
        return Command(15, Text(u"\\large"), U32(0x40000000), U32(3), U32(dwDisposition));
    };
    for (const bool bBusy : {true, false}) {
        CSlicedHost host;
        host.qwTickMs = 0;
        host.folder.Write("large", strLarge);
        for (const auto* lpszName : {"1", "2", "3"}) {
            host.folder.Write(lpszName, bBusy ? strLarge : "");
        }
        const std::uint64_t qwQuota = strLarge.size() * 2;
        host.pDevice->Folder().SetQuota(qwQuota);
        for (const auto* lpszName : {u"1", u"2", u"3"}) {
            host.Answer(Command(2, Text(lpszName)));
        }
        host.Begin(open(2));
        host.pCore->HasBytes();
        host.pCore->TakePackage(Handshake(DAK_CONNECT));
        host.Take();
        const Bytes opened = host.Answer(open(3));
        const Bytes handle(opened.end() - 4, opened.end());
        host.Begin(Command(17, handle, U32(1)));
        host.pCore->TakePackage(DataPackage(DAK_LAST_PACKAGE, 17, {'y'}));
        host.Slices(1'000'000);
        EXPECT_EQ(host.Take(), Ack());
        EXPECT_EQ(host.Take(), Response(17, 1));
        EXPECT_EQ(host.Answer(Command(19, handle)), Response(19, 1));
        const auto space = host.pDevice->Folder().SpaceOf(*agent::CDevicePath::Parse(u"\\"));
        host.pCore.reset();
        host.pDevice.reset(); // its thread has done all
        const auto qwLeft = std::filesystem::file_size(host.folder / "large");
        EXPECT_EQ(std::ifstream(host.folder / "large").get(), 'y') << bBusy << ' ' << qwLeft;
        EXPECT_TRUE(!bBusy || qwLeft == strLarge.size()) << qwLeft;
        EXPECT_EQ(space->qwFree, qwQuota - qwLeft) << bBusy;
    }
}

} // namespace
} // namespace test
