// Threads and time of the simulated host, its faults and its trace.

#include "tests/sim/world.h"

#include "tests/sim/seam.h"

#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <thread>
#include <utility>

namespace sim {

// A real thread, which carries one simulated thread after another.
struct CCarrier {
    std::shared_ptr<CThread> pThread; // null: the world ends
    std::binary_semaphore baton{0};
    std::thread thread;
};

namespace {

constexpr std::size_t EVENTS_SHOWN = 60;
constexpr std::uint64_t CALL_LIMIT = 50'000'000; // of a world; behind it is a loop without an end

// A stopped thread may look again and again for something that another thread still has to do:
// behind this bound its refused calls let time pass.
constexpr unsigned REFUSALS_FREE = 1000;

std::atomic<CWorld*> g_pWorld{nullptr};
thread_local CThread* t_pThread = nullptr;

[[noreturn]] void GiveUp(const std::string& strWhy) {
    std::fprintf(stderr, "The simulated host: %s\n", strWhy.c_str());
    std::abort();
}

// In the memory of the system, for worlds come by the thousand; where that keeps attributes, which
// hold creation times, as kernels do from 6.6 on.
std::filesystem::path ParentFolder() {
    static const std::filesystem::path PARENT = [] {
        const std::filesystem::path memory = "/dev/shm";
        const test::CTempFolder probe(
            std::filesystem::exists(memory) ? memory : std::filesystem::temp_directory_path());
        const bool bKeeps = ::setxattr(probe.Folder().c_str(), "user.dak.probe", "1", 1, 0) == 0;
        return bKeeps ? probe.Folder().parent_path() : std::filesystem::temp_directory_path();
    }();
    return PARENT;
}

} // namespace

#define SIM_TEXT_OF(...) #__VA_ARGS__
#define SIM_TEXT(...) SIM_TEXT_OF(__VA_ARGS__)

const std::string& CallName(ECall eCall) {
    static const std::vector<std::string> NAMES = [] {
        std::istringstream text(SIM_TEXT(SIM_CALLS_THAT_FAIL, SIM_CALLS_THAT_SUCCEED));
        std::vector<std::string> names;
        for (std::string strName; std::getline(text >> std::ws, strName, ',');) {
            names.push_back(strName);
        }
        return names;
    }();
    return NAMES[static_cast<std::size_t>(eCall)];
}

CWorld* CWorld::Current() {
    return t_pThread != nullptr ? g_pWorld.load() : nullptr;
}

CWorld::CWorld() : m_folder(ParentFolder()), m_pathBefore(std::filesystem::current_path()) {
    if (g_pWorld.exchange(this) != nullptr) {
        GiveUp("there is one already");
    }
    std::filesystem::current_path(m_folder.Folder());
    for (const char* lpszDrive : {"C:", "D:"}) {
        std::filesystem::create_directory(lpszDrive);
    }
    const HANDLE hThread = NewThread({}, true);
    platform::posix::RemoveHandle(hThread, m_threads[0].get());
    t_pThread = m_threads[0].get();
    t_pThread->eState = CThread::EState::Ready;
    t_pThread->pCarrier = m_carriers.emplace_back(std::make_unique<CCarrier>()).get();
    AddProcess("System");
    AddProcess("explorer.exe");
}

CWorld::~CWorld() {
    m_bEnding = true;
    StopAll();
    while (m_threads.size() > 1) {
        Block(&m_threads, NEVER, "the end of all threads", true);
    }
    for (const auto& pCarrier : m_carriers) {
        if (pCarrier->thread.joinable()) {
            pCarrier->pThread = nullptr;
            pCarrier->baton.release();
            pCarrier->thread.join();
        }
    }
    const auto lines = Trace();
    for (std::size_t i = lines.size() - std::min(lines.size(), EVENTS_SHOWN);
         i < lines.size() && ::testing::Test::HasFailure(); ++i) {
        std::fprintf(stderr, "  the simulated host at %s\n", lines[i].c_str());
    }
    m_pPeer = nullptr;
    for (const auto& [hObject, strWhat] : handles) {
        platform::posix::RemoveHandle(hObject, platform::posix::FindAnyObject(hObject).get());
    }
    std::filesystem::current_path(m_pathBefore);
    t_pThread = nullptr;
    g_pWorld = nullptr;
}

// The baton.

void CWorld::Carry(CCarrier& carrier) {
    while (carrier.baton.acquire(), carrier.pThread != nullptr) {
        // Kept until the baton is gone: it is still the one that picks the next.
        const std::shared_ptr<CThread> pThread = carrier.pThread;
        t_pThread = pThread.get();
        pThread->entry();
        pThread->entry = nullptr;
        End(*pThread);
        m_idle.push_back(&carrier);
        PickNext().pCarrier->baton.release();
    }
}

void CWorld::HandOver(CThread& self) {
    CThread& next = PickNext();
    if (&next != &self) {
        next.pCarrier->baton.release();
        self.pCarrier->baton.acquire();
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
        qwNext = std::min(qwNext, pThread->qwDue);
    }
    const auto peerDue = [&] { // one that has been told the time gets nothing more at that moment
        const std::uint64_t qwDue =
            m_pPeer == nullptr ? NEVER : m_pPeer->NextDueMs().value_or(NEVER);
        return qwDue <= m_qwNowMs && m_qwPeerToldMs == m_qwNowMs ? NEVER : qwDue;
    };
    qwNext = std::min(qwNext, peerDue());
    if (qwNext == NEVER) {
        if (m_bFailed || m_bEnding) {
            GiveUp("threads cannot be ended\n" + Threads());
        }
        return Fail("All threads wait for ever.");
    }
    m_qwNowMs = std::max(m_qwNowMs, qwNext);
    while (!m_actions.empty() && m_actions.begin()->first <= m_qwNowMs) {
        const auto action = std::move(m_actions.begin()->second);
        m_actions.erase(m_actions.begin());
        action();
    }
    if (peerDue() <= m_qwNowMs) {
        m_qwPeerToldMs = m_qwNowMs;
        m_pPeer->SetTime(m_qwNowMs);
        PeerChanged();
    }
    std::vector<CThread*> due;
    for (const auto& pThread : m_threads) {
        if (pThread->qwDue <= m_qwNowMs) {
            due.push_back(pThread.get());
        }
    }
    std::ranges::sort(due, {}, &CThread::qwWaitNumber);
    for (CThread* pThread : due) {
        MakeReady(*pThread, EWake::TimedOut);
    }
}

void CWorld::MakeReady(CThread& thread, EWake eWake) {
    if (thread.eState == CThread::EState::Waiting) {
        thread.eState = CThread::EState::Ready;
        thread.eWake = eWake;
        thread.qwDue = NEVER;
        m_ready.push_back(&thread);
    }
}

EWake CWorld::Block(const void* lpKey, std::uint64_t qwDue, std::string strWaitsFor,
                    bool bEvenIfStopped) {
    CThread& self = *t_pThread;
    if (!bEvenIfStopped && IsStopped()) {
        if (++self.nRefused > REFUSALS_FREE) {
            Block(nullptr, m_qwNowMs + 1, "another look", true);
        } else if (!m_ready.empty()) {
            m_ready.push_back(&self);
            HandOver(self);
        }
        return EWake::Stopped;
    }
    self.lpWaitKey = lpKey;
    self.qwDue = qwDue;
    self.qwWaitNumber = ++m_qwWaits;
    self.strWaitsFor = std::move(strWaitsFor);
    self.eState = CThread::EState::Waiting;
    HandOver(self);
    return self.eWake;
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
    for (const auto& pThread : std::vector(m_threads)) {
        if (pThread->eState == CThread::EState::Suspended) {
            End(*pThread);
        }
        MakeReady(*pThread, EWake::Stopped);
    }
}

void CWorld::Fail(const std::string& strWhy) {
    if (!m_bFailed && !m_bEnding) {
        m_bFailed = true;
        ADD_FAILURE() << strWhy << " Threads at " << m_qwNowMs << " ms:\n" << Threads();
        StopAll();
    }
}

// Threads.

HANDLE CWorld::NewThread(std::function<void()> entry, bool bSuspended) {
    const auto pThread = std::make_shared<CThread>();
    pThread->nNumber = ++m_nThreads;
    pThread->entry = std::move(entry);
    m_threads.push_back(pThread);
    if (!bSuspended) {
        Start(*pThread);
    }
    return Add(pThread, "thread " + std::to_string(pThread->nNumber));
}

void CWorld::Start(CThread& thread) {
    if (m_idle.empty()) {
        CCarrier& carrier = *m_carriers.emplace_back(std::make_unique<CCarrier>());
        carrier.thread = std::thread([this, &carrier] { Carry(carrier); });
        m_idle.push_back(&carrier);
    }
    thread.pCarrier = m_idle.back();
    m_idle.pop_back();
    thread.pCarrier->pThread =
        *std::ranges::find(m_threads, &thread, &std::shared_ptr<CThread>::get);
    thread.eState = CThread::EState::Ready;
    m_ready.push_back(&thread);
}

void CWorld::End(CThread& thread) {
    thread.eState = CThread::EState::Ended;
    std::erase_if(m_threads, [&](const auto& pThread) { return pThread.get() == &thread; });
    WakeAll(&thread);
    WakeAll(&m_threads);
}

void CWorld::Stop(CThread& thread) {
    thread.bStop = true;
    MakeReady(thread, EWake::Stopped);
    if (thread.eState == CThread::EState::Suspended) {
        End(thread);
    }
    while (thread.eState != CThread::EState::Ended) {
        Block(&thread, NEVER, "the end of thread " + std::to_string(thread.nNumber), true);
    }
}

std::string CWorld::Threads() const {
    std::ostringstream list;
    for (const auto& pThread : m_threads) {
        const bool bWaits = pThread->eState == CThread::EState::Waiting;
        list << "  thread " << pThread->nNumber << (bWaits ? " waits for " : " can run")
             << (bWaits ? pThread->strWaitsFor : "");
        if (pThread->qwDue != NEVER) {
            list << " until " << pThread->qwDue << " ms";
        }
        list << "\n";
    }
    return list.str();
}

// Faults and trace.

bool CWorld::Enter(ECall eCall) {
    const std::uint64_t qwOfKind = ++m_counts[static_cast<std::size_t>(eCall)];
    if (++m_qwCalls > CALL_LIMIT) {
        GiveUp("there is no end of calls\n" + Threads());
    }
    const bool bCanFail = eCall < ECall::Sleep; // those of the second list only by their name
    const std::uint64_t qwOfAll = bCanFail ? ++m_qwFailingCalls : 0;
    if (bCanFail && (m_bFailed || m_bEnding)) {
        return FailWith(ERROR_OPERATION_ABORTED) != FALSE;
    }
    for (const CFault& fault : m_faults) {
        const std::uint64_t qwNumber = fault.eCall ? qwOfKind : qwOfAll;
        if (fault.eCall.value_or(eCall) == eCall && qwNumber >= fault.qwFirst &&
            qwNumber - fault.qwFirst < fault.qwTimes) {
            ++m_nFaultsMet;
            Note("fault ", CallName(eCall));
            return FailWith(fault.dwError) != FALSE;
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

std::vector<std::string> CWorld::Trace(std::initializer_list<std::string_view> beginnings) const {
    std::vector<std::string> lines;
    for (const auto& [qwMs, strText] : m_trace) {
        const auto begins = [&strWhole = strText](std::string_view words) {
            return (strWhole + " ").starts_with(std::string(words) + " ");
        };
        if (beginnings.size() == 0 || std::ranges::any_of(beginnings, begins)) {
            lines.push_back(std::to_string(qwMs) + " " + strText);
        }
    }
    return lines;
}

HANDLE CWorld::Add(std::shared_ptr<CObject> pObject, std::string strWhat) {
    const HANDLE hObject = platform::posix::AddHandle(std::move(pObject));
    Name(hObject, std::move(strWhat));
    return hObject;
}

void CWorld::Name(HANDLE hObject, std::string strWhat) {
    if (hObject != INVALID_HANDLE_VALUE) {
        handles[hObject] = std::move(strWhat);
    }
}

std::vector<std::string> CWorld::Open() const {
    std::vector<std::string> lines;
    for (const auto& [hObject, strWhat] : handles) {
        if (platform::posix::FindAnyObject(hObject) != nullptr) {
            lines.push_back(strWhat);
        }
    }
    for (const auto& [lpBlock, dwBytes] : blocks) {
        lines.push_back("memory block of " + std::to_string(dwBytes) + " bytes");
    }
    return lines;
}

} // namespace sim
