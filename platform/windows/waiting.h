// Waits that a stop of the thread ends, and that last at least as long as they are told to: the
// system's own may end up to one tick of its clock too early.
#pragma once

#include "platform/types.h"

#include <chrono>

namespace platform::windows {

// A point of time, or never.
class CDeadline {
  public:
    // dwMilliseconds from now; INFINITE: never.
    explicit CDeadline(DWORD dwMilliseconds);

    // Until then, rounded up; 0 when it is over, INFINITE when it never is.
    DWORD RemainingMs() const;

  private:
    bool m_bNever;
    std::chrono::steady_clock::time_point m_time;
};

// Whether the calling thread is being stopped; the error number then says so.
bool IsStopped();

// Waits until hObject, unless it is null, is signalled: WAIT_OBJECT_0. WAIT_TIMEOUT when the time
// is over first, WAIT_FAILED with the error number set for a bad handle or in a thread that is
// being stopped.
DWORD WaitUnlessStopped(HANDLE hObject, DWORD dwMilliseconds);

} // namespace platform::windows
