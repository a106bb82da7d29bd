// What only the Linux implementation has: several processes, its file systems, /proc, and peers at
// the other end of the device's socket that keep to no protocol.
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/platform/posix_test_tools.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

namespace {

using namespace device_test;
using namespace platform_test;
using platform::CloseHandle;
using platform::GetLastError;

// The lock between processes --------------------------------------------------------------------

TEST(PosixLock, IsSeenByOtherProcessesAndEndsWithThem) {
    const CDeviceFolder devices;
    EXPECT_EQ(ProbeLock(), 'n');
    CProcess other([] {
        HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
        const bool bNew = hLock != nullptr && GetLastError() == 0;
        return bNew && platform::WaitForSingleObject(hLock, 0) == WAIT_OBJECT_0 ? 'n' : 'x';
    });
    ASSERT_EQ(other.Answer(), 'n');
    EXPECT_EQ(ProbeLock(), 'e');

    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 30), WAIT_TIMEOUT) << "the other one holds it";
    EXPECT_FALSE(platform::ReleaseMutex(hLock)) << "and we do not";
    {
        CTask waiter([&] { platform::WaitForSingleObject(hLock, INFINITE); });
        EXPECT_FALSE(waiter.EndsWithin(30));
        waiter.Stop();
    }
    DWORD dwResult = WAIT_FAILED;
    CTask waiter([&] { dwResult = platform::WaitForSingleObject(hLock, INFINITE); });
    EXPECT_FALSE(waiter.EndsWithin(30));
    other.Kill();
    EXPECT_TRUE(waiter.EndsWithin(AT_ONCE_MS));
    EXPECT_EQ(dwResult, WAIT_OBJECT_0);
    EXPECT_TRUE(platform::ReleaseMutex(hLock));
    EXPECT_TRUE(CloseHandle(hLock));
    EXPECT_EQ(ProbeLock(), 'n');
}

TEST(PosixLock, IsHeldByOneProcessAtATime) {
    const CDeviceFolder devices;
    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
    const auto tryToHold = [] {
        HANDLE hTheirs = platform::CreateMutexA(nullptr, FALSE, "TheLock");
        return platform::WaitForSingleObject(hTheirs, 20) == WAIT_OBJECT_0 ? 'y' : 'n';
    };
    EXPECT_EQ(CProcess(tryToHold).Answer(), 'n');
    EXPECT_TRUE(platform::ReleaseMutex(hLock));
    EXPECT_EQ(CProcess(tryToHold).Answer(), 'y');
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 0), WAIT_OBJECT_0) << "killed with its hold";
    EXPECT_TRUE(CloseHandle(hLock));
}

TEST(PosixLock, OfProcessesThatMakeItAtOnceOneWins) {
    const CDeviceFolder devices;
    for (int nRound = 0; nRound < 20; ++nRound) {
        int gate[2];
        ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
        const auto makeBehindGate = [&gate] {
            char ch = 0;
            ::close(gate[1]);
            static_cast<void>(!::read(gate[0], &ch, 1));
            HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
            return hLock == nullptr ? 'x' : GetLastError() == 0 ? 'n' : 'e';
        };
        std::vector<std::unique_ptr<CProcess>> processes;
        for (int i = 0; i < 4; ++i) {
            processes.push_back(std::make_unique<CProcess>(makeBehindGate));
        }
        ::close(gate[0]);
        ::close(gate[1]);
        std::string strAnswers;
        for (const auto& pProcess : processes) {
            strAnswers += pProcess->Answer();
        }
        EXPECT_EQ(std::ranges::count(strAnswers, 'n'), 1) << strAnswers;
        EXPECT_EQ(std::ranges::count(strAnswers, 'e'), 3) << strAnswers;
    }
}

