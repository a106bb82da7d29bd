#include "cli/console.h"
#include "cli/copy.h"
#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/host_tree.h"
#include "cli/progress.h"
#include "cli/push_checks.h"
#include "cli/text.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <span>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace cli {
namespace {

// The device ended the job with a verdict that does not tell which files it kept.
bool DeviceGaveUp(const JOBOUTCOME& outcome) {
    return outcome.dwState == DAKERROR_NO_SPACE || outcome.dwState == DAKERROR_DEVICE_REFUSED;
}

// A push in work: the jobs of its groups one after the other, and a look at what they brought.
class CPush {
  public:
    CPush(CONTEXT& context, HOSTTREE tree, std::string strDest, bool bVerify);

    void Run();

  private:
    std::optional<MEANING> LookAhead(CDAKVorn& dak);
    void RunGroups(COPYSESSION& session);
    JOBOUTCOME RunGroup(COPYSESSION& session, const PUSHGROUP& group);
    void ShowStatus(const PUSHGROUP& group, const COPYSTATUS& status);
    void Judge(const PUSHGROUP& group, std::span<PUSHED> files, const JOBOUTCOME& outcome);
    bool MayVerify() const;
    void Verify(CDAKVorn& dak);
    void NameWhatIsNotThere();
    void Sum();
    MEANING Conclude(double dSeconds);
    std::string Arrivals() const;
    void Finish(const MEANING& meaning, double dSeconds);

    CONTEXT& m_context;
    HOSTTREE m_tree;
    std::string m_strDest;
    bool m_bVerify;
    CProgressDisplay m_display;
    std::uint64_t m_qwBytesInAll;
    std::vector<PUSHED> m_files; // those of all groups, in their order

    // Of the group in work.
    std::unordered_map<std::string, std::size_t> m_indexOf;
    std::size_t m_nBegun = 0;          // files that have been shown
    std::size_t m_nCurrent = 0;        // the file in work
    std::uint64_t m_qwBytesBefore = 0; // of the files ahead of it, those of earlier groups included

    JOBOUTCOME m_outcome;          // of the last job
    std::string m_strFailedAt;     // the file that a job which failed was at, where that is known
    std::optional<MEANING> m_look; // how the look at the device ended
    std::vector<LEFTOUT> m_notThere;

