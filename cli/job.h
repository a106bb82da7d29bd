// One copy job of the library, from its start to its end message.
#pragma once

#include "link/dak_vorn.h"

#include <cstdint>
#include <functional>
#include <string>

namespace cli {

// What the library tells of the file in work.
struct COPYSTATUS {
    std::string strSource;
    std::string strDest;
    std::uint64_t qwTotal = 0;
    std::uint64_t qwCopied = 0;
    // The counts belong to the paths for certain: the paths were the same at the look before.
    bool bSettled = false;
};

// A job as the library takes it. The library's worker reads the list, so that a job outlives the
// CDAKVorn that runs it.
struct COPYJOB {
    UINT nDirection = 0;
    std::string strSource; // the folders, valid UTF-8
    std::string strDest;
    CStringArray list;
    // How long it may take to end in order when it is cut short. Its worker may be waiting for a
    // device that hangs, and would go on waiting.
    DWORD dwCancelWaitMs = 12000;

    // Puts a path, or a name of a pull, into the list; the library can hold it (ToLibraryText).
    void Add(const std::string& strPath);
};

struct JOBOUTCOME {
    bool bStarted = false;   // the device was reached
    DWORD dwState = 0;       // return value when not started, else the job's outcome
    bool bCancelled = false; // a request to end cut it short
    bool bAbandoned = false; // the worker did not end in time: neither job nor object may go
    COPYSTATUS last;         // before the end
};

// Runs a job and waits for its end. onStatus is called twenty times a second, first when the job
// has started; onCancel once, when a request to end has come (console::CInterrupts) and the job is
// being cut short.
JOBOUTCOME RunCopyJob(CDAKVorn& dak, COPYJOB& job,
                      const std::function<void(const COPYSTATUS&)>& onStatus,
                      const std::function<void()>& onCancel);

} // namespace cli
