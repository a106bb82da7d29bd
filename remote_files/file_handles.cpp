// Files of the device by handle. The device keeps the file open and its position; the host carries
// the handle and nothing more.

#include "link/command_exchange.h"
#include "link/operation_frame.h"
#include "platform/memory.h"
#include "stream/package_cursor.h"

#include <cstring>

namespace {

constexpr DWORD NO_POSITION = 0xFFFFFFFF;
constexpr int WRITE_SUCCESS = 1;

DWORD HandleWord(const void* hFile) {
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(hFile));
}

} // namespace

DWORD CDAKVorn::DAKCreateFile(const WCHAR* lpFileName, DWORD dwOpenWord1, DWORD dwOpenWord2,
                              DWORD dwOpenWord3, void** lphFile) {
    return RunOperation(OperationFrame::Common, IsText(lpFileName) && lphFile != nullptr, [&] {
        return CommitCreateFile(lpFileName, dwOpenWord1, dwOpenWord2, dwOpenWord3, lphFile);
    });
}

DWORD CDAKVorn::DAKReadFile(void* hFile, void* lpBuffer, DWORD nBytesToRead, DWORD* lpdwBytesRead) {
    const bool bTarget = IsDeviceFileHandle(hFile) && lpdwBytesRead != nullptr;
    if (bTarget) {
        *lpdwBytesRead = 0;
        if (lpBuffer == nullptr && nBytesToRead == 0) {
            return EndAtOnce(DAKERROR_NONE);
        }
    }
    return RunOperation(OperationFrame::Stream, bTarget && lpBuffer != nullptr, [&] {
        return CommitReadFile(hFile, lpBuffer, nBytesToRead, lpdwBytesRead);
    });
}

DWORD CDAKVorn::DAKWriteFile(void* hFile, void* lpBuffer, DWORD nBytesToWrite,
                             DWORD* lpdwBytesWritten) {
    const bool bTarget = IsDeviceFileHandle(hFile) && lpdwBytesWritten != nullptr;
    if (bTarget) {
        *lpdwBytesWritten = 0;
        if (lpBuffer == nullptr && nBytesToWrite == 0) {
            return EndAtOnce(DAKERROR_NONE);
        }
    }
    return RunOperation(OperationFrame::Stream, bTarget && lpBuffer != nullptr, [&] {
        return CommitWriteFile(hFile, lpBuffer, nBytesToWrite, lpdwBytesWritten);
    });
}

DWORD CDAKVorn::DAKSetFilePointer(void* hFile, LONG lDistance, DWORD dwMoveMethod,
                                  DWORD* lpdwNewPos) {
    if (lpdwNewPos != nullptr) {
        *lpdwNewPos = NO_POSITION;
    }
    const bool bPass = IsDeviceFileHandle(hFile) && lpdwNewPos != nullptr;
    return RunOperation(OperationFrame::Common, bPass, [&] {
        return CommitSetFilePointer(hFile, lDistance, dwMoveMethod, lpdwNewPos);
    });
}

DWORD CDAKVorn::DAKCloseFile(void* hFile) {
    return RunOperation(OperationFrame::Common, IsDeviceFileHandle(hFile),
                        [&] { return CommitCloseFile(hFile); });
}

int CDAKVorn::CommitCreateFile(const WCHAR* lpFileName, DWORD dwOpenWord1, DWORD dwOpenWord2,
                               DWORD dwOpenWord3, void** lphFile) {
    CExchange exchange(*this, DAK_FUNC_CREATE_FILE,
                       CExchange::TextBytes(lpFileName) + 3 * sizeof(DWORD));
    exchange.PutText(lpFileName);
    exchange.PutU32(dwOpenWord1);
    exchange.PutU32(dwOpenWord2);
    exchange.PutU32(dwOpenWord3);
    if (!exchange.SendCommand() || !exchange.AwaitResponse()) {
        return 0;
    }
    *lphFile =
        reinterpret_cast<void*>(static_cast<std::uintptr_t>(exchange.FieldAt(DAK_RESPONSE_FIELDS)));
    return exchange.Result();
}

// The count N that the device announces ends the loop, not the end of the stream. What was
// delivered before a break counts as a short read.
int CDAKVorn::CommitReadFile(void* hFile, void* lpBuffer, DWORD nBytesToRead,
                             DWORD* lpdwBytesRead) {
    {
        CExchange exchange(*this, DAK_FUNC_READ_FILE, 2 * sizeof(DWORD));
        exchange.PutU32(HandleWord(hFile));
        exchange.PutU32(nBytesToRead);
        if (!exchange.SendCommand()) {
            return 0;
        }
    }
    const platform::CLocalBuffer package(DAK_PACKAGE_SIZE);
    if (!package) {
        return 0;
    }
    m_nResendCount = 0;
    m_dwRecvPackages = 0;
    DWORD dwOffset = 0;
    DWORD dwPackageBytes = 0;
    int bEnd = 0;
    BYTE count[4];
    if (!GetBuffData(package.Get(), count, sizeof(count), dwOffset, dwPackageBytes, bEnd,
                     DAK_FUNC_READ_FILE)) {
        return 0;
    }
    DWORD dwLeft = DakGetU32(count);
    if (dwLeft > nBytesToRead) {
        // More than was asked for has no place to go.
        if (bEnd == 0) {
            WriteControl(DAK_ABORT);
        }
        StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
        return 0;
    }
    auto* lpTarget = static_cast<BYTE*>(lpBuffer);
    DWORD dwTaken = 0;
    DWORD dwRest = PackageRest(dwOffset, dwPackageBytes);
    bool bBroken = false;
    while (dwLeft > dwRest && !bBroken) {
        std::memcpy(lpTarget, package.Get() + dwOffset, dwRest);
        lpTarget += dwRest;
        dwLeft -= dwRest;
        dwTaken += dwRest;
        *lpdwBytesRead = dwTaken;
        bBroken = !FetchPackage(package.Get(), dwPackageBytes, bEnd, DAK_FUNC_READ_FILE);
        dwOffset = DAK_DATA_OFFSET;
        dwRest = PackageRest(dwOffset, dwPackageBytes);
        if (!bBroken && dwRest == 0 && LoadShared(m_bCopying) != 0) {
            // A device that goes on without sending bytes would hold the caller for ever.
            StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
            if (bEnd == 0) {
                WriteControl(DAK_ABORT);
            }
            bBroken = true;
        }
    }
    if (!bBroken) {
        std::memcpy(lpTarget, package.Get() + dwOffset, dwLeft);
        dwTaken += dwLeft;
        *lpdwBytesRead = dwTaken;
    }
    return dwTaken > 0 ? 1 : 0;
}

