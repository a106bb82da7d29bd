// What proves this system alone.
#include "link/dak_vorn.h"
#include "tests/end_to_end/world.h"

#include <algorithm>

namespace end_to_end {
namespace {

namespace fs = std::filesystem;

// At most two in one go, by name alone and whatever its letters, with the exit code 0; whether
// there is a device or not.
TEST(Windows, ProcessesThatHoldThePipeAreEnded) {
    const CWorld world;
    std::vector<std::unique_ptr<CProgram>> programs;
    for (const char* const lpszName :
         {"WCESCOMM2.exe", "WCESMgr.exe.exe", "WCESCOMM.exe", "other/wcesmgr.EXE", "WCESMgr.exe"}) {
        const fs::path path = world.folder / lpszName;
        fs::create_directories(path.parent_path());
        fs::copy_file(test::PathOf(PathOfProgram("stand_in")), path);
        programs.push_back(std::make_unique<CProgram>(std::vector{test::NameOf(path)}));
        EXPECT_TRUE(Eventually([&] { return programs.back()->Says("begun"); })) << lpszName;
    }
    const auto running = [&] {
        return std::ranges::count_if(programs, [](const auto& p) { return p->IsRunning(); });
    };
    CDAKVorn dak;
    EXPECT_EQ(dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    EXPECT_TRUE(Eventually([&] { return running() == 3; })) << running();
    EXPECT_EQ(dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    EXPECT_TRUE(Eventually([&] { return running() == 2; })) << running();
    for (std::size_t i = 2; i < programs.size(); ++i) {
        EXPECT_EQ(programs[i]->End(), 0) << i;
    }
    EXPECT_TRUE(programs[0]->IsRunning() && programs[1]->IsRunning());
}

// Names that only this system minds, patterns that no shell expands, and a console that shows what
// its code page, which stays as it is, does not have.
TEST(Windows, WordsAreTakenAndShownWhole) {
    const CWorld world;
    world.folder.Write("host", {{"\xC3\xA4.txt", "12"}, {"b.txt", "3"}, {"c.bin", "4"}});
    const struct {
        const char* lpszLine;
        int nExit;
        const char* lpszSaid;
    } rows[] = {
        {"dak push --json *.txt *.none /", 3, "\"path\": \"*.none\""},
        {"dak push --json *.txt /", 3, "\xC3\xA4.txt\""},
        {"dak pull /a:b \\Docs\\NUL .", 1, "left out \\Docs\\NUL: its name is that of a device"},
        {"dak pull /a/Name /b/nAME .", 3, "left out \\b\\nAME: another source"},
        {"dak pull /a Q:\\none", 8, "cannot be made or used"},
        {"dak push \xE6\xBC\xA2\xF0\x9F\x98\x80 /", 1,
         "left out \xE6\xBC\xA2\xF0\x9F\x98\x80: there is"},
    };
    for (const auto& row : rows) {
        const auto pDak = world.Run(row.lpszLine);
        EXPECT_EQ(pDak->End(), row.nExit) << row.lpszLine;
        EXPECT_TRUE(pDak->Says(row.lpszSaid)) << pDak->Output() << pDak->Errors();
        EXPECT_FALSE(pDak->Says("\r"));
    }
    ::SetConsoleOutputCP(437);
    const auto pConsole = MakeTerminal();
    EXPECT_EQ(world.Run("dak push \xC3\xA4\xCE\xBB\xE6\xBC\xA2 /", pConsole->ForProgram())->End(),
              1);
    EXPECT_NE(pConsole->Shown().find("dak: left out \xC3\xA4\xCE\xBB\xE6\xBC\xA2"),
              std::string::npos)
        << pConsole->Shown();
    EXPECT_EQ(::GetConsoleOutputCP(), 437U);
}

// The example with a window: a copy to its end, and one that its window's closing cuts short.
TEST(Windows, AWindowCopies) {
    const CWorld world;
    world.pDevice->Plug();
    world.folder.Write("host/tree", {{"a", "a"}, {"b", std::string(300'000, 'b')}});
    const auto window = [] { return ::FindWindowW(L"DakCopyWindow", nullptr); };
    const auto shows = [&](const wchar_t* lpszText) {
        std::array<wchar_t, 300> szText{};
        DWORD_PTR dwChars = 0;
        ::SendMessageTimeoutW(::FindWindowExW(window(), nullptr, L"Static", nullptr), WM_GETTEXT,
                              szText.size(), reinterpret_cast<LPARAM>(szText.data()), SMTO_NORMAL,
                              5000, &dwChars);
        return std::wstring(szText.data()).find(lpszText) != std::wstring::npos;
    };
    for (const bool bCloses : {true, false}) {
        world.pDevice->HoldAfter(EWay::ToDevice, bCloses ? 100'000 : 1'000'000);
        const auto pWindow = world.Start("copy_window tree \\Docs");
        EXPECT_TRUE(Eventually(
            [&] { return bCloses ? world.pDevice->Holds() : shows(L"Files copied: 2."); }));
        ::PostMessageW(window(), WM_CLOSE, 0, 0);
        if (bCloses) {
            EXPECT_TRUE(Eventually([&] { return shows(L"Cancelling"); }));
            world.pDevice->GoOn();
        }
        EXPECT_EQ(pWindow->End(), bCloses ? 1 : 0);
        EXPECT_EQ(world.pDevice->Files().size(), bCloses ? 1U : 2U);
    }
}

} // namespace
} // namespace end_to_end
