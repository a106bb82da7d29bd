// What a pull finds out about the device ahead of the copy.
#pragma once

#include "cli/device_tree.h"
#include "cli/pull_plan.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace cli {

// While it lives, a request to end (console::CInterrupts) is answered at once, also during an
// operation that cannot be cut short.
class CAnswersInterrupts {
  public:
    explicit CAnswersInterrupts(const CONTEXT& context);
    ~CAnswersInterrupts();
    CAnswersInterrupts(const CAnswersInterrupts&) = delete;
    CAnswersInterrupts& operator=(const CAnswersInterrupts&) = delete;

  private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bEnded = false;
    std::thread m_thread; // last: it uses the others
};

// Asks the device what there is under the wanted names of a group. What is not there, or shows
// itself in a way that cannot be asked for, is added to the missing. EXIT_DONE, or what ended the
// look: the link, or a request to end.
MEANING LookAhead(CONTEXT& context, CDAKVorn& dak, PULLGROUP& group, std::vector<LEFTOUT>& missing,
                  const OnListing& onListing);

} // namespace cli
