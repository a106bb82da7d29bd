#include "cli/host_names.h"

#include "cli/text.h"

#include "platform/types.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace cli {
namespace {

WideText ToWide(const std::string& strText) {
    return Utf8ToWide(strText).value_or(WideText());
}

bool IsReservedCharacter(char ch) {
    return static_cast<unsigned char>(ch) < ' ' ||
           std::string_view("<>:\"|?*/\\").find(ch) != std::string_view::npos;
}

// Whether the system gives the name to a device in every folder.
bool IsDeviceName(const std::string& strName) {
    WCHAR szFull[MAX_PATH];
    const DWORD dwLength =
        ::GetFullPathNameW((L"C:\\" + ToWide(strName)).c_str(), MAX_PATH, szFull, nullptr);
    return dwLength < MAX_PATH &&
           std::basic_string_view<WCHAR>(szFull, dwLength).starts_with(L"\\\\.\\");
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
    if (strWord.find_first_of("*?", strFolder.size()) == std::string::npos) {
        return {strWord};
    }
    std::vector<std::string> paths;
    WIN32_FIND_DATAW entry;
    const HANDLE hFind = ::FindFirstFileW(ToWide(strWord).c_str(), &entry);
    for (bool bFound = hFind != INVALID_HANDLE_VALUE; bFound;
         bFound = ::FindNextFileW(hFind, &entry) != FALSE) {
        const std::string strName = PathText(entry.cFileName);
        if (strName != "." && strName != "..") {
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
    WideText strWide = ToWide(strName);
    ::CharUpperBuffW(strWide.data(), static_cast<DWORD>(strWide.size()));
    return WideToUtf8(strWide);
}

const char* NameFault(const std::string& strName) {
    return std::any_of(strName.begin(), strName.end(), IsReservedCharacter)
               ? "no file here can have a name with one of the characters <>:\"|?*"
           : strName.ends_with('.') || strName.ends_with(' ')
               ? "no file here can have a name that ends in a dot or a blank"
           : IsDeviceName(strName) ? "its name is that of a device here"
                                   : nullptr;
}

} // namespace cli