TEST(PosixLock, AForkedChildDoesNotKeepIt) {
    const CDeviceFolder devices;
    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, "TheLock");
    ASSERT_EQ(GetLastError(), 0U);
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
    CProcess child([hLock] {
        // The parent's handle means nothing here, and a new one finds the parent's lock.
        const bool bDead =
            platform::WaitForSingleObject(hLock, 0) == WAIT_FAILED && CloseHandle(hLock) != FALSE;
        return bDead ? ProbeLock() : 'x';
    });
    EXPECT_EQ(child.Answer(), 'e');
    EXPECT_TRUE(platform::ReleaseMutex(hLock)) << "the child's doings are its own";
    EXPECT_TRUE(CloseHandle(hLock));
    EXPECT_EQ(ProbeLock(), 'n') << "although the child lives";
}

TEST(PosixLock, AnyNameIsAPlainFile) {
    const CDeviceFolder devices;
    for (const char* lpszName : {"..", "../escape", "C:\\folder\\file", "\xC3\xBC", "%2E", ""}) {
        HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, lpszName);
        EXPECT_NE(hLock, nullptr) << lpszName;
        EXPECT_EQ(GetLastError(), 0U) << lpszName << " is one of its own";
        // Left open, so that the next name would meet it.
    }
    for (const auto& entry : std::filesystem::directory_iterator(devices.folder.Path())) {
        EXPECT_TRUE(entry.is_regular_file());
    }
    EXPECT_EQ(platform::CreateMutexA(nullptr, FALSE, std::string(300, 'a').c_str()), nullptr);
}

// The device folder -----------------------------------------------------------------------------

std::string FirstDeviceName() {
    const std::string strPath = DevicePath().value_or("/");
    return strPath.substr(strPath.rfind('/') + 1);
}

TEST(PosixDeviceFolder, ListsWhatIsAttachedInByteOrder) {
    const CDeviceFolder devices;
    EXPECT_EQ(FirstDeviceName(), "");
    const CAttachment last(devices.folder.Path(), "b");
    const std::string strClass = CAttachment::ClassFolder(devices.folder.Path());
    EXPECT_EQ(FirstDeviceName(), "b");
    {
        const CAttachment first(devices.folder.Path(), "A");
        EXPECT_EQ(FirstDeviceName(), "A");
    }
    EXPECT_EQ(FirstDeviceName(), "b");
    {
        // What a killed device leaves behind: a socket, and a lock file that nobody locks.
        const CAttachment left(devices.folder.Path(), "a-left");
        std::filesystem::create_hard_link(left.SocketPath(), strClass + "/a");
        std::ofstream(strClass + "/a.lock") << "";
    }
    EXPECT_EQ(FirstDeviceName(), "b");
    // A lock without a socket, and one that only shows interest.
    const int nShared = ::open((strClass + "/a.lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    EXPECT_EQ(::fcntl(nShared, F_OFD_SETLK, &lock), 0);
    EXPECT_EQ(FirstDeviceName(), "b");
    ::unlink((strClass + "/a").c_str());
    std::ofstream(strClass + "/a") << "no socket";
    lock.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(nShared, F_OFD_SETLK, &lock), 0);
    EXPECT_EQ(FirstDeviceName(), "b");
    ::close(nShared);
}

TEST(PosixDeviceFolder, TheQuestionTakesNothingFromTheDevice) {
    const CDeviceFolder devices;
    // A device that locks as a process does, which a mere close of the file in that process undoes.
    const std::string strClass = CAttachment::ClassFolder(devices.folder.Path());
    const CAttachment attachment(devices.folder.Path(), "other");
    CProcess device([&] {
        const int nLock = ::open((strClass + "/device.lock").c_str(), O_RDWR | O_CREAT, 0600);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        std::filesystem::create_hard_link(attachment.SocketPath(), strClass + "/device");
        return ::fcntl(nLock, F_SETLK, &lock) == 0 ? 'y' : 'x';
    });
    ASSERT_EQ(device.Answer(), 'y');
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(FirstDeviceName(), "device");
    }
    device.Kill();
    EXPECT_EQ(FirstDeviceName(), "other") << "unplugged at once";
}

