// What the tests of the Linux implementation share.
#pragma once

#include "tests/platform/device_attachment.h"
#include "tests/platform/platform_tools.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace device_test {

// A device folder of the test's own.
struct CDeviceFolder {
    CTempFolder folder;
    CEnvironment environment{"DAK_DEVICE_DIR", folder.Path().c_str()};
};

// Makes and closes the lock of these tests: 'n' when it was new, 'e' when it existed, 'x' when
// there was none to be had.
inline char ProbeLock() {
    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
    const DWORD dwError = platform::GetLastError();
    platform::CloseHandle(hLock);
    return hLock == nullptr ? 'x' : dwError == ERROR_ALREADY_EXISTS ? 'e' : 'n';
}

// A process that runs a piece of the test, says with a byte how it went, and then waits to be
// killed.
class CProcess {
  public:
    explicit CProcess(const std::function<char()>& body) {
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
        m_nAnswer = ends[0];
    }
    ~CProcess() {
        Kill();
        ::close(m_nAnswer);
    }
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    // Waited for; 0 when none comes any more.
    char Answer() const {
        char ch = 0;
        return ::read(m_nAnswer, &ch, 1) == 1 ? ch : '\0';
    }
    void Kill() {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
            m_nPid = 0;
        }
    }

  private:
    pid_t m_nPid = 0;
    int m_nAnswer = -1;
};

} // namespace device_test
