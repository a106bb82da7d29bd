// Random work under random faults against a model of both trees; then faults off, and everything
// must work. DAK_SEED repeats one seed, DAK_SEEDS sets how many are run.

#include "tests/scenarios/scenario.h"

#include <cstdlib>
#include <iostream>
#include <random>

using namespace scenario;

namespace {

enum class EFaults { None, Pipe, Calls };

class CSeed {
  public:
    explicit CSeed(std::uint64_t qwSeed) : m_random(qwSeed), m_s(m_world) {
        m_world.bOpenFilesCannotBeDeleted = Below(2) == 0;
        m_world.dwCpuMHz = static_cast<DWORD>(Below(3) * 700);
        m_host = RandomTree();
        m_s.PutHost("C:/s", m_host);
        m_s.PutDevice(RandomTree());
    }

    void Run() {
        for (int i = 0; i < 6 && !::testing::Test::HasFailure(); ++i) {
            Step(i);
        }
        FaultsOff();
        EXPECT_EQ(m_s.dak->ConnectDevice(), 0u);
        EXPECT_EQ(m_s.DeviceTree(true).size(), m_s.DeviceTree(false).size()) << "own files left";
        ChangeSomeHostFiles();
        m_s.ExpectRecovered(DAK_TO_DEVICE, m_host, m_s.DeviceTree());
        m_s.ExpectRecovered(DAK_FROM_DEVICE, m_s.DeviceTree(), m_s.HostTree("C:/r"));
    }

  private:
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(m_random() % n); }

