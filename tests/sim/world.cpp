#include "tests/sim/world.h"

#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace sim {

namespace {

constexpr std::uint64_t NEVER = ~0ull;
constexpr std::size_t MAX_EVENTS = 300'000;
constexpr std::size_t EVENTS_SHOWN = 60;

// A stopped thread may look again and again for something that another thread still has to do.
// Behind the first bound its refused calls let time pass, behind the second it is given up.
constexpr unsigned REFUSALS_FREE = 1000;
constexpr unsigned REFUSALS_MAX = 1'000'000;

constexpr std::size_t FAILING_CALLS = 0
#define SIM_ONE(name) +1
    SIM_CALLS_THAT_FAIL(SIM_ONE)
#undef SIM_ONE
    ;

std::atomic<CWorld*> g_pWorld{nullptr};
thread_local CThread* t_pThread = nullptr;
thread_local DWORD t_dwError = 0;

} // namespace

const char* CallName(ECall eCall) {
    static const char* const NAMES[] = {
#define SIM_NAME(name) #name,
        SIM_CALLS_THAT_FAIL(SIM_NAME) SIM_CALLS_THAT_SUCCEED(SIM_NAME)
#undef SIM_NAME
    };
    return NAMES[static_cast<std::size_t>(eCall)];
}

void SetError(DWORD dwError) {
    t_dwError = dwError;
}

CWorld* CWorld::Current() {
    CWorld* pWorld = g_pWorld.load();
    return pWorld != nullptr && t_pThread != nullptr && t_pThread->pWorld == pWorld ? pWorld
                                                                                    : nullptr;
}

CWorld::CWorld() {
    if (g_pWorld.exchange(this) != nullptr) {
        std::fputs("a simulated host is there already\n", stderr);
        std::abort();
    }
    auto pThread = MakeThread({});
    pThread->eState = CThread::EState::Running;
    m_carriers.push_back(std::make_unique<CCarrier>());
    pThread->pCarrier = m_carriers[0].get();
    m_threads.push_back(pThread);
    t_pThread = pThread.get();
    t_dwError = 0;
    AddProcess("System");
    AddProcess("explorer.exe");
}

CWorld::~CWorld() {
    m_bEnding = true;
    StopAll();
    while (m_threads.size() > 1) {
        Block(&m_threads, {}, "the end of all threads", 0, true);
    }
    for (const auto& pCarrier : m_carriers) {
        {
            const std::lock_guard hold(m_mutex);
            pCarrier->bEnd = true;
            pCarrier->condition.notify_one();
        }
        if (pCarrier->thread.joinable()) {
            pCarrier->thread.join();
        }
    }
    if (::testing::Test::HasFailure()) {
        const std::size_t dwFirst = m_trace.size() - std::min(m_trace.size(), EVENTS_SHOWN);
        std::fprintf(stderr, "The simulated host at %llu ms, its last %zu of %zu events:\n",
                     static_cast<unsigned long long>(m_qwNowMs), m_trace.size() - dwFirst,
                     m_trace.size());
        for (std::size_t i = dwFirst; i < m_trace.size(); ++i) {
            std::fprintf(stderr, "  %8llu %s\n", static_cast<unsigned long long>(m_trace[i].qwMs),
                         m_trace[i].strText.c_str());
        }
    }
    t_pThread = nullptr;
    g_pWorld = nullptr;
}

void CWorld::At(std::uint64_t qwMs, std::function<void()> action) {
    m_actions.emplace(qwMs, std::move(action));
}

// The baton.

void CWorld::GiveBaton(CThread& thread) {
    const std::lock_guard hold(m_mutex);
    thread.pCarrier->bBaton = true;
    thread.pCarrier->condition.notify_one();
}

// False: the world ends, and nothing is left to carry.
bool CWorld::AwaitBaton(CCarrier& carrier) {
    std::unique_lock hold(m_mutex);
    carrier.condition.wait(hold, [&] { return carrier.bBaton || carrier.bEnd; });
    return std::exchange(carrier.bBaton, false);
}

void CWorld::HandOver(CThread& self) {
    CThread& next = PickNext();
    next.eState = CThread::EState::Running;
    if (&next != &self) {
        GiveBaton(next);
        AwaitBaton(*self.pCarrier);
    }
}

