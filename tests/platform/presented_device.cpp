#include "tests/platform/presented_device.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace device_test {
namespace {

// More than the longest command.
constexpr std::size_t LARGEST_PACKAGE = (1U << 20) + 65536;

// Far more than a pass takes.
constexpr std::chrono::seconds AT_MOST{90};

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

} // namespace

CPresentedDevice::CCall::CCall() {
    overlapped.hEvent = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Require(overlapped.hEvent != nullptr, "CreateEventA");
}

CPresentedDevice::CCall::~CCall() {
    ::CloseHandle(overlapped.hEvent);
}

bool CPresentedDevice::CCall::HasEnded() const {
    return bOpen && ::WaitForSingleObject(overlapped.hEvent, 0) == WAIT_OBJECT_0;
}

bool CPresentedDevice::CCall::TakeResult(HANDLE hPipe, DWORD& dwCount) {
    const bool bDone = ::GetOverlappedResult(hPipe, &overlapped, &dwCount, TRUE) != FALSE;
    bOpen = false;
    ::ResetEvent(overlapped.hEvent);
    return bDone;
}

bool CPresentedDevice::CCall::Cancel(HANDLE hPipe, DWORD& dwCount) {
    if (!bOpen) {
        return false;
    }
    ::CancelIoEx(hPipe, &overlapped);
    return TakeResult(hPipe, dwCount);
}

bool CPresentedDevice::CCall::Begun(BOOL bDone) {
    bOpen = bDone != FALSE || ::GetLastError() == ERROR_IO_PENDING;
    return bOpen;
}

