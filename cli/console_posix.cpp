#include "cli/console.h"

#include "cli/results.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <span>

namespace console {
namespace {

constexpr std::array<int, 4> CAUGHT = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

std::atomic<int> g_nInterrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);

std::array<struct sigaction, CAUGHT.size()> g_oldActions;
struct sigaction g_oldPipeAction;

std::atomic<bool> g_bReaderGone{false};

extern "C" void TakeInterrupt(int nSignal) {
    // A terminal that closes says so once more through its shell; nobody is impatient then.
    if (g_nInterrupts.fetch_add(1) > 0 && nSignal != SIGHUP) {
        _exit(cli::EXIT_CANCELLED);
    }
}

// Waits until the descriptor can be read or written without blocking, or has failed; false when a
// request to end came first. The wait has an end of its own because a request can come between the
// question and the wait.
bool WaitFor(int fd, short sEvents) {
    constexpr int nLookMs = 100;
    while (!CInterrupts::Requested()) {
        pollfd waiting = {fd, sEvents, 0};
        if (poll(&waiting, 1, nLookMs) > 0) {
            return true;
        }
    }
    return false;
}

// Behind a failed write to standard output or error.
void NoteFailure() {
    if (errno == EPIPE) {
        g_bReaderGone = true;
    }
}

// Whether a read or write that brought nothing is to be tried again.
bool IsPassing(int nError) {
    return nError == EINTR || nError == EAGAIN || nError == EWOULDBLOCK;
}

} // namespace

std::vector<std::string> Words(int argc, char** argv) {
    const auto words = std::span(argv, static_cast<std::size_t>(argc)).subspan(1);
    return {words.begin(), words.end()};
}

void OpenStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest that is free is the one that has just been found closed.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return;
        }
    }
}

void Print(Stream stream, std::string_view strText) {
    FILE* const pFile = stream == Stream::Out ? stdout : stderr;
    if (std::fwrite(strText.data(), 1, strText.size(), pFile) < strText.size()) {
        NoteFailure();
    }
}

bool Flush() {
    if (std::fflush(stdout) != 0) {
        NoteFailure();
        return false;
    }
    return std::ferror(stdout) == 0;
}

bool ReaderGone() {
    return g_bReaderGone;
}

bool IsTerminal(Stream stream) {
    if (stream == Stream::In) {
        return isatty(STDIN_FILENO) == 1;
    }
    const char* const lpszTerm = std::getenv("TERM");
    const bool bDumb = lpszTerm != nullptr && std::string_view(lpszTerm) == "dumb";
    return !bDumb && isatty(stream == Stream::Out ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

int Width() {
    winsize size = {};
    const bool bKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return bKnown ? size.ws_col : 80;
}

CInterrupts::CInterrupts() {
    g_nInterrupts = 0;
    struct sigaction action = {};
    action.sa_handler = TakeInterrupt;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < CAUGHT.size(); ++i) {
        sigaction(CAUGHT[i], &action, &g_oldActions[i]);
        // A parent that has the command ignore a signal (nohup, a shell's background job) means it.
        if (g_oldActions[i].sa_handler == SIG_IGN) {
            sigaction(CAUGHT[i], &g_oldActions[i], nullptr);
        }
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, &g_oldPipeAction);
}

CInterrupts::~CInterrupts() {
    for (std::size_t i = 0; i < CAUGHT.size(); ++i) {
        sigaction(CAUGHT[i], &g_oldActions[i], nullptr);
    }
    if (!g_bReaderGone) {
        sigaction(SIGPIPE, &g_oldPipeAction, nullptr);
    }
}

bool CInterrupts::Requested() {
    return g_nInterrupts > 0 || g_bReaderGone;
}

Flow ReadInput(void* lpBuffer, std::size_t nBytes, std::size_t& nRead) {
    nRead = 0;
    while (nRead < nBytes) {
        if (!WaitFor(STDIN_FILENO, POLLIN)) {
            return Flow::Interrupted;
        }
        const ssize_t nCame =
            read(STDIN_FILENO, static_cast<char*>(lpBuffer) + nRead, nBytes - nRead);
        if (nCame == 0) {
            return Flow::End;
        }
        if (nCame > 0) {
            nRead += static_cast<std::size_t>(nCame);
        } else if (!IsPassing(errno)) {
            return Flow::Failed;
        }
    }
    return Flow::Whole;
}

Flow WriteOutput(const void* lpBytes, std::size_t nBytes) {
    // A pipe that can be written has room for as much, so that no write blocks a request to end.
    constexpr std::size_t nMostAtOnce = 4096;
    std::signal(SIGPIPE, SIG_IGN);
    const char* lpNext = static_cast<const char*>(lpBytes);
    while (nBytes > 0) {
        if (!WaitFor(STDOUT_FILENO, POLLOUT)) {
            return Flow::Interrupted;
        }
        const ssize_t nWent = write(STDOUT_FILENO, lpNext, std::min(nBytes, nMostAtOnce));
        if (nWent >= 0) {
            lpNext += nWent;
            nBytes -= static_cast<std::size_t>(nWent);
        } else if (!IsPassing(errno)) {
            return errno == EPIPE ? Flow::ReaderGone : Flow::Failed;
        }
    }
    return Flow::Whole;
}

} // namespace console
