#include "agent/posix/usbip_connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include "link/wire.h"
#include "platform/posix/usbip.h"

namespace agent {

// Room for a few messages of one package each; a longer transfer makes it grow.
static constexpr std::size_t s_dwInput = 64U << 10;

// What an endpoint answers that does not exist.
static constexpr std::int32_t s_nStalled = -32;

CUsbipConnection::CUsbipConnection(CFd fd) : m_fd(std::move(fd)), m_input(s_dwInput) {}

std::span<const std::uint8_t> CUsbipConnection::Input() const {
    return std::span(m_input).subspan(m_dwServed, m_dwFilled - m_dwServed);
}

bool CUsbipConnection::Fill() {
    if (m_dwServed > 0) {
        std::copy(m_input.begin() + static_cast<std::ptrdiff_t>(m_dwServed),
                  m_input.begin() + static_cast<std::ptrdiff_t>(m_dwFilled), m_input.begin());
        m_dwFilled -= m_dwServed;
        m_dwServed = 0;
    }
    // Full only when a message is longer than the room, and such a message has been judged.
    if (m_dwFilled == m_input.size()) {
        m_input.resize(std::min(m_input.size() * 2, usbip::HEADER_SIZE + usbip::MAX_TRANSFER));
    }
    const ssize_t nRead =
        ::recv(m_fd.Get(), m_input.data() + m_dwFilled, m_input.size() - m_dwFilled, MSG_DONTWAIT);
    if (nRead < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    m_dwFilled += static_cast<std::size_t>(nRead);
    return nRead > 0;
}

CUsbipConnection::EImport CUsbipConnection::LookForImport() {
    const std::span<const std::uint8_t> input = Input();
    if (input.size() < usbip::OP_REQ_IMPORT_SIZE) {
        return EImport::WAITING;
    }
    const std::uint8_t* lpRequest = input.data();
    m_dwServed += usbip::OP_REQ_IMPORT_SIZE;
    const bool bImport =
        usbip::GetU16(lpRequest + usbip::OP_OFFSET_VERSION) == usbip::VERSION &&
        usbip::GetU16(lpRequest + usbip::OP_OFFSET_CODE) == usbip::OP_REQ_IMPORT &&
        std::memcmp(lpRequest + usbip::OP_OFFSET_BUS_ID, usbip::BUS_ID, sizeof(usbip::BUS_ID)) == 0;
    return bImport ? EImport::ASKED : EImport::REFUSED;
}

void CUsbipConnection::AnswerImport(bool bPrompt) {
    m_output.resize(m_output.size() + usbip::OP_REP_IMPORT_SIZE);
    std::uint8_t* lpReply = m_output.data() + m_output.size() - usbip::OP_REP_IMPORT_SIZE;
    usbip::PutU16(lpReply + usbip::OP_OFFSET_VERSION, usbip::VERSION);
    usbip::PutU16(lpReply + usbip::OP_OFFSET_CODE, usbip::OP_REP_IMPORT);
    static constexpr char s_szPath[] = "/dak-agent/1-1";
    std::memcpy(lpReply + usbip::OP_REP_OFFSET_PATH, s_szPath, sizeof(s_szPath));
    std::memcpy(lpReply + usbip::OP_REP_OFFSET_BUS_ID, usbip::BUS_ID, sizeof(usbip::BUS_ID));
    usbip::PutU32(lpReply + usbip::OP_REP_OFFSET_BUSNUM, usbip::DEVICE_ID >> 16);
    usbip::PutU32(lpReply + usbip::OP_REP_OFFSET_DEVNUM, usbip::DEVICE_ID & 0xFFFF);
    usbip::PutU32(lpReply + usbip::OP_REP_OFFSET_SPEED, usbip::SPEED_HIGH);
    // One configuration with one interface.
    const std::uint8_t classes[] = {
        usbip::CLASS_VENDOR, 0, bPrompt ? usbip::PROTOCOL_PROMPT : usbip::PROTOCOL_PACED, 1, 1, 1};
    std::copy_n(classes, sizeof(classes), lpReply + usbip::OP_REP_OFFSET_CLASS);
}

std::uint8_t* CUsbipConnection::AddAnswer(std::uint32_t dwCommand, std::uint32_t dwSeqNum,
                                          std::int32_t nStatus, std::uint32_t dwActual,
                                          std::size_t dwBytes) {
    const std::size_t dwAt = m_output.size();
    m_output.resize(dwAt + usbip::HEADER_SIZE + dwBytes);
    std::uint8_t* lpHeader = m_output.data() + dwAt;
    usbip::PutU32(lpHeader + usbip::OFFSET_COMMAND, dwCommand);
    usbip::PutU32(lpHeader + usbip::OFFSET_SEQNUM, dwSeqNum);
    usbip::PutU32(lpHeader + usbip::OFFSET_STATUS, static_cast<std::uint32_t>(nStatus));
    if (dwCommand == usbip::RET_SUBMIT) {
        usbip::PutU32(lpHeader + usbip::OFFSET_ACTUAL_LENGTH, dwActual);
    }
    return lpHeader + usbip::HEADER_SIZE;
}

const char* CUsbipConnection::Work(CAgentCore& core) {
    do {
        m_bHeldUp = false;
        if (!Serve(core)) {
            return "broken protocol";
        }
        // The answer to what the host wrote goes out before the core is asked for bytes, since that
        // may mean work on the disk.
        if (!Flush()) {
            return "connection failed";
        }
        Give(core);
        if (!Flush()) {
            return "connection failed";
        }
        // Nobody calls for what has been held up when the socket takes all at once.
    } while (m_bHeldUp && WantsInput());
    return nullptr;
}

bool CUsbipConnection::MayAnswer() {
    m_bHeldUp = m_bHeldUp || !WantsInput();
    return WantsInput();
}

// What the host writes goes to the core, what it asks for waits until the core has it. False when
// the host breaks the protocol.
bool CUsbipConnection::Serve(CAgentCore& core) {
    while (Input().size() >= usbip::HEADER_SIZE && MayAnswer()) {
        const std::span<const std::uint8_t> input = Input();
        const std::uint32_t dwCommand = usbip::GetU32(input.data() + usbip::OFFSET_COMMAND);
        if (dwCommand == usbip::CMD_UNLINK) {
            ServeUnlink(input);
            m_dwServed += usbip::HEADER_SIZE;
            continue;
        }
        const std::uint32_t dwLength = usbip::GetU32(input.data() + usbip::OFFSET_BUFFER_LENGTH);
        const std::uint32_t dwDirection = usbip::GetU32(input.data() + usbip::OFFSET_DIRECTION);
        if (dwCommand != usbip::CMD_SUBMIT || dwDirection > usbip::DIRECTION_IN ||
            dwLength > usbip::MAX_TRANSFER) {
            return false;
        }
        const std::uint32_t dwData = dwDirection == usbip::DIRECTION_OUT ? dwLength : 0;
        if (input.size() - usbip::HEADER_SIZE < dwData) {
            break;
        }
        if (!ServeSubmit(input, dwData, core)) {
            return false;
        }
        m_dwServed += usbip::HEADER_SIZE + dwData;
    }
    return true;
}

bool CUsbipConnection::ServeSubmit(std::span<const std::uint8_t> message, std::uint32_t dwData,
                                   CAgentCore& core) {
    const std::uint32_t dwSeqNum = usbip::GetU32(message.data() + usbip::OFFSET_SEQNUM);
    const std::uint32_t dwLength = usbip::GetU32(message.data() + usbip::OFFSET_BUFFER_LENGTH);
    if (usbip::GetU32(message.data() + usbip::OFFSET_ENDPOINT) != usbip::BULK_ENDPOINT) {
        AddAnswer(usbip::RET_SUBMIT, dwSeqNum, s_nStalled, 0, 0);
        return true;
    }
    if (usbip::GetU32(message.data() + usbip::OFFSET_DIRECTION) == usbip::DIRECTION_OUT) {
        if (dwData > 0) {
            core.TakePackage(message.subspan(usbip::HEADER_SIZE, dwData));
        }
        AddAnswer(usbip::RET_SUBMIT, dwSeqNum, 0, dwData, 0);
        return true;
    }
    if (dwLength == 0) {
        AddAnswer(usbip::RET_SUBMIT, dwSeqNum, 0, 0, 0);
        return true;
    }
    m_pending.push_back({dwSeqNum, dwLength});
    return m_pending.size() <= s_nMostPending;
}

void CUsbipConnection::ServeUnlink(std::span<const std::uint8_t> message) {
    const std::uint32_t dwSeqNum = usbip::GetU32(message.data() + usbip::OFFSET_SEQNUM);
    const std::uint32_t dwVictim = usbip::GetU32(message.data() + usbip::OFFSET_UNLINK_SEQNUM);
    const auto itVictim =
        std::find_if(m_pending.begin(), m_pending.end(),
                     [&](const CPending& pending) { return pending.dwSeqNum == dwVictim; });
    const bool bFound = itVictim != m_pending.end();
    if (bFound) {
        m_pending.erase(itVictim);
    }
    AddAnswer(usbip::RET_UNLINK, dwSeqNum, bFound ? usbip::STATUS_UNLINKED : 0, 0, 0);
}

// Answers the oldest transfers to the host with what the core has.
void CUsbipConnection::Give(CAgentCore& core) {
    while (!m_pending.empty() && MayAnswer() && core.HasBytes()) {
        const CPending pending = m_pending.front();
        m_pending.pop_front();
        // A transfer brings what is left of one package at most, which an output of an I/O control
        // can make as long as the host may ask for.
        const std::size_t dwRoom = pending.dwLength;
        std::uint8_t* lpData = AddAnswer(usbip::RET_SUBMIT, pending.dwSeqNum, 0, 0, dwRoom);
        const std::size_t dwGiven = core.GiveBytes({lpData, dwRoom});
        usbip::PutU32(lpData - usbip::HEADER_SIZE + usbip::OFFSET_ACTUAL_LENGTH,
                      static_cast<std::uint32_t>(dwGiven));
        m_output.resize(m_output.size() - (dwRoom - dwGiven));
    }
}

// False when the socket failed.
bool CUsbipConnection::Flush() {
    while (m_dwSent < m_output.size()) {
        const ssize_t nSent = ::send(m_fd.Get(), m_output.data() + m_dwSent,
                                     m_output.size() - m_dwSent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent < 0 && errno == EINTR) {
            continue;
        }
        if (nSent < 0) {
            return errno == EAGAIN;
        }
        m_dwSent += static_cast<std::size_t>(nSent);
        // A host that never takes the last byte does not make the rest pile up.
        if (m_dwSent > m_output.size() / 2) {
            m_output.erase(m_output.begin(),
                           m_output.begin() + static_cast<std::ptrdiff_t>(m_dwSent));
            m_dwSent = 0;
        }
    }
    return true;
}

} // namespace agent
