#include "agent/agent_core.h"

#include <algorithm>
#include <vector>

#include "agent/device.h"
#include "agent/exchange.h"
#include "agent/operations.h"
#include "link/wire.h"

namespace agent {

// What the agent answers to a handshake: the protocol's major version, and as the minor one its
// own revision.
static constexpr std::uint32_t s_dwAgentVersion = DAK_PROTOCOL_VERSION + 1;

// The longest chained command, all pieces together.
static constexpr std::size_t s_dwMaxCommand = std::size_t{16} << 20;

// Work in the background leaves the host as much time as it takes itself.
static constexpr std::uint64_t s_qwWorkEveryMs = 10;
static constexpr std::uint64_t s_qwWorkMs = 5;

class CAgentCore::CState {
  public:
    explicit CState(CDevice& device) : m_device(device) {}

    void TakePackage(std::span<const std::uint8_t> package);
    void SetTime(std::uint64_t qwNowMs);
    void Prepare();
    void DropEnded();
    void GiveUp();
    bool HasBackgroundWork() const { return m_device.Folder().HasWork(!m_pExchange); }

    CDevice& m_device;
    COutbox m_outbox;
    std::unique_ptr<CExchange> m_pExchange; // null between exchanges
    std::uint64_t m_qwNowMs = 0;
    std::uint64_t m_qwWorkAtMs = 0; // when work in the background may go on
    bool m_bPutOff = false;         // the host has asked for more than there was time for
    bool m_bWaits = false;          // the exchange does, for what goes on beside the agent

  private:
    bool Waits() { return m_bWaits = m_device.Folder().MustWait(); }
    void WorkInBackground();
    bool TakeHandshake(std::span<const std::uint8_t> package);
    void TakeCommandPiece(std::span<const std::uint8_t> package);
    void OpenExchange(std::uint16_t codeFunc, std::span<const std::uint8_t> payload);

    // Payload of the pieces of a chained command so far.
    std::vector<std::uint8_t> m_chain;
    bool m_bInChain = false;
    bool m_bChainRefused = false; // the rest of the chain is passed over

