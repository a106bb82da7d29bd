// What the command asks of the system about its terminal and its signals. One file a system:
// console_posix.cpp.
#pragma once

namespace console {

enum class Stream { Out, Error };

// Whether the stream goes to a terminal that can redraw a line.
bool IsTerminal(Stream stream);

// Columns of the terminal at standard error; 80 where it does not say.
int Width();

// While an object lives, the first request to end the command (Ctrl-C, or the system's own) is kept
// for Requested, and a second one ends the process at once with exit status 130. There is one
// object at a time.
class CInterrupts {
  public:
    CInterrupts();
    ~CInterrupts();
    CInterrupts(const CInterrupts&) = delete;
    CInterrupts& operator=(const CInterrupts&) = delete;

    static bool Requested();
};

} // namespace console
