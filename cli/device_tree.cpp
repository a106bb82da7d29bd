#include "cli/device_tree.h"

#include "cli/console.h"
#include "cli/device_path.h"
#include "cli/file_facts.h"
#include "cli/patience.h"
#include "cli/text.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

namespace cli {
namespace {

using Kind = UNLISTED::Kind;

// More than any device has. One that shows links in each other's places has no end of its own.
constexpr std::size_t MOST_LISTINGS = 100'000;
constexpr std::size_t MOST_ENTRIES = 2'000'000;

// Folders of one path that show the same, behind which it is a circle: a few of one name in each
// other are somebody's own.
constexpr std::ptrdiff_t MOST_EQUAL_LEVELS = 8;

// One component of a path, and no way out of its folder.
bool IsEntryName(std::string_view strName) {
    return !strName.empty() && strName != "." && strName != ".." &&
           strName.find_first_of("\\/") == std::string_view::npos;
}

// The same for folders that show the same entries.
std::size_t SignatureOf(const std::vector<FILEFACTS>& entries) {
    std::string strAll;
    for (const FILEFACTS& facts : entries) {
        strAll += facts.strName + '\\';
        for (const std::uint64_t qwFact :
             {std::uint64_t{facts.dwAttributes}, facts.qwSize, facts.qwCreated, facts.qwWritten}) {
            strAll += std::to_string(qwFact) + '\\';
        }
    }
    return std::hash<std::string>()(strAll);
}

// How a folder is asked for what is in it: one that is called like a pattern would be taken for
// one.
std::string ListingPath(const std::string& strFolder) {
    const bool bPattern =
        SplitDevicePath(strFolder).strName.find_first_of("*?") != std::string::npos;
    return bPattern ? JoinDevicePath(strFolder, "*") : strFolder;
}

class CWalk {
  public:
    CWalk(const CONTEXT& context, CDAKVorn& dak, std::string strRoot, const OnListing& onListing)
        : m_context(context), m_dak(dak), m_strRoot(std::move(strRoot)), m_onListing(onListing) {}

    DEVICETREE Run(Depth eDepth);

  private:
    void Enter(const std::string& strPath, std::size_t nDepth);
    std::vector<FILEFACTS> List(const std::string& strFolder, const WideText& strListing);
    bool IsCircle(const std::vector<FILEFACTS>& entries, std::size_t nDepth);
    void PutDue(const std::string& strPath, std::size_t nDepth, std::vector<FILEFACTS> entries);

    const CONTEXT& m_context;
    CDAKVorn& m_dak;
    const std::string m_strRoot;
    const OnListing& m_onListing;

