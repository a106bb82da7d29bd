// Copies and moves on the device, against real folders.
#include "agent_host.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

Bytes CopyFields(std::u16string_view strSource, std::u16string_view strTarget,
                 std::uint32_t bFailIfExists) {
    Bytes payload = Text(strSource);
    AppendText(payload, strTarget);
    AppendU32(payload, bFailIfExists);
    return payload;
}

// Time passes until the agent has nothing left to do.
void Settle(CAgentHost& host) {
    while (const std::optional<std::uint64_t> qwDueMs = host.Core().NextDueMs()) {
        host.Core().SetTime(*qwDueMs);
    }
}

std::optional<std::int32_t> Work(CAgentHost& host, std::uint16_t codeFunc, const Bytes& payload) {
    host.Put(Command(codeFunc, payload));
    if (host.TakeWord() != DAK_SUCCESS) {
        return std::nullopt;
    }
    Settle(host);
    return host.TakeResult(codeFunc);
}

std::optional<std::int32_t> Copy(CAgentHost& host, std::u16string_view strSource,
                                 std::u16string_view strTarget, std::uint32_t bFailIfExists = 0) {
    return Work(host, 20, CopyFields(strSource, strTarget, bFailIfExists));
}

std::optional<std::int32_t> Move(CAgentHost& host, std::u16string_view strSource,
                                 std::u16string_view strTarget) {
    Bytes payload = Text(strSource);
    AppendText(payload, strTarget);
    return Work(host, 1, payload);
}

