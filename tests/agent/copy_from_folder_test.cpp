// What a folder on a POSIX file system gives: links, pipes, any bytes as names, and very many
// files.
#include "agent_host.h"

#include <sys/stat.h>

namespace {

TEST(CopyFromDevice, WhatANameBrings) {
    CAgentHost host;
    host.WriteFile("d/b.txt", {1});
    host.WriteFile("d/sub/z", {2});
    host.WriteFile("d/sub/deep/er/y", {3});
    host.WriteFile("d/empty", {});
    host.WriteFile("d/.dak-1.part", {4});
    host.WriteFile("d/back\\slash", {5});
    host.WriteFile("d/bad\xff", {6});
    host.WriteFile("other", {7});
    std::filesystem::create_directory(host.Root() / "d/hollow");
    std::filesystem::create_symlink("../other", host.Root() / "d/inside");
    std::filesystem::create_symlink("../../outside.txt", host.Root() / "d/outside");
    std::filesystem::create_symlink(host.Base() / "outside.txt", host.Root() / "d/absolute");
    std::filesystem::create_directory_symlink("..", host.Root() / "d/round");
    std::filesystem::create_directory_symlink(host.Base() / "card", host.Root() / "d/away");
    ASSERT_EQ(::mkfifo((host.Root() / "d/fifo").c_str(), 0600), 0);
    const auto namesOf = [&](std::u16string_view strSource,
                             const std::vector<std::u16string>& names) {
        std::vector<std::u16string> came;
        for (const CFileRecord& file : host.Pull(strSource, names)) {
            came.push_back(file.strName);
        }
        return came;
    };
    using Names = std::vector<std::u16string>;
    const Names subtree = {u"sub\\deep\\er\\y", u"sub\\z"};
    EXPECT_EQ(namesOf(u"\\d", {u"b.txt", u"nothing", u"sub"}),
              (Names{u"b.txt", subtree[0], subtree[1]}));
    EXPECT_EQ(namesOf(u"d\\", {u"sub/./deep\\", u"hollow", u"empty"}),
              (Names{u"sub\\deep\\er\\y", u"empty"}));
    EXPECT_EQ(namesOf(u"\\", {u"d\\sub", u"Card"}), (Names{u"d\\sub\\deep\\er\\y", u"d\\sub\\z"}));
    EXPECT_EQ(namesOf(u"\\d", {u""}),
              (Names{u"b.txt", u"empty", u"inside", subtree[0], subtree[1]}));
    EXPECT_EQ(namesOf(u"\\d", {u"outside", u"absolute", u"away", u"fifo", u"..\\other", u"\\other",
                               u"C:\\other", u".dak-1.part", u"back\\slash"}),
              Names{});
    EXPECT_EQ(namesOf(u"\\..\\root", {u"other"}), Names{});
    EXPECT_EQ(namesOf(u"\\missing", {u"other"}), Names{});
    const std::vector<CFileRecord> inside = host.Pull(u"\\d", {u"inside"});
    ASSERT_EQ(inside.size(), 1U);
    EXPECT_EQ(inside[0].data, Bytes{7});
}

// More entries than one slice of listing looks at: handshakes are served in between.
TEST(CopyFromDevice, LargeFoldersAreListedInSlices) {
    CAgentHost host;
    for (int i = 0; i < 9000; ++i) {
        host.WriteFile("d/f" + std::to_string(100'000 + i), {});
    }
    const Bytes command = Command(8, host.PullPayload(u"\\", {u"d"}));
    host.Put(command);
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    EXPECT_FALSE(host.Core().HasBytes());
    EXPECT_TRUE(host.Handshake());
    host.Put(command);
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    std::uint64_t qwNowMs = 0;
    while (const std::optional<std::uint64_t> qwDueMs = host.Core().NextDueMs()) {
        host.Core().SetTime(qwNowMs = *qwDueMs);
    }
    EXPECT_LE(qwNowMs, 10U);
    const std::vector<CFileRecord> files = CAgentHost::Parse(host.TakeStream());
    ASSERT_EQ(files.size(), 9000U);
    EXPECT_EQ(files[8999].strName, u"d\\f108999");
}

} // namespace