TEST(PosixDeviceFolder, ADefaultFolderMustBeOurs) {
    const CTempFolder runtime;
    const CEnvironment named("DAK_DEVICE_DIR", nullptr);
    const CEnvironment environment("XDG_RUNTIME_DIR", runtime.Path().c_str());
    EXPECT_EQ(ProbeLock(), 'n') << "made where it was missing";
    struct stat status {};
    ASSERT_EQ(::stat((runtime / "dak").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    {
        const CAttachment attachment(runtime / "dak");
        EXPECT_TRUE(DevicePath());

        std::filesystem::rename(runtime / "dak", runtime / "elsewhere");
        std::filesystem::create_directory_symlink("elsewhere", runtime / "dak");
        EXPECT_EQ(ProbeLock(), 'x') << "a symbolic link";
        EXPECT_FALSE(DevicePath());
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << "there is not even a set";
        std::filesystem::remove(runtime / "dak");
        std::filesystem::rename(runtime / "elsewhere", runtime / "dak");
        EXPECT_TRUE(DevicePath());

        if (::geteuid() == 0) {
            ASSERT_EQ(::chown((runtime / "dak").c_str(), 12345, 12345), 0);
            EXPECT_EQ(ProbeLock(), 'x') << "another user's";
            EXPECT_FALSE(DevicePath());
        }
    }
}

// Files -----------------------------------------------------------------------------------------

TEST(PosixFiles, WhatIsNoRegularFileIsRefusedWithoutAWait) {
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("fifo", (folder / "link").c_str()), 0);
    const CAttachment attachment(folder / "devices");
    for (const std::string& strPath : {folder / "fifo", folder / "link", std::string("/dev/zero"),
                                       folder.Path(), attachment.SocketPath()}) {
        for (const DWORD dwAccess : {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE}) {
            for (const DWORD dwDisposition : {OPEN_EXISTING, CREATE_ALWAYS}) {
                EXPECT_EQ(Open(strPath, dwAccess, dwDisposition), INVALID_HANDLE_VALUE) << strPath;
            }
        }
    }
    EXPECT_EQ(Open(std::string(5000, 'a')), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(folder / std::string(256, 'a')), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(platform::DeleteFileA(std::string(5000, 'a').c_str()));
    EXPECT_EQ(Open("\\\\?\\" + (folder / "fifo")), INVALID_HANDLE_VALUE) << "nor is it a device";
}

TEST(PosixFiles, TheCreationTimeIsKeptBesideTheContents) {
    const CTempFolder folder;
    std::ofstream(folder / "file") << "abc";
    if (::setxattr((folder / "file").c_str(), "user.dak.probe", "x", 1, 0) != 0) {
        GTEST_SKIP() << "this file system keeps no such attributes";
    }
    constexpr char ATTRIBUTE[] = "user.dak.creation_time";
    const auto created = [&] {
        HANDLE hFile = Open(folder / "file");
        FILETIME time{};
        EXPECT_TRUE(platform::GetFileTime(hFile, &time, nullptr, nullptr));
        CloseHandle(hFile);
        return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    };
    const std::uint64_t qwBirth = created();
    HANDLE hFile = Open(folder / "file", GENERIC_WRITE);
    const FILETIME time{0x89ABCDEF, 0x01234567};
    EXPECT_TRUE(platform::SetFileTime(hFile, &time, nullptr, nullptr));
    std::uint8_t kept[16];
    ASSERT_EQ(::getxattr((folder / "file").c_str(), ATTRIBUTE, kept, sizeof(kept)), 8);
    EXPECT_EQ(Bytes(kept, kept + 8), (Bytes{0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01}));
    EXPECT_EQ(created(), 0x0123456789ABCDEFU);
    CloseHandle(hFile);
    // What is no time of ours is not taken for one.
    for (const std::string strOther : {"1234567", "123456789", ""}) {
        ASSERT_EQ(
            ::setxattr((folder / "file").c_str(), ATTRIBUTE, strOther.data(), strOther.size(), 0),
            0);
        EXPECT_EQ(created(), qwBirth);
    }
}

TEST(PosixFiles, NoRoomForAWriteIsAFullDisk) {
    // A file that may not grow stands for a disk that is full.
    const CTempFolder folder;
    CProcess writer([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        HANDLE hFile = Open(folder / "file", GENERIC_WRITE, CREATE_NEW);
        const Bytes bytes(10000);
        DWORD dwCount = 77;
        const bool bRefused = platform::WriteFile(hFile, bytes.data(), 10000, &dwCount) == FALSE &&
                              GetLastError() == ERROR_DISK_FULL && dwCount == 77;
        return bRefused ? 'y' : 'n';
    });
    EXPECT_EQ(writer.Answer(), 'y');
}

TEST(PosixFiles, ATemporaryNameHasWholeCharactersOfItsPrefix) {
    const CTempFolder folder;
    char szPath[MAX_PATH];
    const struct {
        const char* lpszPrefix;
        std::string strBegin;
    } rows[] = {
        {"\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC",
         "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC-"},
        {"../../up", "..-"},
        {"sub\\name", "sub-"},
    };
    for (const auto& row : rows) {
        ASSERT_NE(platform::GetTempFileNameA(folder.Path().c_str(), row.lpszPrefix, 0, szPath), 0U);
        EXPECT_TRUE(std::string(szPath).starts_with(folder / row.strBegin)) << szPath;
        EXPECT_EQ(std::filesystem::path(szPath).parent_path(), folder.Path());
    }
}

TEST(PosixFiles, AStopEndsALongTransfer) {
    const CTempFolder folder;
    // Larger than anything that is read at once, and no memory behind it.
    constexpr DWORD SIZE = 256U << 20;
    std::ofstream(folder / "file") << "";
    std::filesystem::resize_file(folder / "file", SIZE);
    HANDLE hFile = Open(folder / "file");
    const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[SIZE]);
    // A stop on a busy machine may come before the first byte or behind the last.
    bool bInItsMidst = false;
    for (int i = 0; i < 50 && !bInItsMidst; ++i) {
        DWORD dwCount = 77;
        BOOL bDone = FALSE;
        platform::SetFilePointer(hFile, 0, nullptr, FILE_BEGIN);
        CTask reader([&] { bDone = platform::ReadFile(hFile, buffer.get(), SIZE, &dwCount); });
        platform::Sleep(5);
        reader.Stop();
        EXPECT_EQ(dwCount, bDone != FALSE ? SIZE : 77U);
        const DWORD dwReached = platform::SetFilePointer(hFile, 0, nullptr, FILE_CURRENT);
        bInItsMidst = dwReached > 0 && dwReached < SIZE;
    }
    EXPECT_TRUE(bInItsMidst);
    CloseHandle(hFile);
}

// Handles, text, messages -----------------------------------------------------------------------

TEST(PosixHandles, ANumberIsNotGivenTwice) {
    const CTempFolder folder;
    std::ofstream(folder / "file") << "abc";
    std::vector<HANDLE> seen;
    for (int i = 0; i < 1000; ++i) {
        seen.push_back(Open(folder / "file"));
        EXPECT_TRUE(CloseHandle(seen.back()));
    }
    std::ranges::sort(seen);
    EXPECT_EQ(std::ranges::adjacent_find(seen), seen.end());
}

TEST(PosixHandles, ASuspendedThreadThatNobodyCanResumeEnds) {
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                             std::filesystem::directory_iterator());
    };
    const auto nBefore = threads();
    for (int i = 0; i < 10; ++i) {
        HANDLE hThread = platform::CreateThread(
            nullptr, 0, [](void*) -> DWORD { ::abort(); }, nullptr, CREATE_SUSPENDED, nullptr);
        EXPECT_TRUE(CloseHandle(hThread));
    }
    for (int i = 0; i < 1000 && threads() > nBefore; ++i) {
        platform::Sleep(10);
    }
    EXPECT_EQ(threads(), nBefore);
}

