// The agent's protocol core: a state machine between the pipe and the device's own things.
//
// It has no thread, no clock and no socket. Whoever carries the packages (the USB/IP transport, a
// gadget, the simulated host of the tests) hands in what the host wrote, takes out what the host
// reads, tells the time, and says when the host has gone. All calls come from one thread at a time.
//
// The host is not trusted: TakePackage accepts any bytes of any length at any moment, and a
// handshake is always served.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace agent {

class CDevice; // agent/device.h: folder, storages, processes, messages

class CAgentCore {
  public:
    explicit CAgentCore(CDevice& device);
    ~CAgentCore();
    CAgentCore(const CAgentCore&) = delete;
    CAgentCore& operator=(const CAgentCore&) = delete;

    // One package from the host, as one write brought it.
    void TakePackage(std::span<const std::uint8_t> package);

    // Whether bytes are there for the host. May prepare the next package of a stream, or do a slice
    // of the work that it answers for: ask when the host asks, and not ahead of it. Where that
    // takes more than a slice there are none yet, and NextDueMs says when to go on.
    bool HasBytes();

    // Gives the host the next bytes: at most buffer.size(), and never more than the rest of the
    // package in hand; what is not taken of it stays for the next call. 0 when nothing is there.
    std::size_t GiveBytes(std::span<std::uint8_t> buffer);

    // What GiveBytes would give of the package in hand, without giving it; empty when nothing is
    // there. For a pipe into which a package is laid before the host asks, and which learns later
    // whether it was taken. Valid until the next call.
    std::span<const std::uint8_t> NextBytes();

    // Drops what the host has not taken yet, a package that is half taken included.
    void DropPending();

    // The time in milliseconds, from any fixed start, never going back. Called before the other
    // calls whenever time has passed.
    void SetTime(std::uint64_t qwNowMs);

    // When SetTime is wanted next though the host is silent; nothing when never.
    std::optional<std::uint64_t> NextDueMs() const;

    // Whether the device is to be seen by hosts. Asked behind SetTime, which is wanted as long as
    // it is not, too.
    bool LinkUp() const;

    // The host went away (unplugged, killed, its node closed): what was in work is given up, and
    // files that were not complete are as they were before.
    void HostGone();

  private:
    class CState;
    std::unique_ptr<CState> m_pState;
};

} // namespace agent
