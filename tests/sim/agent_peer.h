// The real agent core behind the simulated host's device node, with faults between the two.
//
//     sim::CWorld world;
//     agent::CDevice things(...);
//     agent::CAgentCore core(things);
//     sim::CAgentPeer agent(world, core);
//     agent.FaultToHost(3, {sim::CAgentPeer::EFault::Corrupt, 20});
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

    // A fault for package number n from now on (1 is the next).
    void FaultToHost(std::uint64_t n, CFault fault) { Plan(true, n, fault); }
    void FaultToDevice(std::uint64_t n, CFault fault) { Plan(false, n, fault); }
    // Asked for every package for which no fault is planned, with its number from the start.
    std::function<std::optional<CFault>(bool bToHost, std::uint64_t n)> onPackage;
    void ClearFaults();

    // Packages seen so far, and faults that were met.
    std::uint64_t PackagesToHost() const { return m_qwSeen[true]; }
    std::uint64_t PackagesToDevice() const { return m_qwSeen[false]; }
    int FaultsMet() const { return m_nFaultsMet; }

    void SetTime(std::uint64_t qwNowMs) override { m_core.SetTime(m_qwToldMs = qwNowMs); }
    bool TakePackage(std::span<const std::uint8_t> package) override;
    std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) override;
    std::optional<std::uint64_t> NextDueMs() override;
    void TransferStopped(bool bWrite) override;
    void Closed() override;
    void Unplugged() override { Closed(); }

  private:
    void Plan(bool bToHost, std::uint64_t n, CFault fault) {
        m_planned[{bToHost, m_qwSeen[bToHost] + n}] = fault;
    }
    std::optional<CFault> Next(bool bToHost);
    bool Damage(const CFault& fault, Bytes& package);

    CWorld& m_world;
    agent::CAgentCore& m_core;
    std::array<std::uint64_t, 2> m_qwSeen{}; // to the device, to the host
    std::map<std::pair<bool, std::uint64_t>, CFault> m_planned;
    int m_nFaultsMet = 0;
    std::uint64_t m_qwToldMs = 0;
    std::size_t m_dwRest = 0; // of a package that the host has begun to take from the agent
    Bytes m_held;             // a damaged or delayed package for the host
    std::uint64_t m_qwHeldUntilMs = 0;
    std::optional<std::uint64_t> m_qwTakeAtMs; // a delayed write is taken then
};

} // namespace sim
