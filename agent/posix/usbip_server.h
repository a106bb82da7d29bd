// Serves hosts on a listening socket, one at a time: the one that imported the device last has it.
// A host that opens its node anew thus never waits for its own dead connection. One thread, one
// poll; no host can make it wait.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "agent/posix/usbip_connection.h"

namespace agent {

class CUsbipServer {
  public:
    // fdListen does not block and stays the caller's. bPrompt: what the device says of itself.
    // lpLog may be empty.
    CUsbipServer(CAgentCore& core, int fdListen, bool bPrompt,
                 std::function<void(const std::string&)> lpLog);
    ~CUsbipServer();
    CUsbipServer(const CUsbipServer&) = delete;
    CUsbipServer& operator=(const CUsbipServer&) = delete;

    // Serves until fdStop becomes readable or the device wants its link down (CAgentCore::LinkUp).
    // False when the system leaves no way to go on.
    bool Run(int fdStop);

    // The clock that the core is told the time by.
    static std::uint64_t NowMs();

    // Lets the time pass until the device wants its link up. False when fdStop became readable.
    static bool AwaitLink(CAgentCore& core, int fdStop);

  private:
    // Connections that have not asked for the device yet; the oldest makes room.
    static constexpr std::size_t s_nMostNewcomers = 8;

    void Accept();
    void ServeNewcomers();
    void ServeHost(bool bReadable);
    void DropHost(const char* lpszWhy);
    int PollTimeoutMs() const;
    void Log(const std::string& strLine) const;

    CAgentCore& m_core;
    int m_fdListen;
    bool m_bPrompt;
    std::function<void(const std::string&)> m_lpLog;
    std::unique_ptr<CUsbipConnection> m_pHost;
    std::deque<std::unique_ptr<CUsbipConnection>> m_newcomers;
    bool m_bAcceptPaused = false;
};

} // namespace agent
