// A device that is attached to this system: the agent's core on a real folder, in this process,
// behind the pipe that the library finds. It can hang or be unplugged at a moment that a test
// chooses.
#pragma once

#include "agent/agent_core.h"
#include "agent/device.h"
#include "tests/platform/presented_device.h"

#include <memory>
#include <string>

namespace windows_end_to_end {

class CPresentedAgent : private device_test::IPeer {
  public:
    explicit CPresentedAgent(agent::CDeviceOptions options);

    enum class EDirection { ToHost, ToDevice };
    // A moment, told by a package from now on; 1 is the next one of its direction.
    struct CPoint {
        EDirection eDirection;
        std::uint64_t nPackage;    // it is not passed on any more,
        std::size_t dwHostHas = 0; // but for its first bytes, where it goes to the host
        bool bUnplugs = false;     // in place of hanging
    };
    // The device hangs from the point on: it takes nothing, gives nothing, does no work. The point
    // is there when the package is: one to the host lies ready, and for one to the device all that
    // was there for the host has gone out.
    void HangAt(const CPoint& point);
    bool HasStopped();
    // Packages of the host that have arrived since HangAt.
    std::uint64_t Taken();
    void GoOn();

    void SetPlugged(bool bPlugged);

    // Whether a line of the log, or one for the device's owner, holds the text.
    bool Says(const std::string& strText);

  private:
    enum class ELife { Works, Hangs, Unplugged };

    void SetTime(std::uint64_t qwNowMs) override;
    std::optional<std::uint64_t> NextDueMs() override;
    bool IsAttached() override;
    bool Takes() override;
    void TakePackage(std::span<const std::uint8_t> package) override;
    std::span<const std::uint8_t> Offer() override;
    void OfferTaken(std::size_t dwBytes) override;
    void HostGone() override;

    bool IsNext(EDirection eDirection);
    bool IsAtPoint();
    void StopAtPoint();
    std::uint64_t& Count(EDirection eDirection);
    void Note(const std::string& strLine);

    std::mutex m_logMutex;
    std::vector<std::string> m_log;
    std::unique_ptr<agent::CDevice> m_pAgentDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::mutex m_mutex; // of what follows, and held in every call of the core
    ELife m_eLife = ELife::Works;
    std::optional<CPoint> m_point; // its package counted from the start
    std::uint64_t m_qwToHost = 0;
    std::uint64_t m_qwToDevice = 0;
    std::uint64_t m_qwTakenBefore = 0;      // of those, at HangAt
    bool m_bHostGone = false;               // while the device was hanging
    device_test::CPresentedDevice m_device; // last: its thread uses the others
};

} // namespace windows_end_to_end