    std::string RandomName() {
        static const char* const FOLDERS[] = {"", "x/", "x/y/", "\xC3\xB6/"};
        static const char* const FILES[] = {"a", "b.txt", "\xE4\xB8\xAD", "long name"};
        return std::string(FOLDERS[Below(4)]) + FILES[Below(4)];
    }
    CFileState RandomFile() {
        static constexpr std::size_t MOST[] = {1, 300, 13'000, 60'000, 700'000};
        const std::size_t dwMost = MOST[Below(20) == 0 ? 4 : Below(4)];
        return File(Below(dwMost), static_cast<std::uint32_t>(m_random()));
    }
    Tree RandomTree() {
        Tree tree;
        for (std::size_t i = Below(8); i > 0; --i) {
            tree[RandomName()] = RandomFile();
        }
        return tree;
    }
    void ChangeSomeHostFiles() {
        for (const auto& [strName, file] : RandomTree()) {
            m_host[strName] = file;
        }
        m_s.PutHost("C:/s", m_host);
    }

    void FaultsOff() {
        m_world.ClearFaults();
        m_s.pPeer->ClearFaults();
        m_s.Replug();
    }

    // One fault in the pipe, of those that a job must survive without a false word, or some calls
    // to the platform.
    EFaults PlanFaults(bool bPull) {
        switch (Below(4)) {
        case 0: {
            sim::CAgentPeer::CFault fault{};
            const bool bToHost = Below(2) == 0;
            // Commands bear no checksum, and packages no number.
            std::uint64_t n = 1 + Below(Below(2) == 0 ? 5 : 60);
            n += !bToHost && n == 2 ? 1 : 0;
            switch (Below(4)) {
            case 0:
                fault = {EFault::Corrupt, Below(300)};
                break;
            case 1:
                fault = {EFault::Delay, Below(20'000)};
                break;
            case 2:
                fault = {EFault::Vanish};
                break;
            default:
                fault = {EFault::Cut, 1 + Below(300)};
                break;
            }
            // The host takes a package at its word that comes whole behind one that it never saw.
            if (bPull && bToHost && fault.eFault == EFault::Cut && fault.dwAmount < 14) {
                fault.dwAmount = 14;
            }
            if (bToHost) {
                m_s.pPeer->FaultToHost(n, fault);
            } else {
                m_s.pPeer->FaultToDevice(n, fault);
            }
            return EFaults::Pipe;
        }
        case 1:
            m_world.FailAnyCall(1 + Below(300), 1 + Below(Below(4) == 0 ? 500 : 3));
            return EFaults::Calls;
        default:
            return EFaults::None;
        }
    }

    void Step(int nStep) {
        const std::size_t nWhat = Below(10);
        SCOPED_TRACE(::testing::Message() << "step " << nStep << ", kind " << nWhat);
        if (nWhat == 8) {
            m_world.Unplug();
            EXPECT_NE(m_s.dak->ConnectDevice(), 0u);
            m_s.Replug();
        } else if (nWhat == 9) {
            m_s.dak.reset();
            m_s.dak.emplace();
        } else if (nWhat == 7) {
            // A second object at work, perhaps while the first one's link is left open.
            CDAKVorn other;
            EXPECT_EQ(other.ConnectDevice(), 0u);
        } else if (nWhat >= 5) {
            PathOperation(nWhat == 5);
        } else {
            Job(nWhat < 3 ? DAK_TO_DEVICE : DAK_FROM_DEVICE);
        }
        FaultsOff();
    }

    void Job(UINT nDirection) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        ChangeSomeHostFiles();
        const Tree hostBefore = m_s.HostTree("C:/r");
        const Tree deviceBefore = m_s.DeviceTree(false);
        Tree wanted;
        for (const auto& entry : bPush ? m_host : deviceBefore) {
            if (Below(3) != 0) {
                wanted.insert(entry);
            }
        }
        const EFaults eFaults = PlanFaults(!bPush);
        std::optional<std::uint64_t> qwCancelMs;
        if (Below(3) == 0) {
            qwCancelMs = Below(Below(2) == 0 ? 800 : 8000);
        }
        const DWORD dwResult = m_s.Run(nDirection, Names(wanted), qwCancelMs);
        if (eFaults == EFaults::None && !qwCancelMs) {
            EXPECT_EQ(dwResult, 0u);
        }
        // With failing calls a file may be left out, or its temporary name not be taken away.
        Tree hostAfter = m_s.HostTree("C:/r");
        if (eFaults == EFaults::Calls) {
            for (const auto& [strName, file] : hostAfter) {
                if (strName.ends_with(".tmp")) {
                    m_world.ClearFaults();
                    platform::DeleteFileA(("C:/r/" + strName).c_str());
                }
            }
            hostAfter = m_s.HostTree("C:/r");
        }
        const bool bDone = dwResult == 0 && eFaults != EFaults::Calls;
        ExpectSettled(deviceBefore, bPush ? wanted : Tree{}, m_s.DeviceTree(false), bPush && bDone);
        ExpectSettled(hostBefore, bPush ? Tree{} : wanted, hostAfter, !bPush && bDone);
        ExpectSettled(m_host, {}, m_s.HostTree("C:/s"), false);
    }

    void PathOperation(bool bDelete) {
        Tree before = m_s.DeviceTree(false);
        const std::vector<std::string> names = Names(before);
        const std::string strName =
            names.empty() || Below(4) == 0 ? "missing" : names[Below(names.size())];
        std::basic_string<WCHAR> strPath = DAK_WIDE("\\d\\");
        strPath += PathOf(strName).string<WCHAR>();
        const EFaults eFaults = PlanFaults(false);
        if (bDelete) {
            const DWORD dwResult = m_s.dak->DAKDeleteFile(strPath.c_str());
            const bool bGone = !m_s.DeviceTree(false).contains(strName);
            EXPECT_TRUE(dwResult != 0 || bGone);
            if (eFaults == EFaults::None) {
                EXPECT_EQ(dwResult == 0, before.contains(strName));
            }
            if (bGone) {
                before.erase(strName);
            }
        } else {
            strPath += DAK_WIDE(".new");
            strPath += static_cast<WCHAR>('a' + Below(26));
            const std::filesystem::path folder =
                PathOf(m_s.Root() + "/d") / std::filesystem::path(strPath.substr(3));
            const bool bWasThere = std::filesystem::exists(folder);
            const DWORD dwResult = m_s.dak->DAKCreateDirectory(strPath.c_str(), nullptr);
            EXPECT_TRUE(dwResult != 0 || std::filesystem::is_directory(folder));
            if (eFaults == EFaults::None) {
                EXPECT_EQ(dwResult == 0, !bWasThere);
            }
        }
        ExpectSettled(before, {}, m_s.DeviceTree(false), false);
    }

    std::mt19937_64 m_random;
    sim::CWorld m_world;
    CScenario m_s;
    Tree m_host; // C:\s
};

std::uint64_t Number(const char* lpszName, std::uint64_t qwDefault) {
    const char* lpszValue = std::getenv(lpszName);
    return lpszValue != nullptr ? std::strtoull(lpszValue, nullptr, 10) : qwDefault;
}

TEST(Seeds, RandomWorkUnderRandomFaultsThenFaultsOff) {
    const bool bOne = std::getenv("DAK_SEED") != nullptr;
    const std::uint64_t qwFirst = Number("DAK_SEED", 1);
    const std::uint64_t qwCount = bOne ? 1 : Number("DAK_SEEDS", 60 / ONE_IN);
    for (std::uint64_t qwSeed = qwFirst; qwSeed < qwFirst + qwCount; ++qwSeed) {
        SCOPED_TRACE(::testing::Message() << "seed " << qwSeed);
        CSeed(qwSeed).Run();
        if (::testing::Test::HasFailure()) {
            std::cerr << "To repeat: DAK_SEED=" << qwSeed << " seed_tests\n";
            return;
        }
    }
}

} // namespace
