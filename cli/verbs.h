// The verbs of the command, a file for each group. Each function adds its verbs to the command
// line; a verb runs while the command line is taken and leaves its exit status in the context,
// which outlives the command line.
#pragma once

#include "cli/report.h"

namespace CLI {
class App;
}

namespace cli {

void AddStatusVerb(CLI::App& app, CONTEXT& context); // status
void AddCopyVerbs(CLI::App& app, CONTEXT& context);  // push, pull
void AddPathVerbs(CLI::App& app, CONTEXT& context);  // rm, mkdir

// For these: adds a verb with its options --quiet and --json, and its help.
CLI::App* AddVerb(CLI::App& app, CONTEXT& context, const char* lpszName, const char* lpszSummary,
                  const char* lpszHelp);

// Adds --quiet and --json.
void AddOutputOptions(CLI::App& app, CONTEXT& context);

} // namespace cli
