// The verbs of the command, a file for each group. Each function adds its verbs to the command
// line; a verb runs while the command line is taken and leaves its exit status in the context,
// which outlives the command line.
#pragma once

#include "cli/report.h"

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace cli {

void AddDevicesVerb(CLI::App& app, CONTEXT& context);  // devices
void AddStatusVerb(CLI::App& app, CONTEXT& context);   // status
void AddCopyVerbs(CLI::App& app, CONTEXT& context);    // push, pull
void AddListVerbs(CLI::App& app, CONTEXT& context);    // ls, stat
void AddReadVerb(CLI::App& app, CONTEXT& context);     // cat
void AddWriteVerb(CLI::App& app, CONTEXT& context);    // write
void AddPathVerbs(CLI::App& app, CONTEXT& context);    // rm, mkdir, mv, cp
void AddStorageVerbs(CLI::App& app, CONTEXT& context); // df, storages, format
void AddRunVerb(CLI::App& app, CONTEXT& context);      // run
void AddSystemVerbs(CLI::App& app, CONTEXT& context);  // ioctl, message

// For these: adds a verb with its common options and its help.
CLI::App* AddVerb(CLI::App& app, CONTEXT& context, const char* lpszName, const char* lpszSummary,
                  const char* lpszHelp);

// Adds the options that the command takes ahead of the verb and behind it: --device, --quiet and
// --json.
void AddCommonOptions(CLI::App& app, CONTEXT& context);

// The normal form of a device path of the command line; when there is none, the verb is finished
// with a word about lpszName, the argument.
std::optional<std::string> TakeDevicePath(CONTEXT& context, const char* lpszVerb,
                                          const char* lpszName, const std::string& strArgument);

} // namespace cli
