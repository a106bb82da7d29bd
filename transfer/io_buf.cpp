#include "transfer/io_buf.h"

#include "link/device_connection.h"
#include "link/shared_word.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "transfer/read_ahead.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

CIoBuf g_IoBuf;

// A fill pass that has been asked for and has not ended. Those of one object take their turns in
// the order in which they were asked for, because each goes on in the file where the one before has
// stopped; those of different objects have nothing to do with one another.
struct CFillPass {
    CIoBuf* pOwner;
    DWORD dwMask;                 // of the buffers it is to fill
    HANDLE hLateThread = nullptr; // its thread's, once its object has gone on without it
    DWORD dwTurn = 0;             // 1: no earlier pass of the object is left
    CFillPass* pNext = nullptr;
};

namespace {

constexpr DWORD POLL_MS = 10;
constexpr int FILL_TRIES = 1000;
constexpr DWORD MASK_BOTH = 3;

constexpr DWORD BitOf(int nIndex) {
    return static_cast<DWORD>(nIndex) + 1;
}

// All passes, in the order in which they were asked for.
CFillPass* g_pFirstPass = nullptr;
CWordLock g_PassLock; // never held while a file is read

// A forked child has none of its parent's passes: their threads have stayed there.
void ForgetParentsPasses() {
    static DWORD dwGeneration = 0;
    if (dwGeneration != platform::ProcessGeneration()) {
        dwGeneration = platform::ProcessGeneration();
        g_pFirstPass = nullptr;
    }
}

// Behind every change of the list: the first pass of each object has its turn.
void GiveTurn(const CIoBuf* pOwner) {
    for (CFillPass* pPass = g_pFirstPass; pPass != nullptr; pPass = pPass->pNext) {
        if (pPass->pOwner == pOwner) {
            StoreShared(pPass->dwTurn, DWORD{1});
            platform::WakeByAddressAll(&pPass->dwTurn);
            return;
        }
    }
}

void AskForPass(CFillPass& pass) {
    const CWordLockHold hold(g_PassLock);
    ForgetParentsPasses();
    CFillPass** ppLast = &g_pFirstPass;
    while (*ppLast != nullptr) {
        ppLast = &(*ppLast)->pNext;
    }
    *ppLast = &pass;
    GiveTurn(pass.pOwner);
}

// False when the thread is being stopped ahead of its turn.
bool AwaitTurn(CFillPass& pass) {
    while (LoadShared(pass.dwTurn) == 0) {
        if (platform::WaitOnAddress(&pass.dwTurn, 0, INFINITE) == FALSE) {
            return false;
        }
    }
    return true;
}

void EndPass(CFillPass& pass) {
    HANDLE hLateThread = nullptr;
    {
        const CWordLockHold hold(g_PassLock);
        CFillPass** ppPass = &g_pFirstPass;
        while (*ppPass != &pass) {
            ppPass = &(*ppPass)->pNext;
        }
        *ppPass = pass.pNext;
        hLateThread = pass.hLateThread;
        GiveTurn(pass.pOwner);
    }
    if (hLateThread != nullptr) {
        platform::CloseHandle(hLateThread);
    }
}

// The latest pass of an object goes on by itself, its thread's handle with it. False, and the
// handle stays the caller's, when there is none any more.
bool LeaveBehind(const CIoBuf* pOwner, HANDLE hThread) {
    const CWordLockHold hold(g_PassLock);
    CFillPass* pLatest = nullptr;
    for (CFillPass* pPass = g_pFirstPass; pPass != nullptr; pPass = pPass->pNext) {
        pLatest = pPass->pOwner == pOwner ? pPass : pLatest;
    }
    if (pLatest != nullptr) {
        pLatest->hLateThread = hThread;
    }
    return pLatest != nullptr;
}

// The thread of a late pass of an object, now the caller's; 0 when there is none.
HANDLE TakeLateThread(const CIoBuf* pOwner) {
    const CWordLockHold hold(g_PassLock);
    ForgetParentsPasses();
    for (CFillPass* pPass = g_pFirstPass; pPass != nullptr; pPass = pPass->pNext) {
        if (pPass->pOwner == pOwner && pPass->hLateThread != nullptr) {
            return std::exchange(pPass->hLateThread, nullptr);
        }
    }
    return nullptr;
}

// Behind the end of an object's threads: what is left are passes whose threads were stopped before
// they ran.
void DropPasses(const CIoBuf* pOwner) {
    const CWordLockHold hold(g_PassLock);
    for (CFillPass** ppPass = &g_pFirstPass; *ppPass != nullptr;) {
        if ((*ppPass)->pOwner == pOwner) {
            const std::unique_ptr<CFillPass> pDropped(*ppPass);
            *ppPass = pDropped->pNext;
        } else {
            ppPass = &(*ppPass)->pNext;
        }
    }
}

DWORD g_dwReadAheadWait = static_cast<DWORD>(ReadAheadWait::Poll);

bool WaitsForEvents(const CIoBuf* pBuffer) {
    return pBuffer == &g_IoBuf &&
           LoadShared(g_dwReadAheadWait) == static_cast<DWORD>(ReadAheadWait::Event);
}

// Waits while the word, which the fills of the buffer write, is what it was; 10 ms at most.
template <class TWord>
void AwaitFill(const CIoBuf* pBuffer, const TWord& word, TWord before) {
    if (WaitsForEvents(pBuffer)) {
        platform::WaitOnAddress(reinterpret_cast<DWORD*>(const_cast<TWord*>(&word)),
                                static_cast<DWORD>(before), POLL_MS);
    } else {
        platform::Sleep(POLL_MS);
    }
}

template <class TWord>
void TellOfFill(const CIoBuf* pBuffer, TWord& word) {
    if (WaitsForEvents(pBuffer)) {
        platform::WakeByAddressAll(reinterpret_cast<DWORD*>(&word));
    }
}

void StopThread(HANDLE hThread) {
    platform::TerminateThread(hThread, 0);
    platform::CloseHandle(hThread);
}

} // namespace

