// The copy to the device: all files of a job, one behind the other, in a single stream.
#pragma once

#include "platform/array_classes.h"
#include "platform/memory.h"
#include "platform/types.h"

class CDAKVorn;

// The worker's state for one job. It lives on the worker, under the link's lock.
class CCopyToDevice {
  public:
    CCopyToDevice(CDAKVorn& owner, const WCHAR* lpSource, const WCHAR* lpDest,
                  const CStringArray& fileList);

    // The whole exchange. m_dwErrCode of the owner holds the outcome. False when the device handle
    // was replaced in the middle, so that there is nothing to drain.
    bool Run();

    // 1 when the device confirmed the whole copy, else 0.
    int Result() const { return m_bRet; }

  private:
    enum class FileOutcome { Done, StreamFailed, LinkLost };

    bool SendRequest();
    bool OpenStream();
    FileOutcome SendFile(const char* lpszEntry);
    bool SendRecord(const char* lpszEntry);
    FileOutcome SendContents();
    bool AddField(const void* lpData, DWORD dwBytes);
    CString RelativeName(const CString& strEntry) const;
    void CloseStream();
    void TakeFinalReply();
    bool ReadReply(DWORD dwBytes);
    void JudgeResult(int nResult, bool bFromAbort);
    void ReplaceDeviceHandle();

    CDAKVorn& m_owner;
    const WCHAR* m_lpSource;
    const WCHAR* m_lpDest;
    const CStringArray& m_fileList;
    CString m_strSource; // narrow, as the caller gave it
    CString m_strDest;   // narrow, without trailing backslashes
    platform::CLocalBuffer m_package;
    DWORD m_dwCursor = 0;       // of the next free byte in the package
    DWORD m_dwFirstFailure = 0; // of the stream; no reply of the device makes up for it
    std::uint64_t m_qwLeft = 0; // bytes of the current file still to be sent
    int m_bRet = 0;
};
