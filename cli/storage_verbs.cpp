#include "cli/console.h"
#include "cli/patience.h"
#include "cli/table.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include "link/dak_vorn.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

constexpr std::uint64_t KIB = 1024;

// "1.2 GB of 8.0 GB free (85% used)".
std::string FormatRoom(std::uint64_t qwFree, std::uint64_t qwTotal) {
    const std::uint64_t qwUsed = qwTotal - std::min(qwFree, qwTotal);
    const std::string strRoom = FormatBytes(qwFree) + " of " + FormatBytes(qwTotal) + " free";
    return qwTotal == 0 ? strRoom
                        : strRoom + " (" + std::to_string(qwUsed * 100 / qwTotal) + "% used)";
}

void RunDeviceSpace(CONTEXT& context) {
    CDAKVorn dak;
    DWORD dwFreeKib = 0;
    DWORD dwTotalKib = 0;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = dak.DAKGetDeviceFreeSpace(&dwFreeKib, &dwTotalKib);
    }
    const MEANING meaning = ExplainOperation(Action::Space, dwResult, dak.GetLastError());
    nlohmann::json object = nlohmann::json::object();
    if (meaning.nExit == EXIT_DONE) {
        PrintData(context, FormatRoom(dwFreeKib * KIB, dwTotalKib * KIB));
        object = {{"free_bytes", dwFreeKib * KIB}, {"total_bytes", dwTotalKib * KIB}};
    }
    FinishData(context, "df", meaning, std::move(object));
}

void RunFolderSpace(CONTEXT& context, const std::string& strArgument) {
    const auto strPath = TakeDevicePath(context, "df", "PATH", strArgument);
    if (!strPath) {
        return;
    }
    CDAKVorn dak;
    std::uint64_t qwFree = 0;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = dak.DAKGetFolderFreeSpace(Utf8ToWide(*strPath)->c_str(), &qwFree);
    }
    MEANING meaning = ExplainOperation(Action::Space, dwResult, dak.GetLastError());
    nlohmann::json object = {{"path", *strPath}};
    if (meaning.nExit == EXIT_DONE) {
        PrintData(context, FormatBytes(qwFree) + " free in " + *strPath);
        object["free_bytes"] = qwFree;
    } else {
        meaning.strSentence = *strPath + ": " + meaning.strSentence;
    }
    FinishData(context, "df", meaning, std::move(object));
}

void RunStorages(CONTEXT& context) {
    CDAKVorn dak;
    CArray<_tagStorageInfo, _tagStorageInfo> records;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = dak.DAKGetStorageInfo(&records);
    }
    const MEANING meaning = ExplainOperation(Action::Storages, dwResult, dak.GetLastError());
    nlohmann::json storages = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows;
    for (int i = 0; i < records.GetSize(); ++i) {
        const _tagStorageInfo& record = records[i];
        const WCHAR* const lpEnd =
            std::find(std::begin(record.szStorageName), std::end(record.szStorageName), WCHAR{0});
        const std::string strName = WideToUtf8(
            {record.szStorageName, static_cast<std::size_t>(lpEnd - record.szStorageName)});
        const std::uint64_t qwTotal = record.dwValue1 * KIB;
        const std::uint64_t qwFree = record.dwValue2 * KIB;
        rows.push_back({strName, FormatRoom(qwFree, qwTotal)});
        storages.push_back({{"name", strName},
                            {"total_bytes", qwTotal},
                            {"free_bytes", qwFree},
                            {"kind", record.dwValue3}});
    }
    for (const std::string& strLine : FormatTable(rows, {Align::Left, Align::Left})) {
        PrintData(context, strLine);
    }
    FinishData(context, "storages", meaning, {{"storages", storages}});
}

