// dak-agent: serves a folder as the file system of an attached device.
#include <csignal>
#include <cstdio>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "agent/log_text.h"
#include "agent/posix/attachment.h"
#include "agent/posix/usbip_server.h"

namespace {

constexpr int s_nExitFailed = 1;
constexpr int s_nExitUsage = 2;

struct CArguments {
    agent::CDeviceOptions device;
    std::vector<std::string> storages; // NAME=DIR
    std::string strName = "device";
    std::uint64_t qwQuota = 0;
    bool bPaced = false;
    bool bVerbose = false;
};

void DeclareOptions(CLI::App& app, CArguments& arguments) {
    app.add_option("--root", arguments.device.strRoot,
                   "Folder to serve as the device's file system")
        ->required()
        ->type_name("DIR");
    app.add_option("--name", arguments.strName, "Name of the device")
        ->capture_default_str()
        ->type_name("NAME");
    app.add_option("--storage", arguments.storages,
                   "A storage: DIR is seen as the folder NAME of the root; may be repeated")
        ->type_name("NAME=DIR")
        ->allow_extra_args(false);
    app.add_option("--quota", arguments.qwQuota,
                   "Bytes that the device's files may grow to, those that are there included")
        ->type_name("BYTES")
        ->check(CLI::Validator(
            [](const std::string& strValue) {
                const bool bDigits = strValue.find_first_not_of("0123456789") == std::string::npos;
                return bDigits ? std::string() : "\"" + strValue + "\" is no number of bytes";
            },
            ""));
    app.add_flag("--allow-format", arguments.device.bAllowFormat,
                 "Let hosts format the root and the storages: everything on them is removed");
    CLI::Option* pAllow = app.add_flag("--allow-exec", arguments.device.system.bAllowExec,
                                       "Let hosts start programs that lie below the root");
    app.add_option("--exec-path", arguments.device.system.execPaths,
                   "Folder with further programs that hosts may start; may be repeated")
        ->needs(pAllow)
        ->type_name("DIR")
        ->allow_extra_args(false);
    app.add_option("--on-message", arguments.device.system.messageCommands,
                   "Command to start for every message that a host broadcasts, without a shell;\n"
                   "it finds DAK_MESSAGE, DAK_MESSAGE_NAME, DAK_WPARAM and DAK_LPARAM in its\n"
                   "environment; may be repeated")
        ->type_name("COMMAND")
        ->allow_extra_args(false);
    app.add_option("--max-open-files", arguments.device.nMostOpenFiles,
                   "Files that hosts may hold open by handle at one time")
        ->capture_default_str()
        ->type_name("N")
        ->check(CLI::Range(1, 65536));
    app.add_flag("--paced", arguments.bPaced,
                 "Do not say that the device needs no pauses: hosts then pause for it as for any\n"
                 "other device");
    app.add_flag("--verbose", arguments.bVerbose, "Say on standard error what the device does");
    app.set_version_flag("--version", "dak-agent " DAK_AGENT_VERSION);
    app.footer("The device is attached until the agent is stopped (Ctrl-C). Hosts find it in the\n"
               "folder $DAK_DEVICE_DIR, else $XDG_RUNTIME_DIR/dak, else /tmp/dak-UID.\n\n"
               "Example: dak-agent --root ~/device --storage \"Storage Card=$HOME/card\"");
}

void LogLine(const std::string& strLine) {
    std::fprintf(stderr, "dak-agent: %s\n", agent::Printable(strLine).c_str());
}

int Complain(const std::string& strWhy, int nExit) {
    LogLine(strWhy);
    return nExit;
}

// Open files of hosts must not take the descriptors that the agent itself works with: most in a
// copy of deep folders, two for each.
bool HasDescriptorsFor(std::size_t nOpenFiles) {
    constexpr rlim_t s_nOwn = 400;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    const rlim_t nWanted = static_cast<rlim_t>(nOpenFiles) + s_nOwn;
    if (limit.rlim_cur >= nWanted) {
        return true;
    }
    limit.rlim_cur = nWanted;
    return nWanted <= limit.rlim_max && ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// Signals that end the agent become readable here.
agent::CFd OpenStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return agent::CFd();
    }
    return agent::CFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Attaches, and does so anew whenever the device has had its link down.
int ServeAttached(const CArguments& arguments, agent::CAgentCore& core, int fdStop) {
    bool bFirst = true;
    do {
        std::string strError;
        const std::unique_ptr<agent::CAttachment> pAttachment =
            agent::CAttachment::Attach(arguments.strName, strError);
        if (!pAttachment) {
            return Complain(strError, s_nExitFailed);
        }
        agent::CUsbipServer server(core, pAttachment->Socket(), !arguments.bPaced,
                                   arguments.device.lpLog);
        if (bFirst) {
            std::printf("dak-agent: %s is attached as %s (%s)\n", arguments.device.strRoot.c_str(),
                        arguments.strName.c_str(), pAttachment->Path().c_str());
            if (std::fflush(stdout) != 0) {
                return Complain("standard output is closed", s_nExitFailed);
            }
            bFirst = false;
        }
        if (!server.Run(fdStop)) {
            return s_nExitFailed;
        }
    } while (!core.LinkUp() && agent::CUsbipServer::AwaitLink(core, fdStop));
    return 0;
}

// Descriptors 0 to 2 are what programs of the device get as theirs: none of our own may be there.
void OpenStandardDescriptors() {
    int fd = -1;
    do {
        fd = ::open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        ::close(fd);
    }
}

int Serve(const CArguments& arguments) {
    std::string strError;
    OpenStandardDescriptors();
    // A reader of our lines that goes, and a limit on a file's size, are results and no end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    const agent::CFd fdStop = OpenStopSignals();
    const std::unique_ptr<agent::CDevice> pDevice =
        agent::CAttachment::JudgeName(arguments.strName, strError)
            ? agent::CDevice::Open(arguments.device, strError)
            : nullptr;
    if (!pDevice) {
        return Complain(strError, s_nExitUsage);
    }
    if (!fdStop) {
        return Complain("no signals", s_nExitFailed);
    }
    agent::CAgentCore core(*pDevice);
    return ServeAttached(arguments, core, fdStop.Get());
}

int Run(int argc, char** argv) {
    CLI::App app("Serves a folder as the file system of an attached device.", "dak-agent");
    CArguments arguments;
    DeclareOptions(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : s_nExitUsage;
    }
    for (const std::string& strStorage : arguments.storages) {
        const std::size_t dwEquals = strStorage.find('=');
        if (dwEquals == std::string::npos) {
            return Complain("--storage " + strStorage + ": NAME=DIR is wanted", s_nExitUsage);
        }
        arguments.device.storages.push_back(
            {strStorage.substr(0, dwEquals), strStorage.substr(dwEquals + 1)});
    }
    if (app.count("--quota") > 0) {
        arguments.device.qwQuota = arguments.qwQuota;
    }
    arguments.device.system.strName = arguments.strName;
    arguments.device.system.strVersion = DAK_AGENT_VERSION;
    arguments.device.system.lpNotice = LogLine;
    if (!HasDescriptorsFor(arguments.device.nMostOpenFiles)) {
        return Complain("--max-open-files " + std::to_string(arguments.device.nMostOpenFiles) +
                            ": the system allows this process fewer open files",
                        s_nExitUsage);
    }
    arguments.device.lpClock = agent::CUsbipServer::NowMs;
    arguments.device.dwFirstHandle = std::random_device{}();
    if (arguments.bVerbose) {
        arguments.device.lpLog = LogLine;
    }
    return Serve(arguments);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dak-agent: %s\n", error.what());
        return s_nExitFailed;
    }
}
