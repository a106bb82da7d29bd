#include "cli/job.h"

#include "cli/console.h"
#include "cli/host_names.h"
#include "cli/text.h"

#include "platform/message_window.h"

#include <array>
#include <stdexcept>
#include <thread>

namespace cli {
namespace {

constexpr DWORD POLL_MS = 50;

// The end-of-job message, from its queue.
class CEndMessage {
  public:
    CEndMessage() : m_hWnd(platform::CreateMessageWindow()) {}
    ~CEndMessage() {
        if (m_hWnd != nullptr) {
            platform::DestroyMessageWindow(m_hWnd);
        }
    }
    CEndMessage(const CEndMessage&) = delete;
    CEndMessage& operator=(const CEndMessage&) = delete;

    HWND Window() const { return m_hWnd; }

    bool Wait(DWORD dwTimeoutMs) const {
        platform::WINDOWMESSAGE message = {};
        return platform::WaitWindowMessage(m_hWnd, dwTimeoutMs, &message) &&
               message.message == WM_DAK_TRANSFER_END;
    }

  private:
    HWND m_hWnd;
};

COPYSTATUS Look(CDAKVorn& dak, const COPYSTATUS& before) {
    std::array<char, MAX_PATH> szSource{};
    std::array<char, MAX_PATH> szDest{};
    DWORD dwTotal = 0;
    DWORD dwCopied = 0;
    int nPercent = 0;
    dak.GetCopyStatus(szSource.data(), szDest.data(), dwTotal, dwCopied, nPercent);
    if (szSource[0] == '\0') {
        return before;
    }
    COPYSTATUS now{FromLibraryText(szSource.data()), FromLibraryText(szDest.data()), dwTotal,
                   dwCopied, false};
    now.bSettled = now.strSource == before.strSource && now.strDest == before.strDest;
    return now;
}

} // namespace

void COPYJOB::Add(const std::string& strPath) {
    list.Add(ToLibraryText(strPath)->c_str());
}

JOBOUTCOME RunCopyJob(CDAKVorn& dak, COPYJOB& job,
                      const std::function<void(const COPYSTATUS&)>& onStatus,
                      const std::function<void()>& onCancel) {
    JOBOUTCOME outcome;
    const CEndMessage end;
    if (end.Window() == nullptr) {
        throw std::runtime_error("the system has no room for a message queue: end some programs");
    }
    outcome.dwState =
        dak.DAKTransmitFiles(job.nDirection, Utf8ToWide(job.strSource)->c_str(),
                             Utf8ToWide(job.strDest)->c_str(), &job.list, end.Window());
    if (outcome.dwState != DAKERROR_NONE) {
        return outcome;
    }
    outcome.bStarted = true;
    bool bEnded = false;
    while (!bEnded && !console::CInterrupts::Requested()) {
        outcome.last = Look(dak, outcome.last);
        onStatus(outcome.last);
        bEnded = end.Wait(POLL_MS);
    }
    if (!bEnded) {
        outcome.bCancelled = true;
        onCancel();
        // It waits for the worker itself, for longer than some jobs are given.
        std::thread cut([&dak] { dak.TerminateTransfer(); });
        outcome.bAbandoned = !end.Wait(job.dwCancelWaitMs);
        outcome.bAbandoned ? cut.detach() : cut.join();
    }
    outcome.dwState = dak.GetLastError();
    return outcome;
}

} // namespace cli
