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
#include <memory>

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
static char ProbeLockElsewhere() {
    return CProcess([] { return ProbeLock(); }).Answer();
}

TEST(PosixLock, IsSharedByProcessesAndEndsWithThem) {
    const CDeviceFolder devices;
    HANDLE hLock = nullptr;
    auto pOther = std::make_unique<CProcess>([&] { return ProbeLock(&hLock); });
    ASSERT_EQ(pOther->Answer(), 'N');
    EXPECT_EQ(ProbeLock(&hLock), 'e');
    EXPECT_FALSE(ReleaseMutex(hLock)) << "it is not ours";
    const auto wait = [&] { EXPECT_EQ(WaitForSingleObject(hLock, INFINITE), WAIT_OBJECT_0); };
    EXPECT_TRUE(CTask([&] { WaitForSingleObject(hLock, INFINITE); }).IsStoppedWhileBlocked());
    const CTask waiter(wait);
    EXPECT_FALSE(waiter.EndsWithin(SETTLE_MS));
    pOther.reset();
    EXPECT_TRUE(waiter.Ends());
    EXPECT_EQ(ProbeLockElsewhere(), 'e') << "it is ours now";
    EXPECT_TRUE(ReleaseMutex(hLock));
    EXPECT_EQ(ProbeLockElsewhere(), 'E');
    EXPECT_TRUE(CloseHandle(hLock));
    EXPECT_EQ(ProbeLock(&hLock), 'N');
    DWORD dwWord = 0;
    const CTask words([&] { WaitOnAddress(&dwWord, 0, INFINITE); });
    EXPECT_FALSE(words.EndsWithin(SETTLE_MS));
    const CProcess child([&] {
        // The parent's handle means nothing here, and a new one finds the parent's lock; nobody
        // waits for a word, and threads get the stacks of those who did.
        const bool bDead = WaitForSingleObject(hLock, 0) == WAIT_FAILED && CloseHandle(hLock);
#if !defined(__SANITIZE_THREAD__) // with it a child gets no threads
        const CTask own([&] { WaitOnAddress(&dwWord, 0, 1); });
        if (!own.Ends()) {
            return '-';
        }
#endif
        WakeByAddressAll(&dwWord);
        return bDead ? ProbeLock() : '-';
    });
    EXPECT_EQ(child.Answer(), 'e');
    std::atomic_ref<DWORD>(dwWord).store(1);
    WakeByAddressAll(&dwWord);
    EXPECT_TRUE(ReleaseMutex(hLock) && CloseHandle(hLock)) << "the child's doings are its own";
    EXPECT_EQ(ProbeLock(), 'N') << "although the child lives";
}

TEST(PosixLock, OfProcessesThatMakeItAtOnceOneWins) {
    const CDeviceFolder devices;
    for (int nRound = 0; nRound < 20; ++nRound) {
        HANDLE hLock = nullptr;
        const CProcess first([&] { return ProbeLock(&hLock); });
        const CProcess second([&] { return ProbeLock(&hLock); });
        const std::string strAnswers = {ProbeLock(&hLock), first.Answer(), second.Answer()};
        EXPECT_EQ(std::ranges::count_if(strAnswers, ::isupper), 1) << strAnswers;
        CloseHandle(hLock);
    }
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
    const CAttachment last(devices.strFolder, "b");
    const CAttachment first(devices.strFolder, "A");
    EXPECT_EQ(DeviceNames(), "A b ");
    {
        const CEnvironment named("DAK_DEVICE", "b");
        EXPECT_EQ(DeviceNames(), "b ");
        EXPECT_TRUE(ChooseDevice("A"));
        EXPECT_EQ(DeviceNames(), "A ");
        std::ofstream(first.strSocket + ".lock") << "of another agent";
        EXPECT_EQ(DeviceNames(), "");
        EXPECT_TRUE(ChooseDevice(nullptr));
    }
    // A lock that only shows interest, or none: what a killed device leaves behind.
    for (const int nType : {F_RDLCK, F_UNLCK}) {
        EXPECT_TRUE(first.Lock(F_OFD_SETLK, nType));
        EXPECT_EQ(DeviceNames(), "b ");
    }
    // One that locks as a process does, which a mere close of the file in that process undoes: the
    // question takes nothing from it.
    auto pDevice =
        std::make_unique<CProcess>([&] { return first.Lock(F_SETLK, F_WRLCK) ? 'y' : 'n'; });
    EXPECT_EQ(pDevice->Answer(), 'y');
    EXPECT_EQ(DeviceNames() + DeviceNames(), "A b A b ");
    pDevice.reset();
    EXPECT_EQ(DeviceNames(), "b ");
    fs::remove(last.strSocket);
    std::ofstream(last.strSocket) << "no socket";
    EXPECT_EQ(DeviceNames(), "");
}

