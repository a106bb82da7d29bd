#include "platform/posix/handles.h"

#include "platform/thread.h"

#include <cerrno>
#include <cstdint>
#include <unordered_map>

namespace platform {
namespace {

thread_local DWORD t_dwLastError = ERROR_SUCCESS;

} // namespace

DWORD GetLastError() {
    return t_dwLastError;
}

BOOL CloseHandle(HANDLE hObject) {
    const auto pObject = posix::FindAnyObject(hObject);
    if (pObject == nullptr) {
        return FALSE;
    }
    if (!pObject->IsForCloseHandle()) {
        posix::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return posix::RemoveHandle(hObject, pObject.get()) ? TRUE : FALSE;
}

} // namespace platform

namespace platform::posix {
namespace {

// The tables of the process are never taken down: threads may still use them while it ends.
struct CHandleTable {
    std::mutex m_mutex;
    std::unordered_map<std::uintptr_t, std::shared_ptr<CObject>> m_objects;
    std::uintptr_t m_dwNext = FIRST;

    static constexpr std::uintptr_t FIRST = 0x100;
    static constexpr std::uintptr_t LAST = ~std::uintptr_t{0} - 0xFF;
};

CHandleTable& Table() {
    static CHandleTable& table = *new CHandleTable;
    return table;
}

// Numbers go up in fours, as the platform's handles do, and keep clear of 0, of all ones and of
// the predefined registry keys.
std::uintptr_t NextNumber(CHandleTable& table) {
    for (;;) {
        const std::uintptr_t dwNumber = table.m_dwNext;
        table.m_dwNext = dwNumber >= CHandleTable::LAST ? CHandleTable::FIRST : dwNumber + 4;
        const bool bReserved = (dwNumber & ~std::uintptr_t{0xFF}) == 0x80000000;
        if (!bReserved && !table.m_objects.contains(dwNumber)) {
            return dwNumber;
        }
    }
}

} // namespace

std::mutex& HandleTableMutex() {
    return Table().m_mutex;
}

void SetLastError(DWORD dwError) noexcept {
    t_dwLastError = dwError;
}

void SetLastErrorFromErrno(int nErrno) noexcept {
    switch (nErrno) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
        return SetLastError(ERROR_FILE_NOT_FOUND);
    case ENOTDIR:
    case ELOOP:
        return SetLastError(ERROR_PATH_NOT_FOUND);
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
    case ETXTBSY:
        return SetLastError(ERROR_ACCESS_DENIED);
    case EEXIST:
    case ENOTEMPTY:
        return SetLastError(ERROR_ALREADY_EXISTS);
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return SetLastError(ERROR_DISK_FULL);
    case EMFILE:
    case ENFILE:
        return SetLastError(ERROR_TOO_MANY_OPEN_FILES);
    case ENOMEM:
        return SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    case ENAMETOOLONG:
    case EILSEQ:
        return SetLastError(ERROR_INVALID_NAME);
    case EINVAL:
        return SetLastError(ERROR_INVALID_PARAMETER);
    case EBUSY:
        return SetLastError(ERROR_SHARING_VIOLATION);
    default:
        return SetLastError(ERROR_GEN_FAILURE);
    }
}

DWORD CObject::Wait(const CDeadline& /*deadline*/) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

BOOL CObject::Read(void* /*lpBuffer*/, DWORD /*dwSize*/, DWORD* /*lpdwCount*/) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

BOOL CObject::Write(const void* /*lpBuffer*/, DWORD /*dwSize*/, DWORD* /*lpdwCount*/) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

HANDLE AddHandle(std::shared_ptr<CObject> pObject) noexcept {
    return WithMemory<HANDLE>(nullptr, [&] {
        CHandleTable& table = Table();
        const std::lock_guard hold(table.m_mutex);
        const std::uintptr_t dwNumber = NextNumber(table);
        table.m_objects.emplace(dwNumber, std::move(pObject));
        return reinterpret_cast<HANDLE>(dwNumber);
    });
}

std::shared_ptr<CObject> FindAnyObject(HANDLE hObject) noexcept {
    CHandleTable& table = Table();
    {
        const std::lock_guard hold(table.m_mutex);
        const auto it = table.m_objects.find(reinterpret_cast<std::uintptr_t>(hObject));
        if (it != table.m_objects.end()) {
            return it->second;
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

bool RemoveHandle(HANDLE hObject, const CObject* pObject) noexcept {
    CHandleTable& table = Table();
    std::shared_ptr<CObject> pRemoved;
    {
        const std::lock_guard hold(table.m_mutex);
        const auto it = table.m_objects.find(reinterpret_cast<std::uintptr_t>(hObject));
        if (it != table.m_objects.end() && it->second.get() == pObject) {
            pRemoved = std::move(it->second);
            table.m_objects.erase(it);
        }
    }
    if (pRemoved == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return pRemoved->HandleClosed();
}

} // namespace platform::posix
