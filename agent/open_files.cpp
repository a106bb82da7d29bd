#include "agent/open_files.h"

#include <utility>

namespace agent {

std::uint32_t COpenFiles::Add(CFileHandle file) {
    while (m_dwNext == 0 || m_dwNext == UINT32_MAX || m_handles.contains(m_dwNext)) {
        ++m_dwNext;
    }
    const std::uint32_t dwHandle = m_dwNext++;
    m_handles.emplace(dwHandle, std::move(file));
    return dwHandle;
}

CFileHandle* COpenFiles::Find(std::uint32_t dwHandle) {
    const auto it = m_handles.find(dwHandle);
    return it == m_handles.end() ? nullptr : &it->second;
}

EResult COpenFiles::Close(std::uint32_t dwHandle) {
    const auto it = m_handles.find(dwHandle);
    if (it == m_handles.end()) {
        return EResult::REFUSED;
    }
    const EResult eResult = it->second.pFile->Close();
    m_handles.erase(it);
    return eResult;
}

} // namespace agent
