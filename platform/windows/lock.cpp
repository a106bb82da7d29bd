// The lock is a semaphore of count 1 and not a mutex of the system: a mutex is held by a thread,
// released by none other, and handed on when that thread ends.
//
// The system gives up the hold of a process that has ended when the last handle on the lock is
// closed. The library closes at once a handle on a lock that had existed, so this is when the
// holder's own is.
#include "platform/thread.h"
#include "platform/windows/handles.h"

namespace platform {

HANDLE CreateMutexA(_SECURITY_ATTRIBUTES* lpMutexAttributes, BOOL bInitialOwner,
                    const char* lpName) {
    ::SetLastError(ERROR_SUCCESS);
    return ::CreateSemaphoreA(lpMutexAttributes, bInitialOwner != FALSE ? 0 : 1, 1, lpName);
}

BOOL ReleaseMutex(HANDLE hMutex) {
    return windows::MayBeHandle(hMutex) ? ::ReleaseSemaphore(hMutex, 1, nullptr) : FALSE;
}

} // namespace platform
