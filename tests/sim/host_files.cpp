// The files of the simulated host, and the device node as a file.

#include "tests/sim/world.h"

#include "platform/file.h"

#include <algorithm>
#include <cstring>

namespace sim {

// The moment at which every world begins: 2024-01-01 00:00 UTC.
constexpr std::uint64_t WORLD_BEGIN = 133'485'408'000'000'000ull;

FILETIME CWorld::FileTimeNow() const {
    const std::uint64_t qwTime = WORLD_BEGIN + m_qwNowMs * 10'000;
    return {static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
}

// The path with forward slashes, without empty, "." and ".." components: what it really leads to.
std::string CWorld::Canonical(const std::string& strPath) {
    std::vector<std::string> parts;
    std::string strPart;
    for (const char ch : strPath + "/") {
        if (ch != '/' && ch != '\\') {
            strPart += ch;
            continue;
        }
        if (strPart == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!strPart.empty() && strPart != ".") {
            parts.push_back(strPart);
        }
        strPart.clear();
    }
    const bool bDrive = !parts.empty() && parts[0].size() == 2 && parts[0][1] == ':';
    std::string strResult;
    for (const std::string& part : parts) {
        strResult += (strResult.empty() && bDrive ? "" : "/") + part;
    }
    return strResult;
}

std::string CWorld::Parent(const std::string& strCanonical) {
    const std::size_t dwSlash = strCanonical.rfind('/');
    return strCanonical.substr(0, dwSlash == std::string::npos ? 0 : dwSlash);
}

std::shared_ptr<CHostFile> CWorld::FindFile(const std::string& strCanonical) const {
    const auto it = files.find(strCanonical);
    return it == files.end() ? nullptr : it->second;
}

bool CWorld::FindFolder(const std::string& strCanonical) const {
    return strCanonical.find('/') == std::string::npos || folders.contains(strCanonical);
}

void CWorld::MakeHostFolder(const std::string& strPath) {
    for (std::string strOne = Canonical(strPath); !FindFolder(strOne); strOne = Parent(strOne)) {
        folders.insert(strOne);
    }
}

void CWorld::WriteHostFile(const std::string& strPath, Bytes bytes, FILETIME ftCreation,
                           FILETIME ftWrite) {
    const std::string strFile = Canonical(strPath);
    MakeHostFolder(Parent(strFile));
    auto pFile = std::make_shared<CHostFile>();
    pFile->bytes = std::move(bytes);
    pFile->ftCreation = ftCreation;
    pFile->ftAccess = FileTimeNow();
    pFile->ftWrite = ftWrite;
    files[strFile] = pFile;
}

std::optional<Bytes> CWorld::ReadHostFile(const std::string& strPath) const {
    const auto pFile = FindFile(Canonical(strPath));
    return pFile ? std::optional(pFile->bytes) : std::nullopt;
}

bool CWorld::HostFileExists(const std::string& strPath) const {
    return FindFile(Canonical(strPath)) != nullptr;
}

bool CWorld::HostFolderExists(const std::string& strPath) const {
    return FindFolder(Canonical(strPath));
}

CHostFile* CWorld::HostFile(const std::string& strPath) {
    return FindFile(Canonical(strPath)).get();
}

std::vector<std::string> CWorld::HostFiles(const std::string& strFolder) const {
    const std::string strBegin = Canonical(strFolder) + "/";
    std::vector<std::string> list;
    for (const auto& [strFile, pFile] : files) {
        if (strFile.starts_with(strBegin)) {
            list.push_back(strFile.substr(strBegin.size()));
        }
    }
    return list;
}

namespace {

class CFileHandle : public CObject {
  public:
    CFileHandle(std::string strPath, std::shared_ptr<CHostFile> pFile, DWORD dwAccess,
                DWORD dwShare)
        : m_strPath(std::move(strPath)), m_pFile(std::move(pFile)), m_dwAccess(dwAccess),
          m_dwShare(dwShare) {
        ++m_pFile->nHandles;
    }
    ~CFileHandle() override { --m_pFile->nHandles; }
    CFileHandle(const CFileHandle&) = delete;
    CFileHandle& operator=(const CFileHandle&) = delete;

    std::string What() const override { return "file " + m_strPath; }

    std::string m_strPath;
    std::shared_ptr<CHostFile> m_pFile;
    DWORD m_dwAccess;
    DWORD m_dwShare;
    std::uint64_t m_qwPosition = 0;
};

class CNodeHandle : public CObject {
  public:
    explicit CNodeHandle(std::uint64_t qwPlugNumber) : m_qwPlugNumber(qwPlugNumber) {}
    std::string What() const override { return "device node"; }
    void Close(CWorld& world) override {
        world.Note("node close");
        if (IPeer* pPeer = PeerOf(world)) {
            pPeer->Closed();
        }
        m_qwPlugNumber = 0;
        world.PeerChanged();
    }
    // Null once the device has gone or the handle was closed.
    IPeer* PeerOf(CWorld& world) const {
        return m_qwPlugNumber == world.qwPlugNumber ? world.Peer() : nullptr;
    }

  private:
    std::uint64_t m_qwPlugNumber;
};

HANDLE FailOpen(DWORD dwError) {
    SetError(dwError);
    return INVALID_HANDLE_VALUE;
}

HANDLE OpenNode(CWorld& world) {
    if (!world.Enter(ECall::OpenNode)) {
        return INVALID_HANDLE_VALUE;
    }
    IPeer* pPeer = world.Peer();
    if (pPeer == nullptr || !world.bNodeOpens) {
        world.Note("node refused");
        return FailOpen(pPeer == nullptr ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
    }
    world.Note("node open");
    const HANDLE hNode = world.Add(std::make_shared<CNodeHandle>(world.qwPlugNumber));
    pPeer->Opened();
    return hNode;
}

// 0, or the error that keeps a file from being opened so.
DWORD RefuseOpen(const CWorld& world, const CHostFile* pFile, const std::string& strFile,
                 DWORD dwAccess, DWORD dwShare, DWORD dwDisposition) {
    if (world.FindFolder(strFile)) {
        return ERROR_ACCESS_DENIED;
    }
    if (!world.FindFolder(CWorld::Parent(strFile))) {
        return ERROR_PATH_NOT_FOUND;
    }
    const bool bMustExist = dwDisposition == OPEN_EXISTING || dwDisposition == TRUNCATE_EXISTING;
    if (pFile == nullptr) {
        return bMustExist ? DWORD{ERROR_FILE_NOT_FOUND} : 0;
    }
    if (dwDisposition == CREATE_NEW) {
        return ERROR_FILE_EXISTS;
    }
    const bool bWrites = (dwAccess & GENERIC_WRITE) != 0 || dwDisposition == CREATE_ALWAYS;
    if (pFile->bReadOnly && bWrites) {
        return ERROR_ACCESS_DENIED;
    }
    const bool bShared = (dwShare & (bWrites ? FILE_SHARE_WRITE : FILE_SHARE_READ)) != 0;
    return world.bOpenFilesCannotBeDeleted && pFile->nHandles > 0 && !bShared
               ? DWORD{ERROR_SHARING_VIOLATION}
               : 0;
}

void Truncate(CWorld& world, CHostFile& file) {
    world.qwFreeBytes += file.bytes.size();
    file.bytes.clear();
    file.ftWrite = world.FileTimeNow();
}

// 0, or the error that keeps a file from being deleted or moved away.
DWORD RefuseRemoval(const CWorld& world, const std::string& strFile) {
    const auto pFile = world.FindFile(strFile);
    if (!pFile) {
        return world.FindFolder(strFile) ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
    }
    return world.bOpenFilesCannotBeDeleted && pFile->nHandles > 0 ? DWORD{ERROR_SHARING_VIOLATION}
                                                                  : 0;
}

BOOL Move(CWorld& world, const char* lpFrom, const char* lpTo, bool bReplace) {
    const std::string strFrom = CWorld::Canonical(lpFrom);
    const std::string strTo = CWorld::Canonical(lpTo);
    if (const DWORD dwError = RefuseRemoval(world, strFrom)) {
        return FailWith(dwError);
    }
    if (!world.FindFolder(CWorld::Parent(strTo))) {
        return FailWith(ERROR_PATH_NOT_FOUND);
    }
    const auto pOld = world.FindFile(strTo);
    if (world.FindFolder(strTo) || (pOld && !bReplace && strFrom != strTo)) {
        return FailWith(ERROR_ALREADY_EXISTS);
    }
    if (pOld && strFrom != strTo) {
        if (pOld->bReadOnly) {
            return FailWith(ERROR_ACCESS_DENIED);
        }
        if (const DWORD dwError = RefuseRemoval(world, strTo)) {
            return FailWith(dwError);
        }
        world.qwFreeBytes += pOld->bytes.size();
    }
    auto pFile = world.FindFile(strFrom);
    world.files.erase(strFrom);
    world.files[strTo] = std::move(pFile);
    world.Note("file move %s %s", strFrom.c_str(), strTo.c_str());
    return TRUE;
}

BOOL ReadPipe(CWorld& world, const CNodeHandle& node, std::span<std::uint8_t> buffer,
              DWORD* lpdwCount) {
    if (!world.Enter(ECall::ReadPipe)) {
        return FALSE;
    }
    const auto dwWanted = static_cast<unsigned>(buffer.size());
    for (;;) {
        IPeer* pPeer = node.PeerOf(world);
        if (pPeer == nullptr || world.HasFailed()) {
            world.Note("read failed, %u wanted", dwWanted);
            return FailWith(ERROR_GEN_FAILURE);
        }
        const auto dwCount = pPeer->GiveBytes(buffer);
        if (dwCount) {
            *lpdwCount = static_cast<DWORD>(*dwCount);
            world.Note("read %u of %u", static_cast<unsigned>(*dwCount), dwWanted);
            world.PeerChanged();
            return TRUE;
        }
        if (node.PeerOf(world) == nullptr) {
            continue; // the peer has just unplugged itself
        }
        if (world.Block(world.PipeKey(), {}, "a read of %llu bytes from the device", dwWanted) ==
            EWake::Stopped) {
            world.Note("read stopped, %u wanted", dwWanted);
            if (IPeer* pStill = node.PeerOf(world)) {
                pStill->TransferStopped(false);
            }
            return FailWith(ERROR_OPERATION_ABORTED);
        }
    }
}

BOOL WritePipe(CWorld& world, const CNodeHandle& node, std::span<const std::uint8_t> package,
               DWORD* lpdwCount) {
    if (!world.Enter(ECall::WritePipe)) {
        return FALSE;
    }
    const auto dwBytes = static_cast<unsigned>(package.size());
    std::uint32_t dwWord = 0;
    std::memcpy(&dwWord, package.data(), std::min<std::size_t>(package.size(), 4));
    for (;;) {
        IPeer* pPeer = node.PeerOf(world);
        if (pPeer == nullptr || world.HasFailed()) {
            world.Note("write failed, %u bytes %04X", dwBytes, static_cast<unsigned>(dwWord));
            return FailWith(ERROR_GEN_FAILURE);
        }
        if (pPeer->TakePackage(package)) {
            *lpdwCount = dwBytes;
            world.Note("write %u %04X", dwBytes, static_cast<unsigned>(dwWord));
            world.PeerChanged();
            return TRUE;
        }
        if (node.PeerOf(world) == nullptr) {
            continue;
        }
        if (world.Block(world.PipeKey(), {}, "a write of %llu bytes to the device", dwBytes) ==
            EWake::Stopped) {
            world.Note("write stopped, %u bytes %04X", dwBytes, static_cast<unsigned>(dwWord));
            if (IPeer* pStill = node.PeerOf(world)) {
                pStill->TransferStopped(true);
            }
            return FailWith(ERROR_OPERATION_ABORTED);
        }
    }
}

// The file of a handle for a call that counts as eCall; null, with the error number set, when the
// call fails.
std::shared_ptr<CFileHandle> File(HANDLE hFile, ECall eCall) {
    CWorld* pWorld = CWorld::Current();
    const auto pFile = pWorld != nullptr ? pWorld->Get<CFileHandle>(hFile) : nullptr;
    if (!pFile) {
        SetError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return pWorld->Enter(eCall) ? pFile : nullptr;
}

// The world for a call on a path, or null as above.
CWorld* Enter(ECall eCall) {
    CWorld* pWorld = CWorld::Current();
    return pWorld != nullptr && pWorld->Enter(eCall) ? pWorld : nullptr;
}

} // namespace

} // namespace sim

namespace platform {

using sim::CWorld;
using sim::ECall;
using sim::FailWith;
using sim::SetError;

HANDLE CreateFileA(const char* lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   _SECURITY_ATTRIBUTES* /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                   DWORD /*dwFlagsAndAttributes*/, HANDLE /*hTemplateFile*/) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld != nullptr && std::strcmp(lpFileName, sim::DEVICE_NODE) == 0) {
        return sim::OpenNode(*pWorld);
    }
    if (pWorld == nullptr || !pWorld->Enter(ECall::CreateFileA)) {
        return INVALID_HANDLE_VALUE;
    }
    const std::string strFile = CWorld::Canonical(lpFileName);
    auto pFile = pWorld->FindFile(strFile);
    if (const DWORD dwError = sim::RefuseOpen(*pWorld, pFile.get(), strFile, dwDesiredAccess,
                                              dwShareMode, dwCreationDisposition)) {
        return sim::FailOpen(dwError);
    }
    if (!pFile) {
        pWorld->WriteHostFile(strFile, {}, pWorld->FileTimeNow(), pWorld->FileTimeNow());
        pFile = pWorld->FindFile(strFile);
        pWorld->Note("file make %s", strFile.c_str());
    } else if (dwCreationDisposition == CREATE_ALWAYS ||
               dwCreationDisposition == TRUNCATE_EXISTING) {
        sim::Truncate(*pWorld, *pFile);
    }
    return pWorld->Add(
        std::make_shared<sim::CFileHandle>(strFile, pFile, dwDesiredAccess, dwShareMode));
}

BOOL ReadFile(HANDLE hFile, void* lpBuffer, DWORD nNumberOfBytesToRead,
              DWORD* lpNumberOfBytesRead) {
    CWorld* pWorld = CWorld::Current();
    const auto pNode = pWorld != nullptr ? pWorld->Get<sim::CNodeHandle>(hFile) : nullptr;
    if (pNode) {
        return sim::ReadPipe(*pWorld, *pNode,
                             {static_cast<std::uint8_t*>(lpBuffer), nNumberOfBytesToRead},
                             lpNumberOfBytesRead);
    }
    const auto pFile = sim::File(hFile, ECall::ReadFile);
    if (!pFile) {
        return FALSE;
    }
    if ((pFile->m_dwAccess & GENERIC_READ) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    sim::CFileRead read{pFile->m_strPath, pFile->m_qwPosition, nNumberOfBytesToRead, false};
    if (pWorld->onFileRead) {
        pWorld->onFileRead(read);
    }
    if (read.bFail || pWorld->IsStopped()) {
        return FailWith(read.bFail ? ERROR_GEN_FAILURE : ERROR_OPERATION_ABORTED);
    }
    const sim::Bytes& bytes = pFile->m_pFile->bytes;
    const std::uint64_t qwFrom = std::min<std::uint64_t>(pFile->m_qwPosition, bytes.size());
    const auto dwCount = static_cast<DWORD>(std::min<std::uint64_t>(
        bytes.size() - qwFrom, std::min(read.dwBytes, nNumberOfBytesToRead)));
    if (dwCount > 0) {
        std::memcpy(lpBuffer, bytes.data() + qwFrom, dwCount);
    }
    pFile->m_qwPosition = qwFrom + dwCount;
    *lpNumberOfBytesRead = dwCount;
    return TRUE;
}

BOOL WriteFile(HANDLE hFile, const void* lpBuffer, DWORD nNumberOfBytesToWrite,
               DWORD* lpNumberOfBytesWritten) {
    CWorld* pWorld = CWorld::Current();
    const auto pNode = pWorld != nullptr ? pWorld->Get<sim::CNodeHandle>(hFile) : nullptr;
    if (pNode) {
        return sim::WritePipe(*pWorld, *pNode,
                              {static_cast<const std::uint8_t*>(lpBuffer), nNumberOfBytesToWrite},
                              lpNumberOfBytesWritten);
    }
    const auto pFile = sim::File(hFile, ECall::WriteFile);
    if (!pFile) {
        return FALSE;
    }
    if ((pFile->m_dwAccess & GENERIC_WRITE) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    if (pWorld->IsStopped()) {
        return FailWith(ERROR_OPERATION_ABORTED);
    }
    sim::Bytes& bytes = pFile->m_pFile->bytes;
    const std::uint64_t qwEnd = pFile->m_qwPosition + nNumberOfBytesToWrite;
    const std::uint64_t qwGrowth = qwEnd > bytes.size() ? qwEnd - bytes.size() : 0;
    const std::uint64_t qwMissing =
        qwGrowth > pWorld->qwFreeBytes ? qwGrowth - pWorld->qwFreeBytes : 0;
    const std::uint64_t qwCount =
        nNumberOfBytesToWrite - std::min<std::uint64_t>(qwMissing, nNumberOfBytesToWrite);
    if (pFile->m_qwPosition + qwCount > bytes.size()) {
        pWorld->qwFreeBytes -= pFile->m_qwPosition + qwCount - bytes.size();
        bytes.resize(pFile->m_qwPosition + qwCount);
    }
    if (qwCount > 0) {
        std::memcpy(bytes.data() + pFile->m_qwPosition, lpBuffer, qwCount);
    }
    pFile->m_qwPosition += qwCount;
    pFile->m_pFile->ftWrite = pWorld->FileTimeNow();
    if (qwMissing > 0) {
        return FailWith(ERROR_DISK_FULL);
    }
    *lpNumberOfBytesWritten = nNumberOfBytesToWrite;
    return TRUE;
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* /*lpDistanceHigh*/, DWORD dwMoveMethod) {
    const auto pFile = sim::File(hFile, ECall::SetFilePointer);
    if (!pFile) {
        return INVALID_SET_FILE_POINTER;
    }
    const std::uint64_t qwFrom = dwMoveMethod == FILE_BEGIN     ? 0
                                 : dwMoveMethod == FILE_CURRENT ? pFile->m_qwPosition
                                                                : pFile->m_pFile->bytes.size();
    const std::int64_t nTo = static_cast<std::int64_t>(qwFrom) + lDistance;
    if (nTo < 0 || dwMoveMethod > FILE_END) {
        SetError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    pFile->m_qwPosition = static_cast<std::uint64_t>(nTo);
    return static_cast<DWORD>(nTo);
}

DWORD GetFileSize(HANDLE hFile, DWORD* lpFileSizeHigh) {
    const auto pFile = sim::File(hFile, ECall::GetFileSize);
    if (!pFile) {
        return INVALID_FILE_SIZE;
    }
    const sim::CHostFile& file = *pFile->m_pFile;
    const std::uint64_t qwSize = file.qwReportedSize.value_or(file.bytes.size());
    if (lpFileSizeHigh != nullptr) {
        *lpFileSizeHigh = static_cast<DWORD>(qwSize >> 32);
    }
    return static_cast<DWORD>(qwSize);
}

BOOL GetFileTime(HANDLE hFile, FILETIME* lpCreationTime, FILETIME* lpLastAccessTime,
                 FILETIME* lpLastWriteTime) {
    const auto pFile = sim::File(hFile, ECall::GetFileTime);
    if (!pFile) {
        return FALSE;
    }
    const auto store = [](FILETIME* lpTime, const FILETIME& time) {
        if (lpTime != nullptr) {
            *lpTime = time;
        }
    };
    store(lpCreationTime, pFile->m_pFile->ftCreation);
    store(lpLastAccessTime, pFile->m_pFile->ftAccess);
    store(lpLastWriteTime, pFile->m_pFile->ftWrite);
    return TRUE;
}

BOOL SetFileTime(HANDLE hFile, const FILETIME* lpCreationTime, const FILETIME* lpLastAccessTime,
                 const FILETIME* lpLastWriteTime) {
    const auto pFile = sim::File(hFile, ECall::SetFileTime);
    if (!pFile) {
        return FALSE;
    }
    if ((pFile->m_dwAccess & GENERIC_WRITE) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    for (const FILETIME* const lpTime : {lpCreationTime, lpLastAccessTime, lpLastWriteTime}) {
        if (lpTime != nullptr && (lpTime->dwHighDateTime & 0x80000000) != 0) {
            return FailWith(ERROR_INVALID_PARAMETER);
        }
    }
    const auto take = [](FILETIME& time, const FILETIME* lpTime) {
        if (lpTime != nullptr && (lpTime->dwLowDateTime | lpTime->dwHighDateTime) != 0) {
            time = *lpTime;
        }
    };
    take(pFile->m_pFile->ftCreation, lpCreationTime);
    take(pFile->m_pFile->ftAccess, lpLastAccessTime);
    take(pFile->m_pFile->ftWrite, lpLastWriteTime);
    return TRUE;
}

BOOL DeleteFileA(const char* lpFileName) {
    CWorld* pWorld = sim::Enter(ECall::DeleteFileA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    const std::string strFile = CWorld::Canonical(lpFileName);
    if (const DWORD dwError = sim::RefuseRemoval(*pWorld, strFile)) {
        return FailWith(dwError);
    }
    const auto pFile = pWorld->FindFile(strFile);
    if (pFile->bReadOnly) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    pWorld->qwFreeBytes += pFile->bytes.size();
    pWorld->files.erase(strFile);
    pWorld->Note("file delete %s", strFile.c_str());
    return TRUE;
}

BOOL MoveFileA(const char* lpExistingFileName, const char* lpNewFileName) {
    CWorld* pWorld = sim::Enter(ECall::MoveFileA);
    return pWorld != nullptr && sim::Move(*pWorld, lpExistingFileName, lpNewFileName, false);
}

BOOL MoveFileExA(const char* lpExistingFileName, const char* lpNewFileName, DWORD dwFlags) {
    CWorld* pWorld = sim::Enter(ECall::MoveFileExA);
    return pWorld != nullptr && sim::Move(*pWorld, lpExistingFileName, lpNewFileName,
                                          (dwFlags & MOVEFILE_REPLACE_EXISTING) != 0);
}

BOOL SetFileAttributesA(const char* lpFileName, DWORD dwFileAttributes) {
    CWorld* pWorld = sim::Enter(ECall::SetFileAttributesA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    sim::CHostFile* pFile = pWorld->HostFile(lpFileName);
    if (pFile == nullptr) {
        return FailWith(ERROR_FILE_NOT_FOUND);
    }
    pFile->bReadOnly = (dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    return TRUE;
}

BOOL CreateDirectoryA(const char* lpPathName, _SECURITY_ATTRIBUTES* /*lpSecurityAttributes*/) {
    CWorld* pWorld = sim::Enter(ECall::CreateDirectoryA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    const std::string strFolder = CWorld::Canonical(lpPathName);
    if (pWorld->FindFolder(strFolder) || pWorld->FindFile(strFolder)) {
        return FailWith(ERROR_ALREADY_EXISTS);
    }
    if (!pWorld->FindFolder(CWorld::Parent(strFolder))) {
        return FailWith(ERROR_PATH_NOT_FOUND);
    }
    pWorld->folders.insert(strFolder);
    pWorld->Note("folder make %s", strFolder.c_str());
    return TRUE;
}

UINT GetTempFileNameA(const char* lpPathName, const char* lpPrefixString, UINT /*uUnique*/,
                      char* lpTempFileName) {
    CWorld* pWorld = sim::Enter(ECall::GetTempFileNameA);
    if (pWorld == nullptr) {
        return 0;
    }
    if (!pWorld->FindFolder(CWorld::Canonical(lpPathName))) {
        SetError(ERROR_PATH_NOT_FOUND);
        return 0;
    }
    const std::string strPrefix = std::string(lpPrefixString).substr(0, 3);
    std::string strFile;
    do {
        strFile = std::string(lpPathName) + "\\" + strPrefix +
                  std::to_string(++pWorld->dwTempNames) + ".tmp";
    } while (pWorld->HostFileExists(strFile));
    if (strFile.size() >= MAX_PATH) {
        SetError(ERROR_INVALID_NAME);
        return 0;
    }
    pWorld->WriteHostFile(strFile, {}, pWorld->FileTimeNow(), pWorld->FileTimeNow());
    pWorld->Note("file make %s", CWorld::Canonical(strFile).c_str());
    std::memcpy(lpTempFileName, strFile.c_str(), strFile.size() + 1);
    return pWorld->dwTempNames;
}

BOOL GetDiskFreeSpaceExA(const char* lpDirectoryName, std::uint64_t* lpFreeBytesAvailable,
                         std::uint64_t* lpTotalNumberOfBytes,
                         std::uint64_t* lpTotalNumberOfFreeBytes) {
    CWorld* pWorld = sim::Enter(ECall::GetDiskFreeSpaceExA);
    if (pWorld == nullptr) {
        return FALSE;
    }
    if (!pWorld->HostFolderExists(lpDirectoryName)) {
        return FailWith(ERROR_PATH_NOT_FOUND);
    }
    for (std::uint64_t* lpqwCount :
         {lpFreeBytesAvailable, lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes}) {
        if (lpqwCount != nullptr) {
            *lpqwCount = pWorld->qwFreeBytes;
        }
    }
    return TRUE;
}

} // namespace platform
