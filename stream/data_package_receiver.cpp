// The host's end of a stream from the device: each package is read in two steps, tested, asked for
// again when it is bad, and acknowledged at the end of its window.

#include "link/command_exchange.h"
#include "link/dak_vorn.h"
#include "link/shared_word.h"
#include "platform/memory.h"
#include "platform/thread.h"
#include "stream/package_cursor.h"

#include <cstring>

namespace {

constexpr DWORD HEAD_BYTES = DAK_DATA_OFFSET; // header, checksum and codeFunc, read by themselves
constexpr DWORD MIN_LENGTH = HEAD_BYTES - DAK_HEADER_SIZE;
constexpr DWORD DRAIN_TIMEOUT_MS = 3000;
constexpr int RETRANSMIT_TRIES = 11;

bool IsLengthInRange(DWORD packageLength) {
    return packageLength >= MIN_LENGTH && packageLength <= DAK_MAXPACKAGELENGTH;
}

} // namespace

bool IsSoundDataPackage(const BYTE* lpBuffer, WORD codeFunc) {
    const DAKHEADER header = DakGetHeader(lpBuffer);
    return (header.wCommand == DAK_REPLY_PACKAGE || header.wCommand == DAK_LAST_REPLY) &&
           IsLengthInRange(header.packageLength) &&
           DakGetU16(lpBuffer + DAK_OFFSET_DATA_CODE) == codeFunc &&
           DakGetU32(lpBuffer + DAK_OFFSET_CHECKSUM) ==
               DakChecksum(lpBuffer, DAK_HEADER_SIZE + header.packageLength);
}

int CDAKVorn::ReceiveDataPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd, WORD codeFunc) {
    if (LoadShared(m_dwErrCode) == DAKERROR_NO_SPACE) {
        return DrainAndAbort();
    }
    if (!ReadFirstPackage(lpBuffer)) {
        return FailByPresence();
    }
    // Once the caller has cut the stream short, a bad package is delivered as it is: nothing will
    // be made of it, and the next acknowledgement tells the device.
    for (int nBad = 0; !IsSoundDataPackage(lpBuffer, codeFunc) && LoadShared(m_bCopying) != 0;
         ++nBad) {
        if (DakGetHeader(lpBuffer).wCommand == DAK_DISCONNECT) {
            StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
            return 0;
        }
        if (nBad == RETRANSMIT_TRIES) {
            StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
            return 0;
        }
        if (!RecoverPackage(lpBuffer)) {
            return 0;
        }
    }
    return AcceptPackage(lpBuffer, dwPackageBytes, bEnd);
}

// The owner has no room for the data: empties the pipe and stops the stream.
int CDAKVorn::DrainAndAbort() {
    DrainWindow(DRAIN_TIMEOUT_MS);
    WriteControl(DAK_ABORT);
    return 0;
}

int CDAKVorn::FailByPresence() {
    StoreShared(m_dwErrCode, IsDeviceAvailable() ? DAKERROR_PROTOCOL : DAKERROR_NO_DEVICE);
    return 0;
}

// The head and the body of the next package. 0 when there is no whole package; one whose length is
// out of range comes without a body and is left for the test to refuse.
int CDAKVorn::ReadFirstPackage(BYTE* lpBuffer) {
    const DWORD dwHead = CExchange::FirstReadWait(
        *this, {lpBuffer, HEAD_BYTES, DAK_PACKAGE_SIZE, DevicePause::None, nullptr, true});
    const DWORD packageLength = DakGetHeader(lpBuffer).packageLength;
    if (dwHead == 0 || packageLength == 0) {
        return 0;
    }
    if (!IsLengthInRange(packageLength)) {
        return 1;
    }
    const DWORD dwBody = packageLength - MIN_LENGTH;
    DWORD dwCount = 0;
    return ReadUSBData(lpBuffer + HEAD_BYTES, dwBody, &dwCount, 0) && dwCount == dwBody ? 1 : 0;
}

