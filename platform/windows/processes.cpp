#include "platform/process.h"

#include "platform/windows/handles.h"

#include <cstring>

namespace platform {
namespace {

using FWalk = BOOL(WINAPI*)(HANDLE, ::PROCESSENTRY32*);

BOOL Walk(FWalk walk, HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    ::PROCESSENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    if (!windows::MayBeHandle(hSnapshot) || walk(hSnapshot, &entry) == FALSE) {
        return FALSE;
    }
    static_assert(sizeof(entry.szExeFile) == sizeof(lppe->szExeFile));
    lppe->th32ProcessID = entry.th32ProcessID;
    std::memcpy(lppe->szExeFile, entry.szExeFile, sizeof(lppe->szExeFile));
    lppe->szExeFile[sizeof(lppe->szExeFile) - 1] = '\0';
    return TRUE;
}

} // namespace

HANDLE CreateToolhelp32Snapshot(DWORD dwFlags, DWORD th32ProcessID) {
    const HANDLE hSnapshot = ::CreateToolhelp32Snapshot(dwFlags, th32ProcessID);
    return hSnapshot != INVALID_HANDLE_VALUE ? hSnapshot : nullptr;
}

BOOL Process32First(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    return Walk(&::Process32First, hSnapshot, lppe);
}

BOOL Process32Next(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    return Walk(&::Process32Next, hSnapshot, lppe);
}

HANDLE OpenProcess(DWORD dwDesiredAccess, BOOL bInheritHandle, DWORD dwProcessId) {
    return ::OpenProcess(dwDesiredAccess, bInheritHandle, dwProcessId);
}

BOOL TerminateProcess(HANDLE hProcess, UINT uExitCode) {
    return windows::MayBeHandle(hProcess) ? ::TerminateProcess(hProcess, uExitCode) : FALSE;
}

} // namespace platform
