#include "agent/stream_sender.h"

#include <algorithm>
#include <utility>

namespace agent {

CStreamSender::CStreamSender(std::uint16_t codeFunc, std::unique_ptr<CStreamSource> pSource)
    : m_codeFunc(codeFunc), m_pSource(std::move(pSource)) {}

// A host that breaks off at the end of a window does not take the package ahead of it.
CStreamSender::~CStreamSender() {
    const bool bUnconfirmed = m_eState == EState::AWAITING && m_qwTaken == m_qwGiven;
    const std::uint64_t qwPackages =
        std::max(m_qwConfirmed, m_qwTaken - (bUnconfirmed && m_qwTaken > 0 ? 1 : 0));
    if (m_eState != EState::BEGINNING) {
        m_pSource->Ended(std::min(qwPackages * DAK_DATA_SIZE, m_pSource->Length()));
    }
}

void CStreamSender::NoteTaken(const COutbox& outbox) {
    if (m_eState == EState::GIVING || m_eState == EState::AWAITING) {
        m_qwTaken = m_qwGiven - (outbox.Empty() || m_qwGiven == 0 ? 0 : 1);
    }
}

void CStreamSender::Take(std::span<const std::uint8_t> package, COutbox& outbox, std::uint64_t) {
    if (m_bEnded || package.size() != DAK_HEADER_SIZE) {
        return;
    }
    NoteTaken(outbox);
    const std::uint32_t wCommand = DakGetU32(package.data());
    if (wCommand == DAK_ABORT) {
        outbox.Clear();
        m_bEnded = true;
    } else if (wCommand == DAK_RETRANSMIT && m_qwPackages > 0) {
        outbox.Clear();
        m_pSource->Rewind();
        m_package.clear();
        m_qwGiven = 0;
        m_qwTaken = 0;
        m_eState = EState::GIVING;
    } else if (wCommand == DAK_SUCCESS && m_eState == EState::AWAITING && outbox.Empty()) {
        m_qwConfirmed = m_qwGiven;
        m_bEnded = m_qwGiven == m_qwPackages;
        m_eState = EState::GIVING;
    }
}

void CStreamSender::Advance(COutbox& outbox) {
    switch (m_pSource->Begin()) {
    case EWork::MORE:
        return;
    case EWork::DONE:
        m_qwPackages = (m_pSource->Length() + DAK_DATA_SIZE - 1) / DAK_DATA_SIZE;
        m_eState = EState::GIVING;
        return;
    case EWork::FAILED:
        Leave(outbox);
        return;
    }
}

// The rest of the stream cannot be given. A DAK_ABORT in place of the next package tells the host,
// who in a further pass first drops the packages that it has had: one for each of those.
void CStreamSender::Leave(COutbox& outbox) {
    const std::uint64_t qwDropped = m_qwMostGiven - std::min(m_qwMostGiven, m_qwGiven);
    for (std::uint64_t i = 0; i <= std::min<std::uint64_t>(qwDropped, DAK_WINDOW_PACKAGES); ++i) {
        outbox.PutControl(DAK_ABORT);
    }
    m_eState = EState::LEFT;
}

void CStreamSender::Tick(COutbox& outbox, std::uint64_t) {
    NoteTaken(outbox);
    if (m_eState == EState::BEGINNING && !m_bEnded) {
        Advance(outbox);
    } else if (!m_package.empty()) {
        Fill(outbox);
    }
}

std::optional<std::uint64_t> CStreamSender::DueMs(std::uint64_t qwNowMs) const {
    const bool bAtWork = (m_eState == EState::BEGINNING && !m_bEnded) || !m_package.empty();
    return bAtWork ? std::optional(qwNowMs + 1) : std::nullopt;
}

// The stream has a hole now; only a pass from its first package can mend that.
void CStreamSender::PendingDropped() {
    if (m_eState != EState::BEGINNING) {
        m_eState = EState::LEFT;
    }
}

void CStreamSender::Prepare(COutbox& outbox) {
    NoteTaken(outbox);
    if (m_eState == EState::BEGINNING && !m_bEnded) {
        Advance(outbox);
    }
    if (m_eState == EState::GIVING && !m_bEnded) {
        Fill(outbox);
    }
}

// Goes on with the next package, and gives it when it is whole.
void CStreamSender::Fill(COutbox& outbox) {
    const bool bLast = m_qwGiven + 1 == m_qwPackages;
    if (m_package.empty()) {
        const std::uint64_t qwData =
            bLast ? m_pSource->Length() - m_qwGiven * DAK_DATA_SIZE : DAK_DATA_SIZE;
        m_package.resize(static_cast<std::size_t>(DAK_DATA_OFFSET + qwData));
        m_dwFilled = DAK_DATA_OFFSET;
        m_bHad = true;
    }
    std::span<std::uint8_t> rest = std::span(m_package).subspan(m_dwFilled);
    m_bHad = m_pSource->Read(rest) && m_bHad;
    m_dwFilled = m_package.size() - rest.size();
    if (!rest.empty()) {
        return;
    }
    std::vector<std::uint8_t> package = std::exchange(m_package, {});
    // What the host has confirmed it drops unread in this pass.
    if (!m_bHad && m_qwGiven >= m_qwConfirmed) {
        Leave(outbox);
        return;
    }
    DakPutHeader(package.data(), bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                 static_cast<std::uint32_t>(package.size()) - DAK_HEADER_SIZE);
    DakPutU16(package.data() + DAK_OFFSET_DATA_CODE, m_codeFunc);
    DakPutU32(package.data() + DAK_OFFSET_CHECKSUM, DakChecksum(package.data(), package.size()));
    outbox.Put(std::move(package));

    ++m_qwGiven;
    m_qwMostGiven = std::max(m_qwMostGiven, m_qwGiven);
    const bool bWindowEnd = m_qwGiven % DAK_WINDOW_PACKAGES == 0 && m_qwGiven > m_qwConfirmed;
    if (bLast || bWindowEnd) {
        m_eState = EState::AWAITING;
    }
}

} // namespace agent
