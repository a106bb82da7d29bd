// This system under the contract tests of the seam, with a device that the tests present to it.
#include "tests/platform/contract_world.h"
#include "tests/platform/presented_device.h"
#include "tests/platform/real_world.h"

namespace contract {
namespace {

class CScriptedDevice final : public CDevice, private device_test::IPeer {
  public:
    explicit CScriptedDevice(CScript& script) : m_script(script) {}
    void Settle() override { m_device.Settle(); }

  private:
    bool Takes() override {
        const std::lock_guard hold(m_script.mutex);
        return m_script.bTakes;
    }
    void TakePackage(std::span<const std::uint8_t> package) override {
        const std::lock_guard hold(m_script.mutex);
        m_script.took.emplace_back(package.begin(), package.end());
    }
    std::span<const std::uint8_t> Offer() override {
        const std::lock_guard hold(m_script.mutex);
        return m_script.gives.empty() ? std::span<const std::uint8_t>() : m_script.gives.front();
    }
    void OfferTaken(std::size_t /*dwBytes*/) override {
        const std::lock_guard hold(m_script.mutex);
        m_script.gives.pop_front();
    }

    CScript& m_script;
    device_test::CPresentedDevice m_device{*this}; // last: its thread uses the other
};

} // namespace

std::unique_ptr<CDevice> PlugIn(CScript& script) {
    return std::make_unique<CScriptedDevice>(script);
}

// Wine's files, which lie on another system, have none of their own.
bool CreationTimesAreKept() {
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr;
}

} // namespace contract
