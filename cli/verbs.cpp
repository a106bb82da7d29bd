#include "cli/verbs.h"

#include "cli/device_path.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {

CLI::App* AddVerb(CLI::App& app, CONTEXT& context, const char* lpszName, const char* lpszSummary,
                  const char* lpszHelp) {
    CLI::App* const pVerb = app.add_subcommand(lpszName, lpszSummary);
    pVerb->group("Verbs");
    pVerb->footer(lpszHelp);
    AddCommonOptions(*pVerb, context);
    return pVerb;
}

void AddCommonOptions(CLI::App& app, CONTEXT& context) {
    const auto take = [&context](const std::string& strName) {
        if (strName.empty() || (!context.strWanted.empty() && context.strWanted != strName)) {
            throw CLI::ValidationError("--device", strName.empty() ? "the name is empty"
                                                                   : "two devices are named");
        }
        context.strWanted = strName;
    };
    app.add_option_function<std::string>(
           "-d,--device", take, "Work with the device NAME; needed when several are attached")
        ->type_name("NAME");
    app.add_flag("-q,--quiet", context.output.bQuiet, "Print no sentence but errors");
    app.add_flag("--json", context.output.bJson, "Print one JSON object at the end, nothing else");
}

std::optional<std::string> TakeDevicePath(CONTEXT& context, const char* lpszVerb,
                                          const char* lpszName, const std::string& strArgument) {
    std::optional<std::string> strPath = NormalDevicePath(strArgument);
    if (!strPath) {
        Finish(context, lpszVerb,
               {EXIT_USAGE, "usage",
                std::string(lpszName) + " is empty or not valid UTF-8: give a path of the device"},
               {{"path", strArgument}});
    }
    return strPath;
}

} // namespace cli
