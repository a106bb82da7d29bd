#include "cli/pull_report.h"

#include "cli/console.h"
#include "cli/copy.h"
#include "cli/description.h"
#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/progress.h"
#include "cli/pull_destination.h"
#include "cli/pull_folder.h"
#include "cli/pull_look.h"
#include "cli/text.h"

#include "link/wire.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <system_error>
#include <thread>

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

namespace cli {
namespace {

using Clock = std::chrono::steady_clock;

// Jobs of one group behind which the rest is given up: those that brought nothing, and all.
constexpr int MOST_BARREN_JOBS = 3;
constexpr int MOST_JOBS = 50;

// A job that is cut short ends with the window of packages in work, and then empties the link for
// three seconds. The end of the process does that as well.
constexpr DWORD CANCEL_WAIT_MS = 1500;
constexpr std::chrono::milliseconds TIMES_WAIT{100};

// Folders that are looked at again to find what ended a stream.
constexpr std::size_t MOST_LOOKS = 4;

// The reasons of what has none of its own.
constexpr const char* NOTHING_CAME =
    "nothing of it came: the device does not have it, or no file in it";
constexpr const char* ENDED_AHEAD = "the copy ended ahead of it";
constexpr const char* NOT_SENT =
    "the device did not send it: it cannot be read, or a link leads there";

// Whether it may be the part of a file: it ends like one, and is not known to be a file.
bool IsPart(const PULLGROUP& group, const std::string& strName) {
    return NameKey(strName).ends_with(NameKey(".tmp")) && group.Find(strName) == nullptr;
}

class CPull {
  public:
    CPull(CONTEXT& context, PULLPLAN plan, std::string strDest, bool bVerify)
        : m_context(context), m_plan(std::move(plan)), m_bVerify(bVerify),
          m_folder(ToPath(strDest)), m_display(context) {
        m_result.strDest = std::move(strDest);
        m_result.missing = std::move(m_plan.missing);
        m_nSaid = m_result.missing.size();
    }

    void Run();

  private:
    bool Look();
    bool Prepare();
    bool RunGroup(PULLGROUP& group);
    JOBOUTCOME RunJob(PULLGROUP& group, const std::vector<std::string>& names);
    void NoteEnd(const std::string& strInWork);
    bool MayGoOn(PULLGROUP& group, int nJob, bool bBrought);
    PULLENTRY* NextDue(PULLGROUP& group, const PULLENTRY* lpFrom);
    bool LeaveOutChanged(PULLGROUP& group, const PULLENTRY& inWork);

    std::string CurrentOf(const PULLGROUP& group, const COPYSTATUS& status) const;
    void ShowStatus(PULLGROUP& group, const COPYSTATUS& status);
    void ShowBegin(const PULLGROUP& group, const std::string& strName);
    void TakeIn(PULLGROUP& group, const std::string& strInWork);
    void TakeInAll(PULLGROUP& group, bool bWhole);
    void Place(PULLGROUP& group, const LANDED& file, const std::string& strName);
    std::string HostPathOf(const std::string& strName) const;
    void MakeEmptyFolders();
    void Report();

    CONTEXT& m_context;
    PULLPLAN m_plan;
    const bool m_bVerify;
    CMadeFolders m_made; // longer than what is in them
    CPullFolder m_folder;
    CProgressDisplay m_display;
    std::unique_ptr<COPYSESSION> m_pSession = std::make_unique<COPYSESSION>();
    PULLRESULT m_result;
    std::size_t m_nSaid; // of the missing
    JOBOUTCOME m_outcome;

