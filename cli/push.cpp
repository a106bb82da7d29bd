#include "cli/console.h"
#include "cli/copy.h"
#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/progress.h"
#include "cli/text.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace cli {
namespace {

// A push in work: the jobs of its groups one after the other.
class CPush {
  public:
    CPush(CONTEXT& context, HOSTTREE tree, std::string strDest)
        : m_context(context), m_tree(std::move(tree)), m_strDest(std::move(strDest)),
          m_display(context), m_qwBytesInAll(m_tree.Bytes()) {}

    void Run();

  private:
    JOBOUTCOME RunGroup(COPYSESSION& session, const PUSHGROUP& group);
    void ShowStatus(const PUSHGROUP& group, const COPYSTATUS& status);
    void Judge(const PUSHGROUP& group, const JOBOUTCOME& outcome);
    void Report(const JOBOUTCOME& outcome, double dSeconds);

    CONTEXT& m_context;
    HOSTTREE m_tree;
    std::string m_strDest;
    CProgressDisplay m_display;
    std::uint64_t m_qwBytesInAll;

    // Of the group in work.
    std::unordered_map<std::string, std::size_t> m_indexOf;
    std::size_t m_nBegun = 0;          // files that have been shown
    std::size_t m_nCurrent = 0;        // the file in work
    std::uint64_t m_qwBytesBefore = 0; // of the files ahead of it, those of earlier groups included

