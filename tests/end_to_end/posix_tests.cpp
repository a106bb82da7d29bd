// What proves this system alone.
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/end_to_end/world.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tuple>

namespace end_to_end {
namespace {

std::size_t MostKibOf(pid_t nProcess) {
    const std::string strStatus = test::ReadBytes("/proc/" + std::to_string(nProcess) + "/status");
    return std::stoul(strStatus.substr(strStatus.find("VmHWM:") + 6));
}

// They say nothing, or nonsense, while a copy is on its way.
TEST(Agent, AThousandClientsDoNotDisturbACopy) {
    const rlimit files{2000, 2000};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &files), 0);
    const CWorld world;
    world.pDevice->Plug();
    const TREE tree = {{"f", std::string(3'000'000, 'b')}};
    world.folder.Write("host", tree);
    world.pDevice->HoldAfter(EWay::ToDevice, 1'000'000);
    const auto pPush = world.Start("dak push f /");
    ASSERT_TRUE(Eventually([&] { return world.pDevice->Holds(); }));
    sockaddr_un address{AF_UNIX, {}};
    world.folder.Path("attached/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/device.agent")
        .copy(address.sun_path, sizeof(address.sun_path) - 1);
    ucred agent{};
    std::size_t nKib = 0;
    std::array<int, 1000> clients{};
    for (std::size_t i = 0; i < clients.size(); ++i) {
        clients[i] = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
        ASSERT_EQ(::connect(clients[i], pAddress, sizeof(address)), 0);
        if (i == 0) {
            socklen_t nBytes = sizeof(agent);
            ::getsockopt(clients[0], SOL_SOCKET, SO_PEERCRED, &agent, &nBytes);
            nKib = MostKibOf(agent.pid);
        }
        const std::string strNonsense(i % 4 * 10'000, static_cast<char>(i));
        ::send(clients[i], strNonsense.data(), strNonsense.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    world.pDevice->GoOn();
    EXPECT_EQ(pPush->End(), 0) << pPush->Errors();
    EXPECT_TRUE(world.pDevice->Files() == tree);
#ifdef __SANITIZE_ADDRESS__
    constexpr std::size_t MOST_KIB = SIZE_MAX / 2; // it keeps what is given back
#else
    constexpr std::size_t MOST_KIB = 8192;
#endif
    EXPECT_LT(MostKibOf(agent.pid), nKib + MOST_KIB);
    for (const int nClient : clients) {
        ::close(nClient);
    }
}

// From its start to its end, whatever else comes up meanwhile, also under the same name.
TEST(Command, WorksWithOneOfTwoDevices) {
    const CWorld world;
    world.pDevice->Write({{"Card/a", "a"}});
    world.pDevice->Plug();
    world.folder.Write("other", {{"b", "b"}, {"Card/b", "b"}});
    world.folder.Write("host", {{"f", std::string(300'000, 'f')}});
    std::unique_ptr<CProgram> pOther;
    for (const bool bReplaced : {true, false}) {
        const auto pTerminal = MakeTerminal();
        const auto pFormat = world.Start("dak format Card", pTerminal->ForProgram());
        EXPECT_TRUE(Eventually([&] { return pTerminal->Shown().ends_with("[y/N] "); }));
        EXPECT_NE(pTerminal->Shown().find(" Card of the device device "), std::string::npos);
        if (bReplaced) {
            world.pDevice->Unplug();
            world.pDevice->Plug();
        } else {
            pOther = world.Start("dak-agent --root ../other --storage Card=../other/Card "
                                 "--allow-format --name another");
            EXPECT_TRUE(Eventually([&] { return !pOther->Output().empty(); }));
        }
        pTerminal->Type("y\r");
        EXPECT_EQ(pFormat->End(), bReplaced ? 3 : 0) << pTerminal->Shown();
        EXPECT_TRUE(Eventually([&] { return world.pDevice->Files().empty() != bReplaced; }));
    }
    for (const auto& [strWords, nExit, strSaid] :
         {std::tuple{"devices", 0, "another\ndevice\n"},
          {"push f /", 2, "2 devices are attached, another and device: choose"},
          {"push -d none f /", 3, "no device none is attached, but another and device"},
          {"-d another ls -d device", 2, "two devices are named"},
          {"-qd another ls", 0, "Card/\nb\n"},
          {"-d another run -d another -- none -d", 5, "allow-exec"},
          {"status --json --device=device", 0, "\"device\": \"device\""}}) {
        const auto pDak = world.Run(std::string("dak ") + strWords);
        EXPECT_EQ(pDak->End(), nExit) << strWords;
        EXPECT_TRUE(pDak->Says(strSaid)) << pDak->Output() << pDak->Errors();
    }
    EXPECT_EQ(test::ReadTree(world.folder / "other").size(), 2U);
    // A program that does not choose: what it has lost does not come back for it.
    ::setenv("DAK_DEVICE", "device", 1);
    world.pDevice->HoldAfter(EWay::ToHost, 560); // ahead of the response
    std::thread program([] { EXPECT_EQ(CDAKVorn().DAKDeleteFile(u"\\f"), DAKERROR_NO_DEVICE); });
    EXPECT_TRUE(Eventually([&] { return world.pDevice->Holds(); }));
    world.pDevice->Unplug();
    world.pDevice->Plug();
    program.join();
    ::unsetenv("DAK_DEVICE");
}

// Of a job in its parent it sees nothing but that the link is not free, and nothing that it does
// touches the job.
TEST(Job, IsNotThatOfAForkedChild) {
    const CWorld world;
    world.pDevice->Plug();
    const TREE tree = {{"f", std::string(300'000, 'f')}};
    world.folder.Write("host", tree);
    world.pDevice->HoldAfter(EWay::ToDevice, 100'000);
    auto pDak = std::make_unique<CDAKVorn>();
    const HWND hWnd = platform::CreateMessageWindow();
    CStringArray list;
    list.Add(world.folder.Path("host/f").c_str());
    const auto strHost = (world.folder / "host").string<WCHAR>();
    ASSERT_EQ(pDak->DAKTransmitFiles(DAK_TO_DEVICE, strHost.c_str(), u"\\", &list, hWnd), 0U);
    ASSERT_TRUE(Eventually([&] { return world.pDevice->Holds(); }));
    const pid_t nChild = ::fork();
    if (nChild == 0) {
        ::alarm(60);
        const bool bBusy = CDAKVorn().ConnectDevice() == DAKERROR_BUSY &&
                           pDak->DAKDeleteFile(u"\\f") == DAKERROR_BUSY;
        pDak->TerminateTransfer();
        pDak.reset();
        ::_exit(bBusy ? 0 : 1);
    }
    int nStatus = -1;
    EXPECT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_EQ(nStatus, 0);
    world.pDevice->GoOn();
    platform::WINDOWMESSAGE message{};
    EXPECT_TRUE(platform::WaitWindowMessage(hWnd, test::BOUND.count() * 1000, &message));
    EXPECT_EQ(pDak->GetLastError(), DAKERROR_NONE);
    EXPECT_TRUE(world.pDevice->Files() == tree);
    platform::DestroyMessageWindow(hWnd);
}

} // namespace
} // namespace end_to_end
