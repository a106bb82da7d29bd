// Whole copies in both directions, and what cuts them short: cancels, unplugging, a killed agent,
// full disks, and a pipe that damages packages.

#include "tests/scenarios/scenario.h"

using namespace scenario;

namespace {

constexpr UINT BOTH[] = {DAK_FROM_DEVICE, DAK_TO_DEVICE};

// The lengths that a stream comes to.
std::size_t Units(const std::string& strName) {
    std::size_t dwUnits = 0;
    for (const char ch : strName) {
        const auto byte = static_cast<unsigned char>(ch);
        dwUnits += (byte & 0xC0) == 0x80 ? 0 : byte >= 0xF0 ? 2 : 1;
    }
    return dwUnits;
}
std::size_t RecordHead(const std::string& strName) {
    return 24 + 2 * (Units(strName) + 1);
}
constexpr std::size_t PUSH_HEAD = 4;
constexpr std::size_t PULL_HEAD = 8;

// Twenty files: empty ones and one byte at both ends of the list, contents that end exactly with a
// package of either direction, two files beyond the read-ahead buffer and beyond many windows,
// folders in folders, names that are not ASCII.
Tree LargeTree(std::uint32_t dwSeed) {
    Tree tree;
    std::size_t dwLength = 0; // of the records so far
    const auto add = [&](const std::string& strName, std::size_t dwBytes) {
        tree[strName] = File(dwBytes, dwSeed + static_cast<std::uint32_t>(tree.size()));
        dwLength += RecordHead(strName) + dwBytes;
    };
    const auto addExact = [&](const std::string& strName, std::size_t dwStreamHead) {
        add(strName,
            DAK_DATA_SIZE - (dwStreamHead + dwLength + RecordHead(strName)) % DAK_DATA_SIZE);
    };
    add("00 empty", 0);
    add("01 one byte", 1);
    addExact("02 exact push", PUSH_HEAD);
    addExact("03/exact pull", PULL_HEAD);
    add("03/empty", 0);
    add("04/b/c/deep", 4711);
    add("05 windows", 2'000'000);
    add("06 buffer", 1'310'720);
    add("07 \xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80/\xC3\xBC.txt", 30'000);
    for (int i = 10; i < 20; ++i) {
        add(std::to_string(i) + " small", static_cast<std::size_t>(i) * 997);
    }
    addExact("20 exact end", PUSH_HEAD);
    EXPECT_EQ(tree.size(), 20u);
    return tree;
}

// The waits that a copy is made of, of a host that does not tell its speed.
constexpr std::uint64_t READ_MS = 10;
constexpr std::uint64_t LINK_UP_MS = READ_MS + 300;
constexpr std::uint64_t RETRY_BASE_MS = 60;
constexpr std::uint64_t SETTLE_MS = 500;
constexpr std::uint64_t DRAIN_MS = 4 * (READ_MS + 508) + 3 * 300;
constexpr std::uint64_t POLL_MS = 10;
constexpr std::size_t READ_AHEAD = 1'310'720;

// Link, then the request's acknowledgement, then a verdict behind packages 1, 51, 101, ... and the
// final one, which may be empty; the reply in two reads; the drain. For each file with contents one
// look at a read-ahead buffer that is not filled yet, unless a package went out with its record,
// and one pause for each further buffer.
std::uint64_t PushMs(const Tree& tree) {
    std::size_t dwLength = PUSH_HEAD;
    std::uint64_t qwReadAhead = 0;
    for (const auto& [strName, file] : tree) {
        const std::size_t dwBehindRecord = dwLength + RecordHead(strName);
        if (!file.bytes.empty()) {
            qwReadAhead += dwLength / DAK_DATA_SIZE == dwBehindRecord / DAK_DATA_SIZE ? POLL_MS : 0;
            qwReadAhead += POLL_MS * ((file.bytes.size() - 1) / READ_AHEAD);
        }
        dwLength = dwBehindRecord + file.bytes.size();
    }
    const std::uint64_t qwPackages = dwLength / DAK_DATA_SIZE + 1;
    const std::uint64_t qwVerdicts = 1 + (qwPackages - 1 + 49) / 50;
    return LINK_UP_MS + READ_MS + RETRY_BASE_MS + qwVerdicts * (READ_MS + RETRY_BASE_MS) +
           2 * READ_MS + qwReadAhead + DRAIN_MS;
}

// Link, the acknowledgement of each piece of the request, a pause; two reads a package; a pause
// behind every fiftieth and the final one; the drain.
std::uint64_t PullMs(const Tree& tree, std::uint64_t qwPieces) {
    std::size_t dwLength = PULL_HEAD;
    for (const auto& [strName, file] : tree) {
        dwLength += RecordHead(strName) + file.bytes.size();
    }
    const std::uint64_t qwPackages = (dwLength + DAK_DATA_SIZE - 1) / DAK_DATA_SIZE;
    return LINK_UP_MS + qwPieces * READ_MS + SETTLE_MS + qwPackages * 2 * READ_MS +
           (qwPackages + 49) / 50 * SETTLE_MS + DRAIN_MS;
}

void ExpectSame(const Tree& got, const Tree& wanted, bool bCreationTimes) {
    EXPECT_EQ(Names(got), Names(wanted));
    for (const auto& [strName, file] : wanted) {
        const auto it = got.find(strName);
        if (it != got.end()) {
            EXPECT_TRUE(it->second.bytes == file.bytes) << strName;
            EXPECT_EQ(it->second.qwWritten, file.qwWritten) << strName;
            if (bCreationTimes) {
                EXPECT_EQ(it->second.qwCreated, file.qwCreated) << strName;
            }
        }
    }
}

TEST(Copy, ALargeTreeGoesThereAndBackInTheTimeOfItsWaits) {
    sim::CWorld world;
    CScenario s(world);
    // Twice: the second time every file has a target to replace, one of them read-only.
    for (const std::uint32_t dwSeed : {1u, 1000u}) {
        const Tree tree = LargeTree(dwSeed);
        s.PutHost("C:/s", tree);
        std::uint64_t qwBegin = world.NowMs();
        ASSERT_EQ(s.Run(DAK_TO_DEVICE, Names(tree)), 0u);
        ASSERT_EQ(world.posted.size(), 1u);
        EXPECT_EQ(world.posted[0].qwMs - qwBegin, PushMs(tree));
        ExpectSame(s.DeviceTree(), tree, false);

        // With names that the device does not have, in a request of several pieces.
        std::vector<std::string> names = Names(tree);
        std::size_t dwRequest = 11 + 2 * (3 + 5) + 4;
        for (int i = 0; i < 60; ++i) {
            names.push_back("missing/" + std::string(200, 'x') + std::to_string(i));
        }
        for (const std::string& strName : names) {
            dwRequest += 2 * (Units(strName) + 1);
        }
        qwBegin = world.NowMs();
        ASSERT_EQ(s.Run(DAK_FROM_DEVICE, names), 0u);
        ASSERT_EQ(world.posted.size(), 1u);
        EXPECT_EQ(world.posted[0].qwMs - qwBegin, PullMs(tree, 1 + (dwRequest - 11) / 12278));
        ExpectSame(s.HostTree("C:/r"), tree, s.DeviceKeepsCreationTimes());
        world.HostFile("C:/r/01 one byte")->bReadOnly = true;
    }

    EXPECT_EQ(s.dak->DAKCreateDirectory(DAK_WIDE("\\d\\new"), nullptr), 0u);
    EXPECT_TRUE(std::filesystem::is_directory(s.Root() + "/d/new"));
    EXPECT_EQ(s.dak->DAKCreateDirectory(DAK_WIDE("\\d\\new"), nullptr), DAKERROR_FAIL);
    EXPECT_EQ(s.dak->DAKDeleteFile(DAK_WIDE("\\d\\04\\b\\c\\deep")), 0u);
    EXPECT_FALSE(s.DeviceTree().contains("04/b/c/deep"));
    EXPECT_EQ(s.dak->DAKDeleteFile(DAK_WIDE("\\d\\04\\b\\c\\deep")), DAKERROR_FAIL);
}

// What the jobs below are about: a file of some windows among small ones, all with old targets but
// the last.
Tree NewTree() {
    return {{"a", File(5000, 1)},
            {"b/big", File(680'000, 2)},
            {"b/c", File(0, 3)},
            {"d", File(20'000, 4)}};
}
Tree OldTree() {
    return {{"a", File(300, 11)}, {"b/big", File(20'000, 12)}, {"b/c", File(70, 13)}};
}

// A scenario of one direction with its trees laid out.
class CJob : public CScenario {
  public:
    CJob(sim::CWorld& rWorld, UINT nJobDirection, std::optional<std::uint64_t> qwQuota = {})
        : CScenario(rWorld, qwQuota), nDirection(nJobDirection) {
        if (nDirection == DAK_TO_DEVICE) {
            PutHost("C:/s", NewTree());
            PutDevice(OldTree());
        } else {
            PutDevice(NewTree());
            PutHost("C:/r", OldTree());
        }
    }
    Tree Target() { return nDirection == DAK_TO_DEVICE ? DeviceTree(false) : HostTree("C:/r"); }
    DWORD RunJob(std::optional<std::uint64_t> qwCancelMs = {}) {
        return Run(nDirection, Names(NewTree()), qwCancelMs);
    }
    void ExpectSettledNow(DWORD dwResult) {
        ExpectSettled(OldTree(), NewTree(), Target(), dwResult == 0);
    }
    void ExpectNextJobDoes() { ExpectRecovered(nDirection, NewTree(), OldTree()); }

    const UINT nDirection;
};

// The pipe takes a while for each package, so that moments differ.
void SlowPipe(CJob& job, std::uint64_t qwMs) {
    job.pPeer->onPackage = [qwMs](bool, std::uint64_t n) {
        // The handshake waits least.
        return n == 1 ? std::nullopt : std::optional(sim::CAgentPeer::CFault{EFault::Delay, qwMs});
    };
}

// At every third moment the pipe is so slow that the cancelling caller gives up waiting for the
// worker while that still receives, and deletes the part file beside it.
TEST(Cancel, AtAnyMomentLeavesWholeFilesAndTheNextJobDoes) {
    std::uint64_t nRuns = 0;
    for (const UINT nDirection : BOTH) {
        std::uint64_t qwCancelled = 0;
        for (std::uint64_t qwMs = 0; qwMs < 7000; qwMs += qwMs < 80 ? 9 : 127) {
            if (++nRuns % ONE_IN != 0) {
                continue;
            }
            SCOPED_TRACE(::testing::Message()
                         << "direction " << nDirection << ", cancel after " << qwMs);
            sim::CWorld world;
            CJob job(world, nDirection);
            world.bOpenFilesCannotBeDeleted = qwMs % 2 == 1;
            const bool bCrawls = qwMs % 3 == 0;
            SlowPipe(job, bCrawls ? 400 : 7);
            const DWORD dwResult = job.RunJob(bCrawls ? 4 * qwMs : qwMs);
            qwCancelled += dwResult == DAKERROR_CANCELLED ? 1 : 0;
            EXPECT_TRUE(dwResult <= DAKERROR_PROTOCOL) << dwResult;
            job.ExpectSettledNow(dwResult);
            job.ExpectNextJobDoes();
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
        EXPECT_GT(qwCancelled, 15 / ONE_IN);
    }
}

TEST(Unplug, AtAnyPackageLeavesWholeFilesAndTheNextJobDoes) {
    std::uint64_t nRuns = 0;
    for (const UINT nDirection : BOTH) {
        for (const bool bToHost : {false, true}) {
            for (const bool bKilled : {false, true}) {
                for (std::uint64_t n = 1;; n += n > 4 && n < 50 ? 15 : n > 51 ? 3 : 1) {
                    if (++nRuns % ONE_IN != 0) {
                        continue;
                    }
                    SCOPED_TRACE(::testing::Message()
                                 << "direction " << nDirection << ", at package " << n
                                 << (bToHost ? " to the host" : " to the device")
                                 << (bKilled ? ", agent killed" : ""));
                    sim::CWorld world;
                    CJob job(world, nDirection);
                    job.pPeer->onPackage =
                        [&](bool bIsToHost,
                            std::uint64_t nPackage) -> std::optional<sim::CAgentPeer::CFault> {
                        if (bIsToHost != bToHost || nPackage != n) {
                            return {};
                        }
                        if (bKilled) {
                            job.PhotographDevice();
                        }
                        return sim::CAgentPeer::CFault{EFault::Vanish};
                    };
                    const DWORD dwResult = job.RunJob();
                    const bool bMet = job.pPeer->FaultsMet() != 0;
                    job.ExpectSettledNow(dwResult);
                    if (bKilled) {
                        job.StartAgent();
                        EXPECT_EQ(job.DeviceTree(true).size(), job.DeviceTree(false).size());
                    }
                    job.ExpectNextJobDoes();
                    if (!bMet || ::testing::Test::HasFailure()) {
                        EXPECT_EQ(dwResult, 0u);
                        break;
                    }
                }
            }
        }
    }
}

TEST(Room, AFullDeviceOrARefusedPathIsNamedAndNothingIsTorn) {
    for (const std::uint64_t qwQuota : {20'400u, 30'000u, 100'000u, 705'000u}) {
        sim::CWorld world;
        CJob job(world, DAK_TO_DEVICE, qwQuota);
        job.StartAgent(); // counts what is there
        const DWORD dwResult = job.RunJob();
        EXPECT_EQ(dwResult, DAKERROR_NO_SPACE) << qwQuota;
        job.ExpectSettledNow(dwResult);
        EXPECT_EQ(job.DeviceTree(true).size(), job.DeviceTree(false).size());
        // What has room goes through on the same object.
        EXPECT_EQ(job.Run(DAK_TO_DEVICE, {"b/c"}), 0u);
    }
    sim::CWorld world;
    CJob job(world, DAK_TO_DEVICE);
    std::filesystem::create_directories(job.Root() + "/d/d/in the way");
    EXPECT_EQ(job.RunJob(), DAKERROR_DEVICE_REFUSED);
    job.ExpectSettledNow(DAKERROR_DEVICE_REFUSED);
    job.strDevice = DAK_WIDE("\\d\\..\\..\\out");
    EXPECT_EQ(job.RunJob(), DAKERROR_DEVICE_REFUSED);
    job.strDevice = DAK_WIDE("\\d");
    std::filesystem::remove_all(job.Root() + "/d/d");
    job.ExpectNextJobDoes();
}

TEST(Room, AFullHostIsNamedAndNothingIsTorn) {
    for (const std::uint64_t qwFree : {0u, 90'000u, 104'000u, 107'000u, 300'000u, 760'000u}) {
        SCOPED_TRACE(qwFree);
        sim::CWorld world;
        CJob job(world, DAK_FROM_DEVICE);
        world.qwFreeBytes = qwFree;
        const DWORD dwResult = job.RunJob();
        EXPECT_EQ(dwResult, DAKERROR_NO_SPACE);
        job.ExpectSettledNow(dwResult);
        world.qwFreeBytes = 1ull << 40;
        job.ExpectNextJobDoes();
    }
}

struct CPipeFault {
    const char* lpszName;
    sim::CAgentPeer::CFault fault;
};
constexpr CPipeFault PIPE_FAULTS[] = {
    {"command word", {EFault::Corrupt, 0}},  {"length", {EFault::Corrupt, 4}},
    {"contents", {EFault::Corrupt, 1000}},   {"dropped", {EFault::Drop}},
    {"cut in the head", {EFault::Cut, 9}},   {"cut in the contents", {EFault::Cut, 100}},
    {"delayed long", {EFault::Delay, 7000}}, {"delayed beyond all", {EFault::Delay, 30'000}},
};

// The packages of a job in the direction of its stream: the handshake, the command or its
// acknowledgement, and then 58 data packages. The last that the device ends a window with is 50.
constexpr std::uint64_t BEFORE_STREAM = 2;
constexpr std::uint64_t LAST = BEFORE_STREAM + 58;

// Whether the protocol makes good a single fault of a package of the stream.
bool IsRecovered(bool bPush, std::uint64_t n, const CPipeFault& fault) {
    const bool bLast = n == LAST;
    switch (fault.fault.eFault) {
    case EFault::Corrupt:
        return true;
    case EFault::Drop:
        // The verdict by silence helps the device alone, and only while it is not misled: it knows
        // a package to be missing where the window's number is known, or nothing comes.
        return bPush && (n <= BEFORE_STREAM + 51 || bLast);
    case EFault::Cut:
        // The host takes the bytes that it misses from the package behind, if there is one as
        // long, and then sees a wrong checksum; a piece that ends early ends the stream.
        return bPush ||
               (fault.fault.dwAmount < DAK_DATA_OFFSET && n < LAST - 1 && n != BEFORE_STREAM + 50);
    default:
        // The time-out of a write grows with the package.
        return fault.fault.dwAmount < 10'000 && !(bPush && bLast);
    }
}

// A package that is lost unnoticed, where none has a number: the next takes its place, and that
// shows only when the stream ends too early. Files that ended in between have their names by then.
bool IsMisleading(bool bPush, std::uint64_t n, const CPipeFault& fault) {
    return fault.fault.eFault == EFault::Drop && n > BEFORE_STREAM && n <= LAST &&
           !IsRecovered(bPush, n, fault) && (bPush || n > BEFORE_STREAM + 50);
}

TEST(Pipe, ASingleFaultIsMadeGoodOrNamedAndNothingIsTorn) {
    std::uint64_t nRuns = 0;
    for (const UINT nDirection : BOTH) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        for (const bool bToHost : {false, true}) {
            const bool bOfStream = bToHost != bPush;
            for (const CPipeFault& fault : PIPE_FAULTS) {
                // Of the short packages against the stream one kind of damage is like another.
                if (!bOfStream && fault.fault.eFault != EFault::Drop && fault.fault.dwAmount != 0 &&
                    fault.fault.dwAmount != 7000) {
                    continue;
                }
                for (std::uint64_t n = 1;; n += n == 3 && bOfStream ? 48 : 1) {
                    if (++nRuns % ONE_IN != 0) {
                        continue;
                    }
                    SCOPED_TRACE(::testing::Message()
                                 << "direction " << nDirection << ", package " << n
                                 << (bToHost ? " to the host: " : " to the device: ")
                                 << fault.lpszName);
                    sim::CWorld world;
                    CJob job(world, nDirection);
                    if (bToHost) {
                        job.pPeer->FaultToHost(n, fault.fault);
                    } else {
                        job.pPeer->FaultToDevice(n, fault.fault);
                    }
                    const DWORD dwResult = job.RunJob();
                    const bool bMet = job.pPeer->FaultsMet() != 0;
                    if (bOfStream && IsMisleading(bPush, n, fault)) {
                        EXPECT_NE(dwResult, 0u);
                    } else {
                        job.ExpectSettledNow(dwResult);
                    }
                    if (!bMet || (bOfStream && n > BEFORE_STREAM && n <= LAST &&
                                  IsRecovered(bPush, n, fault))) {
                        EXPECT_EQ(dwResult, 0u);
                    }
                    job.ExpectNextJobDoes();
                    if (!bMet) {
                        EXPECT_GT(n, bOfStream ? LAST : 5u);
                        break;
                    }
                }
            }
        }
    }
}

} // namespace
