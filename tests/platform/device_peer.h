// What stands behind a device that the tests play, whatever leads there.
#pragma once

#include <cstdint>
#include <span>

namespace device_test {

// All calls come from the device's own thread.
class IPeer {
  public:
    virtual ~IPeer() = default;

    // Milliseconds from any fixed start, told again and again.
    virtual void SetTime(std::uint64_t /*qwNowMs*/) {}
    // Whether the device is to be seen.
    virtual bool IsAttached() { return true; }

    // Whether it takes what the host writes; while it does not, the host's writes block.
    virtual bool Takes() = 0;
    virtual void TakePackage(std::span<const std::uint8_t> package) = 0;

    // What the host is to have next, all in one package; empty: nothing. Asked again and again, and
    // valid until the next call.
    virtual std::span<const std::uint8_t> Offer() = 0;
    // The host has taken as many bytes of what was offered.
    virtual void OfferTaken(std::size_t dwBytes) = 0;

    // The host has closed its end, or the device has been unplugged.
    virtual void HostGone() {}
};

} // namespace device_test