CPresentedDevice::CPresentedDevice(IPeer& peer)
    : m_peer(peer), m_hChange(::CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      m_reading(LARGEST_PACKAGE), m_thread([this] { Serve(); }) {
    Settle();
}

CPresentedDevice::~CPresentedDevice() {
    {
        const std::lock_guard hold(m_mutex);
        m_bEnd = true;
    }
    ::SetEvent(m_hChange);
    m_thread.join();
    ::CloseHandle(m_hChange);
}

void CPresentedDevice::SetPlugged(bool bPlugged) {
    {
        const std::lock_guard hold(m_mutex);
        m_bPlugged = bPlugged;
    }
    Settle();
}

void CPresentedDevice::Settle() {
    std::unique_lock hold(m_mutex);
    const std::uint64_t qwMine = ++m_qwAsked;
    ::SetEvent(m_hChange);
    Require(m_settled.wait_for(hold, AT_MOST, [&] { return m_qwSettled >= qwMine; }),
            "its thread does not answer");
}

// Ends a pass, and waits until there is reason for another: a call has ended, the peer's time has
// come, or somebody asks.
void CPresentedDevice::Wait(std::initializer_list<const CCall*> calls) {
    {
        const std::lock_guard hold(m_mutex);
        m_qwSettled = m_qwSeen;
    }
    m_settled.notify_all();
    HANDLE events[3] = {m_hChange};
    DWORD dwEvents = 1;
    for (const CCall* pCall : calls) {
        events[dwEvents++] = pCall->overlapped.hEvent;
    }
    DWORD dwWaitMs = INFINITE;
    if (const auto qwDueMs = m_peer.NextDueMs()) {
        dwWaitMs = static_cast<DWORD>(*qwDueMs - std::min(*qwDueMs, NowMs()));
    }
    ::WaitForMultipleObjects(dwEvents, events, FALSE, dwWaitMs);
    const std::lock_guard hold(m_mutex);
    m_qwSeen = m_qwAsked;
}

bool CPresentedDevice::IsWanted() {
    const std::lock_guard hold(m_mutex);
    return m_bPlugged && !m_bEnd && m_peer.IsAttached();
}

void CPresentedDevice::Attach(bool bAttached) {
    if (bAttached == (m_hPipe != nullptr)) {
        return;
    }
    if (bAttached) {
        m_hPipe = m_registration.MakePipe();
        m_registration.SetPresent(true);
    } else {
        m_registration.SetPresent(false);
        ::CloseHandle(m_hPipe);
        m_hPipe = nullptr;
    }
}

void CPresentedDevice::Serve() {
    for (bool bEnd = false; !bEnd;) {
        m_peer.SetTime(NowMs());
        if (!IsWanted()) {
            Attach(false);
            Wait({});
        } else {
            Attach(true);
            if (AwaitHost()) {
                ServeHost();
                m_peer.HostGone();
            }
        }
        const std::lock_guard hold(m_mutex);
        bEnd = m_bEnd;
    }
    Attach(false);
}

// Waits for a host, or for a reason to look at the rest again.
bool CPresentedDevice::AwaitHost() {
    CCall connect;
    const BOOL bDone = ::ConnectNamedPipe(m_hPipe, &connect.overlapped);
    if (bDone == FALSE && ::GetLastError() != ERROR_IO_PENDING) {
        // One that has come and gone meanwhile is found to have gone.
        Require(::GetLastError() == ERROR_PIPE_CONNECTED || ::GetLastError() == ERROR_NO_DATA,
                "ConnectNamedPipe");
        return true;
    }
    connect.bOpen = true;
    Wait({&connect});
    DWORD dwCount = 0;
    return connect.HasEnded() ? connect.TakeResult(m_hPipe, dwCount)
                              : connect.Cancel(m_hPipe, dwCount);
}

// Until the host closes its end or the device is not wanted any more.
void CPresentedDevice::ServeHost() {
    // The next host may come before this end has seen the last one go.
    const HANDLE hNext = m_registration.MakePipe();
    CCall read;
    CCall write;
    while (FileEnded(read, write)) {
        m_peer.SetTime(NowMs());
        if (!IsWanted()) {
            break;
        }
        FollowPeer(read, write);
        if (!StartCalls(read, write)) {
            break;
        }
        Wait({&read, &write});
    }
    DWORD dwCount = 0;
    read.Cancel(m_hPipe, dwCount);
    write.Cancel(m_hPipe, dwCount);
    const HANDLE hServed = std::exchange(m_hPipe, hNext);
    if (!IsWanted()) {
        // Whoever finds the pipe cut is to find the device gone as well.
        Attach(false);
    }
    ::CloseHandle(hServed);
}

// Hands on what the calls that have ended brought. What the host has taken comes first: it may have
// written in answer to it. False when the host has gone.
bool CPresentedDevice::FileEnded(CCall& read, CCall& write) {
    DWORD dwCount = 0;
    const bool bWritten = write.HasEnded();
    if (bWritten) {
        if (!write.TakeResult(m_hPipe, dwCount)) {
            return false;
        }
        m_peer.OfferTaken(m_offered.size());
    }
    if (read.HasEnded()) {
        if (!read.TakeResult(m_hPipe, dwCount)) {
            return false;
        }
        m_peer.TakePackage(std::span(m_reading).first(dwCount));
    }
    return true;
}

// Takes back what the peer wants no longer.
void CPresentedDevice::FollowPeer(CCall& read, CCall& write) {
    DWORD dwCount = 0;
    if (write.bOpen && !std::ranges::equal(m_offered, m_peer.Offer())) {
        // Where the host has it all the same, it was quicker.
        write.Cancel(m_hPipe, dwCount);
    }
    if (!m_peer.Takes() && read.Cancel(m_hPipe, dwCount)) {
        m_peer.TakePackage(std::span(m_reading).first(dwCount));
    }
}

// Opens the calls that are due. False when the host has gone.
bool CPresentedDevice::StartCalls(CCall& read, CCall& write) {
    if (!read.bOpen && m_peer.Takes() &&
        !read.Begun(::ReadFile(m_hPipe, m_reading.data(), static_cast<DWORD>(m_reading.size()),
                               nullptr, &read.overlapped))) {
        return false;
    }
    if (write.bOpen) {
        return true;
    }
    const std::span<const std::uint8_t> offer = m_peer.Offer();
    m_offered.assign(offer.begin(), offer.end());
    return m_offered.empty() ||
           write.Begun(::WriteFile(m_hPipe, m_offered.data(), static_cast<DWORD>(m_offered.size()),
                                   nullptr, &write.overlapped));
}

} // namespace device_test