std::vector<std::string> Below(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        names.push_back(entry.path().lexically_relative(folder).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A folder with folders, an empty one too, links, a read-only file, and a file of some slices.
std::vector<std::string> MakeTree(CAgentHost& host, const std::string& strName) {
    host.WriteFile(strName + "/a", Content(10));
    host.WriteFile(strName + "/sub/large", Content(3'000'000));
    host.WriteFile(strName + "/sub/deep/ro", Content(7));
    host.WriteFile(strName + "/empty/x", {});
    const fs::path root = host.Root() / strName;
    fs::remove(root / "empty/x");
    fs::create_symlink("sub/large", root / "link");
    fs::create_directory_symlink("..", root / "round");
    fs::permissions(root / "sub/deep/ro", fs::perms(0444));
    fs::permissions(root / "sub/deep", fs::perms(0750));
    fs::last_write_time(root / "a", fs::file_time_type(std::chrono::seconds(12345)));
    fs::last_write_time(root / "sub", fs::file_time_type(std::chrono::seconds(54321)));
    return Below(root);
}

void ExpectTree(CAgentHost& host, const std::string& strName,
                const std::vector<std::string>& names) {
    const fs::path root = host.Root() / strName;
    EXPECT_EQ(Below(root), names);
    EXPECT_EQ(host.ReadFile(strName + "/sub/large"), Content(3'000'000));
    EXPECT_EQ(fs::read_symlink(root / "link"), "sub/large");
    EXPECT_EQ(fs::status(root / "sub/deep/ro").permissions(), fs::perms(0444));
    EXPECT_EQ(fs::status(root / "sub/deep").permissions(), fs::perms(0750));
    EXPECT_EQ(fs::last_write_time(root / "a"), fs::file_time_type(std::chrono::seconds(12345)));
    EXPECT_EQ(fs::last_write_time(root / "sub"), fs::file_time_type(std::chrono::seconds(54321)));
}

void ExpectNothingOwn(CAgentHost& host) {
    for (const std::string& strName : host.Tree()) {
        EXPECT_EQ(strName.find(".dak-"), std::string::npos) << strName;
    }
}

TEST(CopyMove, WhatMayTakeWhosePlace) {
    CAgentHost host;
    host.WriteFile("d/f", {1});
    host.WriteFile("d/g", {2});
    host.WriteFile("d/ro", {3});
    host.WriteFile("d/sub/x", {4});
    host.WriteFile("shut/y", {5});
    fs::permissions(host.Root() / "d/ro", fs::perms(0444));
    fs::permissions(host.Root() / "shut", fs::perms(0555));
    fs::create_symlink("d/f", host.Root() / "link");
    fs::create_directory_symlink("d", host.Root() / "same");
    fs::create_symlink(host.Base() / "outside.txt", host.Root() / "out");
    fs::create_directory_symlink(host.Base(), host.Root() / "up");
    ASSERT_EQ(::mkfifo((host.Root() / "fifo").c_str(), 0600), 0);
    const std::vector<std::string> before = host.Tree();

    struct CCase {
        const char16_t* lpszSource;
        const char16_t* lpszTarget;
    };
    // By copy and by move, and nothing changes.
    const CCase refused[] = {
        {u"\\none", u"\\new"},
        {u"\\d\\f", u"\\none\\new"},
        {u"\\d\\f", u"\\d\\sub"},
        {u"\\d\\sub", u"\\d\\f"},
        {u"\\d", u"\\d\\new"},
        {u"\\d", u"\\d\\sub\\new"},
        {u"\\d", u"\\same\\sub\\new"},
        {u"\\d\\sub", u"\\d"},
        {u"\\d\\sub", u"\\same"},
        {u"\\d", u"\\d"},
        {u"\\d\\f", u"\\d\\f"},
        {u"\\d\\f", u"\\same\\f"},
        {u"\\d\\f", u"\\d\\ro"},
        {u"\\d\\f", u"\\shut\\new"},
        {u"\\d\\f", u"\\"},
        {u"\\d", u"\\Card"},
        {u"\\", u"\\new"},
        {u"\\d\\f", u"\\..\\new"},
        {u"\\up\\outside.txt", u"\\new"},
        {u"\\d\\f", u"\\up\\new"},
        {u"\\..\\outside.txt", u"\\new"},
        {u"\\d\\f", u"\\d\\.dak-x"},
        {u"\\fifo", u"\\new"},
        {u"C:\\d\\f", u"\\new"},
        {u"\\d\\f\\", u"\\shut\\y\\z"},
    };
    for (const CCase& c : refused) {
        const std::u16string strCase = std::u16string(c.lpszSource) + u" " + c.lpszTarget;
        SCOPED_TRACE(std::string(strCase.begin(), strCase.end()));
        EXPECT_EQ(Copy(host, c.lpszSource, c.lpszTarget), 0);
        EXPECT_EQ(Move(host, c.lpszSource, c.lpszTarget), 0);
        ASSERT_EQ(host.Tree(), before);
    }
    EXPECT_EQ(host.Plain(2, Text(u"\\fifo")), 0);
    // A link that leads out cannot be opened, a copy of what it leads to would be the way out. A
    // storage can be copied, but not moved.
    EXPECT_EQ(Copy(host, u"\\out", u"\\new"), 0);
    EXPECT_EQ(Move(host, u"\\Card", u"\\new"), 0);
    EXPECT_EQ(Copy(host, u"\\Card", u"\\new"), 1);
    EXPECT_EQ(Copy(host, u"\\Card", u"\\Card\\new"), 0);

    for (const std::uint32_t bFailIfExists : {1U, 0x80000000U}) {
        EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\g", bFailIfExists), 0);
    }
    EXPECT_EQ(Move(host, u"\\d\\f", u"\\d\\g"), 0);
    EXPECT_EQ(host.ReadFile("d/g"), Bytes{2});
    fs::permissions(host.Root() / "d/g", fs::perms(0600));
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\g"), 1);
    EXPECT_EQ(host.ReadFile("d/g"), Bytes{1});
    EXPECT_EQ(fs::status(host.Root() / "d/g").permissions(), fs::perms(0600));
    EXPECT_EQ(Copy(host, u"\\link", u"\\d\\h", 1), 1);
    EXPECT_FALSE(fs::is_symlink(host.Root() / "d/h"));
    EXPECT_EQ(Move(host, u"/d/ro", u"\\Card\\ro"), 1); // what is in it stays as it is
    EXPECT_EQ(Move(host, u"\\out", u"\\d\\out"), 1);   // the link itself
    EXPECT_TRUE(fs::is_symlink(host.Root() / "d/out"));
    EXPECT_EQ(Move(host, u"\\d\\sub", u"\\Card\\sub"), 1);
    EXPECT_EQ(Below(host.Base() / "card"), (std::vector<std::string>{"ro", "sub", "sub/x"}));
    EXPECT_EQ(Below(host.Root() / "d"), (std::vector<std::string>{"f", "g", "h", "out"}));
    ExpectNothingOwn(host);
}

TEST(CopyMove, AFolderArrivesWholeAndTakesThePlaceOfAnother) {
    CAgentHost host;
    const std::vector<std::string> names = MakeTree(host, "t");
    host.WriteFile("t/.dak-foreign", {1});
    EXPECT_EQ(Copy(host, u"\\t", u"\\d\\new"), 1);
    ExpectTree(host, "d/new", names);
    host.WriteFile("old/more/than/this", {1});
    EXPECT_EQ(Copy(host, u"\\t", u"\\old", 1), 0);
    EXPECT_TRUE(host.ReadFile("old/more/than/this"));
    EXPECT_EQ(Copy(host, u"\\t", u"\\old"), 1);
    ExpectTree(host, "old", names);
    fs::remove(host.Root() / "t/.dak-foreign");
    ExpectTree(host, "t", names);
    ExpectNothingOwn(host);

    // What cannot be copied ends the whole copy.
    ASSERT_EQ(::mkfifo((host.Root() / "t/sub/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Copy(host, u"\\t", u"\\other"), 0);
    host.WriteFile("old/mine", {1});
    EXPECT_EQ(Copy(host, u"\\t", u"\\old"), 0);
    EXPECT_EQ(host.ReadFile("old/mine"), Bytes{1});
    // Nor does one take the place of a folder in which a storage happens to lie, which stays
    // where it is altogether.
    fs::create_directory(host.Root() / "old/card");
    fs::remove(host.Base() / "card");
    fs::create_directory_symlink(host.Root() / "old/card", host.Base() / "card");
    host.Restart();
    EXPECT_EQ(Copy(host, u"\\d", u"\\old"), 0);
    EXPECT_EQ(Move(host, u"\\old", u"\\d\\old"), 0);
    EXPECT_EQ(Move(host, u"\\old\\card", u"\\d\\card"), 0);
    EXPECT_EQ(host.Plain(2, Text(u"\\old\\card")), 0);
    EXPECT_TRUE(fs::exists(host.Root() / "old/card"));
    EXPECT_EQ(host.ReadFile("old/mine"), Bytes{1});
    EXPECT_FALSE(fs::exists(host.Root() / "other"));
    ExpectNothingOwn(host);
}

TEST(CopyMove, TheQuotaCountsWhatCopiesMakeAndGetsBackWhatIsTakenAway) {
    CAgentHost host;
    MakeTree(host, "t"); // 3,000,017 bytes, and 7 beside the root that do not count
    host.WriteFile("d/f", Content(1'000'000));
    host.Restart(7'900'000);
    EXPECT_EQ(Copy(host, u"\\t", u"\\one"), 1);
    // Full in the middle of a file of the tree, again and again: 899,966 bytes of room.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Copy(host, u"\\t", u"\\two"), 0);
        EXPECT_EQ(Copy(host, u"\\d\\f", u"\\g"), 0);
    }
    EXPECT_FALSE(fs::exists(host.Root() / "two"));
    ExpectNothingOwn(host);
    host.WriteFile("small/x", {1});
    EXPECT_EQ(Copy(host, u"\\small", u"\\one"), 1); // takes the place of three megabytes
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\g"), 1);
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\h"), 1);
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\h"), 1); // the old one counts until the new is there
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\i"), 1);
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\d\\j"), 0);
}

// At each moment of a copy: a handshake is served at once, the copy is given up, and its target is
// as it was.
TEST(CopyMove, AHandshakeEndsTheCopyAndLeavesTheOld) {
    CAgentHost host;
    MakeTree(host, "t");
    host.WriteFile("old/kept", {1});
    host.WriteFile("d/file", Content(2'500'000));
    host.WriteFile("d/old", {2});
    for (const bool bFolder : {true, false}) {
        const std::vector<std::string> before = host.Tree();
        std::uint64_t qwNowMs = 0;
        for (int nSlices = 0;; ++nSlices) {
            SCOPED_TRACE(nSlices);
            host.Put(Command(20, bFolder ? CopyFields(u"\\t", u"\\old", 0)
                                         : CopyFields(u"\\d\\file", u"\\d\\old", 0)));
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
            for (int i = 0; i < nSlices; ++i) {
                host.Core().SetTime(qwNowMs += 20);
            }
            if (host.Core().HasBytes()) {
                EXPECT_GE(nSlices, 3);
                break;
            }
            ASSERT_TRUE(host.Handshake());
            Settle(host);
            ASSERT_EQ(host.Tree(), before);
            ASSERT_EQ(host.ReadFile("d/old"), Bytes{2});
        }
        EXPECT_EQ(host.TakeResult(20), 1);
        Settle(host);
    }
    EXPECT_FALSE(fs::exists(host.Root() / "old/kept"));
    EXPECT_EQ(host.ReadFile("d/old"), Content(2'500'000));
    ExpectNothingOwn(host);
}

// What a killed agent leaves: a tree half built, and one half removed.
TEST(CopyMove, LeftoversOfKilledAgentsAreRemoved) {
    CAgentHost host;
    host.WriteFile("d/.dak-0123456789abcdef.part/sub/x", {1});
    host.WriteFile("d/kept", {1});
    host.WriteFile(".dak-0123456789abcdef.journal", {'d', 0});
    for (int i = 0; i < 3000; ++i) {
        host.WriteFile(".dak-0-7.trash/" + std::to_string(i % 40) + "/deep/" + std::to_string(i),
                       {1});
    }
    fs::permissions(host.Root() / ".dak-0-7.trash/3/deep", fs::perms(0));
    fs::create_directory_symlink(host.Base(), host.Root() / ".dak-0-7.trash/out");
    host.Restart();
    EXPECT_TRUE(host.Handshake()); // while it goes on
    Settle(host);
    EXPECT_EQ(host.Tree(),
              (std::vector<std::string>{"card", "outside.txt", "root", "root/d", "root/d/kept"}));
}

TEST(CopyMove, AcrossFileSystemsAMoveIsACopyThatIsWholeBeforeTheSourceGoes) {
    char szOther[] = "/dev/shm/dak-agent-test-XXXXXX";
    struct stat other {};
    struct stat own {};
    CAgentHost host;
    if (::mkdtemp(szOther) == nullptr || ::stat(szOther, &other) != 0 ||
        ::stat(host.Root().c_str(), &own) != 0 || other.st_dev == own.st_dev) {
        GTEST_SKIP() << "no second file system";
    }
    fs::remove(host.Base() / "card");
    fs::create_directory_symlink(szOther, host.Base() / "card");
    const std::vector<std::string> names = MakeTree(host, "t");
    host.WriteFile("d/f", Content(1'500'000));
    host.Restart(10'000'000);
    EXPECT_EQ(Copy(host, u"\\d\\f", u"\\Card\\f"), 1);
    EXPECT_EQ(Move(host, u"\\d\\f", u"\\Card\\f"), 0); // in the way
    EXPECT_EQ(Move(host, u"\\d\\f", u"\\Card\\g"), 1);
    EXPECT_EQ(Move(host, u"\\t", u"\\Card\\t"), 1);
    EXPECT_EQ(Below(host.Root()), std::vector<std::string>{"d"});
    EXPECT_EQ(Move(host, u"\\Card\\t\\link", u"\\d\\link"), 1);
    EXPECT_EQ(fs::read_symlink(host.Root() / "d/link"), "sub/large");
    EXPECT_EQ(Move(host, u"\\d\\link", u"\\Card\\t\\link"), 1);
    EXPECT_EQ(Move(host, u"\\Card\\t", u"\\back"), 1);
    ExpectTree(host, "back", names);
    EXPECT_EQ(host.ReadFile("../card/g"), Content(1'500'000));
    EXPECT_EQ(Below(szOther), (std::vector<std::string>{"f", "g"}));

    // Given up on the way, and refused on the way: the source is where it was.
    host.Put(Command(1, [] {
        Bytes payload = Text(u"\\back");
        AppendText(payload, u"\\Card\\back");
        return payload;
    }()));
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    for (int i = 1; i < 5; ++i) {
        host.Core().SetTime(*host.Core().NextDueMs());
    }
    ASSERT_TRUE(host.Handshake());
    Settle(host);
    ASSERT_EQ(::mkfifo((host.Root() / "back/sub/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Move(host, u"\\back", u"\\Card\\back"), 0);
    fs::remove(host.Root() / "back/sub/fifo");
    fs::last_write_time(host.Root() / "back/sub", fs::file_time_type(std::chrono::seconds(54321)));
    ExpectTree(host, "back", names);
    EXPECT_EQ(Below(szOther), (std::vector<std::string>{"f", "g"}));
    EXPECT_EQ(Copy(host, u"\\back", u"\\Card\\back"), 1); // the quota has not lost count
    fs::remove_all(szOther);
}

// A file system of its own, gone with the object.
class CMount {
  public:
    explicit CMount(const fs::path& at)
        : m_strAt(at.string()), m_bDone(::mount("none", at.c_str(), "tmpfs", 0, nullptr) == 0) {}
    ~CMount() {
        if (m_bDone) {
            ::umount(m_strAt.c_str());
        }
    }
    CMount(const CMount&) = delete;
    CMount& operator=(const CMount&) = delete;
    explicit operator bool() const { return m_bDone; }

    // The rest of the system does not see what is mounted from now on.
    static bool KeepToOneself() {
        return ::unshare(CLONE_NEWNS) == 0 &&
               ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }

  private:
    const std::string m_strAt;
    const bool m_bDone;
};

TEST(CopyMove, WhatIsMountedBelowTheRootGoesWholeOrNotAtAll) {
    if (!CMount::KeepToOneself()) {
        GTEST_SKIP() << "nothing can be mounted";
    }
    CAgentHost host;
    fs::create_directory(host.Root() / "m");
    const CMount mount(host.Root() / "m");
    ASSERT_TRUE(mount);
    const std::vector<std::string> names = MakeTree(host, "m/a");
    EXPECT_EQ(Move(host, u"\\m\\a", u"\\b"), 1);
    ExpectTree(host, "b", names);
    EXPECT_EQ(Below(host.Root() / "m"), std::vector<std::string>{}); // the trash is there as well
    EXPECT_EQ(Move(host, u"\\b", u"\\m\\a"), 1);
    fs::create_directory(host.Root() / "m/a/sub/inner");
    {
        const CMount inner(host.Root() / "m/a/sub/inner");
        ASSERT_TRUE(inner);
        host.WriteFile("m/a/sub/inner/x", {1});
        const std::vector<std::string> before = host.Tree();
        EXPECT_EQ(Move(host, u"\\m\\a", u"\\b"), 0);
        EXPECT_EQ(Move(host, u"\\m\\a\\sub\\inner", u"\\b"), 0);
        EXPECT_EQ(Move(host, u"\\m", u"\\b"), 0);
        EXPECT_EQ(host.Tree(), before);
        EXPECT_EQ(host.ReadFile("m/a/sub/inner/x"), Bytes{1});
    }
    // Written to behind its own copy: it stays, with what has been written.
    host.Put(Command(1, [] {
        Bytes payload = Text(u"\\m\\a");
        AppendText(payload, u"\\b");
        return payload;
    }()));
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    host.Core().SetTime(*host.Core().NextDueMs());
    host.WriteFile("m/a/late", {1});
    Settle(host);
    EXPECT_EQ(host.TakeResult(1), 0);
    Settle(host);
    EXPECT_EQ(host.ReadFile("m/a/late"), Bytes{1});
    EXPECT_FALSE(fs::exists(host.Root() / "b"));
    ExpectNothingOwn(host);
}

} // namespace
