#include "link/command_exchange.h"

#include "link/debug_trace.h"
#include "link/shared_word.h"
#include "platform/thread.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr DWORD TRIES_2_MINUTES = 121;
constexpr DWORD TRIES_6_MINUTES = 361;
constexpr DWORD TRIES_20_MINUTES = 1201;
constexpr DWORD NO_BOUND = 0;

constexpr Acknowledgement SINGLE = Acknowledgement::Single;
constexpr Acknowledgement POLLED = Acknowledgement::Polled;
constexpr DevicePause NONE = DevicePause::None;

// Function code, acknowledgement, pause ahead of each of its tries, pause behind it, shape, bytes
// of the response, bound, DAK_REPLY_PACKAGE ends, further code of a right response.
constexpr _tagExchangeRow EXCHANGE_TABLE[] = {
    {DAK_FUNC_MOVE_FILE, SINGLE, NONE, NONE, AwaitShape::PolledWait, 14, TRIES_2_MINUTES, true, 0},
    {DAK_FUNC_DELETE_FILE, SINGLE, NONE, NONE, AwaitShape::UnboundedWait, 14, NO_BOUND, false, 0},
    {DAK_FUNC_GET_DEVICE_FREE_SPACE, SINGLE, NONE, NONE, AwaitShape::PolledWait, 22,
     TRIES_20_MINUTES, false, 0},
    {DAK_FUNC_GET_FOLDER_CONTENT, POLLED, DevicePause::ListingToBegin, DevicePause::ListingToBeMade,
     AwaitShape::PolledWait, 18, TRIES_2_MINUTES, true, 0},
    {DAK_FUNC_TRANSMIT_FILES, SINGLE, NONE, NONE, AwaitShape::None, 0, NO_BOUND, false, 0},
    {DAK_FUNC_CREATE_DIRECTORY, SINGLE, NONE, NONE, AwaitShape::PolledWait, 14, TRIES_20_MINUTES,
     false, 0},
    {DAK_FUNC_CREATE_PROCESS, SINGLE, NONE, NONE, AwaitShape::UnboundedWait, 18, NO_BOUND, false,
     0},
    {DAK_FUNC_KERNEL_IO_CONTROL, SINGLE, NONE, NONE, AwaitShape::PolledWait, 18, TRIES_20_MINUTES,
     false, 0},
    {DAK_FUNC_GET_FILE_INFO, SINGLE, NONE, NONE, AwaitShape::SingleRead, 1250, 1, false, 0},
    {DAK_FUNC_CREATE_FILE, SINGLE, NONE, NONE, AwaitShape::PolledWait, 18, TRIES_20_MINUTES, false,
     0},
    {DAK_FUNC_READ_FILE, POLLED, NONE, NONE, AwaitShape::None, 0, NO_BOUND, false, 0},
    {DAK_FUNC_WRITE_FILE, POLLED, NONE, NONE, AwaitShape::FirstReadWait, 14, FIRST_READ_TRIES,
     false, 0},
    {DAK_FUNC_SET_FILE_POINTER, SINGLE, NONE, NONE, AwaitShape::CompletedRead, 14, 1, false, 0},
    {DAK_FUNC_CLOSE_FILE, SINGLE, NONE, NONE, AwaitShape::CompletedRead, 14, 1, false, 0},
    {DAK_FUNC_COPY_FILE, SINGLE, NONE, NONE, AwaitShape::PolledWait, 14, TRIES_20_MINUTES, false,
     0},
    // Devices answer this one under the code of DAK_FUNC_CLOSE_FILE; the own code is taken as well.
    {DAK_FUNC_REGISTER_WINDOW_MESSAGE, SINGLE, NONE, NONE, AwaitShape::CompletedRead, 14, 1, false,
     DAK_FUNC_CLOSE_FILE},
    {DAK_FUNC_BROADCAST_MESSAGE, SINGLE, NONE, NONE, AwaitShape::CompletedRead, 14, 1, false, 0},
    {DAK_FUNC_GET_STORAGE_INFO, SINGLE, NONE, NONE, AwaitShape::UnboundedWait, 18, NO_BOUND, true,
     0},
    {DAK_FUNC_FORMAT_PARTITION, SINGLE, NONE, NONE, AwaitShape::SingleRead, 14, 1, false, 0},
    {DAK_FUNC_GET_FOLDER_FREE_SPACE, SINGLE, NONE, NONE, AwaitShape::PolledWait, 22,
     TRIES_6_MINUTES, true, 0},
};

} // namespace

