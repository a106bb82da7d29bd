// CIoBuf: one host file, read ahead of its consumer through two buffers.
//
// While the consumer drains one buffer, a short-lived thread fills the other. Files are below
// 4 GiB: the end is judged by the low half of the size. One thread at a time calls the operations
// of an object. The order is InitIoBuf, any number of ReadIoBuf, IoGetFileSize and IoGetFileTime,
// then DeinitIoBuf; InitIoBuf may be called again without DeinitIoBuf.
#pragma once

#include "platform/export.h"
#include "platform/types.h"

struct CFillPass; // transfer/io_buf.cpp

class DAK_API CIoBuf {
  public:
    CIoBuf();
    ~CIoBuf();
    CIoBuf(const CIoBuf& other) = default;

    // Copies every member, handles and buffer pointers included: the copy shares them, and only one
    // of the two objects may release them.
    CIoBuf& operator=(const CIoBuf& other);

    // Opens lpszFileName (below 260 characters) and starts to fill both buffers of nBufSize bytes.
    // A file opened before is given up first. 1 when the file is open and the first fill thread was
    // created, else 0.
    int InitIoBuf(int nBufSize, const char* lpszFileName);

    // Copies up to nBytes (above 0) to lpBuf and returns how many, 0 at the end of the file or
    // after an error. Fewer than asked for come also where a buffer ends: call again.
    int ReadIoBuf(BYTE* lpBuf, int nBytes);

    // Ends a running fill, releases everything and clears every member.
    void DeinitIoBuf();

    // One fill pass on the caller's thread. Always 1.
    int ReadFileData();

    // One fill pass of the CIoBuf at lpParameter. Always 1; a null parameter does nothing.
    static DWORD WINAPI ReadDataToBufferThread(void* lpParameter);

    // The size taken at open.
    DWORD IoGetFileSize(DWORD* lpdwSizeHigh);

    // The open file's times. Without an open file only the low halves are set, to 0.
    void IoGetFileTime(FILETIME* lpCreationTime, FILETIME* lpLastWriteTime);

  private:
    bool StartFill(DWORD dwMask, DWORD dwCreationFlags);
    static DWORD WINAPI FillThread(void* lpPass);
    static void RunPass(CFillPass& pass);
    void FillBuffer(int nIndex);
    void StopFill();
    void CloseFile();
    void FreeBuffer(int nIndex);
    bool IsBroken() const;
    bool WaitReady() const;
    bool RequestRefill();
    int TakeBytes(BYTE* lpBuf, int nBytes);

    // Shared between the consumer and the fill thread, and so read and written as atomics: the
    // flags, the mask and the error. m_bReady hands the counts and bytes of a buffer over. A fill
    // thread touches only the members of a buffer whose bit is set in m_dwFillMask and whose
    // m_bReady is 0.
    HANDLE m_hFile;         // 0 when none
    HANDLE m_hFillThread;   // the latest fill thread; 0 when none
    DWORD m_dwFillCount[2]; // bytes that the latest read delivered
    int m_nBufferSize;      // of each buffer, as accepted by a successful open; else 0
    int m_nBytesLeft[2];    // not yet taken by the consumer
    BYTE* m_lpBuffer[2];    // owned
    BOOL m_bFilling[2];     // 1 while ReadFile runs for the buffer; informative only
    BOOL m_bReady[2];       // 1 from the end of a fill until the buffer is given back
    BOOL m_bReadError;      // sticky until InitIoBuf or DeinitIoBuf
    DWORD m_dwFileSizeLow;
    DWORD m_dwFileSizeHigh;
    DWORD m_dwReadPos;  // bytes handed out so far
    BYTE* m_lpReadPtr;  // next byte to hand out
    DWORD m_dwFillMask; // pending fills: bit 0 buffer 0, bit 1 buffer 1
    int m_nCurrent;     // the buffer being drained
    char m_szFileName[260];
};

// The one read-ahead buffer of the process, used by the transfer worker. Only the holder of the
// operation gate (link/device_connection.h) touches it.
extern DAK_API CIoBuf g_IoBuf;
