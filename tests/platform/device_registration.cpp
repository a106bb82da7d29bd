#include "tests/platform/device_registration.h"

#include <winternl.h>

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

// The pipe's buffer is a quota: a package that does not fit it waits until it is taken.
constexpr DWORD PIPE_QUOTA = 1;

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
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    Require(::SetupDiCreateDeviceInterfaceA(hSet, &device, &DEVICE_CLASS, nullptr, 0, &data) !=
                FALSE,
            "SetupDiCreateDeviceInterfaceA");
    const HKEY hKey =
        ::SetupDiCreateDeviceInterfaceRegKeyA(hSet, &data, 0, KEY_WRITE, nullptr, nullptr);
    const DWORD dwPrompt = 1;
    Require(hKey != INVALID_HANDLE_VALUE &&
                ::RegSetValueExA(hKey, "Prompt", 0, REG_DWORD,
                                 reinterpret_cast<const BYTE*>(&dwPrompt), sizeof(dwPrompt)) == 0,
            "SetupDiCreateDeviceInterfaceRegKeyA");
    ::RegCloseKey(hKey);
    ::SetupDiDestroyDeviceInfoList(hSet);
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

} // namespace

void Require(bool bDone, const char* lpszWhat) {
    if (!bDone) {
        std::fprintf(stderr, "The device cannot be presented: %s, error %lu\n", lpszWhat,
                     ::GetLastError());
        std::abort();
    }
}

CDeviceRegistration::CDeviceRegistration() : m_hLink(MakeLink()) {
    Register();
}

CDeviceRegistration::~CDeviceRegistration() {
    SetPresent(false);
    ::CloseHandle(m_hLink);
}

void CDeviceRegistration::SetPresent(bool bPresent) {
    HKEY hKey = nullptr;
    const DWORD dwLinked = bPresent ? 1 : 0;
    Require(::RegCreateKeyExA(HKEY_LOCAL_MACHINE, CONTROL_KEY, 0, nullptr, REG_OPTION_VOLATILE,
                              KEY_SET_VALUE, nullptr, &hKey, nullptr) == ERROR_SUCCESS,
            "RegCreateKeyExA");
    Require(::RegSetValueExA(hKey, "Linked", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwLinked),
                             sizeof(dwLinked)) == ERROR_SUCCESS,
            "RegSetValueExA");
    ::RegCloseKey(hKey);
}

HANDLE CDeviceRegistration::MakePipe() {
    const HANDLE hPipe =
        ::CreateNamedPipeA(PIPE_NAME, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                           PIPE_UNLIMITED_INSTANCES, PIPE_QUOTA, PIPE_QUOTA, 0, nullptr);
    Require(hPipe != INVALID_HANDLE_VALUE, "CreateNamedPipeA");
    return hPipe;
}

} // namespace device_test
