// The contract of the seam, as tests: the same for every implementation, each of which brings its
// world (contract_world.h). They say nothing that the contract leaves open, and their upper bounds
// on time are loose, as not every clock is exact.
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"

#include "platform/memory.h"
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"

#include <algorithm>
#include <set>

namespace {

using namespace platform_test;
using platform::CloseHandle;
using platform::CreateMutexA;
using platform::GetLastError;
using platform::ReadFile;
using platform::TerminateThread;
using platform::WaitForSingleObject;
using platform::WriteFile;

// A test whose body runs in a world of its own.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CONTRACT_TEST(suite, name)                                                                 \
    void suite##name();                                                                            \
    TEST(suite, name) {                                                                            \
        contract::InWorld(suite##name);                                                            \
    }                                                                                              \
    void suite##name()

constexpr DWORD FOR_AGES_MS = 600000;

std::string InFolder(const std::string& strName) {
    return contract::Folder() + "\\" + strName;
}

bool Exists(const std::string& strPath) {
    HANDLE hFile = Open(strPath);
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
    HANDLE hFile = Open(strPath);
    char szBuffer[256];
    DWORD dwCount = 0;
    const BOOL bRead = ReadFile(hFile, szBuffer, sizeof(szBuffer), &dwCount);
    CloseHandle(hFile);
    return bRead != FALSE ? std::string(szBuffer, dwCount) : "(unreadable)";
}

// Handles ---------------------------------------------------------------------------------------

CONTRACT_TEST(Handles, ThatAreNotOpenOrOfAnotherKindAreRefused) {
    MakeFile(InFolder("a"), "abc");
    // Made first: a system may give a closed handle's number to the next one.
    HANDLE hLock = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE hClosed = Open(InFolder("a"));
    ASSERT_NE(hClosed, INVALID_HANDLE_VALUE);
    ASSERT_NE(hClosed, nullptr);
    EXPECT_TRUE(CloseHandle(hClosed));
    for (HANDLE hBad : {hClosed, HANDLE{nullptr}, INVALID_HANDLE_VALUE, hLock}) {
        char ch = 'x';
        DWORD dwCount = 77;
        FILETIME time{};
        EXPECT_FALSE(ReadFile(hBad, &ch, 1, &dwCount));
        EXPECT_TRUE(hBad == hLock || GetLastError() == ERROR_INVALID_HANDLE);
        EXPECT_FALSE(WriteFile(hBad, &ch, 1, &dwCount));
        EXPECT_EQ(dwCount, 77U);
        EXPECT_EQ(platform::GetFileSize(hBad, nullptr), INVALID_FILE_SIZE);
        EXPECT_EQ(platform::SetFilePointer(hBad, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
        EXPECT_FALSE(platform::GetFileTime(hBad, &time, nullptr, nullptr));
        EXPECT_FALSE(platform::SetFileTime(hBad, &time, nullptr, nullptr));
        EXPECT_EQ(platform::ResumeThread(hBad), 0xFFFFFFFF);
        EXPECT_FALSE(TerminateThread(hBad, 0));
        EXPECT_FALSE(platform::ReleaseMutex(hBad));
        EXPECT_EQ(WaitForSingleObject(hBad, 0), hBad == hLock ? WAIT_OBJECT_0 : WAIT_FAILED);
        EXPECT_EQ(CloseHandle(hBad), hBad == hLock ? TRUE : FALSE);
    }
    HANDLE hFile = Open(InFolder("a"));
    EXPECT_FALSE(platform::ReleaseMutex(hFile));
    EXPECT_EQ(platform::ResumeThread(hFile), 0xFFFFFFFF);
    EXPECT_TRUE(CloseHandle(hFile));
}

CONTRACT_TEST(Handles, TheErrorNumberIsTheThreadsOwn) {
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
}

// Threads and waits -----------------------------------------------------------------------------

CONTRACT_TEST(Threads, AWaitEndsWithTheThreadOrAtItsTimeOut) {
    int nResult = 0;
    const std::uint64_t qwStart = contract::NowMs();
    CTask task([&] {
        platform::Sleep(0);
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
}

CONTRACT_TEST(Threads, ClosingTheHandleDoesNotStopTheThread) {
    static DWORD dwEnded;
    dwEnded = 0;
    const auto run = [](void*) -> DWORD {
        platform::Sleep(SETTLE_MS);
        std::atomic_ref<DWORD>(dwEnded).store(1);
        platform::WakeByAddressAll(&dwEnded);
        return 0;
    };
    EXPECT_TRUE(CloseHandle(platform::CreateThread(nullptr, 0, run, nullptr, 0, nullptr)));
    while (std::atomic_ref<DWORD>(dwEnded).load() == 0) {
        ASSERT_TRUE(platform::WaitOnAddress(&dwEnded, 0, AT_ONCE_MS));
    }
}

CONTRACT_TEST(Threads, ASuspendedOneRunsWhenItIsResumedAndNotBefore) {
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
}

CONTRACT_TEST(Threads, AStopEndsEveryBlockingCallNowAndLater) {
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
}

CONTRACT_TEST(Threads, AWordIsWaitedForUntilItChangesOrTimeIsOver) {
    static DWORD dwWord;
    dwWord = 1;
    EXPECT_TRUE(platform::WaitOnAddress(&dwWord, 2, INFINITE)) << "it differs already";
    const std::uint64_t qwStart = contract::NowMs();
    while (platform::WaitOnAddress(&dwWord, 1, 30) != FALSE) {
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
}

// The lock --------------------------------------------------------------------------------------

CONTRACT_TEST(Lock, TellsWhetherItExisted) {
    const auto make = [](const char* lpszName, DWORD dwError) {
        HANDLE hLock = CreateMutexA(nullptr, FALSE, lpszName);
        EXPECT_NE(hLock, nullptr);
        EXPECT_EQ(GetLastError(), dwError);
        return hLock;
    };
    HANDLE hFirst = make("TheLock", 0);
    HANDLE hSecond = make("TheLock", ERROR_ALREADY_EXISTS);
    HANDLE hOther = make("TheOtherLock", 0);
    HANDLE hUnnamed = make(nullptr, 0);
    EXPECT_TRUE(CloseHandle(hFirst));
    HANDLE hThird = make("TheLock", ERROR_ALREADY_EXISTS); // the second handle is still open
    for (HANDLE hLock : {hSecond, hOther, hUnnamed, hThird}) {
        EXPECT_TRUE(CloseHandle(hLock));
    }
    EXPECT_TRUE(CloseHandle(make("TheLock", 0))); // nobody has it open
}

CONTRACT_TEST(Lock, IsHeldOnceAndByNoThreadInParticular) {
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
}

CONTRACT_TEST(Lock, ItsHandlesShareTheHoldAndTheLastOneEndsIt) {
    HANDLE hFirst = CreateMutexA(nullptr, FALSE, "TheLock");
    HANDLE hSecond = CreateMutexA(nullptr, FALSE, "TheLock");
    EXPECT_EQ(WaitForSingleObject(hFirst, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(hFirst));
    CTask task([&] { EXPECT_EQ(WaitForSingleObject(hSecond, 10), WAIT_TIMEOUT); });
    EXPECT_TRUE(task.EndsWithin(AT_ONCE_MS));
    EXPECT_TRUE(CloseHandle(hSecond));
    HANDLE hNew = CreateMutexA(nullptr, FALSE, "TheLock");
    EXPECT_EQ(WaitForSingleObject(hNew, 0), WAIT_OBJECT_0);
    // A waiter that is stopped takes nothing.
    CTask waiter([&] { EXPECT_EQ(WaitForSingleObject(hNew, INFINITE), WAIT_FAILED); });
    EXPECT_TRUE(waiter.IsStoppedWhileBlocked());
    EXPECT_TRUE(platform::ReleaseMutex(hNew));
    EXPECT_EQ(WaitForSingleObject(hNew, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(hNew));
}

// Files -----------------------------------------------------------------------------------------

Bytes Pattern(std::size_t nSize, int nSeed = 0) {
    Bytes bytes(nSize);
    for (std::size_t i = 0; i < nSize; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + static_cast<std::size_t>(nSeed) + (i >> 8));
    }
    return bytes;
}

CONTRACT_TEST(Files, AreWrittenAndReadAtThePosition) {
    HANDLE hFile = Open(InFolder("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(hFile, INVALID_HANDLE_VALUE);
    const Bytes pattern = Pattern(700001);
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
    EXPECT_EQ(platform::SetFilePointer(hFile, -1, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_TRUE(CloseHandle(hFile));
}

CONTRACT_TEST(Files, OpenAsAsked) {
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
    EXPECT_EQ(Open(contract::Folder()), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(""), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(InFolder("no folder\\file"), GENERIC_WRITE, CREATE_ALWAYS),
              INVALID_HANDLE_VALUE);

    // And transfer only what they were opened for.
    char ch = 'x';
    DWORD dwCount = 77;
    HANDLE hRead = Open(strOld);
    EXPECT_FALSE(WriteFile(hRead, &ch, 1, &dwCount));
    CloseHandle(hRead);
    HANDLE hWrite = Open(strOld, GENERIC_WRITE);
    EXPECT_FALSE(ReadFile(hWrite, &ch, 1, &dwCount));
    CloseHandle(hWrite);
    EXPECT_EQ(dwCount, 77U);
}

CONTRACT_TEST(Files, FoldersAreMadeOneAtATimeWithNamesOfAnyText) {
    EXPECT_FALSE(platform::CreateDirectoryA(InFolder("a\\b").c_str(), nullptr));
    EXPECT_TRUE(platform::CreateDirectoryA(InFolder("a").c_str(), nullptr));
    EXPECT_TRUE(platform::CreateDirectoryA(InFolder("a\\\xC3\xBC\xE2\x82\xAC").c_str(), nullptr));
    // Either slash separates.
    MakeFile(InFolder("a\\\xC3\xBC\xE2\x82\xAC/\xF0\x9F\x98\x80 name"), "one");
    EXPECT_EQ(Contents(InFolder("a/\xC3\xBC\xE2\x82\xAC\\\xF0\x9F\x98\x80 name")), "one");
    MakeFile(InFolder("file"), "");
    for (const char* lpszTaken : {"a", "file"}) {
        EXPECT_FALSE(platform::CreateDirectoryA(InFolder(lpszTaken).c_str(), nullptr));
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    }
}

CONTRACT_TEST(Files, AMoveRefusesATargetUnlessToldToReplaceIt) {
    const std::string strFrom = InFolder("from");
    const std::string strTo = InFolder("to");
    const std::string strFolder = InFolder("folder");
    const auto move = [&] { return platform::MoveFileA(strFrom.c_str(), strTo.c_str()); };
    const auto replace = [&](const std::string& strTarget) {
        return platform::MoveFileExA(strFrom.c_str(), strTarget.c_str(), MOVEFILE_REPLACE_EXISTING);
    };
    MakeFile(strFrom, "new");
    EXPECT_TRUE(move());
    EXPECT_FALSE(Exists(strFrom));
    EXPECT_EQ(Contents(strTo), "new");
    EXPECT_FALSE(move()) << "no source";

    MakeFile(strFrom, "newer");
    EXPECT_FALSE(move());
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Contents(strTo), "new");
    EXPECT_EQ(Contents(strFrom), "newer");
    EXPECT_TRUE(replace(strTo));
    EXPECT_FALSE(Exists(strFrom));
    EXPECT_FALSE(replace(strTo)) << "no source";
    EXPECT_EQ(Contents(strTo), "newer");

    MakeFile(strFrom, "newest");
    EXPECT_TRUE(platform::CreateDirectoryA(strFolder.c_str(), nullptr));
    EXPECT_FALSE(replace(strFolder));
    EXPECT_EQ(Contents(strFrom), "newest");
}

CONTRACT_TEST(Files, AReadOnlyOneStaysUntilItIsMadeWritable) {
    const std::string strPath = InFolder("file");
    const std::string strOther = InFolder("other");
    const auto mark = [&](DWORD dwAttributes) {
        return platform::SetFileAttributesA(strPath.c_str(), dwAttributes);
    };
    MakeFile(strPath, "kept");
    EXPECT_TRUE(mark(FILE_ATTRIBUTE_READONLY));
    EXPECT_FALSE(platform::DeleteFileA(strPath.c_str()));
    EXPECT_EQ(Open(strPath, GENERIC_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(strPath, GENERIC_WRITE, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
    MakeFile(strOther, "other");
    EXPECT_FALSE(
        platform::MoveFileExA(strOther.c_str(), strPath.c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(Contents(strPath), "kept");
    EXPECT_EQ(Contents(strOther), "other");
    EXPECT_TRUE(mark(FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(platform::DeleteFileA(strPath.c_str()));
    EXPECT_FALSE(Exists(strPath));
    EXPECT_FALSE(platform::DeleteFileA(strPath.c_str())) << "missing";
    EXPECT_FALSE(mark(FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(platform::CreateDirectoryA(strPath.c_str(), nullptr));
    EXPECT_FALSE(platform::DeleteFileA(strPath.c_str())) << "a folder";
}

CONTRACT_TEST(Files, TemporaryNamesAreNewEmptyAndNeverTooLong) {
    char szPath[MAX_PATH];
    const auto make = [&](const std::string& strFolder, const char* lpszPrefix) {
        return platform::GetTempFileNameA(strFolder.c_str(), lpszPrefix, 0, szPath);
    };
    std::set<std::string> names;
    for (const char* lpszPrefix : {"name.txt", "name.txt", "", ".hidden", "\xC3\xBC\xC3\xBC"}) {
        ASSERT_NE(make(contract::Folder(), lpszPrefix), 0U);
        EXPECT_TRUE(names.insert(szPath).second) << szPath;
        EXPECT_TRUE(std::string(szPath).starts_with(contract::Folder()));
        EXPECT_EQ(Contents(szPath), "");
    }
    EXPECT_EQ(make(InFolder("missing"), "a"), 0U);
    EXPECT_EQ(make(std::string(300, 'f'), "a"), 0U);

    // Folders of every length around the one for which nothing is left.
    std::string strFolder = contract::Folder();
    while (strFolder.size() < 225) {
        strFolder.append("\\").append(20, 'd');
        ASSERT_TRUE(platform::CreateDirectoryA(strFolder.c_str(), nullptr));
    }
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
}

CONTRACT_TEST(Files, KeepTheTimesTheyAreGiven) {
    const auto fileTime = [](std::uint64_t qwTime) {
        return FILETIME{static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
    };
    const auto number = [](const FILETIME& time) {
        return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    };
    MakeFile(InFolder("file"), "abc");
    HANDLE hFile = Open(InFolder("file"), GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
    const bool bKept = contract::CreationTimesAreKept();
    const auto expectTimes = [&](std::uint64_t qwCreated, std::uint64_t qwWritten) {
        FILETIME ftCreated{};
        FILETIME ftWritten{};
        EXPECT_TRUE(platform::GetFileTime(hFile, &ftCreated, nullptr, &ftWritten));
        EXPECT_TRUE(!bKept || number(ftCreated) == qwCreated);
        EXPECT_EQ(number(ftWritten), qwWritten);
    };
    constexpr std::uint64_t LATEST = 137000000000000001; // 2035
    for (const std::uint64_t qwTime : {
             std::uint64_t{116444736000000000}, // 1970
             std::uint64_t{116444735999999999}, // the unit before
             std::uint64_t{115000000000000000}, // 1965
             std::uint64_t{127000000012345678}, // 2003, with a fraction
             LATEST,
         }) {
        const FILETIME ftCreation = fileTime(qwTime - 50000000000);
        const FILETIME ftWrite = fileTime(qwTime);
        EXPECT_TRUE(platform::SetFileTime(hFile, &ftCreation, nullptr, &ftWrite));
        expectTimes(qwTime - 50000000000, qwTime);
    }
    // One that is not given, or is zero, stays; one beyond the last is no time.
    const FILETIME ftNew = fileTime(127000000000000000);
    const FILETIME zero{};
    const FILETIME beyond{0, 0x80000000};
    EXPECT_TRUE(platform::SetFileTime(hFile, &ftNew, nullptr, nullptr));
    expectTimes(number(ftNew), LATEST);
    EXPECT_TRUE(platform::SetFileTime(hFile, &zero, &zero, &zero));
    EXPECT_FALSE(platform::SetFileTime(hFile, &beyond, nullptr, &beyond));
    expectTimes(number(ftNew), LATEST);
    EXPECT_TRUE(platform::GetFileTime(hFile, nullptr, nullptr, nullptr));
    CloseHandle(hFile);
}

CONTRACT_TEST(Files, TheVolumeTellsItsRoom) {
    std::uint64_t qwFree = 0;
    std::uint64_t qwTotal = 0;
    std::uint64_t qwTotalFree = 0;
    const std::string strFolder = contract::Folder();
    EXPECT_TRUE(platform::GetDiskFreeSpaceExA(strFolder.c_str(), &qwFree, nullptr, nullptr));
    EXPECT_GT(qwFree, 0U);
    EXPECT_TRUE(platform::GetDiskFreeSpaceExA(strFolder.c_str(), nullptr, &qwTotal, &qwTotalFree));
    EXPECT_LE(qwTotalFree, qwTotal);
    EXPECT_FALSE(
        platform::GetDiskFreeSpaceExA(InFolder("missing").c_str(), &qwFree, nullptr, nullptr));
}

// Memory and text -------------------------------------------------------------------------------

CONTRACT_TEST(Memory, IsZeroWhereverItComesFrom) {
    for (int i = 0; i < 3; ++i) {
        platform::CLocalBuffer buffer(100000);
        ASSERT_TRUE(buffer);
        EXPECT_EQ(std::count(buffer.Get(), buffer.Get() + 100000, 0), 100000);
        std::memset(buffer.Get(), 0xEE, 100000);
    }
    EXPECT_EQ(platform::LocalFree(nullptr), nullptr);
}

// Converts with room for every number of units up to the right one: any smaller room is refused
// and not overrun.
template <class UNIT, class CONVERT>
std::basic_string<UNIT> Converted(int nUnits, const CONVERT& convert) {
    UNIT units[32];
    for (int nRoom = 1; nRoom <= nUnits; ++nRoom) {
        units[nRoom] = 0x55;
        EXPECT_EQ(convert(units, nRoom), nRoom == nUnits ? nUnits : 0);
        EXPECT_TRUE(nRoom == nUnits || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(units[nRoom], 0x55);
    }
    return units;
}

CONTRACT_TEST(Text, GoesToUtf16AndBack) {
    const std::pair<std::string, std::basic_string<WCHAR>> rows[] = {
        {"", DAK_WIDE("")},
        {"plain\\text", DAK_WIDE("plain\\text")},
        {"\x7F\xC2\x80\xDF\xBF", DAK_WIDE("\x7F\x80\x7FF")},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", DAK_WIDE("\x800\xD7FF\xE000\xFFFD")},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", DAK_WIDE("\xD800\xDC00\xDBFF\xDFFF")},
    };
    for (const auto& [strNarrow, strWide] : rows) {
        const auto toWide = [&](WCHAR* lpTarget, int nRoom) {
            return platform::MultiByteToWideChar(CP_ACP, 0, strNarrow.c_str(), -1, lpTarget, nRoom);
        };
        BOOL bReplaced = TRUE;
        const auto toNarrow = [&](char* lpTarget, int nRoom) {
            return platform::WideCharToMultiByte(CP_ACP, 0, strWide.c_str(), -1, lpTarget, nRoom,
                                                 nullptr, &bReplaced);
        };
        EXPECT_EQ(Converted<WCHAR>(static_cast<int>(strWide.size() + 1), toWide), strWide);
        EXPECT_EQ(Converted<char>(static_cast<int>(strNarrow.size() + 1), toNarrow), strNarrow);
        EXPECT_FALSE(bReplaced);
    }
    char szCopy[8] = "1234567";
    EXPECT_EQ(platform::lstrcpyA(szCopy, "abc"), szCopy);
    EXPECT_STREQ(szCopy, "abc");
    EXPECT_EQ(szCopy[4], '5');
}

CONTRACT_TEST(Text, ReplacesWhatIsMalformed) {
    for (const WCHAR* lpszWide : {DAK_WIDE("a\xD800"), DAK_WIDE("a\xDC00z"),
                                  DAK_WIDE("\xDBFF\xDBFF\xDFFF"), DAK_WIDE("\xD800z")}) {
        char narrow[32];
        BOOL bReplaced = FALSE;
        EXPECT_GT(
            platform::WideCharToMultiByte(CP_ACP, 0, lpszWide, -1, narrow, 32, nullptr, &bReplaced),
            0);
        EXPECT_TRUE(bReplaced);
    }
    for (const char* lpszNarrow :
         {"\x80", "\xBFz", "\xC0\xAF", "\xC1\xBF", "\xC3", "\xC3z", "\xE2\x82", "\xE0\x80\x80",
          "\xED\xA0\x80", "\xF0\x9F\x98", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80",
          "\xF5\x80\x80\x80", "\xFF"}) {
        WCHAR wide[32];
        const std::string strText = std::string("a") + lpszNarrow;
        const int nWritten =
            platform::MultiByteToWideChar(CP_ACP, 0, strText.c_str(), -1, wide, 32);
        ASSERT_GT(nWritten, 2) << lpszNarrow;
        EXPECT_EQ(wide[0], DAK_WIDE('a'));
        EXPECT_EQ(wide[1], 0xFFFD);
        EXPECT_EQ(wide[nWritten - 1], 0);
        EXPECT_EQ(wide[nWritten - 2] == DAK_WIDE('z'), strText.back() == 'z') << "a byte too many";
    }
}

// Processes and registry ------------------------------------------------------------------------

CONTRACT_TEST(Processes, AreWalkedToTheEndAndAgain) {
    HANDLE hSnapshot = platform::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    ASSERT_NE(hSnapshot, nullptr);
    platform::PROCESSENTRY32 entry{};
    for (int nWalk = 0; nWalk < 2; ++nWalk) {
        std::set<DWORD> ids;
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
    EXPECT_FALSE(platform::Process32First(hSnapshot, &entry));
    EXPECT_EQ(platform::OpenProcess(PROCESS_TERMINATE, FALSE, 0x7FFFFFF0), nullptr);
    EXPECT_FALSE(platform::TerminateProcess(nullptr, 0));
}

CONTRACT_TEST(Registry, HasTheProcessorsSpeed) {
    constexpr char KEY[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
    HKEY hKey = nullptr;
    EXPECT_NE(platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "MISSING", 0, KEY_READ, &hKey), 0);
    ASSERT_EQ(platform::RegOpenKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, KEY_READ, &hKey), 0);
    DWORD dwType = 0;
    DWORD dwMHz = 0;
    DWORD dwSize = 0;
    const auto query = [&](const char* lpszName) {
        dwType = 0;
        dwMHz = 0x12345678;
        dwSize = sizeof(dwMHz);
        return platform::RegQueryValueExA(hKey, lpszName, nullptr, &dwType,
                                          reinterpret_cast<BYTE*>(&dwMHz), &dwSize);
    };
    contract::SetCpuMHz(847);
    for (const char* lpszName : {"~MHZ", "~MHz", "~mhz"}) {
        EXPECT_EQ(query(lpszName), 0);
        EXPECT_EQ(dwType, REG_DWORD);
        EXPECT_EQ(dwSize, 4U);
        EXPECT_EQ(dwMHz, 847U);
    }
    // Without a number the value is missing, unless the platform knows the processor itself.
    contract::SetCpuMHz({});
    for (const char* lpszName : {"~MHZ", "Identifier"}) {
        const LONG nResult = query(lpszName);
        EXPECT_EQ(nResult != 0, dwMHz == 0x12345678);
        EXPECT_TRUE(nResult != 0 || (dwType == REG_DWORD && dwMHz != 0));
    }
    EXPECT_EQ(platform::RegCloseKey(hKey), 0);
    EXPECT_NE(platform::RegCloseKey(hKey), 0);
    EXPECT_NE(query("~MHZ"), 0);
}

// Messages --------------------------------------------------------------------------------------

CONTRACT_TEST(Messages, ArriveInTheirOrderOrAreRefused) {
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
}

// The device ------------------------------------------------------------------------------------

// A transfer as the library makes them: on a thread of its own, stopped at its time-out. False when
// it failed or was stopped, and then nothing has been counted.
template <class TRANSFER>
bool Transfer(DWORD dwTimeoutMs, DWORD& dwCount, const TRANSFER& transfer) {
    BOOL bDone = FALSE;
    CTask task([&] { bDone = transfer(&dwCount); });
    if (!task.EndsWithin(dwTimeoutMs)) {
        task.Stop();
    }
    EXPECT_TRUE(bDone != FALSE || dwCount == 0) << "stored, though the transfer failed";
    return bDone != FALSE;
}

std::optional<Bytes> ReadNode(HANDLE hNode, DWORD dwSize, DWORD dwTimeoutMs = AT_ONCE_MS) {
    Bytes buffer(dwSize);
    DWORD dwCount = 0;
    if (!Transfer(dwTimeoutMs, dwCount, [&](DWORD* lpdwCount) {
            return ReadFile(hNode, buffer.data(), dwSize, lpdwCount);
        })) {
        return std::nullopt;
    }
    buffer.resize(dwCount);
    return buffer;
}

bool WriteNode(HANDLE hNode, const Bytes& package, DWORD dwTimeoutMs = AT_ONCE_MS) {
    const auto dwSize = static_cast<DWORD>(package.size());
    DWORD dwCount = 0;
    const bool bDone = Transfer(dwTimeoutMs, dwCount, [&](DWORD* lpdwCount) {
        return WriteFile(hNode, package.data(), dwSize, lpdwCount);
    });
    EXPECT_EQ(dwCount, bDone ? dwSize : 0U);
    return bDone;
}

HANDLE PlugAndOpen() {
    contract::PlugDevice();
    return OpenDevice(DevicePath().value_or(""));
}

CONTRACT_TEST(Device, IsPresentWhileItIsPlugged) {
    EXPECT_FALSE(DevicePath());
    HANDLE hNode = PlugAndOpen();
    EXPECT_NE(hNode, INVALID_HANDLE_VALUE);
    const std::string strPath = DevicePath().value_or("");
    HDEVINFO hSet = PresentDevices();
    platform::SP_DEVICE_INTERFACE_DATA data;
    EXPECT_TRUE(GetInterface(hSet, 0, data));
    EXPECT_FALSE(GetInterface(hSet, 1, data));
    EXPECT_TRUE(platform::SetupDiDestroyDeviceInfoList(hSet));
    EXPECT_FALSE(platform::SetupDiDestroyDeviceInfoList(hSet)) << "destroyed";
    EXPECT_FALSE(GetInterface(hSet, 0, data));

    contract::UnplugDevice();
    EXPECT_FALSE(DevicePath());
    EXPECT_FALSE(WriteNode(hNode, Pattern(20)));
    EXPECT_FALSE(ReadNode(hNode, 20));
    EXPECT_TRUE(CloseHandle(hNode));
    EXPECT_EQ(OpenDevice(strPath), INVALID_HANDLE_VALUE);
    hNode = PlugAndOpen();
    EXPECT_TRUE(WriteNode(hNode, Pattern(20)));
    EXPECT_TRUE(CloseHandle(hNode));
}

CONTRACT_TEST(Device, EveryWriteIsOnePackage) {
    HANDLE hNode = PlugAndOpen();
    const std::vector<Bytes> packages = {Pattern(20, 1), Pattern(12288, 2), Pattern(8, 3),
                                         Pattern(1, 4), Pattern(12288, 5)};
    for (const Bytes& package : packages) {
        EXPECT_TRUE(WriteNode(hNode, package));
    }
    EXPECT_EQ(contract::DeviceTook(), packages);
    EXPECT_TRUE(CloseHandle(hNode));
    EXPECT_FALSE(WriteNode(hNode, packages[0])) << "closed";
}

CONTRACT_TEST(Device, AReadWaitsAndTakesOfOnePackageWhatItWants) {
    HANDLE hNode = PlugAndOpen();
    const Bytes package = Pattern(12288, 1);
    contract::DeviceGives(Pattern(8, 9));
    contract::DeviceGives(package);
    contract::DeviceGives(Pattern(5, 7));
    EXPECT_EQ(ReadNode(hNode, 12288), Pattern(8, 9)) << "no two packages in one read";
    EXPECT_EQ(ReadNode(hNode, 14), Bytes(package.begin(), package.begin() + 14));
    EXPECT_EQ(ReadNode(hNode, 12288), Bytes(package.begin() + 14, package.end()));
    EXPECT_EQ(ReadNode(hNode, 5), Pattern(5, 7));
    EXPECT_EQ(ReadNode(hNode, 8, SETTLE_MS), std::nullopt) << "nothing there";
    std::optional<Bytes> read;
    CTask reader([&] { read = ReadNode(hNode, 100); });
    EXPECT_FALSE(reader.EndsWithin(SETTLE_MS));
    contract::DeviceGives(Pattern(20, 3));
    EXPECT_TRUE(reader.EndsWithin(AT_ONCE_MS));
    EXPECT_EQ(read, Pattern(20, 3));
    EXPECT_TRUE(CloseHandle(hNode));
}

CONTRACT_TEST(Device, AStoppedReadLosesNothing) {
    HANDLE hNode = PlugAndOpen();
    for (DWORD i = 0; i < 5; ++i) {
        EXPECT_EQ(ReadNode(hNode, 12288, i), std::nullopt);
    }
    // A write in between must not mind either.
    EXPECT_TRUE(WriteNode(hNode, Pattern(20)));
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
}

CONTRACT_TEST(Device, AStoppedWriteLeavesThePipeUsable) {
    HANDLE hNode = PlugAndOpen();
    EXPECT_TRUE(WriteNode(hNode, Pattern(20)));
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
}

} // namespace
