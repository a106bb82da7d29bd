// What the end-to-end tests share: programs in processes of their own, and a world for each test
// with a device folder, a device and a place on the host.
#pragma once

#include "tests/cli/temp_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace end_to_end {

namespace fs = std::filesystem;

// How long anything may take before a test gives it up: far more than it needs, for machines that
// are slow or busy.
inline constexpr std::chrono::milliseconds BOUND{90'000};

inline void Pause(int nMs) {
    std::this_thread::sleep_for(std::chrono::milliseconds(nMs));
}

// Asks again and again until the answer is yes; false when it does not come in time.
template <class QUESTION>
bool Eventually(QUESTION question) {
    const auto end = std::chrono::steady_clock::now() + BOUND;
    while (!question()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        Pause(1);
    }
    return true;
}

inline std::string ReadBytes(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The files of a folder and of those below, by their names in it, with their bytes.
using TREE = std::map<std::string, std::string>;

inline TREE ReadTree(const std::string& strFolder) {
    TREE tree;
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(strFolder, error)) {
        if (entry.is_regular_file(error)) {
            tree[entry.path().lexically_relative(strFolder)] = ReadBytes(entry.path());
        }
    }
    return tree;
}

// Bytes that repeat neither at a package's nor at a window's distance.
inline std::string Content(std::size_t nBytes, unsigned nSeed) {
    std::mt19937 random(nSeed);
    std::string strBytes(nBytes, '\0');
    for (char& ch : strBytes) {
        ch = static_cast<char>(random() & 0xFF);
    }
    return strBytes;
}

// A program in a process of its own, killed at the latest with the object or the test.
class CProgram {
  public:
    // strOutput: what the files of its output are called, without ".out" and ".err".
    CProgram(const std::vector<std::string>& command, const std::vector<std::string>& environment,
             const std::string& strFolder, std::string strOutput)
        : m_strOutput(std::move(strOutput)) {
        const std::vector<char*> arguments = Pointers(command);
        const std::vector<char*> variables = Pointers(environment);
        constexpr int nFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
        const int nOutput = ::open((m_strOutput + ".out").c_str(), nFlags, 0600);
        const int nErrors = ::open((m_strOutput + ".err").c_str(), nFlags, 0600);
        m_nPid = ::fork();
        EXPECT_NE(m_nPid, -1) << "no process";
        if (m_nPid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives a test that is killed
            ::dup2(nOutput, STDOUT_FILENO);
            ::dup2(nErrors, STDERR_FILENO);
            if (::chdir(strFolder.c_str()) == 0) {
                ::execve(arguments[0], arguments.data(), variables.data());
            }
            ::_exit(127);
        }
        ::close(nOutput);
        ::close(nErrors);
    }
    ~CProgram() {
        if (IsRunning()) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
        }
    }
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    std::string Output() const { return ReadBytes(m_strOutput + ".out"); } // so far
    std::string Errors() const { return ReadBytes(m_strOutput + ".err"); }

    bool Says(const char* lpszText) const {
        return (Output() + Errors()).find(lpszText) != std::string::npos;
    }

    bool IsRunning() {
        if (m_nPid > 0 && ::waitpid(m_nPid, &m_nStatus, WNOHANG) == m_nPid) {
            m_nPid = -1;
        }
        return m_nPid > 0;
    }

    // To a program that has ended, nothing: its number may be another's by now.
    void Signal(int nSignal) {
        if (IsRunning()) {
            ::kill(m_nPid, nSignal);
        }
    }

    // Sends the signal (0: none) and waits for the end: the exit status, or the signal that ended
    // it with a minus. A program that does not end in time, or that a sanitizer found fault with,
    // fails the test.
    int End(int nSignal = 0) {
        Signal(nSignal);
        if (!Eventually([this] { return !IsRunning(); })) {
            ADD_FAILURE() << "it hangs: " << Errors();
            return End(SIGKILL);
        }
        EXPECT_FALSE(Says("Sanitizer") || Says("runtime error")) << Errors();
        return WIFEXITED(m_nStatus) ? WEXITSTATUS(m_nStatus) : -WTERMSIG(m_nStatus);
    }

  private:
    static std::vector<char*> Pointers(const std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        for (const std::string& strText : texts) {
            pointers.push_back(const_cast<char*>(strText.c_str()));
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    std::string m_strOutput;
    pid_t m_nPid = -1;
    int m_nStatus = 0;
};

// Folders "host", where the command runs, and "device", the root that the agent serves.
class CWorld {
  public:
    CWorld() {
        for (char** lpVariable = environ; *lpVariable != nullptr; ++lpVariable) {
            if (!std::string(*lpVariable).starts_with("DAK_")) {
                m_environment.emplace_back(*lpVariable);
            }
        }
        m_environment.push_back("DAK_DEVICE_DIR=" + Path("attached"));
        m_environment.emplace_back("DAK_CPU_MHZ=200"); // no delays inside the streams
        for (const char* lpszFolder : {"host", "device", "output"}) {
            fs::create_directory(m_folder.Path(lpszFolder));
        }
    }

    std::string Path(const std::string& strBelow) const { return m_folder.Path(strBelow); }
    void Write(const std::string& strPath, const TREE& tree) const {
        for (const auto& [strName, strBytes] : tree) {
            m_folder.Write(strPath + "/" + strName, strBytes);
        }
    }

    // Starts the agent, with further options, and waits until it is attached.
    CProgram& StartAgent(const std::vector<std::string>& options = {}) {
        std::vector<std::string> command = {DAK_AGENT_PROGRAM, "--root", Path("device"),
                                            "--verbose"};
        command.insert(command.end(), options.begin(), options.end());
        m_pAgent = Launch(command);
        EXPECT_TRUE(Eventually([this] { return !m_pAgent->Output().empty(); }));
        return *m_pAgent;
    }
    CProgram& Agent() { return *m_pAgent; }

    // The command, with its arguments.
    std::unique_ptr<CProgram> Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), DAK_PROGRAM);
        return Launch(arguments);
    }
    // The same, ended.
    std::unique_ptr<CProgram> Run(const std::vector<std::string>& arguments) {
        std::unique_ptr<CProgram> pProgram = Start(arguments);
        pProgram->End();
        return pProgram;
    }
    int Exit(const std::vector<std::string>& arguments) { return Start(arguments)->End(); }

    // A script of a shell in which "dak" is the command.
    std::unique_ptr<CProgram> StartShell(const std::string& strScript) {
        return Launch({"/bin/bash", "-c", "dak() { " DAK_PROGRAM " \"$@\"; }\n" + strScript});
    }

  private:
    std::unique_ptr<CProgram> Launch(const std::vector<std::string>& command) {
        return std::make_unique<CProgram>(command, m_environment, Path("host"),
                                          m_folder.Path("output/" + std::to_string(++m_nLaunched)));
    }

    CTempFolder m_folder;
    std::vector<std::string> m_environment;
    int m_nLaunched = 0;
    std::unique_ptr<CProgram> m_pAgent;
};

} // namespace end_to_end
