// The command line of a program on the device.
#pragma once

#include <string>
#include <vector>

namespace cli {

// The arguments as one text that the device's agent splits into the same arguments again: blanks
// between them, and quotes where they are needed.
std::string JoinArguments(const std::vector<std::string>& arguments);

} // namespace cli
