// What push and pull share.
#pragma once

#include "cli/job.h"
#include "cli/report.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cli {

// The jobs of a copy and the library object that runs them, in the order in which they must live.
struct COPYSESSION {
    std::vector<std::unique_ptr<COPYJOB>> jobs;
    CDAKVorn dak;
};

// Ends a session; one whose worker did not end stays where it is, and the process must end.
void EndSession(CONTEXT& context, std::unique_ptr<COPYSESSION> session, const JOBOUTCOME& outcome);

// Seconds since then, to a tenth.
double SecondsSince(std::chrono::steady_clock::time_point start);

// "3 files (1.2 MB) in 2.5 s (480.0 kB/s)"; without the rate for little data.
std::string FormatAmount(std::size_t nFiles, std::uint64_t qwBytes, double dSeconds);

// Names the first of many, and tells the number of the others: "a, b, c and 4 more".
std::string FormatSome(const std::vector<std::string>& names);

// What is said on Ctrl-C, while the library cuts the job short.
void SayCancelling(const CONTEXT& context);

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

// paths: at least one source, then the destination. bVerify: the device is asked for room ahead of
// the copy, and for what it has behind it.
void RunPush(CONTEXT& context, std::vector<std::string> paths, bool bVerify);
// bVerify: the device is asked ahead for what there is.
void RunPull(CONTEXT& context, std::vector<std::string> paths, bool bVerify);

} // namespace cli
