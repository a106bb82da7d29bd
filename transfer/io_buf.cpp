#include "transfer/io_buf.h"

#include "link/device_connection.h"
#include "link/shared_word.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "platform/thread.h"

#include <cstring>

CIoBuf g_IoBuf;

namespace {

constexpr DWORD POLL_MS = 10;
constexpr int FILL_TRIES = 1000;
constexpr DWORD MASK_BOTH = 3;

// A fill pass that is late (FILL_TRIES have run out) may still be at work when the next one starts.
// Passes take this lock, so that the next one waits its turn, and a file is not given up before the
// late one has left it.
CWordLock g_FillLock;

} // namespace

CIoBuf::CIoBuf()
    : m_hFile(nullptr), m_hFillThread(nullptr), m_dwFillCount{},
      m_nBufferSize(0), m_nBytesLeft{}, m_lpBuffer{}, m_bFilling{}, m_bReady{}, m_bReadError(FALSE),
      m_dwFileSizeLow(0), m_dwFileSizeHigh(0), m_dwReadPos(0), m_lpReadPtr(nullptr),
      m_dwFillMask(0), m_nCurrent(0), m_szFileName{} {}

CIoBuf::~CIoBuf() {
    // At the process's end a job may still read from the process's own buffer; then the system
    // takes back what it holds.
    if (this == &g_IoBuf && !g_OperationGate.TryEnter()) {
        return;
    }
    StopFill();
    CloseFile();
    FreeBuffer(0);
    FreeBuffer(1);
}

CIoBuf& CIoBuf::operator=(const CIoBuf& other) = default;

int CIoBuf::InitIoBuf(int nBufSize, const char* lpszFileName) {
    StopFill();
    CloseFile();
    if (nBufSize != m_nBufferSize) {
        FreeBuffer(0);
        FreeBuffer(1);
        // Should the open fail, what it leaves must not pass for buffers of the size before.
        m_nBufferSize = 0;
    }
    for (BYTE*& lpBuffer : m_lpBuffer) {
        if (lpBuffer == nullptr && nBufSize > 0) {
            lpBuffer =
                static_cast<BYTE*>(platform::LocalAlloc(LPTR, static_cast<SIZE_T>(nBufSize)));
        }
        if (lpBuffer == nullptr) {
            return 0;
        }
    }
    if (std::strlen(lpszFileName) >= sizeof(m_szFileName)) {
        return 0;
    }
    platform::lstrcpyA(m_szFileName, lpszFileName);
    const HANDLE hFile = platform::CreateFileA(m_szFileName, GENERIC_READ, FILE_SHARE_READ, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        return 0;
    }
    m_hFile = hFile;
    m_dwFileSizeLow = platform::GetFileSize(m_hFile, &m_dwFileSizeHigh);
    m_dwReadPos = 0;
    m_nCurrent = 0;
    StoreShared(m_bReadError, FALSE);
    for (int i = 0; i < 2; ++i) {
        m_dwFillCount[i] = 0;
        m_nBytesLeft[i] = 0;
        StoreShared(m_bFilling[i], FALSE);
        StoreShared(m_bReady[i], FALSE);
    }
    m_lpReadPtr = m_lpBuffer[0];
    m_nBufferSize = nBufSize;
    StoreShared(m_dwFillMask, MASK_BOTH);
    m_hFillThread =
        platform::CreateThread(nullptr, 0, &CIoBuf::ReadDataToBufferThread, this, 0, nullptr);
    return m_hFillThread != nullptr ? 1 : 0;
}

int CIoBuf::ReadIoBuf(BYTE* lpBuf, int nBytes) {
    if (m_dwReadPos >= m_dwFileSizeLow || !WaitReady()) {
        return 0;
    }
    if (nBytes <= m_nBytesLeft[m_nCurrent]) {
        return TakeBytes(lpBuf, nBytes);
    }
    const int nTotal = TakeBytes(lpBuf, m_nBytesLeft[m_nCurrent]);
    if (m_dwReadPos >= m_dwFileSizeLow || !RequestRefill()) {
        return nTotal;
    }
    m_nCurrent = (m_nCurrent + 1) % 2;
    m_lpReadPtr = m_lpBuffer[m_nCurrent];
    if (!WaitReady()) {
        return nTotal;
    }
    return nTotal + TakeBytes(lpBuf + nTotal, nBytes - nTotal);
}

void CIoBuf::DeinitIoBuf() {
    StopFill();
    CloseFile();
    FreeBuffer(0);
    FreeBuffer(1);
    *this = CIoBuf();
}

int CIoBuf::ReadFileData() {
    FillBuffers();
    return 1;
}

DWORD WINAPI CIoBuf::ReadDataToBufferThread(void* lpParameter) {
    if (lpParameter != nullptr) {
        static_cast<CIoBuf*>(lpParameter)->FillBuffers();
    }
    return 1;
}

