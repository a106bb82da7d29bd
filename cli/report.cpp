#include "cli/report.h"

#include "cli/console.h"
#include "cli/text.h"

#include <nlohmann/json.hpp>

namespace cli {

void Say(const CONTEXT& context, const std::string& strSentence) {
    if (!context.output.bQuiet && !context.output.bJson) {
        console::Print(console::Stream::Out, Printable(strSentence) + "\n");
    }
}

void PrintData(const CONTEXT& context, const std::string& strLine) {
    if (!context.output.bJson) {
        console::Print(console::Stream::Out, Printable(strLine) + "\n");
    }
}

void Complain(const CONTEXT& context, const std::string& strSentence) {
    if (!context.output.bJson) {
        console::Print(console::Stream::Error, "dak: " + Printable(strSentence) + "\n");
    }
}

void Complain(const CONTEXT& context, const std::vector<LEFTOUT>& leftOut) {
    for (const LEFTOUT& entry : leftOut) {
        Complain(context, "left out " + entry.strPath + ": " + entry.strReason);
    }
}

nlohmann::json LeftOutJson(const std::vector<LEFTOUT>& leftOut) {
    nlohmann::json array = nlohmann::json::array();
    for (const LEFTOUT& entry : leftOut) {
        array.push_back({{"path", entry.strPath}, {"reason", entry.strReason}});
    }
    return array;
}

void FinishData(CONTEXT& context, const char* lpszVerb, const MEANING& meaning,
                nlohmann::json object) {
    if (context.output.bJson || meaning.nExit != EXIT_DONE) {
        Finish(context, lpszVerb, meaning, std::move(object));
    }
}

void Finish(CONTEXT& context, const char* lpszVerb, MEANING meaning, nlohmann::json object) {
    context.nExit = meaning.nExit;
    if (meaning.nExit == EXIT_NO_DEVICE && !context.strDevice.empty()) {
        meaning.strSentence += " (it was the device " + context.strDevice + ")";
    }
    if (context.output.bJson) {
        object["verb"] = lpszVerb;
        object["device"] =
            context.strDevice.empty() ? nlohmann::json() : nlohmann::json(context.strDevice);
        object["result"] = meaning.lpszKey;
        object["exit"] = meaning.nExit;
        object["message"] = meaning.strSentence;
        // A host name need not be UTF-8, JSON text must.
        console::Print(console::Stream::Out,
                       object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    } else if (meaning.nExit == EXIT_DONE) {
        Say(context, meaning.strSentence);
    } else {
        Complain(context, meaning.strSentence);
    }
}

} // namespace cli
