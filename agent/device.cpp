#include "agent/device.h"

namespace agent {

std::unique_ptr<CDevice> CDevice::Open(const CDeviceOptions& options, std::string& strError) {
    std::unique_ptr<CDevice> pDevice(new CDevice);
    pDevice->m_lpLog = options.lpLog;
    pDevice->m_slice = CWorkSlice(options.lpClock);
    pDevice->m_bAllowFormat = options.bAllowFormat;
    pDevice->m_pOpenFiles =
        std::make_unique<COpenFiles>(options.nMostOpenFiles, options.dwFirstHandle);
    pDevice->m_pFolder = CDeviceFolder::Open(options.strRoot, options.lpLog, strError);
    if (!pDevice->m_pFolder) {
        return nullptr;
    }
    for (const CStorageOption& storage : options.storages) {
        if (!pDevice->m_pFolder->AddStorage(storage.strName, storage.strFolder, strError)) {
            return nullptr;
        }
    }
    pDevice->m_pSystem = CDeviceSystem::Open(options, *pDevice->m_pFolder, strError);
    if (!pDevice->m_pSystem) {
        return nullptr;
    }
    pDevice->m_pFolder->RemoveLeftovers(options.bAllowFormat);
    if (options.qwQuota) {
        pDevice->m_pFolder->SetQuota(*options.qwQuota);
    }
    return pDevice;
}

void CDevice::Log(const std::string& strLine) const {
    if (m_lpLog) {
        m_lpLog(strLine);
    }
}

} // namespace agent
