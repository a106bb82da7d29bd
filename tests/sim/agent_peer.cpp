#include "tests/sim/agent_peer.h"

#include "link/wire.h"

#include <algorithm>
#include <cstring>

namespace sim {

CAgentPeer::CAgentPeer(CWorld& world, agent::CAgentCore& core) : m_world(world), m_core(core) {
    m_world.Plug(*this);
}

CAgentPeer::~CAgentPeer() {
    m_world.Unplug(*this);
}

void CAgentPeer::ClearFaults() {
    m_toHost.planned.clear();
    m_toDevice.planned.clear();
    onPackage = nullptr;
}

void CAgentPeer::SetTime(std::uint64_t qwNowMs) {
    m_qwNowMs = qwNowMs;
    m_core.SetTime(qwNowMs);
}

std::optional<CAgentPeer::CFault> CAgentPeer::Next(CDirection& direction) {
    const std::uint64_t n = ++direction.qwSeen;
    std::optional<CFault> fault;
    if (const auto it = direction.planned.find(n); it != direction.planned.end()) {
        fault = it->second;
        direction.planned.erase(it);
    } else if (onPackage) {
        fault = onPackage(&direction == &m_toHost, n);
    }
    if (fault) {
        ++m_nFaultsMet;
        m_world.Note("pipe fault ", static_cast<int>(fault->eFault), " to ",
                     &direction == &m_toHost ? "host" : "device", ", package ", n);
    }
    return fault;
}

// Changes a package as the fault says. False: nothing of it arrives.
bool CAgentPeer::Damage(const CFault& fault, Bytes& package) {
    switch (fault.eFault) {
    case EFault::Corrupt:
        if (!package.empty()) {
            package[std::min<std::size_t>(fault.dwAmount, package.size() - 1)] ^= 0x10;
        }
        return true;
    case EFault::Cut:
        package.resize(std::min<std::size_t>(fault.dwAmount, package.size()));
        return !package.empty();
    case EFault::Delay:
        return true;
    case EFault::Vanish:
        m_world.Unplug(*this);
        return false;
    case EFault::Drop:
        break;
    }
    return false;
}

bool CAgentPeer::TakePackage(std::span<const std::uint8_t> package) {
    if (m_qwTakeAtMs && *m_qwTakeAtMs > m_qwNowMs) {
        return false;
    }
    const auto fault = m_qwTakeAtMs ? std::nullopt : Next(m_toDevice);
    m_qwTakeAtMs.reset();
    Bytes bytes(package.begin(), package.end());
    if (fault && fault->eFault == EFault::Delay) {
        m_qwTakeAtMs = m_qwNowMs + fault->dwAmount;
        return false;
    }
    if (fault && !Damage(*fault, bytes)) {
        return m_world.IsPlugged();
    }
    // These make the agent drop what the host has not taken, and so what is held here for it.
    const std::uint32_t dwWord = bytes.size() >= 4 ? DakGetU32(bytes.data()) : 0;
    if (dwWord == DAK_CONNECT || dwWord == DAK_DISCONNECT || dwWord == DAK_RETRANSMIT) {
        Reset();
    }
    m_core.TakePackage(bytes);
    return true;
}

// The rest of the package whose first bytes are given.
Bytes CAgentPeer::PullPackage(Bytes begin) {
    const std::size_t dwTaken = begin.size();
    begin.resize(dwTaken + m_qwRestToHost);
    std::size_t dwAt = dwTaken;
    while (dwAt < begin.size()) {
        const std::size_t dwCount = m_core.GiveBytes(std::span(begin).subspan(dwAt));
        if (dwCount == 0) {
            break;
        }
        dwAt += dwCount;
    }
    begin.resize(dwAt);
    m_qwRestToHost = 0;
    return begin;
}

// The output of an I/O control follows its response without a header of its own.
void CAgentPeer::ExpectOutput(std::span<const std::uint8_t> package) {
    if (package.size() == DAK_RESPONSE_FIELDS + 4 && DakGetU32(package.data()) == DAK_LAST_REPLY &&
        DakGetU16(package.data() + DAK_OFFSET_CODE) == DAK_FUNC_KERNEL_IO_CONTROL) {
        m_qwRestToHost = DakGetU32(package.data() + DAK_RESPONSE_FIELDS);
    }
}

std::optional<std::size_t> CAgentPeer::GiveBytes(std::span<std::uint8_t> buffer) {
    for (;;) {
        if (!m_held.empty()) {
            if (m_qwHeldUntilMs > m_qwNowMs) {
                return {};
            }
            const std::size_t dwCount = std::min(buffer.size(), m_held.size());
            std::memcpy(buffer.data(), m_held.data(), dwCount);
            m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(dwCount));
            return dwCount;
        }
        if (m_qwRestToHost > 0) {
            const std::size_t dwCount = m_core.GiveBytes(buffer);
            m_qwRestToHost -= std::min<std::uint64_t>(dwCount, m_qwRestToHost);
            if (dwCount > 0) {
                return dwCount;
            }
            m_qwRestToHost = 0; // the agent has dropped the rest
        }
        if (!m_core.HasBytes()) {
            return {};
        }
        // A package begins. Its header says how long it is; the host reads headers whole, so that
        // taking one here changes nothing for the agent.
        Bytes head(std::min<std::size_t>(buffer.size(), DAK_HEADER_SIZE));
        head.resize(m_core.GiveBytes(head));
        if (head.empty()) {
            return {};
        }
        m_qwRestToHost =
            head.size() == DAK_HEADER_SIZE ? DakGetHeader(head.data()).packageLength : 0;
        const auto fault = Next(m_toHost);
        if (!fault) {
            std::memcpy(buffer.data(), head.data(), head.size());
            const std::size_t dwMore = m_qwRestToHost > 0 && buffer.size() > head.size()
                                           ? m_core.GiveBytes(buffer.subspan(head.size()))
                                           : 0;
            m_qwRestToHost -= std::min<std::uint64_t>(dwMore, m_qwRestToHost);
            ExpectOutput(buffer.first(head.size() + dwMore));
            return head.size() + dwMore;
        }
        Bytes package = PullPackage(std::move(head));
        ExpectOutput(package);
        if (Damage(*fault, package)) {
            m_held = std::move(package);
            m_qwHeldUntilMs =
                fault->eFault == EFault::Delay ? m_qwNowMs + fault->dwAmount : m_qwNowMs;
        } else if (!m_world.IsPlugged()) {
            return {};
        }
    }
}

std::optional<std::uint64_t> CAgentPeer::NextDueMs() {
    std::optional<std::uint64_t> qwDue = m_core.NextDueMs();
    const auto also = [&](std::uint64_t qwMs) {
        if (qwMs > m_qwNowMs) {
            qwDue = std::min(qwMs, qwDue.value_or(qwMs));
        }
    };
    if (!m_held.empty()) {
        also(m_qwHeldUntilMs);
    }
    if (m_qwTakeAtMs) {
        also(*m_qwTakeAtMs);
    }
    return qwDue;
}

void CAgentPeer::TransferStopped(bool bWrite) {
    if (bWrite) {
        m_qwTakeAtMs.reset();
    }
}

void CAgentPeer::Reset() {
    m_held.clear();
    m_qwRestToHost = 0;
}

void CAgentPeer::Closed() {
    Reset();
    m_core.HostGone();
}

void CAgentPeer::Unplugged() {
    Closed();
}

} // namespace sim