    bool m_bPrepared = false; // something, since the time was told
};

// The link code says that the package is a handshake of this protocol. Version and length that the
// host states are not judged: the answer states the agent's own, and a host that cannot work with
// those leaves.
bool CAgentCore::CState::TakeHandshake(std::span<const std::uint8_t> package) {
    if (package.size() != DAK_HANDSHAKE_SIZE) {
        return false;
    }
    const std::uint32_t wCommand = DakGetU32(package.data());
    if ((wCommand != DAK_CONNECT && wCommand != DAK_DISCONNECT) ||
        DakGetU32(package.data() + DAK_OFFSET_LINK_CODE) != DAK_LINK_CODE) {
        return false;
    }
    GiveUp();
    std::vector<std::uint8_t> reply(DAK_HANDSHAKE_SIZE);
    DakPutHandshake(reply.data(), wCommand, s_dwAgentVersion);
    m_outbox.Put(std::move(reply));
    return true;
}

void CAgentCore::CState::TakePackage(std::span<const std::uint8_t> package) {
    if (TakeHandshake(package)) {
        return;
    }
    if (m_pExchange) {
        m_pExchange->Take(package, m_outbox, m_qwNowMs);
        DropEnded();
    } else {
        TakeCommandPiece(package);
    }
}

// A command, or a piece of a chained one. What is neither gets silence; aborts that come behind
// the end of their stream are among that.
void CAgentCore::CState::TakeCommandPiece(std::span<const std::uint8_t> package) {
    if (package.size() < DAK_COMMAND_PAYLOAD_OFFSET) {
        return;
    }
    const DAKHEADER header = DakGetHeader(package.data());
    const bool bMore = header.wCommand == DAK_PACKAGE;
    if ((!bMore && header.wCommand != DAK_LAST_PACKAGE) ||
        package.size() - DAK_HEADER_SIZE != header.packageLength) {
        return;
    }
    const std::uint16_t codeFunc = DakGetU16(package.data() + DAK_OFFSET_CODE);
    const std::span<const std::uint8_t> payload = package.subspan(DAK_COMMAND_PAYLOAD_OFFSET);
    if (!m_bInChain) {
        // A new command: nobody comes for what is left of the exchange before.
        m_outbox.Clear();
        m_bChainRefused = false;
        if (!bMore) {
            OpenExchange(codeFunc, payload);
            return;
        }
        m_bInChain = true;
    }
    m_bChainRefused = m_bChainRefused || codeFunc != DAK_FUNC_TRANSMIT_FILES ||
                      (bMore && package.size() != DAK_PACKAGE_SIZE) ||
                      m_chain.size() + payload.size() > s_dwMaxCommand;
    if (!m_bChainRefused) {
        m_chain.insert(m_chain.end(), payload.begin(), payload.end());
        if (bMore) {
            m_outbox.PutControl(DAK_SUCCESS);
            return;
        }
        m_device.Log("command in pieces: " + std::to_string(m_chain.size()) + " bytes");
        OpenExchange(codeFunc, m_chain);
    }
    if (!bMore) {
        m_bInChain = false;
    }
    m_chain = {};
}

void CAgentCore::CState::OpenExchange(std::uint16_t codeFunc,
                                      std::span<const std::uint8_t> payload) {
    const COperation* pOperation = FindOperation(codeFunc);
    if (pOperation) {
        m_pExchange = pOperation->lpOpen(m_device, CPayload(payload));
    }
    if (!m_pExchange) {
        m_device.Log("function code " + std::to_string(codeFunc) +
                     (pOperation ? ": malformed" : ": not known"));
        return;
    }
    m_outbox.PutControl(DAK_SUCCESS);
}

// All that the host asks for until the time is told again has one slice of time together: a host
// that asks for many packages at once must be listened to between them.
void CAgentCore::CState::Prepare() {
    if (!m_pExchange || !m_outbox.Empty()) {
        return;
    }
    CWorkSlice& slice = m_device.Slice();
    m_bPutOff = m_bPrepared && slice.OutOfTime();
    if (m_bPutOff || Waits()) {
        return;
    }
    m_bPrepared ? slice.GoOn() : slice.Begin();
    m_bPrepared = true;
    m_pExchange->Prepare(m_outbox);
    DropEnded();
}

void CAgentCore::CState::DropEnded() {
    if (m_pExchange && m_pExchange->Ended()) {
        m_pExchange.reset();
    }
}

void CAgentCore::CState::GiveUp() {
    m_pExchange.reset();
    m_outbox.Clear();
    m_chain = {};
    m_bInChain = false;
}

void CAgentCore::CState::SetTime(std::uint64_t qwNowMs) {
    m_qwNowMs = qwNowMs;
    m_bPrepared = false;
    m_bPutOff = false;
    m_device.System().Tick(qwNowMs);
    m_device.OpenFiles().SetTime(qwNowMs);
    if (m_pExchange && !Waits()) {
        m_device.Slice().Begin();
        m_pExchange->Tick(m_outbox, qwNowMs);
        DropEnded();
    }
    WorkInBackground();
}

void CAgentCore::CState::WorkInBackground() {
    if (HasBackgroundWork() && m_qwNowMs >= m_qwWorkAtMs) {
        m_device.Slice().Begin(s_qwWorkMs);
        m_device.Folder().Work(!m_pExchange, m_device.Slice());
        m_qwWorkAtMs = m_qwNowMs + s_qwWorkEveryMs;
    }
}

CAgentCore::CAgentCore(CDevice& device) : m_pState(std::make_unique<CState>(device)) {}

CAgentCore::~CAgentCore() = default;

void CAgentCore::TakePackage(std::span<const std::uint8_t> package) {
    m_pState->TakePackage(package);
}

bool CAgentCore::HasBytes() {
    m_pState->Prepare();
    return !m_pState->m_outbox.Empty();
}

std::size_t CAgentCore::GiveBytes(std::span<std::uint8_t> buffer) {
    m_pState->Prepare();
    return m_pState->m_outbox.Take(buffer);
}

std::span<const std::uint8_t> CAgentCore::NextBytes() {
    m_pState->Prepare();
    return m_pState->m_outbox.Next();
}

void CAgentCore::DropPending() {
    if (m_pState->m_outbox.Empty()) {
        return;
    }
    m_pState->m_outbox.Clear();
    if (m_pState->m_pExchange) {
        m_pState->m_pExchange->PendingDropped();
    }
}

void CAgentCore::SetTime(std::uint64_t qwNowMs) {
    m_pState->SetTime(qwNowMs);
}

std::optional<std::uint64_t> CAgentCore::NextDueMs() const {
    std::optional<std::uint64_t> qwDueMs = m_pState->m_device.System().DueMs();
    const auto also = [&qwDueMs](std::uint64_t qwMs) {
        qwDueMs = std::min(qwDueMs.value_or(qwMs), qwMs);
    };
    if (m_pState->m_pExchange && m_pState->m_bWaits) {
        also(m_pState->m_qwNowMs + 1);
    } else if (m_pState->m_pExchange) {
        if (const auto qwExchange = m_pState->m_pExchange->DueMs(m_pState->m_qwNowMs)) {
            also(*qwExchange);
        }
    }
    if (m_pState->m_bPutOff) {
        also(m_pState->m_qwNowMs);
    }
    if (m_pState->HasBackgroundWork()) {
        also(m_pState->m_qwWorkAtMs);
    }
    return qwDueMs;
}

bool CAgentCore::LinkUp() const {
    return m_pState->m_device.System().LinkUp();
}

void CAgentCore::HostGone() {
    m_pState->GiveUp();
}

} // namespace agent
