// What the tests of a walk look at.
#pragma once

#include "cli/host_names.h"
#include "cli/host_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace cli {

inline std::vector<std::string> Names(const PUSHGROUP& group) {
    std::vector<std::string> names;
    for (const HOSTENTRY& entry : group.entries) {
        names.push_back(entry.strName);
    }
    return names;
}

// What the library cuts off an entry: the source folder and one separator.
inline void ExpectLibraryFindsNames(const PUSHGROUP& group) {
    for (const HOSTENTRY& entry : group.entries) {
        EXPECT_EQ(entry.strEntry.substr(group.strSource.size() + 1), entry.strName);
        EXPECT_TRUE(std::filesystem::exists(ToPath(HostPath(entry.strEntry)))) << entry.strEntry;
    }
}

} // namespace cli
