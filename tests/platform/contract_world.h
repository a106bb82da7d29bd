// What the seam's contract tests need of the platform under test beyond the seam itself. Each
// platform brings one implementation, and the same tests are linked against each. They say nothing
// that the contract leaves open, and their upper bounds on time are loose, as not every clock is
// exact.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace contract {

// Makes a fresh world, runs body in it on a thread that may call the platform, waits for its end
// and takes the world down.
void InWorld(const std::function<void()>& body);

// Inside InWorld:

// An empty folder for host files; the same one throughout a world.
std::string Folder();

// Milliseconds of the platform's own clock.
std::uint64_t NowMs();

// Whether the file system below the folder keeps a creation time that it is given.
bool CreationTimesAreKept();

// A device of the interface class {25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}. It keeps what the host
// writes and gives what the test lays ready.
void PlugDevice();
void UnplugDevice();
void DeviceGives(std::vector<std::uint8_t> package);
std::vector<std::vector<std::uint8_t>> DeviceTook();
// Whether the device takes what the host writes; while it does not, a write blocks.
void DeviceTakes(bool bTakes);

} // namespace contract

// A test whose body runs in a world of its own.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CONTRACT_TEST(suite, name)                                                                 \
    static void suite##name();                                                                     \
    TEST(suite, name) {                                                                            \
        contract::InWorld(suite##name);                                                            \
    }                                                                                              \
    static void suite##name()
