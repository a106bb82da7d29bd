// Copies of the command, in both directions: as they should be, and with trouble at chosen moments.
#include "tests/end_to_end/world.h"
#include "tests/support/packages.h"

#include <tuple>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string Content(std::size_t nBytes, std::uint32_t dwSeed) {
    const test::Bytes bytes = test::Pattern(nBytes, dwSeed);
    return {bytes.begin(), bytes.end()};
}

#ifdef _WIN32
const std::string g_strLikePattern = "pat"; // no file system has the other name
#else
const std::string g_strLikePattern = "p*t";
#endif

TREE InDocs(const TREE& tree) {
    TREE below;
    for (const auto& [strName, strBytes] : tree) {
        below["Docs/" + strName] = strBytes;
    }
    return below;
}

// Where the target holds older files of the same names, it takes the new ones' bytes and times.
TEST(Copy, BringsATreeThereAndBackAsItIs) {
    const CWorld world;
    world.pDevice->Plug();
    const TREE tree = {{"a", Content(12'274 - 38, 1)}, // ends where the first package does
                       {g_strLikePattern + "/x", "x"},
                       {"p/p/p/p/p/p/p/f", "f"},
                       {"a b/empty", ""},
                       {"deep/er/\xE6\xBC\xA2", Content(12'274, 2)},
                       {"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC.txt", Content(700, 3)},
                       {"windows", Content(1'000'000, 4)}};
    world.folder.Write("host/Docs", tree);
    auto time = fs::file_time_type::clock::from_sys(std::chrono::sys_seconds{1'000'000'000s});
    for (const auto& [strName, strBytes] : tree) {
        fs::last_write_time(world.folder / ("host/Docs/" + strName), time += 1s);
    }
    fs::create_directory(world.folder / "host/Docs/nobody");
    world.pDevice->Write({{"Docs/a", Content(50'000, 5)}});
    world.folder.Write("host/back/Docs", {{"a", "old"}, {"windows", Content(1'000'001, 6)}});
    fs::permissions(world.folder / "host/back/Docs/a", fs::perms::owner_read);

    const auto pPush = world.Run("dak push --json Docs absent /");
    EXPECT_EQ(pPush->End(), 1);
    for (const char* const lpszSaid : {"\"files_arrived\": 7", "\"bytes_arrived\": 1025212",
                                       "\"path\": \"absent\"", "nobody\""}) {
        EXPECT_TRUE(pPush->Says(lpszSaid)) << lpszSaid << pPush->Output();
    }
    EXPECT_TRUE(world.pDevice->Files() == InDocs(tree));
    EXPECT_TRUE(world.Run("dak stat --json /Docs/a")->Says("2001-09-09T01:46:41.0000000Z"));
    EXPECT_EQ(world.Run("dak mkdir /Docs/hollow")->End(), 0);
    world.pDevice->Write({{"Docs/" + std::string(250, 'l'), "l"}}); // too long for a path here
    const auto pPull = world.Run("dak pull --json /Docs \\absent back");
    EXPECT_EQ(pPull->End(), 1);
    EXPECT_TRUE(pPull->Says("\"files_arrived\": 7") && pPull->Says("\"\\\\absent\"") &&
                pPull->Says("its path is too long"))
        << pPull->Output();
    EXPECT_TRUE(fs::is_directory(world.folder / "host/back/Docs/hollow"));
    const std::string strTwice = g_strLikePattern + "/" + g_strLikePattern;
    EXPECT_FALSE(fs::exists(world.folder / ("host/back/Docs/" + strTwice)));
    EXPECT_TRUE(test::ReadTree(world.folder / "host/back/Docs") == tree);
    for (const auto& [strName, strBytes] : tree) {
        EXPECT_EQ(fs::last_write_time(world.folder / ("host/back/Docs/" + strName)),
                  fs::last_write_time(world.folder / ("host/Docs/" + strName)))
            << strName;
    }
    world.folder.Write("host/tree", {{"a", "a"}, {"deep/\xE6\xBC\xA2", "b"}});
    const auto pExample = world.Run("copy_folder tree \\Old");
    EXPECT_EQ(pExample->End(), 0);
    EXPECT_TRUE(pExample->Says("files copied: 2, left out: 0")) << pExample->Errors();
    EXPECT_EQ(world.pDevice->Files()["Old/deep/\xE6\xBC\xA2"], "b");
}

// The device ends a copy's stream with it.
TEST(Copy, BringsTheOthersWhenAFileChangesMeanwhile) {
    const CWorld world;
    TREE tree = InDocs({{"a", Content(300'000, 1)}, {"b", Content(300'000, 2)}, {"c", "c"}});
    world.pDevice->Write(tree);
    world.pDevice->Plug();
    // A file that is given is not ended where it keeps its size.
    for (const auto& [strWords, nBytes, strChanged, strSaid] :
         {std::tuple{"cat /Docs/b", 100'000U, tree["Docs/b"], "may be a part of each"},
          {"pull /Docs .", 400'000U, std::string("changed"), "out \\Docs\\b: it was changed"}}) {
        world.pDevice->HoldAfter(EWay::ToHost, nBytes);
        const auto pDak = world.Start(std::string("dak ") + strWords);
        EXPECT_TRUE(Eventually([&] { return world.pDevice->Holds(); }));
        world.pDevice->Write({{"Docs/b", strChanged}});
        world.pDevice->GoOn();
        EXPECT_EQ(pDak->End(), 1);
        EXPECT_TRUE(pDak->Says(strSaid)) << pDak->Errors();
    }
    tree.erase("Docs/b");
    EXPECT_TRUE(test::ReadTree(world.folder / "host") == tree);
}

// One window and a half; the older versions are a little longer.
TREE Version(std::uint32_t dwSeed, std::size_t nLonger) {
    return InDocs({{"a", Content(180'000 + nLonger, dwSeed)},
                   {"d", Content(200'000 + nLonger, dwSeed + 1)},
                   {"deep/b", Content(250'000 + nLonger, dwSeed + 2)},
                   {"deep/c", Content(nLonger, dwSeed + 3)},
                   {"e", Content(270'000 + nLonger, dwSeed + 4)}});
}

// A file that is lost there when it has been confirmed, one that changes here when it has been
// sent, and a device that goes in the middle of what was asked of it.
TEST(Copy, ClaimsNothingThatIsNotThere) {
    const CWorld world;
    world.pDevice->Plug();
    world.folder.Write("host", Version(100, 0));
    world.pDevice->HoldAfter(EWay::ToDevice, 850'000);
    const auto pPush = world.Start("dak push --json Docs /");
    EXPECT_TRUE(Eventually([&] { return world.pDevice->Files().contains("Docs/d"); }));
    world.pDevice->Write({{"Docs/a", "older"}});
    world.folder.Write("host", {{"Docs/d", "newer"}});
    world.pDevice->GoOn();
    EXPECT_EQ(pPush->End(), 1);
    for (const char* const lpszSaid : {"\"files_arrived\": 3", "of another size in its place",
                                       "it changed during the copy", "\"verified\": true"}) {
        EXPECT_TRUE(pPush->Says(lpszSaid)) << lpszSaid << pPush->Output();
    }
    world.pDevice->HoldAfter(g_commandMoments[5].first, g_commandMoments[5].second);
    const auto pCopy = world.Start("dak cp --no-clobber /Docs /Old");
    EXPECT_TRUE(Eventually([&] { return world.pDevice->Holds(); }));
    world.pDevice->Unplug();
    EXPECT_EQ(pCopy->End(), 3) << pCopy->Errors();
    world.pDevice->Plug();
}

class Trouble : public testing::TestWithParam<std::tuple<bool, ETrouble, std::uint64_t>> {
  protected:
    Trouble() {
        world.folder.Write("host", m_bPush ? m_new : m_old);
        world.pDevice->Write(m_bPush ? m_old : m_new);
        world.pDevice->Plug();
    }
    std::unique_ptr<CProgram> StartCopy() const {
        return world.Start(m_bPush ? "dak push Docs /" : "dak pull /Docs .");
    }
    // How many files are new; every other one is old, and whole.
    std::size_t CountNew() const {
        std::size_t nNew = 0;
        TREE target = m_bPush ? world.pDevice->Files() : test::ReadTree(world.folder / "host");
        for (const auto& [strName, strBytes] : m_new) {
            const bool bNew = target[strName] == strBytes;
            nNew += bNew ? 1U : 0U;
            EXPECT_TRUE(bNew || target[strName] == m_old.at(strName)) << strName << " is torn";
        }
        // What is killed on the host leaves a held file, a part, and what it had not moved yet.
        EXPECT_LE(target.size(), m_new.size() + (m_bPush ? 0 : 2 + m_new.size()));
        return nNew;
    }
    const CWorld world;
    const bool m_bPush = std::get<0>(GetParam());
    const TREE m_new = Version(100, 0);
    const TREE m_old = Version(200, 1000);
};

TEST_P(Trouble, LeavesWholeFilesAndAFreeLink) {
    const auto [bPush, eTrouble, qwMoment] = GetParam();
    IDevice& device = *world.pDevice;
    device.HoldAfter(bPush ? EWay::ToDevice : EWay::ToHost, qwMoment);
    std::unique_ptr<CProgram> pCopy = StartCopy();
    ASSERT_TRUE(Eventually([&] { return device.Holds(); }));
    int nExit = 3;
    if (eTrouble == ETrouble::Cancelled || eTrouble == ETrouble::EndedAtOnce) {
        nExit = 130;
        pCopy->Signal(bPush ? SIGINT : g_nOtherInterrupt);
        EXPECT_TRUE(Eventually([&] { return pCopy->Says("cancelling; press Ctrl-C again"); }));
        if (eTrouble == ETrouble::EndedAtOnce) {
            pCopy->Signal(SIGINT);
            EXPECT_EQ(pCopy->End(), nExit);
        }
    }
    if (eTrouble == ETrouble::Killed || eTrouble == ETrouble::BothGone) {
        nExit = pCopy->Kill();
    }
    if (eTrouble >= ETrouble::Unplugged) {
        device.Unplug();
        EXPECT_EQ(pCopy->End(), nExit) << pCopy->Errors();
        device.Plug();
    }
    device.GoOn();
    EXPECT_EQ(pCopy->End(), nExit) << pCopy->Errors();

    EXPECT_EQ(world.Run("dak status")->End(), 0);
    const std::size_t nNew = CountNew();
    // What a pull had not moved into place comes again.
    const bool bMoves = bPush || eTrouble == ETrouble::Cancelled || eTrouble == ETrouble::Unplugged;
    EXPECT_TRUE(qwMoment < 600'000 || (nNew < m_new.size() && (nNew > 0 || !bMoves))) << nNew;
    if (eTrouble == ETrouble::Cancelled) {
        // On a push it may be more than what the device had confirmed.
        const std::string strSaid = pCopy->Errors();
        const std::string strAhead = bPush ? "confirmed " : "cancelled. ";
        const auto nSaid = std::stoul(strSaid.substr(strSaid.find(strAhead) + strAhead.size()));
        EXPECT_TRUE(bPush ? nSaid <= nNew : nSaid == nNew) << strSaid << nNew;
    }
    pCopy = StartCopy();
    EXPECT_EQ(pCopy->End(), 0) << pCopy->Errors();
    EXPECT_TRUE((bPush ? device.Files() : test::ReadTree(world.folder / "host")) == m_new);
}

INSTANTIATE_TEST_SUITE_P(Copies, Trouble,
                         testing::Combine(testing::Bool(), testing::ValuesIn(g_copyTroubles),
                                          testing::ValuesIn(g_copyMoments)));

} // namespace
} // namespace end_to_end
