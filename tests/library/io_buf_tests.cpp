// The read-ahead file buffer on the simulated host: bytes, threads and times at every size, and its
// errors.

#include "platform/memory.h"
#include "platform/thread.h"
#include "tests/support/packages.h"
#include "tests/sim/world.h"
#include "transfer/io_buf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using sim::Bytes;
using sim::CWorld;
using sim::ECall;

constexpr char FILE_NAME[] = "C:/s/a.bin";
constexpr char OTHER_NAME[] = "C:/s/b.bin";
constexpr int N = 16; // bytes of a buffer

class IoBufTest : public ::testing::Test {
  protected:
    // Reads in requests of nRequest until a call brings nothing.
    Bytes ReadAll(int nRequest) {
        Bytes all;
        Bytes part(static_cast<std::size_t>(nRequest) + 1, 0xEE);
        for (int nRead = 1; nRead > 0;) {
            nRead = buf.ReadIoBuf(part.data(), nRequest);
            EXPECT_LE(nRead, nRequest);
            EXPECT_EQ(part.back(), 0xEE);
            all.insert(all.end(), part.begin(), part.begin() + nRead);
        }
        return all;
    }
    std::uint64_t Threads() const { return world.CallCount(ECall::CreateThread); }
    DWORD FileSize() {
        DWORD dwHigh = 0;
        return buf.IoGetFileSize(&dwHigh);
    }
    void ExpectNothingOpen() {
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_EQ(world.LiveThreads(), 0);
    }

    CWorld world;
    CIoBuf buf;
};

// Every size around the buffers, by requests of every size around them, where a read brings all it
// is asked for and where it brings less. There is one thread for the first two buffers and one for
// each switch, and each of them costs one sleep.
TEST_F(IoBufTest, SizesAndRequests) {
    const auto check = [&](int nSize, int nRequest, int nFill) {
        SCOPED_TRACE(std::to_string(nSize) + " bytes by " + std::to_string(nRequest) + ", " +
                     std::to_string(nFill) + " a read");
        const Bytes content = sim::Pattern(static_cast<std::size_t>(nSize));
        const auto qwBuffers = static_cast<std::uint64_t>((nSize + nFill - 1) / nFill);
        world.WriteHostFile(FILE_NAME, content);
        world.onFileRead = [=](sim::CFileRead& read) {
            read.dwBytes = std::min(read.dwBytes, static_cast<DWORD>(nFill));
        };
        const std::uint64_t qwBegin = world.NowMs();
        const std::uint64_t nThreads = Threads();
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(FileSize(), content.size());
        EXPECT_EQ(ReadAll(nRequest), content);
        EXPECT_EQ(world.NowMs() - qwBegin, 10 * qwBuffers);
        EXPECT_EQ(Threads() - nThreads, std::max<std::uint64_t>(qwBuffers, 1));
        buf.DeinitIoBuf();
        ExpectNothingOpen();
    };
    for (const int nSize :
         {0, 1, N - 1, N, N + 1, 2 * N - 1, 2 * N, 2 * N + 1, 3 * N, 3 * N + 1, 7 * N, 7 * N + 5}) {
        for (const int nRequest : {1, 5, N - 1, N, N + 1, N + 8, 2 * N, 2 * N + 1, 100}) {
            check(nSize, nRequest, N);
            check(nSize, nRequest, N - 3);
        }
    }
}

// A request for exactly the rest does not switch; the next one finds nothing left and does.
TEST_F(IoBufTest, RestOfABufferTakesNoSwitch) {
    world.WriteHostFile(FILE_NAME, sim::Pattern(3 * N));
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    Bytes part(100);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(Threads(), 1u);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), 4), 4);
    EXPECT_EQ(Threads(), 2u);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), 100), N - 4 + N); // the remainder and one buffer
    EXPECT_EQ(Threads(), 3u);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), 1), 0); // and that was all
    EXPECT_EQ(Threads(), 3u);
}

