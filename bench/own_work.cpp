// The sender's and the receiver's own work (checksums, copies, clears) with every wait taken away,
// against memcpy of the same bytes from one buffer to another.

#include "bench/instant_platform.h"
#include "link/dak_vorn.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr DWORD BYTES = 64U << 20;
constexpr double LIMIT = 6.0;
void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{1});

std::vector<BYTE> g_source(BYTES, 0x5A);
std::vector<BYTE> g_target(BYTES, 0);

void Memcpy(benchmark::State& state) {
    for (auto _ : state) {
        std::memcpy(g_target.data(), g_source.data(), BYTES);
        benchmark::ClobberMemory();
    }
}

void Sender(benchmark::State& state) {
    CDAKVorn dak;
    for (auto _ : state) {
        DWORD dwWritten = 0;
        if (dak.DAKWriteFile(FILE_HANDLE, g_source.data(), BYTES, &dwWritten) != 0 ||
            dwWritten != BYTES) {
            state.SkipWithError("the write failed");
        }
    }
}

void Receiver(benchmark::State& state) {
    CDAKVorn dak;
    instant::SetReadSize(BYTES);
    for (auto _ : state) {
        DWORD dwRead = 0;
        if (dak.DAKReadFile(FILE_HANDLE, g_target.data(), BYTES, &dwRead) != 0 || dwRead != BYTES) {
            state.SkipWithError("the read failed");
        }
    }
}

BENCHMARK(Memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(Sender)->Unit(benchmark::kMillisecond);
BENCHMARK(Receiver)->Unit(benchmark::kMillisecond);

// Keeps the median of each benchmark.
class CMedians : public benchmark::ConsoleReporter {
  public:
    CMedians() : benchmark::ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                bFailed = true;
            } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
    }
    std::map<std::string, double> medians;
    bool bFailed = false;
};

} // namespace

int main(int argc, char** argv) {
    char szRepetitions[] = "--benchmark_repetitions=7";
    std::vector<char*> arguments(argv, argv + argc);
    arguments.insert(arguments.begin() + 1, szRepetitions);
    int nArguments = static_cast<int>(arguments.size());
    benchmark::Initialize(&nArguments, arguments.data());
    CMedians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    if (medians.bFailed) {
        std::puts("own work: a benchmark failed");
        return EXIT_FAILURE;
    }
    const double fMemcpy = medians.medians["Memcpy"];
    std::printf("own work with all waits taken away, 64 MB, CPU time, medians of 7:\n"
                "  memcpy    %8.2f ms\n",
                fMemcpy);
    for (const char* lpszName : {"Sender", "Receiver"}) {
        const double fTime = medians.medians[lpszName];
        std::printf("  %-9s %8.2f ms   %5.2f times memcpy   (limit %.1f)\n", lpszName, fTime,
                    fTime / fMemcpy, LIMIT);
    }
    return EXIT_SUCCESS;
}
