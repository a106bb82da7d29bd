// Handles of the seam are the system's own. What the system takes for the present process or
// thread, which includes INVALID_HANDLE_VALUE, never came from the seam and is refused ahead of
// every call.
#pragma once

#include "platform/types.h"

namespace platform::windows {

// False, with the error number set, for a value that can be no handle of the seam.
bool MayBeHandle(HANDLE hObject);

// Holds one of the seam's own locks for a scope.
class CLockHold {
  public:
    explicit CLockHold(SRWLOCK& lock) : m_lock(lock) { ::AcquireSRWLockExclusive(&m_lock); }
    ~CLockHold() { ::ReleaseSRWLockExclusive(&m_lock); }
    CLockHold(const CLockHold&) = delete;
    CLockHold& operator=(const CLockHold&) = delete;

  private:
    SRWLOCK& m_lock;
};

} // namespace platform::windows
