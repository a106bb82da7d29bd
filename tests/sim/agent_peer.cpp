#include "tests/sim/agent_peer.h"

#include "link/wire.h"

#include <algorithm>

namespace sim {

std::optional<CAgentPeer::CFault> CAgentPeer::Next(bool bToHost) {
    const std::uint64_t n = ++m_qwSeen[bToHost];
    const auto fault = onPackage ? onPackage(bToHost, n) : std::nullopt;
    if (fault) {
        m_world.Note("pipe fault ", static_cast<int>(fault->eFault), " to ",
                     bToHost ? "host" : "device", ", package ", n);
    }
    return fault;
}

// Changes a package as the fault says. False: nothing of it arrives.
bool CAgentPeer::Damage(const CFault& fault, Bytes& package) {
    const std::size_t dwAmount = std::min<std::size_t>(fault.dwAmount, package.size());
    switch (fault.eFault) {
    case EFault::Corrupt:
        package[std::min(dwAmount, package.size() - 1)] ^= 0x10;
        break;
    case EFault::Cut:
        package.resize(dwAmount);
        break;
    case EFault::Delay:
        break;
    case EFault::Vanish:
        m_world.Unplug(*this);
        [[fallthrough]];
    case EFault::Drop:
        package.clear();
    }
    return !package.empty();
}

bool CAgentPeer::TakePackage(std::span<const std::uint8_t> package) {
    if (m_qwTakeAtMs && *m_qwTakeAtMs > m_world.NowMs()) {
        return false;
    }
    const auto fault = m_qwTakeAtMs ? std::nullopt : Next(false);
    m_qwTakeAtMs.reset();
    if (fault && fault->eFault == EFault::Delay) {
        m_qwTakeAtMs = m_world.NowMs() + fault->dwAmount;
        return false;
    }
    Bytes bytes(package.begin(), package.end());
    if (fault && !Damage(*fault, bytes)) {
        return m_world.IsPlugged();
    }
    // These make the agent drop what the host has not taken, and so what is held here for it.
    const std::uint32_t dwWord = bytes.size() >= 4 ? DakGetU32(bytes.data()) : 0;
    if (dwWord == DAK_CONNECT || dwWord == DAK_DISCONNECT || dwWord == DAK_RETRANSMIT) {
        m_held.clear();
        m_dwRest = 0;
    }
    m_core.TakePackage(bytes);
    return true;
}

std::optional<std::size_t> CAgentPeer::GiveBytes(std::span<std::uint8_t> buffer) {
    while (m_held.empty()) {
        const auto next = m_core.NextBytes();
        if (next.empty()) {
            return {};
        }
        Bytes package(next.begin(), next.end());
        const auto fault = package.size() != m_dwRest ? Next(true) : std::nullopt;
        if (!fault) {
            const std::size_t dwCount = m_core.GiveBytes(buffer);
            m_dwRest = package.size() - dwCount;
            return dwCount;
        }
        m_dwRest = 0;
        m_core.GiveBytes(package);
        if (Damage(*fault, package)) {
            const bool bLater = fault->eFault == EFault::Delay;
            m_qwHeldUntilMs = m_world.NowMs() + (bLater ? fault->dwAmount : 0);
            m_held = std::move(package);
        } else if (!m_world.IsPlugged()) {
            return {};
        }
    }
    if (m_qwHeldUntilMs > m_world.NowMs()) {
        return {};
    }
    const std::size_t dwCount = std::min(buffer.size(), m_held.size());
    std::copy_n(m_held.begin(), dwCount, buffer.begin());
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(dwCount));
    return dwCount;
}

std::optional<std::uint64_t> CAgentPeer::NextDueMs() {
    std::optional<std::uint64_t> qwDue = m_core.NextDueMs();
    for (const std::uint64_t qwMs :
         {m_held.empty() ? 0 : m_qwHeldUntilMs, m_qwTakeAtMs.value_or(0)}) {
        if (qwMs > m_qwToldMs) {
            qwDue = std::min(qwMs, qwDue.value_or(qwMs));
        }
    }
    return qwDue;
}

void CAgentPeer::TransferStopped(bool bWrite) {
    if (bWrite) {
        m_qwTakeAtMs.reset();
    }
}

void CAgentPeer::Closed() {
    m_held.clear();
    m_dwRest = 0;
    m_core.HostGone();
}

} // namespace sim
