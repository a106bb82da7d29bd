// 10,000 small files in one job, pushed and pulled with real processes, a real pipe and the clock
// of the wall: the time over the sum of the waits that the protocol demands, and the host's CPU
// time for each file.

#include "bench/small_files.h"
#include "bench/process.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

constexpr int FILES = 10'000;
constexpr std::size_t BYTES = 1000;
constexpr double LIMIT = 1.10;

bool Report(const char* lpszWhat, const bench::RunResult& run, double fDemanded,
            const std::string& strCopy) {
    const std::filesystem::directory_iterator files(strCopy);
    if (run.nExitCode != 0 || std::distance(begin(files), end(files)) != FILES) {
        std::printf("  %s failed with exit code %d\n", lpszWhat, run.nExitCode);
        return false;
    }
    std::printf("  %s  %7.3f s over %7.3f s demanded = %.4f (limit %.2f)   %.3f CPU ms/file (no "
                "limit)\n",
                lpszWhat, run.fWallSeconds, fDemanded, run.fWallSeconds / fDemanded, LIMIT,
                run.fCpuSeconds * 1e3 / FILES);
    return true;
}

} // namespace

int main() {
    const bench::CDeviceForBench device;
    const std::string strSource = device.Folder() + "/" + bench::SMALL_FOLDER;
    const std::string strBack = device.Folder() + "/back";
    std::filesystem::create_directory(strSource);
    std::filesystem::create_directory(strBack);
    for (int i = 0; i < FILES; ++i) {
        std::ofstream(strSource + "/" + bench::SmallFileName(i)) << std::string(BYTES, '\x5A');
    }
    const std::string strMHz = bench::OwnMHz();
    setenv("DAK_CPU_MHZ", strMHz.c_str(), 1);
    const auto [fPush, fPull] =
        bench::DemandedSeconds(std::to_string(BYTES) + " " + strMHz + " " + std::to_string(FILES));
    const std::string strDak = bench::ProgramFolder() + "dak";
    const std::string strRemote = std::string("\\") + bench::SMALL_FOLDER;
    std::printf("%d files of %zu bytes in one job, DAK_CPU_MHZ=%s:\n", FILES, BYTES,
                strMHz.c_str());
    const bool bDone =
        Report("push", bench::Run({strDak, "push", "--quiet", "--no-verify", strSource, "\\"}),
               fPush, device.Root() + "/" + bench::SMALL_FOLDER) &&
        Report("pull", bench::Run({strDak, "pull", "--quiet", "--no-verify", strRemote, strBack}),
               fPull, strBack + "/" + bench::SMALL_FOLDER);
    return bDone ? EXIT_SUCCESS : EXIT_FAILURE;
}
