// What a plain command costs beside the waits that the protocol demands of it: single operations
// through the shared library against an agent process.

#include "bench/process.h"
#include "link/dak_vorn.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/resource.h>

namespace {

constexpr int TIMES = 20;
constexpr double LIMIT_MS = 10;

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool Measure(const char* lpszWhat, double fDemanded, const std::function<DWORD(int)>& operation) {
    const double fCpu = CpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < TIMES; ++i) {
        const DWORD dwResult = operation(i);
        if (dwResult != 0) {
            std::printf("  %s failed with 0x%X\n", lpszWhat, static_cast<unsigned>(dwResult));
            return false;
        }
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    const double fWall = wall.count() / TIMES;
    std::printf("  %-22s %6.1f ms, %6.1f ms demanded, %5.2f ms beside (limit %.0f)   %.2f CPU ms "
                "(no limit)\n",
                lpszWhat, fWall * 1e3, fDemanded * 1e3, (fWall - fDemanded) * 1e3, LIMIT_MS,
                (CpuSeconds() - fCpu) * 1e3 / TIMES);
    return true;
}

} // namespace

int main() {
    const bench::CDeviceForBench device;
    for (int i = 0; i < TIMES; ++i) {
        std::filesystem::create_directory(device.Root() + "/" + std::to_string(i));
    }
    const std::string strMHz = bench::OwnMHz();
    setenv("DAK_CPU_MHZ", strMHz.c_str(), 1);
    const auto [fDelete, fSpace] = bench::DemandedSeconds("plain " + strMHz);
    std::printf("a plain command against a device at rest, mean of %d, DAK_CPU_MHZ=%s:\n", TIMES,
                strMHz.c_str());
    CDAKVorn dak;
    bool bDone = Measure("DAKDeleteFile", fDelete, [&dak](int i) {
        std::u16string strPath = u"\\";
        for (const char ch : std::to_string(i)) {
            strPath.push_back(static_cast<char16_t>(ch));
        }
        return dak.DAKDeleteFile(strPath.c_str());
    });
    bDone = Measure("DAKGetDeviceFreeSpace", fSpace,
                    [&dak](int) {
                        DWORD dwFree = 0;
                        DWORD dwTotal = 0;
                        return dak.DAKGetDeviceFreeSpace(&dwFree, &dwTotal);
                    }) &&
            bDone;
    return bDone ? EXIT_SUCCESS : EXIT_FAILURE;
}
