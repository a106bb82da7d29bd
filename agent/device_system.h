// What the device is beside its files: its name, its age, its link, programs and messages.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/device_processes.h"
#include "agent/window_messages.h"

namespace agent {

struct CSystemOptions {
    std::string strName = "device";                // of the device
    std::string strVersion = {};                   // of the agent
    bool bAllowExec = false;                       // hosts may start programs
    std::vector<std::string> execPaths = {};       // folders of the system with further programs
    std::vector<std::string> messageCommands = {}; // command lines, for every message
    std::function<void(const std::string&)> lpNotice = {}; // lines that the owner must see
    std::shared_ptr<CDeviceProcesses> pProcesses = {};     // in place of the system's
};

class CDeviceSystem {
  public:
    // The link goes down so long behind the command that asks for it, so that its host can close
    // the exchange, and stays down for at most the second.
    static constexpr std::uint64_t DROP_DELAY_MS = 1000;
    static constexpr std::uint32_t MOST_DROP_MS = 600'000;

    // Null, and the reason in strError, when the options cannot be met.
    // The folder outlives the object.
    static std::unique_ptr<CDeviceSystem> Open(const CDeviceOptions& options, CDeviceFolder& folder,
                                               std::string& strError);

    const std::string& Name() const { return m_options.strName; }
    const std::string& Version() const { return m_options.strVersion; }
    CWindowMessages& Messages() { return m_messages; }

    // Null when hosts may start none.
    CDeviceProcesses* Programs() {
        return m_options.bAllowExec ? m_options.pProcesses.get() : nullptr;
    }

    // Tells the owner of a message, and starts the commands that wait for one.
    void Broadcast(std::uint32_t uMessage, std::uint32_t wParam, std::int32_t lParam);

    void Tick(std::uint64_t qwNowMs);
    std::optional<std::uint64_t> DueMs() const;
    std::uint64_t UptimeMs() const { return m_qwNowMs - m_qwStartMs; }

    // False when the time is longer than may be asked for.
    bool DropLink(std::uint32_t dwMs);
    bool LinkUp() const { return !m_drop || m_qwNowMs < m_drop->qwFromMs; }

  private:
    struct CDrop {
        std::uint64_t qwFromMs;
        std::uint64_t qwUntilMs;
    };

    CDeviceSystem() = default;

    CSystemOptions m_options;
    CWindowMessages m_messages;
    bool m_bStarted = false; // the time is known
    std::uint64_t m_qwStartMs = 0;
    std::uint64_t m_qwNowMs = 0;
    std::optional<CDrop> m_drop;
};

} // namespace agent