// A read error at the n-th fill: what had been copied comes, then nothing more, until the next
// open.
TEST_F(IoBufTest, ReadErrors) {
    const Bytes content = sim::Pattern(5 * N);
    world.WriteHostFile(FILE_NAME, content);
    // The first thread fills both buffers before the consumer looks.
    const std::size_t delivered[] = {0, 0, N, 2 * N, 3 * N};
    for (std::uint64_t nFill = 1; nFill <= std::size(delivered); ++nFill) {
        SCOPED_TRACE("fill " + std::to_string(nFill));
        world.FailCall(ECall::ReadFile, nFill);
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        const Bytes all = ReadAll(10);
        EXPECT_EQ(all, Bytes(content.begin(),
                             content.begin() + static_cast<std::ptrdiff_t>(delivered[nFill - 1])));
        EXPECT_EQ(ReadAll(10), Bytes{});
        world.ClearFaults();
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(10), content);
    }
    // One that comes while the consumer waits ends the wait.
    world.onFileRead = [&](sim::CFileRead& read) {
        platform::Sleep(95);
        read.bFail = true;
    };
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    const std::uint64_t qwBegin = world.NowMs();
    EXPECT_EQ(ReadAll(10), Bytes{});
    EXPECT_EQ(world.NowMs() - qwBegin, 100u);
}

TEST_F(IoBufTest, NoThread) {
    const Bytes content = sim::Pattern(4 * N);
    world.WriteHostFile(FILE_NAME, content);
    world.FailCall(ECall::CreateThread, 1);
    EXPECT_EQ(buf.InitIoBuf(N, FILE_NAME), 0);
    EXPECT_EQ(world.HostFile(FILE_NAME)->nHandles, 1); // stays open
    // The caller's own thread can make the pass in its place.
    EXPECT_EQ(buf.ReadFileData(), 1);
    Bytes part(2 * N);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(world.NowMs(), 0u);
    // None for a refill: what was copied comes, then nothing.
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    EXPECT_EQ(ReadAll(12), content);
    world.FailCall(ECall::CreateThread, 2);
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    EXPECT_EQ(ReadAll(12), Bytes(content.begin(), content.begin() + N));
    EXPECT_EQ(CIoBuf::ReadDataToBufferThread(nullptr), 1u);
    buf.DeinitIoBuf();
    ExpectNothingOpen();
}

TEST_F(IoBufTest, BuffersAreKeptAndReplaced) {
    const Bytes content = sim::Pattern(5 * N);
    world.WriteHostFile(FILE_NAME, content);
    const std::string strBlock = "memory block of 16 bytes";
    for (const std::uint64_t nFailing : {1u, 2u}) {
        world.FailCall(ECall::LocalAlloc, nFailing);
        EXPECT_EQ(buf.InitIoBuf(N, FILE_NAME), 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>(nFailing - 1, strBlock));
        world.ClearFaults();
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(7), content);
        buf.DeinitIoBuf();
        ExpectNothingOpen();
    }
    // The same size again takes no memory, another size does.
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    const std::uint64_t nAllocations = world.CallCount(ECall::LocalAlloc);
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    EXPECT_EQ(world.CallCount(ECall::LocalAlloc), nAllocations);
    ASSERT_EQ(buf.InitIoBuf(4 * N, FILE_NAME), 1);
    EXPECT_EQ(world.CallCount(ECall::LocalAlloc), nAllocations + 2);
    EXPECT_EQ(ReadAll(7), content);
    // Smaller buffers that a failed open leaves behind are not taken for those of the size before.
    EXPECT_EQ(buf.InitIoBuf(N, "C:/s/missing"), 0);
    EXPECT_EQ(world.Open(), (std::vector<std::string>{strBlock, strBlock}));
    ASSERT_EQ(buf.InitIoBuf(4 * N, FILE_NAME), 1);
    ASSERT_EQ(std::ranges::count(world.Open(), "memory block of 64 bytes"), 2);
    EXPECT_EQ(ReadAll(7), content);
}

// Opening another file, or closing, in the middle of a fill stops it at once.
TEST_F(IoBufTest, RunningFillIsStopped) {
    const Bytes other = sim::Pattern(50, 2);
    world.WriteHostFile(FILE_NAME, sim::Pattern(5 * N));
    world.WriteHostFile(OTHER_NAME, other);
    world.onFileRead = [&](sim::CFileRead& read) {
        if (read.strPath == FILE_NAME) {
            platform::Sleep(5000);
        }
    };
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    platform::Sleep(100);
    ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
    EXPECT_EQ(world.NowMs(), 100u);
    EXPECT_EQ(world.HostFile(FILE_NAME)->nHandles, 0);
    EXPECT_EQ(FileSize(), other.size());
    EXPECT_EQ(ReadAll(9), other);

    const std::uint64_t qwBegin = world.NowMs();
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    platform::Sleep(100);
    buf.DeinitIoBuf();
    {
        CIoBuf local; // its end
        ASSERT_EQ(local.InitIoBuf(N, FILE_NAME), 1);
        platform::Sleep(100);
    }
    EXPECT_EQ(world.NowMs(), qwBegin + 200);
    ExpectNothingOpen();
}

