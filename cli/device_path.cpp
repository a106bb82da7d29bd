#include "cli/device_path.h"

#include "cli/text.h"

#include <algorithm>
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

const char* DevicePathFault(std::string_view strPath) {
    constexpr std::string_view strReserved = ".dak-";
    const auto isLetter = [](char ch) {
        return ('a' <= ch && ch <= 'z') || ('A' <= ch && ch <= 'Z');
    };
    strPath.remove_prefix(strPath.starts_with('\\') ? 1 : 0);
    if (strPath.size() > 1 && isLetter(strPath[0]) && strPath[1] == ':') {
        return "it begins like a drive, which a device does not have";
    }
    while (!strPath.empty()) {
        const std::string_view strName = strPath.substr(0, strPath.find('\\'));
        strPath.remove_prefix(std::min(strName.size() + 1, strPath.size()));
        if (strName == "..") {
            return "a device takes no \"..\"";
        }
        if (std::ranges::equal(strName.substr(0, strReserved.size()), strReserved, {}, [](char ch) {
                return 'A' <= ch && ch <= 'Z' ? ch - 'A' + 'a' : ch;
            })) {
            return "a device keeps names that begin with .dak- for itself";
        }
    }
    return nullptr;
}

std::string JoinDevicePath(const std::string& strFolder, std::string_view strName) {
    const bool bRoot = strFolder == "\\";
    return (bRoot ? std::string() : strFolder) + "\\" + std::string(strName);
}

} // namespace cli