TEST(PosixText, OneReplacementForEachBrokenSequence) {
    const struct {
        const char* lpszNarrow;
        std::u16string strWide;
    } rows[] = {
        {"\xF0\x9F\x98z", u"\xFFFDz"},           {"\xE2\x82\xE2\x82\xAC", u"\xFFFD\x20AC"},
        {"\xED\xA0\x80", u"\xFFFD\xFFFD\xFFFD"}, {"\xF4\x90\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD"},
        {"\xC0\xAF", u"\xFFFD\xFFFD"},
    };
    for (const auto& row : rows) {
        WCHAR wide[16];
        EXPECT_GT(platform::MultiByteToWideChar(CP_ACP, 0, row.lpszNarrow, -1, wide, 16), 0);
        EXPECT_EQ(std::u16string(wide), row.strWide);
    }
    EXPECT_EQ(platform::WideCharToMultiByte(CP_ACP, 0, u"\x20AC", -1, nullptr, 0, nullptr, nullptr),
              4)
        << "no room at all only asks for the size";
}

TEST(PosixMessages, TheDescriptorIsReadableWhileAMessageIsThere) {
    HWND hWnd = platform::CreateMessageWindow();
    const int nDescriptor = platform::GetMessageWindowDescriptor(hWnd);
    const auto readable = [&] {
        pollfd polled{nDescriptor, POLLIN, 0};
        return ::poll(&polled, 1, 0) == 1;
    };
    platform::WINDOWMESSAGE message{};
    EXPECT_FALSE(readable());
    EXPECT_TRUE(platform::PostMessageA(hWnd, 3028, 0, 0));
    EXPECT_TRUE(platform::PostMessageA(hWnd, 3028, 0, 0));
    EXPECT_TRUE(readable());
    EXPECT_TRUE(platform::WaitWindowMessage(hWnd, 0, &message));
    EXPECT_TRUE(readable());
    EXPECT_TRUE(platform::WaitWindowMessage(hWnd, 0, &message));
    EXPECT_FALSE(readable());
    int nPosted = 0;
    while (nPosted < 100000 && platform::PostMessageA(hWnd, 1, 0, 0) != FALSE) {
        ++nPosted;
    }
    EXPECT_EQ(nPosted, 10000) << "the queue is bounded";
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(hWnd)));
    EXPECT_TRUE(platform::DestroyMessageWindow(hWnd));
}

