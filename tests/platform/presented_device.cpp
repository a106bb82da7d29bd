#include "tests/platform/presented_device.h"

#include <winternl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace device_test {
namespace {

constexpr GUID DEVICE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
constexpr char INSTANCE[] = "ROOT\\DAK\\0001";
constexpr char CONTROL_KEY[] = "SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                               "{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}\\"
                               "##?#root#dak#0001#{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}\\#\\"
                               "Control";
constexpr wchar_t LINK_NAME[] = L"\\??\\ROOT#DAK#0001#{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}";
constexpr char PIPE_NAME[] = "\\\\.\\pipe\\dak-presented-device";
constexpr wchar_t PIPE_TARGET[] = L"\\Device\\NamedPipe\\dak-presented-device";

constexpr std::size_t LARGEST_PACKAGE = 65536;
// The pipe's buffer is a quota: a package that does not fit it waits until it is taken.
constexpr DWORD PIPE_QUOTA = 1;
// Time for a package that the pipe has passed on to be filed.
constexpr auto SETTLE = std::chrono::milliseconds(30);

// A test without its device proves nothing.
void Require(bool bDone, const char* lpszWhat) {
    if (!bDone) {
        std::fprintf(stderr, "The device cannot be presented: %s, error %lu\n", lpszWhat,
                     ::GetLastError());
        std::abort();
    }
}

// Enters the device and its interface into the system's lists, where they stay.
void Register() {
    const HDEVINFO hSet = ::SetupDiCreateDeviceInfoList(&DEVICE_CLASS, nullptr);
    Require(hSet != INVALID_HANDLE_VALUE, "SetupDiCreateDeviceInfoList");
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof(device);
    if (::SetupDiCreateDeviceInfoA(hSet, INSTANCE, &DEVICE_CLASS, nullptr, nullptr, 0, &device) ==
        FALSE) {
        Require(::SetupDiOpenDeviceInfoA(hSet, INSTANCE, nullptr, 0, &device) != FALSE,
                "SetupDiOpenDeviceInfoA");
    } else {
        Require(::SetupDiRegisterDeviceInfo(hSet, &device, 0, nullptr, nullptr, nullptr) != FALSE,
                "SetupDiRegisterDeviceInfo");
    }
    Require(::SetupDiCreateDeviceInterfaceA(hSet, &device, &DEVICE_CLASS, nullptr, 0, nullptr) !=
                FALSE,
            "SetupDiCreateDeviceInterfaceA");
    ::SetupDiDestroyDeviceInfoList(hSet);
}

void SetPresent(DWORD dwLinked) {
    HKEY hKey = nullptr;
    Require(::RegCreateKeyExA(HKEY_LOCAL_MACHINE, CONTROL_KEY, 0, nullptr, REG_OPTION_VOLATILE,
                              KEY_SET_VALUE, nullptr, &hKey, nullptr) == ERROR_SUCCESS,
            "RegCreateKeyExA");
    ::RegSetValueExA(hKey, "Linked", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwLinked),
                     sizeof(dwLinked));
    ::RegCloseKey(hKey);
}

UNICODE_STRING Unicode(const wchar_t* lpszText) {
    UNICODE_STRING text{};
    text.Length = static_cast<USHORT>(std::wstring(lpszText).size() * sizeof(wchar_t));
    text.MaximumLength = text.Length;
    text.Buffer = const_cast<wchar_t*>(lpszText);
    return text;
}

// The link ends with its handle.
HANDLE MakeLink() {
    using FCreate = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, UNICODE_STRING*);
    const auto create = reinterpret_cast<FCreate>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "NtCreateSymbolicLinkObject")));
    UNICODE_STRING name = Unicode(LINK_NAME);
    UNICODE_STRING target = Unicode(PIPE_TARGET);
    OBJECT_ATTRIBUTES attributes{};
    attributes.Length = sizeof(attributes);
    attributes.ObjectName = &name;
    attributes.Attributes = 0x40; // regardless of case
    HANDLE hLink = nullptr;
    Require(create != nullptr && create(&hLink, 0xF0001, &attributes, &target) >= 0,
            "NtCreateSymbolicLinkObject");
    return hLink;
}

HANDLE MakePipe() {
    const HANDLE hPipe =
        ::CreateNamedPipeA(PIPE_NAME, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                           PIPE_UNLIMITED_INSTANCES, PIPE_QUOTA, PIPE_QUOTA, 0, nullptr);
    Require(hPipe != INVALID_HANDLE_VALUE, "CreateNamedPipeA");
    return hPipe;
}

} // namespace

