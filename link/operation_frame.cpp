#include "link/operation_frame.h"

#include <cstdint>

bool IsDeviceFileHandle(const void* hFile) {
    const auto qwHandle = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(hFile));
    return qwHandle != 0 && qwHandle < 0xFFFFFFFF;
}

// The link's part of a frame. On failure m_dwErrCode and the result say why, and nothing is open.
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

// For arguments that ask for nothing: success without a link.
DWORD CDAKVorn::SucceedAtOnce() {
    const COperationGateHold gate;
    StoreShared(m_dwErrCode, DAKERROR_NONE);
    return DAKERROR_NONE;
}
