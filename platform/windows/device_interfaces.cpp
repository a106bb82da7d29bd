#include "platform/device.h"

#include "platform/device_choice.h"

#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

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

std::mutex g_choiceMutex;
// Whether the program has chosen, and the path of its device: empty where it has none at all.
bool g_bChosen = false;
std::string g_strChosen;

bool IsSamePath(const std::string& strLeft, const std::string& strRight) {
    return ::lstrcmpiA(strLeft.c_str(), strRight.c_str()) == 0;
}

// The path that counts alone, by the program's choice or the user's.
std::optional<std::string> ChosenPath() {
    const std::lock_guard hold(g_choiceMutex);
    if (g_bChosen) {
        return g_strChosen;
    }
    std::string strPath(::GetEnvironmentVariableA("DAK_DEVICE", nullptr, 0), '\0');
    strPath.resize(::GetEnvironmentVariableA("DAK_DEVICE", strPath.data(),
                                             static_cast<DWORD>(strPath.size())));
    return strPath.empty() ? std::nullopt : std::optional(strPath);
}

// Empty where the system does not tell it.
std::string PathOf(HDEVINFO hSet, ::SP_DEVICE_INTERFACE_DATA& data) {
    DWORD dwSize = 0;
    ::SetupDiGetDeviceInterfaceDetailA(hSet, &data, nullptr, 0, &dwSize, nullptr);
    std::vector<DWORD> memory(dwSize / sizeof(DWORD) + 2);
    auto* lpDetail = reinterpret_cast<::SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(memory.data());
    lpDetail->cbSize = sizeof(*lpDetail);
    return ::SetupDiGetDeviceInterfaceDetailA(hSet, &data, lpDetail, dwSize, nullptr, nullptr) !=
                   FALSE
               ? lpDetail->DevicePath
               : "";
}

// Interface number dwIndex of the set, whatever has been chosen.
bool Enumerate(HDEVINFO hSet, const GUID* lpClass, DWORD dwIndex,
               ::SP_DEVICE_INTERFACE_DATA& data) {
    data = {};
    data.cbSize = sizeof(data);
    return ::SetupDiEnumDeviceInterfaces(hSet, nullptr, lpClass, dwIndex, &data) != FALSE;
}

// Interface number dwIndex of those that count.
bool EnumerateChosen(HDEVINFO hSet, const GUID* lpClass, DWORD dwIndex,
                     ::SP_DEVICE_INTERFACE_DATA& data) {
    const std::optional<std::string> strChosen = ChosenPath();
    if (!strChosen) {
        return Enumerate(hSet, lpClass, dwIndex, data);
    }
    for (DWORD i = 0; dwIndex == 0 && Enumerate(hSet, lpClass, i, data); ++i) {
        if (IsSamePath(PathOf(hSet, data), *strChosen)) {
            return true;
        }
    }
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return false;
}

// The paths of the devices that are attached. False, with the error number, when the system does
// not tell them.
bool ListPaths(std::vector<std::string>& paths) {
    const HDEVINFO hSet = ::SetupDiGetClassDevsA(&DEVICE_INTERFACE_CLASS, nullptr, nullptr,
                                                 DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (hSet == INVALID_HANDLE_VALUE) {
        return false;
    }
    ::SP_DEVICE_INTERFACE_DATA data;
    for (DWORD i = 0; Enumerate(hSet, &DEVICE_INTERFACE_CLASS, i, data); ++i) {
        paths.push_back(PathOf(hSet, data));
    }
    ::SetupDiDestroyDeviceInfoList(hSet);
    return true;
}

DWORD StorePaths(char* lpNames, DWORD* lpdwSize) {
    std::vector<std::string> paths;
    if (!ListPaths(paths)) {
        return ::GetLastError();
    }
    std::string strNames;
    for (const std::string& strPath : paths) {
        strNames.append(strPath).push_back('\0');
    }
    const DWORD dwRoom = *lpdwSize;
    *lpdwSize = static_cast<DWORD>(strNames.size()) + 1;
    if (dwRoom < *lpdwSize) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(lpNames, strNames.c_str(), *lpdwSize);
    return ERROR_SUCCESS;
}

BOOL Choose(const char* lpszName) {
    const std::string strWanted = lpszName;
    std::vector<std::string> paths;
    if (!ListPaths(paths)) {
        return FALSE;
    }
    for (const std::string& strPath : paths) {
        if (IsSamePath(strPath, strWanted)) {
            const std::lock_guard hold(g_choiceMutex);
            g_strChosen = strPath;
            return TRUE;
        }
    }
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return FALSE;
}

// No exception leaves the library.
template <class RESULT, class BODY>
RESULT WithMemory(RESULT failure, BODY body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return failure;
    }
}

} // namespace

HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* Enumerator, HWND hwndParent,
                              DWORD Flags) {
    return ::SetupDiGetClassDevsA(ClassGuid, Enumerator, hwndParent, Flags);
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* /*DeviceInfoData*/,
                                 const GUID* InterfaceClassGuid, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData) {
    if (DeviceInterfaceData->cbSize != sizeof(*DeviceInterfaceData)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ::SP_DEVICE_INTERFACE_DATA data;
    if (!WithMemory(false, [&] {
            return EnumerateChosen(DeviceInfoSet, InterfaceClassGuid, MemberIndex, data);
        })) {
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

// The system does not tell.
BOOL IsDeviceNodeLost(HANDLE /*hDevice*/) {
    return FALSE;
}

DWORD ListDevices(char* lpNames, DWORD* lpdwSize) {
    return WithMemory<DWORD>(ERROR_NOT_ENOUGH_MEMORY,
                             [&] { return StorePaths(lpNames, lpdwSize); });
}

BOOL ChooseDevice(const char* lpszName) {
    {
        const std::lock_guard hold(g_choiceMutex);
        g_bChosen = lpszName != nullptr;
        g_strChosen.clear();
    }
    if (lpszName == nullptr) {
        return TRUE;
    }
    return WithMemory<BOOL>(FALSE, [&] { return Choose(lpszName); });
}

} // namespace platform