const _tagExchangeRow g_rowStartProcess = {DAK_FUNC_CREATE_PROCESS,
                                           SINGLE,
                                           NONE,
                                           DevicePause::ProgramToStart,
                                           AwaitShape::SingleRead,
                                           18,
                                           1,
                                           false,
                                           0};

const _tagExchangeRow* FindExchangeRow(WORD codeFunc) {
    for (const _tagExchangeRow& row : EXCHANGE_TABLE) {
        if (row.codeFunc == codeFunc) {
            return &row;
        }
    }
    return nullptr;
}

CExchange::CExchange(CDAKVorn& owner, const _tagExchangeRow& row, SIZE_T dwPayloadBytes,
                     DWORD dwBufferMinimum)
    : m_owner(owner), m_row(row), m_dwPackageBytes(DAK_COMMAND_PAYLOAD_OFFSET + dwPayloadBytes),
      m_dwBufferBytes(std::max<SIZE_T>(m_dwPackageBytes, dwBufferMinimum)),
      m_dwCursor(DAK_COMMAND_PAYLOAD_OFFSET) {
    if (m_buffer.Allocate(m_dwBufferBytes)) {
        DakPutHeader(m_buffer.Get(), DAK_LAST_PACKAGE,
                     static_cast<DWORD>(m_dwPackageBytes - DAK_HEADER_SIZE));
        DakPutU16(m_buffer.Get() + DAK_OFFSET_CODE, row.codeFunc);
    }
}

CExchange::CExchange(CDAKVorn& owner, WORD codeFunc, SIZE_T dwPayloadBytes, DWORD dwBufferMinimum)
    : CExchange(owner, *FindExchangeRow(codeFunc), dwPayloadBytes, dwBufferMinimum) {}

void CExchange::PutByte(BYTE bValue) {
    PutBytes(&bValue, 1);
}

void CExchange::PutU32(DWORD dwValue) {
    BYTE bytes[4];
    DakPutU32(bytes, dwValue);
    PutBytes(bytes, sizeof(bytes));
}

void CExchange::PutText(const WCHAR* lpszText) {
    if (!m_buffer) {
        return;
    }
    for (;; ++lpszText) {
        DakPutU16(m_buffer.Get() + m_dwCursor, static_cast<WORD>(*lpszText));
        m_dwCursor += 2;
        if (*lpszText == 0) {
            return;
        }
    }
}

void CExchange::PutBytes(const void* lpBytes, DWORD dwBytes) {
    if (m_buffer && dwBytes != 0) {
        std::memcpy(m_buffer.Get() + m_dwCursor, lpBytes, dwBytes);
        m_dwCursor += dwBytes;
    }
}

DWORD CExchange::TextBytes(const WCHAR* lpszText) {
    DWORD dwBytes = 2;
    for (; *lpszText != 0; ++lpszText) {
        dwBytes += 2;
    }
    return dwBytes;
}

bool CExchange::SendCommand() {
    if (!m_buffer) {
        return false;
    }
    const int nCode = m_row.codeFunc;
    const int nBytes = static_cast<int>(m_dwPackageBytes);
    TraceLine("before send codeFunc=%d, packageLength=%d\n", nCode, nBytes);
    DWORD dwCount = 0;
    m_bWritten =
        m_owner.WriteUSBData(m_buffer.Get(), static_cast<DWORD>(m_dwPackageBytes), &dwCount) != 0;
    if (!m_bWritten) {
        return false;
    }
    TraceLine("after send codeFunc=%d, packageLength=%d, dwReadBytes=%d\n", nCode, nBytes,
              static_cast<int>(dwCount));
    if (!TakeAcknowledgement()) {
        return false;
    }
    PauseForDevice(m_owner.m_hDevice, m_row.ePauseBehind);
    return true;
}

bool CExchange::TakeAcknowledgement() {
    BYTE header[DAK_HEADER_SIZE] = {};
    if (m_row.eAcknowledgement == Acknowledgement::Polled) {
        m_dwAckBytes = FirstReadWait(
            m_owner, {header, sizeof(header), sizeof(header), m_row.eAckPause, nullptr, false});
    } else {
        m_owner.ReadUSBData(header, sizeof(header), &m_dwAckBytes, 0);
    }
    if (m_dwAckBytes == 0) {
        return false;
    }
    TraceLine("after read dwReadBytes=%d\n", static_cast<int>(m_dwAckBytes));
    return m_dwAckBytes == sizeof(header) && DakGetHeader(header).wCommand == DAK_SUCCESS;
}

