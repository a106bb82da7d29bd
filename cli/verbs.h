// The verbs of the command, a file for each group. Each function adds its verbs to the command
// line; a verb runs while the command line is taken and leaves its exit status in the context,
// which outlives the command line.
#pragma once

#include "cli/report.h"

namespace cli {

void AddStatusVerb(CLI::App& app, CONTEXT& context); // status
void AddCopyVerbs(CLI::App& app, CONTEXT& context);  // push, pull
void AddPathVerbs(CLI::App& app, CONTEXT& context);  // rm, mkdir

} // namespace cli
