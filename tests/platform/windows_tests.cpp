// What is this system's own behind the seam: names that it reads more into, code pages, and the
// lock between processes.
#include "tests/platform/contract_world.h"
#include "tests/platform/start_program.h"

#include "platform/file.h"
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/text.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr char LOCK_NAME[] = "DakTestLock";
constexpr char HELD_EVENT[] = "DakTestLockIsHeld";
constexpr DWORD AT_ONCE_MS = 20000;

bool Makes(const std::string& strPath) {
    const HANDLE hFile =
        platform::CreateFileA(strPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return hFile != INVALID_HANDLE_VALUE && platform::CloseHandle(hFile) != FALSE;
}

int EntryCount(const std::string& strFolder) {
    WIN32_FIND_DATAA entry;
    const HANDLE hFind = ::FindFirstFileA((strFolder + "\\*").c_str(), &entry);
    int nCount = 0;
    do {
        const std::string strName = entry.cFileName;
        nCount += strName != "." && strName != ".." ? 1 : 0;
    } while (::FindNextFileA(hFind, &entry) != FALSE);
    ::FindClose(hFind);
    return nCount;
}

TEST(Names, ThatMeanAnythingButThemselvesAreRefused) {
    contract::InWorld([] {
        const std::string strFolder = contract::Folder() + "\\";
        const std::string strGood = strFolder + "good";
        ASSERT_TRUE(Makes(strGood));
        const std::string names[] = {
            strFolder + "good:stream",
            strFolder + "new:stream",
            strFolder + "good.",
            strFolder + "good ",
            strFolder + "good. .",
            strFolder + "...",
            strFolder + "x.\\..\\new",
            strFolder + "NUL",
            strFolder + "nul.txt",
            strFolder + "com1",
            strFolder + "Aux .txt",
            strFolder + "lpt9.tar.gz",
            strFolder + "a\tb",
            strFolder + "a?",
            "NUL",
            "CONIN$",
            "\\\\.\\pipe\\dak",
            "//./pipe/dak",
            "\\\\?\\" + strFolder + "new",
            "\\\\localhost\\PIPE\\dak",
            "\\\\.\\NUL",
            "\\??\\" + strFolder + "new",
        };
        for (const std::string& strName : names) {
            EXPECT_FALSE(Makes(strName)) << strName;
            EXPECT_EQ(platform::GetLastError(), ERROR_INVALID_NAME) << strName;
            const char* lpszName = strName.c_str();
            EXPECT_FALSE(
                platform::MoveFileExA(strGood.c_str(), lpszName, MOVEFILE_REPLACE_EXISTING));
            EXPECT_FALSE(platform::MoveFileA(strGood.c_str(), lpszName));
            EXPECT_FALSE(platform::MoveFileA(lpszName, (strFolder + "moved").c_str()));
            EXPECT_FALSE(platform::CreateDirectoryA(lpszName, nullptr));
            EXPECT_FALSE(platform::DeleteFileA(lpszName));
            EXPECT_FALSE(platform::SetFileAttributesA(lpszName, FILE_ATTRIBUTE_READONLY));
        }
        EXPECT_EQ(EntryCount(contract::Folder()), 1);
        for (const char* lpszName : {".\\..hidden", "a.b c", "nulls", "con1.txt"}) {
            EXPECT_TRUE(Makes(strFolder + lpszName)) << lpszName;
        }
    });
}

// The beginning of a temporary file's name is none of the device's business.
TEST(Names, OfATemporaryFileMeanNothingElse) {
    contract::InWorld([] {
        int nFiles = 0;
        for (const char* lpszPrefix : {"ab:c", "1:x", "ab\xF0\x9F\x98\x80", "..\\x", "NUL", ""}) {
            char szPath[MAX_PATH];
            ASSERT_NE(platform::GetTempFileNameA(contract::Folder().c_str(), lpszPrefix, 0, szPath),
                      0U)
                << lpszPrefix;
            EXPECT_EQ(EntryCount(contract::Folder()), ++nFiles) << lpszPrefix;
            EXPECT_TRUE(Makes(szPath)) << szPath;
            EXPECT_EQ(EntryCount(contract::Folder()), nFiles) << szPath;
        }
    });
}

TEST(Messages, TheEndOfTheThreadsLoopIsLeftToIt) {
    const HWND hWnd = platform::CreateMessageWindow();
    ::PostQuitMessage(7);
    platform::PostMessageA(hWnd, 3028, 1, 2);
    platform::WINDOWMESSAGE message{};
    EXPECT_TRUE(platform::WaitWindowMessage(hWnd, AT_ONCE_MS, &message));
    EXPECT_EQ(message.message, 3028U);
    EXPECT_FALSE(platform::WaitWindowMessage(hWnd, AT_ONCE_MS, &message));
    MSG quit;
    EXPECT_TRUE(::PeekMessageA(&quit, nullptr, 0, 0, PM_REMOVE) != FALSE &&
                quit.message == WM_QUIT && quit.wParam == 7);
    EXPECT_TRUE(platform::DestroyMessageWindow(hWnd));
}

TEST(Names, AFolderIsNoPlaceToWriteTo) {
    contract::InWorld([] {
        EXPECT_FALSE(Makes(contract::Folder()));
        EXPECT_FALSE(Makes(contract::Folder() + "\\"));
        EXPECT_FALSE(Makes(contract::Folder() + "\\."));
    });
}

TEST(CodePages, WhatTheyCannotHoldCountsAsReplaced) {
    const struct {
        UINT uCodePage;
        const WCHAR* lpszText;
        bool bReplaced;
    } rows[] = {
        {1252, L"plain \x20AC\xFC", false},
        {1252, L"\x65E5", true},
        {1252, L"\xFF0F", true}, // only looks like a slash
        {1252, L"\x0100", true},
        {932, L"\x65E5", false},
        {CP_UTF8, L"\x65E5\xD83D\xDE00", false},
        {CP_UTF8, L"\xDE00", true},
    };
    for (const auto& row : rows) {
        char szNarrow[32];
        BOOL bReplaced = 7;
        EXPECT_GT(platform::WideCharToMultiByte(row.uCodePage, 0, row.lpszText, -1, szNarrow,
                                                sizeof(szNarrow), nullptr, &bReplaced),
                  0);
        EXPECT_EQ(bReplaced != FALSE, row.bReplaced) << (&row - rows);
    }
}

// Not a test: the other process of the one below.
TEST(OtherProcess, DISABLED_HoldsTheLock) {
    const HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, LOCK_NAME);
    ASSERT_EQ(platform::WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
    ::SetEvent(::OpenEventA(EVENT_MODIFY_STATE, FALSE, HELD_EVENT));
    platform::Sleep(2 * AT_ONCE_MS); // until it is killed
}

TEST(Lock, OfAProcessEndsWithItHoweverItEnds) {
    const HANDLE hHeld = ::CreateEventA(nullptr, TRUE, FALSE, HELD_EVENT);
    wchar_t szProgram[MAX_PATH];
    ::GetModuleFileNameW(nullptr, szProgram, MAX_PATH);
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(windows_test::StartProgram(
        std::wstring(L"\"") + szProgram +
            L"\" --gtest_also_run_disabled_tests --gtest_filter=*HoldsTheLock",
        process));
    EXPECT_EQ(::WaitForSingleObject(hHeld, AT_ONCE_MS), WAIT_OBJECT_0);

    HANDLE hLock = platform::CreateMutexA(nullptr, FALSE, LOCK_NAME);
    EXPECT_EQ(platform::GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 10), WAIT_TIMEOUT);
    EXPECT_TRUE(platform::CloseHandle(hLock));
    ::TerminateProcess(process.hProcess, 1);
    EXPECT_EQ(::WaitForSingleObject(process.hProcess, AT_ONCE_MS), WAIT_OBJECT_0);
    hLock = platform::CreateMutexA(nullptr, FALSE, LOCK_NAME);
    EXPECT_EQ(platform::GetLastError(), 0U);
    EXPECT_EQ(platform::WaitForSingleObject(hLock, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(platform::CloseHandle(hLock));
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(hHeld);
}

} // namespace
