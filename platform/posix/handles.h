// Handles: numbers that are looked up in one table of the process and never followed, so that a
// closed or invented one is refused. A number is not given out twice while the process lives (on
// machines of 64 bits; on smaller ones not before all others have been).
#pragma once

#include "platform/types.h"

#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace platform::posix {

class CDeadline;

void SetLastError(DWORD dwError) noexcept;

// Sets the calling thread's error number to the one that stands for a system error (errno).
void SetLastErrorFromErrno(int nErrno) noexcept;

// What stands behind a handle. The operations that not every kind has fail with
// ERROR_INVALID_HANDLE unless they are overridden.
class CObject {
  public:
    CObject() = default;
    virtual ~CObject() = default;
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;

    // Whether CloseHandle is the way to close it.
    virtual bool IsForCloseHandle() const { return true; }
    // Called once for each handle, when it has left the table. False, with the error number, when
    // the end brought a failure to light.
    virtual bool HandleClosed() noexcept { return true; }

    virtual DWORD Wait(const CDeadline& deadline);
    virtual BOOL Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount);
    virtual BOOL Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount);

    // Whether it is a device node, and has lost its device.
    virtual bool HasLostDevice() const noexcept { return false; }
};

// Enters the object into the table. Null, with ERROR_NOT_ENOUGH_MEMORY, when there is no room.
HANDLE AddHandle(std::shared_ptr<CObject> pObject) noexcept;

// The object behind a handle; null, with ERROR_INVALID_HANDLE, when there is none.
std::shared_ptr<CObject> FindAnyObject(HANDLE hObject) noexcept;

// Takes the handle from the table, if it is that object's, and tells the object. False when the
// handle has gone already, or the object's end brought a failure to light.
bool RemoveHandle(HANDLE hObject, const CObject* pObject) noexcept;

template <class OBJECT>
std::shared_ptr<OBJECT> FindObject(HANDLE hObject) noexcept {
    auto pObject = std::dynamic_pointer_cast<OBJECT>(FindAnyObject(hObject));
    if (pObject == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return pObject;
}

// Closes a handle of a kind that has its own function for it.
template <class OBJECT>
bool CloseObject(HANDLE hObject) noexcept {
    const auto pObject = FindObject<OBJECT>(hObject);
    return pObject != nullptr && RemoveHandle(hObject, pObject.get());
}

// Runs a body that may run out of memory; then the result is failure, with the error number.
template <class RESULT, class BODY>
RESULT WithMemory(RESULT failure, BODY body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return failure;
    }
}

// For the fork guard alone.
std::mutex& HandleTableMutex();

} // namespace platform::posix
