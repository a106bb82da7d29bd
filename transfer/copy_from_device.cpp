#include "transfer/copy_from_device.h"

#include "link/command_exchange.h"
#include "link/dak_vorn.h"
#include "link/debug_trace.h"
#include "link/shared_word.h"
#include "platform/binary_file.h"
#include "platform/file.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "stream/package_cursor.h"
#include "transfer/copy_job.h"

#include <cstring>

namespace {

// A second, for a file that somebody holds.
constexpr int MOVE_TRIES = 11;
constexpr DWORD MOVE_PAUSE_MS = 100;
// Kept free on the host's disk beside the file itself.
constexpr std::uint64_t SPARE_ROOM = 0x19000;

CString WithoutTrailingBackslashes(CString strPath) {
    strPath.TrimRight('\\');
    return strPath;
}

CString Joined(const CString& strFolder, const char* lpszName) {
    CString strPath = strFolder;
    strPath += "\\";
    strPath += lpszName;
    return strPath;
}

bool IsDrivePath(const char* lpszName) {
    const char ch = static_cast<char>(lpszName[0] | 0x20);
    return ch >= 'a' && ch <= 'z' && lpszName[1] == ':';
}

// Whether a name from the device stays below the folder it is put into: no parent or empty
// component, no root, no drive.
bool StaysBelowFolder(const CString& strName) {
    if (IsDrivePath(strName)) {
        return false;
    }
    for (int nStart = 0;;) {
        const int nEnd = strName.Find('\\', nStart);
        const CString strRest = strName.Mid(nStart);
        const CString strComponent = nEnd < 0 ? strRest : strRest.Left(nEnd - nStart);
        if (strComponent.IsEmpty() || strComponent == "." || strComponent == "..") {
            return false;
        }
        if (nEnd < 0) {
            return true;
        }
        nStart = nEnd + 1;
    }
}

// The sum, or the greatest number where it would wrap around.
std::uint64_t Sum(std::uint64_t qwLeft, std::uint64_t qwRight) {
    return qwLeft > UINT64_MAX - qwRight ? UINT64_MAX : qwLeft + qwRight;
}

// The size of a file that is already there; 0 when it cannot be opened.
DWORD OldSize(const char* lpszTarget) {
    const HANDLE hFile = platform::CreateFileA(lpszTarget, GENERIC_READ, FILE_SHARE_READ, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        return 0;
    }
    const DWORD dwSize = platform::GetFileSize(hFile, nullptr);
    platform::CloseHandle(hFile);
    return dwSize == INVALID_FILE_SIZE ? 0 : dwSize;
}

} // namespace

CCopyFromDevice::CCopyFromDevice(CDAKVorn& owner, const WCHAR* lpSource, const WCHAR* lpDest,
                                 const CStringArray& fileList)
    : m_owner(owner), m_lpSource(lpSource), m_lpDest(lpDest), m_fileList(fileList) {
    bool bSourceExact = false;
    m_strSource = WithoutTrailingBackslashes(NarrowText(lpSource, bSourceExact));
    m_strDest = WithoutTrailingBackslashes(NarrowText(lpDest, m_bDestExact));
}

void CCopyFromDevice::Run() {
    m_owner.m_nResendCount = 0;
    m_owner.m_dwLastPackageSize = 0;
    m_owner.m_dwRecvPackages = 0;
    if (!m_package.Allocate(DAK_PACKAGE_SIZE) || !SendRequest()) {
        return;
    }
    PauseForDevice(m_owner.m_hDevice, DevicePause::FilesToBeFound);
    DWORD dwFileCount = 0;
    if (!TakeStreamHead(dwFileCount)) {
        if (LoadShared(m_owner.m_bCopying) == 0) {
            g_bAbortPending = TRUE;
        }
        return;
    }
    for (; dwFileCount != 0; --dwFileCount) {
        if (!TakeFile()) {
            return;
        }
    }
}