CThread& CWorld::PickNext() {
    while (m_ready.empty()) {
        Advance();
    }
    CThread& next = *m_ready.front();
    m_ready.erase(m_ready.begin());
    return next;
}

void CWorld::Advance() {
    std::uint64_t qwNext = m_actions.empty() ? NEVER : m_actions.begin()->first;
    for (const auto& pThread : m_threads) {
        if (pThread->eState == CThread::EState::Waiting) {
            qwNext = std::min(qwNext, pThread->qwDue);
        }
    }
    if (m_pPeer != nullptr) {
        const std::uint64_t qwPeerDue = m_pPeer->NextDueMs().value_or(NEVER);
        // One that asks for a moment at which it has already been told the time gets nothing more.
        if (qwPeerDue > m_qwNowMs || m_qwPeerToldMs != m_qwNowMs) {
            qwNext = std::min(qwNext, qwPeerDue);
        }
    }
    if (qwNext == NEVER) {
        if (m_bFailed || m_bEnding) {
            std::fprintf(stderr, "threads of the simulated host cannot be ended:\n%s",
                         Threads().c_str());
            std::abort();
        }
        Fail("All threads wait for ever.");
        return;
    }
    m_qwNowMs = std::max(m_qwNowMs, qwNext);
    if (m_qwNowMs > qwTimeLimitMs) {
        Fail("The limit of virtual time is passed.");
    }
    while (!m_actions.empty() && m_actions.begin()->first <= m_qwNowMs) {
        const auto action = std::move(m_actions.begin()->second);
        m_actions.erase(m_actions.begin());
        action();
    }
    if (m_pPeer != nullptr && m_pPeer->NextDueMs().value_or(NEVER) <= m_qwNowMs &&
        m_qwPeerToldMs != m_qwNowMs) {
        m_qwPeerToldMs = m_qwNowMs;
        m_pPeer->SetTime(m_qwNowMs);
        PeerChanged();
    }
    std::vector<CThread*> due;
    for (const auto& pThread : m_threads) {
        if (pThread->eState == CThread::EState::Waiting && pThread->qwDue <= m_qwNowMs) {
            due.push_back(pThread.get());
        }
    }
    std::sort(due.begin(), due.end(), [](const CThread* pLeft, const CThread* pRight) {
        return pLeft->qwWaitNumber < pRight->qwWaitNumber;
    });
    for (CThread* pThread : due) {
        MakeReady(*pThread, EWake::TimedOut);
    }
}

void CWorld::MakeReady(CThread& thread, EWake eWake) {
    if (thread.eState == CThread::EState::Waiting) {
        thread.eState = CThread::EState::Ready;
        thread.eWake = eWake;
        m_ready.push_back(&thread);
    }
}

EWake CWorld::Block(const void* lpKey, std::optional<std::uint64_t> qwDue, const char* lpszWaitsFor,
                    std::uint64_t qwArgument, bool bEvenIfStopped) {
    CThread& self = *t_pThread;
    if (!bEvenIfStopped && IsStopped()) {
        Refuse(self);
        return EWake::Stopped;
    }
    self.lpWaitKey = lpKey;
    self.qwDue = qwDue.value_or(NEVER);
    self.qwWaitNumber = ++m_qwWaits;
    self.lpszWaitsFor = lpszWaitsFor;
    self.qwWaitArgument = qwArgument;
    self.eState = CThread::EState::Waiting;
    HandOver(self);
    return self.eWake;
}

void CWorld::Refuse(CThread& self) {
    if (++self.nRefused > REFUSALS_MAX) {
        std::fprintf(stderr, "thread %d does not end although its calls fail:\n%s", self.nNumber,
                     Threads().c_str());
        std::abort();
    }
    if (self.nRefused > REFUSALS_FREE) {
        Block(nullptr, m_qwNowMs + 1, "another look", 0, true);
    } else if (!m_ready.empty()) {
        self.eState = CThread::EState::Ready;
        m_ready.push_back(&self);
        HandOver(self);
    }
}

std::optional<std::uint64_t> CWorld::DueAfter(DWORD dwMs) const {
    return dwMs == INFINITE ? std::nullopt : std::optional(m_qwNowMs + dwMs);
}

void CWorld::WakeAll(const void* lpKey) {
    for (const auto& pThread : m_threads) {
        if (pThread->lpWaitKey == lpKey) {
            MakeReady(*pThread, EWake::Woken);
        }
    }
}

