#include "cli/push_checks.h"

#include "cli/console.h"
#include "cli/description.h"
#include "cli/device_path.h"
#include "cli/device_tree.h"
#include "cli/patience.h"
#include "cli/text.h"

#include <map>
#include <unordered_map>
#include <utility>

namespace cli {
namespace {

using FOLDERCONTENT = std::unordered_map<std::string, DEVICEENTRY>; // by their names

// Files that go to one folder of the device.
struct FOLDERFILES {
    std::string strFolder;
    std::vector<std::size_t> indices;
};

std::string DevicePathOf(const std::string& strDest, const PUSHED& file) {
    return JoinDevicePath(strDest, file.pEntry->strName);
}

// In the order of each folder's first file.
std::vector<FOLDERFILES> ByFolder(const std::string& strDest, const std::vector<PUSHED>& files,
                                  const std::function<bool(const PUSHED&)>& isWanted) {
    std::vector<FOLDERFILES> folders;
    std::unordered_map<std::string, std::size_t> places;
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (isWanted(files[i])) {
            const std::string strFolder =
                SplitDevicePath(DevicePathOf(strDest, files[i])).strFolder;
            const auto [it, bNew] = places.emplace(strFolder, folders.size());
            if (bNew) {
                folders.push_back({strFolder, {}});
            }
            folders[it->second].indices.push_back(i);
        }
    }
    return folders;
}

FOLDERCONTENT ContentOf(const DEVICETREE& listing) {
    FOLDERCONTENT content;
    for (const DEVICEENTRY& entry : listing.entries) {
        content.emplace(entry.strPath, entry);
    }
    return content;
}

// The free space where the folder lies or, while it is not there, where it is to be made.
struct PLACE {
    std::optional<MEANING> refusal;
    std::optional<std::uint64_t> qwFree; // nothing when the device does not tell
};

PLACE AskForPlace(CONTEXT& context, CDAKVorn& dak, std::string strFolder) {
    for (;;) {
        std::uint64_t qwFree = 0;
        DWORD dwResult = DAKERROR_NONE;
        {
            const CPatience patience(context);
            dwResult = dak.DAKGetFolderFreeSpace(Utf8ToWide(strFolder)->c_str(), &qwFree);
        }
        if (console::CInterrupts::Requested()) {
            return {Explain(Action::Push, Stage::Running, DAKERROR_CANCELLED), std::nullopt};
        }
        if (dwResult == DAKERROR_NONE) {
            return {std::nullopt, qwFree};
        }
        if (dwResult == DAKERROR_NO_DEVICE || dwResult == DAKERROR_BUSY) {
            return {Explain(Action::Push, Stage::Opening, dwResult), std::nullopt};
        }
        if (dwResult != DAKERROR_FOLDER_SPACE || strFolder == "\\") {
            return {};
        }
        const DESCRIPTION description = Describe(context, dak, strFolder);
        if (description.meaning.nExit == EXIT_DONE && !description.facts.IsFolder()) {
            return {MEANING{EXIT_FAILED, "failed",
                            strFolder + " is a file of the device: give a folder"},
                    std::nullopt};
        }
        strFolder = SplitDevicePath(strFolder).strFolder;
    }
}

// What of the place that a file goes to: in the root each folder may be a storage of its own.
std::string PlaceOf(const std::string& strDest, const HOSTENTRY& entry) {
    const std::size_t nEnd = entry.strName.find('\\');
    return strDest == "\\" && nEnd != std::string::npos ? "\\" + entry.strName.substr(0, nEnd)
                                                        : strDest;
}

std::string LackOfRoom(std::uint64_t qwNeeded, std::uint64_t qwFree) {
    return "the device has " + FormatBytes(qwFree) + " free, and the files need " +
           FormatBytes(qwNeeded) +
           " (a file that is replaced stays until the new one is whole): delete something on it, "
           "or copy fewer files. Nothing was copied";
}

// A closer look than the sum of the sizes: what is replaced, and on which storage it lies.
std::optional<MEANING> JudgeRooms(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                                  const std::vector<PUSHED>& files, std::uint64_t qwFree) {
    std::vector<std::uint64_t> old(files.size());
    for (const FOLDERFILES& folder : ByFolder(strDest, files, [](const PUSHED&) { return true; })) {
        const DEVICETREE listing = ListDeviceTree(context, dak, folder.strFolder, Depth::Folder);
        if (listing.meaning.nExit == EXIT_CANCELLED) {
            return listing.meaning;
        }
        const FOLDERCONTENT content = ContentOf(listing);
        for (const std::size_t i : folder.indices) {
            const auto it = content.find(SplitDevicePath(DevicePathOf(strDest, files[i])).strName);
            old[i] = it == content.end() ? 0 : it->second.qwSize;
        }
    }
    std::map<std::uint64_t, std::vector<REPLACED>> rooms; // by their free bytes
    std::map<std::string, std::uint64_t> freeOf = {{strDest, qwFree}};
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string strPlace = PlaceOf(strDest, *files[i].pEntry);
        if (!freeOf.contains(strPlace)) {
            const PLACE place = AskForPlace(context, dak, strPlace);
            if (place.refusal) {
                return place.refusal;
            }
            freeOf[strPlace] = place.qwFree.value_or(qwFree);
        }
        rooms[freeOf[strPlace]].push_back({files[i].pEntry->qwSize, old[i]});
    }
    for (const auto& [qwRoom, replaced] : rooms) {
        if (const std::uint64_t qwNeeded = RoomNeeded(replaced); qwNeeded > qwRoom) {
            return MEANING{EXIT_NO_SPACE, "no_space", LackOfRoom(qwNeeded, qwRoom)};
        }
    }
    return std::nullopt;
}

