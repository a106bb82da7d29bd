// The seam: memory for the large buffers. Any thread.
#pragma once

#include "platform/types.h"

namespace platform {

// uBytes of memory; with LPTR in uFlags, as the library always calls, filled with zeroes. Null
// when there is none.
void* LocalAlloc(UINT uFlags, SIZE_T uBytes);

// Frees what LocalAlloc gave; null is harmless. Returns null.
void* LocalFree(void* hMem);

// Owns one block of LocalAlloc for the span of a scope.
class CLocalBuffer {
  public:
    CLocalBuffer() = default;
    explicit CLocalBuffer(SIZE_T dwBytes)
        : m_lpBytes(static_cast<BYTE*>(LocalAlloc(LPTR, dwBytes))) {}
    ~CLocalBuffer() { LocalFree(m_lpBytes); }
    CLocalBuffer(const CLocalBuffer&) = delete;
    CLocalBuffer& operator=(const CLocalBuffer&) = delete;

    // Frees the present block and takes a new one; false, with no block, when there is none.
    bool Allocate(SIZE_T dwBytes) {
        Free();
        m_lpBytes = static_cast<BYTE*>(LocalAlloc(LPTR, dwBytes));
        return m_lpBytes != nullptr;
    }
    void Free() {
        LocalFree(m_lpBytes);
        m_lpBytes = nullptr;
    }
    BYTE* Get() const { return m_lpBytes; }
    explicit operator bool() const { return m_lpBytes != nullptr; }

  private:
    BYTE* m_lpBytes = nullptr;
};

} // namespace platform
