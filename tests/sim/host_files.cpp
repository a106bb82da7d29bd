// The files of the simulated host, and the device node as a file.

#include "tests/sim/seam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

namespace fs = std::filesystem;

// The path as the working folder has it: whatever separates stands ahead of it for nothing.
const char* Below(const char* lpPath) {
    return lpPath == nullptr ? nullptr : lpPath + std::strspn(lpPath, "/\\");
}

// The same with forward slashes, and without what leads nowhere.
std::string Canonical(std::string strPath) {
    std::ranges::replace(strPath, '\\', '/');
    return NameOf(PathOf(Below(strPath.c_str())).lexically_normal());
}

fs::path Path(const std::string& strPath) {
    return PathOf(Canonical(strPath));
}

// The file that a handle stands for.
std::string FileOf(const CWorld& world, HANDLE hFile) {
    const auto it = world.handles.find(hFile);
    return it == world.handles.end() ? "" : it->second.substr(it->second.find(' ') + 1);
}

int HandlesOf(const CWorld& world, const std::string& strFile) {
    return static_cast<int>(std::ranges::count(world.handles, "file " + strFile,
                                               &decltype(world.handles)::value_type::second));
}

// Whether the system keeps a file from being removed, or opened in this way.
bool IsInUse(const CWorld& world, const char* lpFileName, bool bShared = false) {
    const bool bInUse = world.bOpenFilesCannotBeDeleted && !bShared &&
                        HandlesOf(world, Canonical(lpFileName)) > 0;
    return bInUse && FailWith(ERROR_SHARING_VIOLATION) == FALSE;
}

// What a call makes of the sizes of files comes from the room on the volume, or goes back to it.
class CRoom {
  public:
    CRoom(CWorld& world, std::initializer_list<std::string> files)
        : m_world(world), m_files(files), m_qwBefore(Size()) {}
    ~CRoom() { m_world.qwFreeBytes += m_qwBefore - Size(); }
    CRoom(const CRoom&) = delete;
    CRoom& operator=(const CRoom&) = delete;

  private:
    std::uint64_t Size() const {
        std::uint64_t qwSize = 0;
        for (const std::string& strFile : m_files) {
            std::error_code error;
            const std::uint64_t qwOne = fs::file_size(Path(strFile), error);
            qwSize += error ? 0 : qwOne;
        }
        return qwSize;
    }

    CWorld& m_world;
    const std::vector<std::string> m_files;
    const std::uint64_t m_qwBefore;
};

class CNode : public CObject {
  public:
    explicit CNode(std::uint64_t qwPlugNumber) : m_qwPlugNumber(qwPlugNumber) {}

    void HandleClosed() noexcept override {
        CWorld& world = *CWorld::Current();
        world.Note("node close");
        if (IPeer* pPeer = PeerOf(world)) {
            pPeer->Closed();
        }
        m_qwPlugNumber = 0;
        world.PeerChanged();
    }
    BOOL Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override {
        const std::span buffer(static_cast<std::uint8_t*>(lpBuffer), dwSize);
        return Transfer(false, dwSize, lpdwCount,
                        [&](IPeer& peer) { return peer.GiveBytes(buffer); });
    }
    BOOL Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override {
        const std::span package(static_cast<const std::uint8_t*>(lpBuffer), dwSize);
        return Transfer(true, dwSize, lpdwCount, [&](IPeer& peer) {
            return peer.TakePackage(package) ? std::optional<std::size_t>(dwSize) : std::nullopt;
        });
    }

  private:
    // Null once the device has gone or the handle was closed.
    IPeer* PeerOf(CWorld& world) const {
        return m_qwPlugNumber == world.qwPlugNumber ? world.Peer() : nullptr;
    }

    template <class TStep>
    BOOL Transfer(bool bWrite, DWORD dwSize, DWORD* lpdwCount, TStep step) {
        CWorld& world = *CWorld::Current();
        std::optional<std::size_t> count;
        const char* lpszWhat = bWrite ? "a write to the device" : "a read from the device";
        const EWake eWake = world.Await(world.PipeKey(), INFINITE, lpszWhat, dwSize, [&] {
            IPeer* pPeer = PeerOf(world);
            count = pPeer == nullptr ? std::nullopt : step(*pPeer);
            return count || PeerOf(world) == nullptr; // it may have just unplugged itself
        });
        if (count) {
            *lpdwCount = static_cast<DWORD>(*count);
            world.Note(bWrite ? "write " : "read ", *count, " of ", dwSize);
            world.PeerChanged();
            return TRUE;
        }
        if (IPeer* pPeer = PeerOf(world)) {
            pPeer->TransferStopped(bWrite);
        }
        return FailWith(eWake == EWake::Stopped ? ERROR_OPERATION_ABORTED : ERROR_GEN_FAILURE);
    }

