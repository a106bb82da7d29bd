// CDAKVorn: work on a handheld device attached by USB.
//
// Create an object and call its operations; no other call opens or closes it. Each operation finds
// the device, shakes hands, does its exchange and leaves nothing open. Operations that return a
// DWORD return 0 for success or one of the results of link/result.h; GetLastError says more.
//
// Threads: operations run on the caller's thread. Those of one process that overlap, on any object
// and any thread, wait for one another and for a running job; what they can refuse, or answer
// without a link, they do at once. A job that TerminateTransfer had to leave to itself is waited
// for by nobody: until its worker has ended they return DAKERROR_BUSY. While a job runs these may
// be called from any thread without waiting for it: GetCopyStatus, IsTransmitting,
// TerminateTransfer (which itself waits up to 2 seconds), GetLastError, DAKGetVersionNumber,
// ClearFileList, ClearStorageList; and DAKTransmitFiles returns DAKERROR_BUSY. No object is
// destroyed or assigned while another thread uses it.
//
// Paths of the device are wide text, separated by backslashes; a path argument must be neither
// null nor empty unless stated, otherwise the operation returns DAKERROR_FAIL without a link. Paths
// of the host are narrow text in the ANSI code page (UTF-8 where the system has none), with at most
// 260 characters, terminator included.
#pragma once

#include "device_services/storage_info.h"
#include "link/result.h"
#include "link/wire.h"
#include "platform/array_classes.h"
#include "platform/export.h"
#include "platform/types.h"
#include "remote_files/file_info.h"

#include <cstddef>
#include <new>

enum class OperationFrame : int;

class DAK_API CDAKVorn {
  public:
    CDAKVorn();
    virtual ~CDAKVorn();

    // A copy has the settings and results of its source, a resend buffer of its own, and no handles
    // and no worker. Assignment first ends what the target had open.
    CDAKVorn(const CDAKVorn& other);
    CDAKVorn& operator=(const CDAKVorn& other);

    // An object's memory is the library's, whichever side makes or ends it: the two may have
    // runtimes of their own.
    static void* operator new(std::size_t dwBytes);
    static void* operator new(std::size_t dwBytes, const std::nothrow_t& noThrow) noexcept;
    static void operator delete(void* lpObject) noexcept;

    // Link.

    // Whether a device is there and answers: 0, DAKERROR_BUSY or DAKERROR_NO_DEVICE.
    DWORD ConnectDevice();

    // The latest result, or a finer state of it (link/result.h). During a job it shows whatever the
    // job has just written.
    DWORD GetLastError();

    // Stores the library's two version words, 26869961 and 65541, unless a pointer is null.
    void DAKGetVersionNumber(DWORD* lpdwVersion1, DWORD* lpdwVersion2);

    // Transfer.

    // Starts a job on a thread of its own that copies files between a host folder and a device
    // folder, and returns 0 when it was started. nDirection is DAK_FROM_DEVICE or DAK_TO_DEVICE;
    // lpSource and lpDest are the folders, without a trailing separator, of below 260 characters,
    // not null. pFileList, which the caller keeps unchanged until the job has ended, holds for
    // DAK_TO_DEVICE full host paths below lpSource, for DAK_FROM_DEVICE names below it. Files are
    // below 4 GiB. When the job has ended, hNotifyWnd (0: none) is sent WM_DAK_TRANSFER_END, and
    // GetLastError holds the outcome: 0, DAKERROR_CANCELLED, DAKERROR_PROTOCOL, DAKERROR_NO_SPACE,
    // DAKERROR_DEVICE_REFUSED, DAKERROR_FAIL or DAKERROR_NO_DEVICE. In a copy to the device 0 can
    // also mean that there is no verdict: the device gave no final reply or a result of 0, there
    // was no memory for the request, or files of the list could not be opened and were left out.
    // Who must know lists the device's folder. Without a window, IsTransmitting stays TRUE until
    // TerminateTransfer.
    DWORD DAKTransmitFiles(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                           CStringArray* pFileList, HWND hNotifyWnd);

