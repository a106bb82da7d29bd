// Peak memory of a host that copies a 2 GB file in each direction, above the same process while it
// is idle. Real files, a real agent, a real pipe; the library's sleeps are taken out at link time,
// or a copy from the device would last more than an hour.

#include "bench/process.h"
#include "link/dak_vorn.h"
#include "platform/message_window.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>

// What the linker puts in the place of platform::Sleep.
extern "C" void __wrap__ZN8platform5SleepEj(unsigned) {
    sched_yield();
}

namespace {

constexpr std::uintmax_t BYTES = 2'000'000'000;
constexpr double LIMIT_MB = 24.0;

// A line of /proc/self/status, in MB.
double StatusMb(const char* lpszKey) {
    std::ifstream status("/proc/self/status");
    for (std::string strLine; std::getline(status, strLine);) {
        if (strLine.starts_with(lpszKey)) {
            return std::strtod(strLine.c_str() + strLine.find(':') + 1, nullptr) / 1024;
        }
    }
    return 0;
}

void ForgetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

std::u16string Wide(const std::string& strText) {
    return {strText.begin(), strText.end()};
}

bool Copy(UINT nDirection, const std::string& strSource, const std::string& strDest,
          const std::string& strEntry) {
    const HWND hWnd = platform::CreateMessageWindow();
    bool bDone = false;
    {
        CDAKVorn dak;
        CStringArray files;
        files.Add(strEntry.c_str());
        platform::WINDOWMESSAGE message{};
        bDone = dak.DAKTransmitFiles(nDirection, Wide(strSource).c_str(), Wide(strDest).c_str(),
                                     &files, hWnd) == 0 &&
                platform::WaitWindowMessage(hWnd, INFINITE, &message) != FALSE &&
                dak.GetLastError() == 0;
    }
    platform::DestroyMessageWindow(hWnd);
    return bDone;
}

bool Report(const char* lpszWhat, double fIdle, bool bDone) {
    const double fPeak = StatusMb("VmHWM");
    std::printf("  %s  %.1f MB above %.1f MB idle (limit %.0f)%s\n", lpszWhat, fPeak - fIdle, fIdle,
                LIMIT_MB, bDone ? "" : "   FAILED");
    return bDone;
}

} // namespace

int main() {
    const bench::CDeviceForBench device;
    const std::string strFile = device.Folder() + "/file";
    std::ofstream(strFile).close();
    std::filesystem::resize_file(strFile, BYTES);
    const std::string strBack = device.Folder() + "/back";
    std::filesystem::create_directory(strBack);

    std::puts("peak memory of the host for a file of 2 GB:");
    ForgetPeak();
    const double fIdle = StatusMb("VmRSS");
    bool bDone = Report("push", fIdle, Copy(DAK_TO_DEVICE, device.Folder(), "\\", strFile));
    ForgetPeak();
    bDone = Report("pull", fIdle, Copy(DAK_FROM_DEVICE, "\\", strBack, "file")) && bDone;
    bDone = std::filesystem::exists(strBack + "/file") &&
            std::filesystem::file_size(strBack + "/file") == BYTES && bDone;
    return bDone ? EXIT_SUCCESS : EXIT_FAILURE;
}
