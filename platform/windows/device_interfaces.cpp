#include "platform/device.h"

#include <cstring>

namespace platform {
namespace {

// The system's record of an interface lies in ours, whose room suffices, behind the size.
static_assert(sizeof(::SP_DEVICE_INTERFACE_DATA) <= sizeof(SP_DEVICE_INTERFACE_DATA));

::SP_DEVICE_INTERFACE_DATA FromOurs(const SP_DEVICE_INTERFACE_DATA& ours) {
    ::SP_DEVICE_INTERFACE_DATA data;
    std::memcpy(&data, &ours, sizeof(data));
    data.cbSize = sizeof(data);
    return data;
}

void ToOurs(SP_DEVICE_INTERFACE_DATA& ours, const ::SP_DEVICE_INTERFACE_DATA& data) {
    static_assert(offsetof(::SP_DEVICE_INTERFACE_DATA, cbSize) == 0);
    std::memcpy(&ours, &data, sizeof(data));
    ours.cbSize = sizeof(ours);
}

} // namespace

HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* Enumerator, HWND hwndParent,
                              DWORD Flags) {
    return ::SetupDiGetClassDevsA(ClassGuid, Enumerator, hwndParent, Flags);
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* DeviceInfoData,
                                 const GUID* InterfaceClassGuid, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData) {
    if (DeviceInterfaceData->cbSize != sizeof(*DeviceInterfaceData)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ::SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    if (::SetupDiEnumDeviceInterfaces(DeviceInfoSet, static_cast<SP_DEVINFO_DATA*>(DeviceInfoData),
                                      InterfaceClassGuid, MemberIndex, &data) == FALSE) {
        return FALSE;
    }
    ToOurs(*DeviceInterfaceData, data);
    return TRUE;
}

BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO DeviceInfoSet,
                                      SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* DeviceInterfaceDetailData,
                                      DWORD DeviceInterfaceDetailDataSize, DWORD* RequiredSize,
                                      void* DeviceInfoData) {
    static_assert(offsetof(::SP_DEVICE_INTERFACE_DETAIL_DATA_A, DevicePath) == DETAIL_PATH_OFFSET);
    ::SP_DEVICE_INTERFACE_DATA data = FromOurs(*DeviceInterfaceData);
    auto* lpDetail =
        reinterpret_cast<::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(DeviceInterfaceDetailData);
    if (lpDetail != nullptr) {
        // The size that the system knows its own record by, which its packing decides.
        lpDetail->cbSize = sizeof(*lpDetail);
    }
    return ::SetupDiGetDeviceInterfaceDetailA(DeviceInfoSet, &data, lpDetail,
                                              DeviceInterfaceDetailDataSize, RequiredSize,
                                              static_cast<SP_DEVINFO_DATA*>(DeviceInfoData));
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    return ::SetupDiDestroyDeviceInfoList(DeviceInfoSet);
}

} // namespace platform
