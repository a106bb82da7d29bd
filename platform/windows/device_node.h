// Open device nodes. The system has the bytes of a transfer until the transfer has ended, and a
// driver may never end one, cancelled or not. So a node owns what its transfers use, and one that
// does not end is left behind with it.
#pragma once

#include "platform/types.h"

#include <atomic>
#include <vector>

namespace platform::windows {

// The transfers of one direction: one at a time.
class CNodeTransfer {
  public:
    // Throws std::bad_alloc when the system has no room for it.
    CNodeTransfer();
    ~CNodeTransfer() { ::CloseHandle(m_hDone); }
    CNodeTransfer(const CNodeTransfer&) = delete;
    CNodeTransfer& operator=(const CNodeTransfer&) = delete;

    // Waits for the end of one that was left behind. False in a thread that is being stopped.
    bool Settle(HANDLE hNode);

    // Room for the next one's bytes; null when there is none.
    BYTE* MakeRoom(DWORD dwSize);
    // For the call that begins it; AwaitEnd is told what that returned.
    OVERLAPPED* Begin();
    // False, with the error number, when it failed, or the thread was stopped first. Then it is
    // cancelled, and left behind where that takes long.
    bool AwaitEnd(HANDLE hNode, BOOL bBegun);

    // Bytes that it has moved, and of these what nobody has taken. A read that was stopped may have
    // some as well: the device will not send them again.
    DWORD Count() const { return m_dwCount; }
    DWORD Kept() const { return m_dwCount - m_dwTaken; }
    DWORD Take(void* lpBuffer, DWORD dwSize);

    // Whether the system is through with what it was given.
    bool HasEnded() const;

  private:
    bool Collect(HANDLE hNode);

    HANDLE m_hDone;
    OVERLAPPED m_overlapped{};
    bool m_bOpen = false;
    std::vector<BYTE> m_bytes;
    DWORD m_dwCount = 0;
    DWORD m_dwTaken = 0;
};

class CDeviceNode {
  public:
    CDeviceNode(HANDLE hNode, const char* lpszPath);

    // As ReadFile and WriteFile of the seam.
    bool Read(void* lpBuffer, DWORD dwSize, DWORD& dwCount);
    bool Write(const void* lpBuffer, DWORD dwSize, DWORD& dwCount);

    bool HasEnded() const { return m_read.HasEnded() && m_write.HasEnded(); }
    // Whether a transfer has failed because the device has been removed.
    bool HasLostDevice() const { return m_bLost.load(); }
    bool IsPrompt() const { return m_bPrompt; }

    // In the table of nodes. The handle is null when it has been closed.
    HANDLE m_hNode;
    CDeviceNode* m_pNext = nullptr;

  private:
    bool AwaitEnd(CNodeTransfer& transfer, BOOL bBegun);

    const bool m_bPrompt;
    std::atomic<bool> m_bLost{false};
    CNodeTransfer m_read;
    CNodeTransfer m_write;
};

// Takes the handle of a node that was just opened into the table and returns it. Without memory it
// is closed, and the result INVALID_HANDLE_VALUE, as for one that could not be opened.
HANDLE RememberNode(HANDLE hNode, const char* lpszPath);
// Null for the handle of anything else.
CDeviceNode* FindNode(HANDLE hObject);
// Ahead of the closing of a handle: where it is a node's, the handle is known no longer.
void ForgetNode(HANDLE hObject);

} // namespace platform::windows