    std::uint64_t m_qwPlugNumber;
};

bool IsNode(HANDLE hFile) {
    return FindObject<CNode>(hFile) != nullptr;
}

DWORD PositionOf(HANDLE hFile) {
    return real_platform::SetFilePointer(hFile, 0, nullptr, FILE_CURRENT);
}

BOOL Move(CWorld& world, const char* lpFrom, const char* lpTo, DWORD dwFlags) {
    const CRoom room(world, {lpFrom, lpTo});
    return !IsInUse(world, lpFrom) && !IsInUse(world, lpTo)
               ? real_platform::MoveFileExA(Below(lpFrom), Below(lpTo), dwFlags)
               : FALSE;
}

} // namespace

void CWorld::MakeHostFolder(const std::string& strPath) {
    fs::create_directories(Path(strPath));
}

void CWorld::WriteHostFile(const std::string& strPath, const Bytes& bytes, FILETIME ftCreation,
                           FILETIME ftWrite) {
    const std::string strFile = Canonical(strPath);
    MakeHostFolder(NameOf(PathOf(strFile).parent_path()));
    fs::remove(PathOf(strFile)); // whoever has the old one open keeps it
    files.erase(strFile);
    const HANDLE hFile = real_platform::CreateFileA(strFile.c_str(), GENERIC_WRITE, 0, nullptr,
                                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD dwCount = 0;
    const auto dwBytes = static_cast<DWORD>(bytes.size());
    if (!real_platform::WriteFile(hFile, bytes.data(), dwBytes, &dwCount) ||
        !real_platform::SetFileTime(hFile, &ftCreation, nullptr, &ftWrite)) {
        ADD_FAILURE() << strPath << " cannot be made";
    }
    real_platform::CloseHandle(hFile);
}

std::optional<Bytes> CWorld::ReadHostFile(const std::string& strPath) const {
    const std::string strBytes = ReadBytes(Path(strPath));
    return HostFileExists(strPath) ? std::optional<Bytes>(std::in_place, strBytes.begin(),
                                                          strBytes.end())
                                   : std::nullopt;
}

bool CWorld::HostFileExists(const std::string& strPath) const {
    return fs::is_regular_file(Path(strPath));
}

CHostFile* CWorld::HostFile(const std::string& strPath) {
    const std::string strFile = Canonical(strPath);
    const auto bytes = ReadHostFile(strFile);
    if (!bytes) {
        return nullptr;
    }
    const HANDLE hFile = real_platform::CreateFileA(strFile.c_str(), GENERIC_READ, 0, nullptr,
                                                    OPEN_EXISTING, 0, nullptr);
    FILETIME ftCreation{};
    FILETIME ftWrite{};
    real_platform::GetFileTime(hFile, &ftCreation, nullptr, &ftWrite);
    real_platform::CloseHandle(hFile);
    const auto permissions = fs::status(PathOf(strFile)).permissions();
    const bool bReadOnly = (permissions & fs::perms::owner_write) == fs::perms::none;
    const auto node = files.extract(strFile);
    return &files
                .try_emplace(strFile, CHostFile{*bytes, ftCreation, ftWrite, bReadOnly,
                                                HandlesOf(*this, strFile),
                                                node ? node.mapped().qwReportedSize : std::nullopt})
                .first->second;
}

std::vector<std::string> CWorld::HostFiles(const std::string& strFolder, bool bFolders) const {
    std::vector<std::string> list;
    std::error_code error;
    const fs::path folder = Path(strFolder.empty() ? "." : strFolder);
    for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
        if (bFolders ? entry.is_directory() : entry.is_regular_file()) {
            list.push_back(NameOf(entry.path().lexically_relative(folder)));
        }
    }
    std::ranges::sort(list);
    return list;
}

} // namespace sim

