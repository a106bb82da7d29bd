// Finding the device, one process at a time, and the processes that hold the pipe.
#include "tests/windows_end_to_end/world.h"

#include <algorithm>

namespace windows_end_to_end {
namespace {

using Connection = CWorldTest;

TEST_F(Connection, FollowsTheDevice) {
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NO_DEVICE);
    WriteTree(OnDevice(""), {{L"f", File(5, 1)}});
    CPresentedAgent& device = Plug();
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    device.SetPlugged(false);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    device.SetPlugged(true);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);

    // It goes in the middle of an operation, when it would answer the handshake, acknowledge the
    // command, respond. What it is asked for it does when the host has the acknowledgement.
    for (const std::uint64_t nPackage : {1U, 2U, 3U}) {
        device.HangAt({EDirection::ToHost, nPackage, 0, true});
        EXPECT_EQ(m_dak.DAKDeleteFile(L"\\f"), DAKERROR_NO_DEVICE) << nPackage;
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NO_DEVICE);
        EXPECT_TRUE(device.HasStopped());
        EXPECT_EQ(device.Taken(), std::min<std::uint64_t>(nPackage, 2));
        EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
        device.SetPlugged(true);
        EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
        EXPECT_EQ(fs::exists(OnDevice("f")), nPackage < 3);
    }

    // It is told to go, and comes back by itself.
    constexpr DWORD DROP_LINK_CONTROL = 5;
    DWORD dwDropMs = 5000;
    DWORD dwReturned = 7;
    char chOut = 0;
    EXPECT_EQ(m_dak.DAKKernelIoControl(DROP_LINK_CONTROL, &dwDropMs, sizeof(dwDropMs), &chOut, 1,
                                       &dwReturned),
              DAKERROR_NONE);
    EXPECT_EQ(dwReturned, 0U);
    EXPECT_TRUE(Eventually([&] { return m_dak.ConnectDevice() == DAKERROR_NO_DEVICE; }));
    EXPECT_TRUE(Eventually([&] { return m_dak.ConnectDevice() == DAKERROR_NONE; }));
    m_pAgent.reset();
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
}

TEST_F(Connection, IsOfOneProcessAtATime) {
    CPresentedAgent& device = Plug();
    WriteTree(OnHost("tree"), {{L"large", File(1'000'000, 1)}, {L"small", File(200'000, 2)}});

    // This process has it, and waits for the last verdict, which it does for minutes.
    device.HangAt({EDirection::ToHost, 4});
    ASSERT_EQ(Transmit(DAK_TO_DEVICE, {L"small"}, m_hWnd), DAKERROR_NONE);
    ASSERT_TRUE(Eventually([&] { return device.HasStopped(); }));
    EXPECT_EQ(device.Taken(), 2U + 17U);
    EXPECT_EQ(OtherProcess({L"connect"})->End(), DAKERROR_BUSY >> 16);
    EXPECT_TRUE(m_dak.IsTransmitting());
    device.GoOn();
    ASSERT_TRUE(AwaitEnd());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    // The message goes out ahead of the job's closing, which an operation of this process awaits.
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(OtherProcess({L"connect"})->End(), DAKERROR_NONE);

    // Another one, behind a connection, waits so in the middle of a job until it is killed.
    device.HangAt({EDirection::ToHost, 2 + 4});
    const auto pOther = OtherProcess({L"push", OnHost("tree").wstring(), L"large"});
    ASSERT_TRUE(Eventually([&] { return device.HasStopped(); }));
    EXPECT_EQ(device.Taken(), 2U + 2U + 51U);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_BUSY);
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_BUSY);
    EXPECT_EQ(Transmit(DAK_TO_DEVICE, {L"small"}, m_hWnd), DAKERROR_BUSY);
    EXPECT_EQ(OtherProcess({L"connect"})->End(), DAKERROR_BUSY >> 16);
    EXPECT_TRUE(pOther->IsRunning());
    pOther->Kill();
    device.GoOn();
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    // Nothing is left of what it has not finished.
    EXPECT_TRUE(Eventually([&] { return ReadTree(OnDevice("")).size() == 1; }));
    EXPECT_TRUE(fs::exists(OnDevice("Docs/small")));
}

// At most two in one go, by name alone and whatever its letters, with the exit code 0.
TEST_F(Connection, EndsTheProcessesThatHoldThePipe) {
    CPresentedAgent& device = Plug();
    const auto start = [&](const char* lpszName) {
        fs::create_directories(OnHost(lpszName).parent_path());
        fs::copy_file(StandIn(), OnHost(lpszName));
        std::unique_ptr<CProgram> pProgram;
        for (int nTry = 0; nTry < 3 && (!pProgram || !pProgram->HasBegun()); ++nTry) {
            pProgram = std::make_unique<CProgram>(OnHost(lpszName));
        }
        EXPECT_TRUE(pProgram->HasBegun()) << lpszName;
        return pProgram;
    };
    const std::unique_ptr<CProgram> holders[] = {start("WCESCOMM.exe"), start("other/wcesmgr.EXE"),
                                                 start("WCESMgr.exe")};
    const std::unique_ptr<CProgram> bystanders[] = {start("WCESCOMM2.exe"),
                                                    start("WCESMgr.exe.exe"), start("WCESCOMM")};
    const auto running = [](const auto& programs) {
        return std::ranges::count_if(programs, [](const auto& p) { return p->IsRunning(); });
    };
    ASSERT_EQ(running(holders), std::ssize(holders));
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    EXPECT_TRUE(Eventually([&] { return running(holders) == 1; })) << running(holders);
    ::Sleep(300); // a third one that has been told to end would have by then
    EXPECT_EQ(running(holders), 1);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    for (const auto& pHolder : holders) {
        EXPECT_EQ(pHolder->End(), 0U);
    }
    device.SetPlugged(false); // they are ended also where there is no device
    const auto pHolder = start("again/wcescomm.exe");
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    EXPECT_EQ(pHolder->End(), 0U);
    EXPECT_EQ(running(bystanders), std::ssize(bystanders));
}

} // namespace
} // namespace windows_end_to_end