    // The current file: its two paths into buffers of at least 260 bytes, the low halves of its
    // size and of the bytes copied, and the per cent copied. Writes nothing unless IsTransmitting.
    void GetCopyStatus(char* lpszSource, char* lpszDest, DWORD& dwTotal, DWORD& dwCopied,
                       int& nPercent);

    // Whether a job, DAKReadFile or DAKWriteFile runs, or a job without a window has ended and
    // TerminateTransfer has not been called.
    BOOL IsTransmitting();

    // Cuts the running job, read or write short. Waits up to 2 seconds for a job to end; a worker
    // that takes longer ends later by itself.
    void TerminateTransfer();

    // Device files by handle. A handle is made by the device, stays valid across operations and
    // objects, and is neither 0 nor all ones. The words of DAKCreateFile and dwMoveMethod go to the
    // device as they are.

    DWORD DAKCreateFile(const WCHAR* lpFileName, DWORD dwOpenWord1, DWORD dwOpenWord2,
                        DWORD dwOpenWord3, void** lphFile);
    // A short read is a success; at the end of the file the result is DAKERROR_FAIL, with
    // GetLastError 0 and a count of 0.
    DWORD DAKReadFile(void* hFile, void* lpBuffer, DWORD nBytesToRead, DWORD* lpdwBytesRead);
    // *lpdwBytesWritten counts what was handed to the stream, also where the device then refused.
    DWORD DAKWriteFile(void* hFile, void* lpBuffer, DWORD nBytesToWrite, DWORD* lpdwBytesWritten);
    // *lpdwNewPos is all ones on failure.
    DWORD DAKSetFilePointer(void* hFile, LONG lDistance, DWORD dwMoveMethod, DWORD* lpdwNewPos);
    DWORD DAKCloseFile(void* hFile);

    // Device files and folders by path.

