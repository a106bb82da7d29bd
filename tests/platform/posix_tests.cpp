// What only the Linux implementation has: several processes, its file systems, /proc, and the
// environment.
#include "platform/device_choice.h"
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "tests/platform/posix_tools.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <set>

namespace platform::tests {

namespace fs = std::filesystem;

// Makes the lock of these tests: 'N' when it was new, 'E' when it existed, '-' when there was none
// to be had; a small letter when it could not be held. The handle is closed unless it is asked for.
static char ProbeLock(HANDLE* lphLock = nullptr) {
    const HANDLE hLock = CreateMutexA(nullptr, FALSE, "TheLock");
    const bool bNew = GetLastError() == 0;
    const bool bHeld = WaitForSingleObject(hLock, 0) == WAIT_OBJECT_0;
    if (lphLock != nullptr) {
        *lphLock = hLock;
    } else {
        CloseHandle(hLock);
    }
    return hLock == nullptr ? '-' : bNew ? (bHeld ? 'N' : 'n') : bHeld ? 'E' : 'e';
}

TEST(PosixLock, IsSharedByProcessesAndEndsWithThem) {
    const CDeviceFolder devices;
    const auto probe = [] { return ProbeLock(); };
    HANDLE hLock = nullptr;
    CProcess other([&] { return ProbeLock(&hLock); });
    ASSERT_EQ(other.Answer(), 'N');
    EXPECT_EQ(ProbeLock(&hLock), 'e');
    EXPECT_FALSE(ReleaseMutex(hLock)) << "it is not ours";
    EXPECT_TRUE(CTask([&] { WaitForSingleObject(hLock, INFINITE); }).IsStoppedWhileBlocked());
    DWORD dwResult = WAIT_FAILED;
    const CTask waiter([&] { dwResult = WaitForSingleObject(hLock, INFINITE); });
    EXPECT_FALSE(waiter.EndsWithin(SETTLE_MS));
    other.Kill();
    EXPECT_TRUE(waiter.Ends());
    EXPECT_EQ(dwResult, WAIT_OBJECT_0);
    EXPECT_EQ(CProcess(probe).Answer(), 'e') << "it is ours now";
    EXPECT_TRUE(ReleaseMutex(hLock));
    EXPECT_EQ(CProcess(probe).Answer(), 'E');
    EXPECT_TRUE(CloseHandle(hLock));
    EXPECT_EQ(CProcess(probe).Answer(), 'N');
}

TEST(PosixLock, OfProcessesThatMakeItAtOnceOneWins) {
    const CDeviceFolder devices;
    for (int nRound = 0; nRound < 20; ++nRound) {
        const auto start = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
        const auto probe = [start] {
            while (std::chrono::steady_clock::now() < start) {
            }
            HANDLE hLock = nullptr;
            return static_cast<char>(::tolower(ProbeLock(&hLock)));
        };
        const CProcess processes[] = {CProcess(probe), CProcess(probe), CProcess(probe)};
        std::string strAnswers;
        for (const CProcess& process : processes) {
            strAnswers += process.Answer();
        }
        std::ranges::sort(strAnswers);
        EXPECT_EQ(strAnswers, "een");
    }
}

TEST(PosixLock, AForkedChildDoesNotKeepIt) {
    const CDeviceFolder devices;
    HANDLE hLock = nullptr;
    EXPECT_EQ(ProbeLock(&hLock), 'N');
    const CProcess child([hLock] {
        // The parent's handle means nothing here, and a new one finds the parent's lock.
        const bool bDead = WaitForSingleObject(hLock, 0) == WAIT_FAILED && CloseHandle(hLock);
        return bDead ? ProbeLock() : '-';
    });
    EXPECT_EQ(child.Answer(), 'e');
    EXPECT_TRUE(ReleaseMutex(hLock) && CloseHandle(hLock)) << "the child's doings are its own";
    EXPECT_EQ(ProbeLock(), 'N') << "although the child lives";
}

TEST(PosixLock, AnyNameIsAPlainFile) {
    const CDeviceFolder devices;
    for (const char* lpszName : {"..", "../escape", "C:\\folder\\file", "\xC3\xBC", "%2E", ""}) {
        // Left open, so that the next name would meet it.
        EXPECT_NE(CreateMutexA(nullptr, FALSE, lpszName), nullptr) << lpszName;
        EXPECT_EQ(GetLastError(), 0U) << lpszName << " is one of its own";
    }
    EXPECT_EQ(test::ReadTree(devices.Folder()).size(), 6U);
    EXPECT_EQ(CreateMutexA(nullptr, FALSE, std::string(300, 'a').c_str()), nullptr);
}

// The names of the devices that are present, in their order.
static std::string DeviceNames() {
    std::string strNames;
    for (const std::string& strPath : DevicePaths()) {
        strNames += strPath.substr(strPath.rfind('/') + 1) + " ";
    }
    return strNames;
}

TEST(PosixDeviceFolder, ListsWhatIsAttachedInByteOrder) {
    const CDeviceFolder devices;
    EXPECT_EQ(DeviceNames(), "");
    const CAttachment last(devices.Path(), "b");
    std::optional<CAttachment> first(std::in_place, devices.Path(), "A");
    EXPECT_EQ(DeviceNames(), "A b ");
    // A lock that only shows interest, or none: what a killed device leaves behind.
    EXPECT_TRUE(first->Lock(F_OFD_SETLK, F_RDLCK));
    EXPECT_EQ(DeviceNames(), "b ");
    EXPECT_TRUE(first->Lock(F_OFD_SETLK, F_UNLCK));
    EXPECT_EQ(DeviceNames(), "b ");
    EXPECT_TRUE(first->Lock(F_OFD_SETLK, F_WRLCK));
    EXPECT_EQ(DeviceNames(), "A b ");
    fs::remove(first->strSocket);
    std::ofstream(first->strSocket) << "no socket";
    EXPECT_EQ(DeviceNames(), "b ");
    first.reset();
    {
        const CAttachment other(devices.Path(), "a");
        const CEnvironment named("DAK_DEVICE", "b");
        EXPECT_EQ(DeviceNames(), "b ");
        EXPECT_TRUE(ChooseDevice("a"));
        EXPECT_EQ(DeviceNames(), "a ");
        std::ofstream(other.strSocket + ".lock") << "of another agent";
        EXPECT_EQ(DeviceNames(), "");
        EXPECT_TRUE(ChooseDevice(nullptr));
    }
    // One that locks as a process does, which a mere close of the file in that process undoes: the
    // question takes nothing from it.
    const CAttachment inFile(devices.Path(), "c");
    EXPECT_TRUE(inFile.Lock(F_OFD_SETLK, F_UNLCK));
    CProcess device([&] { return inFile.Lock(F_SETLK, F_WRLCK) ? 'y' : 'n'; });
    EXPECT_EQ(device.Answer(), 'y');
    EXPECT_EQ(DeviceNames(), "b c ");
    EXPECT_EQ(DeviceNames(), "b c ");
    device.Kill();
    EXPECT_EQ(DeviceNames(), "b ");
}

TEST(PosixDeviceFolder, ADefaultFolderMustBeOurs) {
    const test::CTempFolder runtime;
    const CEnvironment named("DAK_DEVICE_DIR", nullptr);
    const CEnvironment environment("XDG_RUNTIME_DIR", runtime.Path().c_str());
    const fs::path folder = runtime / "dak";
    EXPECT_EQ(ProbeLock(), 'N') << "made where it was missing";
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
    const CAttachment attachment(folder);
    EXPECT_EQ(DeviceNames(), "device ");
    fs::rename(folder, runtime / "elsewhere");
    fs::create_directory_symlink("elsewhere", folder);
    EXPECT_EQ(ProbeLock(), '-') << "a symbolic link";
    DWORD dwSize = 0;
    EXPECT_EQ(DeviceNames(), "");
    EXPECT_EQ(ListDevices(nullptr, &dwSize), ERROR_PATH_NOT_FOUND);
    fs::remove(folder);
    fs::rename(runtime / "elsewhere", folder);
    EXPECT_EQ(DeviceNames(), "device ");
    fs::permissions(folder, fs::perms::others_read, fs::perm_options::add);
    EXPECT_EQ(ProbeLock(), '-') << "open to others";
    EXPECT_EQ(ListDevices(nullptr, &dwSize), ERROR_ACCESS_DENIED);
    fs::permissions(folder, fs::perms::owner_all);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(folder.c_str(), 12345, 12345), 0);
        EXPECT_EQ(ProbeLock(), '-') << "another user's";
        EXPECT_EQ(DeviceNames(), "");
    }
}

