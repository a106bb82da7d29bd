#include "platform/memory.h"

namespace platform {

void* LocalAlloc(UINT uFlags, SIZE_T uBytes) {
    return ::LocalAlloc(uFlags, uBytes);
}

void* LocalFree(void* hMem) {
    return ::LocalFree(hMem);
}

} // namespace platform
