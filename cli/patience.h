// Tells a person at a terminal that an operation waits for the device, when it does so for long.
#pragma once

#include "cli/report.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace cli {

// Lives around an operation that blocks. Says so once, after some seconds.
class CPatience {
  public:
    explicit CPatience(const CONTEXT& context);
    ~CPatience();
    CPatience(const CPatience&) = delete;
    CPatience& operator=(const CPatience&) = delete;

  private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bEnded = false;
    std::thread m_thread; // last: it uses the others
};

} // namespace cli
