// The seam: threads, time, waits, the named lock, handles, the error number.
//
// Every function may be called from any thread. A failing call sets the calling thread's error
// number, which GetLastError gives; a succeeding one may leave it as it was, except where stated.
#pragma once

#include "platform/types.h"

namespace platform {

// The error number of the calling thread's latest failed call, and of CreateMutexA.
DWORD GetLastError();

// A number that differs between a process and each child that it forks and that goes on without
// another program; it never changes within a process. Threads, and what they held, are the parent's
// alone: for the child, their handles stand for threads that have ended.
DWORD ProcessGeneration();

// Delays the calling thread by at least dwMilliseconds (0 gives way to other threads).
void Sleep(DWORD dwMilliseconds);

// Starts lpStartAddress(lpParameter) on a thread of its own: at once, or with CREATE_SUSPENDED in
// dwCreationFlags, the one flag known, at ResumeThread. The attributes, the stack size (0: the
// system's own) and lpThreadId (may be null) have no effect the library relies on. Returns 0 on
// failure. The handle is the caller's and stays valid after the thread's end; closing it does not
// stop the thread. All that the caller wrote before the call is visible to the thread.
HANDLE CreateThread(_SECURITY_ATTRIBUTES* lpThreadAttributes, SIZE_T dwStackSize,
                    LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, DWORD dwCreationFlags,
                    DWORD* lpThreadId);

// Lets a thread made with CREATE_SUSPENDED run. Returns 1, or 0xFFFFFFFF for anything else.
DWORD ResumeThread(HANDLE hThread);

// Stops a thread: every platform call in which it blocks now or would block later fails at once,
// and the function returns when the thread has run to its end, so that it touches no buffer, count
// or handle afterwards. The pipe of a transfer cut short so stays usable, and what the transfer had
// already received is kept for the next read. Nothing of the thread is killed inside other code:
// a thread that never enters a platform call is waited for. A suspended thread ends without
// having run. dwExitCode is ignored where the thread ends by itself. Not to be called by a thread
// on itself. Returns FALSE for a handle that names no thread.
BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode);

// Waits for a thread's end or takes a lock. Returns WAIT_OBJECT_0, WAIT_TIMEOUT when
// dwMilliseconds have passed first (INFINITE: never), WAIT_FAILED for a bad handle or in a thread
// that is being stopped. After WAIT_OBJECT_0 on a thread all that it wrote is visible.
DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds);

// Opens the lock lpName, or makes it, free, when nobody on the host has it open; null makes a lock
// without a name. bInitialOwner is FALSE wherever the library calls. Returns 0 on failure. On
// success GetLastError gives ERROR_ALREADY_EXISTS when the lock existed, in this process or
// another that can reach the same devices, and 0 when not. The lock exists while a handle on it
// is open; the end of a process, however it comes, closes its handles and gives up its hold.
//
// A hold is not tied to a thread: whoever has a handle may release what another thread took.
HANDLE CreateMutexA(_SECURITY_ATTRIBUTES* lpMutexAttributes, BOOL bInitialOwner,
                    const char* lpName);

// Gives up the hold. Without a hold it has no effect and returns FALSE.
BOOL ReleaseMutex(HANDLE hMutex);

// Closes a handle of any kind that the seam gave out. A hold that the lock
// handle's process still has ends with the last handle. FALSE for anything that is not open; and
// for a file, which then is closed all the same, when the system tells only now that bytes which it
// took before did not reach the disk.
BOOL CloseHandle(HANDLE hObject);

// Blocks while the 32-bit word at lpAddress equals dwCompare, until a WakeByAddressAll on the same
// address or the time-out; may also return for no reason, so the caller looks again. FALSE with
// the error number WAIT_TIMEOUT at the time-out. The word is written with atomic operations.
BOOL WaitOnAddress(DWORD* lpAddress, DWORD dwCompare, DWORD dwMilliseconds);

// Wakes every thread that waits on the word.
void WakeByAddressAll(DWORD* lpAddress);

} // namespace platform
