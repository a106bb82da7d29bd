// The pipe: every single transfer runs on a thread of its own, and the caller waits for it with a
// time-out, so that a device that stops answering can hold nobody for good.

#include "link/dak_vorn.h"
#include "link/debug_trace.h"
#include "link/pacing.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/thread.h"

namespace {

// Two full windows of a stream, 8 bytes at a time.
constexpr int DRAIN_READS_AT_MOST = static_cast<int>(2 * DAK_WINDOW_SIZE / DAK_HEADER_SIZE);

DWORD DefaultTimeoutMs(DWORD dwSize) {
    constexpr DWORD dwBaseMs = 500;
    return dwSize < INFINITE - dwBaseMs ? dwSize + dwBaseMs : INFINITE - 1;
}

// Waits for the worker and stops it at the time-out. On return the worker has ended: the count is
// final, also where the transfer completed just before it could be stopped.
void AwaitTransfer(HANDLE hThread, DWORD dwTimeoutMs, const char* lpszTimeoutLine) {
    if (platform::WaitForSingleObject(hThread, dwTimeoutMs) != WAIT_OBJECT_0) {
        TraceLine(lpszTimeoutLine);
        platform::TerminateThread(hThread, 0);
    }
    platform::CloseHandle(hThread);
}

int TraceWord(const void* lpPointer) {
    return static_cast<int>(reinterpret_cast<std::uintptr_t>(lpPointer));
}

} // namespace

int CDAKVorn::ReadUSBData(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount, DWORD dwTimeout) {
    *lpdwCount = 0;
    if (dwSize == 0) {
        return 1;
    }
    m_lpReadBuf = lpBuffer;
    m_dwSizeIn = dwSize;
    m_lpdwSizeOut = lpdwCount;
    PauseForDevice(m_hDevice, DevicePause::ReadToBeReady);
    const HANDLE hThread =
        platform::CreateThread(nullptr, 0, &CDAKVorn::ReadUSBThread, this, 0, nullptr);
    if (hThread == nullptr) {
        TraceLine("Fail to ReadUSBThread CreateThread\n");
    } else {
        TraceLine("Succeed to ReadUSBThread CreateThread\n");
        AwaitTransfer(hThread, dwTimeout != 0 ? dwTimeout : DefaultTimeoutMs(dwSize),
                      "ReadUSBData TerminateThread\n");
    }
    return *lpdwCount > 0 ? 1 : 0;
}

int CDAKVorn::WriteUSBData(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    *lpdwCount = 0;
    if (dwSize == 0) {
        return 1;
    }
    m_lpWriteBuf = lpBuffer;
    m_dwSizeIn = dwSize;
    m_lpdwSizeOut = lpdwCount;
    const HANDLE hThread =
        platform::CreateThread(nullptr, 0, &CDAKVorn::WriteUSBThread, this, 0, nullptr);
    if (hThread == nullptr) {
        TraceLine("Fail to WriteUSBData CreateThread\n");
    } else {
        TraceLine("Succeed to WriteUSBData CreateThread\n");
        AwaitTransfer(hThread, DefaultTimeoutMs(dwSize), "WriteUSBData TerminateThread\n");
    }
    return *lpdwCount > 0 ? 1 : 0;
}

DWORD WINAPI CDAKVorn::ReadUSBThread(void* lpParam) {
    auto* usbApi = static_cast<CDAKVorn*>(lpParam);
    if (usbApi == nullptr) {
        return 0;
    }
    TraceLine("ReadUSBThread usbApi->m_lpReadBuf = %d,usbApi->m_dwSizeIn=%d\n",
              TraceWord(usbApi->m_lpReadBuf), static_cast<int>(usbApi->m_dwSizeIn));
    if (platform::ReadFile(usbApi->m_hDevice, usbApi->m_lpReadBuf, usbApi->m_dwSizeIn,
                           usbApi->m_lpdwSizeOut) != FALSE) {
        TraceLine("Succeed read. read size = %d\n", static_cast<int>(*usbApi->m_lpdwSizeOut));
        return 1;
    }
    const DWORD dwError = platform::GetLastError();
    TraceLine("ReadUSBThread return 0;\n");
    TraceLine("error = %d, usbApi->m_lpdwSizeOut=%d \n", static_cast<int>(dwError),
              TraceWord(usbApi->m_lpdwSizeOut));
    return 0;
}

DWORD WINAPI CDAKVorn::WriteUSBThread(void* lpParam) {
    auto* usbApi = static_cast<CDAKVorn*>(lpParam);
    if (usbApi == nullptr) {
        return 0;
    }
    TraceLine("WriteUSBThread usbApi->m_lpWriteBuf = %d,usbApi->m_dwSizeIn=%d\n",
              TraceWord(usbApi->m_lpWriteBuf), static_cast<int>(usbApi->m_dwSizeIn));
    if (platform::WriteFile(usbApi->m_hDevice, usbApi->m_lpWriteBuf, usbApi->m_dwSizeIn,
                            usbApi->m_lpdwSizeOut) != FALSE) {
        TraceLine("Succeed write. write size = %d\n", static_cast<int>(*usbApi->m_lpdwSizeOut));
        return 1;
    }
    const DWORD dwError = platform::GetLastError();
    TraceLine("WriteUSBThread return 0;\n");
    TraceLine("error = %d, usbApi->m_lpdwSizeOut= %d\n", static_cast<int>(dwError),
              TraceWord(usbApi->m_lpdwSizeOut));
    return 0;
}

// Reads and drops up to a window of what a stream has in the pipe, in one read; a prompt device
// drops it by itself.
void CDAKVorn::DrainWindow(DWORD dwTimeoutMs) {
    if (!IsPaced(m_hDevice)) {
        return;
    }
    const platform::CLocalBuffer window(DAK_WINDOW_SIZE);
    if (window) {
        DWORD dwCount = 0;
        ReadUSBData(window.Get(), DAK_WINDOW_SIZE, &dwCount, dwTimeoutMs);
    }
}

// Reads 8 bytes at a time until a read brings nothing and at least nReadsAtLeast reads have been
// made, with a pause behind each such read but the last, and drops what came. A device that never
// stops sending is left alone after a while, and a prompt one drops by itself what is left over.
void CDAKVorn::DrainPipe(int nReadsAtLeast, DWORD dwPauseMs) {
    if (!IsPaced(m_hDevice)) {
        return;
    }
    BYTE bytes[DAK_HEADER_SIZE];
    for (int nReads = 1; nReads <= DRAIN_READS_AT_MOST; ++nReads) {
        DWORD dwCount = 0;
        if (ReadUSBData(bytes, sizeof(bytes), &dwCount, 0)) {
            continue;
        }
        if (nReads >= nReadsAtLeast) {
            return;
        }
        platform::Sleep(dwPauseMs);
    }
}
