// This system under the contract tests of the seam, with a device that the tests present to it.
#include "tests/platform/contract_world.h"
#include "tests/platform/presented_device.h"
#include "tests/platform/real_world.h"

namespace contract {

std::unique_ptr<CDevice> PlugIn(device_test::IPeer& peer) {
    struct CPresented final : CDevice {
        explicit CPresented(device_test::IPeer& behind) : device(behind) {}
        void Settle() override { device.Settle(); }
        device_test::CPresentedDevice device;
    };
    return std::make_unique<CPresented>(peer);
}

// Wine's files, which lie on another system, have none of their own.
bool CreationTimesAreKept() {
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr;
}

} // namespace contract
