// A job: what DAKTransmitFiles hands to its worker, and what the two directions share.
#pragma once

#include "link/dak_vorn.h"
#include "link/path_text.h"
#include "platform/export.h"

// The job record, allocated by DAKTransmitFiles and freed by the worker.
struct _tagCopyJob {
    DWORD dwDirection; // DAK_FROM_DEVICE or DAK_TO_DEVICE
    WCHAR szSource[DAK_MAX_NAME];
    WCHAR szDest[DAK_MAX_NAME];
    CStringArray* pFileList; // the caller's, unchanged until the job has ended
};

// The one kind of job that does work.
inline constexpr DWORD DAK_COPY_FILES = 9;
// A kind whose records are freed as well, though nothing makes one.
inline constexpr DWORD DAK_COPY_NONE = 1;

// The worker's parameter, allocated and freed together with the job record.
struct _tagCommitParam {
    DWORD dwKind;
    _tagCopyJob* lpJob;
    CDAKVorn* pOwner;
    int nResult; // 0, then the result of CommitCopyMultiFiles
};

// Set when a copy from the device was cut short before its stream could tell the device; the end of
// the job then swallows what is in flight and sends the abort.
extern DAK_API BOOL g_bAbortPending;

// Wide text as narrow text. bExact tells whether every character could be kept.
CString NarrowText(const WCHAR* lpszText, bool& bExact);

// The name with backslashes as its only separators.
CString WithBackslashes(const char* lpszName);

// The number of characters ahead of the terminator.
SIZE_T WideLength(const WCHAR* lpszText);
