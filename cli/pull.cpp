#include "cli/arrivals.h"
#include "cli/console.h"
#include "cli/copy.h"
#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/progress.h"
#include "cli/text.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <system_error>

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

namespace cli {
namespace {

// What one job can ask for: names in one folder of the device.
struct PULLGROUP {
    std::string strFolder;
    std::vector<std::string> names;
};

struct PULLPLAN {
    std::vector<PULLGROUP> groups;
    std::vector<LEFTOUT> leftOut;
};

// Folders made for a pull. Those that nothing has come into are taken away again.
class CMadeFolders {
  public:
    // Makes the folder and those above it.
    std::error_code Make(const fs::path& folder) {
        std::vector<fs::path> missing;
        std::error_code error;
        // What has nothing above it, such as a drive that is not there, cannot be made.
        for (fs::path path = folder; path.has_relative_path() && !fs::exists(path, error);
             path = path.parent_path()) {
            missing.push_back(path);
        }
        error.clear();
        for (auto it = missing.rbegin(); it != missing.rend() && !error; ++it) {
            if (fs::create_directory(*it, error)) {
                m_made.push_back(*it);
            }
        }
        if (!error && !fs::is_directory(folder, error) && !error) {
            error = std::make_error_code(std::errc::not_a_directory);
        }
        return error;
    }

    ~CMadeFolders() {
        // Deepest first; a folder that is not empty stays, and so do those above it.
        std::error_code error;
        for (auto it = m_made.rbegin(); it != m_made.rend(); ++it) {
            fs::remove(*it, error);
        }
    }

    CMadeFolders() = default;
    CMadeFolders(const CMadeFolders&) = delete;
    CMadeFolders& operator=(const CMadeFolders&) = delete;

  private:
    std::vector<fs::path> m_made;
};

class CPull {
  public:
    CPull(CONTEXT& context, PULLPLAN plan, std::string strDest)
        : m_context(context), m_plan(std::move(plan)), m_strDest(std::move(strDest)),
          m_display(context) {}

    void Run();

  private:
    JOBOUTCOME RunGroup(COPYSESSION& session, const PULLGROUP& group);
    void ShowStatus(const COPYSTATUS& status);
    void ShowUnseen(const PULLGROUP& group, const std::vector<ARRIVAL>& arrived);
    std::string NameFailedFile(const std::string& strPath);
    void Report(const JOBOUTCOME& outcome, double dSeconds);

    CONTEXT& m_context;
    PULLPLAN m_plan;
    std::string m_strDest;
    CProgressDisplay m_display;

    std::string m_strCurrent;          // source path of the file in work
    std::set<std::string> m_shown;     // host paths that have been shown
    std::uint64_t m_qwBytesBefore = 0; // of the files that were seen ahead of it
    std::uint64_t m_qwBytesCurrent = 0;

