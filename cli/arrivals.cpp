#include "cli/arrivals.h"

#include "cli/host_names.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace cli {

CArrivals::CArrivals(std::string strFolder, std::vector<std::string> names)
    : m_strFolder(std::move(strFolder)), m_names(std::move(names)) {
    for (const std::string& strName : m_names) {
        m_before.merge(Look(strName));
    }
}

CArrivals::Stamps CArrivals::Look(const std::string& strName) const {
    Stamps stamps;
    const auto take = [&](const fs::path& path) {
        const std::string strPath = PathText(path);
        if (const auto stamp = GetFileStamp(strPath)) {
            stamps.emplace(strPath, *stamp);
        }
    };
    const fs::path top = (ToPath(m_strFolder) / ToPath(strName)).make_preferred();
    std::error_code error;
    if (!fs::is_directory(top, error)) {
        take(top);
        return stamps;
    }
    fs::recursive_directory_iterator it(top, fs::directory_options::skip_permission_denied, error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        take(it->path());
        if (IsLink(it->path())) {
            it.disable_recursion_pending();
        }
    }
    return stamps;
}

std::vector<ARRIVAL> CArrivals::Arrived() const {
    std::vector<ARRIVAL> arrived;
    for (const std::string& strName : m_names) {
        for (const auto& [strPath, stamp] : Look(strName)) {
            const auto itBefore = m_before.find(strPath);
            if (itBefore == m_before.end() || itBefore->second != stamp) {
                arrived.push_back({strPath, stamp.qwSize});
            }
        }
    }
    std::sort(arrived.begin(), arrived.end(),
              [](const auto& left, const auto& right) { return left.strPath < right.strPath; });
    return arrived;
}

std::vector<std::string> CArrivals::Missing() const {
    std::vector<std::string> missing;
    for (const std::string& strName : m_names) {
        const Stamps now = Look(strName);
        const bool bCame = std::any_of(now.begin(), now.end(), [&](const auto& entry) {
            const auto itBefore = m_before.find(entry.first);
            return itBefore == m_before.end() || itBefore->second != entry.second;
        });
        if (!bCame) {
            missing.push_back(strName);
        }
    }
    return missing;
}

} // namespace cli
