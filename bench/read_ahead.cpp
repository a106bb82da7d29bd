// CIoBuf against plain reads of the same file, which lies in the system's cache: CPU time, and the
// wall time above the pauses that CIoBuf is bound to make.

#include "transfer/io_buf.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int BYTES = 256 << 20;
constexpr int BUFFER = 0x140000;
constexpr int REQUEST = 12274;
constexpr double PAUSE_SECONDS = 0.010; // behind each refill's start

struct Times {
    double fWall;
    double fCpu;
};

double CpuSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

template <class TRead>
Times Measure(TRead&& read) {
    const auto begin = std::chrono::steady_clock::now();
    const double fCpu = CpuSeconds();
    if (read() != BYTES) {
        std::fputs("the file did not come whole\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    return {wall.count(), CpuSeconds() - fCpu};
}

long ReadPlainly(const std::string& strPath) {
    std::vector<char> buffer(REQUEST);
    const int nFile = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    long nTotal = 0;
    for (ssize_t nRead = 0; (nRead = read(nFile, buffer.data(), buffer.size())) > 0;) {
        nTotal += nRead;
    }
    close(nFile);
    return nTotal;
}

long ReadAhead(const std::string& strPath) {
    std::vector<BYTE> buffer(REQUEST);
    long nTotal = 0;
    if (g_IoBuf.InitIoBuf(BUFFER, strPath.c_str())) {
        for (int nRead = 0; (nRead = g_IoBuf.ReadIoBuf(buffer.data(), REQUEST)) > 0;) {
            nTotal += nRead;
        }
    }
    g_IoBuf.DeinitIoBuf();
    return nTotal;
}

} // namespace

int main() {
    std::string strPath = "/tmp/dak-bench-XXXXXX";
    const int nFile = mkstemp(strPath.data());
    const std::vector<char> block(1 << 20, 'x');
    for (int i = 0; i < BYTES >> 20; ++i) {
        if (write(nFile, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            std::perror("write");
            return EXIT_FAILURE;
        }
    }
    close(nFile);
    ReadPlainly(strPath);
    const Times plain = Measure([&] { return ReadPlainly(strPath); });
    const Times ahead = Measure([&] { return ReadAhead(strPath); });
    unlink(strPath.c_str());
    // The first two buffers are filled without a pause, the last byte ends the reading.
    const double fPauses = PAUSE_SECONDS * (BYTES / BUFFER);
    std::printf("read-ahead of 256 MB against plain reads of the same requests:\n"
                "  CPU   %.3f s over %.3f s = %.2f (no limit)\n"
                "  wall  %.3f s, of which %.3f s are demanded pauses, over %.3f s\n",
                ahead.fCpu, plain.fCpu, ahead.fCpu / plain.fCpu, ahead.fWall, fPauses, plain.fWall);
    return EXIT_SUCCESS;
}