    std::vector<ARRIVAL> m_arrived;
    std::vector<std::string> m_missing; // wanted, and nothing came
};

void CPull::ShowStatus(const COPYSTATUS& status) {
    if (status.strSource.empty()) {
        m_display.Show({.strFile = "", .qwDone = 0, .qwTotal = 1}, 0);
        return;
    }
    const std::string strHostPath = HostPath(status.strDest);
    if (status.strSource != m_strCurrent) {
        m_strCurrent = status.strSource;
        m_qwBytesBefore += m_qwBytesCurrent;
        m_qwBytesCurrent = 0;
    }
    // The destination is told a little later than the source.
    if (status.bSettled) {
        m_qwBytesCurrent = std::max(m_qwBytesCurrent, status.qwCopied);
        if (m_shown.insert(strHostPath).second) {
            m_display.BeginFile(status.strSource, strHostPath);
        }
    }
    PROGRESS progress;
    progress.strFile = status.strSource;
    progress.qwDone = status.bSettled ? status.qwCopied : 0;
    progress.qwTotal = status.qwTotal;
    m_display.Show(progress, m_qwBytesBefore + m_qwBytesCurrent);
}

// Files that came and went between two looks.
void CPull::ShowUnseen(const PULLGROUP& group, const std::vector<ARRIVAL>& arrived) {
    for (const ARRIVAL& file : arrived) {
        if (m_shown.insert(file.strPath).second) {
            std::string strBelow =
                PathText(ToPath(file.strPath).lexically_relative(ToPath(m_strDest)));
            std::replace(strBelow.begin(), strBelow.end(), '/', '\\');
            m_display.BeginFile(JoinDevicePath(group.strFolder, strBelow), file.strPath);
        }
    }
}

JOBOUTCOME CPull::RunGroup(COPYSESSION& session, const PULLGROUP& group) {
    auto pJob = std::make_unique<COPYJOB>();
    pJob->nDirection = DAK_FROM_DEVICE;
    pJob->strSource = group.strFolder;
    pJob->strDest = m_strDest;
    for (const std::string& strName : group.names) {
        pJob->Add(strName);
    }
    session.jobs.push_back(std::move(pJob));
    const CArrivals arrivals(m_strDest, group.names);
    JOBOUTCOME outcome = RunCopyJob(
        session.dak, *session.jobs.back(), [&](const COPYSTATUS& status) { ShowStatus(status); },
        [&] {
            m_display.Clear();
            SayCancelling(m_context);
        });
    const std::vector<ARRIVAL> arrived = arrivals.Arrived();
    ShowUnseen(group, arrived);
    m_arrived.insert(m_arrived.end(), arrived.begin(), arrived.end());
    for (const std::string& strName : arrivals.Missing()) {
        m_missing.push_back(JoinDevicePath(group.strFolder, strName));
    }
    return outcome;
}

// The file that a copy was at when it failed; one that cannot be here at all counts as left out.
std::string CPull::NameFailedFile(const std::string& strPath) {
    if (strPath.empty()) {
        return "";
    }
    std::string strText = "; the file in work was " + strPath;
    for (DEVICEPATH path = SplitDevicePath(strPath); !path.strName.empty();
         path = SplitDevicePath(path.strFolder)) {
        if (const char* const lpszFault = NameFault(path.strName)) {
            m_plan.leftOut.push_back({strPath, lpszFault});
            return strText + " (" + lpszFault + ": rename it on the device)";
        }
    }
    return strText;
}

void CPull::Report(const JOBOUTCOME& outcome, double dSeconds) {
    m_display.Clear();
    std::uint64_t qwBytes = 0;
    std::vector<std::string> paths;
    nlohmann::json arrived = nlohmann::json::array();
    for (const ARRIVAL& file : m_arrived) {
        qwBytes += file.qwSize;
        paths.push_back(file.strPath);
        arrived.push_back({{"path", file.strPath}, {"bytes", file.qwSize}});
    }
    MEANING meaning =
        Explain(Action::Pull, outcome.bStarted ? Stage::Running : Stage::Opening, outcome.dwState);
    if (outcome.bCancelled) {
        meaning = Explain(Action::Pull, Stage::Running, DAKERROR_CANCELLED);
    }
    if (meaning.nExit == EXIT_DONE) {
        meaning.strSentence =
            "pulled " + FormatAmount(m_arrived.size(), qwBytes, dSeconds) + " to " + m_strDest;
        for (const std::string& strPath : m_missing) {
            Complain(m_context, strPath + ": the device has no such file, nor a folder of that "
                                          "name with files in it");
        }
        if (!m_missing.empty() || !m_plan.leftOut.empty()) {
            meaning.nExit = EXIT_PARTIAL;
            meaning.lpszKey = "partial";
            if (!m_missing.empty()) {
                meaning.strSentence += "; missing: " + std::to_string(m_missing.size());
            }
            if (!m_plan.leftOut.empty()) {
                meaning.strSentence += "; left out: " + std::to_string(m_plan.leftOut.size());
            }
        }
    } else if (outcome.bStarted || !m_arrived.empty()) {
        if (meaning.nExit == EXIT_FAILED) {
            meaning.strSentence += NameFailedFile(outcome.last.strSource);
        }
        meaning.strSentence += ". " + Count(m_arrived.size(), "file") + " arrived whole" +
                               (m_arrived.empty() ? "" : " (" + FormatSome(paths) + ")") +
                               "; the rest did not arrive";
    }
    Finish(m_context, "pull", meaning,
           {{"destination", m_strDest},
            {"files_arrived", m_arrived.size()},
            {"bytes_arrived", qwBytes},
            {"arrived", arrived},
            {"missing", m_missing},
            {"left_out", LeftOutJson(m_plan.leftOut)},
            {"seconds", dSeconds}});
}

void CPull::Run() {
    CMadeFolders made;
    if (const std::error_code error = made.Make(ToPath(m_strDest))) {
        Finish(m_context, "pull",
               {EXIT_HOST, "host",
                "the folder " + m_strDest + " cannot be made or used: " + error.message()},
               {{"destination", m_strDest}});
        return;
    }
    const auto start = std::chrono::steady_clock::now();
    auto pSession = std::make_unique<COPYSESSION>();
    const console::CInterrupts interrupts;
    JOBOUTCOME outcome;
    for (const PULLGROUP& group : m_plan.groups) {
        const bool bStop = outcome.dwState != DAKERROR_NONE || outcome.bCancelled;
        if (!bStop && console::CInterrupts::Requested()) {
            outcome.bCancelled = true;
        }
        if (bStop || outcome.bCancelled) {
            for (const std::string& strName : group.names) {
                m_missing.push_back(JoinDevicePath(group.strFolder, strName));
            }
            continue;
        }
        outcome = RunGroup(*pSession, group);
    }
    Report(outcome, SecondsSince(start));
    EndSession(m_context, std::move(pSession), outcome);
}

PULLPLAN PlanPull(const std::vector<std::string>& sources, const std::string& strDest) {
    PULLPLAN plan;
    std::set<std::string> taken;
    for (const std::string& strSource : sources) {
        const auto strPath = NormalDevicePath(strSource);
        const DEVICEPATH path = strPath ? SplitDevicePath(*strPath) : DEVICEPATH{};
        if (!strPath) {
            plan.leftOut.push_back({strSource, "it is empty or not valid UTF-8"});
        } else if (path.strName.empty() || path.strName == "..") {
            plan.leftOut.push_back(
                {*strPath, "it stands for no file or folder with a name: name what is in it"});
        } else if (strPath->size() >= MAX_PATH ||
                   strDest.size() + 1 + path.strName.size() >= MAX_PATH) {
            plan.leftOut.push_back({*strPath, "its path, there or here, is 260 bytes or longer"});
        } else if (const char* const lpszFault = NameFault(path.strName)) {
            plan.leftOut.push_back(
                {*strPath, lpszFault + std::string(": rename it on the device")});
        } else if (!ToLibraryText(path.strName)) {
            plan.leftOut.push_back(
                {*strPath, "its name has characters that this system's code page lacks"});
        } else if (!taken.insert(NameKey(path.strName)).second) {
            plan.leftOut.push_back(
                {*strPath, "another source already goes to " +
                               PathText(ToPath(strDest) / ToPath(path.strName))});
        } else {
            const auto itGroup =
                std::find_if(plan.groups.begin(), plan.groups.end(), [&](const PULLGROUP& group) {
                    return group.strFolder == path.strFolder;
                });
            if (itGroup == plan.groups.end()) {
                plan.groups.push_back({path.strFolder, {path.strName}});
            } else {
                itGroup->names.push_back(path.strName);
            }
        }
    }
    return plan;
}

// Why a host folder cannot be the destination of a copy, or nothing.
const char* DestinationFault(const std::string& strDest) {
    const bool bBackslash = !IsHostSeparator('\\') && strDest.find('\\') != std::string::npos;
    return strDest.empty()        ? "DEST is empty: give a folder of this computer"
           : !Utf8ToWide(strDest) ? "DEST is not valid UTF-8: a copy needs a folder whose path is"
           : !ToLibraryText(strDest) ? "DEST has characters that this system's code page lacks"
           : bBackslash ? "DEST contains a backslash, which separates folders in a copy"
           : strDest.size() >= MAX_PATH
               ? "DEST is 260 bytes or longer: give it from a folder nearer to it"
               : nullptr;
}

// A folder as the library takes it. A root keeps its separator, and a drive alone stands for its
// current folder.
std::string TrimDestination(std::string strDest) {
    const fs::path path = ToPath(strDest);
    const std::size_t nRoot = std::max<std::size_t>(PathText(path.root_path()).size(), 1);
    while (strDest.size() > nRoot && IsHostSeparator(strDest.back())) {
        strDest.pop_back();
    }
    return path.has_root_name() && path.root_name() == path ? strDest + "." : strDest;
}

} // namespace

void RunPull(CONTEXT& context, std::vector<std::string> paths) {
    std::string strDest = paths.back();
    paths.pop_back();
    strDest = TrimDestination(strDest);
    if (const char* const lpszFault = DestinationFault(strDest)) {
        Finish(context, "pull", {EXIT_USAGE, "usage", lpszFault}, {{"destination", strDest}});
        return;
    }
    PULLPLAN plan = PlanPull(paths, strDest);
    Complain(context, plan.leftOut);
    if (plan.groups.empty()) {
        Finish(context, "pull", {EXIT_PARTIAL, "nothing", "there is nothing to copy"},
               {{"left_out", LeftOutJson(plan.leftOut)}});
        return;
    }
    CPull(context, std::move(plan), strDest).Run();
}

} // namespace cli
