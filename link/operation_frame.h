// The frame that every operation shares: test the arguments, bring the link up, take the lock, do
// the exchange, release, take the link down.
#pragma once

#include "link/dak_vorn.h"
#include "link/device_connection.h"
#include "link/shared_word.h"

enum class OperationFrame : int {
    Common,
    Availability, // a failed exchange whose device is gone gives DAKERROR_NO_DEVICE
    Stream,       // holds m_bCopying for the exchange, so that TerminateTransfer reaches it
    Status,       // returns m_dwErrCode; refused arguments give DAKERROR_FOLDER_SPACE
};

// Whether a string argument is neither null nor empty.
inline bool IsText(const WCHAR* lpszText) {
    return lpszText != nullptr && *lpszText != 0;
}

// Whether a device file handle is one: neither 0 nor all ones, of the pointer or of the 32-bit
// value that goes to the device, and within 32 bits.
bool IsDeviceFileHandle(const void* hFile);

// Runs commit, which returns the exchange's result word or 0, inside the frame. bArgumentsPass is
// the outcome of the operation's own tests.
template <class TCommit>
DWORD CDAKVorn::RunOperation(OperationFrame eFrame, bool bArgumentsPass, TCommit&& commit) {
    if (!bArgumentsPass) {
        return EndAtOnce(eFrame == OperationFrame::Status ? DAKERROR_FOLDER_SPACE : DAKERROR_FAIL);
    }
    const COperationGateHold gate(this);
    if (!gate.Holds()) {
        return EndAtOnce(DAKERROR_BUSY);
    }
    StoreShared(m_dwErrCode, DAKERROR_FAIL);
    const DWORD dwLink = BringLinkUp();
    if (dwLink != DAKERROR_NONE) {
        return dwLink;
    }
    if (eFrame == OperationFrame::Stream) {
        StoreShared(m_bCopying, BOOL{1});
    }
    const bool bDone = commit() != 0;
    return LeaveOperation(eFrame, bDone);
}
