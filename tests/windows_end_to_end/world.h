// A world for each end-to-end test of this system: a place on the host, a device that can be
// plugged, an object of the library, and a window.
#pragma once

#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/windows_end_to_end/presented_agent.h"
#include "tests/windows_end_to_end/support.h"

#include <memory>
#include <string>
#include <vector>

namespace windows_end_to_end {

// A message-only window of an application, with a procedure of its own, on the calling thread.
class CWindow {
  public:
    CWindow() {
        WNDCLASSA windowClass{};
        windowClass.lpfnWndProc = Procedure;
        windowClass.hInstance = ::GetModuleHandleA(nullptr);
        windowClass.lpszClassName = "DakTestWindow";
        ::RegisterClassA(&windowClass); // once; later calls find it there
        m_hWnd = ::CreateWindowExA(0, windowClass.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                   nullptr, windowClass.hInstance, nullptr);
        ::SetWindowLongPtrA(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
    ~CWindow() { ::DestroyWindow(m_hWnd); }
    CWindow(const CWindow&) = delete;
    CWindow& operator=(const CWindow&) = delete;

    HWND Handle() const { return m_hWnd; }

    // As the loop of an application; true when the message of the first job's end has been
    // dispatched, once.
    bool AwaitEnd() {
        const ULONGLONG qwBegin = ::GetTickCount64();
        while (m_nEnds == 0 && ::GetTickCount64() - qwBegin < BOUND_MS) {
            ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
            Dispatch();
        }
        return m_nEnds == 1;
    }

    // How many have come so far.
    int Ends() {
        Dispatch();
        return m_nEnds;
    }

  private:
    void Dispatch() const {
        for (MSG message; ::PeekMessageA(&message, m_hWnd, 0, 0, PM_REMOVE) != FALSE;) {
            ::DispatchMessageA(&message);
        }
    }

    static LRESULT CALLBACK Procedure(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam) {
        auto* const pWindow = reinterpret_cast<CWindow*>(::GetWindowLongPtrA(hWnd, GWLP_USERDATA));
        if (uMessage != 3028 || pWindow == nullptr) {
            return ::DefWindowProcA(hWnd, uMessage, wParam, lParam);
        }
        EXPECT_TRUE(wParam == 0 && lParam == 0);
        ++pWindow->m_nEnds;
        return 0;
    }

    HWND m_hWnd;
    int m_nEnds = 0;
};

// Folders "host" and "device", the root that the agent serves, an object, and a window.
class CWorldTest : public testing::Test {
  protected:
    CWorldTest() {
        SetCpuMHz(200); // no delays inside the streams
        fs::create_directory(m_folder / "host");
        fs::create_directory(m_folder / "device");
        m_options.strRoot = Narrow(m_folder / "device");
        m_hWnd = platform::CreateMessageWindow();
    }
    ~CWorldTest() override { platform::DestroyMessageWindow(m_hWnd); }

    // A second message of a job would have come by the end of what a test does behind it.
    void TearDown() override {
        platform::WINDOWMESSAGE message{};
        EXPECT_FALSE(platform::WaitWindowMessage(m_hWnd, 0, &message)) << message.message;
    }

    static void SetCpuMHz(DWORD dwMHz) {
        HKEY hKey = nullptr;
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0",
                          0, nullptr, 0, KEY_SET_VALUE, nullptr, &hKey, nullptr);
        EXPECT_EQ(::RegSetValueExA(hKey, "~MHz", 0, REG_DWORD,
                                   reinterpret_cast<const BYTE*>(&dwMHz), sizeof(dwMHz)),
                  ERROR_SUCCESS);
        ::RegCloseKey(hKey);
    }

    CPresentedAgent& Plug() {
        m_pAgent = std::make_unique<CPresentedAgent>(m_options);
        return *m_pAgent;
    }

    fs::path OnHost(const fs::path& below) const { return m_folder / "host" / below; }
    fs::path OnDevice(const fs::path& below) const { return m_folder / "device" / below; }

    // Starts a copy from "tree" of the host to \Docs, or from there to "back".
    DWORD Transmit(UINT nDirection, const std::vector<std::wstring>& names, HWND hWnd) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        const fs::path folder = OnHost(bPush ? "tree" : "back");
        fs::create_directory(folder);
        m_list.RemoveAll();
        for (const std::wstring& strName : names) {
            m_list.Add(Narrow(bPush ? folder / strName : fs::path(strName)).c_str());
        }
        return bPush ? m_dak.DAKTransmitFiles(nDirection, folder.c_str(), L"\\Docs", &m_list, hWnd)
                     : m_dak.DAKTransmitFiles(nDirection, L"\\Docs", folder.c_str(), &m_list, hWnd);
    }

    // True when the job's message has come, once.
    bool AwaitEnd() const {
        platform::WINDOWMESSAGE message{};
        return platform::WaitWindowMessage(m_hWnd, BOUND_MS, &message) != FALSE &&
               message.message == 3028 && message.wParam == 0 && message.lParam == 0 &&
               platform::WaitWindowMessage(m_hWnd, 0, &message) == FALSE;
    }

    CTempFolder m_folder;
    agent::CDeviceOptions m_options;
    std::unique_ptr<CPresentedAgent> m_pAgent;
    CStringArray m_list;
    CDAKVorn m_dak;
    HWND m_hWnd = nullptr;
};

using EDirection = CPresentedAgent::EDirection;

} // namespace windows_end_to_end
