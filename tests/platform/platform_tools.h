// What the tests of the seam share, whatever implements it.
#pragma once

#include "platform/device.h"
#include "platform/file.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace platform_test {

using Bytes = std::vector<std::uint8_t>;

// Long enough for a thread to be inside the call that it makes first.
inline constexpr DWORD SETTLE_MS = 40;
// A bound for what has to happen at once, generous enough for a busy machine.
inline constexpr DWORD AT_ONCE_MS = 10000;

// A thread that runs a piece of the test. Its end is awaited before the piece goes away.
class CTask {
  public:
    explicit CTask(std::function<void()> body, DWORD dwFlags = 0)
        : m_body(std::move(body)),
          m_hThread(platform::CreateThread(nullptr, 0, Run, this, dwFlags, nullptr)) {
        EXPECT_NE(m_hThread, nullptr);
    }
    ~CTask() {
        platform::TerminateThread(m_hThread, 0);
        platform::CloseHandle(m_hThread);
    }
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    HANDLE Handle() const { return m_hThread; }
    bool EndsWithin(DWORD dwMs) const {
        return platform::WaitForSingleObject(m_hThread, dwMs) == WAIT_OBJECT_0;
    }
    void Stop() const { EXPECT_TRUE(platform::TerminateThread(m_hThread, 0)); }
    // Whether it is found blocked, and ends when it is stopped. A thread that runs has begun then.
    bool IsStoppedWhileBlocked(bool bSuspended = false) {
        while (!bSuspended && std::atomic_ref<DWORD>(m_dwBegun).load() == 0) {
            platform::WaitOnAddress(&m_dwBegun, 0, AT_ONCE_MS);
        }
        platform::Sleep(SETTLE_MS);
        return !EndsWithin(0) && platform::TerminateThread(m_hThread, 0) != FALSE && EndsWithin(0);
    }

  private:
    static DWORD WINAPI Run(void* lpTask) {
        auto* pTask = static_cast<CTask*>(lpTask);
        std::atomic_ref<DWORD>(pTask->m_dwBegun).store(1);
        platform::WakeByAddressAll(&pTask->m_dwBegun);
        pTask->m_body();
        return 1;
    }

    std::function<void()> m_body;
    DWORD m_dwBegun = 0;
    HANDLE m_hThread; // last: the thread uses the others
};

// Opens a host file or a device node.
inline HANDLE Open(const std::string& strPath, DWORD dwAccess = GENERIC_READ,
                   DWORD dwDisposition = OPEN_EXISTING) {
    return platform::CreateFileA(strPath.c_str(), dwAccess, FILE_SHARE_READ, nullptr, dwDisposition,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
}

inline HANDLE OpenDevice(const std::string& strPath) {
    return Open(strPath, GENERIC_READ | GENERIC_WRITE);
}

inline constexpr GUID DEVICE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};

inline HDEVINFO PresentDevices() {
    return platform::SetupDiGetClassDevsA(&DEVICE_CLASS, nullptr, nullptr,
                                          DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
}

inline bool GetInterface(HDEVINFO hSet, DWORD dwIndex, platform::SP_DEVICE_INTERFACE_DATA& data) {
    data = {};
    data.cbSize = sizeof(data);
    return platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &DEVICE_CLASS, dwIndex, &data) !=
           FALSE;
}

// The path of the first device that is present, or nothing.
inline std::optional<std::string> DevicePath() {
    HDEVINFO hSet = PresentDevices();
    platform::SP_DEVICE_INTERFACE_DATA data;
    std::optional<std::string> strPath;
    if (GetInterface(hSet, 0, data)) {
        const auto detail = [&](auto* lpDetail, DWORD dwBytes, DWORD* lpdwRequired) {
            return platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwBytes,
                                                              lpdwRequired, nullptr) != FALSE;
        };
        using Detail = platform::SP_DEVICE_INTERFACE_DETAIL_DATA_A;
        DWORD dwSize = 0;
        EXPECT_FALSE(detail(static_cast<Detail*>(nullptr), 0, &dwSize));
        EXPECT_GT(dwSize, platform::DETAIL_PATH_OFFSET + 1);
        std::vector<std::uint64_t> memory(dwSize / 8 + 1);
        auto* lpDetail = reinterpret_cast<Detail*>(memory.data());
        lpDetail->cbSize = platform::DETAIL_RECORD_SIZE;
        EXPECT_TRUE(detail(lpDetail, dwSize, nullptr));
        strPath = reinterpret_cast<char*>(memory.data()) + platform::DETAIL_PATH_OFFSET;
        EXPECT_EQ(strPath->size(), dwSize - platform::DETAIL_PATH_OFFSET - 1);
    }
    platform::SetupDiDestroyDeviceInfoList(hSet);
    return strPath;
}

} // namespace platform_test
