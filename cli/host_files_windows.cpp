#include "cli/host_files.h"

#include "cli/host_names.h"

#include "platform/types.h"

namespace cli {
namespace {

// A second in all.
constexpr int MOVE_TRIES = 11;
constexpr DWORD MOVE_PAUSE_MS = 100;

std::error_code ErrorOf(DWORD dwError) {
    switch (dwError) {
    case ERROR_ALREADY_EXISTS:
        return std::make_error_code(std::errc::file_exists);
    case ERROR_NOT_SAME_DEVICE:
        return std::make_error_code(std::errc::cross_device_link);
    default:
        return {static_cast<int>(dwError), std::system_category()};
    }
}

HANDLE HandleOf(std::intptr_t nHandle) {
    return reinterpret_cast<HANDLE>(nHandle);
}

} // namespace

// Nobody else can open it, whatever for.
CHeldFile::CHeldFile(const std::filesystem::path& path, How eHow)
    : m_nHandle(reinterpret_cast<std::intptr_t>(
          ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                        eHow == How::New ? CREATE_NEW : OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr))) {}

CHeldFile::~CHeldFile() {
    if (Held()) {
        ::CloseHandle(HandleOf(m_nHandle));
    }
}

// As long as it is open, nobody takes it away.
bool CHeldFile::IsAt(const std::filesystem::path& /*path*/) const {
    return Held();
}

CShortPath::CShortPath(const std::filesystem::path& folder) : m_strText(PathText(folder)) {}

CShortPath::~CShortPath() = default;

// Whoever may enter the folder above may enter it.
std::error_code MakeOwnFolder(const std::filesystem::path& path) {
    return ::CreateDirectoryW(path.c_str(), nullptr) != FALSE ? std::error_code()
                                                              : ErrorOf(::GetLastError());
}

bool IsOwnFolder(const std::filesystem::path& path) {
    const DWORD dwAttributes = ::GetFileAttributesW(path.c_str());
    return dwAttributes != INVALID_FILE_ATTRIBUTES &&
           (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && !IsLink(path);
}

std::error_code MoveOver(const std::filesystem::path& from, const std::filesystem::path& to) {
    const DWORD dwAttributes = ::GetFileAttributesW(to.c_str());
    const bool bFile =
        dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    if (bFile) {
        ::SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    DWORD dwError = ERROR_SUCCESS;
    for (int nTry = 1; nTry <= MOVE_TRIES; ++nTry) {
        if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE) {
            return {};
        }
        dwError = ::GetLastError();
        // A file that is open is one that cannot be accessed where it is to be replaced.
        if (dwError != ERROR_SHARING_VIOLATION && (dwError != ERROR_ACCESS_DENIED || !bFile)) {
            break;
        }
        ::Sleep(MOVE_PAUSE_MS);
    }
    if (bFile) {
        ::SetFileAttributesW(to.c_str(), dwAttributes); // it stays, and as it was
    }
    return ErrorOf(dwError);
}

} // namespace cli
