// Handles of the seam are the system's own. What the system takes for the present process or
// thread, which includes INVALID_HANDLE_VALUE, never came from the seam and is refused ahead of
// every call.
#pragma once

#include "platform/types.h"

namespace platform::windows {

// False, with the error number set, for a value that can be no handle of the seam.
bool MayBeHandle(HANDLE hObject);

// Closes its handle, unless that is null, at the end of a scope, and keeps the error number.
class CScopedHandle {
  public:
    explicit CScopedHandle(HANDLE hObject) : m_hObject(hObject) {}
    ~CScopedHandle() {
        if (m_hObject != nullptr) {
            const DWORD dwError = ::GetLastError();
            ::CloseHandle(m_hObject);
            ::SetLastError(dwError);
        }
    }
    CScopedHandle(const CScopedHandle&) = delete;
    CScopedHandle& operator=(const CScopedHandle&) = delete;

    HANDLE Get() const { return m_hObject; }

  private:
    HANDLE m_hObject;
};

} // namespace platform::windows
