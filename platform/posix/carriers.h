// The threads of the system, on which those of the seam run one after the other. There is one of
// the seam for every transfer on the pipe, thousands a second, so a carrier that has nothing to do
// is parked for the next. They end with the library.
#pragma once

#include "platform/types.h"

#include <memory>
#include <mutex>

namespace platform::posix {

// What a carrier runs. Nothing of it may be left on the carrier when Run returns but the error
// number, which the next one does not see.
class CCarried {
  public:
    virtual ~CCarried() = default;
    virtual void Run() = 0;
    // Behind Run, as the last that is done to it: whoever awaits its end goes on, and is likely to
    // find this carrier free.
    virtual void End() noexcept = 0;
};

// Runs it on a carrier with that much stack at least (0: the usual). The carrier blocks all signals
// that are not raised by a fault of its own: the application's handlers must not run on its stack.
// 0, or the system's error. May throw std::bad_alloc.
int Carry(std::shared_ptr<CCarried> pCarried, SIZE_T dwStackSize);

// For the fork guard alone.
std::mutex& CarrierMutex();

} // namespace platform::posix
