#include "cli/description.h"
#include "cli/device_command.h"
#include "cli/device_path.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"
#include "cli/verdict.h"

#include "link/dak_vorn.h"

#include <memory>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// The device tells no reason. What it tells of the file leaves fewer of them.
void LookWhyNotStarted(CONTEXT& context, CDAKVorn& dak, const std::string& strImage,
                       MEANING& meaning) {
    const bool bNameAlone = strImage.find('\\') == std::string::npos;
    const DESCRIPTION description =
        Describe(context, dak, bNameAlone ? JoinDevicePath("\\", strImage) : strImage);
    if (description.dwResult == DAKERROR_FAIL && !bNameAlone) {
        meaning.strSentence = "the device has no such program: see that the path is right";
    } else if (description.meaning.nExit == EXIT_DONE) {
        meaning.strSentence =
            description.facts.IsFolder()
                ? "it is a folder: give the path of a program"
                : "the device did not start it, though it is there: either it lacks the permission "
                  "to execute, which a copy does not bring, or the agent was started without "
                  "--allow-exec";
    }
}

void RunProgram(CONTEXT& context, const std::vector<std::string>& words, bool bWait) {
    if (words.empty() || words.front().starts_with('-')) {
        Finish(context, "run",
               {EXIT_USAGE, "usage",
                words.empty() ? "give a program of the device"
                              : "run has no option " + words.front() +
                                    "; those of the program stand behind it"},
               nlohmann::json::object());
        return;
    }
    auto strImage = TakeDevicePath(context, "run", "IMAGE", words.front());
    if (!strImage) {
        return;
    }
    // The device looks for a name alone in its folders of programs as well.
    if (words.front().find_first_of("/\\") == std::string::npos) {
        strImage = words.front();
    }
    const auto strLine = Utf8ToWide(JoinArguments({words.begin() + 1, words.end()}));
    if (!strLine) {
        Finish(context, "run",
               {EXIT_USAGE, "usage", "an argument is not valid UTF-8: the device takes no other"},
               {{"image", *strImage}});
        return;
    }
    CDAKVorn dak;
    DWORD dwStatus = 0;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = dak.DAKCreateProcess(Utf8ToWide(*strImage)->c_str(), strLine->c_str(),
                                        bWait ? &dwStatus : nullptr);
    }
    MEANING meaning = JudgeOperation(context, dak, Action::Run, dwResult);
    if (meaning.nExit == EXIT_FAILED) {
        LookWhyNotStarted(context, dak, *strImage, meaning);
    }
    nlohmann::json object = {{"image", *strImage}, {"waited", bWait}};
    if (meaning.nExit != EXIT_DONE) {
        meaning.strSentence = *strImage + ": " + meaning.strSentence;
    } else if (!bWait) {
        meaning.strSentence = "started " + *strImage;
    } else {
        object["exit_status"] = dwStatus;
        meaning.strSentence = *strImage + " ended with status " + std::to_string(dwStatus);
        meaning.nExit = dwStatus == 0 ? EXIT_DONE : EXIT_PROGRAM;
        meaning.lpszKey = dwStatus == 0 ? "ok" : "program";
    }
    Finish(context, "run", meaning, std::move(object));
}

} // namespace

void AddRunVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "run", "Start a program on the device",
        "Options stand ahead of IMAGE; what follows it is for the program. With --wait the\n"
        "command ends with the program: exit status 0 when that ended with 0, else 9, and the\n"
        "sentence (and \"exit_status\" of --json) tells the program's own. Without --wait it ends "
        "as\n"
        "soon as the program has been started. An IMAGE without a slash may also be a program of "
        "the\n"
        "folders that the agent was given for that. An agent starts programs only when it was\n"
        "started with --allow-exec.\n\n"
        "Examples:\n"
        "  dak run /bin/player /Music/one.mp3    start it and leave it\n"
        "  dak run --wait /bin/tidy -v /Docs     -v is for the program\n");
    // Words behind the first that is no option are not looked at.
    pVerb->prefix_command();
    const auto pWait = std::make_shared<bool>(false);
    pVerb->add_flag("-w,--wait", *pWait, "Wait for the program's end");
    pVerb->callback([&context, pVerb, pWait] { RunProgram(context, pVerb->remaining(), *pWait); });
}

} // namespace cli
