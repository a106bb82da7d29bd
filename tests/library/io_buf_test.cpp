// The read-ahead file buffer: bytes, threads and times at every size, and its errors.

#include "tests/library/library_run.h"
#include "transfer/io_buf.h"

namespace {

constexpr char FILE_NAME[] = "C:/s/a.bin";
constexpr char OTHER_NAME[] = "C:/s/b.bin";
constexpr int N = 16; // bytes of a buffer

class IoBufTest : public testing::Test {
  protected:
    ~IoBufTest() override {
        buf.DeinitIoBuf();
        buf.DeinitIoBuf(); // finds nothing to do
        EXPECT_EQ(buf.ReadIoBuf(nullptr, 1), 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_EQ(world.LiveThreads(), 0);
    }
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
    // The reads of the file from there on take so long.
    void Delay(std::uint64_t qwPosition, DWORD dwMs, const std::string& strPath = FILE_NAME) {
        world.onFileRead = [=](sim::CFileRead& read) {
            if (read.strPath == strPath && read.qwPosition == qwPosition) {
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
        for (const int nSize :
             {0, 1, N - 1, N, N + 1, 2 * N - 1, 2 * N, 2 * N + 1, 3 * N, 7 * N + 5}) {
            for (const int nRequest : {1, 5, N - 1, N, N + 1, N + 8, 2 * N, 2 * N + 1, 100}) {
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
                EXPECT_EQ(ReadAll(nRequest), content);
                EXPECT_EQ(world.NowMs() - qwBegin, 10 * qwBuffers);
                EXPECT_EQ(Threads() - nThreads, std::max<std::uint64_t>(qwBuffers, 1));
            }
        }
    }
}

// What had been copied comes, then nothing more, until the next open.
TEST_F(IoBufTest, ReadErrorsAndNoThread) {
    const Bytes content = Pattern(5 * N);
    world.WriteHostFile(FILE_NAME, content);
    // nDelivered: the first thread fills both buffers before anybody looks
    const Rows<ECall, std::uint64_t, std::ptrdiff_t> rows = {
        {ECall::ReadFile, 1, 0},     {ECall::ReadFile, 2, 0},     {ECall::ReadFile, 3, N},
        {ECall::ReadFile, 4, 2 * N}, {ECall::ReadFile, 5, 3 * N}, {ECall::CreateThread, 2, N}};
    for (const auto& [eCall, nNumber, nDelivered] : rows) {
        world.FailCall(eCall, nNumber);
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(10), Bytes(content.begin(), content.begin() + nDelivered));
        EXPECT_EQ(ReadAll(10), Bytes{});
        world.ClearFaults();
        ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
        EXPECT_EQ(ReadAll(10), content);
    }
    // Without the first thread the file stays open, and the caller can make the pass itself.
    world.FailCall(ECall::CreateThread, 1);
    EXPECT_EQ(buf.InitIoBuf(N, FILE_NAME), 0);
    EXPECT_EQ(buf.ReadFileData(), 1);
    EXPECT_EQ(ReadAll(N), content);
    EXPECT_EQ(CIoBuf::ReadDataToBufferThread(nullptr), 1u);
    // An error that comes while the consumer waits ends the wait.
    world.onFileRead = [&](sim::CFileRead& read) {
        platform::Sleep(95);
        read.bFail = true;
    };
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    const std::uint64_t qwBegin = world.NowMs();
    EXPECT_EQ(ReadAll(10), Bytes{});
    EXPECT_EQ(world.NowMs() - qwBegin, 100u);
}

TEST_F(IoBufTest, BuffersAreKeptAndReplaced) {
    world.WriteHostFile(FILE_NAME, Pattern(5 * N));
    const std::string strLong = "C:/s/" + std::string(255, 'x'); // 260 characters
    world.WriteHostFile(strLong, {1});
    // nFailing: of the blocks of memory asked for
    // nBlocks: of that size, and none of another
    const Rows<int, std::uint64_t, std::string, std::ptrdiff_t> rows = {
        {N, 1, FILE_NAME, 0}, {N, 2, FILE_NAME, 1},     {N, 0, FILE_NAME, 2},
        {N, 1, FILE_NAME, 2}, {4 * N, 0, FILE_NAME, 2}, {N, 0, "C:/s/missing", 2},
        {N, 0, strLong, 2},   {4 * N, 0, FILE_NAME, 2}};
    for (const auto& [nBufSize, nFailing, strFile, nBlocks] : rows) {
        nFailing != 0 ? world.FailCall(ECall::LocalAlloc, nFailing) : void();
        const bool bOpens = strFile == FILE_NAME && nBlocks == 2;
        EXPECT_EQ(buf.InitIoBuf(nBufSize, strFile.c_str()), bOpens ? 1 : 0);
        const auto open = world.Open();
        const auto blocks = [&](int nBytes) {
            return std::ranges::count(open, "memory block of " + std::to_string(nBytes) + " bytes");
        };
        EXPECT_EQ(blocks(nBufSize), nBlocks);
        EXPECT_EQ(blocks(5 * N - nBufSize), 0);
        EXPECT_TRUE(!bOpens || ReadAll(7) == Pattern(5 * N));
        world.ClearFaults();
    }
}

// Opening another file, or closing, in the middle of a fill stops it at once.
TEST_F(IoBufTest, RunningFillIsStopped) {
    world.WriteHostFile(FILE_NAME, Pattern(5 * N));
    world.WriteHostFile(OTHER_NAME, Pattern(50, 2));
    Delay(0, 5000);
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    platform::Sleep(100);
    ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
    EXPECT_EQ(world.NowMs(), 100u);
    EXPECT_EQ(ReadAll(9), Pattern(50, 2));
    {
        CIoBuf local;
        ASSERT_EQ(local.InitIoBuf(N, FILE_NAME), 1);
        platform::Sleep(100);
    }
    EXPECT_EQ(world.NowMs(), 200u + 4 * 10);
}

// A fill that is late by more than 1000 looks: the consumer asks for the next one all the same, and
// the two follow one another. Where no further thread can be had, the late one is stopped before
// its buffer goes. It keeps no other object waiting.
TEST_F(IoBufTest, LateFill) {
    const Bytes content = Pattern(5 * N + 3);
    world.WriteHostFile(FILE_NAME, content);
    world.WriteHostFile(OTHER_NAME, content);
    Delay(N, 25'000);
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    Bytes part(N);
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    world.At(10'009, [&] { EXPECT_EQ(Threads(), 1u); });
    world.At(10'011, [&] { EXPECT_EQ(Threads(), 2u); });
    EXPECT_EQ(buf.ReadIoBuf(part.data(), N), N);
    EXPECT_EQ(world.NowMs(), 25'000u);
    EXPECT_EQ(Join(Bytes(content.begin(), content.begin() + N), part, ReadAll(N)), content);

    const std::uint64_t qwFilled = world.NowMs() + 25'000;
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    world.FailCall(ECall::CreateThread, 1);
    EXPECT_EQ(ReadAll(N).size(), std::size_t{N});
    CIoBuf other;
    EXPECT_EQ(other.InitIoBuf(N, OTHER_NAME), 1);
    EXPECT_EQ(other.ReadIoBuf(part.data(), N), N);
    ASSERT_EQ(buf.InitIoBuf(N, OTHER_NAME), 1);
    EXPECT_LT(world.NowMs(), qwFilled);
    EXPECT_EQ(ReadAll(N), content);
}

TEST_F(IoBufTest, SizeAndTimes) {
    FILETIME ftCreated = {1, 2};
    FILETIME ftWritten = {3, 4};
    const auto times = [&] {
        buf.IoGetFileTime(&ftCreated, &ftWritten);
        return std::vector<DWORD>{ftCreated.dwLowDateTime, ftCreated.dwHighDateTime,
                                  ftWritten.dwLowDateTime, ftWritten.dwHighDateTime};
    };
    EXPECT_EQ(times(), (std::vector<DWORD>{0, 2, 0, 4})) << "nothing is open";
    world.WriteHostFile(FILE_NAME, Pattern(N), {11, 12}, {13, 14});
    world.HostFile(FILE_NAME)->qwReportedSize = 0x7'0000'0009;
    ASSERT_EQ(buf.InitIoBuf(N, FILE_NAME), 1);
    EXPECT_EQ(times(), (std::vector<DWORD>{11, 12, 13, 14}));
    DWORD dwHigh = 0;
    EXPECT_EQ(buf.IoGetFileSize(&dwHigh), 9u);
    EXPECT_EQ(dwHigh, 7u);
    buf.DeinitIoBuf();
    EXPECT_EQ(buf.IoGetFileSize(&dwHigh), 0u);
    EXPECT_EQ(dwHigh, 0u);
}

} // namespace
