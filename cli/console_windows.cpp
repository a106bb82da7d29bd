#include "cli/console_windows.h"

#include "cli/results.h"
#include "cli/text.h"

#include "platform/types.h"

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <span>

namespace console {
namespace {

std::atomic<int> g_nInterrupts{0};
std::atomic<bool> g_bCaught{false}; // a CInterrupts lives
std::atomic<bool> g_bReaderGone{false};

// Called by the system on a thread of its own.
BOOL WINAPI TakeInterrupt(DWORD dwEvent) {
    if (!g_bCaught) {
        return FALSE;
    }
    if (g_nInterrupts.fetch_add(1) > 0) {
        ::TerminateProcess(::GetCurrentProcess(), cli::EXIT_CANCELLED);
    }
    if (dwEvent != CTRL_C_EVENT && dwEvent != CTRL_BREAK_EVENT) {
        // The console's window closes. The process is ended when this returns, or some seconds from
        // now; until then it may end in order.
        ::Sleep(INFINITE);
    }
    return TRUE;
}

FILE* FileOf(Stream stream) {
    FILE* const pFile = stream == Stream::Out ? stdout : stderr;
    // Without this the line ends would change.
    _setmode(_fileno(pFile), _O_BINARY);
    return pFile;
}

// Behind a failed write to standard output or error.
void NoteFailure(Stream stream) {
    // The runtime has no word of its own for every way in which a pipe can end.
    if (::GetFileType(windows::HandleOf(stream)) == FILE_TYPE_PIPE) {
        g_bReaderGone = true;
    }
}

using windows::HandleOf;
using windows::IsConsole;

} // namespace

HANDLE windows::HandleOf(Stream stream) {
    return ::GetStdHandle(stream == Stream::In    ? STD_INPUT_HANDLE
                          : stream == Stream::Out ? STD_OUTPUT_HANDLE
                                                  : STD_ERROR_HANDLE);
}

bool windows::IsConsole(HANDLE hStream) {
    DWORD dwMode = 0;
    return ::GetConsoleMode(hStream, &dwMode) != FALSE;
}

DWORD windows::WriteToConsole(HANDLE hConsole, std::string_view strText) {
    cli::WideText strWide(strText.size(), L'\0');
    const int nChars =
        strText.empty()
            ? 0
            : ::MultiByteToWideChar(CP_UTF8, 0, strText.data(), static_cast<int>(strText.size()),
                                    strWide.data(), static_cast<int>(strWide.size()));
    // Older systems take no more at once.
    constexpr std::size_t nMostAtOnce = 8192;
    for (std::span<const WCHAR> rest(strWide.data(), static_cast<std::size_t>(nChars));
         !rest.empty();) {
        DWORD dwWent = 0;
        const std::size_t nChunk = std::min(rest.size(), nMostAtOnce);
        if (::WriteConsoleW(hConsole, rest.data(), static_cast<DWORD>(nChunk), &dwWent, nullptr) ==
                FALSE ||
            dwWent == 0) {
            return ::GetLastError();
        }
        rest = rest.subspan(dwWent);
    }
    return ERROR_SUCCESS;
}

// Not those of main: they have been through the code page, and a pattern among them would be taken
// for one of this computer.
std::vector<std::string> Words(int /*argc*/, char** /*argv*/) {
    std::vector<std::string> words;
    int nWords = 0;
    WCHAR** const lpWords = ::CommandLineToArgvW(::GetCommandLineW(), &nWords);
    for (const WCHAR* lpszWord : std::span(lpWords, static_cast<std::size_t>(nWords))) {
        words.push_back(cli::WideToUtf8(lpszWord));
    }
    words.erase(words.begin());
    ::LocalFree(lpWords);
    return words;
}

// Handles are not given out anew as descriptors are, but the runtime's own calls want a file.
void OpenStreams() {
    const auto open = [](FILE* pFile, const char* lpszMode) {
        if (_fileno(pFile) < 0) {
            static_cast<void>(std::freopen("NUL", lpszMode, pFile));
        }
    };
    open(stdin, "r");
    open(stdout, "w");
    open(stderr, "w");
}

void Print(Stream stream, std::string_view strText) {
    const HANDLE hStream = HandleOf(stream);
    if (IsConsole(hStream)) {
        windows::WriteToConsole(hStream, strText);
    } else {
        FILE* const pFile = FileOf(stream);
        // Standard error is not flushed by itself in every version of the runtime.
        if (std::fwrite(strText.data(), 1, strText.size(), pFile) < strText.size() ||
            (stream == Stream::Error && std::fflush(pFile) != 0)) {
            NoteFailure(stream);
        }
    }
}

bool Flush() {
    if (std::fflush(stdout) != 0) {
        NoteFailure(Stream::Out);
        return false;
    }
    return std::ferror(stdout) == 0;
}

bool ReaderGone() {
    return g_bReaderGone;
}

bool IsTerminal(Stream stream) {
    return IsConsole(HandleOf(stream));
}

int Width() {
    CONSOLE_SCREEN_BUFFER_INFO info;
    return ::GetConsoleScreenBufferInfo(HandleOf(Stream::Error), &info) != FALSE &&
                   info.srWindow.Right >= info.srWindow.Left
               ? info.srWindow.Right - info.srWindow.Left + 1
               : 80;
}

CInterrupts::CInterrupts() {
    g_nInterrupts = 0;
    g_bCaught = true;
    ::SetConsoleCtrlHandler(TakeInterrupt, TRUE);
}

// The handler stays: taking it away waits for one that runs, which may be that of a closed window.
CInterrupts::~CInterrupts() {
    g_bCaught = false;
}

bool CInterrupts::Requested() {
    return g_nInterrupts > 0 || g_bReaderGone;
}

} // namespace console
