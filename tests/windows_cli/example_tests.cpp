// The example of an application with a window, on a device.
#include "tests/windows_end_to_end/world.h"

#include <array>
#include <string>

namespace windows_cli {
namespace {

namespace fs = std::filesystem;
using windows_end_to_end::EDirection;
using windows_end_to_end::Eventually;
using windows_end_to_end::ExpectSameTree;
using windows_end_to_end::File;
using windows_end_to_end::ReadTree;
using windows_end_to_end::TREE;

class Example : public windows_end_to_end::CWorldTest {
  protected:
    Example() {
        WriteTree(OnHost("tree"), m_tree);
        Plug();
    }

    windows_end_to_end::CProgram Start(const char* lpszFolder = "tree") const {
        return windows_end_to_end::CProgram(windows_end_to_end::ProgramFolder() / "copy_window.exe",
                                            {OnHost(lpszFolder).wstring(), L"\\Docs"});
    }

    static HWND Window() { return ::FindWindowW(L"DakCopyWindow", nullptr); }

    // Whether the window says so.
    static bool Shows(const std::wstring& strText) {
        const HWND hText = ::FindWindowExW(Window(), nullptr, L"Static", nullptr);
        std::array<wchar_t, 300> szText{};
        DWORD_PTR dwChars = 0;
        ::SendMessageTimeoutW(hText, WM_GETTEXT, szText.size(),
                              reinterpret_cast<LPARAM>(szText.data()), SMTO_NORMAL, 5000, &dwChars);
        return std::wstring(szText.data()).find(strText) != std::wstring::npos;
    }

    static void Press(int nButton) {
        ::PostMessageW(Window(), WM_COMMAND, static_cast<WPARAM>(nButton), 0);
    }

    const TREE m_tree = {{L"a", File(1000, 1)}, {L"b\\\x6F22", File(3'000'000, 2)}};
    const TREE m_begun = {{L"a", File(1000, 1)}};
};

TEST_F(Example, CopiesAndSaysSo) {
    const auto program = Start();
    EXPECT_TRUE(Eventually([] { return Shows(L"Files copied: 2."); }));
    ExpectSameTree(ReadTree(OnDevice("Docs")), m_tree);
    Press(IDCANCEL); // "Close" by now
    EXPECT_EQ(program.End(), 0U);
}

TEST_F(Example, SaysWhatDidNotGo) {
    fs::create_directory(OnHost("empty"));
    const HANDLE hHeld = ::CreateFileW((OnHost("tree") / "a").c_str(), GENERIC_READ, 0, nullptr,
                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    const struct {
        const char* lpszFolder;
        const wchar_t* lpszText;
    } rows[] = {
        {"none", L"cannot be read: error "},
        {"empty", L"has no file"},
        {"tree", L"Files copied: 1. Left out, unreadable or by their names: 1."},
    };
    for (const auto& row : rows) {
        const auto program = Start(row.lpszFolder);
        EXPECT_TRUE(Eventually([&] { return Shows(row.lpszText); })) << row.lpszFolder;
        Press(IDCANCEL);
        EXPECT_EQ(program.End(), 1U) << row.lpszFolder;
    }
    ::CloseHandle(hHeld);
    EXPECT_EQ(ReadTree(OnDevice("Docs")).size(), 1U);
}

TEST_F(Example, ItsButtonCancels) {
    m_pAgent->HangAt({EDirection::ToDevice, 130});
    const auto program = Start();
    ASSERT_TRUE(Eventually([] { return Shows(L"tree"); })); // the file in work
    ASSERT_TRUE(Eventually([&] { return m_pAgent->HasStopped(); }));
    Press(IDCANCEL);
    ASSERT_TRUE(Eventually([] { return Shows(L"Cancelling"); }));
    m_pAgent->GoOn();
    EXPECT_TRUE(Eventually([] { return Shows(L"Cancelled."); }));
    ::PostMessageW(Window(), WM_CLOSE, 0, 0);
    EXPECT_EQ(program.End(), 1U);
    ExpectSameTree(ReadTree(OnDevice("Docs")), m_begun);
}

TEST_F(Example, ClosedInTheMiddleItGoesWithTheJobsEnd) {
    m_pAgent->HangAt({EDirection::ToDevice, 130});
    const auto program = Start();
    ASSERT_TRUE(Eventually([&] { return m_pAgent->HasStopped(); }));
    ASSERT_TRUE(Eventually([] { return Shows(L"tree"); }));
    ::PostMessageW(Window(), WM_CLOSE, 0, 0);
    ASSERT_TRUE(Eventually([] { return Shows(L"Cancelling"); }));
    EXPECT_TRUE(program.IsRunning());
    m_pAgent->GoOn();
    EXPECT_EQ(program.End(), 1U);
    ExpectSameTree(ReadTree(OnDevice("Docs")), m_begun);
}

} // namespace
} // namespace windows_cli
