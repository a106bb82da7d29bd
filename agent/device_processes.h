// Programs that run on the device. This header is the contract; the implementation is decided where
// the program is linked, and the tests hand in one of their own.
//
// A program gets no descriptor of the agent: its input is empty, and its output goes to where the
// agent's standard error goes. It is on its own once it runs: it outlives the exchange that started
// it, its host, and the agent. All calls come from one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace agent {

class CDeviceFolder;
class CDevicePath;
struct CDeviceOptions;

struct CProcessState {
    bool bEnded = false;
    std::uint32_t dwStatus = 0; // exit status; 128 and the signal's number for one that was killed
};

class CDeviceProcesses {
  public:
    // Programs of the host, and commands for messages, that may run at the same time.
    static constexpr std::size_t MOST_PROGRAMS = 32;
    static constexpr std::size_t MOST_COMMANDS = 8;

    using CVariables = std::vector<std::pair<std::string, std::string>>;

    // Null, and the reason in strError, when a folder of programs cannot be opened or a command for
    // messages cannot be split or found. The folder outlives the object.
    static std::shared_ptr<CDeviceProcesses> Open(const CDeviceOptions& options,
                                                  CDeviceFolder& folder, std::string& strError);

    virtual ~CDeviceProcesses() = default;

    // Starts a program below the root or, when it was named without a folder (bBareName) and the
    // root holds none of its name, one in a folder of programs. A link that leads out of either is
    // refused, and what was judged is what runs. Its working folder is the root. A program that a
    // format has taken away is not there any more. Null when nothing
    // was started; the state is kept up to date by Tick as long as somebody holds it.
    virtual std::shared_ptr<const CProcessState>
    StartProgram(const CDevicePath& path, bool bBareName,
                 const std::vector<std::string>& arguments) = 0;

    // Starts the owner's commands for a message, with further variables in their environment. What
    // cannot be started is told to the owner.
    virtual void StartMessageCommands(const CVariables& variables) = 0;

    // Takes notice of programs that have ended.
    virtual void Tick(std::uint64_t qwNowMs) = 0;

    // When the next Tick is wanted; nothing when no program runs.
    virtual std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const = 0;
};

} // namespace agent
