// What the end-to-end tests of this system share: folders and trees of files, programs in processes
// of their own, windows, and a world for each test with a place on the host and one on the device.
#pragma once

#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/windows_end_to_end/presented_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace windows_end_to_end {

namespace fs = std::filesystem;

// How long anything may take before a test gives it up: far more than it needs, for machines that
// are slow or busy.
inline constexpr DWORD BOUND_MS = 90'000;

// Asks again and again until the answer is yes; false when it does not come in time.
template <class QUESTION>
bool Eventually(QUESTION question) {
    const ULONGLONG qwBegin = ::GetTickCount64();
    while (!question()) {
        if (::GetTickCount64() - qwBegin > BOUND_MS) {
            return false;
        }
        ::Sleep(2);
    }
    return true;
}

// A path as the library takes those of the host.
inline std::string Narrow(const fs::path& path) {
    char szNarrow[MAX_PATH * 3] = {};
    BOOL bReplaced = FALSE;
    ::WideCharToMultiByte(CP_ACP, 0, path.c_str(), -1, szNarrow, sizeof(szNarrow), nullptr,
                          ::GetACP() == CP_UTF8 ? nullptr : &bReplaced);
    EXPECT_FALSE(bReplaced);
    return szNarrow;
}

// Files.

inline std::uint64_t Ticks(const FILETIME& time) {
    return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}
inline FILETIME Time(std::uint64_t qwTicks) {
    return {static_cast<DWORD>(qwTicks), static_cast<DWORD>(qwTicks >> 32)};
}

// Wine's files, which lie on another system, have no creation time of their own.
inline bool AreCreationTimesKept() {
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr;
}

struct CFileState {
    std::string strBytes;
    std::uint64_t qwCreated = 0; // 0 where the system keeps none
    std::uint64_t qwWritten = 0;
    bool operator==(const CFileState&) const = default;
};
// The files of a folder and of those below, by their paths in it.
using TREE = std::map<std::wstring, CFileState>;

// Contents and times that follow from size and seed. The bytes repeat neither at a package's nor at
// a window's distance.
inline CFileState File(std::size_t nBytes, unsigned nSeed) {
    std::mt19937 random(nSeed);
    CFileState file;
    file.strBytes.resize(nBytes);
    for (char& ch : file.strBytes) {
        ch = static_cast<char>(random() & 0xFF);
    }
    file.qwWritten = 132'000'000'000'000'000 + nSeed * 36'000'000'007ULL;
    file.qwCreated = AreCreationTimesKept() ? file.qwWritten - 70'000'000'003 : 0;
    return file;
}

inline std::string ReadBytes(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline TREE ReadTree(const fs::path& folder) {
    TREE tree;
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (entry.is_regular_file(error) &&
            ::GetFileAttributesExW(entry.path().c_str(), GetFileExInfoStandard, &data) != FALSE) {
            tree[entry.path().lexically_relative(folder).wstring()] = {
                ReadBytes(entry.path()), AreCreationTimesKept() ? Ticks(data.ftCreationTime) : 0,
                Ticks(data.ftLastWriteTime)};
        }
    }
    return tree;
}

inline void WriteTree(const fs::path& folder, const TREE& tree) {
    fs::create_directories(folder);
    for (const auto& [strName, file] : tree) {
        const fs::path path = folder / strName;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << file.strBytes;
        const HANDLE hFile = ::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        const FILETIME ftCreated = Time(file.qwCreated);
        const FILETIME ftWritten = Time(file.qwWritten);
        EXPECT_TRUE(::SetFileTime(hFile, file.qwCreated != 0 ? &ftCreated : nullptr, nullptr,
                                  file.qwWritten != 0 ? &ftWritten : nullptr))
            << path;
        ::CloseHandle(hFile);
    }
}

// Says which files differ, and not with all their bytes.
inline void ExpectSameTree(const TREE& found, const TREE& wanted) {
    for (const auto& [strName, file] : wanted) {
        const auto itFound = found.find(strName);
        const std::string strShown = fs::path(strName).string();
        if (itFound == found.end()) {
            ADD_FAILURE() << strShown << " is missing";
            continue;
        }
        EXPECT_EQ(itFound->second.strBytes.size(), file.strBytes.size()) << strShown;
        EXPECT_TRUE(itFound->second.strBytes == file.strBytes) << strShown << ": its bytes";
        EXPECT_EQ(itFound->second.qwWritten, file.qwWritten) << strShown;
        EXPECT_EQ(itFound->second.qwCreated, file.qwCreated) << strShown;
    }
    for (const auto& [strName, file] : found) {
        EXPECT_TRUE(wanted.contains(strName)) << fs::path(strName).string() << " is too many";
    }
}

