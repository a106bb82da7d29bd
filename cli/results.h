// What the results of the library mean to a person, and the command's exit statuses.
#pragma once

#include "link/result.h"

#include <string>

namespace cli {

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_PARTIAL = 1,     // something was left out or is missing; the rest is done
    EXIT_USAGE = 2,       // the command line is wrong; nothing was done
    EXIT_NO_DEVICE = 3,   // no device, or it does not answer, or it went away
    EXIT_BUSY = 4,        // another program is using the link
    EXIT_FAILED = 5,      // the device refused, or it gave no good answer
    EXIT_NO_SPACE = 6,    // no room, on the device or on this computer
    EXIT_PROTOCOL = 7,    // the device broke the protocol
    EXIT_HOST = 8,        // this computer: a file or folder here, memory, the output
    EXIT_PROGRAM = 9,     // a program on the device ended with another status than 0
    EXIT_CANCELLED = 130, // ended by Ctrl-C or a signal
    EXIT_NO_READER = 141, // who read the output has gone, as a shell shows the signal of that
};

// The list of exit statuses for the help.
extern const char* const g_lpszExitStatusHelp;

// What was asked of the library: the same result means another thing to do.
enum class Action {
    Status,
    Push,
    Pull,
    RemoveFile,
    MakeFolder,
    Move,
    Copy,
    List,
    Describe, // what is told of one file or folder
    Read,
    Write,
    Space,
    Storages,
    Format,
    Run,
    IoControl,
    Message,
};
inline constexpr int ACTION_COUNT = static_cast<int>(Action::Message) + 1;

// How far the operation had come: whether the library had reached the device, so that a device that
// is missing now has gone away.
enum class Stage { Opening, Running };

struct MEANING {
    int nExit;
    const char* lpszKey;     // one word for programs
    std::string strSentence; // what happened and what to do, without a full stop
};

// The meaning of dwState: a return value of the library, or GetLastError where that says more.
MEANING Explain(Action action, Stage stage, DWORD dwState);

// A failed plain operation: its return value, and what GetLastError then said.
MEANING ExplainOperation(Action action, DWORD dwResult, DWORD dwLastError);

} // namespace cli
