#include "cli/device_path.h"

#include "cli/text.h"

#include <cstddef>

namespace cli {

std::optional<std::string> NormalDevicePath(std::string_view strPath) {
    if (strPath.empty() || strPath.find('\0') != std::string_view::npos || !Utf8ToWide(strPath)) {
        return std::nullopt;
    }
    std::string strNormal;
    while (!strPath.empty()) {
        const std::size_t nEnd = strPath.find_first_of("/\\");
        const std::string_view strComponent = strPath.substr(0, nEnd);
        if (!strComponent.empty() && strComponent != ".") {
            strNormal += '\\';
            strNormal += strComponent;
        }
        strPath.remove_prefix(nEnd == std::string_view::npos ? strPath.size() : nEnd + 1);
    }
    return strNormal.empty() ? "\\" : strNormal;
}

DEVICEPATH SplitDevicePath(const std::string& strNormalPath) {
    const std::size_t nLast = strNormalPath.rfind('\\');
    const std::string strFolder = strNormalPath.substr(0, nLast);
    return {strFolder.empty() ? "\\" : strFolder, strNormalPath.substr(nLast + 1)};
}

bool NamesFolder(std::string_view strPath) {
    return strPath.ends_with('/') || strPath.ends_with('\\');
}

std::string JoinDevicePath(const std::string& strFolder, std::string_view strName) {
    const bool bRoot = strFolder == "\\";
    return (bRoot ? std::string() : strFolder) + "\\" + std::string(strName);
}

} // namespace cli
