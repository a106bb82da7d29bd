// Times of the device's files, past the agent; one implementation for each system.
#pragma once

#include <cstdint>
#include <filesystem>

namespace scenario {

// In FILETIME units.
std::uint64_t WriteTimeOf(const std::filesystem::path& path);

// Whether the agent can keep creation times there.
bool KeepsCreationTimes(const std::filesystem::path& folder);

} // namespace scenario
