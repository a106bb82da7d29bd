#include "cli/pull_plan.h"

#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/text.h"

#include <algorithm>
#include <set>
#include <unordered_set>
#include <utility>

namespace cli {
namespace {

constexpr std::uint64_t MAX_FILE_BYTES = 0xFFFFFFFF;
constexpr const char* TOO_LONG =
    "its path is too long: name a folder nearer to it, or a DEST with a shorter path";

// Adds the folders above a name.
void AddAbove(const std::string& strName, std::unordered_set<std::string>& folders) {
    for (std::string strAbove = FolderOf(strName); !strAbove.empty();
         strAbove = FolderOf(strAbove)) {
        folders.insert(strAbove);
    }
}

// Why a wanted path cannot be asked for, or nothing.
std::string WantedFault(const std::string& strPath, const DEVICEPATH& path) {
    if (path.strName.empty() || path.strName == "..") {
        return "it stands for no file or folder with a name: name what is in it";
    }
    if (Utf8ToWide(strPath)->size() >= MAX_PATH) {
        return "its path has 260 characters or more";
    }
    if (const char* const lpszFault = NameFault(path.strName)) {
        return lpszFault + std::string(": rename it on the device");
    }
    return ToLibraryText(path.strName) ? ""
                                       : "its name has characters that this system's code page "
                                         "lacks";
}

// Gives an entry that cannot come its reason. What no stream can carry a device leaves out by
// itself.
void Judge(PULLENTRY& entry, std::size_t nMostBytes) {
    const auto strText = ToLibraryText(entry.strName);
    if (Utf8ToWide(entry.strName)->size() >= MAX_PATH) {
        entry.strReason = TOO_LONG;
    } else if (!entry.bFolder && entry.qwSize > MAX_FILE_BYTES) {
        entry.strReason = "it has 4 GiB or more, which a copy cannot carry";
    } else if (const char* const lpszFault = NameFault(SplitDevicePath(entry.strName).strName)) {
        entry.strReason = lpszFault + std::string(": rename it on the device");
        entry.bInTheWay = true;
    } else if (!strText) {
        entry.strReason = "its name has characters that this system's code page lacks";
        entry.bInTheWay = true;
    } else if (strText->size() > nMostBytes) {
        entry.strReason = TOO_LONG;
        entry.bInTheWay = true;
    }
}

std::string FoldLetters(std::string strText) {
    std::ranges::transform(strText, strText.begin(), [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    });
    return strText;
}

// The folders of which files were due and none came.
std::unordered_set<std::string> BarrenFolders(const PULLGROUP& group) {
    std::unordered_set<std::string> due;
    std::unordered_set<std::string> fruitful;
    for (const PULLENTRY& entry : group.entries) {
        if (entry.bFolder || (!entry.bArrived && !entry.strReason.empty())) {
            continue;
        }
        std::unordered_set<std::string>& folders = entry.bArrived ? fruitful : due;
        for (std::string strAbove = FolderOf(entry.strName); !strAbove.empty();
             strAbove = FolderOf(strAbove)) {
            folders.insert(strAbove);
        }
    }
    std::erase_if(due, [&](const std::string& strName) { return fruitful.contains(strName); });
    return due;
}

} // namespace

std::string FolderOf(const std::string& strName) {
    const std::size_t nLast = strName.rfind('\\');
    return nLast == std::string::npos ? std::string() : strName.substr(0, nLast);
}

void PULLGROUP::Add(PULLENTRY entry) {
    if (!indexOf.emplace(NameKey(entry.strName), entries.size()).second && !entry.bFolder) {
        entry.strReason = "here its name is that of another file, whose letters alone differ";
        entry.bInTheWay = true;
    }
    entries.push_back(std::move(entry));
}

const PULLENTRY* PULLGROUP::Find(const std::string& strName) const {
    const auto itIndex = indexOf.find(NameKey(strName));
    return itIndex == indexOf.end() ? nullptr : &entries[itIndex->second];
}

PULLENTRY* PULLGROUP::Find(const std::string& strName) {
    return const_cast<PULLENTRY*>(std::as_const(*this).Find(strName));
}

std::string PULLGROUP::DevicePath(const std::string& strName) const {
    return JoinDevicePath(strFolder, strName);
}

PULLPLAN PlanPull(const std::vector<std::string>& sources, const std::string& strDest) {
    PULLPLAN plan;
    std::set<std::string> taken;
    for (const std::string& strSource : sources) {
        const auto strPath = NormalDevicePath(strSource);
        if (!strPath) {
            plan.missing.push_back({strSource, "it is empty or not valid UTF-8"});
            continue;
        }
        const DEVICEPATH path = SplitDevicePath(*strPath);
        std::string strFault = WantedFault(*strPath, path);
        if (strFault.empty() && !taken.insert(NameKey(path.strName)).second) {
            strFault = "another source already goes to " +
                       PathText(ToPath(strDest) / ToPath(path.strName));
        }
        if (!strFault.empty()) {
            plan.missing.push_back({*strPath, strFault});
            continue;
        }
        auto itGroup = std::ranges::find(plan.groups, path.strFolder, &PULLGROUP::strFolder);
        if (itGroup == plan.groups.end()) {
            itGroup = plan.groups.insert(itGroup, PULLGROUP{path.strFolder, {}, {}, {}});
        }
        itGroup->names.push_back(path.strName);
    }
    return plan;
}

void LeaveOutWhatCannotCome(PULLGROUP& group, std::size_t nMostBytes) {
    for (PULLENTRY& entry : group.entries) {
        const PULLENTRY* const pFolder = group.Find(FolderOf(entry.strName));
        if (pFolder != nullptr && !pFolder->strReason.empty()) {
            entry.strReason = pFolder->strReason;
        } else if (entry.IsDue()) {
            Judge(entry, nMostBytes);
        }
    }
}

std::vector<std::string> NamesToAsk(const PULLGROUP& group) {
    std::unordered_set<std::string> split; // folders of which not all is due
    std::unordered_set<std::string> due;   // folders of which something is
    for (const PULLENTRY& entry : group.entries) {
        if (entry.bArrived || entry.bInTheWay) {
            AddAbove(entry.strName, split);
        }
        if (entry.IsDue() && (!entry.bFolder || entry.bUnseen)) {
            due.insert(entry.strName);
            AddAbove(entry.strName, due);
        }
    }
    std::vector<std::string> names;
    for (const PULLENTRY& entry : group.entries) {
        const std::string strFolder = FolderOf(entry.strName);
        if (entry.IsDue() && due.contains(entry.strName) && !split.contains(entry.strName) &&
            (strFolder.empty() || split.contains(strFolder))) {
            names.push_back(entry.strName);
        }
    }
    return names;
}

std::vector<std::string> EmptyFolders(const PULLGROUP& group) {
    std::unordered_set<std::string> filled;
    for (const PULLENTRY& entry : group.entries) {
        if (!entry.bFolder || entry.bUnseen || !entry.strReason.empty()) {
            filled.insert(entry.strName);
            AddAbove(entry.strName, filled);
        }
    }
    std::vector<std::string> empty;
    for (const PULLENTRY& entry : group.entries) {
        if (entry.bFolder && !filled.contains(entry.strName)) {
            empty.push_back(entry.strName);
        }
    }
    return empty;
}

void AddMissing(const PULLGROUP& group, const char* lpszDefault, std::vector<LEFTOUT>& missing) {
    const std::unordered_set<std::string> barren = BarrenFolders(group);
    std::unordered_set<std::string> named; // folders that stand for what has no other reason
    for (const PULLENTRY& entry : group.entries) {
        const bool bOwnReason = !entry.strReason.empty();
        const bool bBarren = entry.bFolder && barren.contains(entry.strName);
        const auto itAbove = named.find(FolderOf(entry.strName));
        const PULLENTRY* const pAbove = itAbove == named.end() ? nullptr : group.Find(*itAbove);
        const bool bNamedAbove =
            pAbove != nullptr && (!bOwnReason || entry.strReason == pAbove->strReason);
        if (entry.bFolder && (bNamedAbove || bBarren || bOwnReason)) {
            named.insert(entry.strName);
        }
        const bool bMissing = bOwnReason || (!entry.bFolder && !entry.bArrived);
        if (!bNamedAbove && (bMissing || bBarren)) {
            missing.push_back(
                {group.DevicePath(entry.strName), bOwnReason ? entry.strReason : lpszDefault});
        }
    }
}

void AddBarrenWanted(const PULLGROUP& group, const char* lpszReason,
                     std::vector<LEFTOUT>& missing) {
    std::unordered_set<std::string> came;
    for (const PULLENTRY& entry : group.entries) {
        if (entry.bArrived) {
            came.insert(entry.strName.substr(0, entry.strName.find('\\')));
        }
    }
    for (const std::string& strName : group.names) {
        if (!came.contains(strName)) {
            missing.push_back({group.DevicePath(strName), lpszReason});
        }
    }
}

std::optional<std::string> AskedName(const PULLGROUP& group, const std::string& strName) {
    const std::size_t nFirst = std::min(strName.find('\\'), strName.size());
    const std::string strFirst = strName.substr(0, nFirst);
    auto itWanted = std::ranges::find(group.names, strFirst);
    if (itWanted == group.names.end()) {
        itWanted = std::ranges::find(group.names, FoldLetters(strFirst), FoldLetters);
    }
    return itWanted == group.names.end() ? std::nullopt
                                         : std::optional(*itWanted + strName.substr(nFirst));
}

} // namespace cli