// Whether the person at the terminal means it.
bool AskToFormat(const CONTEXT& context, const std::string& strName) {
    console::Print(console::Stream::Error, "Everything on the storage " + Printable(strName) +
                                               " of the device " + Printable(context.strDevice) +
                                               " will be deleted. Go on? [y/N] ");
    std::string strAnswer;
    std::getline(std::cin, strAnswer);
    return strAnswer == "y" || strAnswer == "Y" || strAnswer == "yes";
}

// Nothing to do but format, or what the verb ends with.
MEANING JudgeFormat(const CONTEXT& context, const std::string& strName, bool bYes) {
    if (strName.empty() || !Utf8ToWide(strName)) {
        return {EXIT_USAGE, "usage",
                "NAME is empty or not valid UTF-8: \"dak storages\" shows the names"};
    }
    if (bYes) {
        return {EXIT_DONE, "ok", ""};
    }
    if (context.output.bJson || !console::IsTerminal(console::Stream::In) ||
        !console::IsTerminal(console::Stream::Error)) {
        return {EXIT_USAGE, "usage",
                "nobody can be asked whether to delete everything on " + strName +
                    ": give --yes if you mean it"};
    }
    if (context.strDevice.empty()) {
        return Explain(Action::Format, Stage::Opening, DAKERROR_NO_DEVICE);
    }
    return AskToFormat(context, strName)
               ? MEANING{EXIT_DONE, "ok", ""}
               : MEANING{EXIT_PARTIAL, "nothing", strName + " was left as it is"};
}

void RunFormat(CONTEXT& context, const std::string& strName, bool bYes) {
    MEANING meaning = JudgeFormat(context, strName, bYes);
    if (meaning.nExit == EXIT_DONE) {
        CDAKVorn dak;
        const CPatience patience(context);
        const DWORD dwResult = dak.DAKFormatPartition(Utf8ToWide(strName)->c_str());
        meaning = ExplainOperation(Action::Format, dwResult, dak.GetLastError());
        meaning.strSentence = meaning.nExit == EXIT_DONE ? "formatted " + strName
                                                         : strName + ": " + meaning.strSentence;
    }
    Finish(context, "format", meaning, {{"name", strName}});
}

void AddSpaceVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb =
        AddVerb(app, context, "df", "Tell the free space of the device, or of one folder",
                "Examples:\n"
                "  dak df                    the device\n"
                "  dak df \"/Storage Card\"    the storage that holds the folder\n");
    const auto pPath = std::make_shared<std::string>();
    const CLI::Option* const pOption =
        pVerb->add_option("PATH", *pPath, "a folder of the device")->option_text(" ");
    pVerb->callback([&context, pPath, pOption] {
        if (pOption->count() > 0) {
            RunFolderSpace(context, *pPath);
        } else {
            RunDeviceSpace(context);
        }
    });
}

} // namespace

void AddStorageVerbs(CLI::App& app, CONTEXT& context) {
    AddSpaceVerb(app, context);
    CLI::App* const pStorages =
        AddVerb(app, context, "storages", "List the storages of the device with their room",
                "A storage is seen as the folder of its name in the root.\n\n"
                "Examples:\n"
                "  dak storages\n"
                "  dak storages --json    for a program\n");
    pStorages->callback([&context] { RunStorages(context); });

    CLI::App* const pFormat = AddVerb(
        app, context, "format", "Delete everything on a storage of the device",
        "Asks first, unless --yes is given; where nobody can be asked, it refuses. An agent\n"
        "formats only when it was started with --allow-format.\n\n"
        "Examples:\n"
        "  dak storages                       shows the names\n"
        "  dak format \"Storage Card\"          asks\n"
        "  dak format --yes \"Storage Card\"    does not\n");
    const auto pName = std::make_shared<std::string>();
    const auto pYes = std::make_shared<bool>(false);
    pFormat->add_flag("-y,--yes", *pYes, "Do not ask");
    pFormat->add_option("NAME", *pName, "the storage's name")->required()->option_text(" ");
    pFormat->callback([&context, pName, pYes] { RunFormat(context, *pName, *pYes); });
}

} // namespace cli
