// Every kind of work under every kind of fault at every place, one at a time: whatever was in its
// way, it is done or not done and says so, nothing is torn, lost or left, and the next time it
// does.

#include "tests/scenarios/scenario.h"

using namespace scenario;

namespace {

// With streams of 58 packages or of 4.
std::size_t Big(bool bLong) {
    return bLong ? 680'000 : 26'000;
}
const std::vector<std::string> JOB_NAMES = {"a", "b/big", "b/c", "e"};

CWork LaidJob(CScenario& s, UINT nDirection, bool bLong) {
    const bool bPush = nDirection == DAK_TO_DEVICE;
    const std::string strFrom = bPush ? "s/" : "d/";
    const std::string strTo = bPush ? "d/" : "r/";
    s.Lay({{strFrom + "a", Contents(5000, 1)},
           {strFrom + "b/big", Contents(Big(bLong), 2)},
           {strFrom + "b/c", ""},
           {strFrom + "e", Contents(20'000, 4)},
           {strTo + "a", Contents(300, 11)},
           {strTo + "b/big", Contents(20'000, 12)},
           {strTo + "b/c", Contents(70, 13)}});
    return Job(s, nDirection, JOB_NAMES);
}

// Questions, whose answers are put together. The caller sees that a list is short, though it may be
// no failure.
CWork Questions(CScenario& s, bool bLong) {
    CWork work{s.Everything(), {}};
    std::string strWanted = "\\ 97656 Card 97656 49152 ";
    for (int i = 100; i < (bLong ? 130 : 104); ++i) {
        const std::string strName = std::to_string(i) + std::string(200, 'x');
        s.Lay({{"d/l/" + strName, ""}});
        strWanted += strName + " ";
    }
    work.wanted = s.Everything();
    work.wanted["answer"] = strWanted;
    work.bWaitsWithoutEnd = true;
    work.run = [strWanted](CScenario& host) {
        CDAKVorn& dak = *host.dak;
        std::string strAnswer;
        CArray<_tagStorageInfo, _tagStorageInfo> storages;
        CArray<_tagFileInfo, _tagFileInfo> files;
        DWORD dwMessage = 0;
        DWORD dwResult = host.Took(dak.DAKGetStorageInfo(&storages));
        for (int i = 0; i < storages.GetSize(); ++i) {
            strAnswer += NameOf(storages[i].szStorageName) + " " +
                         std::to_string(storages[i].dwValue1) + " ";
        }
        if (dwResult == 0) {
            dwResult = host.Took(dak.DAKRegisterWindowMessage(DAK_WIDE("m"), &dwMessage));
            strAnswer += std::to_string(dwMessage) + " ";
        }
        if (dwResult == 0) {
            dwResult = host.Took(dak.DAKGetFolderContent(DAK_WIDE("\\d\\l"), &files));
        }
        for (int i = 0; i < files.GetSize(); ++i) {
            strAnswer += NameOf(files[i].szText1) + " ";
        }
        const bool bShort = dwResult == 0 && strAnswer.size() < strWanted.size();
        if (dwResult == 0 && !bShort) {
            host.met.strAnswer = strAnswer;
        }
        return bShort ? DAKERROR_FAIL : dwResult;
    };
    return work;
}

// Lays what the work needs. It can be done again behind itself; nTime is 0 and then 1.
CWork Make(CScenario& s, const std::string& strWhat, bool bLong, int nTime) {
    if (strWhat == "push" || strWhat == "pull") {
        return LaidJob(s, strWhat == "push" ? DAK_TO_DEVICE : DAK_FROM_DEVICE, bLong);
    }
    if (strWhat == "questions") {
        return Questions(s, bLong);
    }
    const std::string strFile = Contents(Big(bLong) + 500, 3);
    if (strWhat == "write" || strWhat == "read") {
        s.Lay({{"d/f", strFile}});
        return Stream(s, strWhat == "read", "d/f", 7,
                      strWhat == "read" ? strFile.substr(7, Big(bLong)) : Contents(Big(bLong), 6));
    }
    s.Lay({{"d/m", Contents(300'000, 4)}, {"d/o", "o"}, {"Card/x", "x"}, {"Card/y/z", "z"}});
    return Change(s, strWhat, "d/m", strWhat == "copy" ? "d/o" : "d/new" + std::to_string(nTime));
}

struct CPipeFault {
    const char* lpszName;
    CFault fault;
    bool bKills = false;              // the agent
    std::optional<bool> bOfData = {}; // commands and their answers bear no checksum
};
const CPipeFault PIPE_FAULTS[] = {{"command word", {EFault::Corrupt, 0}},
                                  {"length", {EFault::Corrupt, 4}},
                                  {"contents", {EFault::Corrupt, 1000}, false, true},
                                  {"dropped", {EFault::Drop}},
                                  {"cut in the head", {EFault::Cut, 9}},
                                  {"cut in the contents", {EFault::Cut, 100}},
                                  {"delayed long", {EFault::Delay, 7000}},
                                  {"delayed beyond all", {EFault::Delay, 30'000}},
                                  {"unplugged", {EFault::Vanish}},
                                  {"killed", {EFault::Vanish}, true}};

// A work, and whether its device is prompt.
class Faults : public ::testing::TestWithParam<std::tuple<const char*, bool>> {
  protected:
    static CWork MakeWork(CScenario& s, bool bLong, int nTime) {
        const auto& [lpszWhat, bPrompt] = GetParam();
        s.world.bPromptDevice = bPrompt;
        return Make(s, lpszWhat, bLong, nTime);
    }
    // Beside the errors that every fault may lead to, there is one of its own.
    void Run(const std::string& strFault, bool bLong, DWORD dwFurtherError,
             const std::function<void(CScenario&)>& plan) {
        if (++m_nRuns % ONE_IN != 0 || HasFailure()) {
            return;
        }
        SCOPED_TRACE(strFault);
        sim::CWorld world;
        CScenario s(world);
        const CWork work = MakeWork(s, bLong, 0);
        const DWORD dwResult = s.Do(work, [&] { plan(s); });
        const DWORD dwError = dwResult == 0 || s.met.dwError == 0 ? dwResult : s.met.dwError;
        EXPECT_TRUE(dwError == 0 || dwError == DAKERROR_FAIL || dwError == DAKERROR_NO_DEVICE ||
                    dwError == DAKERROR_PROTOCOL || dwError == dwFurtherError ||
                    (s.met.bMisled && dwError == DAKERROR_DEVICE_REFUSED))
            << dwError;
        EXPECT_TRUE(dwResult == 0 || !s.met.bMadeGood || dwFurtherError == DAKERROR_CANCELLED)
            << dwError;
        EXPECT_TRUE(dwResult == 0 || world.FaultsMet() != 0 || s.met.nFaults != 0);
        // Where nothing but room is missing, a stream says so.
        EXPECT_TRUE(dwError == 0 || dwError == DAKERROR_NO_SPACE || !work.bStreamToHost ||
                    dwFurtherError != DAKERROR_NO_SPACE || world.FaultsMet() != 0)
            << dwError;
        s.Recover();
        EXPECT_EQ(s.Do(MakeWork(s, bLong, 1)), 0u);
    }
    std::uint64_t m_nRuns = 0;
};

TEST_P(Faults, OneAtATime) {
    constexpr int CALLS = static_cast<int>(sim::ECall::SetupDiGetDeviceInterfaceDetailA) + 1;
    // What there is to fail.
    std::uint64_t nPackages[2][2] = {};
    std::uint64_t nCalls[CALLS] = {};
    std::uint64_t qwMs = 0;
    for (const bool bLong : {true, false}) {
        sim::CWorld world;
        CScenario s(world);
        EXPECT_EQ(s.Do(MakeWork(s, bLong, 0)), 0u);
        for (int i = 0; i < CALLS; ++i) {
            nCalls[i] = world.CallCount(static_cast<sim::ECall>(i));
        }
        // Slow packages take their time also where nobody pauses.
        qwMs = std::max<std::uint64_t>(s.met.qwTookMs, 400);
        std::copy_n(s.met.nPackages, 2, nPackages[bLong]);
    }

    for (const bool bLong : {false, true}) {
        for (const bool bToHost : {false, true}) {
            // Of a long stream the end of its first window, and all behind it.
            for (std::uint64_t n = bLong ? 51 : 1; n <= nPackages[bLong][bToHost]; ++n) {
                for (const CPipeFault& fault : PIPE_FAULTS) {
                    Run(fault.lpszName + (" " + std::to_string(n)) +
                            (bToHost ? " to the host" : " to the device"),
                        bLong, DAKERROR_FAIL, [&](CScenario& s) {
                            s.MeetPackage(bToHost, n, fault.fault, fault.bKills, fault.bOfData);
                        });
                }
            }
        }
    }
    for (int i = 0; i < CALLS; ++i) {
        const auto eCall = static_cast<sim::ECall>(i);
        const DWORD dwFurther = eCall == sim::ECall::CreateMutexA          ? DAKERROR_BUSY
                                : eCall == sim::ECall::GetDiskFreeSpaceExA ? DAKERROR_NO_SPACE
                                                                           : DAKERROR_FAIL;
        for (std::uint64_t n = 1; n <= nCalls[i]; ++n) {
            for (const bool bForGood : {false, true}) {
                Run(std::string(bForGood ? "for good " : "once ") + CallName(eCall) + " " +
                        std::to_string(n),
                    false, dwFurther, [&](CScenario& s) {
                        // A file that cannot be opened or read ahead is left out of a push, and a
                        // job without memory for its request has nothing to say.
                        s.bHostFails =
                            eCall == sim::ECall::LocalAlloc || eCall == sim::ECall::DeleteFileA ||
                            eCall == sim::ECall::CreateFileA || eCall == sim::ECall::CreateThread;
                        s.world.FailCall(eCall, n, 0, bForGood ? 1'000'000 : 1);
                    });
            }
        }
    }
    for (std::uint64_t n = 0; n <= qwMs; n += n < 90 ? 9 : 251) {
        Run("unplugged at " + std::to_string(n), false, DAKERROR_FAIL,
            [&](CScenario& s) { s.UnplugAfter(n); });
        Run("cancelled at " + std::to_string(n), false, DAKERROR_CANCELLED, [&](CScenario& s) {
            // The pipe takes a while for each package, so that moments differ. At every third one
            // it is so slow that the cancelling caller gives up waiting for the worker.
            s.world.bOpenFilesCannotBeDeleted = n % 2 == 1;
            const std::uint64_t qwSlowMs = n % 3 == 0 ? 400 : 7;
            s.onPackage = [qwSlowMs](bool, std::uint64_t nPackage, bool) {
                return nPackage == 1 ? std::nullopt
                                     : std::optional(CFault{EFault::Delay, qwSlowMs});
            };
            s.CancelAfter(n % 3 == 0 ? 4 * n : n);
        });
    }
    for (const std::uint64_t qwRoom : {1u, 30'000u, 100'000u, 300'000u, 705'000u}) {
        Run("room for " + std::to_string(qwRoom), true, DAKERROR_NO_SPACE, [&](CScenario& s) {
            s.StartAgent(qwRoom);
            s.world.qwFreeBytes = qwRoom;
            s.bNewAgent = true;
            ++s.met.nFaults;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Work, Faults,
                         ::testing::Combine(::testing::Values("push", "pull", "write", "read",
                                                              "questions", "delete", "folder",
                                                              "copy", "move", "format"),
                                            ::testing::Bool()),
                         [](const auto& what) {
                             return std::get<0>(what.param) +
                                    std::string(std::get<1>(what.param) ? "Prompt" : "Paced");
                         });

} // namespace
