#include "cli/console.h"

#include "cli/results.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace console {
namespace {

constexpr std::array<int, 2> CAUGHT = {SIGINT, SIGTERM};

std::atomic<int> g_nInterrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);

std::array<struct sigaction, CAUGHT.size()> g_oldActions;

extern "C" void TakeInterrupt(int /*nSignal*/) {
    if (g_nInterrupts.fetch_add(1) > 0) {
        _exit(cli::EXIT_CANCELLED);
    }
}

} // namespace

bool IsTerminal(Stream stream) {
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
}

CInterrupts::~CInterrupts() {
    for (std::size_t i = 0; i < CAUGHT.size(); ++i) {
        sigaction(CAUGHT[i], &g_oldActions[i], nullptr);
    }
}

bool CInterrupts::Requested() {
    return g_nInterrupts > 0;
}

} // namespace console
