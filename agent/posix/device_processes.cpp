// Programs on a POSIX system.
#include "agent/device_processes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/command_line.h"
#include "agent/device.h"
#include "agent/posix/system_file.h"

namespace agent {

namespace {

// How often programs are looked at: while somebody waits for one, and otherwise.
constexpr std::uint64_t s_qwAwaitedMs = 10;
constexpr std::uint64_t s_qwUnwatchedMs = 500;

struct CCommand {
    std::string strProgram; // path of the system
    std::vector<std::string> arguments;
};

struct CChild {
    pid_t pid;
    std::string strName;
    bool bCommand;
    std::shared_ptr<CProcessState> pState;
};

// All that a child needs between fork and exec, where nothing may be allocated.
struct CLaunch {
    int fdProgram;
    int fdFolder; // negative: the agent's
    int fdNull;
    int fdError; // takes errno when the program cannot be run
    char* const* lpArguments;
    char* const* lpEnvironment;
};

// Whatever the agent itself was started with must not reach its children either.
void CloseOnExec() {
    if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    const long nMost = std::min(::sysconf(_SC_OPEN_MAX), 65536L);
    for (int fd = 3; fd < nMost; ++fd) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

[[noreturn]] void RunChild(const CLaunch& launch) {
    ::setsid();
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int nSignal = 1; nSignal < NSIG; ++nSignal) {
        ::sigaction(nSignal, &action, nullptr);
    }
    ::sigprocmask(SIG_SETMASK, &action.sa_mask, nullptr);
    if (::dup2(launch.fdNull, STDIN_FILENO) >= 0 && ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 &&
        (launch.fdFolder < 0 || ::fchdir(launch.fdFolder) == 0)) {
        CloseOnExec();
        const auto run = [&launch] {
            ::syscall(SYS_execveat, launch.fdProgram, "", launch.lpArguments, launch.lpEnvironment,
                      AT_EMPTY_PATH);
        };
        run();
        if (errno == ENOENT && ::fcntl(launch.fdProgram, F_SETFD, 0) == 0) {
            // A script: its interpreter reads it through this descriptor.
            run();
        }
    }
    const int nError = errno;
    static_cast<void>(::write(launch.fdError, &nError, sizeof(nError)) == sizeof(nError));
    ::_exit(127);
}

// Pointers into the strings, with the null behind the last.
std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& strText : strings) {
        pointers.push_back(strText.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The agent's environment with some variables set.
std::vector<std::string> Environment(const CDeviceProcesses::CVariables& variables) {
    std::vector<std::string> lines;
    for (const auto& [strName, strValue] : variables) {
        lines.push_back(strName + "=" + strValue);
    }
    for (char** lpLine = environ; *lpLine; ++lpLine) {
        const std::string_view strLine = *lpLine;
        const std::string_view strName = strLine.substr(0, strLine.find('='));
        if (std::none_of(variables.begin(), variables.end(),
                         [&](const auto& variable) { return variable.first == strName; })) {
            lines.emplace_back(strLine);
        }
    }
    return lines;
}

bool IsProgram(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
}

// The file that a shell would run for this word; empty when there is none.
std::string FindCommand(const std::string& strWord) {
    const auto isProgram = [](const std::string& strPath) {
        return IsProgram(CFd(::open(strPath.c_str(), O_PATH | O_CLOEXEC)).Get());
    };
    if (strWord.find('/') != std::string::npos) {
        return isProgram(strWord) ? strWord : "";
    }
    const char* lpszPath = std::getenv("PATH");
    std::string_view strRest = lpszPath ? lpszPath : "/usr/bin:/bin";
    while (!strRest.empty() && !strWord.empty()) {
        const std::size_t dwColon = std::min(strRest.find(':'), strRest.size());
        const std::string strPath = std::string(strRest.substr(0, dwColon)) + "/" + strWord;
        if (strPath.front() == '/' && isProgram(strPath)) {
            return strPath;
        }
        strRest.remove_prefix(std::min(dwColon + 1, strRest.size()));
    }
    return "";
}

class CPosixProcesses final : public CDeviceProcesses {
  public:
    CPosixProcesses(CDeviceFolder& folder, std::function<void(const std::string&)> lpLog,
                    std::function<void(const std::string&)> lpNotice)
        : m_folder(folder), m_lpLog(std::move(lpLog)), m_lpNotice(std::move(lpNotice)) {}
    ~CPosixProcesses() override { Reap(); }

    bool OpenExecPaths(const CDeviceOptions& options, std::string& strError);
    bool TakeCommands(const CDeviceOptions& options, std::string& strError);

    std::shared_ptr<const CProcessState>
    StartProgram(const CDevicePath& path, bool bBareName,
                 const std::vector<std::string>& arguments) override;
    void StartMessageCommands(const CVariables& variables) override;
    void Tick(std::uint64_t /*qwNowMs*/) override { Reap(); }
    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override;

  private:
    CFd OpenProgram(const CDevicePath& path, bool bBareName) const;
    std::shared_ptr<const CProcessState> Launch(const CFd& fdProgram, bool bCommand,
                                                std::vector<std::string> words,
                                                const CVariables& variables, std::string& strError);
    bool HasRoom(bool bCommand) const;
    void Reap();

    CDeviceFolder& m_folder;
    std::function<void(const std::string&)> m_lpLog;
    std::function<void(const std::string&)> m_lpNotice;
    std::vector<CFd> m_execPaths;
    std::vector<CCommand> m_commands;
    std::vector<CChild> m_children;
};

bool CPosixProcesses::OpenExecPaths(const CDeviceOptions& options, std::string& strError) {
    for (const std::string& strFolder : options.system.execPaths) {
        m_execPaths.emplace_back(::open(strFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!m_execPaths.back()) {
            strError = strFolder + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool CPosixProcesses::TakeCommands(const CDeviceOptions& options, std::string& strError) {
    for (const std::string& strLine : options.system.messageCommands) {
        std::optional<std::vector<std::string>> words = SplitCommandLine(strLine);
        const std::string strProgram = words && !words->empty() ? FindCommand(words->front()) : "";
        if (strProgram.empty()) {
            strError = "\"" + strLine +
                       "\": " + (words ? "no such command" : "a quote or backslash is left open");
            return false;
        }
        m_commands.push_back({strProgram, std::move(*words)});
    }
    return true;
}

CFd CPosixProcesses::OpenProgram(const CDevicePath& path, bool bBareName) const {
    CFd fd = m_folder.OpenProgram(path);
    for (const CFd& fdFolder : m_execPaths) {
        if (fd || !bBareName) {
            break;
        }
        fd = OpenBelow(fdFolder.Get(), path.Text(), O_PATH);
    }
    return fd;
}

bool CPosixProcesses::HasRoom(bool bCommand) const {
    const auto nRunning =
        std::count_if(m_children.begin(), m_children.end(),
                      [&](const CChild& child) { return child.bCommand == bCommand; });
    return static_cast<std::size_t>(nRunning) < (bCommand ? MOST_COMMANDS : MOST_PROGRAMS);
}

std::shared_ptr<const CProcessState> CPosixProcesses::Launch(const CFd& fdProgram, bool bCommand,
                                                             std::vector<std::string> words,
                                                             const CVariables& variables,
                                                             std::string& strError) {
    Reap();
    std::array<int, 2> fds = {-1, -1};
    const CFd fdNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const CFd fdRoot = bCommand ? CFd() : m_folder.OpenProgram(CDevicePath());
    if (!HasRoom(bCommand) || !fdNull || (!fdRoot && !bCommand) ||
        ::pipe2(fds.data(), O_CLOEXEC) != 0) {
        strError = HasRoom(bCommand) ? std::strerror(errno) : "too many are running";
        return nullptr;
    }
    const CFd fdRead(fds[0]);
    CFd fdWrite(fds[1]);
    std::vector<std::string> environment = Environment(variables);
    const std::vector<char*> lpWords = Pointers(words);
    const std::vector<char*> lpEnvironment = Pointers(environment);
    const CLaunch launch = {fdProgram.Get(), fdRoot.Get(),   fdNull.Get(),
                            fdWrite.Get(),   lpWords.data(), lpEnvironment.data()};
    const pid_t pid = ::fork();
    if (pid == 0) {
        RunChild(launch);
    }
    int nError = pid < 0 ? errno : 0;
    fdWrite.Close();
    // The end of the pipe says that the program has taken the child's place.
    while (pid > 0 && ::read(fdRead.Get(), &nError, sizeof(nError)) < 0 && errno == EINTR) {
    }
    if (nError != 0) {
        while (pid > 0 && ::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        strError = std::strerror(nError);
        return nullptr;
    }
    m_children.push_back({pid, words.front(), bCommand, std::make_shared<CProcessState>()});
    return m_children.back().pState;
}

std::shared_ptr<const CProcessState>
CPosixProcesses::StartProgram(const CDevicePath& path, bool bBareName,
                              const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {path.Text()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::string strError = "no program there";
    std::shared_ptr<const CProcessState> pState;
    const CFd fdProgram = OpenProgram(path, bBareName);
    if (fdProgram && IsProgram(fdProgram.Get())) {
        pState = Launch(fdProgram, false, std::move(words), {}, strError);
    }
    if (m_lpLog) {
        m_lpLog("start " + path.Text() + (pState ? "" : ": " + strError));
    }
    return pState;
}

void CPosixProcesses::StartMessageCommands(const CVariables& variables) {
    for (const CCommand& command : m_commands) {
        std::string strError;
        const CFd fdProgram(::open(command.strProgram.c_str(), O_PATH | O_CLOEXEC));
        if (!fdProgram) {
            strError = std::strerror(errno);
        }
        if ((!fdProgram || !Launch(fdProgram, true, command.arguments, variables, strError)) &&
            m_lpNotice) {
            m_lpNotice("message command " + command.strProgram + ": " + strError);
        }
    }
}

void CPosixProcesses::Reap() {
    std::erase_if(m_children, [this](CChild& child) {
        int nStatus = 0;
        if (::waitpid(child.pid, &nStatus, WNOHANG) != child.pid) {
            return false;
        }
        child.pState->bEnded = true;
        child.pState->dwStatus = static_cast<std::uint32_t>(
            WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus));
        if (m_lpLog) {
            m_lpLog(child.strName + " ended with " + std::to_string(child.pState->dwStatus));
        }
        return true;
    });
}

std::optional<std::uint64_t> CPosixProcesses::DueMs(std::uint64_t qwNowMs) const {
    if (m_children.empty()) {
        return std::nullopt;
    }
    const bool bAwaited =
        std::any_of(m_children.begin(), m_children.end(),
                    [](const CChild& child) { return child.pState.use_count() > 1; });
    return qwNowMs + (bAwaited ? s_qwAwaitedMs : s_qwUnwatchedMs);
}

} // namespace

std::shared_ptr<CDeviceProcesses> CDeviceProcesses::Open(const CDeviceOptions& options,
                                                         CDeviceFolder& folder,
                                                         std::string& strError) {
    const auto pProcesses =
        std::make_shared<CPosixProcesses>(folder, options.lpLog, options.system.lpNotice);
    return pProcesses->OpenExecPaths(options, strError) &&
                   pProcesses->TakeCommands(options, strError)
               ? pProcesses
               : nullptr;
}

} // namespace agent
