// Splits a command line into its words as a shell does, and does nothing else that a shell does.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace agent {

// Blanks (space, tab, line end) separate. '...' is taken as it stands; within "..." a backslash
// takes the meaning from \ " $ ` and a line end; outside of quotes it does so for any character. A
// backslash ahead of a line end takes both away. Everything else stands for itself: no variables,
// patterns, comments, pipes. Nothing when a quote is not closed or a backslash stands at the end.
std::optional<std::vector<std::string>> SplitCommandLine(std::string_view strLine);

} // namespace agent
