// What a world's implementation of the seam is made of. What it does not simulate is done by the
// system's own implementation: its text, memory, files, and records of registry and devices, and
// the table of handles, in which everything stands that a world gives out. Its sources are compiled
// a second time, with "Real" ahead of the names of those calls that SIM_REAL and SIM_CALL define.
#pragma once

#include "platform/device.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/posix/handles.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/thread.h"
#include "tests/sim/world.h"

#include <cstring>
#include <tuple>

namespace sim {

using platform::posix::CObject;
using platform::posix::FindObject;

// Sets the calling thread's error number and returns what a failing call returns.
inline BOOL FailWith(DWORD dwError) {
    platform::posix::SetLastError(dwError);
    return FALSE;
}

// The one way of every call: it is counted, fails as planned, is told in the trace when it fails,
// and is otherwise what its body does.
template <class TResult, class TBody, class... TArguments>
TResult Call(ECall eCall, TResult failed, const TBody& body, TArguments... arguments) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr || !pWorld->Enter(eCall)) {
        return failed;
    }
    const TResult result = body(*pWorld, arguments...);
    if (result == failed) {
        pWorld->Note("failed ", CallName(eCall), ", error ", platform::GetLastError());
    }
    return result;
}

// An argument as the working folder has it: a path does not begin at the system's root.
template <class T>
T InFolder(T argument) {
    return argument;
}
inline const char* InFolder(const char* lpPath) {
    return lpPath == nullptr ? nullptr : lpPath + std::strspn(lpPath, "/\\");
}

template <class>
struct CSignature;
template <class TResult, class... TParameters>
struct CSignature<TResult(TParameters...)> {
    using Result = TResult;
    template <std::size_t N>
    using Parameter = std::tuple_element_t<N, std::tuple<TParameters...>>;
};

#define SIM_P(name, n) sim::CSignature<decltype(name)>::Parameter<n> p##n
#define SIM_PARAMETERS_1(name) SIM_P(name, 0)
#define SIM_PARAMETERS_2(name) SIM_PARAMETERS_1(name), SIM_P(name, 1)
#define SIM_PARAMETERS_3(name) SIM_PARAMETERS_2(name), SIM_P(name, 2)
#define SIM_PARAMETERS_4(name) SIM_PARAMETERS_3(name), SIM_P(name, 3)
#define SIM_PARAMETERS_5(name) SIM_PARAMETERS_4(name), SIM_P(name, 4)
#define SIM_PARAMETERS_6(name) SIM_PARAMETERS_5(name), SIM_P(name, 5)
#define SIM_ARGUMENTS_1 p0
#define SIM_ARGUMENTS_2 SIM_ARGUMENTS_1, p1
#define SIM_ARGUMENTS_3 SIM_ARGUMENTS_2, p2
#define SIM_ARGUMENTS_4 SIM_ARGUMENTS_3, p3
#define SIM_ARGUMENTS_5 SIM_ARGUMENTS_4, p4
#define SIM_ARGUMENTS_6 SIM_ARGUMENTS_5, p5

// Defines a call of the seam: the number of its parameters, its name, what it gives when it fails,
// and its body, which is handed the world and the arguments.
#define SIM_CALL(count, name, failed, ...)                                                         \
    sim::CSignature<decltype(name)>::Result name(SIM_PARAMETERS_##count(name)) {                   \
        return static_cast<sim::CSignature<decltype(name)>::Result>(                               \
            sim::Call(sim::ECall::name, failed, __VA_ARGS__, SIM_ARGUMENTS_##count));              \
    }

// The same with the real implementation for its body.
#define SIM_REAL(count, name, failed)                                                              \
    decltype(name) Real##name;                                                                     \
    SIM_CALL(count, name, failed, [](sim::CWorld& /*world*/, auto... arguments) {                  \
        return Real##name(sim::InFolder(arguments)...);                                            \
    })

// What WaitForSingleObject waits for.
class CWaitable : public CObject {
  public:
    // Whether it has come; a lock is taken then.
    virtual bool Take() = 0;
    virtual const void* Key() const = 0;
};

class CThread : public CWaitable {
  public:
    enum class EState { Suspended, Ready, Waiting, Ended }; // the one that runs is ready
    bool Take() override { return eState == EState::Ended; }
    const void* Key() const override { return this; }

    std::uint64_t nNumber = 0;
    EState eState = EState::Suspended;
    std::function<void()> entry;
    bool bStop = false;
    unsigned nRefused = 0; // blocking calls refused since it was stopped
    const void* lpWaitKey = nullptr;
    std::uint64_t qwDue = CWorld::NEVER;
    std::uint64_t qwWaitNumber = 0;
    std::string strWaitsFor;
    EWake eWake = EWake::Woken;
    CCarrier* pCarrier = nullptr;
};

} // namespace sim
