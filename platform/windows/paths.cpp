#include "platform/windows/paths.h"

#include "platform/types.h"

#include <algorithm>
#include <string_view>

namespace platform::windows {
namespace {

bool IsLetter(char ch) {
    const char chLower = static_cast<char>(ch | 0x20);
    return chLower >= 'a' && chLower <= 'z';
}

// Whether a text is a name in capitals, whatever the case of its letters.
bool IsName(std::string_view text, std::string_view name) {
    return std::equal(text.begin(), text.end(), name.begin(), name.end(), [](char ch, char chName) {
        return (IsLetter(ch) ? static_cast<char>(ch & ~0x20) : ch) == chName;
    });
}

// Whether a component names a device wherever it stands, with whatever ending. Newer systems take
// most of these for files in folders, older ones and shares do not.
bool IsDeviceName(std::string_view component) {
    std::string_view name = component.substr(0, component.find('.'));
    while (!name.empty() && name.back() == ' ') {
        name.remove_suffix(1);
    }
    for (const char* lpszDevice : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (IsName(name, lpszDevice)) {
            return true;
        }
    }
    const std::string_view begin = name.substr(0, 3);
    return name.size() == 4 && (IsName(begin, "COM") || IsName(begin, "LPT")) && name[3] >= '0' &&
           name[3] <= '9';
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
    const std::string_view share = fullPath.substr(nShare + 1, nEnd - nShare - 1);
    return !IsName(share, "PIPE") && !IsName(share, "MAILSLOT");
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
