// The contract of the seam, as tests: the same for every implementation, each of which brings its
// world (contract_world.h). They say nothing that the contract leaves open, and their upper bounds
// on time are loose, as not every clock is exact.
#include "tests/platform/contract_world.h"

#include "platform/device.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>

namespace {

using platform::CloseHandle;
using platform::CreateFileA;
using platform::CreateMutexA;
using platform::GetLastError;
using platform::ReadFile;
using platform::TerminateThread;
using platform::WaitForSingleObject;
using platform::WriteFile;

using Bytes = std::vector<std::uint8_t>;

// Long enough for a thread to be inside the call that it makes first.
constexpr DWORD SETTLE_MS = 40;
// A bound for what has to happen at once, generous enough for a busy machine.
constexpr DWORD AT_ONCE_MS = 10000;
constexpr DWORD FOR_AGES_MS = 600000;

// A thread that runs a piece of the test. Its end is awaited before the piece goes away.
class CTask {
  public:
    explicit CTask(std::function<void()> body, DWORD dwFlags = 0)
        : m_body(std::move(body)),
          m_hThread(platform::CreateThread(nullptr, 0, Run, this, dwFlags, nullptr)) {
        EXPECT_NE(m_hThread, nullptr);
    }
    ~CTask() {
        if (WaitForSingleObject(m_hThread, 0) != WAIT_OBJECT_0) {
            TerminateThread(m_hThread, 0);
        }
        CloseHandle(m_hThread);
    }
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    HANDLE Handle() const { return m_hThread; }
    bool EndsWithin(DWORD dwMs) const {
        return WaitForSingleObject(m_hThread, dwMs) == WAIT_OBJECT_0;
    }
    // Whether it is found blocked, and ends when it is stopped. A thread that runs has begun then.
    bool IsStoppedWhileBlocked(bool bSuspended = false) {
        while (!bSuspended && std::atomic_ref<DWORD>(m_dwBegun).load() == 0) {
            platform::WaitOnAddress(&m_dwBegun, 0, AT_ONCE_MS);
        }
        platform::Sleep(SETTLE_MS);
        return !EndsWithin(0) && TerminateThread(m_hThread, 0) != FALSE && EndsWithin(0);
    }

