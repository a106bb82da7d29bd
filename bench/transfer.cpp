// A 10 MB copy in both directions with real processes, a real pipe and the clock of the wall: the
// time over the sum of the waits that the protocol demands, and the host's CPU time for each MB
// with the share that goes into threads being made, waited for and ended.

#include "bench/process.h"
#include "platform/thread.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>

namespace {

constexpr std::uint64_t BYTES = 10'000'000;
constexpr double MEGABYTES = BYTES / 1e6;
constexpr double LIMIT = 1.03;

// CPU seconds of one thread made, waited for and given up, as every transfer does.
double ThreadSeconds() {
    constexpr int nThreads = 20000;
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    for (int i = 0; i < nThreads; ++i) {
        const HANDLE hThread = platform::CreateThread(
            nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, nullptr);
        platform::WaitForSingleObject(hThread, INFINITE);
        platform::CloseHandle(hThread);
    }
    getrusage(RUSAGE_SELF, &after);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return (seconds(after.ru_utime) + seconds(after.ru_stime) - seconds(before.ru_utime) -
            seconds(before.ru_stime)) /
           nThreads;
}

// Transfers of a copy of BYTES: a write for each package of a push and a read for each window; two
// reads for each package of a pull and a write for each window.
constexpr double PACKAGES = BYTES / 12274.0;
constexpr double PUSH_TRANSFERS = PACKAGES + PACKAGES / 50;
constexpr double PULL_TRANSFERS = 2 * PACKAGES + PACKAGES / 50;

void Report(const char* lpszWhat, const bench::RunResult& run, double fDemanded,
            double fThreadShare) {
    if (run.nExitCode != 0) {
        std::printf("  %s failed with exit code %d\n", lpszWhat, run.nExitCode);
        std::exit(EXIT_FAILURE);
    }
    std::printf("  %s  %7.3f s over %7.3f s demanded = %.4f (limit %.2f)   %.4f CPU s/MB, "
                "%.0f %% of it in threads (no limit)\n",
                lpszWhat, run.fWallSeconds, fDemanded, run.fWallSeconds / fDemanded, LIMIT,
                run.fCpuSeconds / MEGABYTES, 100 * fThreadShare / run.fCpuSeconds);
}

void Measure(const bench::CDeviceForBench& device, const std::string& strMHz) {
    setenv("DAK_CPU_MHZ", strMHz.c_str(), 1);
    const auto [fPush, fPull] = bench::DemandedSeconds(std::to_string(BYTES) + " " + strMHz);
    const double fThread = ThreadSeconds();
    const std::string strDak = bench::ProgramFolder() + "dak";
    std::printf("a copy of 10 MB with real processes, DAK_CPU_MHZ=%s:\n", strMHz.c_str());
    Report("push",
           bench::Run({strDak, "push", "--quiet", "--no-verify", device.Folder() + "/file", "\\"}),
           fPush, PUSH_TRANSFERS * fThread);
    Report(
        "pull",
        bench::Run({strDak, "pull", "--quiet", "--no-verify", "\\file", device.Folder() + "/back"}),
        fPull, PULL_TRANSFERS * fThread);
}

} // namespace

int main() {
    const bench::CDeviceForBench device;
    std::ofstream(device.Folder() + "/file", std::ios::binary) << std::string(BYTES, '\x5A');
    Measure(device, "200");
    Measure(device, bench::OwnMHz());
    return EXIT_SUCCESS;
}