bool CWorld::IsStopped() const {
    return m_bFailed || m_bEnding || t_pThread->bStop;
}

void CWorld::StopAll() {
    const auto all = m_threads;
    for (const auto& pThread : all) {
        if (pThread->eState == CThread::EState::Suspended) {
            std::erase(m_threads, pThread);
            pThread->eState = CThread::EState::Ended;
        }
        MakeReady(*pThread, EWake::Stopped);
    }
}

void CWorld::Fail(const std::string& strWhy) {
    if (m_bFailed || m_bEnding) {
        return;
    }
    m_bFailed = true;
    ADD_FAILURE() << strWhy << " Threads at " << m_qwNowMs << " ms:\n" << Threads();
    StopAll();
}

// Threads.

std::shared_ptr<CThread> CWorld::MakeThread(std::function<DWORD()> entry) {
    auto pThread = std::make_shared<CThread>();
    pThread->pWorld = this;
    pThread->nNumber = ++m_nThreads;
    pThread->entry = std::move(entry);
    return pThread;
}

void CWorld::Start(const std::shared_ptr<CThread>& pThread) {
    if (m_idle.empty()) {
        CCarrier& carrier = *m_carriers.emplace_back(std::make_unique<CCarrier>());
        carrier.thread = std::thread([this, &carrier] { Carry(carrier); });
        m_idle.push_back(&carrier);
    }
    pThread->pCarrier = m_idle.back();
    pThread->pCarrier->pThread = pThread.get();
    m_idle.pop_back();
    pThread->eState = CThread::EState::Ready;
    m_ready.push_back(pThread.get());
}

void CWorld::Carry(CCarrier& carrier) {
    while (AwaitBaton(carrier)) {
        CThread& thread = *carrier.pThread;
        t_pThread = &thread;
        t_dwError = 0;
        thread.entry();
        thread.entry = nullptr;
        thread.eState = CThread::EState::Ended;
        WakeAll(&thread);
        WakeAll(&m_threads);
        // Kept until the baton is gone: it is still the one that picks the next.
        const auto it = std::ranges::find(m_threads, &thread, &std::shared_ptr<CThread>::get);
        const auto pEnded = *it;
        m_threads.erase(it);
        m_idle.push_back(&carrier);
        CThread& next = PickNext();
        next.eState = CThread::EState::Running;
        GiveBaton(next);
    }
}

void CWorld::Stop(CThread& thread) {
    thread.bStop = true;
    MakeReady(thread, EWake::Stopped);
    if (thread.eState == CThread::EState::Suspended) {
        thread.eState = CThread::EState::Ended;
        std::erase_if(m_threads, [&](const auto& pThread) { return pThread.get() == &thread; });
        WakeAll(&thread);
    }
    while (thread.eState != CThread::EState::Ended) {
        Block(&thread, {}, "the end of stopped thread %llu",
              static_cast<std::uint64_t>(thread.nNumber), true);
    }
}

HANDLE CWorld::NewThread(std::function<DWORD()> entry, bool bSuspended) {
    const auto pThread = MakeThread(std::move(entry));
    m_threads.push_back(pThread);
    if (!bSuspended) {
        Start(pThread);
    }
    return Add(pThread);
}

HANDLE CWorld::Spawn(std::function<void()> body) {
    return NewThread(
        [body = std::move(body)] {
            body();
            return DWORD{0};
        },
        false);
}

