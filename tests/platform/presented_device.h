// A device for tests on this system, which has no driver for one: an interface of the class is put
// into the system's list, and the path that the list gives leads to a named pipe of this process.
//
// One package at a time lies in the pipe, so that none runs into the next, and it lies there ahead
// of the host, whose reads a pipe does not show. Where what stands behind the pipe has changed its
// mind by then, a package that was not taken is withdrawn.
#pragma once

#include "platform/types.h"
#include "tests/platform/device_registration.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <thread>
#include <vector>

namespace device_test {

using Bytes = std::vector<std::uint8_t>;

// What stands behind the pipe. All calls come from the device's thread.
class IPeer {
  public:
    virtual ~IPeer() = default;

    // Milliseconds from any fixed start; and when it wants to be told again though nothing comes.
    virtual void SetTime(std::uint64_t /*qwNowMs*/) {}
    virtual std::optional<std::uint64_t> NextDueMs() { return {}; }

    // Whether the device is to be seen.
    virtual bool IsAttached() { return true; }

    // Whether it takes what the host writes; while it does not, the host's writes block.
    virtual bool Takes() = 0;
    virtual void TakePackage(std::span<const std::uint8_t> package) = 0;

    // What the host is to have next, all in one package; empty: nothing. Asked again and again, and
    // valid until the next call.
    virtual std::span<const std::uint8_t> Offer() = 0;
    // The host has taken as many bytes of what was offered, which is all of it.
    virtual void OfferTaken(std::size_t dwBytes) = 0;

    // The host has closed its end, or the device has been unplugged.
    virtual void HostGone() {}
};

// Present while the object lives, unless it is unplugged; one at a time.
class CPresentedDevice {
  public:
    // The peer outlives the object.
    explicit CPresentedDevice(IPeer& peer);
    ~CPresentedDevice();
    CPresentedDevice(const CPresentedDevice&) = delete;
    CPresentedDevice& operator=(const CPresentedDevice&) = delete;

    // Unplugging takes the device from the list and then cuts the pipe.
    void SetPlugged(bool bPlugged);

    // Has the peer asked anew. On return what was in the pipe before has reached the peer, and
    // what the peer wants now is done.
    void Settle();

  private:
    // One overlapped call on the pipe.
    struct CCall {
        CCall() { overlapped.hEvent = ::CreateEventA(nullptr, TRUE, FALSE, nullptr); }
        ~CCall() { ::CloseHandle(overlapped.hEvent); }
        // bDone: what the system said when the call was made.
        bool Begun(BOOL bDone);
        bool HasEnded() const;
        // Takes the count of a call that has ended; one that has not is cancelled and has none.
        std::optional<DWORD> End(HANDLE hPipe);

        OVERLAPPED overlapped{};
        bool bOpen = false;
    };

    void Serve();
    void Pass();
    void AwaitHost();
    bool FileEnded();
    bool FollowPeer();
    void ClosePipe();

    IPeer& m_peer;
    const HANDLE m_hLink;
    const HANDLE m_hChange;
    std::atomic<bool> m_bEnd = false;
    std::atomic<bool> m_bPlugged = true;
    std::atomic<std::uint64_t> m_qwPasses = 0;

    // Of the thread alone.
    HANDLE m_hPipe = nullptr; // while the device is present
    HANDLE m_hNext =
        nullptr; // and while a host is served, for the one that comes before it is gone
    bool m_bHost = false;
    CCall m_connect;
    CCall m_read;
    CCall m_write;
    Bytes m_reading;
    Bytes m_offered;      // in the pipe, while its write is open
    std::thread m_thread; // last: it uses the others
};

} // namespace device_test
