// Copies over older versions of the same files, in which at every stage the host, the agent or both
// are killed, or the agent is stopped: no file is torn, no lock stays, nothing hangs.
#include "tests/end_to_end/processes.h"

#include <array>
#include <atomic>

namespace end_to_end {
namespace {

enum class Direction { Push, Pull };
enum class Trouble { HostKilled, AgentKilled, BothKilled, AgentReplaced, AgentStopped };

constexpr std::array TROUBLES = {"host killed", "agent killed", "both killed", "agent replaced",
                                 "agent stopped"};
constexpr int TROUBLE_COUNT = static_cast<int>(TROUBLES.size());
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int MOMENTS = 4; // processes start slowly there
#else
constexpr int MOMENTS = 7;
#endif
constexpr int SIDE_BY_SIDE = 24;

void PrintTo(Direction eDirection, std::ostream* pStream) {
    *pStream << (eDirection == Direction::Push ? "Push" : "Pull");
}

// One window and a half; the older versions are a little longer.
TREE MakeTree(unsigned nSeed, std::size_t nLonger) {
    return {{"a", Content(180'000 + nLonger, nSeed)},
            {"d", Content(200'000 + nLonger, nSeed + 1)},
            {"deep/b", Content(250'000 + nLonger, nSeed + 2)},
            {"deep/c", Content(nLonger, nSeed + 3)},
            {"e", Content(270'000 + nLonger, nSeed + 4)}};
}
const TREE g_newTree = MakeTree(100, 0);
const TREE g_oldTree = MakeTree(200, 1000);
constexpr std::uintmax_t NEW_BYTES = 900'000;

bool IsTemporary(const std::string& strName) {
    return fs::path(strName).filename().string().starts_with(".dak-") || strName.ends_with(".tmp");
}

class CCopyOver {
  public:
    explicit CCopyOver(Direction eDirection) : m_bPush(eDirection == Direction::Push) {
        m_world.Write(m_bPush ? "host/Docs" : "device/Docs", g_newTree);
        m_world.Write(m_bPush ? "device/Docs" : "host/Docs", g_oldTree);
        m_world.StartAgent();
        m_pCopy = Start();
    }

    // Makes the trouble when nMoment of MOMENTS has arrived, and expects all to be well then and
    // afterwards. True when it left some files old and some new.
    bool Survives(Trouble eTrouble, int nMoment) {
        const std::uintmax_t qwWanted =
            NEW_BYTES * static_cast<unsigned>(nMoment) / static_cast<unsigned>(MOMENTS - 1);
        EXPECT_TRUE(Eventually([&] { return Arrived() >= qwWanted || !m_pCopy->IsRunning(); }));
        if (nMoment == 0) {
            // Between the start of the process and its first bytes.
            Pause(70 * static_cast<int>(eTrouble));
        }
        Make(eTrouble);
        const bool bMixed = ExpectWholeFiles();
        if (eTrouble == Trouble::AgentStopped) {
            ExpectCancel(nMoment > 0 && nMoment <= MOMENTS / 2);
            m_world.Agent().Signal(SIGCONT);
        } else if (eTrouble == Trouble::AgentKilled || eTrouble == Trouble::AgentReplaced) {
            ExpectLoss();
        }
        if (eTrouble == Trouble::AgentKilled || eTrouble == Trouble::BothKilled) {
            m_world.StartAgent();
            EXPECT_FALSE(HasAgentsTemporaries());
        }
        ExpectRecovery();
        return bMixed;
    }

  private:
    std::unique_ptr<CProgram> Start() {
        return m_bPush ? m_world.Start({"push", "Docs", "/"})
                       : m_world.Start({"pull", "/Docs", "."});
    }
    std::string Target() const { return m_world.Path(m_bPush ? "device/Docs" : "host/Docs"); }

    // Bytes of new files and of temporary ones.
    std::uintmax_t Arrived() const {
        std::uintmax_t qwBytes = 0;
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(Target(), error)) {
            const std::uintmax_t qwSize = entry.is_regular_file(error) ? entry.file_size(error) : 0;
            const auto itNew = g_newTree.find(entry.path().lexically_relative(Target()));
            const bool bNew = itNew == g_newTree.end() || itNew->second.size() == qwSize;
            qwBytes += bNew && !error ? qwSize : 0;
        }
        return qwBytes;
    }

    void Make(Trouble eTrouble) {
        if (eTrouble == Trouble::AgentStopped) {
            m_stopped = std::chrono::steady_clock::now();
            m_world.Agent().Signal(SIGSTOP);
            return;
        }
        if (eTrouble == Trouble::AgentReplaced) {
            // The host does not look while there is no agent.
            m_pCopy->Signal(SIGSTOP);
        }
        if (eTrouble != Trouble::HostKilled) {
            EXPECT_EQ(m_world.Agent().End(SIGKILL), -SIGKILL);
        }
        if (eTrouble == Trouble::HostKilled || eTrouble == Trouble::BothKilled) {
            m_pCopy->End(SIGKILL);
        }
        if (eTrouble == Trouble::AgentReplaced) {
            m_world.StartAgent();
            m_pCopy->Signal(SIGCONT);
        }
    }

    // The copy ends by itself, and success means that all is there. Where it had not begun, a new
    // agent is as good as the old one.
    void ExpectLoss() {
        const int nExit = m_pCopy->End();
        if (nExit == 0) {
            EXPECT_TRUE(ReadTree(Target()) == g_newTree);
            return;
        }
        EXPECT_EQ(nExit, 3) << m_pCopy->Errors();
        EXPECT_TRUE(m_pCopy->Says("the link to the device broke") ||
                    m_pCopy->Says("no device is attached"))
            << m_pCopy->Errors();
    }

    // A cancel needs no device, and neither does any later operation. Where the device had said
    // that all is there, the copy is done. Where this machine was so slow that a transfer's own
    // time-out may have come first, the copy may have ended in an error.
    void ExpectCancel(bool bInTheMiddle) {
        Pause(200);
        const bool bInTime =
            std::chrono::steady_clock::now() - m_stopped < std::chrono::milliseconds(700);
        const int nExit = m_pCopy->End(SIGINT);
        EXPECT_TRUE(nExit != 0 || ReadTree(Target()) == g_newTree);
        if (bInTheMiddle && bInTime) {
            EXPECT_EQ(nExit, 130) << m_pCopy->Errors();
            EXPECT_TRUE(m_pCopy->Says("cancelled")) << m_pCopy->Errors();
        }
        EXPECT_EQ(m_world.Exit({"status"}), 3);
    }

    // Every real name has one of its two versions; true when some are old and some new.
    bool ExpectWholeFiles() const {
        std::size_t nNew = 0;
        TREE tree = ReadTree(Target());
        for (const auto& [strName, strBytes] : g_newTree) {
            const bool bNew = tree[strName] == strBytes;
            nNew += bNew ? 1 : 0;
            EXPECT_TRUE(bNew || tree[strName] == g_oldTree.at(strName)) << strName << " is torn";
        }
        for (const auto& [strName, strBytes] : tree) {
            EXPECT_TRUE(g_newTree.contains(strName) || IsTemporary(strName)) << strName;
        }
        return nNew > 0 && nNew < g_newTree.size();
    }

    bool HasAgentsTemporaries() const {
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(m_world.Path("device"), error)) {
            if (IsTemporary(entry.path())) {
                return true;
            }
        }
        return false;
    }

    // The link is free, the agent has nothing left over, and the same copy works.
    void ExpectRecovery() {
        EXPECT_EQ(m_world.Exit({"status"}), 0);
        EXPECT_FALSE(HasAgentsTemporaries());
        ExpectWholeFiles();
        m_pCopy = Start();
        EXPECT_EQ(m_pCopy->End(), 0) << m_pCopy->Errors();
        TREE tree = ReadTree(Target());
        std::erase_if(tree, [](const auto& file) { return IsTemporary(file.first); });
        EXPECT_TRUE(tree == g_newTree);
    }

    CWorld m_world;
    bool m_bPush;
    std::unique_ptr<CProgram> m_pCopy;
    std::chrono::steady_clock::time_point m_stopped;
};

class KillSweep : public testing::TestWithParam<Direction> {};

TEST_P(KillSweep, LeavesWholeFilesAndAFreeLink) {
    std::atomic<int> nNext = 0;
    std::atomic<int> nMixed = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < SIDE_BY_SIDE; ++i) {
        threads.emplace_back([&] {
            // The troubles that take longest come first.
            for (int nRun = nNext++; nRun < MOMENTS * TROUBLE_COUNT; nRun = nNext++) {
                const int nTrouble = TROUBLE_COUNT - 1 - nRun / MOMENTS;
                SCOPED_TRACE(std::string(TROUBLES[static_cast<std::size_t>(nTrouble)]) +
                             " at moment " + std::to_string(nRun % MOMENTS));
                CCopyOver copy(GetParam());
                nMixed += copy.Survives(static_cast<Trouble>(nTrouble), nRun % MOMENTS) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(nMixed, 0) << "none fell between two files: the moments miss the copy";
}

INSTANTIATE_TEST_SUITE_P(BothWays, KillSweep, testing::Values(Direction::Push, Direction::Pull),
                         testing::PrintToStringParamName());

} // namespace
} // namespace end_to_end
