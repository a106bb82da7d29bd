// Programs, kernel I/O controls and window messages of the device. The arguments pass through; what
// they mean is between the application and the device.

#include "link/command_exchange.h"
#include "link/operation_frame.h"

namespace {

const WCHAR EMPTY_TEXT[1] = {0};

constexpr DWORD MAX_IO_CONTROL_BYTES = 1U << 20;

} // namespace

DWORD CDAKVorn::DAKCreateProcess(const WCHAR* lpszImage, const WCHAR* lpszCommandLine,
                                 DWORD* lpdwResult) {
    const WCHAR* lpszLine = lpszCommandLine != nullptr ? lpszCommandLine : EMPTY_TEXT;
    return RunOperation(OperationFrame::Availability, IsText(lpszImage),
                        [&] { return CommitCreateProcess(lpszImage, lpszLine, lpdwResult); });
}

DWORD CDAKVorn::DAKKernelIoControl(DWORD dwIoControlCode, void* lpIn, DWORD nInSize, void* lpOut,
                                   DWORD nOutSize, DWORD* lpdwBytesReturned) {
    const bool bFits =
        nInSize <= MAX_IO_CONTROL_BYTES && nOutSize <= MAX_IO_CONTROL_BYTES &&
        nInSize + nOutSize + DAK_COMMAND_PAYLOAD_OFFSET + 3 * sizeof(DWORD) <= MAX_IO_CONTROL_BYTES;
    const bool bPass = dwIoControlCode != 0 && bFits && (lpIn != nullptr || nInSize == 0);
    return RunOperation(OperationFrame::Common, bPass, [&] {
        return CommitKernelIoControl(dwIoControlCode, lpIn, nInSize, lpOut, nOutSize,
                                     lpdwBytesReturned);
    });
}

DWORD CDAKVorn::DAKRegisterWindowMessage(const WCHAR* lpszMessage, DWORD* lpdwMessage) {
    const bool bPass = IsText(lpszMessage) && lpdwMessage != nullptr;
    if (bPass) {
        *lpdwMessage = 0;
    }
    return RunOperation(OperationFrame::Common, bPass,
                        [&] { return CommitRegisterWindowMessage(lpszMessage, lpdwMessage); });
}

DWORD CDAKVorn::DAKBroadCastMessage(UINT uMessage, UINT wParam, LONG lParam) {
    return RunOperation(OperationFrame::Common, uMessage != 0,
                        [&] { return CommitBroadCastMessage(uMessage, wParam, lParam); });
}

// Only a caller with a place for the result asks the device to wait for the program's end.
int CDAKVorn::CommitCreateProcess(const WCHAR* lpszImage, const WCHAR* lpszCommandLine,
                                  DWORD* lpdwResult) {
    const bool bWait = lpdwResult != nullptr;
    CExchange exchange(*this, bWait ? *FindExchangeRow(DAK_FUNC_CREATE_PROCESS) : g_rowStartProcess,
                       CExchange::TextBytes(lpszImage) + CExchange::TextBytes(lpszCommandLine) +
                           sizeof(DWORD));
    exchange.PutText(lpszImage);
    exchange.PutText(lpszCommandLine);
    exchange.PutU32(bWait ? 1 : 0);
    if (!exchange.SendCommand() || !exchange.AwaitResponse()) {
        return 0;
    }
    if (bWait) {
        *lpdwResult = exchange.FieldAt(DAK_RESPONSE_FIELDS);
    }
    return exchange.Result();
}

int CDAKVorn::CommitKernelIoControl(DWORD dwIoControlCode, void* lpIn, DWORD nInSize, void* lpOut,
                                    DWORD nOutSize, DWORD* lpdwBytesReturned) {
    CExchange exchange(*this, DAK_FUNC_KERNEL_IO_CONTROL,
                       SIZE_T{3} * sizeof(DWORD) + nInSize + nOutSize);
    exchange.PutU32(dwIoControlCode);
    exchange.PutU32(nInSize);
    exchange.PutBytes(lpIn, nInSize);
    exchange.PutU32(nOutSize);
    if (lpOut != nullptr) {
        exchange.PutBytes(lpOut, nOutSize);
    }
    if (!exchange.SendCommand() || lpOut == nullptr || nOutSize == 0 || !exchange.AwaitResponse()) {
        return 0;
    }
    const DWORD dwOutput = exchange.FieldAt(DAK_RESPONSE_FIELDS);
    if (dwOutput > nOutSize) {
        return 0;
    }
    DWORD dwCount = 0;
    ReadUSBData(lpOut, dwOutput, &dwCount, 0);
    if (lpdwBytesReturned != nullptr) {
        *lpdwBytesReturned = dwOutput;
    }
    return exchange.Result();
}

int CDAKVorn::CommitRegisterWindowMessage(const WCHAR* lpszMessage, DWORD* lpdwMessage) {
    CExchange exchange(*this, DAK_FUNC_REGISTER_WINDOW_MESSAGE, CExchange::TextBytes(lpszMessage));
    exchange.PutText(lpszMessage);
    const int nMessage = exchange.Run();
    *lpdwMessage = static_cast<DWORD>(nMessage);
    return nMessage != 0 ? 1 : 0;
}

int CDAKVorn::CommitBroadCastMessage(UINT uMessage, UINT wParam, LONG lParam) {
    CExchange exchange(*this, DAK_FUNC_BROADCAST_MESSAGE, 3 * sizeof(DWORD));
    exchange.PutU32(uMessage);
    exchange.PutU32(wParam);
    exchange.PutU32(static_cast<DWORD>(lParam));
    return exchange.Run();
}
