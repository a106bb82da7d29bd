// A device behind the pipe that gives what a test lays ready, one package after the other, and
// keeps what the host wrote.
#pragma once

#include "tests/platform/presented_device.h"

#include <deque>
#include <utility>

namespace device_test {

class CScriptedDevice : private IPeer {
  public:
    void Gives(Bytes package) {
        {
            const std::lock_guard hold(m_mutex);
            m_gives.push_back(std::move(package));
        }
        m_device.Settle();
    }
    // While it does not take, the host's writes block.
    void WillTake(bool bTakes) {
        {
            const std::lock_guard hold(m_mutex);
            m_bTakes = bTakes;
        }
        m_device.Settle();
    }
    std::vector<Bytes> Took() {
        m_device.Settle();
        const std::lock_guard hold(m_mutex);
        return m_took;
    }

  private:
    bool Takes() override {
        const std::lock_guard hold(m_mutex);
        return m_bTakes;
    }
    void TakePackage(std::span<const std::uint8_t> package) override {
        const std::lock_guard hold(m_mutex);
        m_took.emplace_back(package.begin(), package.end());
    }
    std::span<const std::uint8_t> Offer() override {
        const std::lock_guard hold(m_mutex);
        return m_gives.empty() ? std::span<const std::uint8_t>() : m_gives.front();
    }
    void OfferTaken(std::size_t /*dwBytes*/) override {
        const std::lock_guard hold(m_mutex);
        m_gives.pop_front();
    }

    std::mutex m_mutex;
    bool m_bTakes = true;
    std::deque<Bytes> m_gives;
    std::vector<Bytes> m_took;
    CPresentedDevice m_device{*this}; // last: its thread uses the others
};

} // namespace device_test
