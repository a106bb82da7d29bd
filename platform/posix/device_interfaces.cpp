// Device interfaces: sets of the devices attached at the moment of the question.
#include "platform/device.h"

#include "platform/posix/device_folder.h"
#include "platform/posix/handles.h"
#include "platform/posix/paths.h"

#include <cerrno>
#include <cstring>

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

HANDLE TakeInterfaces(const GUID& classGuid) {
    std::vector<std::string> names;
    std::string strFolder;
    if (!ListAttachedDevices(classGuid, names, strFolder)) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    // A device that comes back while a node of its earlier attachment is open here counts as gone
    // until that is closed: whoever waits on that node waits in vain.
    std::erase_if(
        names, [&](const std::string& strName) { return IsDeviceLost(strFolder + "/" + strName); });
    for (std::string& strName : names) {
        strName.insert(0, 1, '/').insert(0, strFolder).insert(0, DEVICE_PATH_MARK);
    }
    return AddHandle(std::make_shared<CInterfaceSet>(std::move(names)));
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

BOOL IsPromptDevice(HANDLE hDevice) {
    const auto pNode = posix::FindAnyObject(hDevice);
    return pNode != nullptr && pNode->IsPrompt() ? TRUE : FALSE;
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO DeviceInfoSet) {
    return posix::CloseObject<CInterfaceSet>(DeviceInfoSet) ? TRUE : FALSE;
}

} // namespace platform