TEST(PosixDeviceFolder, ADefaultFolderMustBeOurs) {
    const test::CTempFolder runtime;
    {
        const CEnvironment named("DAK_DEVICE_DIR", runtime.Path("missing"));
        EXPECT_EQ(ProbeLock(), 'N');
        EXPECT_TRUE(fs::is_empty(runtime.Folder())) << "a name can be mistyped";
    }
    const CEnvironment named("DAK_DEVICE_DIR", "");
    const CEnvironment environment("XDG_RUNTIME_DIR", runtime.Path());
    const fs::path folder = runtime / "dak";
    EXPECT_EQ(ProbeLock(), 'N') << "made where it was missing";
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
    const CAttachment attachment(folder);
    EXPECT_EQ(DeviceNames(), "device ");
    fs::rename(folder, runtime / "elsewhere");
    fs::create_directory_symlink("elsewhere", folder);
    DWORD dwSize = 0;
    EXPECT_EQ(DeviceNames() + ProbeLock(), "-") << "a symbolic link";
    EXPECT_EQ(ListDevices(nullptr, &dwSize), ERROR_PATH_NOT_FOUND);
    fs::remove(folder);
    fs::rename(runtime / "elsewhere", folder);
    EXPECT_EQ(DeviceNames(), "device ");
    fs::permissions(folder, fs::perms::others_read, fs::perm_options::add);
    EXPECT_EQ(ProbeLock(), '-') << "open to others";
    EXPECT_EQ(ListDevices(nullptr, &dwSize), ERROR_ACCESS_DENIED);
    fs::permissions(folder, fs::perms::owner_all);
    ASSERT_TRUE(::geteuid() != 0 || ::chown(folder.c_str(), 12345, 12345) == 0);
    EXPECT_EQ(DeviceNames() + ProbeLock(), ::geteuid() == 0 ? "-" : "device N") << "another user's";
}

TEST(PosixFiles, WhatIsNoRegularFileIsRefusedWithoutAWait) {
    const test::CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    fs::create_symlink("fifo", folder / "link");
    const CAttachment attachment(folder.Path("devices"));
    for (const std::string& strPath :
         {folder.Path("fifo"), folder.Path("link"), attachment.strSocket, std::string("/dev/zero"),
          "\\\\?\\" + folder.Path("fifo"), std::string(5000, 'a')}) {
        for (const DWORD dwAccess : {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE}) {
            EXPECT_FALSE(Opens(strPath, dwAccess) || Opens(strPath, dwAccess, CREATE_ALWAYS));
        }
    }
}

