// What the command asks of the system about its words, its terminal, its signals, and what goes
// through standard input and output. One file a system: console_posix.cpp, console_windows.cpp.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace console {

enum class Stream { In, Out, Error };

// The words of the command line behind the command's own name, as UTF-8; argc and argv are those of
// main.
std::vector<std::string> Words(int argc, char** argv);

// Puts nothing in the place of what is closed of standard input, output and error, so that no file
// or socket that is opened later gets what is printed. Called before anything else.
void OpenStreams();

// Prints UTF-8 text to Out or Error, which show as they are printed from here alone. A terminal
// gets characters, everything else the bytes. Failures are kept for Flush.
void Print(Stream stream, std::string_view strText);

// Hands on what Print has kept back; false when some text could not be written to standard output.
bool Flush();

// Whether Print or Flush found that nobody reads standard output or error any more.
bool ReaderGone();

// Whether the stream is a terminal; for Out and Error, one that can redraw a line.
bool IsTerminal(Stream stream);

// Columns of the terminal at standard error; 80 where it does not say.
int Width();

// While an object lives, the first request to end the command (Ctrl-C, or the system's own) is kept
// for Requested, and a second one ends the process at once with exit status 130. A reader of the
// output that goes is a request as well, and no signal. There is one object at a time.
class CInterrupts {
  public:
    CInterrupts();
    ~CInterrupts();
    CInterrupts(const CInterrupts&) = delete;
    CInterrupts& operator=(const CInterrupts&) = delete;

    static bool Requested();
};

// How far bytes of standard input or output went.
enum class Flow {
    Whole,       // all of them
    End,         // the input has ended
    Interrupted, // a request to end came first (CInterrupts)
    ReaderGone,  // nobody reads the output any more
    Failed,
};

// Takes bytes from standard input until the buffer is full (Whole) or the input ends (End). nRead
// counts what came, on every result. A file descriptor's bytes pass as they are.
Flow ReadInput(void* lpBuffer, std::size_t nBytes, std::size_t& nRead);

// Writes bytes to standard output as they are, all of them on Whole. From the first call on a
// reader that goes is a result and no signal.
Flow WriteOutput(const void* lpBytes, std::size_t nBytes);

} // namespace console
