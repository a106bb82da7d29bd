// Fuzzes the agent's core: the input is a script of what a host does. Build with
// clang, -DDAK_BUILD_FUZZERS=ON and -DDAK_SANITIZE=address,fuzzer-no-link.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "tests/agent/session_script.h"

namespace {

// One device for the whole run, in a folder that is removed with it.
class CFuzzDevice {
  public:
    CFuzzDevice() {
        std::string strTemplate =
            (std::filesystem::temp_directory_path() / "dak-fuzz-XXXXXX").string();
        m_path = ::mkdtemp(strTemplate.data());
        agent::CDeviceOptions options;
        options.strRoot = m_path.string();
        options.qwQuota = std::uint64_t{64} << 20;
        options.bAllowFormat = true;
        std::string strError;
        m_pDevice = agent::CDevice::Open(options, strError);
        if (!m_pDevice) {
            std::fprintf(stderr, "%s\n", strError.c_str());
            std::abort();
        }
    }
    ~CFuzzDevice() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }
    CFuzzDevice(const CFuzzDevice&) = delete;
    CFuzzDevice& operator=(const CFuzzDevice&) = delete;

    agent::CDevice& Device() { return *m_pDevice; }

  private:
    std::filesystem::path m_path;
    std::unique_ptr<agent::CDevice> m_pDevice;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* lpData, std::size_t dwSize) {
    static CFuzzDevice s_device;
    agent::CAgentCore core(s_device.Device());
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
