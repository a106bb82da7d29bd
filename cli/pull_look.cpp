#include "cli/pull_look.h"

#include "cli/console.h"
#include "cli/description.h"
#include "cli/device_path.h"

#include <algorithm>

namespace cli {
namespace {

// What the device has under a wanted name that is a folder.
MEANING LookInto(const CONTEXT& context, CDAKVorn& dak, PULLGROUP& group,
                 const std::string& strWanted, std::vector<LEFTOUT>& missing,
                 const OnListing& onListing) {
    const std::string strRoot = group.DevicePath(strWanted);
    const DEVICETREE tree = ListDeviceTree(context, dak, strRoot, Depth::Tree, onListing);
    group.Add({.strName = strWanted, .bFolder = true});
    for (const DEVICEENTRY& entry : tree.entries) {
        group.Add({.strName = JoinDevicePath(strWanted, entry.strPath),
                   .bFolder = entry.bFolder,
                   .qwSize = entry.qwSize,
                   .qwWritten = entry.qwWritten});
    }
    for (const UNLISTED& folder : tree.unlisted) {
        PULLENTRY* const pEntry = group.Find(
            strWanted + folder.strPath.substr(std::min(strRoot.size(), folder.strPath.size())));
        if (pEntry != nullptr && folder.eKind == UNLISTED::Kind::Refused) {
            pEntry->strReason = folder.strReason;
            pEntry->bInTheWay = true;
            continue;
        }
        if (pEntry != nullptr) {
            pEntry->bUnseen = true;
        }
        missing.push_back(folder);
    }
    return tree.meaning;
}

} // namespace

MEANING LookAhead(CONTEXT& context, CDAKVorn& dak, PULLGROUP& group, std::vector<LEFTOUT>& missing,
                  const OnListing& onListing) {
    for (const std::string& strName : group.names) {
        if (console::CInterrupts::Requested()) {
            return Explain(Action::Pull, Stage::Running, DAKERROR_CANCELLED);
        }
        const DESCRIPTION description = DescribeForCertain(context, dak, group.DevicePath(strName));
        if (description.meaning.nExit == EXIT_FAILED) {
            missing.push_back({group.DevicePath(strName), "the device has no such file or folder"});
        } else if (description.meaning.nExit != EXIT_DONE) {
            return description.dwResult == DAKERROR_FAIL
                       ? description.meaning
                       : Explain(Action::Pull, Stage::Opening, description.dwResult);
        } else if (!description.facts.IsFolder()) {
            group.Add({.strName = strName,
                       .qwSize = description.facts.qwSize,
                       .qwWritten = description.facts.qwWritten});
        } else if (MEANING meaning = LookInto(context, dak, group, strName, missing, onListing);
                   meaning.nExit != EXIT_DONE) {
            return meaning;
        }
    }
    return {EXIT_DONE, "ok", ""};
}

} // namespace cli