TEST(PosixRegistry, TheEnvironmentsSpeedIsBounded) {
    HKEY hKey = nullptr;
    ASSERT_EQ(platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                                      "hardware\\description\\SYSTEM\\CentralProcessor\\0", 0,
                                      KEY_READ, &hKey),
              0);
    const auto speed = [&](const char* lpszNamed) -> std::optional<DWORD> {
        const CEnvironment environment("DAK_CPU_MHZ", lpszNamed);
        DWORD dwMHz = 0;
        DWORD dwSize = sizeof(dwMHz);
        const LONG nResult = platform::RegQueryValueExA(hKey, "~MHZ", nullptr, nullptr,
                                                        reinterpret_cast<BYTE*>(&dwMHz), &dwSize);
        return nResult == 0 ? std::optional<DWORD>(dwMHz) : std::nullopt;
    };
    EXPECT_EQ(speed("199"), 199U);
    EXPECT_EQ(speed("0"), 0U);
    EXPECT_EQ(speed("4294967296"), 0xFFFFFFFFU);
    EXPECT_EQ(speed("99999999999999999999999"), 0xFFFFFFFFU);
    const auto dwOfMachine = speed(nullptr);
    for (const char* lpszNoNumber : {"", "fast", "-5", "200 MHz", " 200"}) {
        EXPECT_EQ(speed(lpszNoNumber), dwOfMachine) << lpszNoNumber;
    }
    EXPECT_EQ(platform::RegCloseKey(hKey), 0);
}

// Processes -------------------------------------------------------------------------------------