// The chained command and its acknowledgements. False, with m_dwErrCode set, when the device did
// not take it.
bool CCopyFromDevice::SendRequest() {
    if (!AreNamesSendable()) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
        return false;
    }
    BeginPiece(DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    BYTE* const lpPackage = m_package.Get();
    lpPackage[m_dwCursor++] = DAK_FROM_DEVICE;
    for (const WCHAR* lpszFolder : {m_lpSource, m_lpDest}) {
        const DWORD dwBytes = CExchange::TextBytes(lpszFolder);
        std::memcpy(lpPackage + m_dwCursor, lpszFolder, dwBytes);
        m_dwCursor += dwBytes;
    }
    DakPutU32(lpPackage + m_dwCursor, static_cast<DWORD>(m_fileList.GetSize()));
    m_dwCursor += 4;
    bool bGoesWell = true;
    for (int i = 0; bGoesWell && i < m_fileList.GetSize(); ++i) {
        bGoesWell = AddName(m_fileList.GetAt(i));
    }
    return SendLastPiece(bGoesWell);
}

// Whether every name fits a field of the request.
bool CCopyFromDevice::AreNamesSendable() const {
    WCHAR szName[DAK_MAX_NAME];
    for (int i = 0; i < m_fileList.GetSize(); ++i) {
        if (platform::MultiByteToWideChar(CP_ACP, 0, m_fileList.GetAt(i), -1, szName,
                                          DAK_MAX_NAME) <= 0) {
            return false;
        }
    }
    return true;
}

void CCopyFromDevice::BeginPiece(DWORD wCommand, DWORD packageLength) {
    std::memset(m_package.Get(), 0, DAK_PACKAGE_SIZE);
    DakPutHeader(m_package.Get(), wCommand, packageLength);
    DakPutU16(m_package.Get() + DAK_OFFSET_CODE, DAK_FUNC_TRANSMIT_FILES);
    m_dwCursor = DAK_COMMAND_PAYLOAD_OFFSET;
}

// A name of the request, cut wherever the piece ends. False when a piece was not taken.
bool CCopyFromDevice::AddName(const char* lpszName) {
    WCHAR szName[DAK_MAX_NAME] = {};
    const int nChars = platform::MultiByteToWideChar(CP_ACP, 0, lpszName, -1, szName, DAK_MAX_NAME);
    const DWORD dwBytes = static_cast<DWORD>(nChars) * 2;
    const DWORD dwRoom = DAK_PACKAGE_SIZE - m_dwCursor;
    if (dwBytes <= dwRoom) {
        std::memcpy(m_package.Get() + m_dwCursor, szName, dwBytes);
        m_dwCursor += dwBytes;
        return true;
    }
    std::memcpy(m_package.Get() + m_dwCursor, szName, dwRoom);
    if (!SendPiece()) {
        return false;
    }
    BeginPiece(DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    std::memcpy(m_package.Get() + m_dwCursor, reinterpret_cast<const BYTE*>(szName) + dwRoom,
                dwBytes - dwRoom);
    m_dwCursor += dwBytes - dwRoom;
    return true;
}

// A full piece ahead of the last, and its acknowledgement.
bool CCopyFromDevice::SendPiece() {
    DWORD dwCount = 0;
    return WritePiece(DAK_PACKAGE_SIZE) && AwaitAcknowledgement(dwCount) == DAK_SUCCESS;
}

bool CCopyFromDevice::WritePiece(DWORD dwBytes) {
    const int nBytes = static_cast<int>(dwBytes);
    TraceLine("before send codeFunc=%d, packageLength=%d\n", DAK_FUNC_TRANSMIT_FILES, nBytes);
    DWORD dwCount = 0;
    if (!m_owner.WriteUSBData(m_package.Get(), dwBytes, &dwCount)) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_NO_DEVICE);
        return false;
    }
    TraceLine("after send codeFunc=%d, packageLength=%d, dwReadBytes=%d\n", DAK_FUNC_TRANSMIT_FILES,
              nBytes, static_cast<int>(dwCount));
    return true;
}

