// What the tests of the Linux implementation share.
#pragma once

#include "platform/thread.h"
#include "tests/platform/device_attachment.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace device_test {

// How long anything may take that is to happen at once.
inline constexpr DWORD SOON_MS = 10000;

// A device folder of the test's own.
struct CDeviceFolder {
    CTempFolder folder;
    CEnvironment environment{"DAK_DEVICE_DIR", folder.Path().c_str()};
};

// Opens a host file or device node.
HANDLE Open(const std::string& strPath, DWORD dwAccess = GENERIC_READ,
            DWORD dwDisposition = OPEN_EXISTING);

// The path of the first device that is attached.
bool FirstDevice(std::string& strPath);

// Makes and closes the lock of these tests: 'n' when it was new, 'e' when it existed, 'x' when
// there was none to be had.
char ProbeLock();

// A process that runs a piece of the test and then waits to be killed. The piece says with bytes
// how it went.
class CProcess {
  public:
    explicit CProcess(const std::function<char()>& body);
    ~CProcess() { Kill(); }
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    char Answer() const { return m_chAnswer; }
    void Kill();

  private:
    pid_t m_nPid = 0;
    char m_chAnswer = 0;
};

// A piece of the test on a thread of the platform.
class CThread {
  public:
    explicit CThread(std::function<void()> body)
        : m_body(std::move(body)),
          m_hThread(platform::CreateThread(nullptr, 0, Run, this, 0, nullptr)) {}
    ~CThread() {
        platform::TerminateThread(m_hThread, 0);
        platform::CloseHandle(m_hThread);
    }
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    bool EndsWithin(DWORD dwMs) const {
        return platform::WaitForSingleObject(m_hThread, dwMs) == WAIT_OBJECT_0;
    }
    void Stop() const { EXPECT_TRUE(platform::TerminateThread(m_hThread, 0)); }

  private:
    static DWORD Run(void* lpThread) {
        static_cast<CThread*>(lpThread)->m_body();
        return 0;
    }

    std::function<void()> m_body;
    HANDLE m_hThread;
};

} // namespace device_test