DWORD CIoBuf::IoGetFileSize(DWORD* lpdwSizeHigh) {
    *lpdwSizeHigh = m_dwFileSizeHigh;
    return m_dwFileSizeLow;
}

void CIoBuf::IoGetFileTime(FILETIME* lpCreationTime, FILETIME* lpLastWriteTime) {
    lpCreationTime->dwLowDateTime = 0;
    lpLastWriteTime->dwLowDateTime = 0;
    if (m_hFile != nullptr) {
        platform::GetFileTime(m_hFile, lpCreationTime, nullptr, lpLastWriteTime);
    }
}

// One fill pass, on a fill thread or on the caller's.
void CIoBuf::FillBuffers() {
    if (!g_FillLock.EnterUnlessStopped()) {
        return;
    }
    FillBuffer(0);
    FillBuffer(1);
    g_FillLock.Leave();
}

void CIoBuf::FillBuffer(int nIndex) {
    const DWORD dwBit = static_cast<DWORD>(nIndex) + 1;
    if ((LoadShared(m_dwFillMask) & dwBit) == 0 || LoadShared(m_bReady[nIndex]) != FALSE) {
        return;
    }
    StoreShared(m_bFilling[nIndex], TRUE);
    if (platform::ReadFile(m_hFile, m_lpBuffer[nIndex], static_cast<DWORD>(m_nBufferSize),
                           &m_dwFillCount[nIndex]) == FALSE) {
        StoreShared(m_bReadError, TRUE);
    }
    StoreShared(m_bFilling[nIndex], FALSE);
    m_nBytesLeft[nIndex] = static_cast<int>(m_dwFillCount[nIndex]);
    std::atomic_ref<DWORD>(m_dwFillMask).fetch_and(~dwBit);
    // Last: it hands the buffer over.
    StoreShared(m_bReady[nIndex], TRUE);
}

// Returns with no fill running. A pass that was late has no handle any more, whether another could
// be started behind it or not; its end shows in the lock.
void CIoBuf::StopFill() {
    if (m_hFillThread != nullptr) {
        platform::TerminateThread(m_hFillThread, 0);
        platform::CloseHandle(m_hFillThread);
        m_hFillThread = nullptr;
    }
    if (m_hFile != nullptr) {
        const CWordLockHold hold(g_FillLock);
    }
}

void CIoBuf::CloseFile() {
    if (m_hFile != nullptr) {
        platform::CloseHandle(m_hFile);
        m_hFile = nullptr;
    }
}

void CIoBuf::FreeBuffer(int nIndex) {
    platform::LocalFree(m_lpBuffer[nIndex]);
    m_lpBuffer[nIndex] = nullptr;
    StoreShared(m_bFilling[nIndex], FALSE);
    StoreShared(m_bReady[nIndex], FALSE);
}

bool CIoBuf::IsBroken() const {
    return LoadShared(m_bReadError) != FALSE;
}

// Waits until the current buffer is filled. False after a read error.
bool CIoBuf::WaitReady() const {
    while (!IsBroken() && LoadShared(m_bReady[m_nCurrent]) == FALSE) {
        platform::Sleep(POLL_MS);
    }
    return !IsBroken();
}

// Gives the current buffer back and starts a thread that fills it again. False when the reading
// cannot go on.
bool CIoBuf::RequestRefill() {
    StoreShared(m_bReady[m_nCurrent], FALSE);
    m_dwFillCount[m_nCurrent] = 0;
    for (int nTry = 0; nTry < FILL_TRIES && LoadShared(m_dwFillMask) != 0; ++nTry) {
        platform::Sleep(POLL_MS);
    }
    std::atomic_ref<DWORD>(m_dwFillMask).fetch_or(static_cast<DWORD>(m_nCurrent) + 1);
    if (m_hFillThread != nullptr) {
        platform::CloseHandle(m_hFillThread);
    }
    m_hFillThread = platform::CreateThread(nullptr, 0, &CIoBuf::ReadDataToBufferThread, this,
                                           CREATE_SUSPENDED, nullptr);
    if (m_hFillThread == nullptr) {
        StoreShared(m_bReadError, TRUE);
        return false;
    }
    platform::ResumeThread(m_hFillThread);
    platform::Sleep(POLL_MS);
    return !IsBroken();
}

// Hands out bytes of the current buffer: nBytes, or what is left of it.
int CIoBuf::TakeBytes(BYTE* lpBuf, int nBytes) {
    const int nTaken = nBytes < m_nBytesLeft[m_nCurrent] ? nBytes : m_nBytesLeft[m_nCurrent];
    std::memcpy(lpBuf, m_lpReadPtr, static_cast<SIZE_T>(nTaken));
    m_lpReadPtr += nTaken;
    m_dwReadPos += static_cast<DWORD>(nTaken);
    m_nBytesLeft[m_nCurrent] -= nTaken;
    return nTaken;
}
