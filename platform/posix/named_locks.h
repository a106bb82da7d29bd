#pragma once

#include <mutex>

namespace platform::posix {

// For the fork guard alone: held while the list of the process's named locks changes.
std::mutex& NamedLockMutex();

} // namespace platform::posix
