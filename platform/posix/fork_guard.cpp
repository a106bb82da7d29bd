// What a forked child must not have of its parent: CPrivateDescriptor, and whatever looks at
// ProcessGeneration. The process's tables are held while the process forks, so that the child finds
// them whole.
#include "platform/posix/carriers.h"
#include "platform/posix/descriptors.h"
#include "platform/posix/device_folder.h"
#include "platform/posix/handles.h"
#include "platform/posix/named_locks.h"
#include "platform/posix/waiting.h"
#include "platform/thread.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace platform::posix {
namespace {

std::mutex& ListMutex() {
    static std::mutex& mutex = *new std::mutex;
    return mutex;
}

CPrivateDescriptor* g_pFirst = nullptr;
std::atomic<DWORD> g_dwGeneration{0};

void HoldTables() {
    NamedLockMutex().lock();
    CarrierMutex().lock();
    HandleTableMutex().lock();
    DeviceChoiceMutex().lock();
    ListMutex().lock();
}

void ReleaseTables() {
    ListMutex().unlock();
    DeviceChoiceMutex().unlock();
    HandleTableMutex().unlock();
    CarrierMutex().unlock();
    NamedLockMutex().unlock();
}

} // namespace

void CloseInForkedChild() noexcept {
    ++g_dwGeneration;
    ForgetWordWaiters();
    ForgetStopEvents();
    for (CPrivateDescriptor* p = g_pFirst; p != nullptr; p = p->m_pNext) {
        ::close(std::exchange(p->m_nDescriptor, -1));
    }
    ReleaseTables();
}

static void WatchForks() noexcept {
    static const int nRegistered = pthread_atfork(HoldTables, ReleaseTables, CloseInForkedChild);
    static_cast<void>(nRegistered);
}

CPrivateDescriptor::CPrivateDescriptor(CDescriptor descriptor) noexcept
    : m_nDescriptor(descriptor.Release()) {
    WatchForks();
    const std::lock_guard hold(ListMutex());
    m_pNext = g_pFirst;
    if (m_pNext != nullptr) {
        m_pNext->m_pPrevious = this;
    }
    g_pFirst = this;
}

CPrivateDescriptor::~CPrivateDescriptor() {
    Close();
    const std::lock_guard hold(ListMutex());
    (m_pPrevious == nullptr ? g_pFirst : m_pPrevious->m_pNext) = m_pNext;
    if (m_pNext != nullptr) {
        m_pNext->m_pPrevious = m_pPrevious;
    }
}

void CPrivateDescriptor::Close() noexcept {
    const std::lock_guard hold(ListMutex());
    if (m_nDescriptor >= 0) {
        ::close(std::exchange(m_nDescriptor, -1));
    }
}

} // namespace platform::posix

namespace platform {

DWORD ProcessGeneration() {
    posix::WatchForks();
    return posix::g_dwGeneration.load(std::memory_order_relaxed);
}

} // namespace platform