    struct DUE {
        DEVICEENTRY entry;
        std::size_t nDepth; // the root's own entries have 1
    };
    std::vector<DUE> m_due;           // the next one last
    std::vector<std::size_t> m_shown; // signatures of the folders above the next one, by depth
    std::set<std::size_t> m_circles;  // signatures of folders that lead in one
    std::size_t m_nListings = 0;
    DEVICETREE m_tree{{}, {}, {EXIT_DONE, "ok", ""}};
};

DEVICETREE CWalk::Run(Depth eDepth) {
    Enter("", 0);
    while (!m_due.empty() && m_tree.meaning.nExit == EXIT_DONE) {
        const auto [entry, nDepth] = std::move(m_due.back());
        m_due.pop_back();
        m_tree.entries.push_back(entry);
        if (entry.bFolder && eDepth == Depth::Tree) {
            Enter(entry.strPath, nDepth);
        }
    }
    return std::move(m_tree);
}

// Lists a folder and makes its entries the next ones.
void CWalk::Enter(const std::string& strPath, std::size_t nDepth) {
    const std::string strFolder = strPath.empty() ? m_strRoot : JoinDevicePath(m_strRoot, strPath);
    const auto leaveOut = [&](Kind eKind, const char* lpszReason) {
        m_tree.unlisted.push_back({{strFolder, lpszReason}, eKind});
    };
    const auto strListing = Utf8ToWide(ListingPath(strFolder));
    if (!strListing || strListing->size() >= MAX_PATH) {
        leaveOut(Kind::Beyond,
                 "its path has 260 characters or more, so that it cannot be looked into");
        return;
    }
    if (m_nListings == MOST_LISTINGS || m_tree.entries.size() + m_due.size() >= MOST_ENTRIES) {
        leaveOut(Kind::Beyond, "there is too much on the device to look into it as well");
        return;
    }
    if (console::CInterrupts::Requested()) {
        m_tree.meaning = Explain(Action::List, Stage::Running, DAKERROR_CANCELLED);
        return;
    }
    if (m_onListing) {
        m_onListing(strFolder, m_tree);
    }
    ++m_nListings;
    std::vector<FILEFACTS> entries = List(strFolder, *strListing);
    if (IsCircle(entries, nDepth)) {
        leaveOut(Kind::Circle,
                 "it shows what the folders above it show, as a link that leads in a circle does");
        return;
    }
    PutDue(strPath, nDepth, std::move(entries));
}

// What came of a folder's entries, with a word about what did not. A link that fails ends the walk;
// in the middle of an answer it looks like a refusal, so that the device is asked again.
std::vector<FILEFACTS> CWalk::List(const std::string& strFolder, const WideText& strListing) {
    CArray<_tagFileInfo, _tagFileInfo> records;
    MEANING meaning{EXIT_DONE, "ok", ""};
    for (int nTry = 0; nTry == 0 || (nTry == 1 && meaning.nExit == EXIT_FAILED); ++nTry) {
        const CPatience patience(m_context);
        m_dak.ClearFileList(&records);
        const DWORD dwResult = m_dak.DAKGetFolderContent(strListing.c_str(), &records);
        meaning = ExplainOperation(Action::List, dwResult, m_dak.GetLastError());
    }
    std::vector<FILEFACTS> entries;
    entries.reserve(static_cast<std::size_t>(records.GetSize()));
    for (int i = 0; i < records.GetSize(); ++i) {
        entries.push_back(TakeFacts(records[i]));
    }
    if (meaning.nExit == EXIT_FAILED) {
        if (entries.empty()) {
            m_tree.unlisted.push_back({{strFolder, "the device does not list it"}, Kind::Refused});
        } else {
            m_tree.unlisted.push_back({{strFolder, "its listing broke off"}, Kind::BrokenOff});
        }
    } else if (meaning.nExit != EXIT_DONE) {
        m_tree.meaning = meaning;
    }
    std::ranges::sort(entries, {}, &FILEFACTS::strName);
    return entries;
}

bool CWalk::IsCircle(const std::vector<FILEFACTS>& entries, std::size_t nDepth) {
    m_shown.resize(nDepth);
    const std::size_t nSignature = SignatureOf(entries);
    const auto nAbove = std::ranges::count(m_shown, nSignature);
    m_shown.push_back(nSignature);
    if (std::ranges::none_of(entries, &FILEFACTS::IsFolder) || nAbove == 0) {
        return false;
    }
    // What has led in a circle once does so by every other way, of which there may be very many.
    if (nAbove >= MOST_EQUAL_LEVELS) {
        m_circles.insert(nSignature);
    }
    return m_circles.contains(nSignature);
}

void CWalk::PutDue(const std::string& strPath, std::size_t nDepth, std::vector<FILEFACTS> entries) {
    entries.erase(std::unique(entries.begin(), entries.end(),
                              [](const FILEFACTS& left, const FILEFACTS& right) {
                                  return left.strName == right.strName;
                              }),
                  entries.end());
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const std::string strBelow =
            strPath.empty() ? it->strName : JoinDevicePath(strPath, it->strName);
        if (IsEntryName(it->strName)) {
            m_due.push_back({{strBelow, it->IsFolder(), it->IsFolder() ? 0 : it->qwSize,
                              it->qwWritten, it->dwAttributes},
                             nDepth + 1});
        } else {
            m_tree.unlisted.push_back({{JoinDevicePath(m_strRoot, strBelow),
                                        "the device tells it under a name that no entry can have"},
                                       Kind::BadName});
        }
    }
}

} // namespace

std::size_t DEVICETREE::Files() const {
    return static_cast<std::size_t>(std::ranges::count(entries, false, &DEVICEENTRY::bFolder));
}

std::uint64_t DEVICETREE::Bytes() const {
    std::uint64_t qwBytes = 0;
    for (const DEVICEENTRY& entry : entries) {
        qwBytes += entry.qwSize;
    }
    return qwBytes;
}

DEVICETREE ListDeviceTree(const CONTEXT& context, CDAKVorn& dak, const std::string& strRoot,
                          Depth eDepth, const OnListing& onListing) {
    return CWalk(context, dak, strRoot, onListing).Run(eDepth);
}

} // namespace cli
