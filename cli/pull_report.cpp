#include "cli/pull_report.h"

#include "cli/copy.h"
#include "cli/text.h"

#include <nlohmann/json.hpp>

namespace cli {
namespace {

// What is said behind the meaning of an end that is no success, by what arrived.
std::string TailOf(const PULLRESULT& result) {
    if (!result.bLooked) {
        return ". 0 files arrived: the pull was still looking what there is";
    }
    std::vector<std::string> paths;
    for (const PULLRESULT::ARRIVAL& file : result.arrived) {
        paths.push_back(file.strPath);
    }
    const std::string strFile =
        result.strFileInWork.empty() ? "" : "; the file in work was " + result.strFileInWork;
    const std::string strSome = paths.empty() ? "" : " (" + FormatSome(paths) + ")";
    const bool bAll = result.bCounted && paths.size() == result.qwFiles;
    return strFile + ". " +
           (result.bCounted ? std::to_string(paths.size()) + " of " + Count(result.qwFiles, "file")
                            : Count(paths.size(), "file")) +
           " arrived whole" + strSome + (bAll ? "" : "; the rest did not arrive");
}

} // namespace

std::uint64_t PULLRESULT::BytesArrived() const {
    std::uint64_t qwArrived = 0;
    for (const ARRIVAL& file : arrived) {
        qwArrived += file.qwSize;
    }
    return qwArrived;
}

MEANING PullMeaning(const PULLRESULT& result) {
    MEANING meaning = result.end;
    if (meaning.nExit != EXIT_DONE) {
        meaning.strSentence += TailOf(result);
        return meaning;
    }
    meaning.strSentence =
        "pulled " + FormatAmount(result.arrived.size(), result.BytesArrived(), result.dSeconds) +
        " to " + result.strDest;
    if (!result.missing.empty()) {
        meaning = {EXIT_PARTIAL, "partial",
                   meaning.strSentence + "; missing: " + std::to_string(result.missing.size())};
    }
    return meaning;
}

nlohmann::json PullJson(const PULLRESULT& result) {
    nlohmann::json arrived = nlohmann::json::array();
    for (const PULLRESULT::ARRIVAL& file : result.arrived) {
        arrived.push_back({{"path", file.strPath}, {"bytes", file.qwSize}});
    }
    nlohmann::json object = {{"destination", result.strDest},
                             {"asked", result.asked},
                             {"files", nullptr},
                             {"bytes", nullptr},
                             {"files_arrived", result.arrived.size()},
                             {"bytes_arrived", result.BytesArrived()},
                             {"arrived", arrived},
                             {"missing", LeftOutJson(result.missing)},
                             {"empty_folders", result.madeEmpty},
                             {"seconds", result.dSeconds}};
    if (result.bCounted) {
        object["files"] = result.qwFiles;
        object["bytes"] = result.qwBytes;
    }
    return object;
}

} // namespace cli
