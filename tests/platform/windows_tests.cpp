// What is this system's own behind the seam: names that it reads more into, the ends of message
// loops, and code pages.
#include "platform/message.h"
#include "platform/message_window.h"
#include "platform/text.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"
#include "tests/support/temp_folder.h"

namespace platform::tests {

static bool Makes(const std::string& strPath) {
    return Opens(strPath, GENERIC_WRITE, CREATE_ALWAYS);
}

CONTRACT_TEST(Names, ThatMeanAnythingButThemselvesAreRefused) {
    const std::string strFolder = contract::Folder() + "\\";
    const std::string strGood = strFolder + "good";
    EXPECT_TRUE(Makes(strGood));
    std::vector<std::string> names = {"NUL",
                                      "\\\\.\\pipe\\dak",
                                      "//./pipe/dak",
                                      "\\\\localhost\\PIPE\\dak",
                                      "\\\\?\\" + strFolder + "new",
                                      "\\??\\" + strFolder + "new"};
    for (const char* lpszName :
         {"good:stream", "good.", "good ", "good. .", "...", "x.\\..\\new", "nul.txt", "com0.txt",
          "Aux .txt", "lpt9.tar.gz", "CONIN$", "a\tb", "a?"}) {
        names.push_back(strFolder + lpszName);
    }
    for (const std::string& strName : names) {
        SCOPED_TRACE(strName);
        const char* lpszName = strName.c_str();
        EXPECT_TRUE(!Makes(strName) && GetLastError() == ERROR_INVALID_NAME);
        EXPECT_FALSE(MoveFileExA(strGood.c_str(), lpszName, MOVEFILE_REPLACE_EXISTING) ||
                     MoveFileA(strGood.c_str(), lpszName) ||
                     MoveFileA(lpszName, (strFolder + "moved").c_str()) ||
                     CreateDirectoryA(lpszName, nullptr) || DeleteFileA(lpszName) ||
                     SetFileAttributesA(lpszName, FILE_ATTRIBUTE_READONLY));
    }
    EXPECT_FALSE(Makes(contract::Folder()) || Makes(strFolder) || Makes(strFolder + "."));
    EXPECT_EQ(test::ReadTree(contract::Folder()).size(), 1U);
    for (const char* lpszName : {".\\..hidden", "a.b c", "nulls", "con1.txt"}) {
        EXPECT_TRUE(Makes(strFolder + lpszName)) << lpszName;
    }
}

// The place through which this program calls the system, and what stands there where a transfer of
// the node under test is cancelled.
extern "C" decltype(&::CancelIoEx) __imp_CancelIoEx;
static const auto g_cancel = __imp_CancelIoEx;
static HANDLE g_hNode = nullptr;
static bool g_bDelivers = false;
static int g_nCancels = 0;

static BOOL WINAPI Cancel(HANDLE hFile, OVERLAPPED* lpOverlapped) {
    if (hFile != g_hNode) {
        return g_cancel(hFile, lpOverlapped);
    }
    ++g_nCancels;
    if (g_bDelivers) {
        contract::DeviceGives(Pattern(20));
    }
    return TRUE;
}
static void SetCancel(decltype(&::CancelIoEx) cancel) {
    DWORD dwBefore = 0;
    ::VirtualProtect(&__imp_CancelIoEx, sizeof(cancel), PAGE_READWRITE, &dwBefore);
    __imp_CancelIoEx = cancel;
}

// Whether the device delivers in the middle of a cancel or the driver never finishes one: the stop
// is a stop, and what comes all the same is kept.
CONTRACT_TEST(Node, NoCancelHoldsTheCallerOrLosesBytes) {
    contract::PlugDevice();
    SetCancel(Cancel);
    for (const bool bDelivers : {true, false}) {
        SCOPED_TRACE(bDelivers);
        g_hNode = OpenDevice();
        g_bDelivers = bDelivers;
        g_nCancels = 0;
        // On a busy machine the stop can come ahead of the read.
        for (int i = 0; i < 10 && g_nCancels == 0; ++i) {
            EXPECT_TRUE(CTransfer(g_hNode, 12).IsStopped());
        }
        EXPECT_EQ(g_nCancels, 1);
        if (!bDelivers) {
            contract::DeviceGives(Pattern(20));
        }
        Bytes all;
        for (int i = 0; i < 5 && all.size() < 20; ++i) {
            CTransfer read(g_hNode, 8);
            EXPECT_TRUE(read.Succeeds());
            all = test::Join(all, read.Data());
        }
        EXPECT_EQ(all, Pattern(20));
        EXPECT_TRUE(bDelivers || CTransfer(g_hNode, 12).IsStopped());
        EXPECT_TRUE(CloseHandle(g_hNode)) << "though a transfer may be left behind";
    }
    SetCancel(g_cancel);
}

TEST(WindowsMessages, TheEndOfTheThreadsLoopIsLeftToIt) {
    const HWND hWnd = CreateMessageWindow();
    ::PostQuitMessage(7);
    platform::PostMessageA(hWnd, 3028, 1, 2);
    WINDOWMESSAGE message{};
    EXPECT_TRUE(WaitWindowMessage(hWnd, AT_ONCE_MS, &message) && message.message == 3028);
    EXPECT_FALSE(WaitWindowMessage(hWnd, AT_ONCE_MS, &message));
    MSG quit;
    EXPECT_TRUE(::PeekMessageA(&quit, nullptr, 0, 0, PM_REMOVE) != FALSE &&
                quit.message == WM_QUIT && quit.wParam == 7);
    EXPECT_TRUE(DestroyMessageWindow(hWnd));
}

TEST(WindowsCodePages, WhatTheyCannotHoldCountsAsReplaced) {
    const struct {
        UINT uCodePage;
        const WCHAR* lpszText;
        BOOL bReplaced;
    } rows[] = {
        {1252, L"plain \x20AC\xFC", FALSE},
        {1252, L"\x65E5", TRUE},
        {1252, L"\xFF0F", TRUE}, // only looks like a slash
        {932, L"\x65E5", FALSE},
        {CP_UTF8, L"\x65E5\xD83D\xDE00", FALSE},
        {CP_UTF8, L"\xDE00", TRUE},
    };
    for (const auto& [uCodePage, lpszText, bReplaced] : rows) {
        char szNarrow[32];
        BOOL bSaid = 7;
        EXPECT_GT(WideCharToMultiByte(uCodePage, 0, lpszText, -1, szNarrow, 32, nullptr, &bSaid),
                  0);
        EXPECT_EQ(bSaid, bReplaced) << lpszText;
    }
}

} // namespace platform::tests