// Asks the device to send again and reads what takes the bad package's place. 0 with m_dwErrCode
// set when the stream has failed.
int CDAKVorn::RecoverPackage(BYTE* lpBuffer) {
    if (!WriteControl(DAK_RETRANSMIT)) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        return 0;
    }
    PauseForDevice(m_hDevice, DevicePause::WindowToBeRepeated, static_cast<DWORD>(m_dwRetryBase));
    for (int i = 0; i < m_nResendCount; ++i) {
        if (!SkipRepeatedPackage(lpBuffer)) {
            return 0;
        }
    }
    bool bHead = false;
    if (!ReadHeadWhilePresent(lpBuffer, bHead)) {
        return 0;
    }
    const DWORD packageLength = DakGetHeader(lpBuffer).packageLength;
    if (bHead && IsLengthInRange(packageLength)) {
        // A short body shows in the checksum.
        DWORD dwCount = 0;
        ReadUSBData(lpBuffer + HEAD_BYTES, packageLength - MIN_LENGTH, &dwCount, 0);
    }
    return 1;
}

// Reads and drops one of the packages that the device repeats ahead of the one that was bad. One
// that never comes is passed over.
int CDAKVorn::SkipRepeatedPackage(BYTE* lpBuffer) {
    bool bHead = false;
    if (!ReadHeadWhilePresent(lpBuffer, bHead)) {
        return 0;
    }
    const DWORD packageLength = DakGetHeader(lpBuffer).packageLength;
    if (!bHead || packageLength == 0) {
        return 1;
    }
    if (!IsLengthInRange(packageLength)) {
        StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
        return 0;
    }
    DWORD dwCount = 0;
    if (!ReadUSBData(lpBuffer + HEAD_BYTES, packageLength - MIN_LENGTH, &dwCount, 0)) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        return 0;
    }
    return 1;
}

// The wait for a head inside a recovery: it asks for the device ahead of each read, and a cancel
// does not end it. 0 when the device has gone; otherwise bHead tells whether a head came, and the
// buffer holds it or is clear.
int CDAKVorn::ReadHeadWhilePresent(BYTE* lpBuffer, bool& bHead) {
    bHead = false;
    for (DWORD dwTry = 0; dwTry < FIRST_READ_TRIES && !bHead; ++dwTry) {
        if (!IsDeviceAvailable()) {
            StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
            return 0;
        }
        std::memset(lpBuffer, 0, DAK_PACKAGE_SIZE);
        DWORD dwCount = 0;
        bHead = ReadUSBData(lpBuffer, HEAD_BYTES, &dwCount, 0) != 0;
        if (!bHead) {
            platform::Sleep(FAILED_READ_PAUSE_MS);
        }
    }
    return 1;
}

int CDAKVorn::AcceptPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd) {
    const DAKHEADER header = DakGetHeader(lpBuffer);
    if (header.wCommand == DAK_LAST_REPLY) {
        bEnd = 1;
    }
    // A bad length comes here only after a cancel; it is as good as an empty package.
    dwPackageBytes =
        DAK_HEADER_SIZE + (IsLengthInRange(header.packageLength) ? header.packageLength : 0);
    ++m_dwRecvPackages;
    if (m_dwRecvPackages % m_dwWindowPackages != 0 && bEnd == 0) {
        StoreShared(m_dwErrCode, DAKERROR_NONE);
        return 1;
    }
    const bool bGoesOn = LoadShared(m_bCopying) != 0;
    if (!bGoesOn) {
        StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    }
    if (!WriteControl(bGoesOn ? DAK_SUCCESS : DAK_ABORT)) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        return 0;
    }
    PauseForDevice(m_hDevice, DevicePause::ConfirmationToBeTaken);
    if (LoadShared(m_bCopying) != 0) {
        StoreShared(m_dwErrCode, DAKERROR_NONE);
        return 1;
    }
    return bGoesOn ? 1 : 0;
}

int CDAKVorn::WriteControl(DWORD wCommand) {
    BYTE package[DAK_HEADER_SIZE];
    DakPutHeader(package, wCommand, 0);
    DWORD dwCount = 0;
    return WriteUSBData(package, sizeof(package), &dwCount);
}