void CWorld::Join(HANDLE hThread) {
    EXPECT_EQ(platform::WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
    platform::CloseHandle(hThread);
}

int CWorld::LiveThreads() const {
    return static_cast<int>(m_threads.size()) - 1;
}

std::string CWorld::Threads() const {
    std::string strList;
    for (const auto& pThread : m_threads) {
        char szWaits[120] = "can run";
        if (pThread->eState == CThread::EState::Suspended) {
            std::snprintf(szWaits, sizeof(szWaits), "is suspended");
        } else if (pThread->eState == CThread::EState::Waiting) {
            char szWhat[80];
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
            std::snprintf(szWhat, sizeof(szWhat), pThread->lpszWaitsFor,
                          static_cast<unsigned long long>(pThread->qwWaitArgument));
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
            std::snprintf(szWaits, sizeof(szWaits), "waits for %s", szWhat);
        }
        strList += "  thread " + std::to_string(pThread->nNumber) + " " + szWaits;
        if (pThread->eState == CThread::EState::Waiting && pThread->qwDue != NEVER) {
            strList += " until " + std::to_string(pThread->qwDue) + " ms";
        }
        strList += "\n";
    }
    return strList;
}

// Faults, trace, handles.

bool CWorld::Enter(ECall eCall) {
    const auto dwKind = static_cast<std::size_t>(eCall);
    const std::uint64_t qwOfKind = ++m_counts[dwKind];
    const bool bCanFail = dwKind < FAILING_CALLS;
    const std::uint64_t qwOfAll = bCanFail ? ++m_qwFailingCalls : 0;
    if (++m_qwCalls > qwCallLimit) {
        Fail("The limit of calls is passed.");
    }
    if (m_bFailed || m_bEnding) {
        SetError(ERROR_OPERATION_ABORTED);
        return false;
    }
    for (const CFault& fault : m_faults) {
        const bool bMine = fault.eCall ? *fault.eCall == eCall : bCanFail;
        const std::uint64_t qwNumber = fault.eCall ? qwOfKind : qwOfAll;
        if (bMine && qwNumber >= fault.qwFirst && qwNumber - fault.qwFirst < fault.qwTimes) {
            ++m_nFaultsMet;
            Note("fault %s", CallName(eCall));
            SetError(fault.dwError);
            return false;
        }
    }
    return true;
}

void CWorld::FailCall(ECall eCall, std::uint64_t nNumber, DWORD dwError, std::uint64_t nTimes) {
    m_faults.push_back({eCall, CallCount(eCall) + nNumber, nTimes,
                        dwError != 0 ? dwError : DWORD{ERROR_GEN_FAILURE}});
}

void CWorld::FailAnyCall(std::uint64_t nNumber, std::uint64_t nTimes) {
    m_faults.push_back({{}, m_qwFailingCalls + nNumber, nTimes, ERROR_GEN_FAILURE});
}

void CWorld::Note(const char* lpszFormat, ...) {
    if (!bTrace || m_trace.size() >= MAX_EVENTS) {
        return;
    }
    char szText[200];
    va_list arguments;
    va_start(arguments, lpszFormat);
    std::vsnprintf(szText, sizeof(szText), lpszFormat, arguments);
    va_end(arguments);
    m_trace.push_back({m_qwNowMs, szText});
}

std::vector<std::string> CWorld::Trace(std::initializer_list<std::string_view> beginnings) const {
    std::vector<std::string> lines;
    for (const CEvent& event : m_trace) {
        const auto begins = [&](std::string_view word) { return event.strText.starts_with(word); };
        if (beginnings.size() == 0 || std::any_of(beginnings.begin(), beginnings.end(), begins)) {
            lines.push_back(std::to_string(event.qwMs) + " " + event.strText);
        }
    }
    return lines;
}

std::vector<std::string> CWorld::Open() const {
    std::vector<std::string> lines;
    for (const auto& [hObject, pObject] : m_handles) {
        lines.push_back(pObject->What());
    }
    for (const auto& [lpBlock, dwBytes] : blocks) {
        lines.push_back("memory block of " + std::to_string(dwBytes) + " bytes");
    }
    return lines;
}

HANDLE CWorld::Add(std::shared_ptr<CObject> pObject) {
    // Never given out twice, across worlds too: what a static of the library still holds from an
    // earlier world must not name something of this one.
    static std::uintptr_t qwLast = 0x100;
    const HANDLE hObject = reinterpret_cast<HANDLE>(qwLast += 4);
    m_handles.emplace(hObject, std::move(pObject));
    return hObject;
}

bool CWorld::Remove(HANDLE hObject) {
    const auto it = m_handles.find(hObject);
    if (it == m_handles.end()) {
        return false;
    }
    const auto pObject = it->second;
    m_handles.erase(it);
    pObject->Close(*this);
    return true;
}

void CWorld::OtherProcessOpensLock(const std::string& strName, bool bHolds) {
    auto& pLock = locks[strName];
    if (!pLock) {
        pLock = std::make_shared<CLock>();
    }
    pLock->bOtherHasOpen = true;
    if (bHolds) {
        pLock->bHeld = true;
        pLock->bHeldByOther = true;
    }
}

void CWorld::OtherProcessClosesLock(const std::string& strName) {
    const auto it = locks.find(strName);
    if (it == locks.end()) {
        return;
    }
    CLock& lock = *it->second;
    lock.bOtherHasOpen = false;
    if (lock.bHeldByOther) {
        lock.bHeld = false;
        lock.bHeldByOther = false;
        WakeAll(&lock);
    }
    if (lock.nHandles == 0) {
        locks.erase(it);
    }
}

namespace {

// One open handle on a lock.
class CLockHandle : public CObject {
  public:
    CLockHandle(std::string strName, std::shared_ptr<CWorld::CLock> pLock)
        : m_strName(std::move(strName)), m_pLock(std::move(pLock)) {
        ++m_pLock->nHandles;
    }
    std::string What() const override { return "lock " + m_strName; }
    CWorld::CLock& Lock() { return *m_pLock; }
    const char* Name() const { return m_strName.c_str(); }

    void Close(CWorld& world) override {
        world.Note("lock close %s", Name());
        if (--m_pLock->nHandles > 0) {
            return;
        }
        if (m_pLock->bHeld && !m_pLock->bHeldByOther) {
            m_pLock->bHeld = false;
            world.WakeAll(m_pLock.get());
        }
        if (!m_pLock->bOtherHasOpen && !m_strName.empty()) {
            world.locks.erase(m_strName);
        }
    }

  private:
    std::string m_strName;
    std::shared_ptr<CWorld::CLock> m_pLock;
};

} // namespace

std::uint64_t Sweep(const std::function<void(CWorld&)>& scenario, std::optional<ECall> eCall,
                    std::uint64_t nTimes, std::uint64_t nOnly) {
    for (std::uint64_t n = nOnly != 0 ? nOnly : 1;; ++n) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__,
                                           std::string(eCall ? CallName(*eCall) : "any call") +
                                               " fails, number " + std::to_string(n));
        CWorld world;
        if (eCall) {
            world.FailCall(*eCall, n, 0, nTimes);
        } else {
            world.FailAnyCall(n, nTimes);
        }
        scenario(world);
        if (world.FaultsMet() == 0 || nOnly != 0 || ::testing::Test::HasFailure()) {
            return n - 1;
        }
    }
}

} // namespace sim

