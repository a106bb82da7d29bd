#include "cli/device_path.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include "link/dak_vorn.h"

#include <functional>
#include <memory>
#include <string>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// A verb that hands one device path to one operation of the library.
struct PATHVERB {
    const char* lpszName;
    const char* lpszSummary;
    const char* lpszPathHelp;
    const char* lpszHelp;
    Action action;
    const char* lpszDone; // "deleted"
    std::function<DWORD(CDAKVorn& dak, const WCHAR* lpPath)> operation;
};

void RunPathVerb(CONTEXT& context, const PATHVERB& verb, const std::string& strArgument) {
    const auto strPath = NormalDevicePath(strArgument);
    if (!strPath) {
        Finish(context, verb.lpszName,
               {EXIT_USAGE, "usage", "PATH is empty or not valid UTF-8: give a path of the device"},
               {{"path", strArgument}});
        return;
    }
    CDAKVorn dak;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = verb.operation(dak, Utf8ToWide(*strPath)->c_str());
    }
    MEANING meaning = ExplainOperation(verb.action, dwResult, dak.GetLastError());
    meaning.strSentence = meaning.nExit == EXIT_DONE ? verb.lpszDone + (" " + *strPath)
                                                     : *strPath + ": " + meaning.strSentence;
    Finish(context, verb.lpszName, meaning, {{"path", *strPath}});
}

void AddPathVerb(CLI::App& app, CONTEXT& context, PATHVERB verb) {
    CLI::App* const pVerb = AddVerb(app, context, verb.lpszName, verb.lpszSummary, verb.lpszHelp);
    const auto pPath = std::make_shared<std::string>();
    pVerb->add_option("PATH", *pPath, verb.lpszPathHelp)->required()->option_text(" ");
    pVerb->callback(
        [&context, verb = std::move(verb), pPath] { RunPathVerb(context, verb, *pPath); });
}

} // namespace

void AddPathVerbs(CLI::App& app, CONTEXT& context) {
    AddPathVerb(app, context,
                {"rm", "Delete a file or an empty folder on the device", "a path of the device",
                 "Examples:\n"
                 "  dak rm /Docs/old.txt     delete a file\n"
                 "  dak rm '\\Docs\\old.txt'   the same; a shell wants backslashes in quotes\n"
                 "  dak rm /Docs/empty       delete a folder that has nothing in it\n",
                 Action::RemoveFile, "deleted",
                 [](CDAKVorn& dak, const WCHAR* lpPath) { return dak.DAKDeleteFile(lpPath); }});
    AddPathVerb(app, context,
                {"mkdir", "Make a folder on the device", "the new folder's path",
                 "The folder above it must exist. A push makes the folders it needs by itself.\n\n"
                 "Examples:\n"
                 "  dak mkdir /Docs\n"
                 "  dak mkdir /Docs/2024\n",
                 Action::MakeFolder, "made", [](CDAKVorn& dak, const WCHAR* lpPath) {
                     return dak.DAKCreateDirectory(lpPath, nullptr);
                 }});
}

} // namespace cli
