#include "cli/description.h"
#include "cli/device_path.h"
#include "cli/file_facts.h"
#include "cli/patience.h"
#include "cli/table.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include "link/dak_vorn.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// The entries as far as they came.
struct LISTING {
    MEANING meaning;
    std::vector<FILEFACTS> entries;
};

LISTING ReadListing(CONTEXT& context, CDAKVorn& dak, const std::string& strPath) {
    const CPatience patience(context);
    CArray<_tagFileInfo, _tagFileInfo> records;
    const DWORD dwResult = dak.DAKGetFolderContent(Utf8ToWide(strPath)->c_str(), &records);
    LISTING listing{ExplainOperation(Action::List, dwResult, dak.GetLastError()), {}};
    listing.entries.reserve(static_cast<std::size_t>(records.GetSize()));
    for (int i = 0; i < records.GetSize(); ++i) {
        listing.entries.push_back(TakeFacts(records[i]));
    }
    if (listing.meaning.nExit != EXIT_DONE) {
        listing.meaning.strSentence =
            strPath + ": " + listing.meaning.strSentence +
            (listing.entries.empty()
                 ? ""
                 : ". The list ends after " + std::to_string(listing.entries.size()) + " entries");
    }
    return listing;
}

// A listing without entries does not tell a folder that is not there, and a file, from a folder
// with nothing in it: asks what the path is.
void LookBehindEmptyListing(CONTEXT& context, CDAKVorn& dak, const std::string& strPath,
                            LISTING& listing) {
    const DEVICEPATH parts = SplitDevicePath(strPath);
    const bool bPattern = parts.strName.find_first_of("*?") != std::string::npos;
    const std::string& strAsked = bPattern ? parts.strFolder : strPath;
    if (strAsked != "\\") {
        const DESCRIPTION description = Describe(context, dak, strAsked);
        if (description.meaning.nExit != EXIT_DONE) {
            listing.meaning = description.meaning;
        } else if (!bPattern && !description.facts.IsFolder()) {
            listing.entries.push_back(description.facts);
        }
    }
    if (bPattern && listing.meaning.nExit == EXIT_DONE) {
        listing.meaning = {EXIT_PARTIAL, "nothing", strPath + ": nothing there has such a name"};
    }
}

void PrintListing(const CONTEXT& context, const std::vector<FILEFACTS>& entries, bool bLong) {
    std::vector<std::vector<std::string>> rows;
    rows.reserve(entries.size());
    for (const FILEFACTS& facts : entries) {
        if (!bLong) {
            PrintData(context, facts.ShownName());
            continue;
        }
        rows.push_back({FormatAttributes(facts.dwAttributes),
                        facts.IsFolder() ? "-" : std::to_string(facts.qwSize),
                        FormatLocalTime(facts.qwWritten, false), facts.ShownName()});
    }
    for (const std::string& strLine :
         FormatTable(rows, {Align::Left, Align::Right, Align::Left, Align::Left})) {
        PrintData(context, strLine);
    }
}

void RunList(CONTEXT& context, const std::string& strArgument, bool bLong) {
    const auto strPath = TakeDevicePath(context, "ls", "PATTERN", strArgument);
    if (!strPath) {
        return;
    }
    CDAKVorn dak;
    LISTING listing = ReadListing(context, dak, *strPath);
    if (listing.entries.empty() &&
        (listing.meaning.nExit == EXIT_DONE || listing.meaning.nExit == EXIT_FAILED)) {
        LookBehindEmptyListing(context, dak, *strPath, listing);
    }
    nlohmann::json entries = nlohmann::json::array();
    if (context.output.bJson) {
        for (const FILEFACTS& facts : listing.entries) {
            entries.push_back(FactsJson(facts));
        }
    } else {
        PrintListing(context, listing.entries, bLong);
    }
    FinishData(context, "ls", listing.meaning, {{"path", *strPath}, {"entries", entries}});
}

void PrintDescription(const CONTEXT& context, const FILEFACTS& facts) {
    std::vector<std::vector<std::string>> rows = {{"Path:", facts.strPath},
                                                  {"Type:", facts.strType}};
    if (!facts.IsFolder()) {
        const std::string strBytes = Count(facts.qwSize, "byte");
        rows.push_back({"Size:", facts.qwSize < 1000
                                     ? strBytes
                                     : strBytes + " (" + FormatBytes(facts.qwSize) + ")"});
    }
    rows.push_back({"Attributes:", NameAttributes(facts.dwAttributes)});
    rows.push_back({"Modified:", FormatLocalTime(facts.qwWritten, true)});
    rows.push_back({"Accessed:", FormatLocalTime(facts.qwAccessed, true)});
    rows.push_back({"Created:", FormatLocalTime(facts.qwCreated, true)});
    for (const std::string& strLine : FormatTable(rows, {Align::Left, Align::Left})) {
        PrintData(context, strLine);
    }
}

void RunDescribe(CONTEXT& context, const std::string& strArgument) {
    const auto strPath = TakeDevicePath(context, "stat", "PATH", strArgument);
    if (!strPath) {
        return;
    }
    CDAKVorn dak;
    const DESCRIPTION description = Describe(context, dak, *strPath);
    nlohmann::json object = nlohmann::json::object();
    if (description.meaning.nExit == EXIT_DONE) {
        PrintDescription(context, description.facts);
        object = FactsJson(description.facts);
    } else {
        object["path"] = *strPath;
    }
    FinishData(context, "stat", description.meaning, std::move(object));
}

} // namespace

void AddListVerbs(CLI::App& app, CONTEXT& context) {
    CLI::App* const pList = AddVerb(
        app, context, "ls", "List a folder of the device",
        "PATTERN is a folder, a file, or names in a folder with * and ?; without it, the root. A\n"
        "folder's name is shown with a slash behind it. With -l: attributes (d folder, r "
        "read-only,\n"
        "h hidden, a archive), size in bytes, time of the last change, name.\n\n"
        "Examples:\n"
        "  dak ls                  what the root holds\n"
        "  dak ls -l /Docs         sizes and times\n"
        "  dak ls \"/Docs/*.txt\"    a pattern needs quotes in a shell\n");
    const auto pPattern = std::make_shared<std::string>("/");
    const auto pLong = std::make_shared<bool>(false);
    pList->add_flag("-l,--long", *pLong, "Attributes, sizes and times as well");
    pList->add_option("PATTERN", *pPattern, "a folder, a file, or a pattern")->option_text(" ");
    pList->callback([&context, pPattern, pLong] { RunList(context, *pPattern, *pLong); });

    CLI::App* const pStat =
        AddVerb(app, context, "stat", "Tell what a file or folder of the device is",
                "Examples:\n"
                "  dak stat /Docs/notes.txt           a line for each thing\n"
                "  dak stat --json /Docs/notes.txt    for a program\n");
    const auto pPath = std::make_shared<std::string>();
    pStat->add_option("PATH", *pPath, "a path of the device")->required()->option_text(" ");
    pStat->callback([&context, pPath] { RunDescribe(context, *pPath); });
}

} // namespace cli
