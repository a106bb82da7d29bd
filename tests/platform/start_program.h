// How the test programs of this system start others.
#pragma once

#include "platform/types.h"

#include <string>

namespace windows_test {

// As CreateProcessW. Wine, on a busy machine, fails now and then to start a program, so it is tried
// again.
inline BOOL StartProgram(std::wstring strCommand, PROCESS_INFORMATION& process,
                         STARTUPINFOW startup = {}) {
    startup.cb = sizeof(startup);
    const bool bInherit = (startup.dwFlags & STARTF_USESTDHANDLES) != 0;
    for (int nTry = 0;; ++nTry) {
        if (::CreateProcessW(nullptr, strCommand.data(), nullptr, nullptr, bInherit ? TRUE : FALSE,
                             0, nullptr, nullptr, &startup, &process) != FALSE) {
            return TRUE;
        }
        if (nTry == 4) {
            return FALSE;
        }
        ::Sleep(200);
    }
}

} // namespace windows_test
