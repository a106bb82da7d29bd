// Random work under random faults, then faults off, and everything must work. DAK_SEED is the first
// seed, DAK_SEEDS their number; the program ends with a line of what it did (scripts/soak.sh).

#include "tests/scenarios/scenario.h"

#include <cstdlib>
#include <iostream>
#include <random>

using namespace scenario;

namespace {

std::map<std::string, std::uint64_t> g_counts; // of operations and faults
std::uint64_t g_qwVirtualMs = 0;

class CSeed {
  public:
    CSeed(std::uint64_t qwSeed, bool bTrace) : m_random(qwSeed), m_s(m_world) {
        m_world.bTrace = bTrace;
        m_world.bOpenFilesCannotBeDeleted = Below(2) == 0;
        m_world.bPromptDevice = Below(2) == 0;
        m_world.dwCpuMHz = static_cast<DWORD>(Below(3) * 700);
    }
    // The trace, where one is wanted.
    std::vector<std::string> Run() {
        for (int i = 0; i < 8 && !::testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE(::testing::Message() << "step " << i);
            Step();
        }
        EXPECT_EQ(m_s.Do(Job(m_s, DAK_TO_DEVICE, Files("s/"))), 0u) << "faults off";
        EXPECT_EQ(m_s.Do(Job(m_s, DAK_FROM_DEVICE, Files("d/"))), 0u) << "faults off";
        g_qwVirtualMs += m_world.NowMs();
        return m_world.Trace();
    }

