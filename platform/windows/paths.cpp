#include "platform/windows/paths.h"

#include "platform/types.h"

#include <string>
#include <string_view>

namespace platform::windows {
namespace {

bool IsLetter(char ch) {
    const char chLower = static_cast<char>(ch | 0x20);
    return chLower >= 'a' && chLower <= 'z';
}

// Whether a component names a device wherever it stands, with whatever ending. Newer systems take
// most of these for files in folders, older ones and shares do not.
bool IsDeviceName(std::string_view component) {
    std::string strName(component.substr(0, component.find('.')));
    while (!strName.empty() && strName.back() == ' ') {
        strName.pop_back();
    }
    for (char& ch : strName) {
        ch = IsLetter(ch) ? static_cast<char>(ch & ~0x20) : ch;
    }
    for (const char* lpszDevice : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (strName == lpszDevice) {
            return true;
        }
    }
    return strName.size() == 4 && (strName.starts_with("COM") || strName.starts_with("LPT")) &&
           strName[3] >= '0' && strName[3] <= '9';
}

bool IsPlainComponent(std::string_view component) {
    if (component.empty() || component == "." || component == "..") {
        return true;
    }
    for (const char ch : component) {
        // Of these no code page makes the second byte of a character.
        if (static_cast<unsigned char>(ch) < ' ' || ch == ':' || ch == '?' || ch == '*') {
            return false;
        }
    }
    return component.back() != '.' && component.back() != ' ' && !IsDeviceName(component);
}

bool ArePlainComponents(std::string_view path) {
    if (path.size() >= 2 && IsLetter(path[0]) && path[1] == ':') {
        path.remove_prefix(2);
    }
    while (!path.empty()) {
        const std::size_t nEnd = path.find_first_of("\\/");
        if (!IsPlainComponent(path.substr(0, nEnd))) {
            return false;
        }
        if (nEnd == std::string_view::npos) {
            break;
        }
        path.remove_prefix(nEnd + 1);
    }
    return true;
}

// Of a path with a server at its head, whether it leads to files.
bool IsShareOfFiles(std::string_view fullPath) {
    const std::size_t nShare = fullPath.find('\\', 2);
    if (nShare == std::string_view::npos) {
        return true;
    }
    const std::size_t nEnd = fullPath.find('\\', nShare + 1);
    std::string strShare(fullPath.substr(nShare + 1, nEnd - nShare - 1));
    for (char& ch : strShare) {
        ch = static_cast<char>(ch | 0x20);
    }
    return strShare != "pipe" && strShare != "mailslot";
}

} // namespace

bool IsPlainPath(const char* lpszPath) {
    if (!ArePlainComponents(lpszPath)) {
        ::SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    char szFull[1024];
    const DWORD dwLength = ::GetFullPathNameA(lpszPath, sizeof(szFull), szFull, nullptr);
    if (dwLength == 0 || dwLength >= sizeof(szFull)) {
        ::SetLastError(dwLength == 0 ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_NAME);
        return false;
    }
    const std::string_view fullPath(szFull, dwLength);
    const bool bPlain = !fullPath.starts_with("\\\\.\\") && !fullPath.starts_with("\\\\?\\") &&
                        (!fullPath.starts_with("\\\\") || IsShareOfFiles(fullPath));
    if (!bPlain) {
        ::SetLastError(ERROR_INVALID_NAME);
    }
    return bPlain;
}

bool IsInterfacePath(const char* lpszPath) {
    std::string_view path(lpszPath);
    if (!path.starts_with("\\\\?\\") && !path.starts_with("\\\\.\\")) {
        return false;
    }
    path.remove_prefix(4);
    // The device's instance and the class lie in one component.
    return path.substr(0, path.find_first_of("\\/")).find("#{") != std::string_view::npos;
}

} // namespace platform::windows
