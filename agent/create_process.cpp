// Starting a program. With wait, the response is held back until the program has ended; a handshake
// ends the exchange meanwhile, and the program goes on.
#include "agent/command_line.h"
#include "agent/device.h"
#include "agent/operations.h"
#include "agent/prompt_exchange.h"

namespace agent {

namespace {

class CCreateProcess final : public CPromptExchange {
  public:
    CCreateProcess(CDevice& device, std::u16string strImage, std::u16string strCommandLine,
                   bool bWait)
        : m_device(device), m_strImage(std::move(strImage)),
          m_strCommandLine(std::move(strCommandLine)), m_bWait(bWait) {}

    bool Ended() const override { return m_bEnded; }

  private:
    void Work() override {
        const std::optional<CDevicePath> path = CDevicePath::Parse(m_strImage);
        const std::optional<std::string> strLine = ToUtf8(m_strCommandLine);
        const auto arguments =
            strLine ? SplitCommandLine(*strLine) : std::optional<std::vector<std::string>>();
        CDeviceProcesses* pPrograms = m_device.System().Programs();
        if (!pPrograms || !path || !arguments) {
            m_device.Log("start " + (path ? path->Text() : "?") +
                         (!pPrograms ? ": not allowed (--allow-exec)" : ": malformed"));
            return;
        }
        const bool bBareName = m_strImage.find_first_of(u"\\/") == std::u16string::npos;
        m_pState = pPrograms->StartProgram(*path, bBareName, *arguments);
    }

    void Respond(COutbox& outbox) override {
        if (m_pState && m_bWait && !m_pState->bEnded) {
            return;
        }
        outbox.PutResult(DAK_FUNC_CREATE_PROCESS, m_pState ? 1 : 0,
                         m_pState && m_bWait ? m_pState->dwStatus : 0);
        m_bEnded = true;
    }

    CDevice& m_device;
    const std::u16string m_strImage;
    const std::u16string m_strCommandLine;
    const bool m_bWait;
    std::shared_ptr<const CProcessState> m_pState; // null: not started
    bool m_bEnded = false;
};

} // namespace

std::unique_ptr<CExchange> OpenCreateProcess(CDevice& device, CPayload payload) {
    std::u16string strImage;
    std::u16string strCommandLine;
    std::uint32_t bWait = 0;
    if (!payload.TakeText(strImage, MAX_PATH_CHARS) ||
        !payload.TakeText(strCommandLine, MAX_PATH_CHARS) || !payload.TakeU32(bWait) ||
        !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CCreateProcess>(device, std::move(strImage), std::move(strCommandLine),
                                            bWait != 0);
}

} // namespace agent
