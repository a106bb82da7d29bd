// How the command speaks: sentences for a person, or one JSON object for a program.
#pragma once

#include "cli/host_tree.h"
#include "cli/results.h"

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace cli {

struct OUTPUT {
    bool bQuiet = false; // no sentence but errors
    bool bJson = false;  // one object on standard output, and nothing else anywhere
};

// What a verb is given, and what it leaves.
struct CONTEXT {
    OUTPUT output;
    std::string strWanted; // the device that -d names, else empty
    std::string strDevice; // the one found at the start; empty when there was none
    int nExit = EXIT_DONE;
    // A worker of the library is still at work on a link that hangs: the process must end without
    // waiting for it.
    bool bAbandoned = false;
};

// A sentence on standard output; nothing under --quiet and --json.
void Say(const CONTEXT& context, const std::string& strSentence);

// A line of what the verb was asked for, on standard output, also under --quiet; nothing under
// --json.
void PrintData(const CONTEXT& context, const std::string& strLine);

// "dak: ..." on standard error; nothing under --json, where the object carries it.
void Complain(const CONTEXT& context, const std::string& strSentence);
void Complain(const CONTEXT& context, const std::vector<LEFTOUT>& leftOut);

// The same as an array for the object of --json.
nlohmann::json LeftOutJson(const std::vector<LEFTOUT>& leftOut);

// The end of a verb that has printed what it was asked for: Finish without a sentence when it is
// done.
void FinishData(CONTEXT& context, const char* lpszVerb, const MEANING& meaning,
                nlohmann::json object);

// Ends a verb: keeps the exit status, complains or says the sentence, or prints the object, to
// which "verb", "device", "result", "exit" and "message" are added.
void Finish(CONTEXT& context, const char* lpszVerb, MEANING meaning, nlohmann::json object);

} // namespace cli
