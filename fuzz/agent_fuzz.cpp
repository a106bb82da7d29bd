// The agent's core against any host: the input is a script of what a host does.

#include "agent/agent_core.h"
#include "fuzz/fuzz_device.h"
#include "fuzz/session_script.h"
#include "link/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* lpData, std::size_t dwSize) {
    agent::CAgentCore core(FuzzDevice());
    RunSessionScript(core, {lpData, dwSize});

    // Whatever came, the next handshake is served.
    std::uint8_t package[DAK_HANDSHAKE_SIZE];
    DakPutHandshake(package, DAK_CONNECT, DAK_PROTOCOL_VERSION);
    core.TakePackage(package);
    std::uint8_t reply[DAK_PACKAGE_SIZE];
    if (core.GiveBytes(reply) != DAK_HANDSHAKE_SIZE || DakGetU32(reply) != DAK_CONNECT ||
        core.HasBytes()) {
        std::abort();
    }
    return 0;
}
