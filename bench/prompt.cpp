// What work with a prompt device costs: real processes on a socket and the clock of the wall, each
// figure beside the aim it is held against, and copies beside the plain copy of the same bytes
// through a socket into a file.

#include "bench/process.h"
#include "link/dak_vorn.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr double GIGABYTE = 1e9;
constexpr std::size_t BLOCK = 12288;

double SecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void MakeFile(const std::string& strPath, std::uint64_t qwBytes) {
    std::ofstream file(strPath, std::ios::binary);
    const std::string strBlock(1'000'000, '\x5A');
    for (; qwBytes > 0; qwBytes -= strBlock.size()) {
        file << strBlock;
    }
}

// Reads the file in blocks of a package, sends them through a socket, and writes what arrives.
double PlainCopySeconds(const std::string& strFrom, const std::string& strTo) {
    int sockets[2];
    const int fdFrom = ::open(strFrom.c_str(), O_RDONLY);
    const int fdTo = ::open(strTo.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fdFrom < 0 || fdTo < 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
        std::perror("plain copy");
        std::exit(EXIT_FAILURE);
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto pump = [](int fdIn, int fdOut) {
        std::vector<char> block(BLOCK);
        for (ssize_t nRead = 0; (nRead = ::read(fdIn, block.data(), block.size())) > 0;) {
            for (ssize_t nDone = 0; nDone < nRead;) {
                const ssize_t nWritten =
                    ::write(fdOut, block.data() + nDone, static_cast<std::size_t>(nRead - nDone));
                if (nWritten < 0) {
                    std::perror("plain copy");
                    std::exit(EXIT_FAILURE);
                }
                nDone += nWritten;
            }
        }
    };
    std::thread receiver([&] { pump(sockets[1], fdTo); });
    pump(fdFrom, sockets[0]);
    ::close(sockets[0]);
    receiver.join();
    const double fSeconds = SecondsSince(begin);
    for (const int fd : {sockets[1], fdFrom, fdTo}) {
        ::close(fd);
    }
    return fSeconds;
}

// Runs the command, and ends the program where that fails.
bench::RunResult Dak(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), bench::ProgramFolder() + "dak");
    const bench::RunResult run = bench::Run(arguments);
    if (run.nExitCode != 0) {
        std::printf("  dak %s failed with exit code %d\n", arguments[1].c_str(), run.nExitCode);
        std::exit(EXIT_FAILURE);
    }
    return run;
}

void MeasureLarge(const bench::CDeviceForBench& device) {
    const std::string strFile = device.Folder() + "/large";
    MakeFile(strFile, static_cast<std::uint64_t>(GIGABYTE));
    const double fPlain = PlainCopySeconds(strFile, device.Folder() + "/plain");
    fs::remove(device.Folder() + "/plain");
    std::printf("a plain copy of 1 GB through a socket into a file: %.0f MB/s\n", 1e3 / fPlain);
    const auto report = [&](const char* lpszWhat, const bench::RunResult& run, double fAgent,
                            double fAimRate, double fAimShare, double fAimCpu) {
        std::printf(
            "  %s of 1 GB  %6.2f s, %4.0f MB/s (aim %.0f), %.0f %% of the plain copy's rate "
            "(aim %.0f %%)   CPU s: host %.2f (aim %.0f), device %.2f\n",
            lpszWhat, run.fWallSeconds, 1e3 / run.fWallSeconds, fAimRate,
            100 * fPlain / run.fWallSeconds, fAimShare, run.fCpuSeconds, fAimCpu, fAgent);
    };
    double fBefore = device.AgentCpuSeconds();
    const bench::RunResult push = Dak({"push", "--quiet", strFile, "\\"});
    report("push", push, device.AgentCpuSeconds() - fBefore, 200, 40, 2);
    fs::remove(strFile);
    fs::create_directory(device.Folder() + "/back");
    fBefore = device.AgentCpuSeconds();
    const bench::RunResult pull = Dak({"pull", "--quiet", "\\large", device.Folder() + "/back"});
    report("pull", pull, device.AgentCpuSeconds() - fBefore, 150, 30, 5);
    fs::remove(device.Folder() + "/back/large");
    fs::remove(device.Root() + "/large");
}

void MeasureSmall(const bench::CDeviceForBench& device) {
    constexpr int FILES = 10'000;
    const std::string strSource = device.Folder() + "/small";
    fs::create_directory(strSource);
    for (int i = 0; i < FILES; ++i) {
        std::ofstream(strSource + "/" + std::to_string(i)) << std::string(1000, '\x5A');
    }
    std::printf("%d files of 1000 bytes (aim 1 s each):\n", FILES);
    std::printf("  push %.2f s\n", Dak({"push", "--quiet", strSource, "\\"}).fWallSeconds);
    std::printf("  pull %.2f s\n",
                Dak({"pull", "--quiet", "\\small", device.Folder() + "/back"}).fWallSeconds);
}

void MeasureCommands(const bench::CDeviceForBench& device) {
    constexpr int TIMES = 200;
    constexpr int ENTRIES = 100'000;
    CDAKVorn dak;
    DWORD dwFree = 0;
    DWORD dwTotal = 0;
    auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < TIMES; ++i) {
        if (dak.DAKGetDeviceFreeSpace(&dwFree, &dwTotal) != 0) {
            std::puts("  the free space cannot be had");
            std::exit(EXIT_FAILURE);
        }
    }
    std::printf("a plain command in an open object: %.2f ms (aim 2)\n",
                SecondsSince(begin) * 1e3 / TIMES);
    double fStat = 0;
    for (int i = 0; i < 20; ++i) {
        fStat += Dak({"stat", "\\small"}).fWallSeconds;
    }
    std::printf("dak stat as a process: %.1f ms (aim 10)\n", fStat * 1e3 / 20);
    fs::create_directory(device.Root() + "/many");
    for (int i = 0; i < ENTRIES; ++i) {
        std::ofstream(device.Root() + "/many/" + std::to_string(i));
    }
    CArray<_tagFileInfo, _tagFileInfo> list;
    begin = std::chrono::steady_clock::now();
    if (dak.DAKGetFolderContent(u"\\many", &list) != 0 || list.GetSize() != ENTRIES) {
        std::puts("  the listing failed");
        std::exit(EXIT_FAILURE);
    }
    std::printf("a listing of %d entries: %.2f s (aim 0.7)\n", ENTRIES, SecondsSince(begin));
    dak.ClearFileList(&list);
}

} // namespace

int main() {
    const bench::CDeviceForBench device(bench::Pace::Prompt);
    MeasureLarge(device);
    MeasureSmall(device);
    MeasureCommands(device);
    return EXIT_SUCCESS;
}
