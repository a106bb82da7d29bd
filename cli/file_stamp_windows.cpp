#include "cli/file_stamp.h"

#include "cli/host_names.h"

#include "platform/types.h"

namespace cli {
namespace {

std::uint64_t Join(DWORD dwHigh, DWORD dwLow) {
    return std::uint64_t{dwHigh} << 32 | dwLow;
}

} // namespace

std::optional<FILESTAMP> GetFileStamp(const std::string& strPath) {
    const std::filesystem::path path = ToPath(strPath);
    const HANDLE hFile =
        IsLink(path) ? INVALID_HANDLE_VALUE
                     : ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        return std::nullopt;
    }
    BY_HANDLE_FILE_INFORMATION file{};
    FILE_BASIC_INFO basic{};
    const bool bKnown =
        ::GetFileType(hFile) == FILE_TYPE_DISK &&
        ::GetFileInformationByHandle(hFile, &file) != FALSE &&
        ::GetFileInformationByHandleEx(hFile, FileBasicInfo, &basic, sizeof(basic)) != FALSE;
    ::CloseHandle(hFile);
    if (!bKnown || (file.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return std::nullopt;
    }
    // Not every file system keeps when a record was changed.
    const LONGLONG nChanged =
        basic.ChangeTime.QuadPart != 0 ? basic.ChangeTime.QuadPart : basic.LastWriteTime.QuadPart;
    return FILESTAMP{Join(file.nFileIndexHigh, file.nFileIndexLow), nChanged,
                     Join(file.nFileSizeHigh, file.nFileSizeLow)};
}

} // namespace cli
