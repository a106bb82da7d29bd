// A temporary device for the benchmarks: an agent process on a folder of its own, and programs run
// against it.
#pragma once

#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace bench {

// The folder that the running program stands in, with its trailing slash.
std::string ProgramFolder();

// An agent, from construction to destruction; all that it needs lies below a temporary folder, and
// DAK_DEVICE_DIR of this process leads there. Ends the program with a message when it does not
// start.
enum class Pace { Paced, Prompt }; // what the agent says of its device

class CDeviceForBench {
  public:
    explicit CDeviceForBench(Pace ePace = Pace::Paced);
    ~CDeviceForBench();
    CDeviceForBench(const CDeviceForBench&) = delete;
    CDeviceForBench& operator=(const CDeviceForBench&) = delete;

    const std::string& Folder() const { return m_strFolder; }  // temporary, for whatever is needed
    std::string Root() const { return m_strFolder + "/root"; } // the device's files
    double AgentCpuSeconds() const;                            // so far

  private:
    std::string m_strFolder;
    pid_t m_nAgent = -1;
};

struct RunResult {
    int nExitCode; // -1 when it did not end by itself
    double fWallSeconds;
    double fCpuSeconds; // user and system
};

// Runs a program to its end, its output thrown away.
RunResult Run(const std::vector<std::string>& arguments);

// The processor's speed as the library would read it without DAK_CPU_MHZ.
std::string OwnMHz();

// The two figures that bench_demanded_waits prints, in seconds. Ends the program with a message
// when it fails.
std::pair<double, double> DemandedSeconds(const std::string& strArguments);

} // namespace bench
