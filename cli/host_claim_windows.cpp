#include "cli/host_claim.h"

#include "platform/types.h"

namespace cli {

CHostClaim::CHostClaim(const std::string& strName) {
    const HANDLE hMutex = ::CreateMutexA(nullptr, FALSE, ("Global\\" + strName).c_str());
    if (hMutex == nullptr) {
        return;
    }
    if (::GetLastError() == ERROR_ALREADY_EXISTS) {
        ::CloseHandle(hMutex);
    } else {
        m_nSystemsOwn = reinterpret_cast<std::intptr_t>(hMutex);
    }
}

CHostClaim::~CHostClaim() {
    if (Holds()) {
        ::CloseHandle(reinterpret_cast<HANDLE>(m_nSystemsOwn));
    }
}

} // namespace cli
