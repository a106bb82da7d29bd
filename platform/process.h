// The seam: the list of running processes, and ending one. Any thread.
#pragma once

#include "platform/types.h"

namespace platform {

// One process of a snapshot. The file name may have folders ahead of it.
struct PROCESSENTRY32 {
    DWORD th32ProcessID;
    char szExeFile[260];
};

// A snapshot of the running processes (dwFlags TH32CS_SNAPPROCESS, th32ProcessID 0), closed with
// CloseHandle. 0 on failure.
HANDLE CreateToolhelp32Snapshot(DWORD dwFlags, DWORD th32ProcessID);

// The first and each further process of a snapshot, in its order. FALSE behind the last.
BOOL Process32First(HANDLE hSnapshot, PROCESSENTRY32* lppe);
BOOL Process32Next(HANDLE hSnapshot, PROCESSENTRY32* lppe);

// Opens a process with the right to end it (PROCESS_TERMINATE). 0 when it is gone or not ours.
HANDLE OpenProcess(DWORD dwDesiredAccess, BOOL bInheritHandle, DWORD dwProcessId);

// Ends a process without waiting for its end.
BOOL TerminateProcess(HANDLE hProcess, UINT uExitCode);

} // namespace platform
