#include "agent/stream_receiver.h"

#include <algorithm>
#include <utility>

namespace agent {

static std::uint32_t CommandOf(std::span<const std::uint8_t> package) {
    return package.size() < DAK_HEADER_SIZE ? 0 : DakGetU32(package.data());
}

CStreamReceiver::CStreamReceiver(std::uint16_t codeFunc, std::unique_ptr<CStreamSink> pSink)
    : m_codeFunc(codeFunc), m_pSink(std::move(pSink)) {
    m_window.reserve(DAK_DATA_SIZE);
}

// A full package, or a final one: as long as it says, or sent again at the full size, where only
// what its packageLength covers counts.
bool CStreamReceiver::IsGood(std::span<const std::uint8_t> package) const {
    if (package.size() < DAK_DATA_OFFSET || package.size() > DAK_PACKAGE_SIZE) {
        return false;
    }
    const DAKHEADER header = DakGetHeader(package.data());
    if (header.packageLength < DAK_DATA_OFFSET - DAK_HEADER_SIZE ||
        header.packageLength > DAK_MAXPACKAGELENGTH) {
        return false;
    }
    const std::size_t dwBytes = DAK_HEADER_SIZE + header.packageLength;
    const bool bSizeFits =
        header.wCommand == DAK_PACKAGE
            ? package.size() == DAK_PACKAGE_SIZE && dwBytes == DAK_PACKAGE_SIZE
            : header.wCommand == DAK_LAST_PACKAGE &&
                  (package.size() == dwBytes || package.size() == DAK_PACKAGE_SIZE);
    return bSizeFits && DakGetU16(package.data() + DAK_OFFSET_DATA_CODE) == m_codeFunc &&
           DakGetU32(package.data() + DAK_OFFSET_CHECKSUM) == DakChecksum(package.data(), dwBytes);
}

void CStreamReceiver::Keep(std::span<const std::uint8_t> package) {
    if (m_bAborted || m_bBad || m_bRepeat) {
        return;
    }
    if (!IsGood(package)) {
        m_bBad = true;
        m_window.clear();
        return;
    }
    const std::size_t dwBytes = DAK_HEADER_SIZE + DakGetHeader(package.data()).packageLength;
    m_window.insert(m_window.end(), package.begin() + DAK_DATA_OFFSET,
                    package.begin() + static_cast<std::ptrdiff_t>(dwBytes));
}

// If a verdict to send again has left the outbox, the window begins anew.
void CStreamReceiver::NoteTaken(const COutbox& outbox) {
    if (m_bAskedAgain && outbox.Empty()) {
        m_bAskedAgain = false;
        m_bBad = false;
        m_bLast = false;
        m_bMayRepeat = m_nConfirmed > 0 && (m_nHeld == 0 || m_bRepeat);
        m_bRepeat = false;
        m_nHeld = 0;
        m_window.clear();
        m_bQuietKnown = false;
    }
}

void CStreamReceiver::NoteFirst(std::span<const std::uint8_t> package) {
    m_first = {};
    std::copy_n(package.begin(), std::min(package.size(), m_first.size()), m_first.begin());
    m_bRepeat = m_bMayRepeat && m_first == m_confirmed;
    m_bMayRepeat = false;
}

void CStreamReceiver::AskAgain(COutbox& outbox) {
    outbox.PutControl(DAK_RETRANSMIT);
    m_bAskedAgain = true;
}

void CStreamReceiver::EndAborted(COutbox& outbox) {
    outbox.Clear();
    outbox.PutControl(DAK_ABORT);
    outbox.PutResult(m_codeFunc, m_pSink->GiveUp(0));
    m_bEnded = true;
}

void CStreamReceiver::Take(std::span<const std::uint8_t> package, COutbox& outbox,
                           std::uint64_t qwNowMs) {
    if (m_bEnded || (m_dwApplied > 0 && m_bLast)) {
        return;
    }
    if (m_dwApplied > 0) {
        // Nothing can be taken back: it is as if the confirmation lay there.
        Confirm(outbox);
    }
    NoteTaken(outbox);
    m_qwQuietSinceMs = qwNowMs;
    m_bQuietKnown = true;
    if (m_bAskedAgain) {
        // The host has not come to its point of waiting yet: take the verdict back.
        outbox.Clear();
        m_bAskedAgain = false;
        m_nExpected = 0;
    } else if (!outbox.Empty()) {
        // A confirmation that the host does not wait for: the two counts are apart, and what
        // comes from now on belongs nowhere.
        m_pSink->GiveUp(DAK_RESULT_REFUSED);
    }
    if (m_bWhole) {
        // The window seemed whole, and yet the host goes on with it.
        m_bWhole = false;
        m_bBad = true;
        m_window.clear();
    }

    const std::uint32_t wCommand = CommandOf(package);
    if (++m_nHeld == 1) {
        NoteFirst(package);
    }
    if (wCommand == DAK_ABORT) {
        m_bAborted = true;
        m_window.clear();
    }
    Keep(package);

    m_bLast = wCommand == DAK_LAST_PACKAGE;
    const std::uint32_t nMost = m_bRepeat ? m_nConfirmed : m_nCapacity;
    const bool bPointKnown = m_nHeld == m_nExpected || m_nHeld >= nMost;
    const bool bShort = package.size() < DAK_PACKAGE_SIZE && wCommand != DAK_ABORT;
    if (!bPointKnown && !m_bLast && !bShort) {
        return;
    }
    if (m_bAborted) {
        EndAborted(outbox);
    } else if (m_bBad) {
        m_nExpected = bPointKnown || m_bLast ? std::min(m_nHeld, m_nCapacity) : 0;
        AskAgain(outbox);
    } else {
        m_bWhole = true;
    }
}

void CStreamReceiver::Prepare(COutbox& outbox) {
    NoteTaken(outbox);
    if (m_bWhole && !m_bEnded) {
        Advance(outbox);
    }
}

void CStreamReceiver::Advance(COutbox& outbox) {
    m_dwApplied += m_pSink->Apply(std::span(m_window).subspan(m_dwApplied));
    if (m_dwApplied == m_window.size()) {
        Confirm(outbox);
    }
}

void CStreamReceiver::Confirm(COutbox& outbox) {
    m_dwApplied = 0;
    outbox.PutControl(DAK_SUCCESS);
    if (m_bLast) {
        outbox.PutResult(m_codeFunc, m_pSink->End());
        m_bEnded = true;
        return;
    }
    m_window.clear();
    m_window.reserve(std::size_t{DAK_WINDOW_PACKAGES} * DAK_DATA_SIZE);
    if (!m_bRepeat) {
        m_confirmed = m_first;
        m_nConfirmed = m_nHeld;
    }
    m_bRepeat = false;
    m_bWhole = false;
    m_nHeld = 0;
    m_nExpected = 0;
    m_nCapacity = DAK_WINDOW_PACKAGES;
    m_bQuietKnown = false;
}

void CStreamReceiver::Tick(COutbox& outbox, std::uint64_t qwNowMs) {
    NoteTaken(outbox);
    if (m_dwApplied > 0) {
        Advance(outbox);
    }
    if (m_bEnded || m_bWhole) {
        return;
    }
    if (!m_bQuietKnown || !outbox.Empty()) {
        m_qwQuietSinceMs = qwNowMs;
        m_bQuietKnown = true;
    } else if (qwNowMs - m_qwQuietSinceMs >= SILENCE_MS) {
        if (m_bAborted) {
            EndAborted(outbox);
        } else {
            m_nExpected = 0;
            AskAgain(outbox);
        }
    }
}

std::optional<std::uint64_t> CStreamReceiver::DueMs(std::uint64_t qwNowMs) const {
    if (m_dwApplied > 0) {
        return qwNowMs + 1;
    }
    if (m_bEnded || m_bWhole) {
        return std::nullopt;
    }
    return (m_bQuietKnown ? m_qwQuietSinceMs : qwNowMs) + SILENCE_MS;
}

} // namespace agent