  private:
    static DWORD Run(void* lpTask) {
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

std::string InFolder(const std::string& strName) {
    return contract::Folder() + "\\" + strName;
}

HANDLE Open(const std::string& strPath, DWORD dwAccess, DWORD dwDisposition) {
    return CreateFileA(strPath.c_str(), dwAccess, FILE_SHARE_READ, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool Exists(const std::string& strPath) {
    HANDLE hFile = Open(strPath, GENERIC_READ, OPEN_EXISTING);
    return hFile != INVALID_HANDLE_VALUE && CloseHandle(hFile) != FALSE;
}

void MakeFile(const std::string& strPath, std::string_view strContents) {
    HANDLE hFile = Open(strPath, GENERIC_WRITE, CREATE_ALWAYS);
    ASSERT_NE(hFile, INVALID_HANDLE_VALUE);
    const auto dwSize = static_cast<DWORD>(strContents.size());
    DWORD dwCount = 0;
    EXPECT_TRUE(WriteFile(hFile, strContents.data(), dwSize, &dwCount));
    EXPECT_EQ(dwCount, dwSize);
    EXPECT_TRUE(CloseHandle(hFile));
}

std::string Contents(const std::string& strPath) {
    HANDLE hFile = Open(strPath, GENERIC_READ, OPEN_EXISTING);
    char szBuffer[256];
    DWORD dwCount = 0;
    const BOOL bRead = ReadFile(hFile, szBuffer, sizeof(szBuffer), &dwCount);
    CloseHandle(hFile);
    return bRead != FALSE ? std::string(szBuffer, dwCount) : "(unreadable)";
}

// Handles ---------------------------------------------------------------------------------------

TEST(Handles, ThatAreNotOpenAreRefused) {
    contract::InWorld([] {
        MakeFile(InFolder("a"), "abc");
        HANDLE hClosed = Open(InFolder("a"), GENERIC_READ, OPEN_EXISTING);
        ASSERT_NE(hClosed, INVALID_HANDLE_VALUE);
        ASSERT_NE(hClosed, nullptr);
        EXPECT_TRUE(CloseHandle(hClosed));
        for (HANDLE hBad : {hClosed, HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
            char ch = 'x';
            DWORD dwCount = 77;
            FILETIME time{};
            EXPECT_FALSE(ReadFile(hBad, &ch, 1, &dwCount));
            EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
            EXPECT_FALSE(WriteFile(hBad, &ch, 1, &dwCount));
            EXPECT_EQ(dwCount, 77U);
            EXPECT_EQ(platform::GetFileSize(hBad, nullptr), INVALID_FILE_SIZE);
            EXPECT_EQ(platform::SetFilePointer(hBad, 0, nullptr, FILE_BEGIN),
                      INVALID_SET_FILE_POINTER);
            EXPECT_FALSE(platform::GetFileTime(hBad, &time, nullptr, nullptr));
            EXPECT_FALSE(platform::SetFileTime(hBad, &time, nullptr, nullptr));
            EXPECT_EQ(WaitForSingleObject(hBad, 0), WAIT_FAILED);
            EXPECT_EQ(platform::ResumeThread(hBad), 0xFFFFFFFF);
            EXPECT_FALSE(TerminateThread(hBad, 0));
            EXPECT_FALSE(platform::ReleaseMutex(hBad));
            EXPECT_FALSE(CloseHandle(hBad));
        }
    });
}

TEST(Handles, OfAnotherKindAreRefused) {
    contract::InWorld([] {
        HANDLE hLock = CreateMutexA(nullptr, FALSE, nullptr);
        MakeFile(InFolder("a"), "abc");
        HANDLE hFile = Open(InFolder("a"), GENERIC_READ, OPEN_EXISTING);
        char ch = 'x';
        DWORD dwCount = 77;
        EXPECT_FALSE(ReadFile(hLock, &ch, 1, &dwCount));
        EXPECT_FALSE(TerminateThread(hLock, 0));
        EXPECT_FALSE(platform::ReleaseMutex(hFile));
        EXPECT_EQ(platform::ResumeThread(hFile), 0xFFFFFFFF);
        EXPECT_TRUE(CloseHandle(hLock));
        EXPECT_TRUE(CloseHandle(hFile));
    });
}

TEST(Handles, TheErrorNumberIsTheThreadsOwn) {
    contract::InWorld([] {
        EXPECT_FALSE(CloseHandle(nullptr));
        DWORD dwThere = 0;
        CTask task([&] {
            EXPECT_FALSE(platform::DeleteFileA(InFolder("missing").c_str()));
            dwThere = GetLastError();
        });
        ASSERT_TRUE(task.EndsWithin(AT_ONCE_MS));
        EXPECT_NE(dwThere, ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    });
}

// Threads and waits -----------------------------------------------------------------------------

TEST(Threads, AWaitEndsWithTheThreadOrAtItsTimeOut) {
    contract::InWorld([] {
        int nResult = 0;
        const std::uint64_t qwStart = contract::NowMs();
        CTask task([&] {
            platform::Sleep(200);
            nResult = 7;
        });
        EXPECT_EQ(WaitForSingleObject(task.Handle(), 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(task.Handle(), 30), WAIT_TIMEOUT);
        EXPECT_GE(contract::NowMs() - qwStart, 30U);
        EXPECT_EQ(WaitForSingleObject(task.Handle(), INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(nResult, 7);
        EXPECT_GE(contract::NowMs() - qwStart, 200U);
        EXPECT_EQ(WaitForSingleObject(task.Handle(), INFINITE), WAIT_OBJECT_0);
    });
}

TEST(Threads, ClosingTheHandleDoesNotStopTheThread) {
    contract::InWorld([] {
        static DWORD dwEnded;
        dwEnded = 0;
        HANDLE hThread = platform::CreateThread(
            nullptr, 0,
            [](void*) -> DWORD {
                platform::Sleep(SETTLE_MS);
                std::atomic_ref<DWORD>(dwEnded).store(1);
                platform::WakeByAddressAll(&dwEnded);
                return 0;
            },
            nullptr, 0, nullptr);
        EXPECT_TRUE(CloseHandle(hThread));
        while (std::atomic_ref<DWORD>(dwEnded).load() == 0) {
            ASSERT_TRUE(platform::WaitOnAddress(&dwEnded, 0, AT_ONCE_MS));
        }
    });
}

TEST(Threads, ASuspendedOneRunsWhenItIsResumedAndNotBefore) {
    contract::InWorld([] {
        bool bRan = false;
        CTask task([&] { bRan = true; }, CREATE_SUSPENDED);
        EXPECT_FALSE(task.EndsWithin(SETTLE_MS));
        EXPECT_EQ(platform::ResumeThread(task.Handle()), 1U);
        EXPECT_TRUE(task.EndsWithin(AT_ONCE_MS));
        EXPECT_TRUE(bRan);
        EXPECT_EQ(platform::ResumeThread(task.Handle()), 0xFFFFFFFF);

        bRan = false;
        CTask stopped([&] { bRan = true; }, CREATE_SUSPENDED);
        EXPECT_TRUE(stopped.IsStoppedWhileBlocked(true));
        EXPECT_FALSE(bRan);
        EXPECT_EQ(platform::ResumeThread(stopped.Handle()), 0xFFFFFFFF);
    });
}

TEST(Threads, SleepLastsAtLeastItsTime) {
    contract::InWorld([] {
        for (const DWORD dwMs : {1U, 10U, 25U}) {
            const std::uint64_t qwStart = contract::NowMs();
            platform::Sleep(dwMs);
            // A clock in whole milliseconds can show one less.
            EXPECT_GE(contract::NowMs() - qwStart + 1, dwMs);
        }
        platform::Sleep(0);
    });
}

TEST(Threads, AStopEndsEveryBlockingCallNowAndLater) {
    contract::InWorld([] {
        static DWORD dwWord;
        dwWord = 5;
        HANDLE hHeld = CreateMutexA(nullptr, FALSE, nullptr);
        ASSERT_EQ(WaitForSingleObject(hHeld, 0), WAIT_OBJECT_0);
        CTask sleeper([] { platform::Sleep(INFINITE); });

        const std::function<bool()> calls[] = {
            [] {
                platform::Sleep(FOR_AGES_MS);
                return true;
            },
            [&] { return WaitForSingleObject(hHeld, INFINITE) == WAIT_FAILED; },
            [&] { return WaitForSingleObject(hHeld, FOR_AGES_MS) == WAIT_FAILED; },
            [&] { return WaitForSingleObject(sleeper.Handle(), INFINITE) == WAIT_FAILED; },
            [] { return platform::WaitOnAddress(&dwWord, 5, INFINITE) == FALSE; },
        };
        for (const auto& call : calls) {
            const std::uint64_t qwStart = contract::NowMs();
            int nFailed = 0;
            CTask task([&] {
                nFailed += call() ? 1 : 0;
                for (const auto& later : calls) {
                    nFailed += later() ? 1 : 0;
                }
            });
            EXPECT_TRUE(task.IsStoppedWhileBlocked()) << (&call - calls);
            EXPECT_EQ(nFailed, 6) << (&call - calls);
            EXPECT_LT(contract::NowMs() - qwStart, AT_ONCE_MS);
        }
        EXPECT_TRUE(TerminateThread(sleeper.Handle(), 0));
        EXPECT_TRUE(TerminateThread(sleeper.Handle(), 0)) << "a second time";
        CloseHandle(hHeld);
    });
}

TEST(Threads, AWordIsWaitedForUntilItChangesOrTimeIsOver) {
    contract::InWorld([] {
        static DWORD dwWord;
        dwWord = 1;
        EXPECT_TRUE(platform::WaitOnAddress(&dwWord, 2, INFINITE)) << "it differs already";
        const std::uint64_t qwStart = contract::NowMs();
        BOOL bWoken = TRUE;
        while (bWoken != FALSE) {
            bWoken = platform::WaitOnAddress(&dwWord, 1, 30);
        }
        EXPECT_EQ(GetLastError(), WAIT_TIMEOUT);
        EXPECT_GE(contract::NowMs() - qwStart, 30U);

        const auto awaitChange = [] {
            while (std::atomic_ref<DWORD>(dwWord).load() == 1) {
                platform::WaitOnAddress(&dwWord, 1, INFINITE);
            }
        };
        CTask first(awaitChange);
        CTask second(awaitChange);
        EXPECT_FALSE(first.EndsWithin(SETTLE_MS));
        std::atomic_ref<DWORD>(dwWord).store(9);
        platform::WakeByAddressAll(&dwWord);
        EXPECT_TRUE(first.EndsWithin(AT_ONCE_MS));
        EXPECT_TRUE(second.EndsWithin(AT_ONCE_MS));
    });
}

// The lock --------------------------------------------------------------------------------------

TEST(Lock, TellsWhetherItExisted) {
    contract::InWorld([] {
        HANDLE hFirst = CreateMutexA(nullptr, FALSE, "TheLock");
        ASSERT_NE(hFirst, nullptr);
        EXPECT_EQ(GetLastError(), 0U);
        HANDLE hSecond = CreateMutexA(nullptr, FALSE, "TheLock");
        ASSERT_NE(hSecond, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        HANDLE hOther = CreateMutexA(nullptr, FALSE, "TheOtherLock");
        EXPECT_EQ(GetLastError(), 0U);
        HANDLE hUnnamed = CreateMutexA(nullptr, FALSE, nullptr);
        EXPECT_EQ(GetLastError(), 0U);
        EXPECT_TRUE(CloseHandle(hFirst));
        HANDLE hThird = CreateMutexA(nullptr, FALSE, "TheLock");
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS) << "the second handle is still open";
        for (HANDLE hLock : {hSecond, hOther, hUnnamed, hThird}) {
            EXPECT_TRUE(CloseHandle(hLock));
        }
        HANDLE hAgain = CreateMutexA(nullptr, FALSE, "TheLock");
        EXPECT_EQ(GetLastError(), 0U) << "nobody has it open";
        EXPECT_TRUE(CloseHandle(hAgain));
    });
}

TEST(Lock, IsHeldOnceAndByNoThreadInParticular) {
    contract::InWorld([] {
        for (const char* lpszName : {static_cast<const char*>(nullptr), "TheLock"}) {
            HANDLE hLock = CreateMutexA(nullptr, FALSE, lpszName);
            EXPECT_FALSE(platform::ReleaseMutex(hLock)) << "not held";
            EXPECT_EQ(WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
            CTask waiter([&] { EXPECT_EQ(WaitForSingleObject(hLock, INFINITE), WAIT_OBJECT_0); });
            EXPECT_FALSE(waiter.EndsWithin(SETTLE_MS));
            CTask releaser([&] { EXPECT_TRUE(platform::ReleaseMutex(hLock)); });
            EXPECT_TRUE(waiter.EndsWithin(AT_ONCE_MS));
            const std::uint64_t qwStart = contract::NowMs();
            CTask late([&] { EXPECT_EQ(WaitForSingleObject(hLock, 30), WAIT_TIMEOUT); });
            EXPECT_TRUE(late.EndsWithin(AT_ONCE_MS));
            EXPECT_GE(contract::NowMs() - qwStart, 30U);
            EXPECT_TRUE(platform::ReleaseMutex(hLock)) << "the ended waiter's hold is still there";
            EXPECT_FALSE(platform::ReleaseMutex(hLock));
            EXPECT_TRUE(releaser.EndsWithin(AT_ONCE_MS));
            EXPECT_TRUE(CloseHandle(hLock));
        }
    });
}

TEST(Lock, ItsHandlesShareTheHoldAndTheLastOneEndsIt) {
    contract::InWorld([] {
        HANDLE hFirst = CreateMutexA(nullptr, FALSE, "TheLock");
        HANDLE hSecond = CreateMutexA(nullptr, FALSE, "TheLock");
        EXPECT_EQ(WaitForSingleObject(hFirst, INFINITE), WAIT_OBJECT_0);
        EXPECT_TRUE(CloseHandle(hFirst));
        CTask task([&] { EXPECT_EQ(WaitForSingleObject(hSecond, 10), WAIT_TIMEOUT); });
        EXPECT_TRUE(task.EndsWithin(AT_ONCE_MS));
        EXPECT_TRUE(CloseHandle(hSecond));
        HANDLE hNew = CreateMutexA(nullptr, FALSE, "TheLock");
        EXPECT_EQ(WaitForSingleObject(hNew, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(CloseHandle(hNew));
    });
}

TEST(Lock, AStoppedWaiterTakesNothing) {
    contract::InWorld([] {
        HANDLE hLock = CreateMutexA(nullptr, FALSE, "TheLock");
        EXPECT_EQ(WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
        CTask waiter([&] { EXPECT_EQ(WaitForSingleObject(hLock, INFINITE), WAIT_FAILED); });
        EXPECT_TRUE(waiter.IsStoppedWhileBlocked());
        EXPECT_TRUE(platform::ReleaseMutex(hLock));
        EXPECT_EQ(WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(CloseHandle(hLock));
    });
}

// Files -----------------------------------------------------------------------------------------

TEST(Files, AreWrittenAndReadAtThePosition) {
    contract::InWorld([] {
        const std::string strPath = InFolder("file");
        HANDLE hFile = Open(strPath, GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
        ASSERT_NE(hFile, INVALID_HANDLE_VALUE);
        Bytes pattern(700001);
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            pattern[i] = static_cast<std::uint8_t>(i * 31 >> 3);
        }
        const auto dwSize = static_cast<DWORD>(pattern.size());
        DWORD dwCount = 0;
        EXPECT_TRUE(WriteFile(hFile, pattern.data(), dwSize, &dwCount));
        EXPECT_EQ(dwCount, dwSize);
        DWORD dwHigh = 9;
        EXPECT_EQ(platform::GetFileSize(hFile, &dwHigh), dwSize);
        EXPECT_EQ(dwHigh, 0U);

        Bytes read(pattern.size());
        EXPECT_TRUE(ReadFile(hFile, read.data(), dwSize, &dwCount));
        EXPECT_EQ(dwCount, 0U) << "at the end";
        EXPECT_EQ(platform::SetFilePointer(hFile, 0, nullptr, FILE_BEGIN), 0U);
        EXPECT_TRUE(ReadFile(hFile, read.data(), dwSize, &dwCount));
        EXPECT_EQ(dwCount, dwSize);
        EXPECT_EQ(read, pattern);
        EXPECT_EQ(platform::SetFilePointer(hFile, -5, nullptr, FILE_END), dwSize - 5);
        EXPECT_EQ(platform::SetFilePointer(hFile, 2, nullptr, FILE_CURRENT), dwSize - 3);
        EXPECT_TRUE(ReadFile(hFile, read.data(), 100, &dwCount));
        EXPECT_EQ(dwCount, 3U);
        EXPECT_TRUE(std::equal(pattern.end() - 3, pattern.end(), read.begin()));
        EXPECT_EQ(platform::SetFilePointer(hFile, -1, nullptr, FILE_BEGIN),
                  INVALID_SET_FILE_POINTER);
        EXPECT_TRUE(CloseHandle(hFile));
    });
}

TEST(Files, OpenAsAsked) {
    contract::InWorld([] {
        const std::string strOld = InFolder("old");
        const std::string strNew = InFolder("new");
        const struct {
            DWORD dwDisposition;
            bool bOpensOld;
            const char* lpszOldBecomes;
            bool bMakesNew;
        } rows[] = {
            {OPEN_EXISTING, true, "contents", false}, {OPEN_ALWAYS, true, "contents", true},
            {CREATE_NEW, false, "contents", true},    {CREATE_ALWAYS, true, "", true},
            {TRUNCATE_EXISTING, true, "", false},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.dwDisposition);
            MakeFile(strOld, "contents");
            HANDLE hFile = Open(strOld, GENERIC_WRITE, row.dwDisposition);
            EXPECT_EQ(hFile != INVALID_HANDLE_VALUE, row.bOpensOld);
            CloseHandle(hFile);
            EXPECT_EQ(Contents(strOld), row.lpszOldBecomes);
            hFile = Open(strNew, GENERIC_WRITE, row.dwDisposition);
            EXPECT_EQ(hFile != INVALID_HANDLE_VALUE, row.bMakesNew);
            CloseHandle(hFile);
            EXPECT_EQ(Exists(strNew), row.bMakesNew);
            platform::DeleteFileA(strNew.c_str());
        }
        EXPECT_EQ(Open(contract::Folder(), GENERIC_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
        EXPECT_EQ(Open("", GENERIC_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
        EXPECT_EQ(Open(InFolder("no folder\\file"), GENERIC_WRITE, CREATE_ALWAYS),
                  INVALID_HANDLE_VALUE);
    });
}

TEST(Files, TransferOnlyWhatTheyWereOpenedFor) {
    contract::InWorld([] {
        MakeFile(InFolder("a"), "abc");
        char ch = 'x';
        DWORD dwCount = 77;
        HANDLE hRead = Open(InFolder("a"), GENERIC_READ, OPEN_EXISTING);
        EXPECT_FALSE(WriteFile(hRead, &ch, 1, &dwCount));
        FILETIME time{1, 0x1C00000};
        EXPECT_FALSE(platform::SetFileTime(hRead, &time, nullptr, &time));
        CloseHandle(hRead);
        HANDLE hWrite = Open(InFolder("a"), GENERIC_WRITE, OPEN_EXISTING);
        EXPECT_FALSE(ReadFile(hWrite, &ch, 1, &dwCount));
        CloseHandle(hWrite);
        EXPECT_EQ(dwCount, 77U);
        EXPECT_EQ(ch, 'x');
    });
}

TEST(Files, EitherSlashSeparatesAndNamesMayBeAnyText) {
    contract::InWorld([] {
        EXPECT_TRUE(platform::CreateDirectoryA(InFolder("\xC3\xBC\xE2\x82\xAC").c_str(), nullptr));
        MakeFile(InFolder("\xC3\xBC\xE2\x82\xAC\\\xF0\x9F\x98\x80 name"), "one");
        EXPECT_EQ(Contents(InFolder("\xC3\xBC\xE2\x82\xAC/\xF0\x9F\x98\x80 name")), "one");
    });
}

TEST(Files, FoldersAreMadeOneAtATime) {
    contract::InWorld([] {
        EXPECT_FALSE(platform::CreateDirectoryA(InFolder("a\\b").c_str(), nullptr));
        EXPECT_TRUE(platform::CreateDirectoryA(InFolder("a").c_str(), nullptr));
        EXPECT_TRUE(platform::CreateDirectoryA(InFolder("a\\b").c_str(), nullptr));
        MakeFile(InFolder("file"), "");
        for (const char* lpszTaken : {"a", "file"}) {
            EXPECT_FALSE(platform::CreateDirectoryA(InFolder(lpszTaken).c_str(), nullptr));
            EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        }
    });
}

TEST(Files, AMoveRefusesATargetUnlessToldToReplaceIt) {
    contract::InWorld([] {
        const std::string strFrom = InFolder("from");
        const std::string strTo = InFolder("to");
        MakeFile(strFrom, "new");
        EXPECT_TRUE(platform::MoveFileA(strFrom.c_str(), strTo.c_str()));
        EXPECT_FALSE(Exists(strFrom));
        EXPECT_EQ(Contents(strTo), "new");
        EXPECT_FALSE(platform::MoveFileA(strFrom.c_str(), strTo.c_str())) << "no source";

        MakeFile(strFrom, "newer");
        EXPECT_FALSE(platform::MoveFileA(strFrom.c_str(), strTo.c_str()));
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        EXPECT_EQ(Contents(strTo), "new");
        EXPECT_EQ(Contents(strFrom), "newer");

        EXPECT_TRUE(
            platform::MoveFileExA(strFrom.c_str(), strTo.c_str(), MOVEFILE_REPLACE_EXISTING));
        EXPECT_FALSE(Exists(strFrom));
        EXPECT_EQ(Contents(strTo), "newer");
        EXPECT_FALSE(
            platform::MoveFileExA(strFrom.c_str(), strTo.c_str(), MOVEFILE_REPLACE_EXISTING))
            << "no source";
        EXPECT_EQ(Contents(strTo), "newer");

        MakeFile(strFrom, "newest");
        EXPECT_TRUE(platform::CreateDirectoryA(InFolder("folder").c_str(), nullptr));
        EXPECT_FALSE(platform::MoveFileExA(strFrom.c_str(), InFolder("folder").c_str(),
                                           MOVEFILE_REPLACE_EXISTING));
        EXPECT_EQ(Contents(strFrom), "newest");
    });
}

TEST(Files, AReadOnlyOneStaysUntilItIsMadeWritable) {
    contract::InWorld([] {
        const std::string strPath = InFolder("file");
        MakeFile(strPath, "kept");
        EXPECT_TRUE(platform::SetFileAttributesA(strPath.c_str(), FILE_ATTRIBUTE_READONLY));
        EXPECT_FALSE(platform::DeleteFileA(strPath.c_str()));
        EXPECT_EQ(Open(strPath, GENERIC_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
        EXPECT_EQ(Open(strPath, GENERIC_WRITE, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
        MakeFile(InFolder("other"), "other");
        EXPECT_FALSE(platform::MoveFileExA(InFolder("other").c_str(), strPath.c_str(),
                                           MOVEFILE_REPLACE_EXISTING));
        EXPECT_EQ(Contents(strPath), "kept");
        EXPECT_EQ(Contents(InFolder("other")), "other");
        EXPECT_TRUE(platform::SetFileAttributesA(strPath.c_str(), FILE_ATTRIBUTE_NORMAL));
        EXPECT_TRUE(platform::DeleteFileA(strPath.c_str()));
        EXPECT_FALSE(Exists(strPath));
        EXPECT_FALSE(platform::DeleteFileA(strPath.c_str())) << "missing";
        EXPECT_FALSE(platform::SetFileAttributesA(strPath.c_str(), FILE_ATTRIBUTE_NORMAL));
        EXPECT_TRUE(platform::CreateDirectoryA(strPath.c_str(), nullptr));
        EXPECT_FALSE(platform::DeleteFileA(strPath.c_str())) << "a folder";
    });
}

TEST(Files, TemporaryNamesAreNewEmptyAndNeverTooLong) {
    contract::InWorld([] {
        std::set<std::string> names;
        for (const char* lpszPrefix : {"name.txt", "name.txt", "", ".hidden", "\xC3\xBC\xC3\xBC"}) {
            char szPath[MAX_PATH];
            ASSERT_NE(platform::GetTempFileNameA(contract::Folder().c_str(), lpszPrefix, 0, szPath),
                      0U);
            EXPECT_TRUE(names.insert(szPath).second) << szPath;
            EXPECT_TRUE(std::string(szPath).starts_with(contract::Folder()));
            EXPECT_EQ(Contents(szPath), "");
            EXPECT_TRUE(platform::DeleteFileA(szPath));
        }
        char szPath[MAX_PATH];
        EXPECT_EQ(platform::GetTempFileNameA(InFolder("missing").c_str(), "a", 0, szPath), 0U);
        EXPECT_EQ(platform::GetTempFileNameA(std::string(300, 'f').c_str(), "a", 0, szPath), 0U);
    });
}

TEST(Files, TemporaryNamesNeverOverrunTheirRoom) {
    contract::InWorld([] {
        std::string strFolder = contract::Folder();
        while (strFolder.size() < 225) {
            strFolder.append("\\").append(20, 'd');
            ASSERT_TRUE(platform::CreateDirectoryA(strFolder.c_str(), nullptr));
        }
        // Folders of every length around the one for which nothing is left.
        for (std::size_t nLength = strFolder.size() + 2; nLength < MAX_PATH; ++nLength) {
            std::string strLong = strFolder;
            strLong.append("\\").resize(nLength, 'e');
            platform::CreateDirectoryA(strLong.c_str(), nullptr);
            struct {
                char szPath[MAX_PATH] = {};
                char guard[4] = {1, 2, 3, 4};
            } target;
            if (platform::GetTempFileNameA(strLong.c_str(), "prefix", 0, target.szPath) != 0) {
                EXPECT_LT(::strnlen(target.szPath, MAX_PATH), MAX_PATH);
                EXPECT_EQ(Contents(target.szPath), "");
            } else {
                EXPECT_GT(nLength, 225U) << "there was room enough";
            }
            EXPECT_EQ(target.guard[0], 1);
        }
    });
}

TEST(Files, KeepTheTimesTheyAreGiven) {
    contract::InWorld([] {
        const std::uint64_t times[] = {
            116444736000000000,     // 1970
            116444736000000000 - 1, // the unit before
            115000000000000000,     // 1965
            127000000012345678,     // 2003, with a fraction
            137000000000000001,     // 2035
        };
        MakeFile(InFolder("file"), "abc");
        const auto fileTime = [](std::uint64_t qwTime) {
            return FILETIME{static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
        };
        const auto number = [](const FILETIME& time) {
            return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
        };
        for (const std::uint64_t qwTime : times) {
            const FILETIME ftCreation = fileTime(qwTime - 50000000000);
            const FILETIME ftWrite = fileTime(qwTime);
            HANDLE hFile = Open(InFolder("file"), GENERIC_WRITE, OPEN_EXISTING);
            EXPECT_TRUE(platform::SetFileTime(hFile, &ftCreation, nullptr, &ftWrite));
            CloseHandle(hFile);
            hFile = Open(InFolder("file"), GENERIC_READ, OPEN_EXISTING);
            FILETIME ftCreated{};
            FILETIME ftWritten{};
            EXPECT_TRUE(platform::GetFileTime(hFile, &ftCreated, nullptr, &ftWritten));
            EXPECT_EQ(number(ftWritten), qwTime);
            EXPECT_EQ(number(ftCreated), qwTime - 50000000000);
            EXPECT_TRUE(platform::GetFileTime(hFile, nullptr, nullptr, nullptr));
            CloseHandle(hFile);
        }
        // One that is not given stays.
        const FILETIME ftNew = fileTime(127000000000000000);
        HANDLE hFile = Open(InFolder("file"), GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
        FILETIME ftCreated{};
        FILETIME ftWritten{};
        EXPECT_TRUE(platform::SetFileTime(hFile, &ftNew, nullptr, nullptr));
        EXPECT_TRUE(platform::GetFileTime(hFile, &ftCreated, nullptr, &ftWritten));
        EXPECT_EQ(number(ftCreated), number(ftNew));
        EXPECT_EQ(number(ftWritten), times[4]);
        // A time of zero leaves that time alone; one beyond the last is no time.
        const FILETIME zero{};
        const FILETIME beyond{0, 0x80000000};
        EXPECT_TRUE(platform::SetFileTime(hFile, &zero, &zero, &zero));
        EXPECT_FALSE(platform::SetFileTime(hFile, &ftNew, nullptr, &beyond));
        EXPECT_TRUE(platform::GetFileTime(hFile, &ftCreated, nullptr, &ftWritten));
        EXPECT_EQ(number(ftCreated), number(ftNew));
        EXPECT_EQ(number(ftWritten), times[4]);
        CloseHandle(hFile);
    });
}

TEST(Files, TheVolumeTellsItsRoom) {
    contract::InWorld([] {
        std::uint64_t qwFree = 0;
        EXPECT_TRUE(
            platform::GetDiskFreeSpaceExA(contract::Folder().c_str(), &qwFree, nullptr, nullptr));
        EXPECT_GT(qwFree, 0U);
        std::uint64_t qwTotal = 0;
        std::uint64_t qwTotalFree = 0;
        EXPECT_TRUE(platform::GetDiskFreeSpaceExA(contract::Folder().c_str(), nullptr, &qwTotal,
                                                  &qwTotalFree));
        EXPECT_LE(qwTotalFree, qwTotal);
        EXPECT_FALSE(
            platform::GetDiskFreeSpaceExA(InFolder("missing").c_str(), &qwFree, nullptr, nullptr));
    });
}

// Memory and text -------------------------------------------------------------------------------

TEST(Memory, IsZeroWhereverItComesFrom) {
    contract::InWorld([] {
        for (int i = 0; i < 3; ++i) {
            platform::CLocalBuffer buffer(100000);
            ASSERT_TRUE(buffer);
            EXPECT_EQ(std::count(buffer.Get(), buffer.Get() + 100000, 0), 100000);
            std::memset(buffer.Get(), 0xEE, 100000);
        }
        EXPECT_EQ(platform::LocalFree(nullptr), nullptr);
    });
}

TEST(Text, GoesToUtf16AndBack) {
    contract::InWorld([] {
        const struct {
            const char* lpszNarrow;
            const WCHAR* lpszWide;
        } rows[] = {
            {"", u""},
            {"plain\\text", u"plain\\text"},
            {"\x7F\xC2\x80\xDF\xBF", u"\x7F\x80\x7FF"},
            {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", u"\x800\xD7FF\xE000\xFFFD"},
            {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\xD800\xDC00\xDBFF\xDFFF"},
        };
        for (const auto& row : rows) {
            const std::u16string strWide = row.lpszWide;
            const std::string strNarrow = row.lpszNarrow;
            WCHAR wide[32];
            char narrow[32];
            const auto nWide = static_cast<int>(strWide.size() + 1);
            const auto nNarrow = static_cast<int>(strNarrow.size() + 1);
            EXPECT_EQ(platform::MultiByteToWideChar(CP_ACP, 0, row.lpszNarrow, -1, wide, 32),
                      nWide);
            EXPECT_EQ(std::u16string(wide), strWide);
            BOOL bReplaced = TRUE;
            EXPECT_EQ(platform::WideCharToMultiByte(CP_ACP, 0, row.lpszWide, -1, narrow, 32,
                                                    nullptr, &bReplaced),
                      nNarrow);
            EXPECT_EQ(std::string(narrow), strNarrow);
            EXPECT_FALSE(bReplaced);

            // Every room that is too small is refused and not overrun; the exact one serves.
            for (int nRoom = 1; nRoom <= nWide; ++nRoom) {
                wide[nRoom] = 0x5555;
                const bool bFits = nRoom == nWide;
                EXPECT_EQ(platform::MultiByteToWideChar(CP_ACP, 0, row.lpszNarrow, -1, wide, nRoom),
                          bFits ? nWide : 0);
                EXPECT_TRUE(bFits || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
                EXPECT_EQ(wide[nRoom], 0x5555);
            }
            for (int nRoom = 1; nRoom <= nNarrow; ++nRoom) {
                narrow[nRoom] = 0x55;
                const bool bFits = nRoom == nNarrow;
                EXPECT_EQ(platform::WideCharToMultiByte(CP_ACP, 0, row.lpszWide, -1, narrow, nRoom,
                                                        nullptr, nullptr),
                          bFits ? nNarrow : 0);
                EXPECT_TRUE(bFits || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
                EXPECT_EQ(narrow[nRoom], 0x55);
            }
        }
    });
}

TEST(Text, ReplacesWhatIsMalformed) {
    contract::InWorld([] {
        for (const WCHAR* lpszWide : {u"a\xD800", u"a\xDC00z", u"\xDBFF\xDBFF\xDFFF", u"\xD800z"}) {
            char narrow[32];
            BOOL bReplaced = FALSE;
            EXPECT_GT(platform::WideCharToMultiByte(CP_ACP, 0, lpszWide, -1, narrow, 32, nullptr,
                                                    &bReplaced),
                      0);
            EXPECT_TRUE(bReplaced);
        }
        const char* const rows[] = {"\x80",
                                    "\xBFz",
                                    "\xC0\xAF",
                                    "\xC1\xBF",
                                    "\xC3",
                                    "\xC3z",
                                    "\xE2\x82",
                                    "\xE0\x80\x80",
                                    "\xED\xA0\x80",
                                    "\xF0\x9F\x98",
                                    "\xF0\x80\x80\x80",
                                    "\xF4\x90\x80\x80",
                                    "\xF5\x80\x80\x80",
                                    "\xFF"};
        for (const char* lpszNarrow : rows) {
            WCHAR wide[32];
            const std::string strText = std::string("a") + lpszNarrow;
            const int nWritten =
                platform::MultiByteToWideChar(CP_ACP, 0, strText.c_str(), -1, wide, 32);
            ASSERT_GT(nWritten, 2) << lpszNarrow;
            EXPECT_EQ(wide[0], u'a');
            EXPECT_EQ(wide[1], 0xFFFD);
            EXPECT_EQ(wide[nWritten - 1], 0);
            EXPECT_EQ(wide[nWritten - 2] == u'z', strText.back() == 'z') << "a byte too many";
        }
        char szCopy[8] = "1234567";
        EXPECT_EQ(platform::lstrcpyA(szCopy, "abc"), szCopy);
        EXPECT_STREQ(szCopy, "abc");
        EXPECT_EQ(szCopy[4], '5');
    });
}

// Processes and registry ------------------------------------------------------------------------

TEST(Processes, AreWalkedToTheEndAndAgain) {
    contract::InWorld([] {
        HANDLE hSnapshot = platform::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        ASSERT_NE(hSnapshot, nullptr);
        for (int nWalk = 0; nWalk < 2; ++nWalk) {
            std::set<DWORD> ids;
            platform::PROCESSENTRY32 entry{};
            BOOL bMore = platform::Process32First(hSnapshot, &entry);
            while (bMore != FALSE) {
                EXPECT_TRUE(ids.insert(entry.th32ProcessID).second) << "listed twice";
                const std::size_t nLength = ::strnlen(entry.szExeFile, sizeof(entry.szExeFile));
                EXPECT_GT(nLength, 0U);
                EXPECT_LT(nLength, sizeof(entry.szExeFile));
                bMore = platform::Process32Next(hSnapshot, &entry);
            }
            EXPECT_FALSE(platform::Process32Next(hSnapshot, &entry)) << "behind the last";
        }
        EXPECT_TRUE(CloseHandle(hSnapshot));
        platform::PROCESSENTRY32 entry{};
        EXPECT_FALSE(platform::Process32First(hSnapshot, &entry));
        EXPECT_EQ(platform::OpenProcess(PROCESS_TERMINATE, FALSE, 0x7FFFFFF0), nullptr);
        EXPECT_FALSE(platform::TerminateProcess(nullptr, 0));
    });
}

TEST(Registry, HasTheProcessorsSpeed) {
    contract::InWorld([] {
        constexpr char KEY[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
        contract::SetCpuMHz(847);
        HKEY hKey = nullptr;
        ASSERT_EQ(platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, KEY_READ, &hKey), 0);
        for (const char* lpszName : {"~MHZ", "~MHz", "~mhz"}) {
            DWORD dwType = 0;
            DWORD dwMHz = 0;
            DWORD dwSize = sizeof(dwMHz);
            EXPECT_EQ(platform::RegQueryValueExA(hKey, lpszName, nullptr, &dwType,
                                                 reinterpret_cast<BYTE*>(&dwMHz), &dwSize),
                      0);
            EXPECT_EQ(dwType, REG_DWORD);
            EXPECT_EQ(dwSize, 4U);
            EXPECT_EQ(dwMHz, 847U);
        }
        // Without a number the value is missing, unless the platform knows the processor itself.
        contract::SetCpuMHz({});
        for (const char* lpszName : {"~MHZ", "Identifier"}) {
            DWORD dwValue = 0x12345678;
            DWORD dwType = 0;
            DWORD dwSize = sizeof(dwValue);
            const LONG nResult = platform::RegQueryValueExA(
                hKey, lpszName, nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue), &dwSize);
            EXPECT_EQ(nResult != 0, dwValue == 0x12345678);
            EXPECT_TRUE(nResult != 0 || (dwType == REG_DWORD && dwValue != 0));
        }
        EXPECT_EQ(platform::RegCloseKey(hKey), 0);
        EXPECT_NE(platform::RegCloseKey(hKey), 0);
        DWORD dwSize = 0;
        EXPECT_NE(platform::RegQueryValueExA(hKey, "~MHZ", nullptr, nullptr, nullptr, &dwSize), 0);
        EXPECT_NE(platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE", 0, KEY_READ, &hKey), 0);
    });
}

// Messages --------------------------------------------------------------------------------------

TEST(Messages, ArriveInTheirOrderOrAreRefused) {
    contract::InWorld([] {
        HWND hWnd = platform::CreateMessageWindow();
        ASSERT_NE(hWnd, nullptr);
        platform::WINDOWMESSAGE message{};
        const std::uint64_t qwStart = contract::NowMs();
        EXPECT_FALSE(platform::WaitWindowMessage(hWnd, 30, &message));
        EXPECT_GE(contract::NowMs() - qwStart + 1, 30U);
        EXPECT_TRUE(platform::PostMessageA(hWnd, 3028, 0, 0));
        EXPECT_TRUE(platform::PostMessageA(hWnd, WM_USER, 7, -9));
        EXPECT_TRUE(platform::WaitWindowMessage(hWnd, 0, &message));
        EXPECT_EQ(message.message, 3028U);
        EXPECT_TRUE(platform::WaitWindowMessage(hWnd, INFINITE, &message));
        EXPECT_EQ(message.message, WM_USER);
        EXPECT_EQ(message.wParam, 7U);
        EXPECT_EQ(message.lParam, -9);
        EXPECT_FALSE(platform::WaitWindowMessage(hWnd, 0, &message));

        CTask poster([hWnd] {
            platform::Sleep(SETTLE_MS);
            EXPECT_TRUE(platform::PostMessageA(hWnd, 3028, 1, 2));
        });
        EXPECT_TRUE(platform::WaitWindowMessage(hWnd, AT_ONCE_MS, &message));
        EXPECT_EQ(message.lParam, 2);

        EXPECT_TRUE(poster.EndsWithin(AT_ONCE_MS));
        EXPECT_TRUE(platform::DestroyMessageWindow(hWnd));
        for (HWND hGone : {hWnd, HWND{nullptr}}) {
            EXPECT_FALSE(platform::PostMessageA(hGone, 3028, 0, 0));
            EXPECT_FALSE(platform::WaitWindowMessage(hGone, 0, &message));
            EXPECT_FALSE(platform::DestroyMessageWindow(hGone));
            EXPECT_EQ(platform::GetMessageWindowDescriptor(hGone), -1);
        }
    });
}

// The device ------------------------------------------------------------------------------------

constexpr GUID DEVICE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};

HDEVINFO PresentDevices(const GUID& guid = DEVICE_CLASS) {
    return platform::SetupDiGetClassDevsA(&guid, nullptr, nullptr,
                                          DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
}

bool GetInterface(HDEVINFO hSet, DWORD dwIndex, platform::SP_DEVICE_INTERFACE_DATA& data) {
    data = {};
    data.cbSize = sizeof(data);
    return platform::SetupDiEnumDeviceInterfaces(hSet, nullptr, &DEVICE_CLASS, dwIndex, &data) !=
           FALSE;
}

bool IsPresent(const GUID& guid = DEVICE_CLASS) {
    HDEVINFO hSet = PresentDevices(guid);
    EXPECT_NE(hSet, INVALID_HANDLE_VALUE);
    platform::SP_DEVICE_INTERFACE_DATA data;
    const bool bPresent = GetInterface(hSet, 0, data);
    EXPECT_TRUE(platform::SetupDiDestroyDeviceInfoList(hSet));
    return bPresent;
}

std::string DevicePath() {
    HDEVINFO hSet = PresentDevices();
    platform::SP_DEVICE_INTERFACE_DATA data;
    EXPECT_TRUE(GetInterface(hSet, 0, data));
    DWORD dwSize = 0;
    EXPECT_FALSE(
        platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, nullptr, 0, &dwSize, nullptr));
    EXPECT_GT(dwSize, platform::DETAIL_PATH_OFFSET + 1);
    std::vector<std::uint64_t> memory(dwSize / 8 + 1);
    auto* lpDetail = reinterpret_cast<platform::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(memory.data());
    lpDetail->cbSize = platform::DETAIL_RECORD_SIZE;
    EXPECT_TRUE(platform::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwSize, nullptr,
                                                           nullptr));
    const char* lpszPath = reinterpret_cast<char*>(memory.data()) + platform::DETAIL_PATH_OFFSET;
    EXPECT_EQ(std::strlen(lpszPath), dwSize - platform::DETAIL_PATH_OFFSET - 1);
    EXPECT_TRUE(platform::SetupDiDestroyDeviceInfoList(hSet));
    return lpszPath;
}

HANDLE OpenDevice(const std::string& strPath) {
    return CreateFileA(strPath.c_str(), GENERIC_READ | GENERIC_WRITE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// A transfer as the library makes them: on a thread of its own, stopped at its time-out. Nothing
// when it failed or was stopped.
std::optional<Bytes> ReadNode(HANDLE hNode, DWORD dwSize, DWORD dwTimeoutMs = AT_ONCE_MS) {
    Bytes buffer(dwSize);
    DWORD dwCount = 0;
    BOOL bDone = FALSE;
    CTask task([&] { bDone = ReadFile(hNode, buffer.data(), dwSize, &dwCount); });
    if (!task.EndsWithin(dwTimeoutMs)) {
        EXPECT_TRUE(TerminateThread(task.Handle(), 0));
    }
    if (bDone == FALSE) {
        EXPECT_EQ(dwCount, 0U) << "stored, though the read failed";
        return std::nullopt;
    }
    buffer.resize(dwCount);
    return buffer;
}

bool WriteNode(HANDLE hNode, const Bytes& package, DWORD dwTimeoutMs = AT_ONCE_MS) {
    const auto dwSize = static_cast<DWORD>(package.size());
    DWORD dwCount = 0;
    BOOL bDone = FALSE;
    CTask task([&] { bDone = WriteFile(hNode, package.data(), dwSize, &dwCount); });
    if (!task.EndsWithin(dwTimeoutMs)) {
        EXPECT_TRUE(TerminateThread(task.Handle(), 0));
    }
    EXPECT_EQ(dwCount, bDone != FALSE ? dwSize : 0U);
    return bDone != FALSE;
}

Bytes Pattern(std::size_t nSize, int nSeed) {
    Bytes bytes(nSize);
    for (std::size_t i = 0; i < nSize; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + static_cast<std::size_t>(nSeed) + (i >> 8));
    }
    return bytes;
}

TEST(Device, IsPresentWhileItIsPlugged) {
    contract::InWorld([] {
        EXPECT_FALSE(IsPresent());
        contract::PlugDevice();
        EXPECT_TRUE(IsPresent());
        HDEVINFO hSet = PresentDevices();
        platform::SP_DEVICE_INTERFACE_DATA data;
        EXPECT_TRUE(GetInterface(hSet, 0, data));
        EXPECT_FALSE(GetInterface(hSet, 1, data));
        EXPECT_TRUE(platform::SetupDiDestroyDeviceInfoList(hSet));
        EXPECT_FALSE(platform::SetupDiDestroyDeviceInfoList(hSet)) << "destroyed";
        EXPECT_FALSE(GetInterface(hSet, 0, data));

        const std::string strPath = DevicePath();
        HANDLE hNode = OpenDevice(strPath);
        EXPECT_NE(hNode, INVALID_HANDLE_VALUE);
        contract::UnplugDevice();
        EXPECT_FALSE(IsPresent());
        EXPECT_FALSE(WriteNode(hNode, Pattern(20, 1)));
        EXPECT_FALSE(ReadNode(hNode, 20));
        EXPECT_TRUE(CloseHandle(hNode));
        EXPECT_EQ(OpenDevice(strPath), INVALID_HANDLE_VALUE);
        contract::PlugDevice();
        EXPECT_TRUE(IsPresent());
    });
}

TEST(Device, EveryWriteIsOnePackage) {
    contract::InWorld([] {
        contract::PlugDevice();
        HANDLE hNode = OpenDevice(DevicePath());
        const std::vector<Bytes> packages = {Pattern(20, 1), Pattern(12288, 2), Pattern(8, 3),
                                             Pattern(1, 4), Pattern(12288, 5)};
        for (const Bytes& package : packages) {
            EXPECT_TRUE(WriteNode(hNode, package));
        }
        EXPECT_EQ(contract::DeviceTook(), packages);
        EXPECT_TRUE(CloseHandle(hNode));
        EXPECT_FALSE(WriteNode(hNode, packages[0])) << "closed";
    });
}

TEST(Device, AReadTakesOfOnePackageWhatItWants) {
    contract::InWorld([] {
        contract::PlugDevice();
        HANDLE hNode = OpenDevice(DevicePath());
        const Bytes package = Pattern(12288, 1);
        contract::DeviceGives(Pattern(8, 9));
        contract::DeviceGives(package);
        contract::DeviceGives(Pattern(5, 7));
        EXPECT_EQ(ReadNode(hNode, 12288), Pattern(8, 9)) << "no two packages in one read";
        EXPECT_EQ(ReadNode(hNode, 14), Bytes(package.begin(), package.begin() + 14));
        EXPECT_EQ(ReadNode(hNode, 12288), Bytes(package.begin() + 14, package.end()));
        EXPECT_EQ(ReadNode(hNode, 5), Pattern(5, 7));
        EXPECT_EQ(ReadNode(hNode, 8, SETTLE_MS), std::nullopt) << "nothing there";
        EXPECT_TRUE(CloseHandle(hNode));
    });
}

TEST(Device, AReadWaitsForItsPackage) {
    contract::InWorld([] {
        contract::PlugDevice();
        HANDLE hNode = OpenDevice(DevicePath());
        std::optional<Bytes> read;
        CTask reader([&] {
            Bytes buffer(100);
            DWORD dwCount = 0;
            if (ReadFile(hNode, buffer.data(), 100, &dwCount) != FALSE) {
                buffer.resize(dwCount);
                read = buffer;
            }
        });
        EXPECT_FALSE(reader.EndsWithin(SETTLE_MS));
        contract::DeviceGives(Pattern(20, 3));
        EXPECT_TRUE(reader.EndsWithin(AT_ONCE_MS));
        EXPECT_EQ(read, Pattern(20, 3));
        EXPECT_TRUE(CloseHandle(hNode));
    });
}

TEST(Device, AStoppedReadLosesNothing) {
    contract::InWorld([] {
        contract::PlugDevice();
        HANDLE hNode = OpenDevice(DevicePath());
        for (DWORD i = 0; i < 5; ++i) {
            EXPECT_EQ(ReadNode(hNode, 12288, i), std::nullopt);
        }
        // A write in between must not mind either.
        EXPECT_TRUE(WriteNode(hNode, Pattern(20, 0)));
        const Bytes package = Pattern(3000, 1);
        contract::DeviceGives(package);
        Bytes all;
        for (int i = 0; i < 1000 && all.size() < package.size(); ++i) {
            // Some of these are stopped before the bytes come, some after, some in between.
            const auto part = ReadNode(hNode, 500, static_cast<DWORD>(i % 3));
            if (part) {
                all.insert(all.end(), part->begin(), part->end());
            }
        }
        EXPECT_EQ(all, package);
        EXPECT_EQ(contract::DeviceTook().size(), 1U);
        EXPECT_TRUE(CloseHandle(hNode));
    });
}

TEST(Device, AStoppedWriteLeavesThePipeUsable) {
    contract::InWorld([] {
        contract::PlugDevice();
        HANDLE hNode = OpenDevice(DevicePath());
        EXPECT_TRUE(WriteNode(hNode, Pattern(20, 0)));
        contract::DeviceTakes(false);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(WriteNode(hNode, Pattern(12288, i), SETTLE_MS));
        }
        EXPECT_EQ(contract::DeviceTook().size(), 1U);
        contract::DeviceGives(Pattern(8, 4));
        EXPECT_EQ(ReadNode(hNode, 8), Pattern(8, 4));
        contract::DeviceTakes(true);
        EXPECT_TRUE(WriteNode(hNode, Pattern(12288, 9)));
        EXPECT_EQ(contract::DeviceTook().back(), Pattern(12288, 9));
        EXPECT_TRUE(CloseHandle(hNode));
    });
}

TEST(Device, APipeEndsWithItsHandle) {
    contract::InWorld([] {
        contract::PlugDevice();
        const std::string strPath = DevicePath();
        for (int i = 0; i < 3; ++i) {
            HANDLE hNode = OpenDevice(strPath);
            ASSERT_NE(hNode, INVALID_HANDLE_VALUE);
            EXPECT_TRUE(WriteNode(hNode, Pattern(20, i)));
            EXPECT_EQ(ReadNode(hNode, 8, 1), std::nullopt);
            EXPECT_TRUE(CloseHandle(hNode));
        }
        EXPECT_EQ(contract::DeviceTook().size(), 3U);
    });
}

} // namespace
