// What a pull says at its end.
#pragma once

#include "cli/report.h"

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace cli {

struct PULLRESULT {
    MEANING end{EXIT_DONE, "ok", ""}; // of the look ahead and the jobs
    bool bLooked = false;             // the look ahead has not ended it
    bool bCounted = false;            // it is known what there was to copy
    std::string strFileInWork;        // where a copy failed; empty: not at a file
    std::string strDest;
    std::vector<std::string> asked; // device paths
    std::uint64_t qwFiles = 0;      // that there were to copy
    std::uint64_t qwBytes = 0;
    struct ARRIVAL {
        std::string strPath; // on this computer
        std::uint64_t qwSize;
    };
    std::vector<ARRIVAL> arrived;
    std::vector<LEFTOUT> missing;
    std::vector<std::string> madeEmpty; // folders of this computer
    double dSeconds = 0;

    std::uint64_t BytesArrived() const;
};

// The sentence with its exit status, and the object for --json.
MEANING PullMeaning(const PULLRESULT& result);
nlohmann::json PullJson(const PULLRESULT& result);

} // namespace cli