// A fill that is late by more than 1000 looks: the consumer asks for the next one all the same, and
// the two follow one another.
TEST_F(IoBufTest, LateFill) {
    const Bytes content = sim::Pattern(5 * N + 3);
    world.WriteHostFile(FILE_NAME, content);
    world.onFileRead = [&](sim::CFileRead& read) {
        if (read.qwPosition == N) {
            platform::Sleep(25'000);
        }
    };
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    Bytes part(N);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(world.NowMs(), 10u);
    world.At(10'009, [&] { EXPECT_EQ(Threads(), 1u); });
    world.At(10'011, [&] { EXPECT_EQ(Threads(), 2u); });
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(world.NowMs(), 25'000u);
    EXPECT_EQ(part, Bytes(content.begin() + N, content.begin() + 2 * N));
    EXPECT_EQ(ReadAll(N), Bytes(content.begin() + 2 * N, content.end()));
}

// No thread can be had while the late fill is still at work: it is waited for before its buffer
// goes.
TEST_F(IoBufTest, LateFillOutlivesItsHandle) {
    world.WriteHostFile(FILE_NAME, sim::Pattern(5 * N));
    for (const bool bReopen : {false, true}) {
        std::uint64_t qwFilled = 0;
        world.onFileRead = [&](sim::CFileRead& read) {
            if (read.qwPosition == N) {
                platform::Sleep(15'000);
                qwFilled = world.NowMs();
            }
        };
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        world.FailCall(ECall::CreateThread, 1);
        EXPECT_EQ(ReadAll(N).size(), std::size_t{N});
        EXPECT_EQ(qwFilled, 0u);
        if (bReopen) {
            world.WriteHostFile(OTHER_NAME, sim::Pattern(3 * N, 2));
            ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
            EXPECT_NE(qwFilled, 0u);
            world.onFileRead = nullptr;
            EXPECT_EQ(ReadAll(N), sim::Pattern(3 * N, 2));
        }
        buf.DeinitIoBuf();
        EXPECT_NE(qwFilled, 0u);
        ExpectNothingOpen();
    }
}

TEST_F(IoBufTest, SizeAndTimes) {
    std::array<DWORD, 4> times = {1, 2, 3, 4};
    const auto getTimes = [&] {
        FILETIME created = {times[0], times[1]};
        FILETIME written = {times[2], times[3]};
        buf.IoGetFileTime(&created, &written);
        return std::array{created.dwLowDateTime, created.dwHighDateTime, written.dwLowDateTime,
                          written.dwHighDateTime};
    };
    EXPECT_EQ(getTimes(), (std::array<DWORD, 4>{0, 2, 0, 4})) << "nothing is open";
    world.WriteHostFile(FILE_NAME, sim::Pattern(N), {11, 12}, {13, 14});
    world.HostFile(FILE_NAME)->qwReportedSize = 0x7'0000'0009;
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    DWORD dwHigh = 0;
    EXPECT_EQ(buf.IoGetFileSize(&dwHigh), 9u);
    EXPECT_EQ(dwHigh, 7u);
    EXPECT_EQ(getTimes(), (std::array<DWORD, 4>{11, 12, 13, 14}));
    for (int i = 0; i < 2; ++i) { // the second finds nothing to do
        buf.DeinitIoBuf();
        EXPECT_EQ(buf.IoGetFileSize(&dwHigh), 0u);
        EXPECT_EQ(dwHigh, 0u);
        EXPECT_EQ(buf.ReadIoBuf(nullptr, 1), 0);
        ExpectNothingOpen();
    }
    EXPECT_EQ(buf.InitIoBuf(N, ("C:/s/" + std::string(300, 'x')).c_str()), 0); // no overrun
}

} // namespace
