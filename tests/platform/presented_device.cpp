#include "tests/platform/presented_device.h"

#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

extern "C" NTSTATUS NTAPI NtCreateSymbolicLinkObject(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*,
                                                     UNICODE_STRING*);

// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define CLASS "{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}"
#define NAME "ROOT#DAK#0001#" CLASS
#define CLASS_KEY "SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\" CLASS "\\##?#" NAME
#define PIPE "dak-presented-device"
// NOLINTEND(cppcoreguidelines-macro-usage)

namespace device_test {
namespace {

// More than the longest command.
constexpr DWORD LARGEST_PACKAGE = (1U << 20) + 65536;
// The pipe's buffer is a quota: a package that does not fit it waits until it is taken.
constexpr DWORD PIPE_QUOTA = 1;
// How often the peer is asked though nothing moves.
constexpr DWORD TICK_MS = 2;

// A test without its device proves nothing: ends the program, saying what could not be done.
void Require(bool bDone, const char* lpszWhat) {
    if (!bDone) {
        std::fprintf(stderr, "The device cannot be presented: %s, error %lu\n", lpszWhat,
                     ::GetLastError());
        std::abort();
    }
}

template <class VALUE>
void SetValue(const char* lpszKey, const char* lpszName, DWORD dwType, const VALUE& value) {
    Require(::RegSetKeyValueA(HKEY_LOCAL_MACHINE, lpszKey, lpszName, dwType, &value,
                              sizeof(value)) == ERROR_SUCCESS,
            lpszName);
}

void SetPresent(bool bPresent) {
    const DWORD dwLinked = bPresent ? 1 : 0;
    SetValue(CLASS_KEY "\\#\\Control", "Linked", REG_DWORD, dwLinked);
}

// Enters the interface into the system's list, where it stays, and has its path lead to the pipe
// for as long as the handle is open.
HANDLE Register() {
    SetValue("SYSTEM\\CurrentControlSet\\Enum\\ROOT\\DAK\\0001", "ClassGUID", REG_SZ, CLASS);
    SetValue(CLASS_KEY, "DeviceInstance", REG_SZ, "ROOT\\DAK\\0001");
    SetValue(CLASS_KEY "\\#", "SymbolicLink", REG_SZ, "\\\\?\\" NAME);
    SetValue(CLASS_KEY "\\#\\Device Parameters", "Prompt", REG_DWORD, DWORD{1});
    UNICODE_STRING name;
    UNICODE_STRING target;
    ::RtlInitUnicodeString(&name, L"\\??\\" NAME);
    ::RtlInitUnicodeString(&target, L"\\Device\\NamedPipe\\" PIPE);
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE hLink = nullptr;
    Require(::NtCreateSymbolicLinkObject(&hLink, 0xF0001, &attributes, &target) >= 0, "link");
    return hLink;
}

HANDLE MakePipe() {
    const HANDLE hPipe =
        ::CreateNamedPipeA("\\\\.\\pipe\\" PIPE, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                           PIPE_UNLIMITED_INSTANCES, PIPE_QUOTA, PIPE_QUOTA, 0, nullptr);
    Require(hPipe != INVALID_HANDLE_VALUE, "pipe");
    return hPipe;
}

} // namespace

CPresentedDevice::CPresentedDevice(IPeer& peer)
    : m_peer(peer), m_hLink(Register()), m_reading(LARGEST_PACKAGE), m_thread([this] { Serve(); }) {
    Settle();
}

CPresentedDevice::~CPresentedDevice() {
    m_bEnd = true;
    ::SetEvent(m_hChange);
    m_thread.join();
    ::CloseHandle(m_hChange);
    ::CloseHandle(m_hLink);
}

void CPresentedDevice::Settle() {
    // Of the two the second begins from here on.
    for (const unsigned nPasses = m_nPasses; m_nPasses - nPasses < 2;) {
        ::SetEvent(m_hChange);
        ::Sleep(1);
    }
}

void CPresentedDevice::Serve() {
    for (bool bEnd = false; !bEnd; ++m_nPasses) {
        bEnd = m_bEnd;
        m_peer.SetTime(::GetTickCount64());
        const bool bWanted = !bEnd && m_peer.IsAttached();
        if (bWanted && m_hPipe == nullptr) {
            m_hPipe = MakePipe();
            SetPresent(true);
        }
        if (m_hPipe != nullptr && (!bWanted || !FileEnded() || !StartCalls())) {
            DropHost(bWanted);
        }
        const HANDLE events[] = {m_hChange, m_read.hDone, m_write.hDone};
        ::WaitForMultipleObjects(bEnd ? 0 : 3, events, FALSE, TICK_MS);
    }
}

// Hands on what the calls brought that have ended, and takes back what the peer wants no longer.
// What the host has taken comes first: it may have written in answer to it. False when the host has
// gone.
bool CPresentedDevice::FileEnded() {
    DWORD dwCount = 0;
    if (m_write.HasEnded()) {
        if (!m_write.End(m_hPipe, dwCount)) {
            return false;
        }
        m_peer.OfferTaken(m_offered.size());
    } else if (m_write.bOpen && !std::ranges::equal(m_offered, m_peer.Offer())) {
        m_write.End(m_hPipe, dwCount); // where the host has it all the same, it was quicker
    }
    const bool bEnded = m_read.HasEnded();
    if (bEnded || (m_read.bOpen && !m_peer.Takes())) {
        if (!m_read.End(m_hPipe, dwCount)) {
            return !bEnded;
        }
        m_peer.TakePackage(std::span(m_reading).first(dwCount));
    }
    return true;
}

// Opens the calls that are due. False when the host has gone.
bool CPresentedDevice::StartCalls() {
    bool bBegun = true;
    if (!m_read.bOpen && m_peer.Takes()) {
        bBegun = m_read.Begin([this](OVERLAPPED* lpOverlapped) {
            return ::ReadFile(m_hPipe, m_reading.data(), LARGEST_PACKAGE, nullptr, lpOverlapped);
        });
    }
    const std::span<const std::uint8_t> offer = m_peer.Offer();
    if (bBegun && !m_write.bOpen && !offer.empty()) {
        m_offered.assign(offer.begin(), offer.end());
        bBegun = m_write.Begin([this](OVERLAPPED* lpOverlapped) {
            return ::WriteFile(m_hPipe, m_offered.data(), static_cast<DWORD>(m_offered.size()),
                               nullptr, lpOverlapped);
        });
    }
    if (bBegun && m_hNext == nullptr && (m_read.bOpen || m_write.bOpen)) {
        m_hNext = MakePipe(); // the next host may come before this end has seen the last one go
    }
    return bBegun || ::GetLastError() == ERROR_PIPE_LISTENING;
}

void CPresentedDevice::DropHost(bool bStays) {
    DWORD dwCount = 0;
    for (CCall* pCall : {&m_read, &m_write}) {
        if (pCall->bOpen) {
            pCall->End(m_hPipe, dwCount);
        }
    }
    const HANDLE hServed = std::exchange(m_hPipe, nullptr);
    const HANDLE hNext = std::exchange(m_hNext, nullptr);
    if (bStays) {
        m_hPipe = hNext != nullptr ? hNext : MakePipe();
    } else {
        SetPresent(false); // whoever finds the pipe cut is to find the device gone as well
        ::CloseHandle(hNext);
    }
    ::CloseHandle(hServed);
    if (hNext != nullptr) {
        m_peer.HostGone();
    }
}

} // namespace device_test
