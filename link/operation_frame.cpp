#include "link/operation_frame.h"

#include <cstdint>

bool IsDeviceFileHandle(const void* hFile) {
    const auto qwHandle = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(hFile));
    const auto dwHandle = static_cast<DWORD>(qwHandle);
    // An application may have widened the 32 bits with their sign.
    const bool bFits =
        qwHandle == dwHandle ||
        qwHandle == static_cast<std::uint64_t>(std::int64_t{static_cast<LONG>(dwHandle)});
    return bFits && dwHandle != 0 && dwHandle != 0xFFFFFFFF;
}

// The link's part of a frame: on success it is up, and its lock is held. On failure m_dwErrCode and
// the result say why, and nothing is open.
DWORD CDAKVorn::BringLinkUp() {
    if (!Initial()) {
        StoreShared(m_dwErrCode, DAKERROR_BUSY);
        return DAKERROR_BUSY;
    }
    if (!IsDeviceConnected()) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        DeInitial();
        return DAKERROR_NO_DEVICE;
    }
    if (!TakeDeviceLock()) {
        StoreShared(m_dwErrCode, DAKERROR_BUSY);
        DeInitial();
        return DAKERROR_BUSY;
    }
    return DAKERROR_NONE;
}

// The frame's end, behind the exchange.
DWORD CDAKVorn::LeaveOperation(OperationFrame eFrame, bool bDone) {
    DWORD dwResult = DAKERROR_FAIL;
    if (bDone) {
        StoreShared(m_dwErrCode, DAKERROR_NONE);
        dwResult = DAKERROR_NONE;
    } else if (eFrame == OperationFrame::Availability && !IsDeviceAvailable()) {
        StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        dwResult = DAKERROR_NO_DEVICE;
    }
    if (eFrame == OperationFrame::Status) {
        dwResult = LoadShared(m_dwErrCode);
    }
    ReleaseDeviceLock();
    if (eFrame == OperationFrame::Stream) {
        StoreShared(m_bCopying, BOOL{0});
    }
    DeInitial();
    return dwResult;
}

// An operation that needs no link has its result. During a job of the object, m_dwErrCode is the
// state of the job's stream and stays.
DWORD CDAKVorn::EndAtOnce(DWORD dwErrCode) {
    if (!g_OperationGate.IsJobOwner(this)) {
        StoreShared(m_dwErrCode, dwErrCode);
    }
    return dwErrCode;
}
