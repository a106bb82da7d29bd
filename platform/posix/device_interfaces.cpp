// Device interfaces: sets of the devices attached at the moment of the question.
#include "platform/device.h"

#include "platform/device_choice.h"
#include "platform/posix/device_folder.h"
#include "platform/posix/handles.h"
#include "platform/posix/paths.h"
#include "platform/thread.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace platform {
namespace posix {
namespace {

class CInterfaceSet final : public CObject {
  public:
    explicit CInterfaceSet(std::vector<std::string> paths) : m_paths(std::move(paths)) {}

    bool IsForCloseHandle() const override { return false; }
    const std::vector<std::string>& Paths() const { return m_paths; }

  private:
    const std::vector<std::string> m_paths;
};

// The one device that the process works with: none at all without a name, any where nobody has
// chosen.
std::optional<ATTACHEDDEVICE>& Choice() {
    static auto& choice = *new std::optional<ATTACHEDDEVICE>;
    return choice;
}

bool IsPassedOver(const ATTACHEDDEVICE& device) {
    const std::lock_guard hold(DeviceChoiceMutex());
    if (Choice()) {
        return *Choice() != device;
    }
    const char* lpszNamed = std::getenv("DAK_DEVICE");
    return lpszNamed != nullptr && *lpszNamed != '\0' && device.strName != lpszNamed;
}

bool ListDevicesOrFail(std::vector<ATTACHEDDEVICE>& devices, std::string& strFolder) {
    const bool bListed = ListAttachedDevices(devices, strFolder);
    if (!bListed) {
        SetLastErrorFromErrno(errno);
    }
    return bListed;
}

HANDLE TakeInterfaces(const GUID& classGuid) {
    std::vector<ATTACHEDDEVICE> devices;
    std::string strFolder;
    if (std::memcmp(&classGuid, &DEVICE_INTERFACE_CLASS, sizeof(GUID)) == 0 &&
        !ListDevicesOrFail(devices, strFolder)) {
        return nullptr;
    }
    std::erase_if(devices, IsPassedOver);
    std::vector<std::string> paths;
    paths.reserve(devices.size());
    for (const ATTACHEDDEVICE& device : devices) {
        paths.push_back(std::string(DEVICE_PATH_MARK) + strFolder + "/" + device.strName);
    }
    return AddHandle(std::make_shared<CInterfaceSet>(std::move(paths)));
}

DWORD ListNames(char* lpNames, DWORD* lpdwSize) {
    std::vector<ATTACHEDDEVICE> devices;
    std::string strFolder;
    if (!ListDevicesOrFail(devices, strFolder)) {
        return GetLastError();
    }
    std::string strNames;
    for (const ATTACHEDDEVICE& device : devices) {
        strNames.append(device.strName).push_back('\0');
    }
    const DWORD dwRoom = std::exchange(*lpdwSize, static_cast<DWORD>(strNames.size()) + 1);
    if (dwRoom < *lpdwSize) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(lpNames, strNames.c_str(), *lpdwSize);
    return ERROR_SUCCESS;
}

BOOL Choose(const char* lpszName) {
    std::vector<ATTACHEDDEVICE> devices;
    std::string strFolder;
    if (!ListDevicesOrFail(devices, strFolder)) {
        return FALSE;
    }
    const auto itChosen = std::ranges::find(devices, lpszName, &ATTACHEDDEVICE::strName);
    if (itChosen == devices.end()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    const std::lock_guard hold(DeviceChoiceMutex());
    Choice() = std::move(*itChosen);
    return TRUE;
}

// The device path behind an interface of the set; null, with the error number, when it is none.
const std::string* PathOf(const CInterfaceSet& set, HDEVINFO hSet,
                          const SP_DEVICE_INTERFACE_DATA* lpData) {
    if (lpData == nullptr || lpData->cbSize != sizeof(*lpData) || lpData->hSet != hSet ||
        lpData->dwIndex >= set.Paths().size()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return &set.Paths()[lpData->dwIndex];
}

} // namespace

std::mutex& DeviceChoiceMutex() {
    static std::mutex& mutex = *new std::mutex;
    return mutex;
}

} // namespace posix

using posix::CInterfaceSet;

HDEVINFO SetupDiGetClassDevsA(const GUID* ClassGuid, const char* Enumerator, HWND hwndParent,
                              DWORD Flags) {
    if (ClassGuid == nullptr || Enumerator != nullptr || hwndParent != nullptr ||
        Flags != (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE hSet =
        posix::WithMemory<HANDLE>(nullptr, [&] { return posix::TakeInterfaces(*ClassGuid); });
    return hSet == nullptr ? INVALID_HANDLE_VALUE : hSet;
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO DeviceInfoSet, void* /*DeviceInfoData*/,
                                 const GUID* /*InterfaceClassGuid*/, DWORD MemberIndex,
                                 SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData) {
    const auto pSet = posix::FindObject<CInterfaceSet>(DeviceInfoSet);
    if (pSet == nullptr) {
        return FALSE;
    }
    if (DeviceInterfaceData == nullptr ||
        DeviceInterfaceData->cbSize != sizeof(*DeviceInterfaceData)) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (MemberIndex >= pSet->Paths().size()) {
        posix::SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    DeviceInterfaceData->dwIndex = MemberIndex;
    DeviceInterfaceData->hSet = DeviceInfoSet;
    return TRUE;
}

BOOL SetupDiGetDeviceInterfaceDetailA(HDEVINFO DeviceInfoSet,
                                      SP_DEVICE_INTERFACE_DATA* DeviceInterfaceData,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_A* DeviceInterfaceDetailData,
                                      DWORD DeviceInterfaceDetailDataSize, DWORD* RequiredSize,
                                      void* /*DeviceInfoData*/) {
    const auto pSet = posix::FindObject<CInterfaceSet>(DeviceInfoSet);
    const std::string* pPath =
        pSet == nullptr ? nullptr : posix::PathOf(*pSet, DeviceInfoSet, DeviceInterfaceData);
    if (pPath == nullptr) {
        return FALSE;
    }
    const DWORD dwNeeded = DETAIL_PATH_OFFSET + static_cast<DWORD>(pPath->size()) + 1;
    if (RequiredSize != nullptr) {
        *RequiredSize = dwNeeded;
    }
    if (DeviceInterfaceDetailData == nullptr || DeviceInterfaceDetailDataSize < dwNeeded) {
        posix::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (DeviceInterfaceDetailData->cbSize != DETAIL_RECORD_SIZE) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::memcpy(reinterpret_cast<char*>(DeviceInterfaceDetailData) + DETAIL_PATH_OFFSET,
                pPath->c_str(), pPath->size() + 1);
    return TRUE;
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    return posix::CloseObject<CInterfaceSet>(DeviceInfoSet) ? TRUE : FALSE;
}

BOOL IsDeviceNodeLost(HANDLE hDevice) {
    const auto pNode = posix::FindAnyObject(hDevice);
    return pNode != nullptr && pNode->HasLostDevice() ? TRUE : FALSE;
}

DWORD ListDevices(char* lpNames, DWORD* lpdwSize) {
    return posix::WithMemory(ERROR_NOT_ENOUGH_MEMORY,
                             [&] { return posix::ListNames(lpNames, lpdwSize); });
}

BOOL ChooseDevice(const char* lpszName) {
    {
        const std::lock_guard hold(posix::DeviceChoiceMutex());
        posix::Choice().reset();
        if (lpszName == nullptr) {
            return TRUE;
        }
        posix::Choice().emplace();
    }
    return posix::WithMemory<BOOL>(FALSE, [&] { return posix::Choose(lpszName); });
}

} // namespace platform
