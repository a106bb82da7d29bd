#include "cli/verbs.h"

#include <CLI/App.hpp>

namespace cli {

CLI::App* AddVerb(CLI::App& app, CONTEXT& context, const char* lpszName, const char* lpszSummary,
                  const char* lpszHelp) {
    CLI::App* const pVerb = app.add_subcommand(lpszName, lpszSummary);
    pVerb->group("Verbs");
    pVerb->footer(lpszHelp);
    AddOutputOptions(*pVerb, context);
    return pVerb;
}

void AddOutputOptions(CLI::App& app, CONTEXT& context) {
    app.add_flag("-q,--quiet", context.output.bQuiet, "Print errors alone");
    app.add_flag("--json", context.output.bJson, "Print one JSON object at the end, nothing else");
}

} // namespace cli
