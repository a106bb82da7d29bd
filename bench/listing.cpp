// Listings of 50,000 and 100,000 entries on the simulated host with the real agent core: the
// virtual time over the sum of the waits that the protocol demands, and the host's and the agent's
// CPU time and memory for each entry, which must not grow with their number.

#include "agent/agent_core.h"
#include "agent/device.h"
#include "link/dak_vorn.h"
#include "remote_files/file_info.h"
#include "tests/sim/agent_peer.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <string>

namespace {

// Link, drained pipe, acknowledgement, pause and head; then the entries of the first package, and
// two reads for each later one.
constexpr std::uint64_t HEAD_MS = 1458;
constexpr std::uint64_t READ_MS = 10;

constexpr double LINEAR_LIMIT = 1.3;
constexpr double MEMORY_LIMIT = 3; // records of 1236 bytes: an array that grows is there twice

struct Figures {
    double fCpuMicroseconds; // each for one entry
    double fBytes;
};

double CpuSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// The most that has been resident since the peak was last cleared.
std::size_t PeakBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string strLine; std::getline(status, strLine);) {
        if (strLine.starts_with("VmHWM:")) {
            return static_cast<std::size_t>(std::atol(strLine.c_str() + 6)) * 1024;
        }
    }
    return 0;
}

std::size_t EntryBytes(const std::string& strName) {
    return 4 * strName.size() + 52; // in the root, of the type "File"
}

Figures Measure(const std::string& strRoot, int nEntries) {
    std::size_t dwBytes = 0;
    for (int i = 0; i < nEntries; ++i) {
        const std::string strName = "a file of the folder " + std::to_string(1'000'000 + i);
        if (!std::filesystem::exists(strRoot + "/" + strName)) {
            std::ofstream{strRoot + "/" + strName};
        }
        dwBytes += EntryBytes(strName);
    }
    const std::uint64_t qwPackages = (dwBytes + 8 + 12277) / 12278;
    const std::uint64_t qwDemanded = HEAD_MS + READ_MS + 2 * READ_MS * (qwPackages - 1);

    sim::CWorld world;
    world.bTrace = false;
    std::string strError;
    const auto pDevice = agent::CDevice::Open({strRoot, {}, {}, {}}, strError);
    if (pDevice == nullptr) {
        std::fprintf(stderr, "%s\n", strError.c_str());
        std::exit(EXIT_FAILURE);
    }
    agent::CAgentCore core(*pDevice);
    sim::CAgentPeer peer(world, core);
    CDAKVorn dak;
    CArray<_tagFileInfo, _tagFileInfo> list;
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5"; // the peak begins anew
    const std::size_t dwPeakBefore = PeakBytes();
    const double fCpu = CpuSeconds();
    if (dak.DAKGetFolderContent(u"\\", &list) != 0 || list.GetSize() != nEntries) {
        std::fputs("the listing did not come whole\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    const Figures figures = {(CpuSeconds() - fCpu) * 1e6 / nEntries,
                             static_cast<double>(PeakBytes() - dwPeakBefore) / nEntries};
    std::printf("  %6d entries   %llu ms over %llu ms demanded = %.4f (limit 1)   "
                "%.1f us CPU and %.0f bytes an entry, %.2f records (limit %.1f)\n",
                nEntries, static_cast<unsigned long long>(world.NowMs()),
                static_cast<unsigned long long>(qwDemanded),
                static_cast<double>(world.NowMs()) / static_cast<double>(qwDemanded),
                figures.fCpuMicroseconds, figures.fBytes, figures.fBytes / sizeof(_tagFileInfo),
                MEMORY_LIMIT);
    return figures;
}

} // namespace

int main() {
    std::string strRoot = std::filesystem::temp_directory_path().string() + "/dak-bench-XXXXXX";
    if (mkdtemp(strRoot.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    std::puts("a listing, host and agent in one process, virtual time:");
    Measure(strRoot, 1000); // warms up; what is made once is made here
    const Figures half = Measure(strRoot, 50'000);
    const Figures whole = Measure(strRoot, 100'000);
    std::printf("  100,000 over 50,000, for each entry: CPU %.2f, memory %.2f (limit %.1f)\n",
                whole.fCpuMicroseconds / half.fCpuMicroseconds, whole.fBytes / half.fBytes,
                LINEAR_LIMIT);
    std::error_code error;
    std::filesystem::remove_all(strRoot, error);
    return EXIT_SUCCESS;
}
