#include "tests/support/process.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

namespace test {

CProgram::CProgram(const std::vector<std::string>& words, CSurroundings surroundings) {
    m_files.Write("0", surroundings.strInput);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    HANDLE* const streams[] = {&startup.hStdInput, &startup.hStdOutput, &startup.hStdError};
    for (std::size_t i = 0; i < 3; ++i) {
        int& nStream = surroundings.streams[i];
        if (nStream < 0) {
            nStream = ::_wopen((m_files / std::to_string(i)).c_str(),
                               _O_RDWR | _O_CREAT | _O_BINARY, _S_IREAD | _S_IWRITE);
        }
        *streams[i] = reinterpret_cast<HANDLE>(::_get_osfhandle(nStream));
        ::SetHandleInformation(*streams[i], HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
    std::wstring strLine;
    for (const std::string& strWord : words) {
        strLine +=
            L"\"" + PathOf(strWord).wstring() + (strWord.ends_with('\\') ? L"\\\" " : L"\" ");
    }
    const std::wstring strFolder = PathOf(surroundings.strFolder).wstring();
    PROCESS_INFORMATION process{};
    EXPECT_TRUE(::CreateProcessW(nullptr, strLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                 strFolder.empty() ? nullptr : strFolder.c_str(), &startup,
                                 &process))
        << words[0] << ": error " << ::GetLastError();
    ::CloseHandle(process.hThread);
    m_nProcess = reinterpret_cast<std::intptr_t>(process.hProcess);
    for (const int nStream : surroundings.streams) {
        ::_close(nStream);
    }
}

bool CProgram::IsRunning() {
    const auto hProcess = reinterpret_cast<HANDLE>(m_nProcess);
    DWORD dwExit = 0;
    if (!m_nExit && ::WaitForSingleObject(hProcess, 0) != WAIT_TIMEOUT) {
        ::GetExitCodeProcess(hProcess, &dwExit);
        m_nExit = static_cast<int>(dwExit);
        ::CloseHandle(hProcess);
    }
    return !m_nExit;
}

void CProgram::Signal(int nSignal) {
    if (nSignal == SIGINT) {
        EXPECT_TRUE(::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
    } else if (IsRunning()) {
        ::TerminateProcess(reinterpret_cast<HANDLE>(m_nProcess), static_cast<UINT>(-nSignal));
    }
}

std::array<int, 2> MakePipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::_pipe(ends.data(), 65536, _O_BINARY | _O_NOINHERIT), 0);
    return ends;
}

} // namespace test
