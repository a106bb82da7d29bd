// The exchange that all remote operations share: a command package, its acknowledgement, and the
// response in one of a few shapes of waiting. One table says which function code uses which; an
// operation lays its payload, names its row, and takes its fields.
#pragma once

#include "link/dak_vorn.h"
#include "link/pacing.h"
#include "platform/memory.h"

enum class Acknowledgement {
    Single, // one read of 8 bytes
    Polled, // a first-read wait of 8 bytes
};

enum class AwaitShape {
    None,          // the operation takes what follows by itself
    PolledWait,    // a bounded number of tries, until the right response
    UnboundedWait, // until the right response or the device's going
    FirstReadWait, // a bounded number of tries, until any read brought something
    SingleRead,    // one read
    CompletedRead, // one read, and one more for the rest
};

// How one function code is exchanged.
struct _tagExchangeRow {
    WORD codeFunc;
    Acknowledgement eAcknowledgement;
    DevicePause eAckPause;    // ahead of each try for a polled acknowledgement
    DevicePause ePauseBehind; // a good acknowledgement
    AwaitShape eShape;
    DWORD dwResponseBytes;  // R: the bytes of a response
    DWORD dwBound;          // tries
    bool bReplyPackageEnds; // DAK_REPLY_PACKAGE with the own code ends the wait too
    WORD codeAlsoResponse;  // a further code that a right response may bear, or 0
};

// The row of a function code. Null for a code that is not assigned.
const _tagExchangeRow* FindExchangeRow(WORD codeFunc);

// DAK_FUNC_CREATE_PROCESS where nobody waits for the program's end.
extern const _tagExchangeRow g_rowStartProcess;

// Tries of a first-read wait, wherever it stands.
inline constexpr DWORD FIRST_READ_TRIES = 1201;
// Behind a read that brought nothing, in every wait.
inline constexpr DWORD FAILED_READ_PAUSE_MS = 500;

// A first-read wait: reads until something came, the device has gone or the tries are used up.
struct _tagFirstReadWait {
    BYTE* lpBuffer;
    DWORD dwReadBytes;
    DWORD dwClearBytes;                     // of the buffer, ahead of each read
    DevicePause ePause = DevicePause::None; // ahead of each try
    const char* lpszTrace = nullptr;
    bool bCancelEnds = false; // a cleared m_bCopying ends the wait too
};

// One exchange. It lives for the span of a CommitXxx, and its buffers go with it.
class CExchange {
  public:
    // dwBufferMinimum: the least size of the request's buffer, where the response is to be read
    // into it whatever the request's size is.
    CExchange(CDAKVorn& owner, const _tagExchangeRow& row, SIZE_T dwPayloadBytes,
              DWORD dwBufferMinimum = 0);
    CExchange(CDAKVorn& owner, WORD codeFunc, SIZE_T dwPayloadBytes, DWORD dwBufferMinimum = 0);

    // Whether there was memory for the request; without it nothing is written.
    bool IsAllocated() const { return static_cast<bool>(m_buffer); }

    // Lay the payload, one field behind the other.
    void PutByte(BYTE bValue);
    void PutU32(DWORD dwValue);
    void PutText(const WCHAR* lpszText);
    void PutBytes(const void* lpBytes, DWORD dwBytes);

    // Writes the command and takes its acknowledgement. On failure the two questions below tell how
    // far it came.
    bool SendCommand();
    bool WasWritten() const { return m_bWritten; }         // the write moved something
    bool WasAnswered() const { return m_dwAckBytes != 0; } // any read of the answer did

    // Awaits the response in the row's shape. True when the right response, or with
    // bReplyPackageEnds a package under DAK_REPLY_PACKAGE and the own code, has arrived whole.
    bool AwaitAnswer();
    // Awaits the response; true for the right response alone.
    bool AwaitResponse();
    // The same for both steps; the common road of an operation without states of its own. Returns
    // the result field of the right response, or 0.
    int Run();

    // The response, once it is there.
    int Result() const { return static_cast<int>(DakGetU32(m_buffer.Get() + DAK_OFFSET_RESULT)); }
    DWORD FieldAt(SIZE_T dwOffset) const { return DakGetU32(m_buffer.Get() + dwOffset); }
    const BYTE* Response() const { return m_buffer.Get(); }
    DAKHEADER Head() const { return m_head; }

    // The count of the one read that returned true, or 0.
    static DWORD FirstReadWait(CDAKVorn& owner, const _tagFirstReadWait& wait);

    // The size of a text in a package, terminator included.
    static DWORD TextBytes(const WCHAR* lpszText);

  private:
    bool TakeAcknowledgement();
    bool PrepareResponseBuffer();
    void ReadOnce();
    void CompleteRead();
    void PollForResponse();
    void TakeHead(DWORD dwCount);
    bool IsRightResponse() const;
    bool IsReplyPackage() const;

    CDAKVorn& m_owner;
    const _tagExchangeRow& m_row;
    platform::CLocalBuffer m_buffer;
    SIZE_T m_dwPackageBytes; // of the command
    SIZE_T m_dwBufferBytes;
    SIZE_T m_dwCursor;
    bool m_bWritten = false;
    DWORD m_dwAckBytes = 0;
    DAKHEADER m_head{}; // of the response, taken only from a read of the full size
    WORD m_codeResponse = 0;
};
