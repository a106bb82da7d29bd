#include "cli/host_names.h"

#include "cli/text.h"

#include "platform/types.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

namespace cli {
namespace {

WideText ToWide(const std::string& strText) {
    return Utf8ToWide(strText).value_or(WideText());
}

WideText Upper(WideText strText) {
    ::CharUpperBuffW(strText.data(), static_cast<DWORD>(strText.size()));
    return strText;
}

bool IsReservedCharacter(char ch) {
    return static_cast<unsigned char>(ch) < ' ' ||
           std::string_view("<>:\"|?*/\\").find(ch) != std::string_view::npos;
}

// Whether the library takes the name for a device's, in whatever folder and with whatever ending.
// The system itself is no help: newer ones take most of these for files in folders.
bool IsDeviceName(const std::string& strName) {
    std::string strStem = strName.substr(0, strName.find('.'));
    strStem.resize(strStem.find_last_not_of(' ') + 1);
    strStem = NameKey(strStem);
    for (const char* const lpszDevice : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (strStem == lpszDevice) {
            return true;
        }
    }
    return strStem.size() == 4 && (strStem.starts_with("COM") || strStem.starts_with("LPT")) &&
           strStem[3] >= '0' && strStem[3] <= '9';
}

// Whether a name is one that the pattern stands for.
bool Fits(std::basic_string_view<WCHAR> name, std::basic_string_view<WCHAR> pattern) {
    std::size_t nName = 0;
    std::size_t nPattern = 0;
    std::size_t nStar = pattern.npos; // the latest one
    std::size_t nBehindStar = 0;      // where in the name that ends what the star stands for
    while (nName < name.size()) {
        if (nPattern < pattern.size() && pattern[nPattern] == L'*') {
            nStar = nPattern++;
            nBehindStar = nName;
        } else if (nPattern < pattern.size() &&
                   (pattern[nPattern] == L'?' || pattern[nPattern] == name[nName])) {
            ++nPattern;
            ++nName;
        } else if (nStar != pattern.npos) {
            nPattern = nStar + 1;
            nName = ++nBehindStar;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', nPattern) == pattern.npos;
}

// The same as the system has it, where *.* is every name, but never for the second, short name
// that a file may have.
bool FitsAsHere(WideText strName, WideText strPattern) {
    strName = Upper(std::move(strName));
    strPattern = Upper(std::move(strPattern));
    return Fits(strName, strPattern) ||
           (strName.find(L'.') == strName.npos && Fits(strName + L'.', strPattern));
}

} // namespace

std::filesystem::path ToPath(const std::string& strText) {
    return ToWide(strText);
}

std::string PathText(const std::filesystem::path& path) {
    const WideText& strWide = path.native();
    std::string strText = WideToUtf8(strWide);
    // Half of a surrogate pair is none: then a byte is added that no UTF-8 has.
    return Utf8ToWide(strText) == strWide ? strText : strText + '\xFF';
}

bool IsHostSeparator(char ch) {
    return ch == '/' || ch == '\\';
}

std::optional<std::string> ToLibraryText(const std::string& strText) {
    if (::GetACP() == CP_UTF8) {
        return strText;
    }
    const auto strWide = Utf8ToWide(strText);
    if (!strWide) {
        return std::nullopt;
    }
    // A character that only looks like the one it is turned into would be another name.
    BOOL bReplaced = FALSE;
    std::string strNarrow(2 * strWide->size() + 1, '\0');
    const int nBytes = ::WideCharToMultiByte(
        CP_ACP, WC_NO_BEST_FIT_CHARS, strWide->c_str(), static_cast<int>(strWide->size()),
        strNarrow.data(), static_cast<int>(strNarrow.size()), nullptr, &bReplaced);
    strNarrow.resize(static_cast<std::size_t>(nBytes));
    return bReplaced == FALSE ? std::optional(strNarrow) : std::nullopt;
}

std::string FromLibraryText(const char* lpszText) {
    if (::GetACP() == CP_UTF8) {
        return lpszText;
    }
    const std::string_view strNarrow = lpszText;
    WideText strWide(strNarrow.size(), L'\0');
    const int nChars =
        ::MultiByteToWideChar(CP_ACP, 0, lpszText, static_cast<int>(strNarrow.size()),
                              strWide.data(), static_cast<int>(strWide.size()));
    strWide.resize(static_cast<std::size_t>(nChars));
    return WideToUtf8(strWide);
}

// Of the entries that the system treats specially, those that lead elsewhere: files that lie in a
// cloud or are compressed are files.
bool IsLink(const std::filesystem::path& path) {
    WIN32_FIND_DATAW entry;
    const HANDLE hFind = ::FindFirstFileW(path.c_str(), &entry);
    if (hFind == INVALID_HANDLE_VALUE) {
        return false;
    }
    ::FindClose(hFind);
    return (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (entry.dwReserved0 == IO_REPARSE_TAG_SYMLINK ||
            entry.dwReserved0 == IO_REPARSE_TAG_MOUNT_POINT);
}

std::vector<std::string> ExpandWord(const std::string& strWord) {
    const std::size_t nLast = strWord.find_last_of("/\\:");
    const std::string strFolder =
        nLast == std::string::npos ? std::string() : strWord.substr(0, nLast + 1);
    const std::string strPattern = strWord.substr(strFolder.size());
    if (strPattern.find_first_of("*?") == std::string::npos) {
        return {strWord};
    }
    std::vector<std::string> paths;
    WIN32_FIND_DATAW entry;
    const HANDLE hFind = ::FindFirstFileW((ToWide(strFolder) + L'*').c_str(), &entry);
    for (bool bFound = hFind != INVALID_HANDLE_VALUE; bFound;
         bFound = ::FindNextFileW(hFind, &entry) != FALSE) {
        const std::string strName = PathText(entry.cFileName);
        if (strName != "." && strName != ".." && FitsAsHere(entry.cFileName, ToWide(strPattern))) {
            paths.push_back(strFolder + strName);
        }
    }
    if (hFind != INVALID_HANDLE_VALUE) {
        ::FindClose(hFind);
    }
    std::sort(paths.begin(), paths.end());
    return paths.empty() ? std::vector<std::string>{strWord} : paths;
}

std::string NameKey(const std::string& strName) {
    return WideToUtf8(Upper(ToWide(strName)));
}

const char* NameFault(const std::string& strName) {
    return std::any_of(strName.begin(), strName.end(), IsReservedCharacter)
               ? "no file here can have a name with a control character or one of <>:\"/\\|?*"
           : strName.ends_with('.') || strName.ends_with(' ')
               ? "no file here can have a name that ends in a dot or a blank"
           : IsDeviceName(strName) ? "its name is that of a device here"
                                   : nullptr;
}

} // namespace cli