TEST(PosixFiles, WhatIsNoRegularFileIsRefusedWithoutAWait) {
    const test::CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    fs::create_symlink("fifo", folder / "link");
    const CAttachment attachment(folder.Path("devices"));
    for (const std::string& strPath :
         {folder.Path("fifo"), folder.Path("link"), folder.Path(), attachment.strSocket,
          std::string("/dev/zero"), "\\\\?\\" + folder.Path("fifo"), std::string(5000, 'a'),
          folder.Path(std::string(256, 'a'))}) {
        for (const DWORD dwAccess : {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE}) {
            for (const DWORD dwDisposition : {OPEN_EXISTING, CREATE_ALWAYS}) {
                EXPECT_FALSE(Opens(strPath, dwAccess, dwDisposition)) << strPath;
            }
        }
    }
}

TEST(PosixFiles, PermissionsAreHandedOnAndLinksAreNotFollowed) {
    const test::CTempFolder folder;
    const auto permissions = [&](const char* lpszName) {
        return static_cast<unsigned>(fs::status(folder / lpszName).permissions());
    };
    for (const char* lpszName : {"old", "new", "outside"}) {
        folder.Write(lpszName, lpszName);
        fs::permissions(folder / lpszName, fs::perms{*lpszName == 'n' ? 0644U : 0440U});
    }
    fs::create_symlink("outside", folder / "link");
    EXPECT_FALSE(SetFileAttributesA(folder.Path("link").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(permissions("outside"), 0440U);
    EXPECT_TRUE(SetFileAttributesA(folder.Path("old").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(MoveFileExA(folder.Path("new").c_str(), folder.Path("old").c_str(),
                            MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(permissions("old"), 0640U);
}

TEST(PosixFiles, TheCreationTimeIsKeptBesideTheContents) {
    constexpr char ATTRIBUTE[] = "user.dak.creation_time";
    const test::CTempFolder folder;
    folder.Write("file", "abc");
    const std::string strPath = folder.Path("file");
    const FILETIME ftGiven{0x89ABCDEF, 0x01234567};
    const auto created = [&] {
        FILETIME ftCreated{};
        HANDLE hFile = Open(strPath);
        EXPECT_TRUE(GetFileTime(hFile, &ftCreated, nullptr, nullptr));
        EXPECT_FALSE(SetFileTime(hFile, &ftGiven, nullptr, nullptr)) << "it is open for reading";
        CloseHandle(hFile);
        return std::bit_cast<std::uint64_t>(ftCreated);
    };
    const std::uint64_t qwBirth = created();
    HANDLE hFile = Open(strPath, GENERIC_WRITE);
    EXPECT_TRUE(SetFileTime(hFile, &ftGiven, nullptr, nullptr));
    CloseHandle(hFile);
    Bytes kept(8);
    EXPECT_EQ(::getxattr(strPath.c_str(), ATTRIBUTE, kept.data(), kept.size()), 8);
    EXPECT_EQ(kept, test::U64(0x0123456789ABCDEF));
    EXPECT_EQ(created(), 0x0123456789ABCDEFU);
    // What is no time of ours is not taken for one.
    for (const std::string strOther : {"1234567", "123456789", ""}) {
        ::setxattr(strPath.c_str(), ATTRIBUTE, strOther.data(), strOther.size(), 0);
        EXPECT_EQ(created(), qwBirth);
    }
}

TEST(PosixFiles, AreAwareOfFullDisksStopsAndLargeFiles) {
    const test::CTempFolder folder;
    const HANDLE hFile = Open(folder.Path("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    Bytes bytes(10000);
    DWORD dwCount = 77;
    // A file that may not grow stands for a disk that is full.
    const CProcess writer([&] {
        const rlimit limit{4096, 4096};
        ::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const bool bWritten = WriteFile(hFile, bytes.data(), 10000, &dwCount) != FALSE;
        return !bWritten && GetLastError() == ERROR_DISK_FULL && dwCount == 77 ? 'y' : 'n';
    });
    EXPECT_EQ(writer.Answer(), 'y');
    // In a thread that is being stopped nothing moves.
    CTask stopped([&] {
        Sleep(INFINITE);
        EXPECT_FALSE(WriteFile(hFile, bytes.data(), 10000, &dwCount));
        EXPECT_FALSE(ReadFile(hFile, bytes.data(), 10000, &dwCount));
        EXPECT_EQ(GetLastError(), ERROR_OPERATION_ABORTED);
    });
    EXPECT_TRUE(stopped.IsStoppedWhileBlocked());
    EXPECT_EQ(dwCount, 77U);
    EXPECT_EQ(SetFilePointer(hFile, 0x7FFFFFFF, nullptr, FILE_BEGIN), 0x7FFFFFFFU);
    EXPECT_EQ(SetFilePointer(hFile, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0xFFFFFFFEU);
    EXPECT_EQ(SetFilePointer(hFile, 1, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(SetFilePointer(hFile, 0, nullptr, FILE_CURRENT), 0xFFFFFFFEU);
    fs::resize_file(folder / "file", (std::uintmax_t{7} << 32) + 5);
    EXPECT_TRUE(GetFileSize(hFile, &dwCount) == 5 && dwCount == 7);
    CloseHandle(hFile);
}

TEST(PosixFiles, ATemporaryNameHasWholeCharactersOfItsPrefix) {
    const test::CTempFolder folder;
    const std::string strEuro = "\xE2\x82\xAC";
    const std::string strFive = strEuro + strEuro + strEuro + strEuro + strEuro;
    for (const auto& [strPrefix, strBegin] : {std::pair(strFive + strEuro, strFive + "-"),
                                              {"../../up", "..-"},
                                              {"sub\\name", "sub-"}}) {
        char szPath[MAX_PATH];
        ASSERT_NE(GetTempFileNameA(folder.Path().c_str(), strPrefix.c_str(), 0, szPath), 0U);
        EXPECT_TRUE(std::string(szPath).starts_with(folder.Path(strBegin))) << szPath;
        EXPECT_EQ(fs::path(szPath).parent_path(), folder.Folder());
    }
}

TEST(PosixHandles, NumbersAreNotGivenTwiceAndNobodyWaitsForOneThatIsGone) {
    const auto threads = [] {
        return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
    };
    const auto nBefore = threads();
    const auto run = [](void*) -> DWORD { ::abort(); };
    std::set<HANDLE> seen;
    for (int i = 0; i < 20; ++i) {
        const HANDLE hThread = CreateThread(nullptr, 0, run, nullptr, CREATE_SUSPENDED, nullptr);
        EXPECT_TRUE(seen.insert(hThread).second && CloseHandle(hThread));
    }
    for (DWORD dwMs = 0; dwMs < AT_ONCE_MS && threads() > nBefore; dwMs += 5) {
        Sleep(5);
    }
    EXPECT_EQ(threads(), nBefore) << "suspended threads that nobody can resume";
}

TEST(PosixMessages, TheDescriptorIsReadableWhileAMessageIsThere) {
    const HWND hWnd = CreateMessageWindow();
    const auto readable = [&] {
        pollfd polled{GetMessageWindowDescriptor(hWnd), POLLIN, 0};
        return ::poll(&polled, 1, 0) == 1;
    };
    WINDOWMESSAGE message{};
    EXPECT_FALSE(readable());
    EXPECT_TRUE(PostMessageA(hWnd, 3028, 0, 0) && PostMessageA(hWnd, 3028, 0, 0) && readable());
    EXPECT_TRUE(WaitWindowMessage(hWnd, 0, &message) && readable());
    EXPECT_TRUE(WaitWindowMessage(hWnd, 0, &message) && !readable());
    for (int i = 0; i <= 10000; ++i) {
        EXPECT_EQ(PostMessageA(hWnd, 1, 0, 0) != FALSE, i < 10000) << "the queue is bounded";
    }
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(hWnd)));
    EXPECT_TRUE(DestroyMessageWindow(hWnd));
}

TEST(PosixRegistry, HasTheProcessorsSpeed) {
    constexpr char KEY[] = "hardware\\description\\SYSTEM\\CentralProcessor\\0";
    HKEY hKey = nullptr;
    EXPECT_NE(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "MISSING", 0, KEY_READ, &hKey), 0);
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, KEY_READ, &hKey), 0);
    const auto speed = [&](const char* lpszName, const char* lpszNamed) {
        const CEnvironment environment("DAK_CPU_MHZ", lpszNamed);
        DWORD dwMHz = 0x12345678;
        DWORD dwType = REG_DWORD;
        DWORD dwSize = sizeof(dwMHz);
        EXPECT_TRUE(RegQueryValueExA(hKey, lpszName, nullptr, &dwType,
                                     reinterpret_cast<BYTE*>(&dwMHz), &dwSize) == 0 ||
                    dwMHz == 0x12345678);
        EXPECT_TRUE(dwType == REG_DWORD && dwSize == sizeof(dwMHz));
        return dwMHz;
    };
    EXPECT_EQ(speed("~MHz", "199"), 199U);
    EXPECT_EQ(speed("~MHZ", "0"), 0U);
    EXPECT_EQ(speed("~mhz", "4294967296"), 0xFFFFFFFFU);
    EXPECT_EQ(speed("~MHZ", "99999999999999999999999"), 0xFFFFFFFFU);
    for (const char* lpszNoNumber : {"", "fast", "-5", "200 MHz", " 200"}) {
        EXPECT_EQ(speed("~MHZ", lpszNoNumber), speed("~MHZ", nullptr)) << "the machine's own";
    }
    EXPECT_EQ(speed("~MH", "199"), 0x12345678U) << "another value";
    EXPECT_EQ(RegCloseKey(hKey), 0);
    EXPECT_EQ(speed("~MHZ", "199"), 0x12345678U) << "closed";
    EXPECT_NE(RegCloseKey(hKey), 0);
}

// The processes that run a file of this name.
static std::vector<DWORD> FindProcesses(const std::string& strName) {
    const HANDLE hSnapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    std::vector<DWORD> found;
    PROCESSENTRY32 entry{};
    for (BOOL bMore = Process32First(hSnapshot, &entry); bMore != FALSE;
         bMore = Process32Next(hSnapshot, &entry)) {
        if (strName == entry.szExeFile) {
            found.push_back(entry.th32ProcessID);
        }
    }
    EXPECT_TRUE(!Process32Next(hSnapshot, &entry) && Process32First(hSnapshot, &entry));
    EXPECT_TRUE(CloseHandle(hSnapshot) && !Process32First(hSnapshot, &entry));
    return found;
}

TEST(PosixProcesses, AreFoundByTheirFileAndEnded) {
    // Names of this run's own: others may run at the same time.
    const std::string strName = std::to_string(::getpid()) + ".exe";
    const std::string strLong = strName + "-with-a-long-name.exe";
    const struct {
        std::string strFile;
        std::string strCommand;
        std::string strTold; // the name that a loader tells the kernel, which keeps 15 bytes of it
        std::string strSeen;
    } rows[] = {
        {strName, "shell", "other", strName},
        {"wine64-preloader", "C:\\x\\" + strName, strName, strName},
        {"wine64-preloader", "C:\\x\\" + strLong, strLong, strLong},
        {"wine64-preloader", "something else", strLong, strLong.substr(0, 15)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.strSeen);
        const test::CTempFolder folder;
        const std::string strFile = folder.Path(row.strFile);
        const std::string strScript = "echo " + row.strTold + " >/proc/$$/comm; kill -STOP $$";
        fs::copy("/bin/sh", strFile);
        EXPECT_TRUE(FindProcesses(row.strSeen).empty());
        const pid_t nPid = ::fork();
        if (nPid == 0) {
            ::execl(strFile.c_str(), row.strCommand.c_str(), "-c", strScript.c_str(), nullptr);
            ::_exit(127);
        }
        int nStatus = 0;
        EXPECT_EQ(::waitpid(nPid, &nStatus, WUNTRACED), nPid);
        fs::remove(strFile); // a program's file may be gone
        const auto dwPid = static_cast<DWORD>(nPid);
        EXPECT_EQ(FindProcesses(row.strSeen), std::vector{dwPid});
        const HANDLE hProcess = OpenProcess(PROCESS_TERMINATE, FALSE, dwPid);
        EXPECT_TRUE(TerminateProcess(hProcess, 0));
        siginfo_t ended{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(nPid), &ended, WEXITED | WNOWAIT), 0);
        EXPECT_EQ(ended.si_status, SIGKILL);
        EXPECT_TRUE(FindProcesses(row.strSeen).empty()) << "ended, though not yet forgotten";
        ::waitpid(nPid, nullptr, 0);
        EXPECT_FALSE(TerminateProcess(hProcess, 0)) << "gone";
        EXPECT_TRUE(CloseHandle(hProcess));
        EXPECT_EQ(OpenProcess(PROCESS_TERMINATE, FALSE, dwPid), nullptr);
    }
    // Some are never ended.
    for (const DWORD dwId : {DWORD{0}, DWORD{1}, static_cast<DWORD>(::getpid()), ~DWORD{0}}) {
        EXPECT_EQ(OpenProcess(PROCESS_TERMINATE, FALSE, dwId), nullptr) << dwId;
    }
    EXPECT_FALSE(TerminateProcess(nullptr, 0));
}

} // namespace platform::tests