std::optional<DWORD> FindProcess(const std::string& strName) {
    HANDLE hSnapshot = platform::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    std::optional<DWORD> dwFound;
    platform::PROCESSENTRY32 entry{};
    for (BOOL bMore = platform::Process32First(hSnapshot, &entry); bMore != FALSE;
         bMore = platform::Process32Next(hSnapshot, &entry)) {
        if (strName == entry.szExeFile) {
            dwFound = entry.th32ProcessID;
        }
    }
    CloseHandle(hSnapshot);
    return dwFound;
}

// Starts a shell under a file of that name, which does what the script says, and waits until it has
// stopped itself.
pid_t StartStoppedShell(const std::string& strFile, std::string strCommand, std::string strScript) {
    std::filesystem::copy("/bin/sh", strFile, std::filesystem::copy_options::skip_existing);
    strScript += "kill -STOP $$";
    std::string strOption = "-c";
    char* arguments[] = {strCommand.data(), strOption.data(), strScript.data(), nullptr};
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        ::execv(strFile.c_str(), arguments);
        ::_exit(127);
    }
    int nStatus = 0;
    EXPECT_EQ(::waitpid(nPid, &nStatus, WUNTRACED), nPid);
    EXPECT_TRUE(WIFSTOPPED(nStatus));
    return nPid;
}

TEST(PosixProcesses, AreFoundByTheirFileAndEnded) {
    const CTempFolder folder;
    EXPECT_FALSE(FindProcess("WCESCOMM.exe"));
    const pid_t nPid = StartStoppedShell(folder / "WCESCOMM.exe", "shell", "");
    ASSERT_EQ(FindProcess("WCESCOMM.exe"), static_cast<DWORD>(nPid));
    std::filesystem::remove(folder / "WCESCOMM.exe");
    EXPECT_TRUE(FindProcess("WCESCOMM.exe")) << "its file may be gone";
    HANDLE hProcess = platform::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(nPid));
    ASSERT_NE(hProcess, nullptr);
    EXPECT_TRUE(platform::TerminateProcess(hProcess, 0));
    siginfo_t ended{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(nPid), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ended.si_status, SIGKILL);
    EXPECT_FALSE(FindProcess("WCESCOMM.exe")) << "ended, though not yet forgotten";
    ::waitpid(nPid, nullptr, 0);
    EXPECT_FALSE(platform::TerminateProcess(hProcess, 0)) << "gone";
    EXPECT_TRUE(CloseHandle(hProcess));
    EXPECT_EQ(platform::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(nPid)), nullptr);
}

TEST(PosixProcesses, AProgramUnderALoaderHasItsOwnName) {
    const CTempFolder folder;
    const std::string strLong = "WCESCOMM-with-a-long-name.exe";
    // As the loader does: the kernel is told the program's name, and keeps 15 bytes of it.
    const struct {
        std::string strTold;
        std::string strCommand;
        std::string strSeen;
    } rows[] = {
        {"WCESMgr.exe", "C:\\x\\WCESMgr.exe", "WCESMgr.exe"},
        {strLong, "C:\\x\\" + strLong, strLong},
        {strLong, "something else", strLong.substr(0, 15)},
    };
    for (const auto& row : rows) {
        const pid_t nPid = StartStoppedShell(folder / "wine64-preloader", row.strCommand,
                                             "echo " + row.strTold + " >/proc/$$/comm; ");
        EXPECT_EQ(FindProcess(row.strSeen), static_cast<DWORD>(nPid)) << row.strSeen;
        ::kill(nPid, SIGKILL);
        ::waitpid(nPid, nullptr, 0);
    }
}

TEST(PosixProcesses, SomeAreNeverEnded) {
    for (const DWORD dwId : {DWORD{0}, DWORD{1}, static_cast<DWORD>(::getpid()), ~DWORD{0}}) {
        EXPECT_EQ(platform::OpenProcess(PROCESS_TERMINATE, FALSE, dwId), nullptr) << dwId;
    }
}

} // namespace
