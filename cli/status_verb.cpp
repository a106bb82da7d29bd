#include "cli/verbs.h"

#include "link/dak_vorn.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

void RunStatus(CONTEXT& context) {
    CDAKVorn dak;
    DWORD dwVersion1 = 0;
    DWORD dwVersion2 = 0;
    dak.DAKGetVersionNumber(&dwVersion1, &dwVersion2);
    MEANING meaning = Explain(Action::Status, Stage::Opening, dak.ConnectDevice());
    if (meaning.nExit == EXIT_DONE) {
        meaning.strSentence = "the device " + context.strDevice + " is attached and answers";
    }
    Finish(context, "status", meaning, {{"library_version", {dwVersion1, dwVersion2}}});
}

} // namespace

void AddStatusVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pStatus =
        AddVerb(app, context, "status", "Tell whether a device is attached",
                "Shakes hands with the device and lets it go again.\n\n"
                "Examples:\n"
                "  dak status                   say it in a sentence\n"
                "  dak status -q && echo yes    by the exit status: 0 when it answers\n");
    pStatus->callback([&context] { RunStatus(context); });
}

} // namespace cli
