#include "platform/windows/handles.h"

#include "platform/thread.h"
#include "platform/windows/device_node.h"
#include "platform/windows/threads.h"

namespace platform {

bool windows::MayBeHandle(HANDLE hObject) {
    if (reinterpret_cast<std::intptr_t>(hObject) > 0) {
        return true;
    }
    ::SetLastError(ERROR_INVALID_HANDLE);
    return false;
}

DWORD GetLastError() {
    return ::GetLastError();
}

// No process here is a copy of another.
DWORD ProcessGeneration() {
    return 0;
}

BOOL CloseHandle(HANDLE hObject) {
    if (!windows::MayBeHandle(hObject)) {
        return FALSE;
    }
    windows::ForgetThread(hObject);
    windows::ForgetNode(hObject);
    return ::CloseHandle(hObject);
}

} // namespace platform
