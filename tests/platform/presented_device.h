// A device for tests on this system, which has no driver for one: an interface of the class is put
// into the system's list, and the path that the list gives leads to a named pipe of this process.
//
// One package at a time lies in the pipe, so that none runs into the next, and it lies there ahead
// of the host, whose reads a pipe does not show. Where what stands behind the pipe has changed its
// mind by then, a package that was not taken is withdrawn.
#pragma once

#include "platform/types.h"
#include "tests/platform/device_peer.h"

#include <atomic>
#include <thread>
#include <vector>

namespace device_test {

// Present while the object lives and the peer is attached; one at a time in the system.
class CPresentedDevice {
  public:
    // The peer outlives the object.
    explicit CPresentedDevice(IPeer& peer);
    ~CPresentedDevice();
    CPresentedDevice(const CPresentedDevice&) = delete;
    CPresentedDevice& operator=(const CPresentedDevice&) = delete;

    // Has the peer asked anew. On return what was in the pipe before has reached the peer, and
    // what the peer wants now is done.
    void Settle();

  private:
    // One overlapped call on the pipe.
    struct CCall {
        ~CCall() { ::CloseHandle(hDone); }
        // Makes it. False when the system refuses.
        template <class CALL>
        bool Begin(CALL call) {
            overlapped = {};
            overlapped.hEvent = hDone;
            bOpen = call(&overlapped) != FALSE || ::GetLastError() == ERROR_IO_PENDING;
            return bOpen;
        }
        bool HasEnded() const { return bOpen && HasOverlappedIoCompleted(&overlapped); }
        // Cuts it short if it has not ended. Whether it has moved its bytes.
        bool End(HANDLE hPipe, DWORD& dwCount) {
            bOpen = false;
            ::CancelIoEx(hPipe, &overlapped);
            return ::GetOverlappedResult(hPipe, &overlapped, &dwCount, TRUE) != FALSE;
        }

        const HANDLE hDone = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
        OVERLAPPED overlapped{};
        bool bOpen = false;
    };

    void Serve();
    bool FileEnded();
    bool StartCalls();
    void DropHost(bool bStays);

    IPeer& m_peer;
    const HANDLE m_hLink;
    const HANDLE m_hChange = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE m_hPipe = nullptr; // while attached
    HANDLE m_hNext = nullptr; // while a host is there: the pipe for the next one
    CCall m_read;
    CCall m_write;
    std::vector<std::uint8_t> m_reading;
    std::vector<std::uint8_t> m_offered; // in the pipe, while its write is open
    std::atomic<bool> m_bEnd = false;
    std::atomic<unsigned> m_nPasses = 0;
    std::thread m_thread; // last: it uses the others
};

} // namespace device_test
