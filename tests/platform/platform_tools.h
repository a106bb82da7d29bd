// What the tests of the seam share, whatever implements it. They stand inside its namespace, so
// that its names come ahead of the system's own.
#pragma once

#include "platform/device.h"
#include "platform/file.h"
#include "platform/thread.h"
#include "tests/support/packages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace platform::tests {

using test::Bytes;
using test::Pattern;

// Gives a thread the time to be inside the call that it makes first. Where the time is simulated it
// always is; on a busy machine it may not be, which can hide a fault but not make one up.
inline constexpr DWORD SETTLE_MS = 20;
// A bound for what has to happen at once, generous enough for a busy machine.
inline constexpr DWORD AT_ONCE_MS = 20000;

// A thread that runs a piece of the test. Its end is awaited before the piece goes away.
class CTask {
  public:
    explicit CTask(std::function<void()> body, DWORD dwFlags = 0)
        : m_body(std::move(body)),
          m_hThread(CreateThread(nullptr, 0, Run, this, dwFlags, nullptr)) {
        EXPECT_NE(m_hThread, nullptr);
    }
    ~CTask() {
        TerminateThread(m_hThread, 0);
        CloseHandle(m_hThread);
    }
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    HANDLE Handle() const { return m_hThread; }
    bool EndsWithin(DWORD dwMs) const {
        return WaitForSingleObject(m_hThread, dwMs) == WAIT_OBJECT_0;
    }
    bool Ends() const { return EndsWithin(AT_ONCE_MS); }
    bool IsStopped() const { return TerminateThread(m_hThread, 0) != FALSE && EndsWithin(0); }
    // Whether it is found blocked, and ends when it is stopped.
    bool IsStoppedWhileBlocked() const {
        while (!m_bBegun) {
            Sleep(1);
        }
        return !EndsWithin(SETTLE_MS) && IsStopped();
    }

  private:
    static DWORD WINAPI Run(void* lpTask) {
        static_cast<CTask*>(lpTask)->m_bBegun = true;
        static_cast<CTask*>(lpTask)->m_body();
        return 1;
    }

    std::function<void()> m_body;
    std::atomic<bool> m_bBegun = false;
    HANDLE m_hThread; // last: the thread uses the others
};

// Opens a host file or a device node.
inline HANDLE Open(const std::string& strPath, DWORD dwAccess = GENERIC_READ,
                   DWORD dwDisposition = OPEN_EXISTING) {
    return CreateFileA(strPath.c_str(), dwAccess, FILE_SHARE_READ, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}
// Whether it can be opened so; it is closed again.
inline bool Opens(const std::string& strPath, DWORD dwAccess = GENERIC_READ,
                  DWORD dwDisposition = OPEN_EXISTING) {
    const HANDLE hFile = Open(strPath, dwAccess, dwDisposition);
    return hFile != INVALID_HANDLE_VALUE && CloseHandle(hFile) != FALSE;
}

// A transfer on a device node as the library makes them: on a thread of its own, stopped at its
// time-out. It reads so many bytes, or writes a package.
class CTransfer {
  public:
    CTransfer(HANDLE hNode, DWORD dwSize) : CTransfer(hNode, Bytes(dwSize), ReadFile) {}
    CTransfer(HANDLE hNode, const Bytes& package) : CTransfer(hNode, package, WriteFile) {}

    // Left alone it ends, and well; what a read has brought is in Data().
    bool Succeeds() { return EndsWithin(AT_ONCE_MS) && m_bDone != FALSE; }
    // Left alone it ends, as a failure.
    bool Fails() { return EndsWithin(AT_ONCE_MS) && m_bDone == FALSE; }
    // Left alone it does not end, and stopped it does.
    bool IsStopped() { return !EndsWithin(SETTLE_MS) && m_bDone == FALSE; }
    // Ends by itself or is stopped at the time-out. Without success there is no count.
    bool EndsWithin(DWORD dwMs) {
        const bool bEnded = m_task.EndsWithin(dwMs);
        EXPECT_TRUE(m_task.IsStopped());
        EXPECT_TRUE(m_bDone != FALSE || m_dwCount == 0);
        return bEnded;
    }
    Bytes Data() const { return Bytes(m_bytes.begin(), m_bytes.begin() + m_dwCount); }

  private:
    template <class TRANSFER>
    CTransfer(HANDLE hNode, Bytes bytes, TRANSFER transfer)
        : m_bytes(std::move(bytes)), m_task([this, hNode, transfer] {
              m_bDone =
                  transfer(hNode, m_bytes.data(), static_cast<DWORD>(m_bytes.size()), &m_dwCount);
          }) {}

    Bytes m_bytes;
    DWORD m_dwCount = 0;
    BOOL m_bDone = FALSE;
    CTask m_task; // last: it uses the others
};

inline constexpr GUID DEVICE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};

// The paths of the devices that are present, in their order.
inline std::vector<std::string> DevicePaths() {
    const HDEVINFO hSet = platform::SetupDiGetClassDevsA(&DEVICE_CLASS, nullptr, nullptr,
                                                         DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    std::vector<std::string> paths;
    while (platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &DEVICE_CLASS,
                                                 static_cast<DWORD>(paths.size()), &data)) {
        alignas(DWORD) char record[4096] = {};
        auto* lpDetail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(record);
        lpDetail->cbSize = DETAIL_RECORD_SIZE;
        DWORD dwSize = 0;
        EXPECT_TRUE(!platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, nullptr, 0, &dwSize,
                                                                nullptr) &&
                    platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwSize,
                                                               nullptr, nullptr));
        paths.emplace_back(record + DETAIL_PATH_OFFSET);
        EXPECT_EQ(paths.back().size(), dwSize - DETAIL_PATH_OFFSET - 1);
    }
    EXPECT_EQ(platform::SetupDiDestroyDeviceInfoList(hSet) != FALSE, hSet != INVALID_HANDLE_VALUE);
    return paths;
}

inline HANDLE OpenDevice() {
    const std::vector<std::string> paths = DevicePaths();
    const HANDLE hNode = Open(paths.empty() ? "" : paths[0], GENERIC_READ | GENERIC_WRITE);
    EXPECT_NE(hNode, INVALID_HANDLE_VALUE);
    return hNode;
}

} // namespace platform::tests
