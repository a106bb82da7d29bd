// Listings of all lengths over a pipe that damages packages, and a copy that the device's going
// cuts short, with the real agent core.

#include "tests/scenarios/scenario.h"

#include "remote_files/file_info.h"

#include <cstring>

using namespace scenario;

namespace {

using FileList = CArray<_tagFileInfo, _tagFileInfo>;

constexpr std::size_t FIRST_BYTES = DAK_PACKAGE_SIZE - 18;
constexpr std::size_t LATER_BYTES = DAK_PACKAGE_SIZE - 10;

// Files in \d whose entries fill so many packages: the last one to its very end, or by the bytes
// that are left when it is not to be full. Returns their names in the order of the listing.
std::vector<std::string> FillFolder(const CScenario& s, std::size_t nPackages, bool bToTheEnd) {
    // 2 * (name + path + type) + 42 bytes: a name of n characters is 4n + 56 with the type "File",
    // and 4n + 62 with "AB file".
    std::size_t dwRest = nPackages == 0 ? 0 : FIRST_BYTES + (nPackages - 1) * LATER_BYTES;
    dwRest -= bToTheEnd || nPackages == 0 ? 0 : 5000 + dwRest % 4;
    std::vector<std::string> names;
    constexpr std::size_t LONG = 250;
    const auto add = [&](std::size_t nLength, const char* lpszEnd = "") {
        std::string strName = std::to_string(100'000 + names.size());
        strName.resize(nLength, 'x');
        strName.replace(nLength - std::strlen(lpszEnd), std::string::npos, lpszEnd);
        std::ofstream{s.Root() + "/d/" + strName};
        names.push_back(strName);
        dwRest -= 4 * nLength + 56;
    };
    while (dwRest >= 2 * (4 * LONG + 56)) {
        add(LONG);
    }
    if (dwRest > 0) {
        add(dwRest / 8 - 14);
        dwRest % 4 == 0 ? add((dwRest - 56) / 4) : add((dwRest - 62) / 4, ".ab");
    }
    return names;
}

std::vector<std::string> NamesOf(FileList& list) {
    std::vector<std::string> names;
    for (int i = 0; i < list.GetSize(); ++i) {
        names.push_back(Narrow(list[i].szText1));
        EXPECT_EQ(Narrow(list[i].szText2), "\\d\\" + names.back());
        EXPECT_EQ(list[i].dwFileAttributes, 0x20u);
    }
    return names;
}

// The head of the reply is read 1458 ms behind the call, each package then in two reads but the
// first, whose head it is.
TEST(Listings, OfAllLengthsInTheTimeOfTheirReads) {
    for (const std::size_t nPackages : {0u, 1u, 2u, 49u, 50u, 51u, 100u}) {
        for (const bool bToTheEnd : {true, false}) {
            if (!bToTheEnd && nPackages > 2 && nPackages != 51) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << nPackages << " packages, " << bToTheEnd);
            sim::CWorld world;
            CScenario s(world);
            const std::vector<std::string> names = FillFolder(s, nPackages, bToTheEnd);
            FileList list;
            const std::uint64_t qwBefore = s.pPeer->PackagesToHost();
            EXPECT_EQ(s.dak->DAKGetFolderContent(s.strDevice, &list), 0u);
            // Handshakes, acknowledgement, and at least a head.
            const std::size_t nReply = std::max<std::size_t>(nPackages, 1);
            EXPECT_EQ(s.pPeer->PackagesToHost() - qwBefore, 3 + nReply);
            EXPECT_EQ(world.NowMs(), nPackages == 0 ? 1458 : 1468 + 20 * (nPackages - 1));
            EXPECT_EQ(NamesOf(list), names);
        }
    }
}

// A package that is lost, late, cut or changed. Nothing protects the entries, so that bytes that
// are missing can garble those behind them; but the count is never wrong without saying so, what
// is only late does no harm, and the next listing does.
TEST(Listings, FaultsOfThePipe) {
    using CFault = sim::CAgentPeer::CFault;
    const CFault faults[] = {{EFault::Drop},       {EFault::Cut, 5},      {EFault::Cut, 700},
                             {EFault::Delay, 100}, {EFault::Delay, 1500}, {EFault::Corrupt, 0},
                             {EFault::Corrupt, 8}, {EFault::Vanish}};
    sim::CWorld world;
    CScenario s(world);
    const std::vector<std::string> names = FillFolder(s, 55, false);
    for (const CFault& fault : faults) {
        for (const bool bToHost : {true, false}) {
            for (const std::uint64_t n : {1u, 2u, 3u, 4u, 52u, 53u, 57u}) {
                if (!bToHost && n > 4) {
                    break;
                }
                SCOPED_TRACE(::testing::Message()
                             << "fault " << static_cast<int>(fault.eFault) << " of "
                             << fault.dwAmount << " at " << n << (bToHost ? "" : " to the device"));
                bToHost ? s.pPeer->FaultToHost(n, fault) : s.pPeer->FaultToDevice(n, fault);
                FileList list;
                const DWORD dwResult = s.dak->DAKGetFolderContent(s.strDevice, &list);
                const auto nGot = static_cast<std::size_t>(list.GetSize());
                EXPECT_LE(nGot, names.size());
                EXPECT_EQ(dwResult == 0, nGot == names.size());
                if (fault.eFault == EFault::Delay && dwResult == 0) {
                    EXPECT_EQ(NamesOf(list), names);
                }
                s.pPeer->ClearFaults();
                s.Replug();
                s.dak->ClearFileList(&list);
                EXPECT_EQ(s.dak->DAKGetFolderContent(s.strDevice, &list), 0u);
                EXPECT_EQ(NamesOf(list), names);
            }
        }
    }
}

// A device that goes in the middle of a copy on it leaves what was there, and no part.
TEST(Paths, ADeviceThatGoesInTheMiddleOfACopy) {
    sim::CWorld world;
    CScenario s(world);
    const CFileState large = File(4'000'000, 1);
    const CFileState old = File(10, 2);
    s.PutDevice({{"a", large}, {"b", old}});
    world.At(world.NowMs() + 313, [&] {
        EXPECT_EQ(s.DeviceTree().size(), 4u) << "a part and its journal are to be there";
        world.Unplug(*s.pPeer);
    });
    EXPECT_NE(s.dak->DAKCopyFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b"), 0), 0u);
    EXPECT_TRUE(s.DeviceTree().at("b").bytes == old.bytes);
    EXPECT_EQ(s.DeviceTree(true).size(), 2u);
    s.Replug();
    EXPECT_EQ(s.dak->DAKCopyFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b"), 0), 0u);
    EXPECT_TRUE(s.DeviceTree().at("b").bytes == large.bytes);
}

} // namespace
