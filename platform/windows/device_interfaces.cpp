#include "platform/device.h"
#include "platform/windows/device_node.h"

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

// Whether it is there again while a node of its earlier attachment is open here. It counts as gone
// until that is closed: whoever waits on that node waits in vain.
bool IsLost(HDEVINFO hSet, ::SP_DEVICE_INTERFACE_DATA& data) {
    union {
        ::SP_DEVICE_INTERFACE_DETAIL_DATA_A detail;
        char room[1024]; // a longer path would be no node that was opened
    } record;
    record.detail.cbSize = sizeof(record.detail);
    return ::SetupDiGetDeviceInterfaceDetailA(hSet, &data, &record.detail, sizeof(record), nullptr,
                                              nullptr) != FALSE &&
           windows::IsDeviceLost(record.detail.DevicePath);
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
    // The index counts those that are not lost.
    for (DWORD dwIndex = 0, dwFound = 0; dwFound <= MemberIndex; ++dwIndex) {
        if (::SetupDiEnumDeviceInterfaces(DeviceInfoSet,
                                          static_cast<SP_DEVINFO_DATA*>(DeviceInfoData),
                                          InterfaceClassGuid, dwIndex, &data) == FALSE) {
            return FALSE;
        }
        dwFound += IsLost(DeviceInfoSet, data) ? 0U : 1U;
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

BOOL IsPromptDevice(HANDLE hDevice) {
    const windows::CDeviceNode* pNode = windows::FindNode(hDevice);
    return pNode != nullptr && pNode->IsPrompt() ? TRUE : FALSE;
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    return ::SetupDiDestroyDeviceInfoList(DeviceInfoSet);
}

} // namespace platform
