#include "tests/support/process.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

CProgram::CProgram(const std::vector<std::string>& words, CSurroundings surroundings) {
    m_files.Write("0", surroundings.strInput);
    for (std::size_t i = 0; i < 3; ++i) {
        if (int& nStream = surroundings.streams[i]; nStream < 0) {
            nStream =
                ::open(m_files.Path(std::to_string(i)).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        }
    }
    std::vector<char*> arguments;
    for (const std::string& strWord : words) {
        arguments.push_back(const_cast<char*>(strWord.c_str()));
    }
    arguments.push_back(nullptr);
    m_nProcess = ::fork();
    if (m_nProcess == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives a test that is killed
        ::setsid();                         // a terminal, where it has one, is its own
        for (int i = 0; i < 3; ++i) {
            ::dup2(surroundings.streams[static_cast<std::size_t>(i)], i);
        }
        ::ioctl(0, TIOCSCTTY, 0);
        const std::string& strFolder = surroundings.strFolder;
        if (strFolder.empty() || ::chdir(strFolder.c_str()) == 0) {
            ::execv(arguments[0], arguments.data());
        }
        ::_exit(127);
    }
    EXPECT_GT(m_nProcess, 0);
    for (const int nStream : surroundings.streams) {
        ::close(nStream);
    }
}

bool CProgram::IsRunning() {
    int nStatus = 0;
    if (!m_nExit && ::waitpid(static_cast<pid_t>(m_nProcess), &nStatus, WNOHANG) != 0) {
        m_nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }
    return !m_nExit;
}

// To a program that has ended, nothing: its number may be another's by now.
void CProgram::Signal(int nSignal) {
    if (IsRunning()) {
        ::kill(static_cast<pid_t>(m_nProcess), nSignal);
    }
}

std::array<int, 2> MakePipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
}

} // namespace test