CPresentedDevice::CCall::CCall() {
    overlapped.hEvent = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

CPresentedDevice::CCall::~CCall() {
    ::CloseHandle(overlapped.hEvent);
}

CPresentedDevice::CPresentedDevice()
    : m_hChange(::CreateEventA(nullptr, FALSE, FALSE, nullptr)), m_hPipe(MakePipe()),
      m_hLink(MakeLink()), m_reading(LARGEST_PACKAGE), m_thread([this] { Serve(); }) {
    Register();
    SetPresent(1);
}

CPresentedDevice::~CPresentedDevice() {
    SetPresent(0);
    {
        const std::lock_guard hold(m_mutex);
        m_bEnd = true;
    }
    ::SetEvent(m_hChange);
    m_thread.join();
    ::CloseHandle(m_hLink);
    ::CloseHandle(m_hPipe);
    ::CloseHandle(m_hChange);
}

void CPresentedDevice::Gives(Bytes package) {
    {
        const std::lock_guard hold(m_mutex);
        m_gives.push_back(std::move(package));
    }
    ::SetEvent(m_hChange);
}

void CPresentedDevice::Takes(bool bTakes) {
    {
        const std::lock_guard hold(m_mutex);
        m_bTakes = bTakes;
    }
    ::SetEvent(m_hChange);
    std::this_thread::sleep_for(SETTLE);
}

std::vector<Bytes> CPresentedDevice::Took() {
    std::this_thread::sleep_for(SETTLE);
    const std::lock_guard hold(m_mutex);
    return m_took;
}

// One host after the other.
void CPresentedDevice::Serve() {
    for (bool bMore = true; bMore;) {
        CCall connect;
        connect.bOpen = ::ConnectNamedPipe(m_hPipe, &connect.overlapped) == FALSE &&
                        ::GetLastError() == ERROR_IO_PENDING;
        while (bMore && connect.bOpen) {
            const HANDLE events[] = {connect.overlapped.hEvent, m_hChange};
            if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0) {
                break;
            }
            const std::lock_guard hold(m_mutex);
            bMore = !m_bEnd;
        }
        if (!bMore) {
            Abandon(connect);
            return;
        }
        // The next host may come before this end has seen the last one go.
        const HANDLE hNext = MakePipe();
        bMore = ServeHost();
        ::CloseHandle(m_hPipe);
        m_hPipe = hNext;
    }
}

// Until the host closes its end; false at the device's end.
bool CPresentedDevice::ServeHost() {
    CCall read;
    CCall write;
    bool bEnd = false;
    while (StartCalls(read, write)) {
        const HANDLE events[] = {read.overlapped.hEvent, write.overlapped.hEvent, m_hChange};
        ::WaitForMultipleObjects(3, events, FALSE, INFINITE);
        DWORD dwCount = 0;
        const std::lock_guard hold(m_mutex);
        bEnd = m_bEnd;
        if (bEnd) {
            break;
        }
        if (!m_bTakes && read.bOpen) {
            // A package may have come in spite of it, and then it was taken.
            ::CancelIoEx(m_hPipe, &read.overlapped);
            ::WaitForSingleObject(read.overlapped.hEvent, INFINITE);
        }
        if (EndCall(read, dwCount)) {
            m_took.emplace_back(m_reading.begin(),
                                m_reading.begin() + static_cast<std::ptrdiff_t>(dwCount));
        }
        if (EndCall(write, dwCount)) {
            m_gives.pop_front();
        }
    }
    Abandon(read);
    Abandon(write);
    return !bEnd;
}

// Opens the calls that are due. False when the host has gone.
bool CPresentedDevice::StartCalls(CCall& read, CCall& write) {
    const std::lock_guard hold(m_mutex);
    const auto start = [&](CCall& call, BOOL bDone) {
        call.bOpen = bDone != FALSE || ::GetLastError() == ERROR_IO_PENDING;
        return call.bOpen;
    };
    if (m_bTakes && !read.bOpen &&
        !start(read, ::ReadFile(m_hPipe, m_reading.data(), static_cast<DWORD>(m_reading.size()),
                                nullptr, &read.overlapped))) {
        return false;
    }
    return write.bOpen || m_gives.empty() ||
           start(write, ::WriteFile(m_hPipe, m_gives.front().data(),
                                    static_cast<DWORD>(m_gives.front().size()), nullptr,
                                    &write.overlapped));
}

// Whether an open call has come to a good end. One that is ended otherwise is open no longer.
bool CPresentedDevice::EndCall(CCall& call, DWORD& dwCount) {
    if (!call.bOpen || ::WaitForSingleObject(call.overlapped.hEvent, 0) != WAIT_OBJECT_0) {
        return false;
    }
    call.bOpen = false;
    ::ResetEvent(call.overlapped.hEvent);
    return ::GetOverlappedResult(m_hPipe, &call.overlapped, &dwCount, FALSE) != FALSE;
}

void CPresentedDevice::Abandon(CCall& call) {
    if (call.bOpen) {
        DWORD dwCount = 0;
        ::CancelIoEx(m_hPipe, &call.overlapped);
        ::GetOverlappedResult(m_hPipe, &call.overlapped, &dwCount, TRUE);
        call.bOpen = false;
    }
}

} // namespace device_test