    std::set<std::string> m_shown; // device paths
    std::vector<LANDED> m_landed;  // as of the look before
    Clock::time_point m_lookAgain{};
    std::uint64_t m_qwArrived = 0;
    std::uint64_t m_qwShown = 0; // the bar does not go back
};

std::string CPull::HostPathOf(const std::string& strName) const {
    return PathText((ToPath(m_result.strDest) / BelowPath(strName)).make_preferred());
}

// Asks what there is. False when that ended the pull.
bool CPull::Look() {
    for (PULLGROUP& group : m_plan.groups) {
        for (const std::string& strName : group.names) {
            if (!m_bVerify) {
                group.Add({.strName = strName, .bFolder = true, .bUnseen = true});
            }
        }
    }
    if (!m_bVerify) {
        return true;
    }
    CProgressDisplay display(m_context);
    const CAnswersInterrupts answers(m_context);
    for (PULLGROUP& group : m_plan.groups) {
        std::size_t nLooks = 0;
        m_result.end =
            LookAhead(m_context, m_pSession->dak, group, m_result.missing,
                      [&](const std::string& strFolder, const DEVICETREE& found) {
                          nLooks = found.entries.empty() ? 0 : nLooks + 1;
                          const auto nFolders = static_cast<std::size_t>(
                              std::ranges::count(found.entries, true, &DEVICEENTRY::bFolder));
                          display.ShowCount("looking into " + strFolder, nLooks, nFolders + 1);
                      });
        if (m_result.end.nExit != EXIT_DONE) {
            return false;
        }
    }
    return true;
}

// The pull's own folder, and what can come by way of it. False when there is no such folder.
bool CPull::Prepare() {
    std::error_code error = m_folder.Make();
    if (!error && m_folder.LibraryPath().size() >= MAX_PATH) {
        error = std::make_error_code(std::errc::filename_too_long);
    }
    if (error) {
        m_result.end = {EXIT_HOST, "host",
                        "the folder " + m_result.strDest +
                            " cannot be written: " + error.message()};
        return false;
    }
    for (PULLGROUP& group : m_plan.groups) {
        LeaveOutWhatCannotCome(group, MostNameBytes(m_folder.LibraryPath()));
        for (const PULLENTRY& entry : group.entries) {
            m_result.qwFiles += !entry.bFolder && entry.IsDue() ? 1U : 0U;
            m_result.qwBytes += !entry.bFolder && entry.IsDue() ? entry.qwSize : 0;
        }
    }
    m_result.bLooked = true;
    m_result.bCounted = m_bVerify;
    return true;
}

void CPull::ShowBegin(const PULLGROUP& group, const std::string& strName) {
    const std::string strPath = group.DevicePath(strName);
    if (m_shown.insert(strPath).second) {
        m_display.BeginFile(strPath, HostPathOf(strName));
    }
}

// The name below the group's folder of the file that a status shows, as it came; empty where source
// and destination are not those of one file of this group: the library tells the one a little later
// than the other, and both of the job before until there is something new.
std::string CPull::CurrentOf(const PULLGROUP& group, const COPYSTATUS& status) const {
    const std::string strSource = group.strFolder == "\\" ? "\\" : group.strFolder + "\\";
    const std::string strDest = m_folder.LibraryPath() + "\\";
    if (!status.strSource.starts_with(strSource) || !status.strDest.starts_with(strDest)) {
        return "";
    }
    const std::string strName = status.strSource.substr(strSource.size());
    return strName == status.strDest.substr(strDest.size()) && AskedName(group, strName) ? strName
                                                                                         : "";
}

void CPull::ShowStatus(PULLGROUP& group, const COPYSTATUS& status) {
    const std::string strName = CurrentOf(group, status);
    if (!strName.empty()) {
        TakeIn(group, strName);
        ShowBegin(group, *AskedName(group, strName));
    }
    const std::uint64_t qwCurrent = status.bSettled && !strName.empty() ? status.qwCopied : 0;
    m_qwShown = std::max(m_qwShown, std::min(m_qwArrived + qwCurrent, m_result.qwBytes));
    PROGRESS progress;
    progress.strFile = strName.empty() ? "" : group.DevicePath(strName);
    progress.qwDone = m_bVerify ? m_qwShown : qwCurrent;
    progress.qwTotal = m_bVerify ? m_result.qwBytes : std::max(status.qwTotal, qwCurrent + 1);
    m_display.Show(progress, m_qwArrived + qwCurrent);
}

// Moves what is whole into place while the job goes on: a pull that is killed loses little. What
// had landed at a look before the library told of the file in work is whole and has its times, but
// for that file and for parts.
void CPull::TakeIn(PULLGROUP& group, const std::string& strInWork) {
    if (Clock::now() < m_lookAgain) {
        return;
    }
    for (const LANDED& file : m_landed) {
        const auto strName = AskedName(group, file.strName);
        const PULLENTRY* const pEntry = strName ? group.Find(*strName) : nullptr;
        const bool bTried = pEntry != nullptr && !pEntry->strReason.empty();
        if (strName && !bTried && file.strName != strInWork && !IsPart(group, *strName)) {
            Place(group, file, *strName);
        }
    }
    const auto begin = Clock::now();
    m_landed = m_folder.Look();
    constexpr int nShare = 20; // of the time, at most one part
    m_lookAgain = Clock::now() + (Clock::now() - begin) * nShare;
}

// Behind a job. Of a broken one there may be a part, where the library could not take it away, or
// still writes. The times of a file come just behind its name.
void CPull::TakeInAll(PULLGROUP& group, bool bWhole) {
    const std::vector<LANDED> landed = m_folder.Look();
    if (m_outcome.bAbandoned) {
        std::this_thread::sleep_for(TIMES_WAIT);
    }
    for (const LANDED& file : landed) {
        const auto strName = AskedName(group, file.strName);
        if (!strName) {
            m_result.missing.push_back(
                {group.DevicePath(file.strName), "the device sent it, but it was not asked for"});
        } else if (bWhole || !IsPart(group, *strName)) {
            Place(group, file, *strName);
        }
    }
    m_folder.Empty();
    m_landed.clear();
}

void CPull::Place(PULLGROUP& group, const LANDED& file, const std::string& strName) {
    if (group.Find(strName) == nullptr) {
        group.Add({.strName = strName}); // it is newer than the look ahead
        ++m_result.qwFiles;
        m_result.qwBytes += file.qwSize;
    }
    PULLENTRY& entry = *group.Find(strName);
    ShowBegin(group, strName);
    entry.strReason = m_folder.Place(file.strName, strName);
    if (entry.strReason.empty() && !entry.bArrived) {
        entry.bArrived = true;
        m_qwArrived += file.qwSize;
        m_result.arrived.push_back({HostPathOf(strName), file.qwSize});
    }
}

JOBOUTCOME CPull::RunJob(PULLGROUP& group, const std::vector<std::string>& names) {
    auto pJob = std::make_unique<COPYJOB>();
    pJob->nDirection = DAK_FROM_DEVICE;
    pJob->dwCancelWaitMs = CANCEL_WAIT_MS;
    pJob->strSource = group.strFolder;
    pJob->strDest = m_folder.LibraryPath();
    for (const std::string& strName : names) {
        pJob->Add(strName);
    }
    m_pSession->jobs.push_back(std::move(pJob));
    return RunCopyJob(
        m_pSession->dak, *m_pSession->jobs.back(),
        [&](const COPYSTATUS& status) { ShowStatus(group, status); },
        [&] {
            m_display.Clear();
            SayCancelling(m_context);
        });
}

// The first file that is due, from an entry on, or from the first where there is none.
PULLENTRY* CPull::NextDue(PULLGROUP& group, const PULLENTRY* lpFrom) {
    const auto itNext = std::find_if(
        group.entries.begin() + (lpFrom == nullptr ? 0 : lpFrom - group.entries.data()),
        group.entries.end(),
        [](const PULLENTRY& entry) { return !entry.bFolder && entry.IsDue(); });
    return itNext == group.entries.end() ? nullptr : &*itNext;
}

// A stream that ends at a file which changed takes along what shares its package: looks again at
// the files that are due from the one in work on, as far as a package goes. True when some of them
// are no longer as they were, and now left out.
bool CPull::LeaveOutChanged(PULLGROUP& group, const PULLENTRY& inWork) {
    std::set<std::string> folders;
    std::vector<PULLENTRY*> suspects;
    std::uint64_t qwBehind = 0; // where in the stream the next one begins, from the first one's end
    for (PULLENTRY* pEntry = NextDue(group, &inWork);
         pEntry != nullptr && qwBehind <= DAK_DATA_SIZE && folders.size() < MOST_LOOKS;
         pEntry = NextDue(group, pEntry + 1)) {
        qwBehind += suspects.empty() ? 0 : pEntry->qwSize;
        suspects.push_back(pEntry);
        folders.insert(SplitDevicePath(group.DevicePath(pEntry->strName)).strFolder);
    }
    bool bFound = false;
    for (const std::string& strFolder : folders) {
        const DEVICETREE now = ListDeviceTree(m_context, m_pSession->dak, strFolder, Depth::Folder);
        if (now.meaning.nExit != EXIT_DONE || !now.unlisted.empty()) {
            continue;
        }
        for (PULLENTRY* const pEntry : suspects) {
            const DEVICEPATH path = SplitDevicePath(group.DevicePath(pEntry->strName));
            const auto itNow = std::ranges::find(now.entries, path.strName, &DEVICEENTRY::strPath);
            if (path.strFolder != strFolder) {
                continue;
            }
            if (itNow == now.entries.end()) {
                pEntry->strReason = "it is no longer on the device";
            } else if (itNow->qwSize != pEntry->qwSize || itNow->qwWritten != pEntry->qwWritten) {
                pEntry->strReason = "it was changed on the device while it was read";
            }
            pEntry->bInTheWay = !pEntry->strReason.empty();
            bFound = bFound || pEntry->bInTheWay;
        }
    }
    return bFound;
}

// What a job that did not end well comes to, where it is the last one.
void CPull::NoteEnd(const std::string& strInWork) {
    const bool bCancelled = m_outcome.bCancelled;
    m_result.end =
        Explain(Action::Pull,
                m_outcome.bStarted || !m_result.arrived.empty() ? Stage::Running : Stage::Opening,
                bCancelled ? DAKERROR_CANCELLED : m_outcome.dwState);
    m_result.strFileInWork = bCancelled ? "" : strInWork;
}

// Behind a job that failed: whether another one may bring what is left. A file that ended it is
// left out. That is the latest that was seen in work or, where that one has come since or none was
// seen, the next one that is due; this computer can lack room for the first one ahead of any sight.
bool CPull::MayGoOn(PULLGROUP& group, int nJob, bool bBrought) {
    const std::string strSeen = CurrentOf(group, m_outcome.last);
    const PULLENTRY* const pSeen =
        strSeen.empty() ? nullptr : group.Find(*AskedName(group, strSeen));
    PULLENTRY* const pInWork = m_outcome.bStarted ? NextDue(group, pSeen) : nullptr;
    const bool bAtFile =
        pSeen != nullptr || bBrought || nJob > 1 || m_outcome.dwState == DAKERROR_NO_SPACE;
    const bool bUnknown = pSeen == nullptr || (pSeen->bUnseen && !pSeen->bArrived);
    NoteEnd(pInWork != nullptr && bAtFile  ? group.DevicePath(pInWork->strName)
            : bUnknown && !strSeen.empty() ? group.DevicePath(strSeen)
                                           : "");
    if (pInWork == nullptr || m_outcome.bCancelled ||
        (m_outcome.dwState != DAKERROR_FAIL && m_outcome.dwState != DAKERROR_PROTOCOL)) {
        return false;
    }
    const CAnswersInterrupts answers(m_context);
    const bool bChanged = LeaveOutChanged(group, *pInWork);
    if (console::CInterrupts::Requested()) {
        m_outcome.bCancelled = true;
        NoteEnd("");
        return false;
    }
    if (bChanged || bBrought) {
        return true;
    }
    if (bAtFile) {
        pInWork->strReason = "the device did not give it to its end, or it could not be written";
        pInWork->bInTheWay = true;
    }
    return bAtFile;
}

// The group's jobs. False when the pull ends with it.
bool CPull::RunGroup(PULLGROUP& group) {
    int nBarren = 0;
    for (int nJob = 1;; ++nJob) {
        const std::vector<std::string> names = NamesToAsk(group);
        if (names.empty()) {
            break;
        }
        if (console::CInterrupts::Requested()) {
            m_result.end = Explain(Action::Pull, Stage::Running, DAKERROR_CANCELLED);
            return false;
        }
        const std::size_t nBefore = m_result.arrived.size();
        m_outcome = RunJob(group, names);
        const bool bWhole = m_outcome.dwState == DAKERROR_NONE && !m_outcome.bCancelled;
        TakeInAll(group, bWhole);
        if (bWhole) {
            break;
        }
        m_display.Clear();
        const bool bBrought = m_result.arrived.size() > nBefore;
        nBarren = bBrought ? 0 : nBarren + 1;
        if (!MayGoOn(group, nJob, bBrought) || nBarren == MOST_BARREN_JOBS || nJob == MOST_JOBS) {
            return false;
        }
    }
    m_result.end = {EXIT_DONE, "ok", ""};
    m_result.strFileInWork.clear();
    return true;
}

void CPull::MakeEmptyFolders() {
    for (const PULLGROUP& group : m_plan.groups) {
        for (const std::string& strName : EmptyFolders(group)) {
            std::error_code error;
            const fs::path folder = ToPath(HostPathOf(strName));
            fs::create_directories(folder, error);
            if (fs::is_directory(folder, error)) {
                m_result.madeEmpty.push_back(PathText(folder));
            } else {
                m_result.missing.push_back(
                    {group.DevicePath(strName),
                     "the folder cannot be made here" + (error ? ": " + error.message() : "")});
            }
        }
    }
}

void CPull::Report() {
    m_display.Clear();
    const bool bDone = m_result.end.nExit == EXIT_DONE;
    for (const PULLGROUP& group : m_plan.groups) {
        for (const std::string& strName : group.names) {
            m_result.asked.push_back(group.DevicePath(strName));
        }
        AddMissing(group, bDone ? NOT_SENT : ENDED_AHEAD, m_result.missing);
        if (!m_bVerify) {
            AddBarrenWanted(group, bDone ? NOTHING_CAME : ENDED_AHEAD, m_result.missing);
        }
    }
    // What no more came for is told by its number alone.
    for (std::size_t i = m_nSaid; i < m_result.missing.size(); ++i) {
        if (m_result.missing[i].strReason != ENDED_AHEAD) {
            Complain(m_context, {m_result.missing[i]});
        }
    }
    Finish(m_context, "pull", PullMeaning(m_result), PullJson(m_result));
}

void CPull::Run() {
    if (const std::error_code error = m_made.Make(ToPath(m_result.strDest))) {
        Finish(m_context, "pull",
               {EXIT_HOST, "host",
                "the folder " + m_result.strDest + " cannot be made or used: " + error.message()},
               {{"destination", m_result.strDest}});
        return;
    }
    const auto start = Clock::now();
    m_folder.ClearDead();
    const console::CInterrupts interrupts;
    bool bGoesOn = Look() && Prepare();
    for (PULLGROUP& group : m_plan.groups) {
        bGoesOn = bGoesOn && RunGroup(group);
    }
    if (bGoesOn) {
        MakeEmptyFolders();
    }
    m_result.dSeconds = SecondsSince(start);
    Report();
    if (m_outcome.bAbandoned) {
        m_folder.KeepPath();
    }
    EndSession(m_context, std::move(m_pSession), m_outcome);
}

} // namespace

void RunPull(CONTEXT& context, std::vector<std::string> paths, bool bVerify) {
    const std::string strDest = TrimDestination(paths.back());
    paths.pop_back();
    if (const char* const lpszFault = DestinationFault(strDest)) {
        Finish(context, "pull", {EXIT_USAGE, "usage", lpszFault}, {{"destination", strDest}});
        return;
    }
    PULLPLAN plan = PlanPull(paths, strDest);
    Complain(context, plan.missing);
    if (plan.groups.empty()) {
        Finish(context, "pull", {EXIT_PARTIAL, "nothing", "there is nothing to copy"},
               {{"missing", LeftOutJson(plan.missing)}});
        return;
    }
    CPull(context, std::move(plan), strDest, bVerify).Run();
}

} // namespace cli
