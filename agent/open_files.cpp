#include "agent/open_files.h"

#include <algorithm>
#include <utility>

namespace agent {

std::uint32_t COpenFiles::Add(CFileHandle file) {
    while (m_dwNext == 0 || m_dwNext == UINT32_MAX || m_handles.contains(m_dwNext)) {
        ++m_dwNext;
    }
    const std::uint32_t dwHandle = m_dwNext++;
    file.qwUsedMs = m_qwNowMs;
    m_handles.emplace(dwHandle, std::move(file));
    return dwHandle;
}

CFileHandle* COpenFiles::Find(std::uint32_t dwHandle) {
    const auto it = m_handles.find(dwHandle);
    if (it == m_handles.end()) {
        return nullptr;
    }
    it->second.qwUsedMs = m_qwNowMs;
    return &it->second;
}

std::uint32_t COpenFiles::Forgotten() const {
    const auto it =
        std::min_element(m_handles.begin(), m_handles.end(), [](const auto& a, const auto& b) {
            return a.second.qwUsedMs < b.second.qwUsedMs;
        });
    return it != m_handles.end() && m_qwNowMs - it->second.qwUsedMs >= FORGOTTEN_MS ? it->first : 0;
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
