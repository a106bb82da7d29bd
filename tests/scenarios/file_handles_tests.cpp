// Files of the device by handle, against a model of one file: streams of every size in the time of
// their waits, each kind of fault at each kind of place, and random work under random faults.

#include "tests/scenarios/scenario.h"

#include <iostream>
#include <random>

using namespace scenario;

namespace {

constexpr DWORD READ = 0x80000000;
constexpr DWORD WRITE = 0x40000000;
constexpr DWORD ALWAYS = 4;
constexpr std::size_t DATA = DAK_DATA_SIZE;

// The waits that an operation is made of, of a host that does not tell its speed.
constexpr std::uint64_t READ_MS = 10;
constexpr std::uint64_t LINK_MS = READ_MS + 300 + READ_MS; // up and down
constexpr std::uint64_t RETRY_BASE_MS = 60;
constexpr std::uint64_t SETTLE_MS = 500;

// Acknowledgement, a verdict behind packages 1, 51, 101, ... and the final one, the response.
std::uint64_t WriteMs(std::size_t dwSize) {
    const std::uint64_t qwPackages = std::max<std::uint64_t>(1, (dwSize + DATA - 1) / DATA);
    const std::uint64_t qwVerdicts = 1 + (qwPackages - 1 + 49) / 50;
    return LINK_MS + READ_MS + qwVerdicts * (READ_MS + RETRY_BASE_MS) + READ_MS;
}
// Acknowledgement, two reads a package (one, if it holds nothing), a pause behind every fiftieth
// and the final one.
std::uint64_t ReadMs(std::size_t dwSize) {
    const std::uint64_t qwPackages = (4 + dwSize + DATA - 1) / DATA;
    return LINK_MS + READ_MS + qwPackages * 2 * READ_MS + (qwPackages + 49) / 50 * SETTLE_MS;
}

// One file of the device, held open, and what it should hold.
class CFile : public CScenario {
  public:
    explicit CFile(sim::CWorld& rWorld, Bytes begin = {}) : CScenario(rWorld), bytes(begin) {
        PutDevice({{"f", {bytes}}});
        EXPECT_EQ(dak->DAKCreateFile(DAK_WIDE("\\d\\f"), READ | WRITE, 0, ALWAYS, &hFile), 0u);
    }
    DWORD Seek(DWORD dwPosition) {
        DWORD dwNewPos = 0;
        dak->DAKSetFilePointer(hFile, static_cast<LONG>(dwPosition), 0, &dwNewPos);
        return dwNewPos;
    }
    DWORD Position() {
        DWORD dwNewPos = 0;
        dak->DAKSetFilePointer(hFile, 0, 1, &dwNewPos);
        return dwNewPos;
    }
    Bytes OnDevice() const {
        Bytes all(std::filesystem::file_size(Root() + "/d/f"));
        std::ifstream(Root() + "/d/f", std::ios::binary)
            .read(reinterpret_cast<char*>(all.data()), static_cast<std::streamsize>(all.size()));
        return all;
    }
    // What the file holds when the first dwBytes of data are at dwAt.
    Bytes With(std::size_t dwAt, const Bytes& data, std::size_t dwBytes) const {
        Bytes all = bytes;
        if (dwBytes > 0) {
            all.resize(std::max(all.size(), dwAt + dwBytes));
            std::copy_n(data.begin(), dwBytes, all.begin() + static_cast<std::ptrdiff_t>(dwAt));
        }
        return all;
    }
    // Writes at dwAt, and holds the file to a number of whole windows: all when it is done.
    bool Write(std::size_t dwAt, Bytes data) {
        DWORD dwCount = 0;
        const std::size_t dwSize = data.size();
        data.push_back(0); // a pointer, also for no bytes
        const DWORD dwResult =
            dak->DAKWriteFile(hFile, data.data(), static_cast<DWORD>(dwSize), &dwCount);
        const Bytes after = OnDevice();
        bool bSound = dwResult == 0 ? after == With(dwAt, data, dwSize) : bMisled;
        for (std::size_t dwBytes = 0; dwResult != 0 && !bSound;
             dwBytes += dwBytes == 0 ? DATA : 50 * DATA) {
            bSound = after == With(dwAt, data, std::min(dwBytes, dwSize));
            if (dwBytes >= dwSize) {
                break;
            }
        }
        EXPECT_TRUE(bSound) << "result " << dwResult;
        EXPECT_TRUE(dwResult != 0 || dwCount == dwSize);
        bytes = after;
        return dwResult == 0;
    }
    // Reads at dwAt. What comes is the beginning of what is wanted.
    std::size_t Read(std::size_t dwAt, std::size_t dwSize) {
        Bytes buffer(dwSize + 1, 0xEE);
        DWORD dwCount = 0;
        const DWORD dwResult =
            dak->DAKReadFile(hFile, buffer.data(), static_cast<DWORD>(dwSize), &dwCount);
        EXPECT_EQ(dwResult == 0, dwCount > 0);
        const std::size_t dwThere = bytes.size() - std::min(bytes.size(), dwAt);
        EXPECT_LE(dwCount, std::min(dwThere, dwSize));
        EXPECT_TRUE(dwCount == 0 || bMisled ||
                    std::equal(buffer.begin(), buffer.begin() + dwCount,
                               bytes.begin() + static_cast<std::ptrdiff_t>(dwAt)));
        return dwCount;
    }
    void FaultsOff() {
        world.ClearFaults();
        pPeer->ClearFaults();
        Replug();
    }

