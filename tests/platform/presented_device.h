// A device for tests on this system, which has no driver for one: an interface of the class is put
// into the system's list, and the path that the list gives leads to a named pipe of this process.
#pragma once

#include "platform/types.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace device_test {

using Bytes = std::vector<std::uint8_t>;

// Present while the object lives; one at a time. It holds what it is to give until the host has
// taken it, one package after the other, and keeps what the host wrote.
class CPresentedDevice {
  public:
    CPresentedDevice();
    ~CPresentedDevice();
    CPresentedDevice(const CPresentedDevice&) = delete;
    CPresentedDevice& operator=(const CPresentedDevice&) = delete;

    void Gives(Bytes package);
    // While it does not take, the host's writes block.
    void Takes(bool bTakes);
    std::vector<Bytes> Took();

  private:
    // One overlapped call on the pipe.
    struct CCall {
        CCall();
        ~CCall();
        OVERLAPPED overlapped{};
        bool bOpen = false;
    };

    void Serve();
    bool ServeHost();
    bool StartCalls(CCall& read, CCall& write);
    bool EndCall(CCall& call, DWORD& dwCount);
    void Abandon(CCall& call);

    HANDLE m_hChange;
    HANDLE m_hPipe;
    HANDLE m_hLink;
    std::mutex m_mutex;
    bool m_bEnd = false;
    bool m_bTakes = true;
    std::deque<Bytes> m_gives;
    std::vector<Bytes> m_took;
    Bytes m_reading;
    std::thread m_thread; // last: it uses the others
};

} // namespace device_test