namespace platform {

using sim::CThread;
using sim::CWorld;
using sim::ECall;
using sim::EWake;
using sim::FailWith;
using sim::SetError;

DWORD GetLastError() {
    return sim::t_dwError;
}

void Sleep(DWORD dwMilliseconds) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr) {
        return;
    }
    pWorld->Enter(ECall::Sleep);
    pWorld->Note("sleep %u", static_cast<unsigned>(dwMilliseconds));
    pWorld->Block(nullptr, pWorld->DueAfter(dwMilliseconds), "a sleep of %llu ms", dwMilliseconds);
}

HANDLE CreateThread(_SECURITY_ATTRIBUTES* /*lpThreadAttributes*/, SIZE_T /*dwStackSize*/,
                    LPTHREAD_START_ROUTINE lpStartAddress, void* lpParameter, DWORD dwCreationFlags,
                    DWORD* /*lpThreadId*/) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr || !pWorld->Enter(ECall::CreateThread)) {
        return nullptr;
    }
    return pWorld->NewThread([=] { return lpStartAddress(lpParameter); },
                             (dwCreationFlags & CREATE_SUSPENDED) != 0);
}

DWORD ResumeThread(HANDLE hThread) {
    CWorld* pWorld = CWorld::Current();
    const auto pThread = pWorld != nullptr ? pWorld->Get<CThread>(hThread) : nullptr;
    if (!pThread || pThread->eState != CThread::EState::Suspended) {
        SetError(ERROR_INVALID_HANDLE);
        return 0xFFFFFFFF;
    }
    pWorld->Enter(ECall::ResumeThread);
    pWorld->Start(pThread);
    return 1;
}

