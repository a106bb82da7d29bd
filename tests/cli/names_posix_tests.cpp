// Names and entries that a walk meets on this system alone.
#include "cli/host_tree.h"
#include "tests/support/temp_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace cli {
namespace {

namespace fs = std::filesystem;

TEST(HostNames, WhatCannotTravelIsNamedAndTheRestGoes) {
    const test::CTempFolder folder;
    for (const char* const lpszName :
         {"good", "back\\slash", "not\xFFutf8", "largest", "too large"}) {
        std::ofstream(folder.Path() + "/" + lpszName) << "1";
    }
    fs::resize_file(folder / "largest", 0xFFFFFFFF);
    fs::resize_file(folder / "too large", 0x100000000);
    fs::create_symlink("good", folder / "link");
    fs::create_symlink("..", folder / "loop");
    fs::create_symlink("nowhere", folder / "dangling");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const HOSTTREE tree =
        CollectForPush({folder.Path("."), folder.Path("missing"), folder.Path("link")}, "\\");
    std::string strTaken;
    for (const PUSHGROUP& group : tree.groups) {
        for (const HOSTENTRY& entry : group.entries) {
            strTaken += entry.strName + "; ";
        }
    }
    EXPECT_EQ(strTaken, "good; largest; link; "); // a link that is named itself is followed
    std::string strLeftOut;
    for (const LEFTOUT& entry : tree.leftOut) {
        strLeftOut += fs::path(entry.strPath).filename().string() + "; ";
    }
    EXPECT_EQ(strLeftOut,
              "back\\slash; dangling; link; loop; not\xFFutf8; pipe; too large; missing; ");
}

} // namespace
} // namespace cli
