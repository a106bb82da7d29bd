// The content of a folder: one counted reply of variable-length entries that runs over any number
// of packages, without checksums and with a receive loop of its own.

#include "link/command_exchange.h"
#include "link/operation_frame.h"
#include "platform/memory.h"
#include "remote_files/folder_reader.h"

#include <cstring>

namespace {

constexpr DWORD HEAD_BYTES = 18;
constexpr DWORD COUNT_OFFSET = 14;
// Of packageLength: what stands behind the header ahead of the entries, in the first package and in
// each later one.
constexpr DWORD FIRST_LENGTH = HEAD_BYTES - DAK_HEADER_SIZE;
constexpr DWORD LATER_LENGTH = 2;

} // namespace

DWORD CDAKVorn::DAKGetFolderContent(const WCHAR* lpPathName,
                                    CArray<_tagFileInfo, _tagFileInfo>* pFileList) {
    return RunOperation(OperationFrame::Common, IsText(lpPathName),
                        [&] { return CommitGetFolderContent(lpPathName, pFileList); });
}

void CDAKVorn::ClearFileList(CArray<_tagFileInfo, _tagFileInfo>* pFileList) {
    pFileList->RemoveAll();
}

int CDAKVorn::CommitGetFolderContent(const WCHAR* lpPathName,
                                     CArray<_tagFileInfo, _tagFileInfo>* pFileList) {
    m_dwRecvPackages = 0;
    CExchange exchange(*this, DAK_FUNC_GET_FOLDER_CONTENT, CExchange::TextBytes(lpPathName),
                       HEAD_BYTES);
    if (!exchange.IsAllocated()) {
        return 0;
    }
    exchange.PutText(lpPathName);
    DrainPipe(1, 0);
    if (!exchange.SendCommand() || !exchange.AwaitAnswer()) {
        return 0;
    }
    CFolderReader reader(*this);
    return reader.Take(exchange.Head(), exchange.FieldAt(COUNT_OFFSET), *pFileList) ? 1 : 0;
}

bool CFolderReader::Take(const DAKHEADER& head, DWORD dwEntries,
                         CArray<_tagFileInfo, _tagFileInfo>& fileList) {
    const DWORD packageLength = head.packageLength;
    m_bLast = head.wCommand == DAK_LAST_REPLY;
    if (packageLength < FIRST_LENGTH || packageLength > DAK_MAXPACKAGELENGTH ||
        !m_package.Allocate(DAK_MAXPACKAGELENGTH)) {
        return false;
    }
    if (packageLength == FIRST_LENGTH) {
        return true;
    }
    // A read that fails gives an empty package, which the first field meets.
    m_owner.ReadUSBData(m_package.Get(), packageLength - FIRST_LENGTH, &m_dwFill, 0);
    ++m_owner.m_dwRecvPackages;
    for (DWORD i = 0; i < dwEntries; ++i) {
        _tagFileInfo info{};
        if (!TakeEntry(info) || fileList.Add(info) < 0) {
            return false;
        }
    }
    return true;
}

// The wire's order differs from the record's: the attributes come ahead of the texts, the last
// write ahead of the last access.
bool CFolderReader::TakeEntry(_tagFileInfo& info) {
    return TakeBytes(&info.dwFileAttributes, sizeof(info.dwFileAttributes)) &&
           TakeText(info.szText1) && TakeText(info.szText2) && TakeText(info.szText3) &&
           TakeBytes(&info.ftCreationTime, sizeof(info.ftCreationTime)) &&
           TakeBytes(&info.ftLastWriteTime, sizeof(info.ftLastWriteTime)) &&
           TakeBytes(&info.ftLastAccessTime, sizeof(info.ftLastAccessTime)) &&
           TakeBytes(&info.nFileSizeHigh, sizeof(info.nFileSizeHigh)) &&
           TakeBytes(&info.nFileSizeLow, sizeof(info.nFileSizeLow));
}

bool CFolderReader::TakeBytes(void* lpField, DWORD dwBytes) {
    auto* lpTarget = static_cast<BYTE*>(lpField);
    while (dwBytes > m_dwFill - m_dwCursor) {
        const DWORD dwRest = m_dwFill - m_dwCursor;
        std::memcpy(lpTarget, m_package.Get() + m_dwCursor, dwRest);
        lpTarget += dwRest;
        dwBytes -= dwRest;
        if (!FetchPackage()) {
            return false;
        }
    }
    std::memcpy(lpTarget, m_package.Get() + m_dwCursor, dwBytes);
    m_dwCursor += dwBytes;
    return true;
}

bool CFolderReader::TakeText(WCHAR* lpszField, DWORD dwChars) {
    for (DWORD i = 0; i < dwChars; ++i) {
        if (!TakeBytes(&lpszField[i], sizeof(WCHAR))) {
            return false;
        }
        if (lpszField[i] == 0) {
            return true;
        }
    }
    return false;
}

// The next package of the reply. It must bring bytes: an empty one would let the device hold the
// host for ever.
bool CFolderReader::FetchPackage() {
    BYTE bytes[DAK_HEADER_SIZE] = {};
    DWORD dwCount = 0;
    if (!m_owner.ReadUSBData(bytes, sizeof(bytes), &dwCount, 0)) {
        return false;
    }
    const DAKHEADER header = DakGetHeader(bytes);
    m_bLast = m_bLast || header.wCommand == DAK_LAST_REPLY;
    if ((header.wCommand != DAK_LAST_REPLY && header.wCommand != DAK_REPLY_PACKAGE) ||
        header.packageLength < LATER_LENGTH || header.packageLength > DAK_MAXPACKAGELENGTH ||
        !m_owner.ReadUSBData(m_package.Get(), header.packageLength, &m_dwFill, 0)) {
        return false;
    }
    ++m_owner.m_dwRecvPackages;
    if ((m_bLast || m_owner.m_dwRecvPackages % m_owner.m_dwWindowPackages == 0) &&
        !m_owner.WriteControl(DAK_SUCCESS)) {
        return false;
    }
    m_dwCursor = LATER_LENGTH;
    return m_dwFill > LATER_LENGTH && DakGetU16(m_package.Get()) == DAK_FUNC_GET_FOLDER_CONTENT;
}
