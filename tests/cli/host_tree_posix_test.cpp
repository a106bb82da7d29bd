// Names and entries that a walk meets on this system alone.
#include "cli/host_tree.h"
#include "tests/cli/host_tree_support.h"
#include "tests/cli/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace cli {
namespace {

TEST(HostTree, WhatCannotTravelIsNamedAndTheRestGoes) {
    const CTempFolder folder;
    folder.Write("t/good", "1");
    folder.Write("t/back\\slash", "1");
    folder.Write("t/not\xFFutf8", "1");
    folder.Write("t/largest", "");
    fs::resize_file(folder.Path("t/largest"), 0xFFFFFFFF);
    folder.Write("t/too large", "");
    fs::resize_file(folder.Path("t/too large"), 0x100000000);
    fs::create_symlink("good", folder.Path("t/link"));
    fs::create_symlink("..", folder.Path("t/loop"));
    fs::create_symlink("nowhere", folder.Path("t/dangling"));

    const HOSTTREE tree = CollectForPush({folder.Path("t"), folder.Path("missing"),
                                          folder.Path("t/back\\slash"), folder.Path("t/link")},
                                         "\\");
    ASSERT_EQ(tree.groups.size(), 2U);
    EXPECT_EQ(Names(tree.groups[0]), (std::vector<std::string>{"t\\good", "t\\largest"}));
    // A link that is named itself is followed.
    EXPECT_EQ(Names(tree.groups[1]), (std::vector<std::string>{"link"}));
    std::vector<std::string> named;
    for (const LEFTOUT& entry : tree.leftOut) {
        named.push_back(fs::path(entry.strPath).filename().string());
    }
    EXPECT_EQ(named,
              (std::vector<std::string>{"back\\slash", "dangling", "link", "loop", "not\xFFutf8",
                                        "too large", "missing", "back\\slash"}));
}

} // namespace
} // namespace cli