TEST(PosixFiles, PermissionsAreHandedOnAndLinksAreNotFollowed) {
    const test::CTempFolder folder;
    for (const char* lpszName : {"old", "new", "outside"}) {
        folder.Write(lpszName, lpszName);
        fs::permissions(folder / lpszName, fs::perms{*lpszName == 'n' ? 0644U : 04440U});
    }
    fs::create_symlink("outside", folder / "link");
    EXPECT_FALSE(SetFileAttributesA(folder.Path("link").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(fs::status(folder / "outside").permissions(), fs::perms{04440});
    EXPECT_TRUE(SetFileAttributesA(folder.Path("old").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(MoveFileExA(folder.Path("new").c_str(), folder.Path("old").c_str(),
                            MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(fs::status(folder / "old").permissions(), fs::perms{0640});
}

TEST(PosixFiles, TheCreationTimeIsKeptBesideTheContents) {
    const test::CTempFolder folder;
    const std::string strPath = folder.Path("file");
    folder.Write("file", "abc");
    const FILETIME ftGiven{0x89ABCDEF, 0x01234567};
    // Sets the time, if the file is opened so, and tells it.
    const auto created = [&](DWORD dwAccess) {
        FILETIME ftCreated{};
        const HANDLE hFile = Open(strPath, GENERIC_READ | dwAccess);
        EXPECT_EQ(SetFileTime(hFile, &ftGiven, nullptr, nullptr) != FALSE, dwAccess != 0);
        EXPECT_TRUE(GetFileTime(hFile, &ftCreated, nullptr, nullptr) && CloseHandle(hFile));
        return test::U64(std::bit_cast<std::uint64_t>(ftCreated));
    };
    const Bytes birth = created(0);
    Bytes kept(8);
    EXPECT_EQ(created(GENERIC_WRITE), test::U64(0x0123456789ABCDEF));
    EXPECT_EQ(::getxattr(strPath.c_str(), "user.dak.creation_time", kept.data(), 8), 8);
    EXPECT_EQ(kept, test::U64(0x0123456789ABCDEF));
    ::setxattr(strPath.c_str(), "user.dak.creation_time", "123456789", 9, 0);
    EXPECT_EQ(created(0), birth) << "what is no time of ours is not taken for one";
}

TEST(PosixFiles, AreAwareOfFullDisksAndTheirSize) {
    const test::CTempFolder folder;
    const HANDLE hFile = Open(folder.Path("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    const Bytes bytes(10000);
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
    EXPECT_EQ(SetFilePointer(hFile, 0x7FFFFFFF, nullptr, FILE_BEGIN), 0x7FFFFFFFU);
    EXPECT_EQ(SetFilePointer(hFile, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0xFFFFFFFEU);
    EXPECT_EQ(SetFilePointer(hFile, 1, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    fs::resize_file(folder / "file", (std::uintmax_t{7} << 32) + 5);
    EXPECT_TRUE(GetFileSize(hFile, &dwCount) == 5 && dwCount == 7 && CloseHandle(hFile));
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
    EXPECT_TRUE(!CloseHandle(reinterpret_cast<HANDLE>(hWnd)) && DestroyMessageWindow(hWnd));
}

TEST(PosixRegistry, HasTheProcessorsSpeed) {
    HKEY hKey = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                            "hardware\\description\\SYSTEM\\CentralProcessor\\0", 0, KEY_READ,
                            &hKey),
              0);
    const auto speed = [&](const char* lpszNamed) {
        const CEnvironment environment("DAK_CPU_MHZ", lpszNamed);
        DWORD dwMHz = 0x12345678;
        DWORD dwSize = sizeof(dwMHz);
        RegQueryValueExA(hKey, "~mhz", nullptr, nullptr, reinterpret_cast<BYTE*>(&dwMHz), &dwSize);
        return dwMHz;
    };
    EXPECT_TRUE(speed("199") == 199 && speed("0") == 0 && speed("99999999999") == 0xFFFFFFFF);
    for (const char* lpszNoNumber : {"fast", "-5", "200 MHz", " 200"}) {
        EXPECT_EQ(speed(lpszNoNumber), speed("")) << "the machine's own";
    }
    EXPECT_EQ(RegCloseKey(hKey), 0);
    EXPECT_EQ(speed("199"), 0x12345678U) << "closed";
}

// Whether a process that runs a file of this name is listed.
static bool IsListed(const std::string& strName) {
    const HANDLE hSnapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32 entry{};
    BOOL bMore = Process32First(hSnapshot, &entry);
    while (bMore != FALSE && strName != entry.szExeFile) {
        bMore = Process32Next(hSnapshot, &entry);
    }
    EXPECT_TRUE(CloseHandle(hSnapshot) && !Process32First(hSnapshot, &entry));
    return bMore != FALSE;
}

TEST(PosixProcesses, AreFoundByTheirFileAndEnded) {
    // A name of this run's own: others may run at the same time.
    const std::string strName = std::to_string(::getpid()) + "-with-a-long-name.exe";
    // The file that runs, and the first word of its command line: a loader runs what that names.
    const std::pair<std::string, std::string> rows[] = {{strName, "shell"},
                                                        {"wine64-preloader", "C:\\x\\" + strName}};
    // As a loader does, it tells the kernel the name, of which that keeps 15 bytes.
    const std::string strScript = "echo " + strName + " >/proc/$$/comm; kill -STOP $$";
    for (const auto& [strRun, strCommand] : rows) {
        SCOPED_TRACE(strRun);
        const test::CTempFolder folder;
        const std::string strFile = folder.Path(strRun);
        fs::copy("/bin/sh", strFile);
        const pid_t nPid = ::fork();
        if (nPid == 0) {
            ::execl(strFile.c_str(), strCommand.c_str(), "-c", strScript.c_str(), nullptr);
            ::_exit(127);
        }
        EXPECT_EQ(::waitpid(nPid, nullptr, WUNTRACED), nPid);
        fs::remove(strFile); // a program's file may be gone
        EXPECT_TRUE(IsListed(strName));
        const HANDLE hProcess = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(nPid));
        EXPECT_TRUE(TerminateProcess(hProcess, 0));
        siginfo_t ended{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(nPid), &ended, WEXITED | WNOWAIT), 0);
        EXPECT_TRUE(ended.si_status == SIGKILL && !IsListed(strName));
        ::waitpid(nPid, nullptr, 0);
        EXPECT_TRUE(!TerminateProcess(hProcess, 0) && CloseHandle(hProcess)) << "gone";
    }
    // Some are never ended.
    for (const DWORD dwId : {DWORD{0}, DWORD{1}, static_cast<DWORD>(::getpid()), ~DWORD{0}}) {
        EXPECT_EQ(OpenProcess(PROCESS_TERMINATE, FALSE, dwId), nullptr) << dwId;
    }
}

} // namespace platform::tests
