#include "agent/window_messages.h"

#include "agent/device.h"
#include "agent/operations.h"

namespace agent {

std::uint32_t CWindowMessages::Register(const std::u16string& strName) {
    const std::optional<std::string> strKey = ToUtf8(strName);
    if (strName.empty() || strName.size() > MOST_CHARS || !strKey) {
        return 0;
    }
    const auto it = m_numbers.find(*strKey);
    if (it != m_numbers.end()) {
        return it->second;
    }
    const std::uint32_t uMessage = FIRST + static_cast<std::uint32_t>(m_names.size());
    if (uMessage > LAST) {
        return 0;
    }
    m_numbers.emplace(*strKey, uMessage);
    m_names.push_back(*strKey);
    return uMessage;
}

std::string CWindowMessages::NameOf(std::uint32_t uMessage) const {
    return uMessage >= FIRST && uMessage - FIRST < m_names.size() ? m_names[uMessage - FIRST] : "";
}

// The host looks for the code of closing a file in this response.
std::unique_ptr<CExchange> OpenRegisterWindowMessage(CDevice& device, CPayload payload) {
    std::u16string strName;
    if (!payload.TakeText(strName, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPlainExchange>(DAK_FUNC_CLOSE_FILE, [&device, strName] {
        const std::uint32_t uMessage = device.System().Messages().Register(strName);
        device.Log("register message: " + std::to_string(uMessage));
        return static_cast<std::int32_t>(uMessage);
    });
}

std::unique_ptr<CExchange> OpenBroadcastMessage(CDevice& device, CPayload payload) {
    std::uint32_t uMessage = 0;
    std::uint32_t wParam = 0;
    std::uint32_t lParam = 0;
    if (!payload.TakeU32(uMessage) || !payload.TakeU32(wParam) || !payload.TakeU32(lParam) ||
        !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPlainExchange>(DAK_FUNC_BROADCAST_MESSAGE, [=, &device] {
        if (uMessage == 0) {
            return 0;
        }
        device.System().Broadcast(uMessage, wParam, static_cast<std::int32_t>(lParam));
        return 1;
    });
}

} // namespace agent
