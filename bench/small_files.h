// The names of the many small files, which the demanded waits depend on.
#pragma once

#include <string>

namespace bench {

inline constexpr const char* SMALL_FOLDER = "small";

inline std::string SmallFileName(int i) {
    return std::to_string(100'000 + i) + ".txt";
}

} // namespace bench