class CTempFolder {
  public:
    CTempFolder() {
        std::random_device random;
        do {
            m_path = fs::temp_directory_path() / ("dak-test-" + std::to_string(random()));
        } while (!fs::create_directory(m_path));
    }
    ~CTempFolder() {
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(m_path, error)) {
            ::SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
        }
        fs::remove_all(m_path, error);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    fs::path operator/(const fs::path& below) const { return m_path / below; }

  private:
    fs::path m_path;
};

// Programs.

// Where the tests and what is built for them lie.
inline fs::path ProgramFolder() {
    wchar_t szProgram[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, szProgram, MAX_PATH);
    return fs::path(szProgram).parent_path();
}

// A program that does nothing but end with the number in its argument, or not for a long time.
inline fs::path StandIn() {
    return ProgramFolder() / "stand_in.exe";
}

// A program in a process of its own, ended with the object at the latest.
class CProgram {
  public:
    explicit CProgram(const fs::path& program, const std::vector<std::wstring>& arguments = {}) {
        std::wstring strCommand = L"\"" + program.wstring() + L"\"";
        for (const std::wstring& strArgument : arguments) {
            strCommand += L" \"" + strArgument + L"\"";
        }
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        // Wine, on a busy machine, fails now and then to start a program.
        BOOL bStarted = FALSE;
        for (int nTry = 0; nTry < 5 && bStarted == FALSE; ++nTry) {
            bStarted = ::CreateProcessW(nullptr, strCommand.data(), nullptr, nullptr, FALSE, 0,
                                        nullptr, nullptr, &startup, &m_process);
        }
        EXPECT_TRUE(bStarted) << program << ", error " << ::GetLastError();
    }
    ~CProgram() {
        Kill();
        ::CloseHandle(m_process.hThread);
        ::CloseHandle(m_process.hProcess);
    }
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    bool IsRunning() const { return ::WaitForSingleObject(m_process.hProcess, 0) == WAIT_TIMEOUT; }

    // Of a stand-in: true when it has come to its own work.
    bool HasBegun() const {
        const std::string strName = "DakStandIn" + std::to_string(m_process.dwProcessId);
        HANDLE hEvent = nullptr;
        const bool bBegun = Eventually([&] {
            hEvent = ::OpenEventA(SYNCHRONIZE, FALSE, strName.c_str());
            return hEvent != nullptr || !IsRunning();
        });
        ::CloseHandle(hEvent);
        return bBegun && IsRunning();
    }

    // Waits for the end: the exit code, or all ones when it does not come.
    DWORD End() const {
        DWORD dwExitCode = 0;
        return ::WaitForSingleObject(m_process.hProcess, BOUND_MS) == WAIT_OBJECT_0 &&
                       ::GetExitCodeProcess(m_process.hProcess, &dwExitCode) != FALSE
                   ? dwExitCode
                   : MAXDWORD;
    }
    void Kill() const {
        ::TerminateProcess(m_process.hProcess, 1);
        ::WaitForSingleObject(m_process.hProcess, BOUND_MS);
    }

  private:
    PROCESS_INFORMATION m_process{};
};

// The library in another process, which is this program in another part; the exit code is the
// upper half of the result.
inline std::unique_ptr<CProgram> OtherProcess(std::vector<std::wstring> arguments) {
    return std::make_unique<CProgram>(ProgramFolder() / "windows_end_to_end_tests.exe",
                                      std::move(arguments));
}
int RunOtherProcess(const std::vector<std::wstring>& arguments);

// Windows.

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

    // As the loop of an application; true when the message of a job's end has been dispatched once.
    bool AwaitEnd() {
        m_nEnds = 0;
        const ULONGLONG qwBegin = ::GetTickCount64();
        while (m_nEnds == 0 && ::GetTickCount64() - qwBegin < BOUND_MS) {
            ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
            for (MSG message; ::PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) != FALSE;) {
                ::DispatchMessageA(&message);
            }
        }
        return m_nEnds == 1;
    }

  private:
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
