// The read-ahead file buffer: bytes, threads and times at every size, and its errors.

#include "tests/library/library_run.h"
#include "transfer/io_buf.h"

namespace {

constexpr char FILE_NAME[] = "C:/s/a.bin";
constexpr char OTHER_NAME[] = "C:/s/b.bin";
constexpr int N = 16; // bytes of a buffer
const Bytes CONTENT = Pattern(5 * N);

class IoBufTest : public testing::Test {
  protected:
    IoBufTest() {
        world.WriteHostFile(FILE_NAME, CONTENT);
        world.WriteHostFile(OTHER_NAME, CONTENT);
    }
    ~IoBufTest() override {
        buf.DeinitIoBuf();
        buf.DeinitIoBuf(); // finds nothing to do
        EXPECT_EQ(buf.ReadIoBuf(nullptr, 1), 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_EQ(world.LiveThreads(), 0);
    }
    // Reads in requests of nRequest until a call brings nothing.
    static Bytes ReadAll(CIoBuf& from, int nRequest) {
        Bytes all;
        Bytes part(static_cast<std::size_t>(nRequest) + 1, 0xEE);
        for (int nRead = 1; nRead > 0;) {
            nRead = from.ReadIoBuf(part.data(), nRequest);
            EXPECT_LE(nRead, nRequest);
            EXPECT_EQ(part.back(), 0xEE);
            all.insert(all.end(), part.begin(), part.begin() + nRead);
        }
        return all;
    }
    std::uint64_t Threads() const { return world.CallCount(ECall::CreateThread); }
    // The reads of the file from there on take so long.
    void Delay(std::uint64_t qwPosition, DWORD dwMs) {
        world.onFileRead = [=](sim::CFileRead& read) {
            if (read.strPath == FILE_NAME && read.qwPosition == qwPosition) {
                platform::Sleep(dwMs);
            }
        };
    }

    sim::CWorld world;
    CIoBuf buf;
};

// Every size around the buffers, by requests of every size around them, where a read brings all it
// is asked for and where it brings less. There is one thread for the first two buffers and one for
// each switch, and each of them costs one sleep.
TEST_F(IoBufTest, SizesAndRequests) {
    for (const int nFill : {N, N - 3}) {
        for (const int nSize : {0, 1, N - 1, N, N + 1, 2 * N - 1, 2 * N, 2 * N + 1, 7 * N + 5}) {
            for (const int nRequest : {1, 5, N - 1, N, N + 1, 2 * N, 2 * N + 1, 100}) {
                SCOPED_TRACE(testing::Message() << nSize << " by " << nRequest << ", " << nFill);
                const Bytes content = Pattern(static_cast<std::size_t>(nSize));
                const auto qwBuffers = static_cast<std::uint64_t>((nSize + nFill - 1) / nFill);
                world.WriteHostFile(FILE_NAME, content);
                world.onFileRead = [=](sim::CFileRead& read) {
                    read.dwBytes = std::min(read.dwBytes, static_cast<DWORD>(nFill));
                };
                const std::uint64_t qwBegin = world.NowMs();
                const std::uint64_t nThreads = Threads();
                ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
                EXPECT_EQ(ReadAll(buf, nRequest), content);
                EXPECT_EQ(world.NowMs() - qwBegin, 10 * qwBuffers);
                EXPECT_EQ(Threads() - nThreads, std::max<std::uint64_t>(qwBuffers, 1));
            }
        }
    }
}

// What had been copied comes, then nothing more, until the next open.
TEST_F(IoBufTest, ReadErrorsAndNoThread) {
    const Rows<ECall, std::uint64_t, std::size_t> rows = {
        // the bytes that come: the first thread fills both buffers before anybody looks
        {ECall::ReadFile, 1, 0},     {ECall::ReadFile, 2, 0},     {ECall::ReadFile, 3, N},
        {ECall::ReadFile, 4, 2 * N}, {ECall::ReadFile, 5, 3 * N}, {ECall::CreateThread, 2, N}};
    for (const auto& [eCall, nNumber, dwDelivered] : rows) {
        world.FailCall(eCall, nNumber);
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(buf, 10), Part(CONTENT, 0, dwDelivered));
        EXPECT_EQ(ReadAll(buf, 10), Bytes{});
        world.ClearFaults();
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(buf, 10), CONTENT);
    }
    // An error that comes while the consumer waits ends the wait.
    world.onFileRead = [&](sim::CFileRead& read) {
        platform::Sleep(95);
        read.bFail = true;
    };
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    const std::uint64_t qwBegin = world.NowMs();
    EXPECT_EQ(ReadAll(buf, 10), Bytes{});
    EXPECT_EQ(world.NowMs() - qwBegin, 100u);
}

// A fill that is late by more than 1000 looks: the consumer asks for the next one all the same, and
// the two follow one another. Opening another file, or the object's end, stops a fill at once, also
// a late one that no further thread can follow; it keeps no other object waiting.
TEST_F(IoBufTest, LateFillsAndSuchAsAreStopped) {
    Bytes part(N);
    Delay(N, 25'000);
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    world.At(10'009, [&] { EXPECT_EQ(Threads(), 1u); });
    world.At(10'011, [&] { EXPECT_EQ(Threads(), 2u); });
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(world.NowMs(), 25'000u);
    EXPECT_EQ(Join(part, ReadAll(buf, N)), Part(CONTENT, N, 5 * N));
    {
        CIoBuf late;
        ASSERT_EQ(late.InitIoBuf(N, FILE_NAME), 1);
        world.FailCall(ECall::CreateThread, 1);
        EXPECT_EQ(ReadAll(late, N).size(), std::size_t{N});
        ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
        EXPECT_EQ(ReadAll(buf, 9), CONTENT);
        Delay(0, 25'000);
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
        EXPECT_EQ(ReadAll(buf, 9), CONTENT);
    }
    EXPECT_LT(world.NowMs(), 2 * 25'000u);
}

} // namespace
