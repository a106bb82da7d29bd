// What the end-to-end tests of this system share: waits, folders and trees of files, and programs
// in processes of their own.
#pragma once

#include "platform/types.h"
#include "tests/platform/start_program.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
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
        EXPECT_TRUE(windows_test::StartProgram(strCommand, m_process))
            << program << ", error " << ::GetLastError();
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

} // namespace windows_end_to_end
