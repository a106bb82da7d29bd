// Copies of the command, in both directions: as they should be, and with trouble at chosen moments.
#include "tests/end_to_end/world.h"

#include "tests/support/packages.h"

#include <nlohmann/json.hpp>

#include <tuple>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

std::string Content(std::size_t nBytes, std::uint32_t dwSeed) {
    const test::Bytes bytes = test::Pattern(nBytes, dwSeed);
    return {bytes.begin(), bytes.end()};
}

TREE Below(const std::string& strFolder, const TREE& tree) {
    TREE below;
    for (const auto& [strName, strBytes] : tree) {
        below[strFolder + "/" + strName] = strBytes;
    }
    return below;
}

// Where the target holds older files of the same names, it takes the new ones' bytes and times.
TEST(Copy, BringsATreeThereAndBackAsItIs) {
    CWorld world;
    world.Plug();
    const TREE tree = {{"a", Content(12'274 - 42, 1)}, // ends where the first package does
                       {"a b/empty", ""},
                       {"deep/er/\xE6\xBC\xA2", Content(12'274, 2)},
                       {"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC.txt", Content(700, 3)},
                       {"windows", Content(1'000'000, 4)}};
    auto time = fs::file_time_type::clock::from_sys(std::chrono::sys_seconds{1'000'000'000s});
    world.folder.Write("host/tree", tree);
    for (const auto& [strName, strBytes] : tree) {
        fs::last_write_time(world.folder / ("host/tree/" + strName), time += 1s);
    }
    world.WriteFiles({{"Docs/tree/a", Content(50'000, 5)}});
    world.folder.Write("host/back/tree", {{"a", "old"}, {"windows", Content(1'000'001, 6)}});
    fs::permissions(world.folder / "host/back/tree/a", fs::perms::owner_read);
    fs::create_directory(world.folder / "host/tree/nobody");

    const auto run = [&](std::vector<std::string> words) {
        const auto pDak = world.Run(std::move(words));
        EXPECT_EQ(pDak->End(), 1) << pDak->Output() << pDak->Errors();
        EXPECT_EQ(pDak->Errors(), "");
        return json::parse(pDak->Output(), nullptr, false);
    };
    const json push = run({"dak", "push", "--json", "tree", "absent", "/Docs"});
    EXPECT_TRUE(world.Files() == Below("Docs/tree", tree));
    EXPECT_EQ(push["files_arrived"], tree.size());
    EXPECT_EQ(push["bytes_arrived"], 1'000'000 + 700 + 2 * 12'274 - 42);
    EXPECT_EQ(push["left_out"][0]["path"], "absent");
    EXPECT_EQ(push["empty_folders"].size(), 1U);
    const auto pStat = world.Run({"dak", "stat", "--json", "/Docs/tree/a"});
    EXPECT_TRUE(pStat->Says("\"modified\": \"2001-09-09T01:46:41.0000000Z\"")) << pStat->Output();

    const json pull = run({"dak", "pull", "--json", "/Docs/tree", "\\absent", "back"});
    EXPECT_TRUE(test::ReadTree(world.folder / "host/back/tree") == tree);
    EXPECT_EQ(pull["arrived"].size(), tree.size());
    EXPECT_EQ(pull["missing"], json::array({"\\absent"}));
    for (const auto& [strName, strBytes] : tree) {
        EXPECT_EQ(fs::last_write_time(world.folder / ("host/back/tree/" + strName)),
                  fs::last_write_time(world.folder / ("host/tree/" + strName)))
            << strName;
    }
}

// One window and a half; the older versions are a little longer.
TREE Version(std::uint32_t dwSeed, std::size_t nLonger) {
    return {{"a", Content(180'000 + nLonger, dwSeed)},
            {"d", Content(200'000 + nLonger, dwSeed + 1)},
            {"deep/b", Content(250'000 + nLonger, dwSeed + 2)},
            {"deep/c", Content(nLonger, dwSeed + 3)},
            {"e", Content(270'000 + nLonger, dwSeed + 4)}};
}

enum class ETrouble { Cancelled, EndedAtOnce, Killed, Unplugged, Replaced, BothGone };

class Trouble : public testing::TestWithParam<std::tuple<bool, ETrouble, std::uint64_t>> {
  protected:
    Trouble() {
        world.folder.Write("host/Docs", m_bPush ? m_new : m_old);
        world.WriteFiles(Below("Docs", m_bPush ? m_old : m_new));
        world.Plug();
    }
    std::unique_ptr<CProgram> StartCopy() const {
        return m_bPush ? world.Start({"dak", "push", "Docs", "/"})
                       : world.Start({"dak", "pull", "/Docs", "."});
    }
    TREE Target() const {
        return m_bPush ? world.Files() : Below("Docs", test::ReadTree(world.folder / "host/Docs"));
    }
    // How many files are new; every other one is old, and whole.
    std::size_t CountNew(bool bPartsMayStay) const {
        std::size_t nNew = 0;
        TREE target = Target();
        for (const auto& [strName, strBytes] : Below("Docs", m_new)) {
            nNew += target[strName] == strBytes ? 1U : 0U;
            EXPECT_TRUE(target[strName] == strBytes ||
                        target[strName] == m_old.at(strName.substr(5)))
                << strName << " is torn";
        }
        EXPECT_TRUE(bPartsMayStay || target.size() == m_new.size());
        return nNew;
    }
    CWorld world;
    const bool m_bPush = std::get<0>(GetParam());
    const TREE m_new = Version(100, 0);
    const TREE m_old = Version(200, 1000);
};

TEST_P(Trouble, LeavesWholeFilesAndAFreeLink) {
    const auto [bPush, eTrouble, qwMoment] = GetParam();
    world.HoldAfter(bPush ? EWay::ToDevice : EWay::ToHost, qwMoment);
    std::unique_ptr<CProgram> pCopy = StartCopy();
    ASSERT_TRUE(Eventually([&] { return world.Holds(); }));
    const bool bKilled = eTrouble == ETrouble::Killed || eTrouble == ETrouble::BothGone;
    if (bKilled) {
        EXPECT_EQ(pCopy->Kill(), CProgram::KILLED);
    }
    if (eTrouble == ETrouble::Cancelled || eTrouble == ETrouble::EndedAtOnce) {
        pCopy->Signal(bPush ? SIGINT : CWorld::OTHER_INTERRUPT);
        EXPECT_TRUE(Eventually([&] { return pCopy->Says("cancelling; press Ctrl-C again"); }));
        if (eTrouble == ETrouble::Cancelled) {
            world.GoOn();
        } else {
            pCopy->Signal(SIGINT);
        }
        EXPECT_EQ(pCopy->End(), 130);
    } else if (eTrouble != ETrouble::Killed) {
        world.Unplug();
        if (eTrouble == ETrouble::Replaced) {
            world.Plug();
        }
        EXPECT_EQ(pCopy->End(), bKilled ? CProgram::KILLED : 3) << pCopy->Errors();
        if (eTrouble != ETrouble::Replaced) {
            world.Plug();
        }
    }
    world.GoOn();

    EXPECT_EQ(world.Run({"dak", "status"})->End(), 0);
    const bool bParts = !bPush && (bKilled || eTrouble == ETrouble::EndedAtOnce);
    const std::size_t nNew = CountNew(bParts);
    if (qwMoment > 600'000) {
        EXPECT_TRUE(nNew > 0 && nNew < m_new.size()) << nNew;
    }
    if (eTrouble == ETrouble::Cancelled) {
        // On a push it may be more than what the device had confirmed.
        const std::string strSaid = pCopy->Errors();
        const char* const lpszAhead = bPush ? "confirmed " : "cancelled. ";
        const std::size_t nSaid = std::stoul(strSaid.substr(strSaid.find(lpszAhead) + (bPush ? 10 : 11)));
        EXPECT_TRUE(bPush ? nSaid <= nNew : nSaid == nNew) << strSaid << nNew;
    }
    pCopy = StartCopy();
    EXPECT_EQ(pCopy->End(), 0) << pCopy->Errors();
    EXPECT_EQ(CountNew(bParts), m_new.size());
}

INSTANTIATE_TEST_SUITE_P(
    Copies, Trouble,
    testing::Combine(testing::Bool(),
                     testing::Values(ETrouble::Cancelled, ETrouble::EndedAtOnce, ETrouble::Killed,
                                     ETrouble::Unplugged, ETrouble::Replaced, ETrouble::BothGone),
                     testing::ValuesIn(CWorld::MOMENTS)));

} // namespace
} // namespace end_to_end
