// The command without a device: its words, its streams, its console.
#include "tests/cli/temp_folder.h"
#include "tests/windows_cli/dak_process.h"

#include "cli/text.h"

#include <nlohmann/json.hpp>

namespace windows_cli {
namespace {

TEST(Command, SaysWhatIsWrong) {
    const struct {
        std::vector<std::wstring> words;
        DWORD dwExit;
        const char* lpszOut;
        const char* lpszError;
    } rows[] = {
        {{L"status"}, 3, "", "dak: no device is attached, or it does not answer"},
        {{L"write", L"/a"}, 3, "", "no device is attached"},
        {{L"--help"}, 0, "Usage: dak VERB", ""},
        {{L"push", L"--help"}, 0, "dak push notes.txt /Docs", ""},
        {{}, 2, "", "dak: say what to do: give a verb\n"},
        {{L"fetch"}, 2, "", "dak: there is no verb fetch\n"},
        {{L"push", L"\x6F22 \xE4\xD83D\xDE00", L"/"},
         1,
         "",
         "left out \xE6\xBC\xA2 \xC3\xA4\xF0\x9F\x98\x80: there is no such file"},
        {{L"pull", L"/a:b", L"\\Docs\\NUL", L"."},
         1,
         "",
         "left out \\Docs\\NUL: its name is that of a device here"},
        {{L"pull", L"/a/Name", L"/b/nAME", L"."}, 3, "", "left out \\b\\nAME: another source"},
        {{L"pull", L"/a", L"Q:\\none"}, 8, "", "cannot be made or used"},
    };
    for (const auto& row : rows) {
        const ENDED ended = RunDak(row.words);
        EXPECT_EQ(ended.dwExit, row.dwExit) << row.lpszOut << row.lpszError;
        EXPECT_NE(ended.strOut.find(row.lpszOut), std::string::npos) << ended.strOut;
        EXPECT_NE(ended.strError.find(row.lpszError), std::string::npos) << ended.strError;
        EXPECT_EQ(ended.strOut.empty(), *row.lpszOut == '\0') << ended.strOut;
        EXPECT_EQ(ended.strError.empty(), *row.lpszError == '\0') << ended.strError;
        EXPECT_EQ((ended.strOut + ended.strError).find('\r'), std::string::npos);
    }
}

TEST(Command, TellsProgramsWhatItFound) {
    const CTempFolder folder;
    folder.Write("\xC3\xA4 1.txt", "12");
    folder.Write("b.txt", "3");
    folder.Write("c.bin", "4");
    const cli::WideText strFolder = *cli::Utf8ToWide(folder.Path());
    const ENDED ended = RunDak({L"push", L"--json", strFolder + L"\\*.txt", strFolder + L"\\*.none",
                                strFolder + L"\\", L"/"});
    EXPECT_EQ(ended.dwExit, 3U);
    EXPECT_EQ(ended.strError, "");
    const nlohmann::json object = nlohmann::json::parse(ended.strOut);
    EXPECT_EQ(object["result"], "no_device");
    EXPECT_EQ(object["exit"], 3);
    EXPECT_EQ(object["unconfirmed"].size(), 5U);
    EXPECT_EQ(object["unconfirmed"][1], folder.Path("\xC3\xA4 1.txt"));
    EXPECT_EQ(object["left_out"][0]["path"], folder.Path("*.none"));
}

// The code page of a console is not the process's, and is left as it is.
TEST(Command, AConsoleShowsCharacters) {
    ::SetConsoleOutputCP(437);
    CDakProcess dak({L"push", L"\xE4\x3BB\x6F22", L"/"}, "", CDakProcess::Streams::Console);
    EXPECT_EQ(dak.End().dwExit, 1U);
    EXPECT_NE(ScreenText().find(L"dak: left out \xE4\x3BB\x6F22"), std::wstring::npos)
        << cli::WideToUtf8(ScreenText());
    EXPECT_EQ(::GetConsoleOutputCP(), 437U);
}

} // namespace
} // namespace windows_cli