void SetReadAheadWait(ReadAheadWait eWait) {
    StoreShared(g_dwReadAheadWait, static_cast<DWORD>(eWait));
}

CIoBuf::CIoBuf()
    : m_hFile(nullptr), m_hFillThread(nullptr), m_dwFillCount{},
      m_nBufferSize(0), m_nBytesLeft{}, m_lpBuffer{}, m_bFilling{}, m_bReady{}, m_bReadError(FALSE),
      m_dwFileSizeLow(0), m_dwFileSizeHigh(0), m_dwReadPos(0), m_lpReadPtr(nullptr),
      m_dwFillMask(0), m_nCurrent(0), m_szFileName{} {}

CIoBuf::~CIoBuf() {
    // At the process's end a job may still read from the process's own buffer; then the system
    // takes back what it holds.
    if (this == &g_IoBuf && !g_OperationGate.TryEnter(nullptr)) {
        return;
    }
    StopFill();
    CloseFile();
    FreeBuffer(0);
    FreeBuffer(1);
    if (this == &g_IoBuf) {
        g_OperationGate.Leave();
    }
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
    return StartFill(MASK_BOTH, 0) ? 1 : 0;
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
    CFillPass pass{this, MASK_BOTH};
    AskForPass(pass);
    RunPass(pass);
    return 1;
}

DWORD WINAPI CIoBuf::ReadDataToBufferThread(void* lpParameter) {
    if (lpParameter != nullptr) {
        static_cast<CIoBuf*>(lpParameter)->ReadFileData();
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

// Asks for a pass over the buffers of dwMask and makes its thread. False when there is none.
bool CIoBuf::StartFill(DWORD dwMask, DWORD dwCreationFlags) {
    std::unique_ptr<CFillPass> pPass(new (std::nothrow) CFillPass{this, dwMask});
    m_hFillThread = nullptr;
    if (pPass == nullptr) {
        return false;
    }
    AskForPass(*pPass);
    m_hFillThread = platform::CreateThread(nullptr, 0, &CIoBuf::FillThread, pPass.get(),
                                           dwCreationFlags, nullptr);
    if (m_hFillThread == nullptr) {
        EndPass(*pPass);
        return false;
    }
    static_cast<void>(pPass.release()); // the thread's now
    return true;
}

void CIoBuf::RunPass(CFillPass& pass) {
    if (AwaitTurn(pass)) {
        for (const int nIndex : {0, 1}) {
            if ((pass.dwMask & BitOf(nIndex)) != 0) {
                pass.pOwner->FillBuffer(nIndex);
            }
        }
    }
    EndPass(pass);
}

DWORD WINAPI CIoBuf::FillThread(void* lpPass) {
    const std::unique_ptr<CFillPass> pPass(static_cast<CFillPass*>(lpPass));
    RunPass(*pPass);
    return 1;
}

void CIoBuf::FillBuffer(int nIndex) {
    const DWORD dwBit = BitOf(nIndex);
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
    TellOfFill(this, m_dwFillMask);
    // Last: it hands the buffer over.
    StoreShared(m_bReady[nIndex], TRUE);
    TellOfFill(this, m_bReady[nIndex]);
}

// Returns with no fill running and none to come.
void CIoBuf::StopFill() {
    if (m_hFillThread != nullptr) {
        StopThread(m_hFillThread);
        m_hFillThread = nullptr;
    }
    while (const HANDLE hLateThread = TakeLateThread(this)) {
        StopThread(hLateThread);
    }
    DropPasses(this);
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
        AwaitFill(this, m_bReady[m_nCurrent], FALSE);
    }
    return !IsBroken();
}

// Gives the current buffer back and starts a thread that fills it again. False when the reading
// cannot go on.
bool CIoBuf::RequestRefill() {
    StoreShared(m_bReady[m_nCurrent], FALSE);
    m_dwFillCount[m_nCurrent] = 0;
    for (int nTry = 0; nTry < FILL_TRIES; ++nTry) {
        const DWORD dwMask = LoadShared(m_dwFillMask);
        if (dwMask == 0) {
            break;
        }
        AwaitFill(this, m_dwFillMask, dwMask);
    }
    std::atomic_ref<DWORD>(m_dwFillMask).fetch_or(BitOf(m_nCurrent));
    if (m_hFillThread != nullptr && !LeaveBehind(this, m_hFillThread)) {
        platform::CloseHandle(m_hFillThread);
    }
    if (!StartFill(BitOf(m_nCurrent), CREATE_SUSPENDED)) {
        StoreShared(m_bReadError, TRUE);
        return false;
    }
    platform::ResumeThread(m_hFillThread);
    if (!WaitsForEvents(this)) {
        platform::Sleep(POLL_MS);
    }
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