    // What is on the device for certain.
    std::size_t m_nArrived = 0;
    std::uint64_t m_qwArrived = 0;
    // The device ended the job with a verdict that does not tell which files it kept.
    bool m_bArrivalsUnknown = false;
    std::vector<std::string> m_unconfirmed;
};

void CPush::ShowStatus(const PUSHGROUP& group, const COPYSTATUS& status) {
    const auto itIndex = m_indexOf.find(status.strSource);
    if (itIndex != m_indexOf.end()) {
        // Files that came and went between two looks are shown as well.
        for (; m_nBegun <= itIndex->second; ++m_nBegun) {
            const HOSTENTRY& entry = group.entries[m_nBegun];
            m_display.BeginFile(HostPath(entry.strEntry), JoinDevicePath(m_strDest, entry.strName));
        }
        for (; m_nCurrent < itIndex->second; ++m_nCurrent) {
            m_qwBytesBefore += group.entries[m_nCurrent].qwSize;
        }
    }
    const HOSTENTRY& entry = group.entries[m_nCurrent];
    const std::uint64_t qwCopied =
        status.bSettled ? std::min(status.qwCopied, entry.qwSize) : std::uint64_t{0};
    PROGRESS progress;
    progress.strFile = HostPath(entry.strName);
    progress.qwDone = m_qwBytesBefore + qwCopied;
    progress.qwTotal = m_qwBytesInAll;
    m_display.Show(progress, progress.qwDone);
}

JOBOUTCOME CPush::RunGroup(COPYSESSION& session, const PUSHGROUP& group) {
    auto pJob = std::make_unique<COPYJOB>();
    pJob->nDirection = DAK_TO_DEVICE;
    pJob->strSource = group.strSource;
    pJob->strDest = m_strDest;
    m_indexOf.clear();
    m_nBegun = 0;
    m_nCurrent = 0;
    for (std::size_t i = 0; i < group.entries.size(); ++i) {
        pJob->Add(group.entries[i].strEntry);
        m_indexOf.emplace(group.entries[i].strEntry, i);
    }
    session.jobs.push_back(std::move(pJob));
    JOBOUTCOME outcome = RunCopyJob(
        session.dak, *session.jobs.back(),
        [&](const COPYSTATUS& status) { ShowStatus(group, status); },
        [&] {
            m_display.Clear();
            SayCancelling(m_context);
        });
    if (outcome.bStarted && outcome.dwState == DAKERROR_NONE && !outcome.bCancelled) {
        // The last files may have passed behind the last look.
        for (; m_nBegun < group.entries.size(); ++m_nBegun) {
            const HOSTENTRY& entry = group.entries[m_nBegun];
            m_display.BeginFile(HostPath(entry.strEntry), JoinDevicePath(m_strDest, entry.strName));
        }
    }
    for (; m_nCurrent < group.entries.size(); ++m_nCurrent) {
        m_qwBytesBefore += group.entries[m_nCurrent].qwSize;
    }
    return outcome;
}

// Sorts the group's files into those that arrived and the others.
void CPush::Judge(const PUSHGROUP& group, const JOBOUTCOME& outcome) {
    const std::vector<CHANGED> changed =
        outcome.bStarted ? ChangedSince(group) : std::vector<CHANGED>();
    const bool bWhole = outcome.bStarted && outcome.dwState == DAKERROR_NONE;
    std::size_t nConfirmed = 0;
    if (bWhole) {
        nConfirmed = group.entries.size();
    } else if (outcome.dwState == DAKERROR_NO_SPACE || outcome.dwState == DAKERROR_DEVICE_REFUSED) {
        m_bArrivalsUnknown = true;
    } else if (const auto itIndex = m_indexOf.find(outcome.last.strSource);
               outcome.bStarted && itIndex != m_indexOf.end()) {
        nConfirmed = ConfirmedFiles(group, itIndex->second,
                                    outcome.last.bSettled ? outcome.last.qwCopied : 0);
        // Behind a file that did not go as it was listed, nothing is where the count has it.
        nConfirmed = changed.empty() ? nConfirmed : std::min(nConfirmed, changed.front().nEntry);
    }
    auto itChanged = changed.begin();
    for (std::size_t i = 0; i < group.entries.size(); ++i) {
        const bool bChanged = itChanged != changed.end() && itChanged->nEntry == i;
        if (bChanged) {
            m_tree.leftOut.push_back((itChanged++)->leftOut);
        }
        if (bChanged || i >= nConfirmed) {
            if (!bChanged) {
                m_unconfirmed.push_back(HostPath(group.entries[i].strEntry));
            }
            continue;
        }
        ++m_nArrived;
        m_qwArrived += group.entries[i].qwSize;
    }
    if (m_context.output.bJson) {
        return;
    }
    m_display.Clear();
    for (const CHANGED& entry : changed) {
        Complain(m_context, entry.leftOut.strPath + ": " + entry.leftOut.strReason);
    }
}

void CPush::Report(const JOBOUTCOME& outcome, double dSeconds) {
    m_display.Clear();
    const std::size_t nFiles = m_tree.Files();
    MEANING meaning =
        Explain(Action::Push, outcome.bStarted ? Stage::Running : Stage::Opening, outcome.dwState);
    if (outcome.bCancelled) {
        meaning = Explain(Action::Push, Stage::Running, DAKERROR_CANCELLED);
    }
    if (meaning.nExit == EXIT_DONE) {
        meaning.strSentence =
            "pushed " + FormatAmount(m_nArrived, m_qwArrived, dSeconds) + " to " + m_strDest;
        if (!m_tree.leftOut.empty()) {
            meaning.nExit = EXIT_PARTIAL;
            meaning.lpszKey = "partial";
            meaning.strSentence += "; left out: " + std::to_string(m_tree.leftOut.size());
        }
    } else if (outcome.bStarted || m_nArrived > 0) {
        meaning.strSentence +=
            m_bArrivalsUnknown
                ? ". Which files it kept is not known"
                : ". The device had confirmed " + std::to_string(m_nArrived) + " of " +
                      Count(nFiles, "file") +
                      (m_unconfirmed.empty()
                           ? ""
                           : "; not there, or not for certain: " + FormatSome(m_unconfirmed));
    }
    nlohmann::json object = {{"destination", m_strDest},
                             {"files", nFiles},
                             {"bytes", m_qwBytesInAll},
                             {"seconds", dSeconds},
                             {"unconfirmed", m_unconfirmed},
                             {"left_out", LeftOutJson(m_tree.leftOut)},
                             {"empty_folders", m_tree.emptyFolders}};
    if (m_bArrivalsUnknown) {
        object["files_arrived"] = nullptr;
        object["bytes_arrived"] = nullptr;
    } else {
        object["files_arrived"] = m_nArrived;
        object["bytes_arrived"] = m_qwArrived;
    }
    Finish(m_context, "push", meaning, std::move(object));
}

void CPush::Run() {
    const auto start = std::chrono::steady_clock::now();
    auto pSession = std::make_unique<COPYSESSION>();
    const console::CInterrupts interrupts;
    JOBOUTCOME outcome;
    for (const PUSHGROUP& group : m_tree.groups) {
        // Behind a job that failed the others are not tried: what broke it would break them.
        const bool bStop = outcome.dwState != DAKERROR_NONE || outcome.bCancelled;
        if (!bStop && console::CInterrupts::Requested()) {
            outcome.bCancelled = true;
        }
        if (bStop || outcome.bCancelled) {
            for (const HOSTENTRY& entry : group.entries) {
                m_unconfirmed.push_back(HostPath(entry.strEntry));
            }
            continue;
        }
        outcome = RunGroup(*pSession, group);
        Judge(group, outcome);
    }
    Report(outcome, SecondsSince(start));
    EndSession(m_context, std::move(pSession), outcome);
}

} // namespace

void RunPush(CONTEXT& context, std::vector<std::string> paths) {
    const std::optional<std::string> strDest = NormalDevicePath(paths.back());
    paths.pop_back();
    if (!strDest) {
        Finish(context, "push",
               {EXIT_USAGE, "usage", "DEST is empty or not valid UTF-8: give a device folder"}, {});
        return;
    }
    std::vector<std::string> sources;
    for (const std::string& strPath : paths) {
        const std::vector<std::string> expanded = ExpandWord(strPath);
        sources.insert(sources.end(), expanded.begin(), expanded.end());
    }
    HOSTTREE tree = CollectForPush(sources, *strDest);
    Complain(context, tree.leftOut);
    for (const std::string& strFolder : tree.emptyFolders) {
        Say(context, "not copied, for it is empty: " + strFolder);
    }
    if (tree.Files() == 0) {
        Finish(context, "push", {EXIT_PARTIAL, "nothing", "there is nothing to copy"},
               {{"left_out", LeftOutJson(tree.leftOut)},
                {"empty_folders", tree.emptyFolders},
                {"files", 0}});
        return;
    }
    CPush(context, std::move(tree), *strDest).Run();
}

} // namespace cli