namespace real_platform::posix {

// What the real files ask of the rest of their implementation.

bool RefuseWhenStopping() noexcept;
bool RefuseWhenStopping() noexcept {
    const sim::CWorld* pWorld = sim::CWorld::Current();
    return pWorld != nullptr && pWorld->IsStopped() &&
           sim::FailWith(ERROR_OPERATION_ABORTED) == FALSE;
}

HANDLE OpenUsbNode(const char* lpszSocketPath);
HANDLE OpenUsbNode(const char* /*lpszSocketPath*/) {
    sim::CWorld& world = *sim::CWorld::Current();
    sim::IPeer* pPeer = world.Peer();
    if (pPeer == nullptr || !world.bNodeOpens) {
        sim::FailWith(pPeer == nullptr ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
        return nullptr;
    }
    world.Note("node open");
    pPeer->Opened();
    return AddHandle(std::make_shared<sim::CNode>(world.qwPlugNumber));
}

} // namespace real_platform::posix

// In the place of the system's random numbers, for names that are the same in every run.
extern "C" ssize_t sim_getrandom(void* lpBuffer, std::size_t dwBytes, unsigned nFlags) noexcept;
extern "C" ssize_t sim_getrandom(void* lpBuffer, std::size_t dwBytes, unsigned /*nFlags*/) noexcept {
    static std::uint32_t nNumber = 0;
    ++nNumber;
    std::memcpy(lpBuffer, &nNumber, std::min(dwBytes, sizeof(nNumber)));
    return static_cast<ssize_t>(dwBytes);
}

namespace platform {

using sim::Below;
using sim::Call;
using sim::Canonical;
using sim::CRoom;
using sim::CWorld;
using sim::ECall;
using sim::FailWith;

HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   _SECURITY_ATTRIBUTES* lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    const bool bNode = std::strcmp(lpFileName, sim::DEVICE_NODE) == 0;
    const ECall eCall = bNode ? ECall::OpenNode : ECall::CreateFileA;
    return Call(eCall, INVALID_HANDLE_VALUE, [&](CWorld& world) {
        const bool bWrites = (dwDesiredAccess & GENERIC_WRITE) != 0;
        const bool bShared = (dwShareMode & (bWrites ? FILE_SHARE_WRITE : FILE_SHARE_READ)) != 0;
        if (sim::IsInUse(world, lpFileName, bShared)) {
            return INVALID_HANDLE_VALUE;
        }
        const CRoom room(world, {lpFileName});
        const HANDLE hFile = real_platform::CreateFileA(
            bNode ? lpFileName : Below(lpFileName), dwDesiredAccess, dwShareMode,
            lpSecurityAttributes, dwCreationDisposition, dwFlagsAndAttributes, hTemplateFile);
        if (hFile != INVALID_HANDLE_VALUE) {
            world.handles[hFile] = bNode ? "device node" : "file " + Canonical(lpFileName);
        }
        return hFile;
    });
}

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    const bool bNode = sim::IsNode(hFile);
    return Call(bNode ? ECall::ReadPipe : ECall::ReadFile, FALSE, [&](CWorld& world) {
        sim::CFileRead read{sim::FileOf(world, hFile), 0, nNumberOfBytesToRead, false};
        if (world.onFileRead && !bNode) {
            read.qwPosition = sim::PositionOf(hFile);
            world.onFileRead(read);
        }
        return read.bFail
                   ? FailWith(ERROR_GEN_FAILURE)
                   : real_platform::ReadFile(hFile, lpBuffer,
                                             std::min(read.dwBytes, nNumberOfBytesToRead),
                                             lpNumberOfBytesRead);
    });
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    if (sim::IsNode(hFile)) {
        return Call(ECall::WritePipe, FALSE, real_platform::WriteFile, hFile, lpBuffer,
                    nNumberOfBytesToWrite, lpNumberOfBytesWritten);
    }
    return Call(ECall::WriteFile, FALSE, [&](CWorld& world) {
        const CRoom room(world, {sim::FileOf(world, hFile)});
        // What lies in the file already takes no room.
        const std::uint64_t qwRoom = world.qwFreeBytes + real_platform::GetFileSize(hFile, nullptr) -
                                     sim::PositionOf(hFile);
        const auto dwFits =
            static_cast<DWORD>(std::min<std::uint64_t>(qwRoom, nNumberOfBytesToWrite));
        DWORD dwWritten = 0;
        const BOOL bWritten = real_platform::WriteFile(hFile, lpBuffer, dwFits, &dwWritten);
        if (bWritten && dwFits == nNumberOfBytesToWrite) {
            *lpNumberOfBytesWritten = dwWritten;
        }
        return bWritten && dwFits < nNumberOfBytesToWrite ? FailWith(ERROR_DISK_FULL) : bWritten;
    });
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* lpDistanceHigh, DWORD dwMoveMethod) {
    return Call(ECall::SetFilePointer, INVALID_SET_FILE_POINTER, real_platform::SetFilePointer,
                hFile, lDistance, lpDistanceHigh, dwMoveMethod);
}

