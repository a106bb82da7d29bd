// What proves this system alone.
#include "tests/end_to_end/world.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace end_to_end {
namespace {

// In KiB.
unsigned long MemoryOf(pid_t nProcess) {
    const std::string strStatus = test::ReadBytes("/proc/" + std::to_string(nProcess) + "/status");
    return std::stoul(strStatus.substr(strStatus.find("VmHWM:") + 6));
}

// They say nothing, or nonsense, while a copy is on its way.
TEST(Agent, AThousandClientsDoNotDisturbACopy) {
    constexpr std::size_t CLIENTS = 1000;
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ASSERT_TRUE(files.rlim_max > CLIENTS + 100 && ::setrlimit(RLIMIT_NOFILE, &files) == 0);
    CWorld world;
    world.Plug();
    const std::string strBytes(3'000'000, 'b');
    world.folder.Write("host/f", strBytes);
    world.HoldAfter(EWay::ToDevice, 1'000'000);
    const auto pPush = world.Start({"dak", "push", "f", "/"});
    ASSERT_TRUE(Eventually([&] { return world.Holds(); }));

    const std::string strSocket =
        world.folder.Path("attached/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/device.agent");
    sockaddr_un address{AF_UNIX, {}};
    strSocket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::vector<int> clients;
    ucred agent{};
    unsigned long dwBeforeKib = 0;
    for (std::size_t i = 0; i < CLIENTS; ++i) {
        clients.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(
            ::connect(clients.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            0);
        if (i == 0) {
            socklen_t nBytes = sizeof(agent);
            ASSERT_EQ(::getsockopt(clients[0], SOL_SOCKET, SO_PEERCRED, &agent, &nBytes), 0);
            dwBeforeKib = MemoryOf(agent.pid);
        }
        const std::string strNonsense(i % 4 * 10'000, static_cast<char>(i));
        ::send(clients.back(), strNonsense.data(), strNonsense.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    world.GoOn();
    EXPECT_EQ(pPush->End(), 0) << pPush->Errors();
    EXPECT_TRUE(world.Files() == (TREE{{"f", strBytes}}));
    EXPECT_LT(MemoryOf(agent.pid), dwBeforeKib + 16'384);
    for (const int nClient : clients) {
        ::close(nClient);
    }
}

} // namespace
} // namespace end_to_end
