#include "cli/console_windows.h"
#include "cli/text.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <span>

namespace console {
namespace {

constexpr DWORD LOOK_MS = 50;

// A run of bytes through standard input or output. It is moved by a thread of its own, since only a
// thread that does nothing else can be left when it blocks.
struct TRANSFER {
    HANDLE hStream;
    bool bConsole;
    std::string strBytes;
    std::atomic<std::size_t> nDone{0};
    std::atomic<bool> bStop{false};
    DWORD dwError = ERROR_SUCCESS;
};

// Bytes typed on the console that the latest read had no room for. Never destroyed: a thread that
// had to be left may come back to it while the process ends.
std::string& g_strTyped = *new std::string;

// A line from the console, as UTF-8. Nothing at Ctrl-Z, which ends the input.
DWORD ReadLine(HANDLE hConsole, std::string& strLine) {
    constexpr WCHAR chEnd = 0x1A;
    cli::WideText strWide(4096, L'\0');
    DWORD dwChars = 0;
    ::SetLastError(ERROR_SUCCESS);
    if (::ReadConsoleW(hConsole, strWide.data(), static_cast<DWORD>(strWide.size() - 1), &dwChars,
                       nullptr) == FALSE) {
        return ::GetLastError();
    }
    DWORD dwMore = 0;
    if (dwChars > 0 && (strWide[dwChars - 1] & 0xFC00) == 0xD800 &&
        ::ReadConsoleW(hConsole, &strWide[dwChars], 1, &dwMore, nullptr) != FALSE) {
        dwChars += dwMore; // the other half of a character
    }
    if (dwChars == 0) {
        // So ends a read in whose middle Ctrl-C was typed.
        return ::GetLastError() == ERROR_OPERATION_ABORTED ? ERROR_OPERATION_ABORTED
                                                           : ERROR_HANDLE_EOF;
    }
    if (strWide[0] == chEnd) {
        return ERROR_HANDLE_EOF;
    }
    strLine = cli::WideToUtf8({strWide.data(), dwChars});
    return ERROR_SUCCESS;
}

DWORD ReadSome(TRANSFER& transfer, DWORD& dwCame) {
    const std::span<char> room = std::span(transfer.strBytes).subspan(transfer.nDone);
    if (!transfer.bConsole) {
        constexpr std::size_t nMostAtOnce = 1U << 20;
        if (::ReadFile(transfer.hStream, room.data(),
                       static_cast<DWORD>(std::min(room.size(), nMostAtOnce)), &dwCame,
                       nullptr) == FALSE) {
            return ::GetLastError();
        }
        // A pipe also gives nothing where a writer wrote nothing.
        return dwCame == 0 && ::GetFileType(transfer.hStream) != FILE_TYPE_PIPE ? ERROR_HANDLE_EOF
                                                                                : ERROR_SUCCESS;
    }
    const DWORD dwError =
        g_strTyped.empty() ? ReadLine(transfer.hStream, g_strTyped) : DWORD{ERROR_SUCCESS};
    if (dwError == ERROR_SUCCESS) {
        dwCame = static_cast<DWORD>(g_strTyped.copy(room.data(), room.size()));
        g_strTyped.erase(0, dwCame);
    }
    return dwError;
}

DWORD WINAPI MoveIn(void* lpParameter) {
    const std::unique_ptr<std::shared_ptr<TRANSFER>> pOwn(
        static_cast<std::shared_ptr<TRANSFER>*>(lpParameter));
    TRANSFER& transfer = **pOwn;
    while (transfer.nDone < transfer.strBytes.size() && !transfer.bStop) {
        DWORD dwCame = 0;
        transfer.dwError = ReadSome(transfer, dwCame);
        transfer.nDone += dwCame;
        if (transfer.dwError == ERROR_OPERATION_ABORTED && !transfer.bStop) {
            ::Sleep(LOOK_MS); // Ctrl-C, of which the other thread will hear
        } else if (transfer.dwError != ERROR_SUCCESS) {
            break;
        }
    }
    return 0;
}

DWORD WINAPI MoveOut(void* lpParameter) {
    const std::unique_ptr<std::shared_ptr<TRANSFER>> pOwn(
        static_cast<std::shared_ptr<TRANSFER>*>(lpParameter));
    TRANSFER& transfer = **pOwn;
    constexpr std::size_t nMostAtOnce = 1U << 16;
    while (transfer.nDone < transfer.strBytes.size() && !transfer.bStop &&
           transfer.dwError == ERROR_SUCCESS) {
        const std::string_view rest =
            std::string_view(transfer.strBytes).substr(transfer.nDone, nMostAtOnce);
        DWORD dwWent = 0;
        if (::WriteFile(transfer.hStream, rest.data(), static_cast<DWORD>(rest.size()), &dwWent,
                        nullptr) == FALSE) {
            transfer.dwError = ::GetLastError();
        }
        transfer.nDone += dwWent;
    }
    return 0;
}

// Runs a transfer to its end, or until a request to end has come; a thread that then cannot be
// freed keeps the transfer for itself. False when it was interrupted.
bool Run(const std::shared_ptr<TRANSFER>& pTransfer, DWORD(WINAPI* lpMove)(void*)) {
    auto pShare = std::make_unique<std::shared_ptr<TRANSFER>>(pTransfer);
    const HANDLE hThread = ::CreateThread(nullptr, 0, lpMove, pShare.get(), 0, nullptr);
    if (hThread == nullptr) {
        pTransfer->dwError = ::GetLastError();
        return true;
    }
    static_cast<void>(pShare.release()); // it is the thread's
    while (::WaitForSingleObject(hThread, LOOK_MS) == WAIT_TIMEOUT && !CInterrupts::Requested()) {
    }
    constexpr int nCancels = 20;
    for (int i = 0; CInterrupts::Requested() && i < nCancels; ++i) {
        // Again and again: the thread may be between two calls.
        pTransfer->bStop = true;
        ::CancelSynchronousIo(hThread);
        if (::WaitForSingleObject(hThread, LOOK_MS) == WAIT_OBJECT_0) {
            break;
        }
    }
    ::CloseHandle(hThread);
    return !CInterrupts::Requested();
}

// The bytes of a character that the end of a text cuts off.
std::size_t CutBytes(std::string_view strText) {
    for (std::size_t nBytes = 1; nBytes <= 3 && nBytes <= strText.size(); ++nBytes) {
        const auto ch = static_cast<unsigned char>(strText[strText.size() - nBytes]);
        if (ch >= 0xC0) {
            const std::size_t nWhole = ch >= 0xF0 ? 4 : ch >= 0xE0 ? 3 : 2;
            return nBytes < nWhole ? nBytes : 0;
        }
        if (ch < 0x80) {
            break;
        }
    }
    return 0;
}

} // namespace

Flow ReadInput(void* lpBuffer, std::size_t nBytes, std::size_t& nRead) {
    const HANDLE hStream = windows::HandleOf(Stream::In);
    const auto pTransfer =
        std::make_shared<TRANSFER>(hStream, windows::IsConsole(hStream), std::string(nBytes, '\0'));
    const bool bEnded = Run(pTransfer, MoveIn);
    nRead = pTransfer->nDone;
    pTransfer->strBytes.copy(static_cast<char*>(lpBuffer), nRead);
    if (!bEnded) {
        return Flow::Interrupted;
    }
    const DWORD dwError = pTransfer->dwError;
    return nRead == nBytes                                               ? Flow::Whole
           : dwError == ERROR_HANDLE_EOF || dwError == ERROR_BROKEN_PIPE ? Flow::End
                                                                         : Flow::Failed;
}

Flow WriteOutput(const void* lpBytes, std::size_t nBytes) {
    static std::string strCut; // off the latest bytes for the console
    const HANDLE hStream = windows::HandleOf(Stream::Out);
    std::string strBytes(static_cast<const char*>(lpBytes), nBytes);
    if (windows::IsConsole(hStream)) {
        strBytes.insert(0, strCut);
        strCut = strBytes.substr(strBytes.size() - CutBytes(strBytes));
        strBytes.resize(strBytes.size() - strCut.size());
        return CInterrupts::Requested()                                      ? Flow::Interrupted
               : windows::WriteToConsole(hStream, strBytes) == ERROR_SUCCESS ? Flow::Whole
                                                                             : Flow::Failed;
    }
    const auto pTransfer = std::make_shared<TRANSFER>(hStream, false, std::move(strBytes));
    if (!Run(pTransfer, MoveOut)) {
        return Flow::Interrupted;
    }
    switch (pTransfer->dwError) {
    case ERROR_SUCCESS:
        return Flow::Whole;
    case ERROR_BROKEN_PIPE:
    case ERROR_NO_DATA:
    case ERROR_PIPE_NOT_CONNECTED:
        return Flow::ReaderGone;
    default:
        return Flow::Failed;
    }
}

} // namespace console
