// The files of the simulated host, and the device node as a file.

#include "tests/sim/seam.h"

#include "platform/posix/device_folder.h"
#include "platform/posix/usb_node.h"
#include "platform/posix/waiting.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace fs = std::filesystem;

namespace platform {

decltype(CreateFileA) RealCreateFileA;
decltype(ReadFile) RealReadFile;
decltype(WriteFile) RealWriteFile;
decltype(CloseHandle) RealCloseHandle;
decltype(DeleteFileA) RealDeleteFileA;
decltype(MoveFileExA) RealMoveFileExA;
decltype(GetFileSize) RealGetFileSize;
decltype(GetDiskFreeSpaceExA) RealGetDiskFreeSpaceExA;
SIM_REAL(4, SetFilePointer, INVALID_SET_FILE_POINTER)
SIM_REAL(4, GetFileTime, FALSE)
SIM_REAL(4, SetFileTime, FALSE)
SIM_REAL(2, SetFileAttributesA, FALSE)
SIM_REAL(2, CreateDirectoryA, FALSE)
SIM_REAL(4, GetTempFileNameA, UINT{0})

} // namespace platform

namespace sim {

namespace {

// A path with forward slashes, and without what leads nowhere.
std::string Canonical(std::string strPath) {
    std::ranges::replace(strPath, '\\', '/');
    return NameOf(PathOf(InFolder(strPath.c_str())).lexically_normal());
}

std::uint64_t SizeOf(const char* lpPath) {
    std::error_code error;
    const std::uint64_t qwSize = fs::file_size(PathOf(Canonical(lpPath)), error);
    return error ? 0 : qwSize;
}

// The file that an open handle stands for.
std::string FileOf(const CWorld& world, HANDLE hFile) {
    const auto it = world.handles.find(hFile);
    return it == world.handles.end() ? "" : it->second.substr(it->second.find(' ') + 1);
}

// Whether the system keeps a file from being removed, or opened in this way.
bool IsInUse(const CWorld& world, const char* lpPath, bool bShared = false) {
    return world.bOpenFilesCannotBeDeleted && !bShared &&
           std::ranges::count(world.Open(), "file " + Canonical(lpPath)) > 0 &&
           FailWith(ERROR_SHARING_VIOLATION) == FALSE;
}

DWORD PositionOf(HANDLE hFile) {
    return platform::RealSetFilePointer(hFile, 0, nullptr, FILE_CURRENT);
}

class CNode : public CObject {
  public:
    explicit CNode(std::uint64_t qwPlugNumber) : m_qwPlugNumber(qwPlugNumber) {}

