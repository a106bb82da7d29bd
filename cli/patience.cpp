#include "cli/patience.h"

#include "cli/console.h"

#include <chrono>

namespace cli {
namespace {

// Longer than an operation takes whose device answers.
constexpr std::chrono::seconds PATIENCE{5};

} // namespace

CPatience::CPatience(const CONTEXT& context) {
    if (context.output.bQuiet || !console::IsTerminal(console::Stream::Error)) {
        return;
    }
    m_thread = std::thread([this, &context] {
        std::unique_lock hold(m_mutex);
        if (!m_ended.wait_for(hold, PATIENCE, [this] { return m_bEnded; })) {
            Complain(context, "still waiting for the device; Ctrl-C gives up");
        }
    });
}

CPatience::~CPatience() {
    {
        const std::lock_guard hold(m_mutex);
        m_bEnded = true;
    }
    m_ended.notify_one();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

} // namespace cli
