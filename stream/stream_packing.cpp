// Fields of any size laid over the data areas of consecutive packages. A field may be cut anywhere,
// also between the two bytes of a character; it crosses one package end at most.

#include "link/dak_vorn.h"
#include "link/debug_trace.h"
#include "link/shared_word.h"
#include "stream/package_cursor.h"

#include <algorithm>
#include <cstring>

namespace {

// The size of a text with its terminator, or 0 when no terminator stands within nMaxChars.
DWORD TextBytes(const WCHAR* lpszText, int nMaxChars) {
    for (int i = 0; i < nMaxChars; ++i) {
        if (lpszText[i] == 0) {
            return static_cast<DWORD>(i + 1) * 2;
        }
    }
    return 0;
}

} // namespace

int CDAKVorn::AddBuffData(BYTE* lpBuffer, const BYTE* lpData, DWORD nDataBytes,
                          DWORD& packageLength, DWORD nBufferSize, WORD codeFunc) {
    if (lpBuffer == nullptr) {
        TraceLine("AddBuffData lpBuffer==NULL\n");
        return 0;
    }
    if (lpData == nullptr) {
        TraceLine("AddBuffData lpData==NULL\n");
        return 0;
    }
    if (nDataBytes == 0) {
        TraceLine("AddBuffData nDataBytes==0\n");
        return 0;
    }
    if (nBufferSize < DAK_PACKAGE_SIZE) {
        TraceLine("AddBuffData nBufferSize<(sizeof(DAKHEADER)+DAK_MAXPACKAGELENGTH)\n");
        return 0;
    }
    if (packageLength < nBufferSize && nDataBytes < nBufferSize - packageLength) {
        std::memcpy(lpBuffer + packageLength, lpData, nDataBytes);
        packageLength += nDataBytes;
        return 1;
    }
    // Behind the package end a field has the data area of one package, and buffers are packages.
    const DWORD dwRoom = PackageRest(packageLength, nBufferSize);
    const DWORD dwRest = nDataBytes - dwRoom;
    if (nBufferSize > DAK_PACKAGE_SIZE || dwRest > DAK_DATA_SIZE) {
        return 0;
    }
    std::memcpy(lpBuffer + packageLength, lpData, dwRoom);
    if (!SendDataPackage(lpBuffer, nBufferSize, 0)) {
        TraceLine("AddBuffData !SendDataPackage\n");
        return 0;
    }
    std::memset(lpBuffer, 0, DAK_PACKAGE_SIZE);
    DakPutHeader(lpBuffer, DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    DakPutU16(lpBuffer + DAK_OFFSET_DATA_CODE, codeFunc);
    std::memcpy(lpBuffer + DAK_DATA_OFFSET, lpData + dwRoom, dwRest);
    packageLength = DAK_DATA_OFFSET + dwRest;
    return 1;
}

int CDAKVorn::GetBuffData(BYTE* lpBuffer, BYTE* lpData, DWORD nDataBytes, DWORD& dwOffset,
                          DWORD& dwPackageBytes, int& bEnd, WORD codeFunc) {
    const DWORD dwLeft = PackageRest(dwOffset, dwPackageBytes);
    if (nDataBytes <= dwLeft) {
        std::memcpy(lpData, lpBuffer + dwOffset, nDataBytes);
        dwOffset += nDataBytes;
        return 1;
    }
    std::memcpy(lpData, lpBuffer + dwOffset, dwLeft);
    if (!FetchPackage(lpBuffer, dwPackageBytes, bEnd, codeFunc)) {
        return 0;
    }
    const DWORD dwRest = nDataBytes - dwLeft;
    if (dwRest > PackageRest(DAK_DATA_OFFSET, dwPackageBytes)) {
        return FieldOverrunsPackage(bEnd);
    }
    std::memcpy(lpData + dwLeft, lpBuffer + DAK_DATA_OFFSET, dwRest);
    dwOffset = DAK_DATA_OFFSET + dwRest;
    return 1;
}

int CDAKVorn::GetBuffString(BYTE* lpBuffer, WCHAR* lpszString, DWORD& dwOffset,
                            DWORD& dwPackageBytes, int& bEnd, int nMaxChars) {
    const DWORD dwWindow = static_cast<DWORD>(nMaxChars) * 2;
    const DWORD dwLeft = std::min(PackageRest(dwOffset, dwPackageBytes), dwWindow);
    std::memcpy(lpszString, lpBuffer + dwOffset, dwLeft);
    // Where the package cuts the text, the target's own zeroes end it here: a text that seems to
    // reach beyond what was copied goes on in the next package.
    DWORD dwTextBytes = TextBytes(lpszString, nMaxChars);
    if (dwTextBytes != 0 && dwTextBytes <= dwLeft) {
        dwOffset += dwTextBytes;
        return 1;
    }
    if (dwLeft == dwWindow) {
        return FieldOverrunsPackage(bEnd);
    }
    if (!FetchPackage(lpBuffer, dwPackageBytes, bEnd, DAK_FUNC_TRANSMIT_FILES)) {
        return 0;
    }
    // The join at byte dwLeft, odd or even, also mends a character that was cut in two.
    std::memcpy(reinterpret_cast<BYTE*>(lpszString) + dwLeft, lpBuffer + DAK_DATA_OFFSET,
                dwWindow - dwLeft);
    dwTextBytes = TextBytes(lpszString, nMaxChars);
    if (dwTextBytes == 0 || dwTextBytes - dwLeft > PackageRest(DAK_DATA_OFFSET, dwPackageBytes)) {
        return FieldOverrunsPackage(bEnd);
    }
    dwOffset = DAK_DATA_OFFSET + (dwTextBytes - dwLeft);
    return 1;
}

// The next package of the stream into lpBuffer. A bad package that was delivered only because the
// caller has cut the stream short is not passed on: nobody may take its bytes for the file's.
int CDAKVorn::FetchPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd, WORD codeFunc) {
    m_nResendCount = static_cast<int>(m_dwRecvPackages);
    if (!ReceiveDataPackage(lpBuffer, dwPackageBytes, bEnd, codeFunc)) {
        return 0;
    }
    if (LoadShared(m_bCopying) != 0 || IsSoundDataPackage(lpBuffer, codeFunc)) {
        return 1;
    }
    WriteControl(DAK_ABORT);
    StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    return 0;
}

// A package was delivered, but the field's rest is not in it: nothing behind it can be understood,
// and the device is told, unless it has sent all.
int CDAKVorn::FieldOverrunsPackage(int bEnd) {
    if (bEnd == 0) {
        DrainAndAbort();
    }
    StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
    return 0;
}