    Bytes bytes;
    void* hFile = nullptr;
    // A package of the stream is lost where none has a number: what came behind it stands in its
    // place, and an operation need only not say that it has done all.
    bool bMisled = false;
};

TEST(FileHandles, StreamsOfEverySizeInTheTimeOfTheirWaits) {
    sim::CWorld world;
    CFile file(world);
    std::uint64_t qwBegin = 0;
    const auto elapsed = [&] { return world.NowMs() - std::exchange(qwBegin, world.NowMs()); };
    for (const std::size_t dwSize :
         {std::size_t{0}, std::size_t{1}, std::size_t{12270}, std::size_t{12271}, DATA, DATA + 1,
          50 * DATA - 4, 50 * DATA - 3, 50 * DATA, 51 * DATA, 51 * DATA + 1, 101 * DATA + 1}) {
        SCOPED_TRACE(dwSize);
        const auto dwAt = static_cast<DWORD>(dwSize % 7);
        ASSERT_EQ(file.Seek(dwAt), dwAt);
        elapsed();
        EXPECT_TRUE(file.Write(dwAt, sim::Pattern(dwSize, static_cast<std::uint32_t>(dwSize))));
        EXPECT_EQ(elapsed(), WriteMs(dwSize));
        EXPECT_EQ(file.Position(), dwAt + dwSize);
        ASSERT_EQ(file.Seek(dwAt), dwAt);
        elapsed();
        EXPECT_EQ(file.Read(dwAt, dwSize), dwSize);
        EXPECT_EQ(elapsed(), ReadMs(dwSize));
        EXPECT_EQ(file.Position(), dwAt + dwSize);
    }
    // At the end nothing comes, and that is told from a failure.
    EXPECT_EQ(file.Read(file.bytes.size(), 100), 0u);
    EXPECT_EQ(file.dak->GetLastError(), 0u);
    EXPECT_EQ(file.dak->DAKCloseFile(file.hFile), 0u);
    EXPECT_EQ(file.Read(0, 100), 0u);
    EXPECT_EQ(file.dak->GetLastError(), DAKERROR_PROTOCOL);
    EXPECT_FALSE(file.Write(0, {1}));
    EXPECT_EQ(file.dak->GetLastError(), DAKERROR_DEVICE_REFUSED);
    EXPECT_EQ(file.dak->DAKCloseFile(file.hFile), DAKERROR_FAIL);
}

// The packages of an operation in the direction of its stream: the handshake, the command or its
// acknowledgement, and then 58 of data.
constexpr std::uint64_t BEFORE_STREAM = 2;
constexpr std::uint64_t PACKAGES = 58;

TEST(FileHandles, ASingleFaultIsMadeGoodOrNamed) {
    constexpr sim::CAgentPeer::CFault FAULTS[] = {
        {EFault::Corrupt, 0}, {EFault::Corrupt, 4}, {EFault::Corrupt, 1000}, {EFault::Drop},
        {EFault::Cut, 9},     {EFault::Cut, 100},   {EFault::Delay, 7000},   {EFault::Vanish}};
    constexpr std::size_t SIZE = (PACKAGES - 1) * DATA + 70;
    const Bytes old = sim::Pattern(SIZE + 500, 3);
    const Bytes data = sim::Pattern(SIZE, 4);
    const Bytes more = sim::Pattern(2 * DATA, 5);
    std::uint64_t nRuns = 0;
    for (const bool bWrite : {true, false}) {
        for (const bool bToHost : {false, true}) {
            const bool bOfStream = bToHost != bWrite;
            for (const sim::CAgentPeer::CFault& fault : FAULTS) {
                // Around the ends of windows; against the stream, the few packages there are.
                for (const std::uint64_t n : {1U, 2U, 3U, 4U, 52U, 53U, 60U}) {
                    if ((!bOfStream && n > 5) || ++nRuns % ONE_IN != 0) {
                        continue;
                    }
                    SCOPED_TRACE(::testing::Message()
                                 << (bWrite ? "write" : "read") << ", package " << n
                                 << (bToHost ? " to the host: " : " to the device: ")
                                 << static_cast<int>(fault.eFault) << ", " << fault.dwAmount);
                    sim::CWorld world;
                    CFile file(world, old);
                    if (bToHost) {
                        file.pPeer->FaultToHost(n, fault);
                    } else {
                        file.pPeer->FaultToDevice(n, fault);
                    }
                    file.bMisled = bOfStream && fault.eFault == EFault::Drop;
                    const bool bDone = bWrite ? file.Write(0, data) : file.Read(0, SIZE) == SIZE;
                    file.bMisled = false;
                    // The time-out of a write grows with the package; the last one is short.
                    const bool bHeldUp =
                        fault.eFault == EFault::Delay && !(bWrite && n == BEFORE_STREAM + PACKAGES);
                    if (bOfStream && n > BEFORE_STREAM &&
                        (bHeldUp || fault.eFault == EFault::Corrupt)) {
                        EXPECT_TRUE(bDone);
                    }
                    // The handle is good for more.
                    file.FaultsOff();
                    EXPECT_EQ(file.Seek(10), 10u);
                    EXPECT_TRUE(file.Write(10, more));
                    EXPECT_EQ(file.Seek(0), 0u);
                    EXPECT_EQ(file.Read(0, SIZE), SIZE);
                    EXPECT_EQ(file.dak->DAKCloseFile(file.hFile), 0u);
                    if (::testing::Test::HasFailure()) {
                        return;
                    }
                }
            }
        }
    }
}

class CSeed {
  public:
    explicit CSeed(std::uint64_t qwSeed) : m_random(qwSeed), m_file(m_world) {}

