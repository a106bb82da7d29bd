// The real agent core behind the simulated host's device node, with faults between the two.
//
//     sim::CWorld world;
//     agent::CDevice things(...);
//     agent::CAgentCore core(things);
//     sim::CAgentPeer agent(world, core);
//     agent.onPackage = [](bool bToHost, std::uint64_t n) -> std::optional<CFault> { ... };
//
// Without faults the pipe has no latency and hands everything through unchanged.
#pragma once

#include "agent/agent_core.h"
#include "tests/sim/world.h"

namespace sim {

class CAgentPeer : public IPeer {
  public:
    enum class EFault {
        Drop,    // the package is lost; the sender takes it for delivered
        Corrupt, // one bit of the byte at dwAmount is turned (the last byte, if that is beyond)
        Cut,     // only the first dwAmount bytes arrive
        Delay,   // it arrives dwAmount ms later
        Vanish,  // the device is unplugged in its place
    };
    struct CFault {
        EFault eFault;
        std::uint64_t dwAmount = 0;
    };

    CAgentPeer(CWorld& world, agent::CAgentCore& core) : m_world(world), m_core(core) {
        m_world.Plug(*this);
    }
    ~CAgentPeer() override { m_world.Unplug(*this); }

    // Asked for every package, with its number from the start.
    std::function<std::optional<CFault>(bool bToHost, std::uint64_t n)> onPackage;

    void SetTime(std::uint64_t qwNowMs) override { m_core.SetTime(m_qwToldMs = qwNowMs); }
    bool TakePackage(std::span<const std::uint8_t> package) override;
    std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) override;
    std::optional<std::uint64_t> NextDueMs() override;
    void TransferStopped(bool bWrite) override;
    void Closed() override;
    void Unplugged() override { Closed(); }

  private:
    std::optional<CFault> Next(bool bToHost);
    bool Damage(const CFault& fault, Bytes& package);

    CWorld& m_world;
    agent::CAgentCore& m_core;
    std::array<std::uint64_t, 2> m_qwSeen{}; // to the device, to the host
    std::uint64_t m_qwToldMs = 0;
    std::size_t m_dwRest = 0; // of a package that the host has begun to take from the agent
    Bytes m_held;             // a damaged or delayed package for the host
    std::uint64_t m_qwHeldUntilMs = 0;
    std::optional<std::uint64_t> m_qwTakeAtMs; // a delayed write is taken then
};

} // namespace sim