// The command word of the acknowledgement, or 0; dwCount is 0 when no read brought anything. All
// waits of a request draw on one count of failed reads.
DWORD CCopyFromDevice::AwaitAcknowledgement(DWORD& dwCount) {
    BYTE header[DAK_HEADER_SIZE];
    for (;;) {
        std::memset(header, 0, sizeof(header));
        const bool bRead = m_owner.ReadUSBData(header, sizeof(header), &dwCount, 0) != 0;
        if (bRead) {
            TraceLine("after read dwReadBytes=%d\n", static_cast<int>(dwCount));
        } else {
            platform::Sleep(FAILED_READ_PAUSE_MS);
        }
        const bool bPresent = m_owner.IsDeviceAvailable() != 0;
        if (bRead || !bPresent || LoadShared(m_owner.m_bCopying) == 0 ||
            ++m_dwFailedReads >= FIRST_READ_TRIES) {
            return DakGetHeader(header).wCommand;
        }
    }
}

// The last piece goes out also after a failure, with what the buffer holds, so that the device sees
// the end of the command.
bool CCopyFromDevice::SendLastPiece(bool bGoesWell) {
    DakPutHeader(m_package.Get(), DAK_LAST_PACKAGE, m_dwCursor - DAK_HEADER_SIZE);
    bGoesWell = WritePiece(m_dwCursor) && bGoesWell;
    DWORD dwCount = 0;
    const DWORD wCommand = bGoesWell ? AwaitAcknowledgement(dwCount) : 0;
    if (LoadShared(m_owner.m_bCopying) == 0) {
        g_bAbortPending = TRUE;
    }
    if (dwCount == 0) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_NO_DEVICE);
        return false;
    }
    if (dwCount != DAK_HEADER_SIZE || wCommand != DAK_SUCCESS) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
        return false;
    }
    return true;
}

bool CCopyFromDevice::TakeStreamHead(DWORD& dwFileCount) {
    BYTE word[4];
    if (!TakeField(word, sizeof(word))) {
        return false;
    }
    m_bRet = static_cast<int>(DakGetU32(word));
    if (!TakeField(word, sizeof(word))) {
        return false;
    }
    dwFileCount = DakGetU32(word);
    return true;
}

bool CCopyFromDevice::TakeField(void* lpField, DWORD dwBytes) {
    return m_owner.GetBuffData(m_package.Get(), static_cast<BYTE*>(lpField), dwBytes, m_dwOffset,
                               m_dwPackageBytes, m_bEnd, DAK_FUNC_TRANSMIT_FILES) != 0;
}

// One file of the stream, from its record to its place on the host. False ends the job.
bool CCopyFromDevice::TakeFile() {
    StoreShared(m_owner.m_dwSizeCopied, std::uint64_t{0});
    StoreShared(m_owner.m_dwSizeTotal, std::uint64_t{0});
    if (m_bEnd != 0 && m_dwOffset >= m_dwPackageBytes) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_PROTOCOL);
        return false;
    }
    FileRecord record;
    if (!TakeRecord(record) || !TakeName(record)) {
        return false;
    }
    if (!MakeFolders(record) || !MakePartFile(record)) {
        return false;
    }
    CheckRoom(record);
    if (!ReceiveContents(record) || !TakeTargetName(record)) {
        return false;
    }
    SetTimes(record);
    return true;
}

bool CCopyFromDevice::TakeRecord(FileRecord& record) {
    BYTE sizes[8];
    if (!TakeField(sizes, 4) || !TakeField(sizes + 4, 4)) {
        return false;
    }
    record.qwSize = (std::uint64_t{DakGetU32(sizes + 4)} << 32) | DakGetU32(sizes);
    StoreShared(m_owner.m_dwSizeTotal, record.qwSize);
    return TakeField(&record.ftCreation, sizeof(record.ftCreation)) &&
           TakeField(&record.ftLastWrite, sizeof(record.ftLastWrite));
}