    // The attributes have no effect.
    DWORD DAKCreateDirectory(const WCHAR* lpPathName, _SECURITY_ATTRIBUTES* lpSecurityAttributes);
    // DAKERROR_NO_DEVICE when the device vanished during the exchange.
    DWORD DAKDeleteFile(const WCHAR* lpFileName);
    DWORD DAKMoveFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName);
    DWORD DAKCopyFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName,
                      int bFailIfExists);
    // lpFileInfo must be valid; it is untouched when no response came.
    DWORD DAKGetFileInfo(const WCHAR* lpFileName, _tagFileInfo* lpFileInfo);
    // Appends the entries of a folder to the caller's array; those completed before a failure stay.
    DWORD DAKGetFolderContent(const WCHAR* lpPathName,
                              CArray<_tagFileInfo, _tagFileInfo>* pFileList);
    // Frees an array's data block and leaves it empty.
    void ClearFileList(CArray<_tagFileInfo, _tagFileInfo>* pFileList);

    // The device's system.

    // With lpdwResult, waits for the program's end and stores its value. A null command line is an
    // empty one. DAKERROR_NO_DEVICE when the device vanished during the exchange.
    DWORD DAKCreateProcess(const WCHAR* lpszImage, const WCHAR* lpszCommandLine, DWORD* lpdwResult);
    // Without an output buffer the result is DAKERROR_FAIL although the device took the command. So
    // it is, with nothing sent, when the two buffers and the command exceed 1 MiB together.
    DWORD DAKKernelIoControl(DWORD dwIoControlCode, void* lpIn, DWORD nInSize, void* lpOut,
                             DWORD nOutSize, DWORD* lpdwBytesReturned);
    DWORD DAKRegisterWindowMessage(const WCHAR* lpszMessage, DWORD* lpdwMessage);
    DWORD DAKBroadCastMessage(UINT uMessage, UINT wParam, LONG lParam);

    // Storage.

    // Both pointers or neither; two null pointers are success without asking the device.
    DWORD DAKGetDeviceFreeSpace(DWORD* lpdwWord1, DWORD* lpdwWord2);
    // A null path, or a refusal by the device, gives 6; an empty path goes to the device.
    DWORD DAKGetFolderFreeSpace(const WCHAR* lpPathName, std::uint64_t* lpqwFreeSpace);
    // Appends the device's storages to the caller's array.
    DWORD DAKGetStorageInfo(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList);
    DWORD DAKFormatPartition(const WCHAR* lpPartitionName);
    void ClearStorageList(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList);

    // The worker of a job; lpParameter is a _tagCommitParam (transfer/copy_job.h). 0, or -1 when
    // the parameter or its owner is null.
    static DWORD WINAPI Commit_Thread(void* lpParameter);

  private:
    friend class CExchange;
    friend class CCopyToDevice;
    friend class CCopyFromDevice;
    friend class CFolderReader;
    friend struct CDAKVornTestAccess;

    // Device connection: link/device_connection.cpp. All results are true or false.
    int Initial();
    void DeInitial();
    int OpenDevice();
    int IsDeviceAvailable();
    int IsDeviceConnected();
    int TerminateActiveSync();
    int Connect();
    int DisConnect();
    int Handshake(DWORD wCommand, DWORD dwTimeoutMs);

    // USB pipe: link/usb_pipe.cpp. True means that at least one byte moved, or none was asked for.
    // A dwTimeout of 0 stands for dwSize + 500 ms.
    int ReadUSBData(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount, DWORD dwTimeout);
    int WriteUSBData(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount);
    static DWORD WINAPI ReadUSBThread(void* lpParam);
    static DWORD WINAPI WriteUSBThread(void* lpParam);

    // The operation frame: link/operation_frame.h.
    template <class TCommit>
    DWORD RunOperation(OperationFrame eFrame, bool bArgumentsPass, TCommit&& commit);
    DWORD BringLinkUp();
    DWORD LeaveOperation(OperationFrame eFrame, bool bDone);
    DWORD EndAtOnce(DWORD dwErrCode);
    void TakeSettings(const CDAKVorn& other);
    void EndWhatIsOpen();

    // Bulk stream: stream/. 1 done, 0 failed with m_dwErrCode saying why.
    int SendDataPackage(BYTE* lpPackage, DWORD dwBytes, int bLast);
    void KeepForResend(const BYTE* lpPackage);
    int AbortSending();
    int AwaitConfirmation(BYTE* lpPackage, DWORD dwBytes);
    DWORD AwaitAnswer(BYTE* lpPackage, DWORD dwBytes, const char* lpszTrace);
    int ResendWindow();
    int ResendSlot(DWORD dwSlot);
    int JudgeAnswer(DWORD wAnswer, int nTry);
    int ReceiveDataPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd, WORD codeFunc);
    int DrainAndAbort();
    int FailByPresence();
    int ReadFirstPackage(BYTE* lpBuffer);
    int RecoverPackage(BYTE* lpBuffer);
    int SkipRepeatedPackage(BYTE* lpBuffer);
    int ReadHeadWhilePresent(BYTE* lpBuffer, bool& bHead);
    int AcceptPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd);
    int WriteControl(DWORD wCommand);
    int FetchPackage(BYTE* lpBuffer, DWORD& dwPackageBytes, int& bEnd, WORD codeFunc);
    int FieldOverrunsPackage(int bEnd);
    int AddBuffData(BYTE* lpBuffer, const BYTE* lpData, DWORD nDataBytes, DWORD& packageLength,
                    DWORD nBufferSize, WORD codeFunc);
    int GetBuffData(BYTE* lpBuffer, BYTE* lpData, DWORD nDataBytes, DWORD& dwOffset,
                    DWORD& dwPackageBytes, int& bEnd, WORD codeFunc);
    int GetBuffString(BYTE* lpBuffer, WCHAR* lpszString, DWORD& dwOffset, DWORD& dwPackageBytes,
                      int& bEnd, int nMaxChars);

    // The private halves of the operations: the wire exchange, under the lock. They return the
    // device's result word, or 0 for failure.
    void DrainWindow(DWORD dwTimeoutMs);
    void DrainPipe(int nReadsAtLeast, DWORD dwPauseMs);
    int CommitCopyMultiFiles(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                             CStringArray* pFileList);
    DWORD StartJob(UINT nDirection, const WCHAR* lpSource, const WCHAR* lpDest,
                   CStringArray* pFileList);
    void EndJob(bool bDrain);
    void SwallowAndAbort();
    void ForgetFile(bool bOwnJob);
    int CommitCreateFile(const WCHAR* lpFileName, DWORD dwOpenWord1, DWORD dwOpenWord2,
                         DWORD dwOpenWord3, void** lphFile);
    int CommitReadFile(void* hFile, void* lpBuffer, DWORD nBytesToRead, DWORD* lpdwBytesRead);
    int CommitWriteFile(void* hFile, void* lpBuffer, DWORD nBytesToWrite, DWORD* lpdwBytesWritten);
    int SendFileBytes(const BYTE* lpBytes, DWORD dwLeft, DWORD* lpdwBytesWritten);
    int CommitSetFilePointer(void* hFile, LONG lDistance, DWORD dwMoveMethod, DWORD* lpdwNewPos);
    int CommitCloseFile(void* hFile);
    int CommitCreateDirectory(const WCHAR* lpPathName, _SECURITY_ATTRIBUTES* lpSecurityAttributes);
    int CommitDeleteFile(const WCHAR* lpFileName);
    int CommitMoveFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName);
    int CommitCopyFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName,
                       int bFailIfExists);
    int CommitGetFileInfo(const WCHAR* lpFileName, _tagFileInfo* lpFileInfo);
    int CommitGetFolderContent(const WCHAR* lpPathName,
                               CArray<_tagFileInfo, _tagFileInfo>* pFileList);
    int CommitCreateProcess(const WCHAR* lpszImage, const WCHAR* lpszCommandLine,
                            DWORD* lpdwResult);
    int CommitKernelIoControl(DWORD dwIoControlCode, void* lpIn, DWORD nInSize, void* lpOut,
                              DWORD nOutSize, DWORD* lpdwBytesReturned);
    int CommitRegisterWindowMessage(const WCHAR* lpszMessage, DWORD* lpdwMessage);
    int CommitBroadCastMessage(UINT uMessage, UINT wParam, LONG lParam);
    int CommitGetDeviceFreeSpace(DWORD* lpdwWord1, DWORD* lpdwWord2);
    int CommitGetFolderFreeSpace(const WCHAR* lpPathName, std::uint64_t* lpqwFreeSpace);
    int CommitGetStorageInfo(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList);
    int CommitFormatPartition(const WCHAR* lpPartitionName);

    // The members, in their fixed order. Those that a job's worker and its caller share are
    // accessed through link/shared_word.h, the path texts under g_PathLock (link/path_text.h).
    DWORD m_dwRecvPackages;       // data packages received in this stream
    DWORD m_dwWindowPackages;     // packages per acknowledgement window
    DWORD m_dwSentPackages;       // data packages sent in this stream, the request counted
    DWORD m_dwPackageSize;        // bytes of a package
    BYTE* m_lpResendBuf;          // owned: one window of packages
    int m_nResendCount;           // packages held in it; set by the owner of a stream
    DWORD m_dwLastPackageSize;    // size of the latest package held
    DWORD m_bSyncStopped;         // synchronisation processes were ended for this object
    int m_dwRetryStep;            // ms: extra delay for each retry
    int m_dwRetryBase;            // ms: base delay
    DWORD m_dwCpuMHz;             // the host's processor speed
    DWORD* m_lpdwSizeOut;         // count target of the USB worker
    DWORD m_dwSizeIn;             // byte count of the USB worker
    const void* m_lpWriteBuf;     // buffer of the write worker
    void* m_lpReadBuf;            // buffer of the read worker
    HANDLE m_hDevice;             // device node; all ones when closed
    DWORD m_dwErrCode;            // latest result and stream state
    HWND m_hNotifyWnd;            // window for the message at the end of a job
    DWORD m_dwDeviceVersion;      // version word of the device
    int m_nCopyResult;            // latest result word of a job
    BOOL m_bCopying;              // a job or stream runs; clearing it cancels
    HANDLE m_hCommitThread;       // the job's worker; 0 when none
    std::uint64_t m_dwSizeCopied; // bytes of the current file copied
    std::uint64_t m_dwSizeTotal;  // size of the current file
    char m_szSourcePath[260];     // source path shown by GetCopyStatus
    char m_szDestPath[260];       // destination path shown by GetCopyStatus
    char m_szPartPath[260];       // host file that is deleted when a job is cut short
};