  private:
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(m_random() % n); }
    template <class T>
    T One(const std::vector<T>& of) {
        return of[Below(of.size())];
    }
    std::string RandomContents() {
        const std::size_t dwRare = Below(9) == 0 ? 700'000 : 60'000;
        const std::size_t dwMost = One<std::size_t>({1, 300, 13'000, dwRare});
        return Contents(Below(dwMost), static_cast<std::uint32_t>(m_random()));
    }
    // Names below a place, without it.
    std::vector<std::string> Files(const std::string& strPlace) {
        std::vector<std::string> names;
        for (const auto& [strName, strBytes] : m_s.Everything()) {
            if (strName.starts_with(strPlace) && strBytes != FOLDER) {
                names.push_back(strName.substr(strPlace.size()));
            }
        }
        return names;
    }

    CWork RandomWork(const std::string& strOld, const std::string& strNew) {
        const std::size_t nWhat = Below(11);
        static const char* const NAMES[] = {"push", "push", "pull",   "pull",   "read",  "write",
                                            "copy", "move", "folder", "delete", "format"};
        ++g_counts[NAMES[nWhat]];
        if (nWhat < 4) {
            std::vector<std::string> names = Files(nWhat < 2 ? "s/" : "d/");
            std::erase_if(names, [this](const std::string&) { return Below(3) == 0; });
            return Job(m_s, nWhat < 2 ? DAK_TO_DEVICE : DAK_FROM_DEVICE, names);
        }
        if (nWhat < 6) {
            const std::string strAll = *At(m_s.Everything(), m_strOpen);
            const std::size_t dwAt = Below(strAll.size());
            const std::string strData = RandomContents() + "!";
            return Stream(m_s, nWhat == 4, m_strOpen, dwAt,
                          nWhat == 4 ? strAll.substr(dwAt, strData.size()) : strData, m_hFile);
        }
        return Change(m_s, NAMES[nWhat], strOld, strNew);
    }

    // One or no fault, of those of which a stream can tell.
    std::string PlanFault() {
        const std::size_t nWhat = Below(9);
        const bool bToHost = Below(2) == 0;
        const std::uint64_t n = 1 + Below(Below(2) == 0 ? 6 : 66);
        const std::uint64_t qwAmount = Below(Below(2) == 0 ? 800 : 20'000);
        static constexpr std::pair<const char*, EFault> OF_PIPE[] = {
            {"corrupt", EFault::Corrupt}, {"delay", EFault::Delay},   {"cut", EFault::Cut},
            {"drop", EFault::Drop},       {"unplug", EFault::Vanish}, {"kill", EFault::Vanish}};
        if (nWhat < std::size(OF_PIPE)) {
            // Data bear no number, commands and their answers no checksum.
            const auto [lpszName, eFault] = OF_PIPE[nWhat];
            std::optional<bool> bOfData;
            if (eFault == EFault::Corrupt || eFault == EFault::Drop) {
                bOfData = eFault == EFault::Corrupt && Below(2) == 0;
            }
            const std::uint64_t qwByte = eFault == EFault::Cut ? DAK_DATA_OFFSET + qwAmount
                                         : eFault == EFault::Corrupt && !*bOfData
                                             ? qwAmount % DAK_HEADER_SIZE
                                             : qwAmount;
            m_s.MeetPackage(bToHost, n, {eFault, qwByte}, nWhat == 5, bOfData);
            return lpszName;
        }
        if (nWhat == 6) {
            m_s.bHostFails = true;
            m_world.FailAnyCall(1 + qwAmount % 300, 1 + Below(Below(4) == 0 ? 500 : 3));
            return "call";
        }
        nWhat == 7 ? m_s.CancelAfter(qwAmount % 8000) : void();
        return nWhat == 7 ? "cancel" : "none";
    }

    void Step() {
        for (std::size_t i = Below(4); i > 0; --i) {
            m_s.Lay({{One<std::string>({"s/", "s/", "d/", "Card/"}) +
                          One<std::string>({"", "x/", "x/y/", "\xC3\xB6/"}) +
                          One<std::string>({"a", "b.txt", "\xE4\xB8\xAD", "long name"}),
                      RandomContents()}});
        }
        if (m_hFile == nullptr) {
            m_s.Lay({{"d/open", "!"}});
            EXPECT_EQ(m_s.dak->DAKCreateFile(DAK_WIDE("\\d\\open"), 0xC0000000, 3, 3, &m_hFile),
                      0u);
        }
        const std::string strOld = "d/" + One(Files("d/"));
        const std::string strNew = "d/new" + std::to_string(m_random() % 1'000'000);
        const CWork work = RandomWork(strOld, strNew);
        std::string strFault;
        const int nBefore = m_world.FaultsMet();
        const DWORD dwResult = m_s.Do(work, [&] { strFault = PlanFault(); });
        const bool bMet = m_s.met.nFaults != 0 || m_world.FaultsMet() != nBefore;
        EXPECT_TRUE(dwResult == 0 || bMet) << dwResult;
        EXPECT_TRUE(dwResult == 0 || !m_s.met.bMadeGood) << dwResult;
        g_counts["fault " + strFault] += bMet ? 1 : 0;
        // It is the same file wherever a move takes it, and ends with its agent.
        if (!At(m_s.Everything(), m_strOpen) || m_s.bNewAgent) {
            const bool bMoved =
                strOld == m_strOpen && At(m_s.Everything(), strNew) && !m_s.bNewAgent;
            m_strOpen = bMoved ? strNew : "d/open";
            m_hFile = bMoved ? m_hFile : nullptr;
        }
        m_s.Recover();
        Below(6) == 0 ? void(m_s.dak.emplace()) : void();
        if (Below(6) == 0) {
            EXPECT_EQ(CDAKVorn().ConnectDevice(), 0u) << "another object";
        }
    }

    std::mt19937_64 m_random;
    sim::CWorld m_world;
    CScenario m_s;
    void* m_hFile = nullptr;
    std::string m_strOpen = "d/open";
};

std::uint64_t Number(const char* lpszName, std::uint64_t qwDefault) {
    const char* lpszValue = std::getenv(lpszName);
    return lpszValue != nullptr ? std::strtoull(lpszValue, nullptr, 10) : qwDefault;
}

TEST(Seeds, RandomWorkUnderRandomFaultsThenFaultsOff) {
    const std::uint64_t qwFirst = Number("DAK_SEED", 1);
    const std::uint64_t qwEnd = qwFirst + Number("DAK_SEEDS", 60 / ONE_IN);
    for (std::uint64_t qwSeed = qwFirst; qwSeed < qwEnd && !HasFailure(); ++qwSeed) {
        SCOPED_TRACE(::testing::Message() << "seed " << qwSeed);
        const bool bTwice = qwSeed % 20 == 0; // and the same both times
        const std::vector<std::string> trace = CSeed(qwSeed, bTwice).Run();
        EXPECT_TRUE(!bTwice || CSeed(qwSeed, true).Run() == trace)
            << "another run of the same seed";
        ++g_counts[HasFailure() ? "failures" : "seeds"];
        if (HasFailure()) {
            std::cout << "To repeat: DAK_SEED=" << qwSeed << " DAK_SEEDS=1 build/seed_tests\n";
        }
    }
    g_counts["virtual minutes"] = g_qwVirtualMs / 60'000;
    for (const auto& [strWhat, nTimes] : g_counts) {
        std::cout << "count " << nTimes << " " << strWhat << "\n";
    }
}

} // namespace