// The record's name, and the paths that follow from it. A name that leads out of the destination
// folder, or that the host cannot hold, is none that a device may send.
bool CCopyFromDevice::TakeName(FileRecord& record) {
    WCHAR szName[DAK_MAX_NAME] = {};
    if (!m_owner.GetBuffString(m_package.Get(), szName, m_dwOffset, m_dwPackageBytes, m_bEnd,
                               DAK_MAX_NAME)) {
        return false;
    }
    bool bExact = false;
    record.strName = WithBackslashes(NarrowText(szName, bExact));
    if (!bExact || !StaysBelowFolder(record.strName)) {
        StopStream(DAKERROR_PROTOCOL);
        return false;
    }
    SetPathText(m_owner.m_szSourcePath, Joined(m_strSource, record.strName));
    record.strTarget = Joined(m_strDest, record.strName);
    if (!m_bDestExact || record.strTarget.GetLength() >= static_cast<int>(MAX_PATH)) {
        StopStream(DAKERROR_FAIL);
        return false;
    }
    return true;
}

// The folders of the name, level by level. One that exists is no obstacle, and one that cannot be
// made shows when the file is, unless the disk is full. False ends the job.
bool CCopyFromDevice::MakeFolders(FileRecord& record) {
    record.strFolder = m_strDest;
    int nStart = 0;
    for (int nEnd = record.strName.Find('\\'); nEnd >= 0;
         nEnd = record.strName.Find('\\', nStart)) {
        record.strFolder = Joined(record.strFolder, record.strName.Mid(nStart).Left(nEnd - nStart));
        if (platform::CreateDirectoryA(record.strFolder, nullptr) == FALSE &&
            platform::GetLastError() == ERROR_DISK_FULL) {
            return GiveUpFile(record, DAKERROR_NO_SPACE);
        }
        nStart = nEnd + 1;
    }
    return true;
}

bool CCopyFromDevice::MakePartFile(FileRecord& record) {
    SetPathText(m_owner.m_szDestPath, record.strTarget);
    SetPathText(m_owner.m_szPartPath, "");
    const CString strFile = record.strName.Mid(record.strName.ReverseFind('\\') + 1);
    char szPartPath[MAX_PATH] = {};
    if (platform::GetTempFileNameA(record.strFolder, strFile, 0, szPartPath) == 0) {
        return GiveUpFile(record, HostFailure());
    }
    record.strPart = szPartPath;
    SetPathText(m_owner.m_szPartPath, szPartPath);
    return true;
}

// Compares the room on the host's disk, an old target's included, with what the file needs. With
// too little, the next package stops the stream. An old target goes ahead of its replacement only
// where the room is short without it.
void CCopyFromDevice::CheckRoom(const FileRecord& record) {
    const DWORD dwOldSize = OldSize(record.strTarget);
    std::uint64_t qwFree = 0;
    std::uint64_t qwRoom = 0;
    if (platform::GetDiskFreeSpaceExA(record.strFolder, &qwFree, nullptr, nullptr) != FALSE) {
        qwRoom = Sum(qwFree, dwOldSize);
    }
    const std::uint64_t qwNeeded = Sum(record.qwSize, SPARE_ROOM);
    if (qwRoom < qwNeeded) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_NO_SPACE);
    } else if (qwFree < qwNeeded) {
        platform::DeleteFileA(record.strTarget);
    }
}

// The file's bytes into the part file, straight out of the package.
bool CCopyFromDevice::ReceiveContents(FileRecord& record) {
    UINT nOpenFlags =
        platform::CFile::modeCreate | platform::CFile::modeWrite | platform::CFile::typeBinary;
    platform::CFile part;
    if (!part.Open(record.strPart, nOpenFlags)) {
        return GiveUpFile(record, HostFailure());
    }
    std::uint64_t qwLeft = record.qwSize;
    while (qwLeft > PackageRest(m_dwOffset, m_dwPackageBytes)) {
        const DWORD dwRest = PackageRest(m_dwOffset, m_dwPackageBytes);
        if (!part.Write(m_package.Get() + m_dwOffset, dwRest)) {
            const DWORD dwErrCode = HostFailure();
            part.Close();
            return GiveUpFile(record, dwErrCode);
        }
        qwLeft -= dwRest;
        std::atomic_ref<std::uint64_t>(m_owner.m_dwSizeCopied).fetch_add(dwRest);
        if (!m_owner.FetchPackage(m_package.Get(), m_dwPackageBytes, m_bEnd,
                                  DAK_FUNC_TRANSMIT_FILES)) {
            part.Close();
            record.DropPart();
            return false;
        }
        m_dwOffset = DAK_DATA_OFFSET;
        if (m_bEnd == 0 && PackageRest(m_dwOffset, m_dwPackageBytes) == 0) {
            // A device that goes on without sending bytes would hold the job for ever.
            part.Close();
            return GiveUpFile(record, DAKERROR_PROTOCOL);
        }
        nOpenFlags |= platform::CFile::modeNoTruncate;
    }
    if (!part.Close()) {
        return GiveUpFile(record, HostFailure());
    }
    return WriteRest(record, nOpenFlags, static_cast<DWORD>(qwLeft));
}

