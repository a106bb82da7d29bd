#include "link/debug_trace.h"

#include "link/shared_word.h"

#include <cstdarg>
#include <cstdio>

namespace {

char g_szTraceLine[260];
CWordLock g_TraceLock;
DebugTraceSink g_lpTraceSink = nullptr;

} // namespace

void DebugTrace(const char* lpszLine) {
    if (g_lpTraceSink != nullptr) {
        g_lpTraceSink(lpszLine);
    }
}

void TraceLine(const char* lpszFormat, ...) {
    const CWordLockHold hold(g_TraceLock);
    va_list arguments;
    va_start(arguments, lpszFormat);
    std::vsnprintf(g_szTraceLine, sizeof(g_szTraceLine), lpszFormat, arguments);
    va_end(arguments);
    DebugTrace(g_szTraceLine);
}

void SetDebugTraceSink(DebugTraceSink lpSink) {
    const CWordLockHold hold(g_TraceLock);
    g_lpTraceSink = lpSink;
}