BOOL TerminateThread(HANDLE hThread, DWORD /*dwExitCode*/) {
    CWorld* pWorld = CWorld::Current();
    const auto pThread = pWorld != nullptr ? pWorld->Get<CThread>(hThread) : nullptr;
    if (!pThread || pThread.get() == sim::t_pThread) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    pWorld->Enter(ECall::TerminateThread);
    pWorld->Note("thread stop %d", pThread->nNumber);
    pWorld->Stop(*pThread);
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) {
    CWorld* pWorld = CWorld::Current();
    const auto pThread = pWorld != nullptr ? pWorld->Get<CThread>(hObject) : nullptr;
    const auto pLock = pWorld != nullptr ? pWorld->Get<sim::CLockHandle>(hObject) : nullptr;
    if (!pThread && !pLock) {
        SetError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    pWorld->Enter(ECall::WaitForSingleObject);
    const auto qwDue = pWorld->DueAfter(dwMilliseconds);
    for (EWake eWake = EWake::Woken;;) {
        if (pThread && pThread->eState == CThread::EState::Ended) {
            return WAIT_OBJECT_0;
        }
        if (pLock && !pLock->Lock().bHeld && eWake != EWake::Stopped) {
            pLock->Lock().bHeld = true;
            pWorld->Note("lock take %s", pLock->Name());
            return WAIT_OBJECT_0;
        }
        if (eWake == EWake::TimedOut || dwMilliseconds == 0) {
            return WAIT_TIMEOUT;
        }
        if (eWake == EWake::Stopped) {
            SetError(ERROR_OPERATION_ABORTED);
            return WAIT_FAILED;
        }
        eWake = pThread ? pWorld->Block(pThread.get(), qwDue, "the end of thread %llu",
                                        static_cast<std::uint64_t>(pThread->nNumber))
                        : pWorld->Block(&pLock->Lock(), qwDue, "a lock");
    }
}

HANDLE CreateMutexA(_SECURITY_ATTRIBUTES* /*lpMutexAttributes*/, BOOL bInitialOwner,
                    const char* lpName) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr || !pWorld->Enter(ECall::CreateMutexA)) {
        return nullptr;
    }
    const std::string strName = lpName == nullptr ? "" : lpName;
    auto pLock = strName.empty() ? nullptr : pWorld->locks[strName];
    const bool bExisted = pLock != nullptr;
    if (!bExisted) {
        pLock = std::make_shared<CWorld::CLock>();
        pLock->bHeld = bInitialOwner != FALSE;
        if (!strName.empty()) {
            pWorld->locks[strName] = pLock;
        }
    }
    pWorld->Note("lock open %s%s", strName.c_str(), bExisted ? ", existed" : "");
    SetError(bExisted ? DWORD{ERROR_ALREADY_EXISTS} : DWORD{ERROR_SUCCESS});
    return pWorld->Add(std::make_shared<sim::CLockHandle>(strName, pLock));
}

BOOL ReleaseMutex(HANDLE hMutex) {
    CWorld* pWorld = CWorld::Current();
    const auto pLock = pWorld != nullptr ? pWorld->Get<sim::CLockHandle>(hMutex) : nullptr;
    if (!pLock) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    pWorld->Enter(ECall::ReleaseMutex);
    if (!pLock->Lock().bHeld || pLock->Lock().bHeldByOther) {
        return FailWith(ERROR_NOT_OWNER);
    }
    pLock->Lock().bHeld = false;
    pWorld->Note("lock release %s", pLock->Name());
    pWorld->WakeAll(&pLock->Lock());
    return TRUE;
}

BOOL CloseHandle(HANDLE hObject) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    pWorld->Enter(ECall::CloseHandle);
    return pWorld->Remove(hObject) ? TRUE : FailWith(ERROR_INVALID_HANDLE);
}

BOOL WaitOnAddress(DWORD* lpAddress, DWORD dwCompare, DWORD dwMilliseconds) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    pWorld->Enter(ECall::WaitOnAddress);
    if (std::atomic_ref<DWORD>(*lpAddress).load() != dwCompare) {
        return TRUE;
    }
    switch (pWorld->Block(lpAddress, pWorld->DueAfter(dwMilliseconds), "a word to change")) {
    case EWake::Woken:
        return TRUE;
    case EWake::TimedOut:
        return FailWith(WAIT_TIMEOUT);
    default:
        return FailWith(ERROR_OPERATION_ABORTED);
    }
}

void WakeByAddressAll(DWORD* lpAddress) {
    if (CWorld* pWorld = CWorld::Current()) {
        pWorld->Enter(ECall::WakeByAddressAll);
        pWorld->WakeAll(lpAddress);
    }
}

} // namespace platform
