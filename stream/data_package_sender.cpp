// The host's end of a stream to the device: checksums, the copy kept for a resend, the waits for
// the device's verdict, and the abort.

#include "link/command_exchange.h"
#include "link/dak_vorn.h"
#include "link/debug_trace.h"
#include "link/shared_word.h"
#include "platform/thread.h"
#include "transfer/io_buf.h"

#include <cstring>

namespace {

// Resend passes at most. The answer to the last of them no longer counts.
constexpr int COUNT_TRY = 10;
// The request that opened the stream counts as package 1, so a verdict is due behind data packages
// 1, 51, 101 and so on.
constexpr DWORD WINDOW_PHASE = 2;

} // namespace

int CDAKVorn::SendDataPackage(BYTE* lpPackage, DWORD dwBytes, int bLast) {
    DakPutU32(lpPackage + DAK_OFFSET_CHECKSUM, DakChecksum(lpPackage, dwBytes));
    KeepForResend(lpPackage);
    if (LoadShared(m_bCopying) == 0) {
        return AbortSending();
    }
    DWORD dwCount = 0;
    if (!WriteUSBData(lpPackage, dwBytes, &dwCount)) {
        g_IoBuf.DeinitIoBuf();
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        TraceLine("SendDataPackage_2!WriteUSBData return FALSE\n");
        return 0;
    }
    ++m_dwSentPackages;
    if (!bLast && m_dwSentPackages % m_dwWindowPackages != WINDOW_PHASE) {
        StoreShared(m_dwErrCode, DAKERROR_NONE);
        return 1;
    }
    StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
    return AwaitConfirmation(lpPackage, dwBytes);
}

// A stream that goes on after a failure (its owner still sends the final package) may find every
// slot in use; the latest package then takes the last slot, for the window has failed anyway.
void CDAKVorn::KeepForResend(const BYTE* lpPackage) {
    if (m_nResendCount < static_cast<int>(m_dwWindowPackages)) {
        ++m_nResendCount;
    }
    std::memcpy(m_lpResendBuf + static_cast<SIZE_T>(m_nResendCount - 1) * m_dwPackageSize,
                lpPackage, m_dwPackageSize);
    m_dwLastPackageSize = m_dwPackageSize;
}

// The caller cut the stream short: abort packages, until the device's count has reached the next
// point at which it answers.
int CDAKVorn::AbortSending() {
    TraceLine("SendDataPackage_!m_bCopying\n");
    StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    DakPutHeader(m_lpResendBuf, DAK_ABORT, 0);
    for (DWORD dwPackages = m_dwSentPackages;;) {
        DWORD dwCount = 0;
        if (!WriteUSBData(m_lpResendBuf, m_dwPackageSize, &dwCount)) {
            TraceLine("SendDataPackage_!m_bCopying_!WriteUSBData break\n");
            break;
        }
        ++dwPackages;
        if (!IsDeviceAvailable() || dwPackages % m_dwWindowPackages == WINDOW_PHASE) {
            break;
        }
    }
    g_IoBuf.DeinitIoBuf();
    TraceLine("SendDataPackage_!m_bCopying return FALSE\n");
    return 0;
}

// The device's verdict, with a resend of everything unconfirmed for each DAK_RETRANSMIT.
int CDAKVorn::AwaitConfirmation(BYTE* lpPackage, DWORD dwBytes) {
    DWORD wAnswer = AwaitAnswer(lpPackage, dwBytes, "SendDataPackage_Read return value 1\n");
    int nTry = 0;
    bool bPresent = IsDeviceAvailable() != 0;
    while (bPresent && wAnswer == DAK_RETRANSMIT && nTry < COUNT_TRY) {
        ++nTry;
        TraceLine("1nTry=%d\n", nTry);
        PauseForDevice(m_hDevice, DevicePause::DeviceToRecover,
                       static_cast<DWORD>(m_dwRetryStep * nTry + m_dwRetryBase));
        if (IsDeviceAvailable() && !ResendWindow()) {
            return 0;
        }
        wAnswer = AwaitAnswer(lpPackage, dwBytes, "Read return value 2\n");
        bPresent = IsDeviceAvailable() != 0;
    }
    return JudgeAnswer(wAnswer, nTry);
}

// The command word of the device's answer, or 0.
DWORD CDAKVorn::AwaitAnswer(BYTE* lpPackage, DWORD dwBytes, const char* lpszTrace) {
    const DWORD dwCount = CExchange::FirstReadWait(
        *this, {lpPackage, DAK_PACKAGE_SIZE, dwBytes, DevicePause::None, lpszTrace, false});
    return dwCount != 0 ? DakGetU32(lpPackage) : 0;
}

// One pass over the slots. 0 when a write failed, with m_dwErrCode saying why.
int CDAKVorn::ResendWindow() {
    for (int i = 0; i < m_nResendCount; ++i) {
        if (!ResendSlot(static_cast<DWORD>(i))) {
            return 0;
        }
        if (!IsDeviceAvailable()) {
            break;
        }
    }
    return 1;
}

// A slot, or once the caller has cut the stream short an abort package in its place.
int CDAKVorn::ResendSlot(DWORD dwSlot) {
    const bool bLastSlot = dwSlot + 1 == static_cast<DWORD>(m_nResendCount);
    const DWORD dwSize = bLastSlot ? m_dwLastPackageSize : m_dwPackageSize;
    DWORD dwCount = 0;
    if (LoadShared(m_bCopying) != 0) {
        TraceLine("rewrite 2\n");
        if (WriteUSBData(m_lpResendBuf + static_cast<SIZE_T>(dwSlot) * m_dwPackageSize, dwSize,
                         &dwCount)) {
            return 1;
        }
        TraceLine("SendDataPackage_600k_4!WriteUSBData\n");
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        return 0;
    }
    StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    DakPutHeader(m_lpResendBuf, DAK_ABORT, 0);
    TraceLine("rewrite 1\n");
    if (WriteUSBData(m_lpResendBuf, dwSize, &dwCount)) {
        return 1;
    }
    TraceLine("SendDataPackage_600k_3!WriteUSBData\n");
    StoreShared(m_dwErrCode, DAKERROR_CANCELLED);
    return 0;
}

int CDAKVorn::JudgeAnswer(DWORD wAnswer, int nTry) {
    TraceLine("2nTry=%d\n", nTry);
    if (nTry >= COUNT_TRY) {
        TraceLine("SendDataPackage_600k_nTry>=COUNT_TRY\n");
        StoreShared(m_dwErrCode, DAKERROR_PROTOCOL);
        return 0;
    }
    if (wAnswer == DAK_SUCCESS) {
        TraceLine("SendDataPackage_600k_header1.wCommand=%d\n", static_cast<int>(wAnswer));
        PauseForDevice(m_hDevice, DevicePause::WindowToBeStored, static_cast<DWORD>(m_dwRetryBase));
        std::memset(m_lpResendBuf, 0, DAK_WINDOW_SIZE);
        m_nResendCount = 0;
        m_dwLastPackageSize = 0;
        StoreShared(m_dwErrCode, DAKERROR_NONE);
        return 1;
    }
    g_IoBuf.DeinitIoBuf();
    if (!IsDeviceAvailable()) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
    }
    TraceLine("SendDataPackage_600k_bBreak\n");
    return 0;
}