    void Run() {
        for (int i = 0; i < 12 && !::testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE(::testing::Message() << "step " << i);
            Step();
        }
    }

  private:
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(m_random() % n); }

    // Commands bear no checksum, so that those and their answers are only held up.
    bool PlanFault(bool bWrite) {
        const std::uint64_t n = 3 + Below(Below(2) == 0 ? 3 : 60);
        sim::CAgentPeer::CFault fault{};
        switch (Below(6)) {
        case 0:
            fault = {EFault::Corrupt, Below(300)};
            break;
        case 1:
            fault = {EFault::Delay, Below(20'000)};
            break;
        case 2:
            fault = {EFault::Vanish};
            break;
        case 3:
            fault = {EFault::Cut, 14 + Below(300)};
            break;
        default:
            return false;
        }
        if (bWrite) {
            m_file.pPeer->FaultToDevice(n, fault);
        } else {
            m_file.pPeer->FaultToHost(n, fault);
        }
        return true;
    }

    void Step() {
        const std::size_t dwAt = Below(m_file.bytes.size() + 1 + (Below(4) == 0 ? 5000 : 0));
        EXPECT_EQ(m_file.Seek(static_cast<DWORD>(dwAt)), dwAt);
        const std::size_t dwSize = Below(Below(4) == 0 ? 70 * DATA : 3 * DATA);
        const bool bWrite = Below(2) == 0;
        const bool bFault = PlanFault(bWrite);
        if (bWrite) {
            const auto dwSeed = static_cast<std::uint32_t>(Below(1000));
            EXPECT_TRUE(m_file.Write(dwAt, sim::Pattern(dwSize, dwSeed)) || bFault);
        } else {
            const std::size_t dwThere = m_file.bytes.size() - std::min(m_file.bytes.size(), dwAt);
            EXPECT_TRUE(m_file.Read(dwAt, dwSize) == std::min(dwThere, dwSize) || bFault);
        }
        m_file.FaultsOff();
    }

    std::mt19937_64 m_random;
    sim::CWorld m_world;
    CFile m_file;
};

TEST(FileHandles, RandomWorkUnderRandomFaultsAgainstAModel) {
    const char* lpszSeed = std::getenv("DAK_SEED");
    const std::uint64_t qwFirst = lpszSeed != nullptr ? std::strtoull(lpszSeed, nullptr, 10) : 1;
    for (std::uint64_t qwSeed = qwFirst; qwSeed < qwFirst + (lpszSeed != nullptr ? 1 : 60 / ONE_IN);
         ++qwSeed) {
        CSeed(qwSeed).Run();
        if (::testing::Test::HasFailure()) {
            std::cerr << "To repeat: DAK_SEED=" << qwSeed << " file_handles_tests\n";
            return;
        }
    }
}

} // namespace
