// What the two real systems share under the contract tests: all but the device.
#pragma once

#include "tests/support/packages.h"

#include <deque>
#include <memory>
#include <mutex>

namespace contract {

// What the device gives and takes; the mutex guards the rest.
struct CScript {
    std::mutex mutex;
    bool bTakes = true;
    std::deque<test::Bytes> gives;
    std::vector<test::Bytes> took;
};

// Plugged while it lives.
class CDevice {
  public:
    virtual ~CDevice() = default;
    // Returns when what the host has written is taken, and the script looked at anew.
    virtual void Settle() {}
};
std::unique_ptr<CDevice> PlugIn(CScript& script);

} // namespace contract
