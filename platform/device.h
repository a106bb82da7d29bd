// The seam: device interfaces that are present. Any thread, at any rate; nothing is opened, taken
// or sent by asking. Which of several devices it is that counts: platform/device_choice.h.
#pragma once

#include "platform/types.h"

namespace platform {

// The class under which devices are listed: {25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}.
inline constexpr GUID DEVICE_INTERFACE_CLASS = {
    0x25DBCE51, 0x6C8F, 0x4A72, {0x8A, 0x6D, 0xB5, 0x4C, 0x2B, 0x4F, 0xC8, 0x35}};

// One interface of a set. cbSize is set by the caller to the record's size.
struct SP_DEVICE_INTERFACE_DATA {
    DWORD cbSize;
    DWORD dwIndex;
    HDEVINFO hSet;
    const void* lpReserved;
    std::uint64_t qwReserved[2];
};

// The detail of an interface: the path to open it by, with its terminator, behind the size. cbSize
// is set by the caller to DETAIL_RECORD_SIZE.
struct SP_DEVICE_INTERFACE_DETAIL_DATA_A {
    DWORD cbSize;
    char DevicePath[1];
};
inline constexpr DWORD DETAIL_RECORD_SIZE = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A);
inline constexpr DWORD DETAIL_PATH_OFFSET = 4;

// The interfaces of a class that are present and not passed over by a choice (Flags DIGCF_PRESENT |
// DIGCF_DEVICEINTERFACE, no enumerator, no window), to be given back to
// SetupDiDestroyDeviceInfoList. INVALID_HANDLE_VALUE on failure; no interface at all is no failure.
HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* Enumerator, HWND hwndParent,
                              DWORD Flags);

// Interface number MemberIndex of the set, in an order that lasts as long as the devices stay.
// DeviceInfoData is null. FALSE when there is none.
BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* DeviceInfoData,
                                 const GUID* InterfaceClassGuid, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData);

// Stores the detail record of an interface, of DeviceInterfaceDetailDataSize bytes; with a null
// record and size 0 it fails and stores the size needed through RequiredSize (null allowed
// elsewhere). DeviceInfoData is null.
BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO DeviceInfoSet,
                                      SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* DeviceInterfaceDetailData,
                                      DWORD DeviceInterfaceDetailDataSize, DWORD* RequiredSize,
                                      void* DeviceInfoData);

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet);

// Whether an open device node has lost its device for good: every transfer on it fails, also when
// the device is attached again. FALSE where that is not known, and for what is no node.
BOOL IsDeviceNodeLost(HANDLE hDevice);

} // namespace platform
