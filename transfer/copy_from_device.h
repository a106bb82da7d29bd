// The copy from the device: the wanted names go out in a chained command, the files come back in a
// single stream, and each is written beside its target and takes the target's name when it is
// whole.
#pragma once

#include "platform/array_classes.h"
#include "platform/memory.h"
#include "platform/types.h"

class CDAKVorn;

// The worker's state for one job. It lives on the worker, under the link's lock.
class CCopyFromDevice {
  public:
    CCopyFromDevice(CDAKVorn& owner, const WCHAR* lpSource, const WCHAR* lpDest,
                    const CStringArray& fileList);

    // The whole exchange. m_dwErrCode of the owner holds the outcome.
    void Run();

    // The device's word on the stream, 0 when none came.
    int Result() const { return m_bRet; }

  private:
    // One file of the stream.
    struct FileRecord {
        FileRecord() = default;
        FileRecord(const FileRecord&) = delete;
        FileRecord& operator=(const FileRecord&) = delete;
        ~FileRecord() { DropPart(); }
        void DropPart();

        std::uint64_t qwSize = 0;
        FILETIME ftCreation{};
        FILETIME ftLastWrite{};
        CString strName;   // relative, backslashes between its components
        CString strTarget; // the full host path
        CString strFolder; // the target's folder
        CString strPart;   // the file that grows beside the target, deleted with the record
    };

    // Request.
    bool SendRequest();
    bool AreNamesSendable() const;
    void BeginPiece(DWORD wCommand, DWORD packageLength);
    bool AddName(const char* lpszName);
    bool SendPiece();
    bool WritePiece(DWORD dwBytes);
    DWORD AwaitAcknowledgement(DWORD& dwCount);
    bool SendLastPiece(bool bGoesWell);

    // Stream.
    bool TakeStreamHead(DWORD& dwFileCount);
    bool TakeFile();
    bool TakeRecord(FileRecord& record);
    bool TakeName(FileRecord& record);
    bool TakeField(void* lpField, DWORD dwBytes);

    // Host files.
    bool MakeFolders(FileRecord& record);
    bool MakePartFile(FileRecord& record);
    void CheckRoom(const FileRecord& record);
    bool ReceiveContents(FileRecord& record);
    bool WriteRest(FileRecord& record, UINT nOpenFlags, DWORD dwLeft);
    bool TakeTargetName(FileRecord& record);
    static void SetTimes(const FileRecord& record);
    bool GiveUpFile(FileRecord& record, DWORD dwErrCode);
    DWORD HostFailure() const;
    void StopStream(DWORD dwErrCode);

    CDAKVorn& m_owner;
    const WCHAR* m_lpSource;
    const WCHAR* m_lpDest;
    const CStringArray& m_fileList;
    CString m_strSource; // narrow, without trailing backslashes
    CString m_strDest;   // the same
    bool m_bDestExact = false;
    platform::CLocalBuffer m_package;
    DWORD m_dwCursor = 0;       // write position in a request piece
    DWORD m_dwFailedReads = 0;  // of all acknowledgement waits of the request together
    DWORD m_dwOffset = 0;       // read position in the package in hand
    DWORD m_dwPackageBytes = 0; // end of valid data in it
    int m_bEnd = 0;             // the final package has been accepted
    int m_bRet = 0;
};
