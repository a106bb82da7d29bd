// The trace: one line of text at a time, formatted into a buffer that the whole process shares and
// handed to one sink. By default the sink discards it, and no behaviour depends on a trace.
#pragma once

#include "platform/types.h"

// Takes one line, which ends in "\n" unless it was cut.
void DebugTrace(const char* lpszLine);

// Formats as printf does and hands the line to DebugTrace. A line longer than the buffer of 260
// bytes is cut. Any thread.
void TraceLine(const char* lpszFormat, ...);

// Where DebugTrace sends its lines instead of nowhere; null: nowhere again. For tests and for
// somebody at a debugger. The sink runs under the trace's lock and calls nothing of the library.
using DebugTraceSink = void (*)(const char* lpszLine);
void SetDebugTraceSink(DebugTraceSink lpSink);
