#include "bench/process.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace bench {
namespace {

pid_t Start(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& strArgument : arguments) {
        argv.push_back(const_cast<char*>(strArgument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t nPid = -1;
    const int nError = posix_spawn(&nPid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (nError != 0) {
        std::fprintf(stderr, "cannot start %s\n", argv[0]);
        std::exit(EXIT_FAILURE);
    }
    return nPid;
}

bool IsAttached(const std::string& strDevices) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(strDevices)) {
        if (entry.is_socket()) {
            return true;
        }
    }
    return false;
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

} // namespace

std::string ProgramFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/";
}

CDeviceForBench::CDeviceForBench(Pace ePace) {
    std::string strTemplate = std::filesystem::temp_directory_path().string() + "/dak-bench-XXXXXX";
    if (mkdtemp(strTemplate.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(EXIT_FAILURE);
    }
    m_strFolder = strTemplate;
    const std::string strDevices = m_strFolder + "/devices";
    std::filesystem::create_directory(Root());
    std::filesystem::create_directory(strDevices);
    setenv("DAK_DEVICE_DIR", strDevices.c_str(), 1);
    std::vector<std::string> arguments = {ProgramFolder() + "dak-agent", "--root", Root()};
    if (ePace == Pace::Paced) {
        arguments.emplace_back("--paced");
    }
    m_nAgent = Start(arguments);
    for (int nTry = 0; nTry < 500 && !IsAttached(strDevices); ++nTry) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!IsAttached(strDevices)) {
        std::fputs("the agent did not attach\n", stderr);
        std::exit(EXIT_FAILURE);
    }
}

CDeviceForBench::~CDeviceForBench() {
    kill(m_nAgent, SIGTERM);
    waitpid(m_nAgent, nullptr, 0);
    std::error_code error;
    std::filesystem::remove_all(m_strFolder, error);
}

double CDeviceForBench::AgentCpuSeconds() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(m_nAgent, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

RunResult Run(const std::vector<std::string>& arguments) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t nPid = Start(arguments);
    int nStatus = 0;
    rusage usage{};
    wait4(nPid, &nStatus, 0, &usage);
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, wall.count(),
            Seconds(usage.ru_utime) + Seconds(usage.ru_stime)};
}

std::string OwnMHz() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string strLine; std::getline(info, strLine);) {
        if (strLine.starts_with("cpu MHz")) {
            return std::to_string(std::atol(strLine.c_str() + strLine.find(':') + 1));
        }
    }
    return "847";
}

std::pair<double, double> DemandedSeconds(const std::string& strArguments) {
    const std::string strCommand = ProgramFolder() + "bench_demanded_waits " + strArguments;
    unsigned long long qwFirst = 0;
    unsigned long long qwSecond = 0;
    FILE* const lpPipe = popen(strCommand.c_str(), "r");
    if (lpPipe == nullptr || std::fscanf(lpPipe, "%llu %llu", &qwFirst, &qwSecond) != 2 ||
        pclose(lpPipe) != 0) {
        std::fputs("bench_demanded_waits failed\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    return {static_cast<double>(qwFirst) / 1e3, static_cast<double>(qwSecond) / 1e3};
}

} // namespace bench
