#include "cli/description.h"
#include "cli/device_path.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"
#include "cli/verdict.h"

#include "link/dak_vorn.h"

#include <functional>
#include <memory>
#include <optional>
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
    const auto strPath = TakeDevicePath(context, verb.lpszName, "PATH", strArgument);
    if (!strPath) {
        return;
    }
    CDAKVorn dak;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = verb.operation(dak, Utf8ToWide(*strPath)->c_str());
    }
    MEANING meaning = JudgeOperation(context, dak, verb.action, dwResult);
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

// A verb that takes a path of the device to another one there.
struct TWOPATHVERB {
    const char* lpszName;
    Action action;
    const char* lpszDone; // "moved"
    // The operation would replace a folder with all that is in it: that is more than was asked for.
    bool bSparesFolders;
    std::function<DWORD(CDAKVorn& dak, const WCHAR* lpSource, const WCHAR* lpDest)> operation;
};

struct TWOPATHS {
    std::string strSource;
    std::string strDest;
};

// Why nothing may take the place of what is at the path: it is a folder, or the link fails.
std::optional<MEANING> JudgeTarget(CONTEXT& context, CDAKVorn& dak, const std::string& strPath) {
    const DESCRIPTION old = Describe(context, dak, strPath);
    if (old.meaning.nExit == EXIT_DONE && old.facts.IsFolder()) {
        return MEANING{EXIT_FAILED, "failed",
                       strPath + " is a folder: write a slash behind it to copy into it, or give "
                                 "a new name"};
    }
    const bool bFree = old.dwResult == DAKERROR_NONE || old.dwResult == DAKERROR_FAIL;
    return bFree ? std::nullopt : std::optional(old.meaning);
}

void RunTwoPathVerb(CONTEXT& context, const TWOPATHVERB& verb, const TWOPATHS& arguments) {
    const auto strSource = TakeDevicePath(context, verb.lpszName, "SRC", arguments.strSource);
    const auto strFolder = strSource
                               ? TakeDevicePath(context, verb.lpszName, "DEST", arguments.strDest)
                               : std::nullopt;
    if (!strFolder) {
        return;
    }
    const std::string strDest =
        NamesFolder(arguments.strDest)
            ? JoinDevicePath(*strFolder, SplitDevicePath(*strSource).strName)
            : *strFolder;
    const nlohmann::json object = {{"source", *strSource}, {"destination", strDest}};
    CDAKVorn dak;
    if (verb.bSparesFolders) {
        if (const auto refusal = JudgeTarget(context, dak, strDest)) {
            Finish(context, verb.lpszName, *refusal, object);
            return;
        }
    }
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult =
            verb.operation(dak, Utf8ToWide(*strSource)->c_str(), Utf8ToWide(strDest)->c_str());
    }
    const std::string strBoth = *strSource + " to " + strDest;
    MEANING meaning = JudgeOperation(context, dak, verb.action, dwResult);
    meaning.strSentence = meaning.nExit == EXIT_DONE ? verb.lpszDone + (" " + strBoth)
                                                     : strBoth + ": " + meaning.strSentence;
    Finish(context, verb.lpszName, meaning, object);
}

void AddMoveVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb =
        AddVerb(app, context, "mv", "Move or rename a file or a folder on the device",
                "DEST is the new path; with a slash at its end it is the folder that takes SRC\n"
                "under its own name.\n\n"
                "Examples:\n"
                "  dak mv /Docs/a.txt /Docs/b.txt    rename\n"
                "  dak mv /Docs/a.txt /Old/          gives \\Old\\a.txt\n");
    const auto pPaths = std::make_shared<TWOPATHS>();
    pVerb->add_option("SRC", pPaths->strSource, "what is there")->required()->option_text(" ");
    pVerb->add_option("DEST", pPaths->strDest, "where it goes")->required()->option_text(" ");
    pVerb->callback([&context, pPaths] {
        RunTwoPathVerb(context,
                       {"mv", Action::Move, "moved", false,
                        [](CDAKVorn& dak, const WCHAR* lpSource, const WCHAR* lpDest) {
                            return dak.DAKMoveFile(lpSource, lpDest);
                        }},
                       *pPaths);
    });
}

void AddCopyOnDeviceVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "cp", "Copy a file or a folder on the device",
        "DEST is the copy's path; with a slash at its end it is the folder that takes SRC under\n"
        "its own name. A file that is there is replaced when the copy is whole; a folder is not. "
        "A\n"
        "folder is copied with all that is in it. \"dak push\" and \"dak pull\" copy between the\n"
        "device and this computer.\n\n"
        "Examples:\n"
        "  dak cp /Docs/a.txt /Docs/b.txt\n"
        "  dak cp --no-clobber /Docs/a.txt /Backup/    leaves a \\Backup\\a.txt as it is\n");
    const auto pPaths = std::make_shared<TWOPATHS>();
    const auto pNoClobber = std::make_shared<bool>(false);
    pVerb->add_flag("-n,--no-clobber", *pNoClobber, "Refuse to replace what is there");
    pVerb->add_option("SRC", pPaths->strSource, "what is there")->required()->option_text(" ");
    pVerb->add_option("DEST", pPaths->strDest, "where the copy goes")->required()->option_text(" ");
    pVerb->callback([&context, pPaths, pNoClobber] {
        RunTwoPathVerb(
            context,
            {"cp", Action::Copy, "copied", !*pNoClobber,
             [bNoClobber = *pNoClobber](CDAKVorn& dak, const WCHAR* lpSource, const WCHAR* lpDest) {
                 return dak.DAKCopyFile(lpSource, lpDest, bNoClobber ? 1 : 0);
             }},
            *pPaths);
    });
}

} // namespace

void AddPathVerbs(CLI::App& app, CONTEXT& context) {
    AddPathVerb(app, context,
                {"rm", "Delete a file or an empty folder on the device", "a path of the device",
                 "Examples:\n"
                 "  dak rm /Docs/old.txt     delete a file\n"
                 "  dak rm \"\\Docs\\old.txt\"   the same; a shell wants backslashes in quotes\n"
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
    AddMoveVerb(app, context);
    AddCopyOnDeviceVerb(app, context);
}

} // namespace cli
