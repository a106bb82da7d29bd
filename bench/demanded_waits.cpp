// The waits that the protocol demands of a job or a command, in milliseconds: the same on the
// simulated host, where nothing but waits takes time, with the real agent core behind the pipe.
//
//     bench_demanded_waits BYTES MHZ          a file of so many bytes: prints "PUSH PULL"
//     bench_demanded_waits BYTES MHZ FILES    so many files of so many bytes in one job
//     bench_demanded_waits plain MHZ          prints "DELETE SPACE", of one command each

#include "agent/agent_core.h"
#include "agent/device.h"
#include "bench/small_files.h"
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/sim/agent_peer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using Waits = std::pair<std::uint64_t, std::uint64_t>; // 0 where something failed

// The virtual time from before the job to behind its worker's end.
std::uint64_t JobMs(sim::CWorld& world, UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                    const std::vector<std::string>& entries) {
    const std::uint64_t qwBegin = world.NowMs();
    const HWND hWnd = platform::CreateMessageWindow();
    DWORD dwOutcome = DAKERROR_FAIL;
    {
        CDAKVorn dak;
        CStringArray files;
        for (const std::string& strEntry : entries) {
            files.Add(strEntry.c_str());
        }
        platform::WINDOWMESSAGE message{};
        if (dak.DAKTransmitFiles(nDirection, lpSource, lpDest, &files, hWnd) == 0 &&
            platform::WaitWindowMessage(hWnd, INFINITE, &message) != FALSE) {
            dwOutcome = dak.GetLastError();
        }
    }
    platform::DestroyMessageWindow(hWnd);
    return dwOutcome == DAKERROR_NONE ? world.NowMs() - qwBegin : 0;
}

// A single file goes by its name, many go in a folder.
Waits CopyMs(sim::CWorld& world, std::size_t dwBytes, int nFiles) {
    world.MakeHostFolder("C:/d");
    if (nFiles == 1) {
        world.WriteHostFile("C:/s/file", sim::Bytes(dwBytes, 7));
        return {JobMs(world, DAK_TO_DEVICE, u"C:\\s", u"\\", {"C:\\s\\file"}),
                JobMs(world, DAK_FROM_DEVICE, u"\\", u"C:\\d", {"file"})};
    }
    std::vector<std::string> entries;
    for (int i = 0; i < nFiles; ++i) {
        const std::string strName = bench::SmallFileName(i);
        world.WriteHostFile("C:/s/" + std::string(bench::SMALL_FOLDER) + "/" + strName,
                            sim::Bytes(dwBytes, 7));
        entries.push_back("C:\\s\\" + std::string(bench::SMALL_FOLDER) + "\\" + strName);
    }
    return {JobMs(world, DAK_TO_DEVICE, u"C:\\s", u"\\", entries),
            JobMs(world, DAK_FROM_DEVICE, u"\\", u"C:\\d", {bench::SMALL_FOLDER})};
}

Waits PlainMs(sim::CWorld& world) {
    CDAKVorn dak;
    DWORD dwFree = 0;
    DWORD dwTotal = 0;
    const bool bMade = dak.DAKCreateDirectory(u"\\a", nullptr) == 0;
    const std::uint64_t qwMade = world.NowMs();
    const bool bDeleted = dak.DAKDeleteFile(u"\\a") == 0;
    const std::uint64_t qwDeleted = world.NowMs();
    const bool bTold = dak.DAKGetDeviceFreeSpace(&dwFree, &dwTotal) == 0;
    return bMade && bDeleted && bTold ? Waits{qwDeleted - qwMade, world.NowMs() - qwDeleted}
                                      : Waits{};
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fputs("usage: bench_demanded_waits BYTES|plain MHZ [FILES]\n", stderr);
        return EXIT_FAILURE;
    }
    std::string strRoot = std::filesystem::temp_directory_path().string() + "/dak-bench-XXXXXX";
    if (mkdtemp(strRoot.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    Waits waits;
    {
        sim::CWorld world;
        world.bTrace = false;
        world.dwCpuMHz = static_cast<DWORD>(std::strtoul(argv[2], nullptr, 10));
        agent::CDeviceOptions options;
        options.strRoot = strRoot;
        std::string strError;
        const auto pDevice = agent::CDevice::Open(options, strError);
        if (pDevice == nullptr) {
            std::fprintf(stderr, "%s\n", strError.c_str());
            return EXIT_FAILURE;
        }
        agent::CAgentCore core(*pDevice);
        sim::CAgentPeer peer(world, core);
        waits = std::strcmp(argv[1], "plain") == 0
                    ? PlainMs(world)
                    : CopyMs(world, std::strtoull(argv[1], nullptr, 10),
                             argc == 4 ? std::atoi(argv[3]) : 1);
    }
    std::error_code error;
    std::filesystem::remove_all(strRoot, error);
    std::printf("%llu %llu\n", static_cast<unsigned long long>(waits.first),
                static_cast<unsigned long long>(waits.second));
    return waits.first != 0 && waits.second != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
