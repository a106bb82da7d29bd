#include "tests/platform/posix_test_tools.h"

#include "platform/device.h"
#include "platform/file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace device_test {

HANDLE Open(const std::string& strPath, DWORD dwAccess, DWORD dwDisposition) {
    return platform::CreateFileA(strPath.c_str(), dwAccess, FILE_SHARE_READ, nullptr, dwDisposition,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool FirstDevice(std::string& strPath) {
    const GUID guid = {
        0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
    HDEVINFO hSet = platform::SetupDiGetClassDevsA(&guid, nullptr, nullptr,
                                                   DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    platform::SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    alignas(8) char detail[4096];
    auto* lpDetail = reinterpret_cast<platform::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(detail);
    lpDetail->cbSize = platform::DETAIL_RECORD_SIZE;
    const bool bFound =
        platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &guid, 0, &data) != FALSE &&
        platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, sizeof(detail), nullptr,
                                                   nullptr) != FALSE;
    strPath = bFound ? detail + platform::DETAIL_PATH_OFFSET : "";
    platform::SetupDiDestroyDeviceInfoList(hSet);
    return bFound;
}

char ProbeLock() {
    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
    const DWORD dwError = platform::GetLastError();
    platform::CloseHandle(hLock);
    return hLock == nullptr ? 'x' : dwError == ERROR_ALREADY_EXISTS ? 'e' : 'n';
}

CProcess::CProcess(const std::function<char()>& body) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    m_nPid = ::fork();
    if (m_nPid == 0) {
        const char ch = body();
        static_cast<void>(!::write(ends[1], &ch, 1));
        for (;;) {
            ::pause();
        }
    }
    ::close(ends[1]);
    if (::read(ends[0], &m_chAnswer, 1) != 1) {
        m_chAnswer = 0;
    }
    ::close(ends[0]);
}

void CProcess::Kill() {
    if (m_nPid > 0) {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
        m_nPid = 0;
    }
}

} // namespace device_test
