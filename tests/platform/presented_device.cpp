#include "tests/platform/presented_device.h"

#include <algorithm>
#include <utility>

namespace device_test {
namespace {

// More than the longest command.
constexpr std::size_t LARGEST_PACKAGE = (1U << 20) + 65536;

// Far more than the passes of a settlement take.
constexpr ULONGLONG AT_MOST_MS = 90'000;

} // namespace

bool CPresentedDevice::CCall::Begun(BOOL bDone) {
    bOpen = bDone != FALSE || ::GetLastError() == ERROR_IO_PENDING;
    return bOpen;
}

bool CPresentedDevice::CCall::HasEnded() const {
    return bOpen && ::WaitForSingleObject(overlapped.hEvent, 0) == WAIT_OBJECT_0;
}

std::optional<DWORD> CPresentedDevice::CCall::End(HANDLE hPipe) {
    if (!std::exchange(bOpen, false)) {
        return {};
    }
    ::CancelIoEx(hPipe, &overlapped);
    DWORD dwCount = 0;
    const BOOL bDone = ::GetOverlappedResult(hPipe, &overlapped, &dwCount, TRUE);
    ::ResetEvent(overlapped.hEvent);
    return bDone != FALSE ? std::optional(dwCount) : std::nullopt;
}

CPresentedDevice::CPresentedDevice(IPeer& peer)
    : m_peer(peer), m_hLink(RegisterDevice()),
      m_hChange(::CreateEventA(nullptr, FALSE, FALSE, nullptr)), m_reading(LARGEST_PACKAGE),
      m_thread([this] { Serve(); }) {
    Settle();
}

CPresentedDevice::~CPresentedDevice() {
    m_bEnd = true;
    ::SetEvent(m_hChange);
    m_thread.join();
    ::CloseHandle(m_hChange);
    ::CloseHandle(m_hLink);
}

void CPresentedDevice::SetPlugged(bool bPlugged) {
    m_bPlugged = bPlugged;
    Settle();
}

// The pass that runs may be behind what has changed. Those after it take a host, what it wrote, and
// what the peer says to that.
void CPresentedDevice::Settle() {
    const std::uint64_t qwGoal = m_qwPasses + 4;
    const ULONGLONG qwBegin = ::GetTickCount64();
    while (m_qwPasses < qwGoal) {
        Require(::GetTickCount64() - qwBegin < AT_MOST_MS, "its thread does not answer");
        ::SetEvent(m_hChange);
        ::Sleep(0);
    }
}

void CPresentedDevice::Serve() {
    while (!m_bEnd) {
        Pass();
        ++m_qwPasses;
        // Until a call has ended, the peer's time has come, or somebody asks.
        const HANDLE events[] = {m_hChange, m_connect.overlapped.hEvent, m_read.overlapped.hEvent,
                                 m_write.overlapped.hEvent};
        const std::uint64_t qwNowMs = ::GetTickCount64();
        const std::uint64_t qwDueMs = m_peer.NextDueMs().value_or(qwNowMs + 1000);
        ::WaitForMultipleObjects(4, events, FALSE,
                                 static_cast<DWORD>(qwDueMs - std::min(qwDueMs, qwNowMs)));
    }
    m_bPlugged = false;
    Pass();
}

void CPresentedDevice::Pass() {
    bool bLeft = m_bHost && !FileEnded();
    m_peer.SetTime(::GetTickCount64()); // always behind what the host has written or taken
    if (!m_bPlugged || !m_peer.IsAttached()) {
        // Whoever finds the pipe cut is to find the device gone as well.
        SetPresent(false);
        while (m_hPipe != nullptr) {
            ClosePipe();
        }
        return;
    }
    if (m_hPipe == nullptr) {
        m_hPipe = MakePipe();
        SetPresent(true);
    }
    bLeft = bLeft || (m_bHost && !FollowPeer());
    if (bLeft) {
        ClosePipe();
    }
    if (!m_bHost) {
        AwaitHost();
    }
}

void CPresentedDevice::AwaitHost() {
    if (m_connect.HasEnded()) {
        m_bHost = m_connect.End(m_hPipe).has_value();
    } else if (!m_connect.bOpen &&
               !m_connect.Begun(::ConnectNamedPipe(m_hPipe, &m_connect.overlapped))) {
        // One that has come and gone meanwhile is found to have gone.
        Require(::GetLastError() == ERROR_PIPE_CONNECTED || ::GetLastError() == ERROR_NO_DATA,
                "nobody can come");
        m_bHost = true;
    }
    if (m_bHost) {
        m_hNext = MakePipe();
        ::SetEvent(m_hChange);
    }
}

// Hands on what the calls that have ended brought. What the host has taken comes first: it may have
// written in answer to it. False when the host has gone.
bool CPresentedDevice::FileEnded() {
    if (m_write.HasEnded()) {
        if (!m_write.End(m_hPipe)) {
            return false;
        }
        m_peer.OfferTaken(m_offered.size());
    }
    if (m_read.HasEnded()) {
        const std::optional<DWORD> dwCount = m_read.End(m_hPipe);
        if (!dwCount) {
            return false;
        }
        m_peer.TakePackage(std::span(m_reading).first(*dwCount));
    }
    return true;
}

// Takes back what the peer wants no longer, and opens the calls that are due. False when the host
// has gone.
bool CPresentedDevice::FollowPeer() {
    if (m_write.bOpen && !std::ranges::equal(m_offered, m_peer.Offer())) {
        // Where the host has it all the same, it was quicker.
        m_write.End(m_hPipe);
    }
    if (!m_peer.Takes()) {
        if (const std::optional<DWORD> dwCount = m_read.End(m_hPipe)) {
            m_peer.TakePackage(std::span(m_reading).first(*dwCount));
        }
    } else if (!m_read.bOpen && !m_read.Begun(::ReadFile(m_hPipe, m_reading.data(),
                                                         static_cast<DWORD>(m_reading.size()),
                                                         nullptr, &m_read.overlapped))) {
        return false;
    }
    if (m_write.bOpen) {
        return true;
    }
    const std::span<const std::uint8_t> offer = m_peer.Offer();
    m_offered.assign(offer.begin(), offer.end());
    return m_offered.empty() || m_write.Begun(::WriteFile(m_hPipe, m_offered.data(),
                                                          static_cast<DWORD>(m_offered.size()),
                                                          nullptr, &m_write.overlapped));
}

void CPresentedDevice::ClosePipe() {
    for (CCall* pCall : {&m_connect, &m_read, &m_write}) {
        pCall->End(m_hPipe);
    }
    ::CloseHandle(m_hPipe);
    m_hPipe = std::exchange(m_hNext, nullptr);
    if (std::exchange(m_bHost, false)) {
        m_peer.HostGone();
    }
}

} // namespace device_test
