#include "agent/device_system.h"

#include <cstdio>

#include "agent/device.h"
#include "agent/log_text.h"

namespace agent {

std::unique_ptr<CDeviceSystem> CDeviceSystem::Open(const CDeviceOptions& options,
                                                   CDeviceFolder& folder, std::string& strError) {
    std::unique_ptr<CDeviceSystem> pSystem(new CDeviceSystem);
    pSystem->m_options = options.system;
    CSystemOptions& own = pSystem->m_options;
    if (!own.pProcesses && (own.bAllowExec || !own.messageCommands.empty())) {
        own.pProcesses = CDeviceProcesses::Open(options, folder, strError);
        if (!own.pProcesses) {
            return nullptr;
        }
    }
    return pSystem;
}

void CDeviceSystem::Broadcast(std::uint32_t uMessage, std::uint32_t wParam, std::int32_t lParam) {
    const std::string strName = m_messages.NameOf(uMessage);
    if (m_options.lpNotice) {
        char szNumber[16];
        std::snprintf(szNumber, sizeof(szNumber), "0x%04X", uMessage);
        m_options.lpNotice(std::string("message ") + szNumber +
                           (strName.empty() ? "" : " \"" + Printable(strName) + "\"") + " wParam " +
                           std::to_string(wParam) + " lParam " + std::to_string(lParam));
    }
    if (m_options.pProcesses) {
        m_options.pProcesses->StartMessageCommands({{"DAK_MESSAGE", std::to_string(uMessage)},
                                                    {"DAK_MESSAGE_NAME", strName},
                                                    {"DAK_WPARAM", std::to_string(wParam)},
                                                    {"DAK_LPARAM", std::to_string(lParam)}});
    }
}

void CDeviceSystem::Tick(std::uint64_t qwNowMs) {
    if (!m_bStarted) {
        m_bStarted = true;
        m_qwStartMs = qwNowMs;
    }
    m_qwNowMs = std::max(qwNowMs, m_qwStartMs);
    if (m_drop && m_qwNowMs >= m_drop->qwUntilMs) {
        m_drop.reset();
    }
    if (m_options.pProcesses) {
        m_options.pProcesses->Tick(qwNowMs);
    }
}

std::optional<std::uint64_t> CDeviceSystem::DueMs() const {
    std::optional<std::uint64_t> qwDue;
    if (m_options.pProcesses) {
        qwDue = m_options.pProcesses->DueMs(m_qwNowMs);
    }
    if (m_drop) {
        const std::uint64_t qwNext = LinkUp() ? m_drop->qwFromMs : m_drop->qwUntilMs;
        qwDue = std::min(qwNext, qwDue.value_or(qwNext));
    }
    return qwDue;
}

bool CDeviceSystem::DropLink(std::uint32_t dwMs) {
    if (dwMs > MOST_DROP_MS) {
        return false;
    }
    const std::uint64_t qwFromMs = m_qwNowMs + DROP_DELAY_MS;
    m_drop = {qwFromMs, qwFromMs + dwMs};
    return true;
}

} // namespace agent
