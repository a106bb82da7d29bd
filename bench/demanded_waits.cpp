// The waits that the protocol demands of a copy, in milliseconds: the same job on the simulated
// host, where nothing but waits takes time, with the real agent core behind the pipe.
//
//     bench_demanded_waits BYTES MHZ    prints "PUSH PULL"

#include "agent/agent_core.h"
#include "agent/device.h"
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/sim/agent_peer.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// The virtual time from before the job to behind its worker's end; 0 when it failed.
std::uint64_t JobMs(sim::CWorld& world, UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                    const char* lpszEntry) {
    const std::uint64_t qwBegin = world.NowMs();
    const HWND hWnd = platform::CreateMessageWindow();
    DWORD dwOutcome = DAKERROR_FAIL;
    {
        CDAKVorn dak;
        CStringArray files;
        files.Add(lpszEntry);
        platform::WINDOWMESSAGE message{};
        if (dak.DAKTransmitFiles(nDirection, lpSource, lpDest, &files, hWnd) == 0 &&
            platform::WaitWindowMessage(hWnd, INFINITE, &message) != FALSE) {
            dwOutcome = dak.GetLastError();
        }
    }
    platform::DestroyMessageWindow(hWnd);
    return dwOutcome == DAKERROR_NONE ? world.NowMs() - qwBegin : 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: bench_demanded_waits BYTES MHZ\n", stderr);
        return EXIT_FAILURE;
    }
    std::string strRoot = std::filesystem::temp_directory_path().string() + "/dak-bench-XXXXXX";
    if (mkdtemp(strRoot.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    std::uint64_t qwPush = 0;
    std::uint64_t qwPull = 0;
    {
        sim::CWorld world;
        world.bTrace = false;
        world.dwCpuMHz = static_cast<DWORD>(std::strtoul(argv[2], nullptr, 10));
        std::string strError;
        const auto pDevice = agent::CDevice::Open({strRoot, {}, {}, {}}, strError);
        if (pDevice == nullptr) {
            std::fprintf(stderr, "%s\n", strError.c_str());
            return EXIT_FAILURE;
        }
        agent::CAgentCore core(*pDevice);
        sim::CAgentPeer peer(world, core);
        world.WriteHostFile("C:/s/file", sim::Bytes(std::strtoull(argv[1], nullptr, 10), 7));
        world.MakeHostFolder("C:/d");
        qwPush = JobMs(world, DAK_TO_DEVICE, u"C:\\s", u"\\", "C:\\s\\file");
        qwPull = JobMs(world, DAK_FROM_DEVICE, u"\\", u"C:\\d", "file");
    }
    std::error_code error;
    std::filesystem::remove_all(strRoot, error);
    std::printf("%llu %llu\n", static_cast<unsigned long long>(qwPush),
                static_cast<unsigned long long>(qwPull));
    return qwPush != 0 && qwPull != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
