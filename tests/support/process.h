// A program in a process of its own. process_posix.cpp, process_windows.cpp.
#pragma once

#include "tests/support/temp_folder.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace test {

// How long anything may take before a test gives it up: far more than it needs, for machines that
// are slow or busy.
inline constexpr std::chrono::seconds BOUND{90};

// Asks again and again until the answer is yes; false when it does not come in time.
template <class QUESTION>
bool Eventually(QUESTION question) {
    const auto end = std::chrono::steady_clock::now() + BOUND;
    while (!question()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// What a program finds where it starts. Texts are UTF-8.
struct CSurroundings {
    std::string strFolder = {}; // empty: this program's own
    std::string strInput = {};
    std::array<int, 3> streams = {-1, -1, -1}; // descriptors in place of files, closed here
};

class CProgram {
  public:
    static constexpr int KILLED = -9;

    // The path, and arguments without quotes in them.
    explicit CProgram(const std::vector<std::string>& words, CSurroundings surroundings = {});
    ~CProgram() { Kill(); }
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    bool IsRunning();
    // On Windows SIGINT is Ctrl-C for all that share this program's console, itself too, and any
    // other signal kills.
    void Signal(int nSignal);

    // Waits for the end: the exit status, or the signal that ended it with a minus. A program that
    // does not end in time, or that a sanitizer found fault with, fails the test.
    int End() {
        if (!Eventually([this] { return !IsRunning(); })) {
            ADD_FAILURE() << "it hangs: " << Errors();
            return Kill();
        }
        EXPECT_FALSE(Says("Sanitizer") || Says("runtime error")) << Errors();
        return *m_nExit;
    }
    int Kill() {
        Signal(-KILLED);
        return End();
    }

    // What it has written into its files so far.
    std::string Output() const { return ReadBytes(m_files / "1"); }
    std::string Errors() const { return ReadBytes(m_files / "2"); }
    bool Says(const std::string& strText) const {
        return (Output() + Errors()).find(strText) != std::string::npos;
    }

  private:
    CTempFolder m_files;
    std::intptr_t m_nProcess = 0;
    std::optional<int> m_nExit;
};

// The end to read from, and the end to write to.
std::array<int, 2> MakePipe();

} // namespace test