// What the listing of their folder makes of the files.
void JudgeFolder(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                 std::vector<PUSHED>& files, const FOLDERFILES& folder, const DEVICETREE& listing) {
    const FOLDERCONTENT content = ContentOf(listing);
    const bool bWhole = listing.unlisted.empty();
    const bool bNoFolder = !bWhole && content.empty() &&
                           Describe(context, dak, folder.strFolder).dwResult == DAKERROR_FAIL;
    // The device knows which names are the same to it. Each question costs a third of a second.
    int nQuestionsLeft = 20;
    for (const std::size_t i : folder.indices) {
        PUSHED& file = files[i];
        const std::string strPath = DevicePathOf(strDest, file);
        const auto it = content.find(SplitDevicePath(strPath).strName);
        if (it != content.end()) {
            file.eFate = JudgePushed(*file.pEntry, &it->second);
        } else if (bNoFolder || (bWhole && nQuestionsLeft == 0)) {
            file.eFate = Fate::Missing;
        } else if (nQuestionsLeft > 0) {
            --nQuestionsLeft;
            const DESCRIPTION description = Describe(context, dak, strPath);
            const FILEFACTS& facts = description.facts;
            const DEVICEENTRY entry{facts.strName, facts.IsFolder(), facts.qwSize, facts.qwWritten,
                                    facts.dwAttributes};
            if (description.meaning.nExit == EXIT_DONE || description.dwResult == DAKERROR_FAIL) {
                file.eFate = JudgePushed(*file.pEntry,
                                         description.meaning.nExit == EXIT_DONE ? &entry : nullptr);
            }
        }
    }
}

} // namespace

std::optional<MEANING> FindNoPlace(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                                   const std::vector<PUSHED>& files) {
    const PLACE place = AskForPlace(context, dak, strDest);
    std::uint64_t qwSum = 0;
    for (const PUSHED& file : files) {
        qwSum += file.pEntry->qwSize;
    }
    if (place.refusal || !place.qwFree || qwSum <= *place.qwFree) {
        return place.refusal;
    }
    return JudgeRooms(context, dak, strDest, files, *place.qwFree);
}

MEANING LookForPushed(CONTEXT& context, CDAKVorn& dak, const std::string& strDest,
                      std::vector<PUSHED>& files, const OnFolder& onFolder) {
    const std::vector<FOLDERFILES> folders = ByFolder(strDest, files, [](const PUSHED& file) {
        return file.eFate == Fate::Open || file.eFate == Fate::Confirmed;
    });
    for (std::size_t i = 0; i < folders.size(); ++i) {
        onFolder(folders[i].strFolder, i, folders.size());
        const DEVICETREE listing =
            ListDeviceTree(context, dak, folders[i].strFolder, Depth::Folder);
        if (listing.meaning.nExit != EXIT_DONE) {
            return listing.meaning;
        }
        JudgeFolder(context, dak, strDest, files, folders[i], listing);
    }
    return {EXIT_DONE, "ok", ""};
}

} // namespace cli