    bool IsPrompt() const noexcept override { return CWorld::Current()->bPromptDevice; }
    bool HandleClosed() noexcept override {
        CWorld& world = *CWorld::Current();
        world.Note("node close");
        if (IPeer* pPeer = PeerOf(world)) {
            pPeer->Closed();
        }
        m_qwPlugNumber = 0;
        world.PeerChanged();
        return true;
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
        const std::string strWhat = (bWrite ? "write of " : "read of ") + std::to_string(dwSize);
        const EWake eWake = world.Await(world.PipeKey(), INFINITE, strWhat, [&] {
            IPeer* pPeer = PeerOf(world);
            count = pPeer == nullptr ? std::nullopt : step(*pPeer);
            return count || PeerOf(world) == nullptr; // it may have just unplugged itself
        });
        if (count) {
            *lpdwCount = static_cast<DWORD>(*count);
            world.Note(strWhat, " did ", *count);
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

BOOL Move(CWorld& world, const char* lpFrom, const char* lpTo, DWORD dwFlags) {
    const std::uint64_t qwOld = SizeOf(lpTo);
    if (IsInUse(world, lpFrom) || IsInUse(world, lpTo) ||
        !platform::RealMoveFileExA(InFolder(lpFrom), InFolder(lpTo), dwFlags)) {
        return FALSE;
    }
    world.qwFreeBytes += qwOld;
    return TRUE;
}

} // namespace

void CWorld::MakeHostFolder(const std::string& strPath) {
    fs::create_directories(PathOf(Canonical(strPath)));
}

void CWorld::WriteHostFile(const std::string& strPath, const Bytes& bytes, FILETIME ftCreation,
                           FILETIME ftWrite) {
    const std::string strFile = Canonical(strPath);
    fs::create_directories(PathOf(strFile).parent_path());
    fs::remove(PathOf(strFile)); // whoever has the old one open keeps it
    files.erase(strFile);
    const HANDLE hFile = platform::RealCreateFileA(strFile.c_str(), GENERIC_WRITE, 0, nullptr,
                                                   CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD dwCount = 0;
    const auto dwBytes = static_cast<DWORD>(bytes.size());
    EXPECT_TRUE(platform::RealWriteFile(hFile, bytes.data(), dwBytes, &dwCount)) << strPath;
    EXPECT_TRUE(platform::RealSetFileTime(hFile, &ftCreation, nullptr, &ftWrite)) << strPath;
    platform::RealCloseHandle(hFile);
}

std::optional<Bytes> CWorld::ReadHostFile(const std::string& strPath) const {
    const std::string strBytes = ReadBytes(PathOf(Canonical(strPath)));
    return HostFileExists(strPath) ? std::optional(Bytes(strBytes.begin(), strBytes.end()))
                                   : std::nullopt;
}

bool CWorld::HostFileExists(const std::string& strPath) const {
    return fs::is_regular_file(PathOf(Canonical(strPath)));
}

CHostFile* CWorld::HostFile(const std::string& strPath) {
    const std::string strFile = Canonical(strPath);
    const auto bytes = ReadHostFile(strFile);
    if (!bytes) {
        return nullptr;
    }
    const HANDLE hFile = platform::RealCreateFileA(strFile.c_str(), GENERIC_READ, 0, nullptr,
                                                   OPEN_EXISTING, 0, nullptr);
    FILETIME ftCreation{};
    FILETIME ftWrite{};
    platform::RealGetFileTime(hFile, &ftCreation, nullptr, &ftWrite);
    platform::RealCloseHandle(hFile);
    const auto node = files.extract(strFile);
    const auto qwReported = node ? node.mapped().qwReportedSize : std::nullopt;
    const CHostFile file{*bytes, ftCreation, ftWrite, qwReported};
    return &files.try_emplace(strFile, file).first->second;
}

std::vector<std::string> CWorld::HostFiles(const std::string& strFolder) const {
    std::vector<std::string> list;
    std::error_code error;
    const fs::path folder = PathOf(Canonical(strFolder + "/."));
    for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
        if (entry.is_regular_file()) {
            list.push_back(NameOf(entry.path().lexically_relative(folder)));
        }
    }
    std::ranges::sort(list);
    return list;
}

} // namespace sim

// What the real sources ask of others: the stop of a thread, the devices, and random numbers, which
// are the same in every run.

extern "C" ssize_t sim_getrandom(void* lpBuffer, std::size_t dwBytes,
                                 unsigned /*nFlags*/) noexcept {
    const std::uint32_t nNumber = ++sim::CWorld::Current()->nRandomNumber;
    std::memcpy(lpBuffer, &nNumber, std::min(dwBytes, sizeof(nNumber)));
    return static_cast<ssize_t>(dwBytes);
}

namespace platform::posix {

bool RefuseWhenStopping() noexcept {
    const sim::CWorld* pWorld = sim::CWorld::Current();
    return pWorld != nullptr && pWorld->IsStopped() &&
           sim::FailWith(ERROR_OPERATION_ABORTED) == FALSE;
}

bool ListAttachedDevices(std::vector<ATTACHEDDEVICE>& devices, std::string& strClassFolder) {
    sim::CWorld& world = *sim::CWorld::Current();
    if (world.AskForDevice()) {
        // The name is as DEVICE_NODE has it.
        devices.push_back({"dak", std::to_string(world.qwPlugNumber)});
    }
    strClassFolder = "usb";
    return true;
}

HANDLE OpenUsbNode(const char* /*lpszSocketPath*/) {
    sim::CWorld& world = *sim::CWorld::Current();
    sim::IPeer* pPeer = world.Peer();
    if (pPeer == nullptr) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    world.Note("node open");
    pPeer->Opened();
    return AddHandle(std::make_shared<sim::CNode>(world.qwPlugNumber));
}

} // namespace platform::posix

namespace platform {

using sim::CNode;
using sim::CWorld;
using sim::FindObject;
using sim::InFolder;

bool HasDrives() {
    return true;
}

HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   _SECURITY_ATTRIBUTES* lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    const bool bNode = sim::DEVICE_NODE == lpFileName;
    const auto body = [&](CWorld& world) {
        const bool bWrites = (dwDesiredAccess & GENERIC_WRITE) != 0;
        const bool bShared = (dwShareMode & (bWrites ? FILE_SHARE_WRITE : FILE_SHARE_READ)) != 0;
        if (sim::IsInUse(world, lpFileName, bShared)) {
            return INVALID_HANDLE_VALUE;
        }
        const std::uint64_t qwBefore = sim::SizeOf(lpFileName);
        const HANDLE hFile = RealCreateFileA(
            bNode ? lpFileName : InFolder(lpFileName), dwDesiredAccess, dwShareMode,
            lpSecurityAttributes, dwCreationDisposition, dwFlagsAndAttributes, hTemplateFile);
        world.qwFreeBytes += qwBefore - sim::SizeOf(lpFileName);
        world.Name(hFile, bNode ? "device node" : "file " + sim::Canonical(lpFileName));
        return hFile;
    };
    return sim::Call(bNode ? sim::ECall::OpenNode : sim::ECall::CreateFileA, INVALID_HANDLE_VALUE,
                     body);
}

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    const bool bNode = FindObject<CNode>(hFile) != nullptr;
    const auto body = [&](CWorld& world) {
        sim::CFileRead read{sim::FileOf(world, hFile), 0, nNumberOfBytesToRead, false};
        if (world.onFileRead && !bNode) {
            read.qwPosition = sim::PositionOf(hFile);
            world.onFileRead(read);
        }
        const DWORD dwBytes = std::min(read.dwBytes, nNumberOfBytesToRead);
        return read.bFail ? sim::FailWith(ERROR_GEN_FAILURE)
                          : RealReadFile(hFile, lpBuffer, dwBytes, lpNumberOfBytesRead);
    };
    return sim::Call(bNode ? sim::ECall::ReadPipe : sim::ECall::ReadFile, FALSE, body);
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    const bool bNode = FindObject<CNode>(hFile) != nullptr;
    const auto body = [&](CWorld& world) {
        // What lies in the file already takes no room.
        const std::uint64_t qwSize = bNode ? 0 : RealGetFileSize(hFile, nullptr);
        const std::uint64_t qwFits =
            bNode ? nNumberOfBytesToWrite : world.qwFreeBytes + qwSize - sim::PositionOf(hFile);
        const auto dwBytes =
            static_cast<DWORD>(std::min<std::uint64_t>(qwFits, nNumberOfBytesToWrite));
        const bool bFull = dwBytes < nNumberOfBytesToWrite;
        DWORD dwWritten = 0;
        const BOOL bWritten =
            RealWriteFile(hFile, lpBuffer, dwBytes, bFull ? &dwWritten : lpNumberOfBytesWritten);
        world.qwFreeBytes -= bNode ? 0 : RealGetFileSize(hFile, nullptr) - qwSize;
        return bWritten && bFull ? sim::FailWith(ERROR_DISK_FULL) : bWritten;
    };
    return sim::Call(bNode ? sim::ECall::WritePipe : sim::ECall::WriteFile, FALSE, body);
}

BOOL CloseHandle(HANDLE hObject) {
    const BOOL bClosed = RealCloseHandle(hObject); // also where the call is to fail
    return sim::Call(sim::ECall::CloseHandle, FALSE, [=](CWorld&) { return bClosed; });
}
SIM_CALL(1, DeleteFileA, FALSE, [](CWorld& world, const char* lpFileName) {
    const std::uint64_t qwSize = sim::SizeOf(lpFileName);
    if (sim::IsInUse(world, lpFileName) || !RealDeleteFileA(InFolder(lpFileName))) {
        return FALSE;
    }
    world.qwFreeBytes += qwSize;
    world.Note("file delete ", sim::Canonical(lpFileName));
    return TRUE;
})
SIM_CALL(2, MoveFileA, FALSE, [](CWorld& world, const char* lpFrom, const char* lpTo) {
    return sim::Move(world, lpFrom, lpTo, 0);
})
SIM_CALL(3, MoveFileExA, FALSE, sim::Move)
SIM_CALL(2, GetFileSize, INVALID_FILE_SIZE, [](CWorld& world, HANDLE hFile, DWORD* lpHigh) {
    const auto it = world.files.find(sim::FileOf(world, hFile));
    if (it == world.files.end() || !it->second.qwReportedSize) {
        return RealGetFileSize(hFile, lpHigh);
    }
    if (lpHigh != nullptr) {
        *lpHigh = static_cast<DWORD>(*it->second.qwReportedSize >> 32);
    }
    return static_cast<DWORD>(*it->second.qwReportedSize);
})
SIM_CALL(4, GetDiskFreeSpaceExA, FALSE, [](CWorld& world, const char* lpFolder, auto... counts) {
    const auto store = [&](std::uint64_t* lpCount) {
        if (lpCount != nullptr) {
            *lpCount = world.qwFreeBytes;
        }
    };
    const BOOL bTold = RealGetDiskFreeSpaceExA(InFolder(lpFolder), counts...);
    bTold ? (store(counts), ...) : void();
    return bTold;
})

} // namespace platform