int CDAKVorn::CommitWriteFile(void* hFile, void* lpBuffer, DWORD nBytesToWrite,
                              DWORD* lpdwBytesWritten) {
    if (m_lpResendBuf == nullptr) {
        return 0;
    }
    CExchange exchange(*this, DAK_FUNC_WRITE_FILE, 2 * sizeof(DWORD));
    exchange.PutU32(HandleWord(hFile));
    exchange.PutU32(nBytesToWrite);
    if (!exchange.SendCommand()) {
        if (exchange.IsAllocated() &&
            (!exchange.WasWritten() || (!exchange.WasAnswered() && !IsDeviceAvailable()))) {
            StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        }
        return 0;
    }
    if (!SendFileBytes(static_cast<const BYTE*>(lpBuffer), nBytesToWrite, lpdwBytesWritten) ||
        !exchange.AwaitResponse()) {
        return 0;
    }
    switch (exchange.Result()) {
    case WRITE_SUCCESS:
        return WRITE_SUCCESS;
    case DAK_RESULT_NO_SPACE:
        StoreShared(m_dwErrCode, DAKERROR_NO_SPACE);
        return 0;
    case DAK_RESULT_REFUSED:
        StoreShared(m_dwErrCode, DAKERROR_DEVICE_REFUSED);
        return 0;
    default:
        return 0;
    }
}

// The stream of a write: the file's bytes alone. *lpdwBytesWritten counts what went into packages
// that were sent, the final one only when it was confirmed.
int CDAKVorn::SendFileBytes(const BYTE* lpBytes, DWORD dwLeft, DWORD* lpdwBytesWritten) {
    const platform::CLocalBuffer package(DAK_PACKAGE_SIZE);
    if (!package) {
        return 0;
    }
    DakPutHeader(package.Get(), DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    DakPutU16(package.Get() + DAK_OFFSET_DATA_CODE, DAK_FUNC_WRITE_FILE);
    DWORD dwCursor = DAK_DATA_OFFSET;
    m_dwSentPackages = 1;
    m_nResendCount = 0;
    m_dwLastPackageSize = 0;
    DWORD dwSent = 0;
    while (dwLeft > DAK_PACKAGE_SIZE - dwCursor) {
        const DWORD dwRoom = DAK_PACKAGE_SIZE - dwCursor;
        if (!AddBuffData(package.Get(), lpBytes, dwRoom, dwCursor, DAK_PACKAGE_SIZE,
                         DAK_FUNC_WRITE_FILE)) {
            StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
            return 0;
        }
        lpBytes += dwRoom;
        dwLeft -= dwRoom;
        dwSent += dwRoom;
        *lpdwBytesWritten = dwSent;
    }
    if (dwLeft != 0) {
        std::memcpy(package.Get() + dwCursor, lpBytes, dwLeft);
        dwCursor += dwLeft;
    }
    DakPutHeader(package.Get(), DAK_LAST_PACKAGE, dwCursor - DAK_HEADER_SIZE);
    if (!SendDataPackage(package.Get(), dwCursor, 1)) {
        return 0;
    }
    *lpdwBytesWritten = dwSent + dwLeft;
    return 1;
}

int CDAKVorn::CommitSetFilePointer(void* hFile, LONG lDistance, DWORD dwMoveMethod,
                                   DWORD* lpdwNewPos) {
    CExchange exchange(*this, DAK_FUNC_SET_FILE_POINTER, 3 * sizeof(DWORD));
    exchange.PutU32(HandleWord(hFile));
    exchange.PutU32(static_cast<DWORD>(lDistance));
    exchange.PutU32(dwMoveMethod);
    *lpdwNewPos = exchange.SendCommand() && exchange.AwaitResponse()
                      ? static_cast<DWORD>(exchange.Result())
                      : NO_POSITION;
    return *lpdwNewPos != NO_POSITION ? 1 : 0;
}

int CDAKVorn::CommitCloseFile(void* hFile) {
    CExchange exchange(*this, DAK_FUNC_CLOSE_FILE, sizeof(DWORD));
    exchange.PutU32(HandleWord(hFile));
    return exchange.Run();
}