// What is left of the file lies in the package in hand. The part file must then be whole: a
// cancelling caller may have deleted it under us.
bool CCopyFromDevice::WriteRest(FileRecord& record, UINT nOpenFlags, DWORD dwLeft) {
    platform::CFile part;
    bool bWhole = part.Open(record.strPart, nOpenFlags) && part.SeekToEnd() &&
                  part.Write(m_package.Get() + m_dwOffset, dwLeft) &&
                  part.GetLength() == record.qwSize;
    DWORD dwHostFailure = HostFailure();
    if (!part.Close() && bWhole) {
        dwHostFailure = HostFailure();
        bWhole = false;
    }
    m_dwOffset += dwLeft;
    std::atomic_ref<std::uint64_t>(m_owner.m_dwSizeCopied).fetch_add(dwLeft);
    return bWhole || GiveUpFile(record, dwHostFailure);
}

// The whole new file takes its place in one step, also over a read-only one. Somebody who just
// looks at it, as a scanner does with every new file, is waited for.
bool CCopyFromDevice::TakeTargetName(FileRecord& record) {
    platform::SetFileAttributesA(record.strTarget, FILE_ATTRIBUTE_NORMAL);
    for (int nTry = 1; platform::MoveFileExA(record.strPart, record.strTarget,
                                             MOVEFILE_REPLACE_EXISTING) == FALSE;
         ++nTry) {
        if (platform::GetLastError() != ERROR_SHARING_VIOLATION || nTry == MOVE_TRIES ||
            LoadShared(m_owner.m_bCopying) == 0) {
            return GiveUpFile(record, HostFailure());
        }
        platform::Sleep(MOVE_PAUSE_MS);
    }
    record.strPart.Empty();
    return true;
}

void CCopyFromDevice::SetTimes(const FileRecord& record) {
    const HANDLE hFile =
        platform::CreateFileA(record.strTarget, GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) {
        platform::SetFileTime(hFile, &record.ftCreation, nullptr, &record.ftLastWrite);
        platform::CloseHandle(hFile);
    }
}

// The host cannot take this file: no part of it stays, and the device is told to stop. Always
// false.
bool CCopyFromDevice::GiveUpFile(FileRecord& record, DWORD dwErrCode) {
    record.DropPart();
    if (LoadShared(m_owner.m_dwErrCode) == DAKERROR_NO_SPACE) {
        dwErrCode = DAKERROR_NO_SPACE;
    }
    StopStream(dwErrCode);
    return false;
}

void CCopyFromDevice::FileRecord::DropPart() {
    if (!strPart.IsEmpty()) {
        platform::DeleteFileA(strPart);
        strPart.Empty();
    }
}

// What a failed call on a host file means for the job. A cancelling caller deletes the part file,
// and then it is the cancel that counts.
DWORD CCopyFromDevice::HostFailure() const {
    if (platform::GetLastError() == ERROR_DISK_FULL) {
        return DAKERROR_NO_SPACE;
    }
    return LoadShared(m_owner.m_bCopying) == 0 ? DAKERROR_CANCELLED : DAKERROR_FAIL;
}

// Ends the stream as for lack of room, unless all of it has arrived, and leaves dwErrCode.
void CCopyFromDevice::StopStream(DWORD dwErrCode) {
    if (m_bEnd == 0) {
        m_owner.DrainAndAbort();
    }
    StoreShared(m_owner.m_dwErrCode, dwErrCode);
}
