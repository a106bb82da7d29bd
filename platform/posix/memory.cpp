#include "platform/memory.h"

#include "platform/posix/handles.h"

#include <cstdlib>

namespace platform {

void* LocalAlloc(UINT uFlags, SIZE_T uBytes) {
    // A block of no bytes is a block all the same.
    const SIZE_T dwBytes = uBytes == 0 ? 1 : uBytes;
    constexpr UINT ZERO_INIT = 0x40;
    void* hMem = (uFlags & ZERO_INIT) != 0 ? std::calloc(1, dwBytes) : std::malloc(dwBytes);
    if (hMem == nullptr) {
        posix::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return hMem;
}

void* LocalFree(void* hMem) {
    std::free(hMem);
    return nullptr;
}

} // namespace platform
