#include "tests/platform/device_registration.h"

#include <winternl.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace device_test {
namespace {

constexpr GUID DEVICE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};
constexpr char INSTANCE[] = "ROOT\\DAK\\0001";
constexpr char CONTROL_KEY[] = "SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                               "{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}\\"
                               "##?#root#dak#0001#{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}\\#\\"
                               "Control";
constexpr std::wstring_view LINK_NAME =
    L"\\??\\ROOT#DAK#0001#{25dbce51-6c8f-4a72-8a6d-b54c2b4fc835}";
constexpr char PIPE_NAME[] = "\\\\.\\pipe\\dak-presented-device";
constexpr std::wstring_view PIPE_TARGET = L"\\Device\\NamedPipe\\dak-presented-device";

// The pipe's buffer is a quota: a package that does not fit it waits until it is taken.
constexpr DWORD PIPE_QUOTA = 1;

void EnterIntoLists() {
    const HDEVINFO hSet = ::SetupDiCreateDeviceInfoList(&DEVICE_CLASS, nullptr);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof(device);
    Require((::SetupDiCreateDeviceInfoA(hSet, INSTANCE, &DEVICE_CLASS, nullptr, nullptr, 0,
                                        &device) != FALSE &&
             ::SetupDiRegisterDeviceInfo(hSet, &device, 0, nullptr, nullptr, nullptr) != FALSE) ||
                ::SetupDiOpenDeviceInfoA(hSet, INSTANCE, nullptr, 0, &device) != FALSE,
            "no device");
    Require(::SetupDiCreateDeviceInterfaceA(hSet, &device, &DEVICE_CLASS, nullptr, 0, nullptr) !=
                FALSE,
            "no interface");
    ::SetupDiDestroyDeviceInfoList(hSet);
}

UNICODE_STRING Unicode(std::wstring_view text) {
    const auto wBytes = static_cast<USHORT>(text.size() * sizeof(wchar_t));
    return {wBytes, wBytes, const_cast<wchar_t*>(text.data())};
}

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
    Require(create != nullptr && create(&hLink, 0xF0001, &attributes, &target) >= 0, "no link");
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

HANDLE RegisterDevice() {
    EnterIntoLists();
    return MakeLink();
}

void SetPresent(bool bPresent) {
    HKEY hKey = nullptr;
    const DWORD dwLinked = bPresent ? 1 : 0;
    Require(::RegCreateKeyExA(HKEY_LOCAL_MACHINE, CONTROL_KEY, 0, nullptr, REG_OPTION_VOLATILE,
                              KEY_SET_VALUE, nullptr, &hKey, nullptr) == ERROR_SUCCESS &&
                ::RegSetValueExA(hKey, "Linked", 0, REG_DWORD,
                                 reinterpret_cast<const BYTE*>(&dwLinked),
                                 sizeof(dwLinked)) == ERROR_SUCCESS,
            "no registry");
    ::RegCloseKey(hKey);
}

HANDLE MakePipe() {
    const HANDLE hPipe =
        ::CreateNamedPipeA(PIPE_NAME, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                           PIPE_UNLIMITED_INSTANCES, PIPE_QUOTA, PIPE_QUOTA, 0, nullptr);
    Require(hPipe != INVALID_HANDLE_VALUE, "no pipe");
    return hPipe;
}

} // namespace device_test
