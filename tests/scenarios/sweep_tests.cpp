// Every call to the platform fails once in the middle of a job, and every kind of call from some
// number on for good. Whatever it was: whole files, nothing left open, and the next job does.

#include "tests/scenarios/scenario.h"

using namespace scenario;

namespace {

Tree NewTree() {
    return {{"a", File(700, 1)}, {"b/c", File(0, 2)}, {"d", File(26'000, 3)}};
}
Tree OldTree() {
    return {{"a", File(300, 11)}, {"d", File(13'000, 12)}};
}

// What kinds of fault were met, from the trace.
bool Met(const sim::CWorld& world, std::initializer_list<sim::ECall> calls) {
    for (const std::string& strLine : world.Trace({"fault"})) {
        for (const sim::ECall eCall : calls) {
            if (strLine.ends_with(std::string(" ") + sim::CallName(eCall))) {
                return true;
            }
        }
    }
    return false;
}

void RunJob(sim::CWorld& world, UINT nDirection, std::optional<std::uint64_t> qwCancelMs) {
    CScenario s(world);
    world.bTrace = true;
    const bool bPush = nDirection == DAK_TO_DEVICE;
    if (bPush) {
        s.PutHost("C:/s", NewTree());
        s.PutDevice(OldTree());
    } else {
        s.PutDevice(NewTree());
        s.PutHost("C:/r", OldTree());
    }
    const DWORD dwResult = s.Run(nDirection, Names(NewTree()), qwCancelMs);

    // A file that cannot be opened or read ahead is left out of a push, and a job without memory
    // for its request has nothing to say.
    const bool bLeftOut =
        Met(world, {sim::ECall::LocalAlloc}) ||
        (bPush && Met(world, {sim::ECall::CreateFileA, sim::ECall::CreateThread}));
    Tree after = bPush ? s.DeviceTree(false) : s.HostTree("C:/r");
    if (Met(world, {sim::ECall::DeleteFileA})) {
        std::erase_if(after, [](const auto& file) { return file.first.ends_with(".tmp"); });
    }
    ExpectSettled(OldTree(), NewTree(), after, dwResult == 0 && !bLeftOut);
    if (world.FaultsMet() == 0 && !qwCancelMs) {
        EXPECT_EQ(dwResult, 0u);
    }
    world.ClearFaults();
    for (const std::string& strName : world.HostFiles("C:/r")) {
        if (strName.ends_with(".tmp")) {
            platform::DeleteFileA(("C:/r/" + strName).c_str());
        }
    }
    if (CDAKVornTestAccess::m_lpResendBuf(*s.dak) == nullptr) {
        s.dak.emplace(); // an object without its resend buffer is of no use any more
    }
    s.ExpectRecovered(nDirection, NewTree(), OldTree());
}

void RunPathOperations(sim::CWorld& world) {
    CScenario s(world);
    s.PutDevice(OldTree());
    const DWORD dwDeleted = s.dak->DAKDeleteFile(DAK_WIDE("\\d\\a"));
    const DWORD dwDeleteState = s.dak->GetLastError();
    EXPECT_EQ(dwDeleted == 0, dwDeleteState == 0);
    if (dwDeleted == 0) {
        EXPECT_FALSE(s.DeviceTree().contains("a"));
    }
    const DWORD dwMade = s.dak->DAKCreateDirectory(DAK_WIDE("\\d\\new"), nullptr);
    if (dwMade == 0) {
        EXPECT_TRUE(std::filesystem::is_directory(s.Root() + "/d/new"));
    }
    if (world.FaultsMet() == 0) {
        EXPECT_EQ(dwDeleted | dwMade, 0u);
    }
    world.ClearFaults();
    EXPECT_EQ(s.dak->DAKDeleteFile(DAK_WIDE("\\d\\d")), 0u);
    EXPECT_EQ(s.dak->DAKCreateDirectory(DAK_WIDE("\\d\\newer"), nullptr), 0u);
    EXPECT_TRUE(std::filesystem::is_directory(s.Root() + "/d/newer"));
}

constexpr std::uint64_t FOR_GOOD = 1'000'000;

void SweepAll(const std::function<void(sim::CWorld&)>& run, std::uint64_t nTimes = FOR_GOOD) {
    std::uint64_t nFaults = sim::Sweep(run);
    EXPECT_GT(nFaults, 40u);
    for (int i = 0; i <= static_cast<int>(sim::ECall::SetupDiGetDeviceInterfaceDetailA); ++i) {
        if (::testing::Test::HasFailure()) {
            return;
        }
        nFaults += sim::Sweep(run, static_cast<sim::ECall>(i), nTimes);
    }
    ::testing::Test::RecordProperty("faults", static_cast<int>(nFaults));
}

TEST(Sweep, Push) {
    SweepAll([](sim::CWorld& world) { RunJob(world, DAK_TO_DEVICE, {}); });
}

TEST(Sweep, Pull) {
    SweepAll([](sim::CWorld& world) { RunJob(world, DAK_FROM_DEVICE, {}); });
}

// The moments of the cancels: in the stream, and behind it while the worker is at its end.
TEST(Sweep, CancelledPush) {
    SweepAll([](sim::CWorld& world) { RunJob(world, DAK_TO_DEVICE, 75); });
}

TEST(Sweep, CancelledPull) {
    SweepAll([](sim::CWorld& world) { RunJob(world, DAK_FROM_DEVICE, 545); });
}

TEST(Sweep, DeleteAndMakeFolder) {
    // Not for good: while the device is there, the response to these is awaited without end.
    SweepAll(RunPathOperations, 30);
}

} // namespace