    // What is on the device for certain, and the files of which that cannot be said.
    std::size_t m_nArrived = 0;
    std::uint64_t m_qwArrived = 0;
    std::vector<std::string> m_unconfirmed;
};

CPush::CPush(CONTEXT& context, HOSTTREE tree, std::string strDest, bool bVerify)
    : m_context(context), m_tree(std::move(tree)), m_strDest(std::move(strDest)),
      m_bVerify(bVerify), m_display(context), m_qwBytesInAll(m_tree.Bytes()) {
    for (const PUSHGROUP& group : m_tree.groups) {
        for (const HOSTENTRY& entry : group.entries) {
            m_files.push_back({&entry});
        }
    }
}

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

// What the job's end tells of the group's files.
void CPush::Judge(const PUSHGROUP& group, std::span<PUSHED> files, const JOBOUTCOME& outcome) {
    if (!outcome.bStarted) {
        return;
    }
    const std::vector<CHANGED> changed = ChangedSince(group);
    const bool bWhole = outcome.dwState == DAKERROR_NONE;
    const auto itIndex = m_indexOf.find(outcome.last.strSource);
    const bool bTold = !bWhole && itIndex != m_indexOf.end();
    std::size_t nConfirmed = bWhole ? files.size() : 0;
    if (bTold && !DeviceGaveUp(outcome)) {
        m_strFailedAt = HostPath(itIndex->first);
        nConfirmed = ConfirmedFiles(group, itIndex->second,
                                    outcome.last.bSettled ? outcome.last.qwCopied : 0);
        // Behind a file that did not go as it was listed, nothing is where the count has it.
        nConfirmed = changed.empty() ? nConfirmed : std::min(nConfirmed, changed.front().nEntry);
    }
    for (std::size_t i = 0; i < files.size(); ++i) {
        files[i].eFate = i < nConfirmed ? Fate::Confirmed : Fate::Open;
    }
    m_display.Clear();
    for (const CHANGED& entry : changed) {
        files[entry.nEntry].eFate = Fate::Changed;
        m_tree.leftOut.push_back(entry.leftOut);
        Complain(m_context, entry.leftOut.strPath + ": " + entry.leftOut.strReason);
    }
}

// Behind a request to end nobody wants to wait, and a link that broke has no answer.
bool CPush::MayVerify() const {
    return m_bVerify && m_outcome.bStarted && !m_outcome.bCancelled &&
           m_outcome.dwState != DAKERROR_NO_DEVICE;
}

void CPush::Verify(CDAKVorn& dak) {
    m_look =
        LookForPushed(m_context, dak, m_strDest, m_files,
                      [&](const std::string& strFolder, std::size_t nDone, std::size_t nFolders) {
                          m_display.ShowCount("verifying " + strFolder, nDone, nFolders);
                      });
    m_display.Clear();
    NameWhatIsNotThere();
}

void CPush::NameWhatIsNotThere() {
    for (const PUSHED& file : m_files) {
        const char* const lpszReason =
            file.eFate == Fate::Missing     ? "it is not on the device"
            : file.eFate == Fate::OtherSize ? "the device has a file of another size in its place"
            : file.eFate == Fate::OtherTime
                ? "what the device has in its place has another time, as a file that was there "
                  "before"
                : nullptr;
        if (lpszReason != nullptr) {
            m_notThere.push_back({HostPath(file.pEntry->strEntry), lpszReason});
            Complain(m_context, m_notThere.back().strPath + ": " + lpszReason);
        }
    }
}

// The files that arrived, and what is not so certain.
std::string CPush::Arrivals() const {
    if (m_look) {
        std::string strText = ". On the device: " + std::to_string(m_nArrived) + " of " +
                              Count(m_files.size(), "file");
        const std::size_t nUnseen = m_unconfirmed.size() - m_notThere.size();
        return nUnseen == 0 ? strText
                            : strText + "; not sent, or not verified: " + std::to_string(nUnseen);
    }
    if (DeviceGaveUp(m_outcome)) {
        return ". Which files it kept is not known";
    }
    return ". The device had confirmed " + std::to_string(m_nArrived) + " of " +
           Count(m_files.size(), "file") +
           (m_unconfirmed.empty()
                ? ""
                : "; not there, or not for certain: " + FormatSome(m_unconfirmed));
}

MEANING CPush::Conclude(double dSeconds) {
    MEANING meaning = Explain(Action::Push, m_outcome.bStarted ? Stage::Running : Stage::Opening,
                              m_outcome.dwState);
    const std::string strPushed =
        "pushed " + FormatAmount(m_nArrived, m_qwArrived, dSeconds) + " to " + m_strDest;
    if (m_outcome.bCancelled) {
        meaning = Explain(Action::Push, Stage::Running, DAKERROR_CANCELLED);
        meaning.strSentence +=
            m_unconfirmed.empty() ? " when all of it had been sent: " + strPushed + "; not verified"
                                  : Arrivals();
        return meaning;
    }
    if (meaning.nExit != EXIT_DONE) {
        meaning.strSentence +=
            m_strFailedAt.empty() ? "" : "; the file in work was " + m_strFailedAt;
        meaning.strSentence += m_outcome.bStarted || m_nArrived > 0 ? Arrivals() : "";
        return meaning;
    }
    meaning.strSentence = strPushed;
    const std::size_t nUnseen = m_unconfirmed.size() - m_notThere.size();
    if (!m_look) {
        meaning.strSentence += "; not verified";
    } else if (m_look->nExit == EXIT_CANCELLED) {
        meaning = *m_look;
        meaning.strSentence += " when all of it had been sent, and " + std::to_string(m_nArrived) +
                               " of " + Count(m_files.size(), "file") + " had been verified";
        return meaning;
    } else if (m_unconfirmed.empty()) {
        meaning.strSentence += "; verified";
    }
    const auto tell = [&](const char* lpszWhat, std::size_t nCount) {
        if (nCount > 0) {
            meaning.nExit = EXIT_PARTIAL;
            meaning.lpszKey = "partial";
            meaning.strSentence += lpszWhat + std::to_string(nCount);
        }
    };
    tell("; not there as they were sent: ", m_notThere.size());
    tell("; sent, but not verified: ", nUnseen);
    tell("; left out: ", m_tree.leftOut.size());
    if (m_look && m_look->nExit != EXIT_DONE) {
        meaning.strSentence += " (" + m_look->strSentence + ")";
    }
    return meaning;
}

void CPush::Finish(const MEANING& meaning, double dSeconds) {
    nlohmann::json object = {{"destination", m_strDest},
                             {"files", m_files.size()},
                             {"bytes", m_qwBytesInAll},
                             {"seconds", dSeconds},
                             {"verified", m_look && m_look->nExit == EXIT_DONE},
                             {"not_there", LeftOutJson(m_notThere)},
                             {"unconfirmed", m_unconfirmed},
                             {"left_out", LeftOutJson(m_tree.leftOut)},
                             {"empty_folders", m_tree.emptyFolders}};
    const bool bKnown = m_look || !DeviceGaveUp(m_outcome);
    object["files_arrived"] = bKnown ? nlohmann::json(m_nArrived) : nlohmann::json();
    object["bytes_arrived"] = bKnown ? nlohmann::json(m_qwArrived) : nlohmann::json();
    cli::Finish(m_context, "push", meaning, std::move(object));
}

void CPush::Sum() {
    for (const PUSHED& file : m_files) {
        if (file.eFate == Fate::There || (!m_look && file.eFate == Fate::Confirmed)) {
            ++m_nArrived;
            m_qwArrived += file.pEntry->qwSize;
        } else if (file.eFate != Fate::Changed) {
            m_unconfirmed.push_back(HostPath(file.pEntry->strEntry));
        }
    }
}

void CPush::RunGroups(COPYSESSION& session) {
    std::size_t nFirst = 0;
    for (const PUSHGROUP& group : m_tree.groups) {
        if (console::CInterrupts::Requested()) {
            m_outcome.bCancelled = true;
        }
        // Behind a job that failed the others are not tried: what broke it would break them.
        if (m_outcome.dwState != DAKERROR_NONE || m_outcome.bCancelled) {
            return;
        }
        m_outcome = RunGroup(session, group);
        Judge(group, std::span(m_files).subspan(nFirst, group.entries.size()), m_outcome);
        nFirst += group.entries.size();
    }
}

// Whether there is a place for the files: the meaning where there is none.
std::optional<MEANING> CPush::LookAhead(CDAKVorn& dak) {
    const CAnswersInterrupts answers(m_context);
    std::optional<MEANING> refusal = FindNoPlace(m_context, dak, m_strDest, m_files);
    if (refusal && refusal->nExit == EXIT_CANCELLED) {
        refusal->strSentence += ". Nothing was copied";
    }
    return refusal;
}

void CPush::Run() {
    const console::CInterrupts interrupts;
    auto pSession = std::make_unique<COPYSESSION>();
    if (const auto refusal = m_bVerify ? LookAhead(pSession->dak) : std::nullopt) {
        Sum();
        Finish(*refusal, 0);
        return;
    }
    const auto start = std::chrono::steady_clock::now();
    RunGroups(*pSession);
    const double dSeconds = SecondsSince(start);
    m_display.Clear();
    if (MayVerify()) {
        Verify(pSession->dak);
    }
    Sum();
    Finish(Conclude(dSeconds), dSeconds);
    EndSession(m_context, std::move(pSession), m_outcome);
}

} // namespace

void RunPush(CONTEXT& context, std::vector<std::string> paths, bool bVerify) {
    const std::optional<std::string> strDest = NormalDevicePath(paths.back());
    paths.pop_back();
    const char* const lpszFault =
        strDest ? DevicePathFault(*strDest) : "it is empty or not valid UTF-8";
    if (lpszFault != nullptr) {
        Finish(
            context, "push",
            {EXIT_USAGE, "usage",
             std::string("DEST cannot be on the device (") + lpszFault + "): give a device folder"},
            {});
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
    CPush(context, std::move(tree), *strDest, bVerify).Run();
}

} // namespace cli
