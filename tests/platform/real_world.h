// What the two real systems share under the contract tests: all but the device.
#pragma once

#include "tests/platform/device_peer.h"

#include <memory>

namespace contract {

// Plugged while it lives.
class CDevice {
  public:
    virtual ~CDevice() = default;
    // Returns when what the host has written is taken, and the peer asked anew.
    virtual void Settle() {}
};
std::unique_ptr<CDevice> PlugIn(device_test::IPeer& peer);

} // namespace contract