DWORD CExchange::FirstReadWait(CDAKVorn& owner, const _tagFirstReadWait& wait) {
    for (DWORD dwTry = 0; dwTry < FIRST_READ_TRIES; ++dwTry) {
        PauseForDevice(owner.m_hDevice, wait.ePause);
        std::memset(wait.lpBuffer, 0, wait.dwClearBytes);
        if (wait.lpszTrace != nullptr) {
            TraceLine(wait.lpszTrace);
        }
        DWORD dwCount = 0;
        const bool bRead = owner.ReadUSBData(wait.lpBuffer, wait.dwReadBytes, &dwCount, 0) != 0;
        if (!bRead) {
            platform::Sleep(FAILED_READ_PAUSE_MS);
        }
        const bool bPresent = owner.IsDeviceAvailable() != 0;
        if (bRead) {
            return dwCount;
        }
        if (!bPresent || (wait.bCancelEnds && LoadShared(owner.m_bCopying) == 0)) {
            break;
        }
    }
    return 0;
}

bool CExchange::PrepareResponseBuffer() {
    if (m_dwBufferBytes >= m_row.dwResponseBytes) {
        return true;
    }
    m_dwBufferBytes = m_row.dwResponseBytes;
    return m_buffer.Allocate(m_dwBufferBytes);
}

bool CExchange::AwaitAnswer() {
    if (!PrepareResponseBuffer()) {
        return false;
    }
    switch (m_row.eShape) {
    case AwaitShape::None:
        return false;
    case AwaitShape::PolledWait:
    case AwaitShape::UnboundedWait:
        PollForResponse();
        break;
    case AwaitShape::FirstReadWait:
        TakeHead(
            FirstReadWait(m_owner, {m_buffer.Get(), m_row.dwResponseBytes, m_row.dwResponseBytes}));
        break;
    case AwaitShape::SingleRead:
        ReadOnce();
        break;
    case AwaitShape::CompletedRead:
        CompleteRead();
        break;
    }
    return IsRightResponse() || IsReplyPackage();
}

bool CExchange::AwaitResponse() {
    return AwaitAnswer() && IsRightResponse();
}

int CExchange::Run() {
    return SendCommand() && AwaitResponse() ? Result() : 0;
}

void CExchange::ReadOnce() {
    DWORD dwCount = 0;
    m_owner.ReadUSBData(m_buffer.Get(), m_row.dwResponseBytes, &dwCount, 0);
    TakeHead(dwCount);
}

void CExchange::CompleteRead() {
    DWORD dwCount = 0;
    if (m_owner.ReadUSBData(m_buffer.Get(), m_row.dwResponseBytes, &dwCount, 0) &&
        dwCount < m_row.dwResponseBytes) {
        DWORD dwRest = 0;
        m_owner.ReadUSBData(m_buffer.Get() + dwCount, m_row.dwResponseBytes - dwCount, &dwRest, 0);
        dwCount += dwRest;
    }
    TakeHead(dwCount);
}

// The polled wait, with the row's bound or without one. A short read is dropped and the next try
// starts at once; what arrived in the very try in which the device vanished still counts.
void CExchange::PollForResponse() {
    const bool bBounded = m_row.eShape == AwaitShape::PolledWait;
    for (DWORD dwTry = 0; !bBounded || dwTry < m_row.dwBound; ++dwTry) {
        m_head = {};
        m_codeResponse = 0;
        std::memset(m_buffer.Get(), 0, m_row.dwResponseBytes);
        DWORD dwCount = 0;
        if (m_owner.ReadUSBData(m_buffer.Get(), m_row.dwResponseBytes, &dwCount, 0)) {
            TakeHead(dwCount);
        } else {
            platform::Sleep(FAILED_READ_PAUSE_MS);
        }
        if (!m_owner.IsDeviceAvailable() || IsRightResponse() || IsReplyPackage()) {
            return;
        }
    }
}

void CExchange::TakeHead(DWORD dwCount) {
    if (dwCount == m_row.dwResponseBytes) {
        m_head = DakGetHeader(m_buffer.Get());
        m_codeResponse = DakGetU16(m_buffer.Get() + DAK_OFFSET_CODE);
    }
}

bool CExchange::IsRightResponse() const {
    return m_head.wCommand == DAK_LAST_REPLY &&
           (m_codeResponse == m_row.codeFunc ||
            (m_row.codeAlsoResponse != 0 && m_codeResponse == m_row.codeAlsoResponse));
}

bool CExchange::IsReplyPackage() const {
    return m_row.bReplyPackageEnds && m_head.wCommand == DAK_REPLY_PACKAGE &&
           m_codeResponse == m_row.codeFunc;
}
