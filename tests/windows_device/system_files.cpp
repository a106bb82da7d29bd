#include "tests/windows_device/system_files.h"

#include <algorithm>
#include <array>

#include "agent/device_path.h"

namespace windows_device {

std::optional<std::wstring> ToWide(std::string_view strText) {
    const std::optional<std::u16string> strWide = agent::ToUtf16(strText);
    return strWide ? std::optional(std::wstring(strWide->begin(), strWide->end())) : std::nullopt;
}

std::optional<std::string> FromWide(std::wstring_view strText) {
    return agent::ToUtf8(std::u16string(strText.begin(), strText.end()));
}

bool SameName(std::wstring_view strA, std::wstring_view strB) {
    return ::CompareStringOrdinal(strA.data(), static_cast<int>(strA.size()), strB.data(),
                                  static_cast<int>(strB.size()), TRUE) == CSTR_EQUAL;
}

bool IsPlainName(std::wstring_view strName) {
    if (strName.empty() || strName.back() == L'.' || strName.back() == L' ' ||
        std::any_of(strName.begin(), strName.end(), [](wchar_t ch) {
            return ch < L' ' || std::wstring_view(L"<>:\"/\\|?*").find(ch) != std::wstring::npos;
        })) {
        return false;
    }
    std::wstring_view strStem = strName.substr(0, strName.find(L'.'));
    while (!strStem.empty() && strStem.back() == L' ') {
        strStem.remove_suffix(1);
    }
    static constexpr std::array<std::wstring_view, 6> s_devices = {L"CON", L"PRN",    L"AUX",
                                                                   L"NUL", L"CONIN$", L"CONOUT$"};
    const bool bPort = strStem.size() == 4 && (SameName(strStem.substr(0, 3), L"COM") ||
                                               SameName(strStem.substr(0, 3), L"LPT"));
    return std::none_of(
               s_devices.begin(), s_devices.end(),
               [&](std::wstring_view strDevice) { return SameName(strStem, strDevice); }) &&
           !(bPort && std::wstring_view(L"0123456789\u00b9\u00b2\u00b3").find(strStem[3]) !=
                          std::wstring::npos);
}

CHandle OpenEntry(const std::wstring& strPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation) {
    return CHandle(::CreateFileW(strPath.c_str(), dwAccess, dwShare, nullptr, dwCreation,
                                 FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                 nullptr));
}

static std::uint64_t Wide(DWORD dwHigh, DWORD dwLow) {
    return (std::uint64_t{dwHigh} << 32) | dwLow;
}

static std::uint64_t Ticks(const FILETIME& time) {
    return Wide(time.dwHighDateTime, time.dwLowDateTime);
}

std::optional<CEntry> EntryOf(const CHandle& handle) {
    BY_HANDLE_FILE_INFORMATION file{};
    if (!handle || ::GetFileType(handle.Get()) != FILE_TYPE_DISK ||
        !::GetFileInformationByHandle(handle.Get(), &file) ||
        (file.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        return std::nullopt;
    }
    CEntry entry;
    entry.dwAttributes = file.dwFileAttributes;
    entry.identity = {file.dwVolumeSerialNumber, Wide(file.nFileIndexHigh, file.nFileIndexLow)};
    entry.info.bFolder = (file.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    entry.info.bReadOnly = (file.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    entry.info.qwSize = entry.info.bFolder ? 0 : Wide(file.nFileSizeHigh, file.nFileSizeLow);
    entry.info.times = {Ticks(file.ftCreationTime), Ticks(file.ftLastWriteTime)};
    entry.info.ftLastAccess = Ticks(file.ftLastAccessTime);
    return entry;
}

std::optional<CEntry> Look(const std::wstring& strPath) {
    return EntryOf(OpenEntry(strPath, FILE_READ_ATTRIBUTES));
}

std::wstring ParentOf(const std::wstring& strPath) {
    return strPath.substr(0, strPath.rfind(L'\\'));
}

bool LiesIn(std::wstring strPath, const CIdentity& folder) {
    // Ends at the drive, behind which a path has no separator but those of its prefix.
    for (; strPath.rfind(L'\\') > 3; strPath = ParentOf(strPath)) {
        const std::optional<CEntry> entry = Look(strPath);
        if (entry && entry->identity == folder) {
            return true;
        }
    }
    return false;
}

// Of a request's position; the system takes no more than 32 bits of length.
static OVERLAPPED At(std::uint64_t qwAt) {
    OVERLAPPED overlapped{};
    overlapped.Offset = static_cast<DWORD>(qwAt);
    overlapped.OffsetHigh = static_cast<DWORD>(qwAt >> 32);
    return overlapped;
}

std::size_t ReadAt(const CHandle& file, std::uint64_t qwAt, std::span<std::uint8_t> data) {
    std::size_t dwDone = 0;
    while (dwDone < data.size()) {
        OVERLAPPED overlapped = At(qwAt + dwDone);
        DWORD dwRead = 0;
        const auto dwWanted =
            static_cast<DWORD>(std::min<std::size_t>(data.size() - dwDone, 1 << 20));
        if (!::ReadFile(file.Get(), data.data() + dwDone, dwWanted, &dwRead, &overlapped) ||
            dwRead == 0) {
            break;
        }
        dwDone += dwRead;
    }
    return dwDone;
}

bool WriteAt(const CHandle& file, std::uint64_t qwAt, std::span<const std::uint8_t> data) {
    for (std::size_t dwDone = 0; dwDone < data.size();) {
        OVERLAPPED overlapped = At(qwAt + dwDone);
        DWORD dwWritten = 0;
        const auto dwWanted =
            static_cast<DWORD>(std::min<std::size_t>(data.size() - dwDone, 1 << 20));
        if (!::WriteFile(file.Get(), data.data() + dwDone, dwWanted, &dwWritten, &overlapped)) {
            return false;
        }
        dwDone += dwWritten;
    }
    return true;
}

void SetTimes(const CHandle& handle, const agent::CFileTimes& times) {
    const auto time = [](std::uint64_t qwTicks) {
        return FILETIME{static_cast<DWORD>(qwTicks), static_cast<DWORD>(qwTicks >> 32)};
    };
    const FILETIME creation = time(times.ftCreation);
    const FILETIME lastWrite = time(times.ftLastWrite);
    static_cast<void>(::SetFileTime(handle.Get(), times.ftCreation ? &creation : nullptr, nullptr,
                                    times.ftLastWrite ? &lastWrite : nullptr));
}

agent::EResult LastResult() {
    const DWORD dwError = ::GetLastError();
    return dwError == ERROR_DISK_FULL || dwError == ERROR_HANDLE_DISK_FULL ||
                   dwError == ERROR_FILE_TOO_LARGE
               ? agent::EResult::NO_SPACE
               : agent::EResult::REFUSED;
}

CListing::CListing(const std::wstring& strFolder)
    : m_hFind(::FindFirstFileW((strFolder + L"\\*").c_str(), &m_data)) {}

CListing::~CListing() {
    if (Open()) {
        ::FindClose(m_hFind);
    }
}

const WIN32_FIND_DATAW* CListing::Next() {
    while (Open() && !m_bFailed) {
        if (!std::exchange(m_bFirst, false) && !::FindNextFileW(m_hFind, &m_data)) {
            m_bFailed = ::GetLastError() != ERROR_NO_MORE_FILES;
            return nullptr;
        }
        const std::wstring_view strName = m_data.cFileName;
        if (strName != L"." && strName != L"..") {
            return &m_data;
        }
    }
    return nullptr;
}

} // namespace windows_device
