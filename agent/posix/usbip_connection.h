// One connection of a host: bytes of the socket to messages of USB/IP and back. It never blocks and
// never holds more than one message of each direction and the answers to it.
#pragma once

#include <deque>
#include <vector>

#include "agent/agent_core.h"
#include "agent/posix/system_file.h"

namespace agent {

class CUsbipConnection {
  public:
    explicit CUsbipConnection(CFd fd);

    int Fd() const { return m_fd.Get(); }

    // Takes in what the socket has. False when the host has closed it or the socket failed.
    bool Fill();

    // Whether the host has asked for the device. False as long as its request is not whole.
    enum class EImport { WAITING, ASKED, REFUSED };
    EImport LookForImport();
    // bPrompt: what the device says of itself (platform/posix/usbip.h).
    void AnswerImport(bool bPrompt);

    // Serves the messages that have come in whole, gives what the host has asked for, and writes
    // out what the socket takes. Null, or why the connection cannot go on. What is left over waits
    // for the socket to take more, or for the core.
    const char* Work(CAgentCore& core);

    bool WantsInput() const { return m_output.size() - m_dwSent < s_dwMostOutput; }
    bool WantsOutput() const { return m_dwSent < m_output.size(); }

  private:
    struct CPending {
        std::uint32_t dwSeqNum;
        std::uint32_t dwLength;
    };

    // A host that does not read its answers is not read from either.
    static constexpr std::size_t s_dwMostOutput = 256U << 10;
    static constexpr std::size_t s_nMostPending = 64;

    std::span<const std::uint8_t> Input() const;
    bool MayAnswer();
    bool Serve(CAgentCore& core);
    void Give(CAgentCore& core);
    bool Flush();
    bool ServeSubmit(std::span<const std::uint8_t> message, std::uint32_t dwData, CAgentCore& core);
    void ServeUnlink(std::span<const std::uint8_t> message);
    std::uint8_t* AddAnswer(std::uint32_t dwCommand, std::uint32_t dwSeqNum, std::int32_t nStatus,
                            std::uint32_t dwActual, std::size_t dwBytes);

    CFd m_fd;
    std::vector<std::uint8_t> m_input;
    std::size_t m_dwFilled = 0; // end of what has come in
    std::size_t m_dwServed = 0; // end of what has been served of it
    std::vector<std::uint8_t> m_output;
    std::size_t m_dwSent = 0;
    bool m_bHeldUp = false; // something could not be answered for want of room in the output
    std::deque<CPending> m_pending; // transfers to the host, oldest first
};

} // namespace agent