DWORD GetFileSize(HANDLE hFile, DWORD* lpFileSizeHigh) {
    return Call(ECall::GetFileSize, INVALID_FILE_SIZE, [&](CWorld& world) {
        const auto it = world.files.find(sim::FileOf(world, hFile));
        if (it == world.files.end() || !it->second.qwReportedSize) {
            return real_platform::GetFileSize(hFile, lpFileSizeHigh);
        }
        if (lpFileSizeHigh != nullptr) {
            *lpFileSizeHigh = static_cast<DWORD>(*it->second.qwReportedSize >> 32);
        }
        return static_cast<DWORD>(*it->second.qwReportedSize);
    });
}

BOOL GetFileTime(HANDLE hFile, FILETIME* lpCreationTime, FILETIME* lpLastAccessTime,
                 FILETIME* lpLastWriteTime) {
    return Call(ECall::GetFileTime, FALSE, real_platform::GetFileTime, hFile, lpCreationTime,
                lpLastAccessTime, lpLastWriteTime);
}

BOOL SetFileTime(HANDLE hFile, const FILETIME* lpCreationTime, const FILETIME* lpLastAccessTime,
                 const FILETIME* lpLastWriteTime) {
    return Call(ECall::SetFileTime, FALSE, real_platform::SetFileTime, hFile, lpCreationTime,
                lpLastAccessTime, lpLastWriteTime);
}

BOOL DeleteFileA(const char* lpFileName) {
    return Call(ECall::DeleteFileA, FALSE, [&](CWorld& world) {
        const CRoom room(world, {lpFileName});
        const BOOL bDeleted = !sim::IsInUse(world, lpFileName) &&
                              real_platform::DeleteFileA(Below(lpFileName));
        if (bDeleted) {
            world.Note("file delete ", Canonical(lpFileName));
        }
        return bDeleted;
    });
}

BOOL MoveFileA(const char* lpExistingFileName, const char* lpNewFileName) {
    return Call(ECall::MoveFileA, FALSE, [&](CWorld& world) {
        return sim::Move(world, lpExistingFileName, lpNewFileName, 0);
    });
}

BOOL MoveFileExA(const char* lpExistingFileName, const char* lpNewFileName, DWORD dwFlags) {
    return Call(ECall::MoveFileExA, FALSE, [&](CWorld& world) {
        return sim::Move(world, lpExistingFileName, lpNewFileName, dwFlags);
    });
}

BOOL SetFileAttributesA(const char* lpFileName, DWORD dwFileAttributes) {
    return Call(ECall::SetFileAttributesA, FALSE, real_platform::SetFileAttributesA,
                Below(lpFileName), dwFileAttributes);
}

BOOL CreateDirectoryA(const char* lpPathName, _SECURITY_ATTRIBUTES* lpSecurityAttributes) {
    return Call(ECall::CreateDirectoryA, FALSE, real_platform::CreateDirectoryA, Below(lpPathName),
                lpSecurityAttributes);
}

UINT GetTempFileNameA(const char* lpPathName, const char* lpPrefixString, UINT uUnique,
                      char* lpTempFileName) {
    return Call(ECall::GetTempFileNameA, UINT{0}, real_platform::GetTempFileNameA,
                Below(lpPathName), lpPrefixString, uUnique, lpTempFileName);
}

BOOL GetDiskFreeSpaceExA(const char* lpDirectoryName, std::uint64_t* lpFreeBytesAvailable,
                         std::uint64_t* lpTotalNumberOfBytes,
                         std::uint64_t* lpTotalNumberOfFreeBytes) {
    return Call(ECall::GetDiskFreeSpaceExA, FALSE, [&](CWorld& world) {
        const BOOL bTold = real_platform::GetDiskFreeSpaceExA(
            Below(lpDirectoryName), lpFreeBytesAvailable, lpTotalNumberOfBytes,
            lpTotalNumberOfFreeBytes);
        for (std::uint64_t* lpqwCount :
             {lpFreeBytesAvailable, lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes}) {
            if (bTold && lpqwCount != nullptr) {
                *lpqwCount = world.qwFreeBytes;
            }
        }
        return bTold;
    });
}

} // namespace platform
