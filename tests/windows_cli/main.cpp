// A console of this program's own, whose screen, keys and Ctrl-C are a test's to command.
#include "tests/windows_cli/dak_process.h"

namespace windows_cli {
namespace {

BOOL WINAPI IgnoreInterrupts(DWORD /*dwEvent*/) {
    return TRUE; // meant for the command, which shares the console
}

void MakeConsole() {
    const HANDLE streams[] = {::GetStdHandle(STD_INPUT_HANDLE), ::GetStdHandle(STD_OUTPUT_HANDLE),
                              ::GetStdHandle(STD_ERROR_HANDLE)};
    ::FreeConsole();
    ::AllocConsole();
    ::SetStdHandle(STD_INPUT_HANDLE, streams[0]);
    ::SetStdHandle(STD_OUTPUT_HANDLE, streams[1]);
    ::SetStdHandle(STD_ERROR_HANDLE, streams[2]);
    ::SetConsoleCtrlHandler(IgnoreInterrupts, TRUE);
    const HANDLE hScreen = OpenConsole(L"CONOUT$");
    ::SetConsoleScreenBufferSize(hScreen, {100, 300});
    const SMALL_RECT window{0, 0, 99, 24};
    ::SetConsoleWindowInfo(hScreen, TRUE, &window);
    ::CloseHandle(hScreen);
}

} // namespace

std::wstring ScreenText() {
    const HANDLE hScreen = OpenConsole(L"CONOUT$");
    CONSOLE_SCREEN_BUFFER_INFO info{};
    ::GetConsoleScreenBufferInfo(hScreen, &info);
    std::wstring strText(static_cast<std::size_t>(info.dwSize.X) *
                             static_cast<std::size_t>(info.dwCursorPosition.Y + 1),
                         L'\0');
    DWORD dwRead = 0;
    ::ReadConsoleOutputCharacterW(hScreen, strText.data(), static_cast<DWORD>(strText.size()),
                                  {0, 0}, &dwRead);
    ::CloseHandle(hScreen);
    strText.resize(dwRead);
    return strText;
}

void TypeKeys(const std::wstring& strKeys) {
    const HANDLE hKeys = OpenConsole(L"CONIN$");
    for (const wchar_t chKey : strKeys) {
        INPUT_RECORD record{};
        record.EventType = KEY_EVENT;
        record.Event.KeyEvent.wRepeatCount = 1;
        record.Event.KeyEvent.wVirtualKeyCode = chKey == L'\r' ? VK_RETURN : 0;
        record.Event.KeyEvent.uChar.UnicodeChar = chKey;
        for (const BOOL bDown : {TRUE, FALSE}) {
            record.Event.KeyEvent.bKeyDown = bDown;
            DWORD dwWritten = 0;
            EXPECT_TRUE(::WriteConsoleInputW(hKeys, &record, 1, &dwWritten));
        }
    }
    ::CloseHandle(hKeys);
}

} // namespace windows_cli

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    windows_cli::MakeConsole();
    return RUN_ALL_TESTS();
}
