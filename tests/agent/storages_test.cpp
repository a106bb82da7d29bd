// Free space, storages and formatting, with a core in front of real folders.
#include <array>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "tests/agent/agent_host.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t QUOTA = 10'000'000;

class CStorageHost : public CAgentHost {
  public:
    explicit CStorageHost(std::vector<agent::CStorageOption> more = {},
                          std::optional<std::uint64_t> qwQuota = QUOTA)
        : m_qwQuota(qwQuota) {
        onOptions = [this, more](agent::CDeviceOptions& options) {
            options.bAllowFormat = true;
            for (const agent::CStorageOption& storage : more) {
                fs::create_directories(Base() / storage.strFolder);
                options.storages.push_back(
                    {storage.strName, (Base() / storage.strFolder).string()});
            }
        };
        Restart(m_qwQuota);
    }

    void NewAgent() {
        m_qwNowMs = 0;
        Restart(m_qwQuota);
    }

    // A file below the folder of the test, the folders on the way made.
    void Lay(const std::string& strName, std::size_t dwSize = 1) const {
        fs::create_directories((Base() / strName).parent_path());
        std::ofstream(Base() / strName) << std::string(dwSize, 'x');
    }

    std::vector<std::string> TreeOf(const std::string& strFolder) const {
        std::vector<std::string> names;
        for (const std::string& strName : Tree()) {
            if (strName.starts_with(strFolder + "/")) {
                names.push_back(strName.substr(strFolder.size() + 1));
            }
        }
        return names;
    }

    std::optional<std::int32_t> Format(std::u16string_view strName) {
        return Plain(24, Text(strName));
    }

    // Response with fields behind the result; empty when there is none.
    Bytes Fields(std::uint16_t codeFunc, const Bytes& payload = {}) {
        Put(Command(codeFunc, payload));
        return TakeWord() == DAK_SUCCESS ? Take() : Bytes();
    }

    // Result and free bytes of a folder.
    std::pair<std::int32_t, std::uint64_t> FolderSpace(std::u16string_view strPath) {
        const Bytes reply = Fields(25, Text(strPath));
        EXPECT_EQ(reply.size(), 22u);
        if (reply.size() != 22) {
            return {-1, 0};
        }
        return {static_cast<std::int32_t>(DakGetU32(reply.data() + 10)),
                DakGetU32(reply.data() + 14) | (std::uint64_t{DakGetU32(reply.data() + 18)} << 32)};
    }

    // The agent works at the times that it asks for.
    bool Work(int nSlices = 100'000) {
        for (; nSlices > 0 && Core().NextDueMs(); --nSlices) {
            m_qwNowMs = std::max(m_qwNowMs, *Core().NextDueMs());
            Core().SetTime(m_qwNowMs);
        }
        return !Core().NextDueMs();
    }

  private:
    const std::optional<std::uint64_t> m_qwQuota;
    std::uint64_t m_qwNowMs = 0;
};

using Names = std::vector<std::string>;

TEST(Storages, SpaceIsWhatTheQuotaLeavesOfTheDisk) {
    CStorageHost host;
    host.Lay("root/d/a", 1'000'000);
    host.Lay("card/b", 500'000);
    fs::create_symlink(host.Base(), host.Root() / "out");
    host.NewAgent();
    constexpr std::uint64_t qwFree = QUOTA - 1'500'000;

    const Bytes device = host.Fields(6);
    ASSERT_EQ(device.size(), 22u);
    EXPECT_EQ(DakGetU32(device.data() + 10), 1u);
    EXPECT_EQ(DakGetU32(device.data() + 14), qwFree / 1024);
    EXPECT_EQ(DakGetU32(device.data() + 18), QUOTA / 1024);
    for (const char16_t* lpszPath : {u"", u"\\", u"\\d", u"/Card/"}) {
        EXPECT_EQ(host.FolderSpace(lpszPath), std::pair(1, qwFree));
    }
    for (const char16_t* lpszPath : {u"\\new", u"\\d\\a", u"\\d\\..", u"\\out", u"\\.dak-format"}) {
        EXPECT_EQ(host.FolderSpace(lpszPath), std::pair(0, std::uint64_t{0}));
    }
    EXPECT_TRUE(host.Fields(6, {0}).empty());
    EXPECT_TRUE(host.Fields(23, {0}).empty());
    EXPECT_TRUE(host.Fields(25, {0x61, 0}).empty());

    host.Restart();
    struct statvfs status {};
    ASSERT_EQ(::statvfs(host.Root().c_str(), &status), 0);
    EXPECT_EQ(DakGetU32(host.Fields(6).data() + 18),
              std::uint64_t{status.f_blocks} * status.f_frsize / 1024);
}

TEST(Storages, EachHasARecordAndTheRootComesFirst) {
    const std::string strLong(51, 'n');
    CStorageHost host({{strLong, "card"}});
    const Bytes reply = host.Fields(23);
    ASSERT_EQ(reply.size(), 18u + 3 * 120);
    EXPECT_EQ(DakGetU32(reply.data()), DAK_LAST_REPLY);
    EXPECT_EQ(DakGetU32(reply.data() + 4), 10u + 3 * 120);
    EXPECT_EQ(DakGetU32(reply.data() + 10), 1u);
    EXPECT_EQ(DakGetU32(reply.data() + 14), 3u);
    const std::string names[] = {"\\", "Card", strLong};
    for (std::size_t i = 0; i < 3; ++i) {
        Bytes record(120);
        for (std::size_t j = 0; j < names[i].size(); ++j) {
            record[2 * j] = static_cast<std::uint8_t>(names[i][j]);
        }
        DakPutU32(record.data() + 104, QUOTA / 1024);
        DakPutU32(record.data() + 108, QUOTA / 1024);
        DakPutU32(record.data() + 112, i == 0 ? 1 : 2);
        const auto itRecord = reply.begin() + 18 + static_cast<std::ptrdiff_t>(i) * 120;
        EXPECT_EQ(Bytes(itRecord, itRecord + 120), record) << names[i];
    }
    host.onOptions = [](agent::CDeviceOptions& options) {
        options.storages[0].strName = std::string(52, 'n');
    };
    EXPECT_THROW(host.Restart(), std::runtime_error);
}

TEST(Format, IsRefusedUnlessAllowedAndOfAStorage) {
    CStorageHost host({{"Twin", "card"}, {"Locked", "locked"}});
    host.Lay("root/d/a");
    host.Lay("card/b");
    host.Lay("locked/c");
    fs::permissions(host.Base() / "locked", fs::perms(0555));
    host.NewAgent();
    const Names before = host.Tree();
    for (const char16_t* lpszName : {u"", u".", u"\\.", u"\\\\", u"d", u"new", u"card", u"Card\\b",
                                     u"..", u"C:", u"\xD800", u"Card", u"Twin", u"Locked"}) {
        EXPECT_EQ(host.Format(lpszName), 0);
    }
    host.Put(Command(24, {0x61, 0}));
    EXPECT_EQ(host.TakeWord(), 0u);
    host.onOptions = nullptr;
    host.Restart();
    EXPECT_EQ(host.Format(u"Card"), 0);
    EXPECT_EQ(host.Format(u"\\"), 0);
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.Tree(), before);
}

// The same work whatever lies on the storage: nothing of it has been touched when the answer is
// there, none of it is seen, and its bytes come back in slices.
TEST(Format, EmptiesAtOnceAndRemovesInTheBackground) {
    CStorageHost host;
    constexpr std::size_t nFiles = 500;
    fs::create_directories(host.Base() / "card" / "many");
    for (std::size_t i = 0; i < nFiles; ++i) {
        std::ofstream(host.Base() / "card" / "many" / std::to_string(i)) << "hundred";
    }
    host.Lay("card/a", 1'000'000);
    host.Lay("card/dir/.hidden");
    fs::create_symlink(host.Base() / "outside.txt", host.Base() / "card" / "link");
    fs::create_symlink(host.Root() / "d", host.Base() / "card" / "dir" / "link");
    fs::create_hard_link(host.Base() / "outside.txt", host.Base() / "card" / "hard");
    host.Lay("root/d/a");
    fs::permissions(host.Base() / "card" / "a", fs::perms(0444));
    fs::permissions(host.Base() / "card" / "dir", fs::perms(0555));
    fs::permissions(host.Base() / "card", fs::perms(0750));
    host.NewAgent();
    const std::size_t nBefore = host.TreeOf("card").size();
    const std::uint64_t qwFreeBefore = host.FolderSpace(u"Card").second;

    EXPECT_EQ(host.Format(u"Card"), 1);
    EXPECT_EQ(host.TreeOf("card").size(), nBefore + 2);
    EXPECT_EQ(host.FolderSpace(u"Card"), std::pair(1, qwFreeBefore));
    EXPECT_EQ(host.FolderSpace(u"Card\\dir").first, 0);
    EXPECT_EQ(host.Plain(2, Text(u"Card\\a")), 0);
    EXPECT_TRUE(host.Pull(u"Card", {u""}).empty());
    // Names that are still in the way on the disk are free.
    EXPECT_EQ(host.Push({{u"a", Content(100)}, {u"dir\\b", Content(50)}}, u"Card"), 1);
    EXPECT_EQ(host.Plain(10, Text(u"Card\\link")), 1);

    // Removal goes on under an open exchange, and what the host writes stays where it is until the
    // exchange has ended.
    ASSERT_TRUE(host.OpenPush(u"Card"));
    const std::vector<Bytes> packages = Packages(Stream({{u"c", Content(100'000)}}));
    host.Put(packages[0]);
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    for (int i = 0; i < 2000; ++i) {
        host.Work(1);
    }
    EXPECT_LT(host.TreeOf("card").size(), 20u);
    EXPECT_EQ(host.SendAll(packages, 1), 1);
    EXPECT_TRUE(host.Work());

    EXPECT_EQ(host.TreeOf("card"), (Names{"a", "c", "dir", "dir/b", "link"}));
    EXPECT_EQ(fs::status(host.Base() / "card").permissions(), fs::perms(0750));
    EXPECT_EQ(host.TreeOf("root"), (Names{"d", "d/a"}));
    EXPECT_TRUE(fs::exists(host.Base() / "outside.txt"));
    // The file with another name elsewhere has not gone.
    EXPECT_EQ(host.FolderSpace(u"Card").second, QUOTA - 100'150 - 1 - 7);
    EXPECT_EQ(host.Pull(u"Card", {u""}).size(), 3u);
}

// Storages whose folders lie in the root's stay, with the folders on the way to them; so does the
// root in a storage around it.
TEST(Format, TouchesNoOtherStorage) {
    CStorageHost host({{"In", "root/In"}, {"Deep", "root/way/to/deep"}, {"Around", "."}});
    host.Lay("root/In/i");
    host.Lay("root/way/to/deep/d");
    host.Lay("root/way/to/other/o");
    host.Lay("root/way/w");
    host.Lay("root/x");
    host.Lay("card/b");
    host.Lay("root/.dak-0123.journal");
    host.NewAgent();
    EXPECT_EQ(host.Format(u"\\"), 1);
    EXPECT_EQ(host.Push({{u"new", Content(10)}}, u"\\"), 1);
    EXPECT_TRUE(host.Work());
    const Names rest = {"In", "In/i", "new", "way", "way/to", "way/to/deep", "way/to/deep/d"};
    EXPECT_EQ(host.TreeOf("root"), rest);
    EXPECT_EQ(host.Format(u"Around"), 1);
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("root"), rest);
    EXPECT_EQ(host.TreeOf("card"), Names{"b"});
    EXPECT_FALSE(fs::exists(host.Base() / "outside.txt"));
    // A new folder of the name of one that stays on the disk: both are kept.
    EXPECT_EQ(host.Format(u"/"), 1);
    EXPECT_EQ(host.Push({{u"way\\new", Content(10)}}, u"\\"), 1);
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.Pull(u"\\", {u"way"}).size(), 1u);
    EXPECT_EQ(host.Pull(u"Deep", {u"d"}).size(), 1u);
}

TEST(Format, IsTakenUpBehindAKilledAgent) {
    CStorageHost host;
    host.Lay("card/old/a");
    host.Lay("card/b", 1000);
    EXPECT_EQ(host.Format(u"Card"), 1);
    EXPECT_EQ(host.Push({{u"one", Content(10)}}, u"Card"), 1);
    EXPECT_EQ(host.Format(u"Card"), 1); // once more, before anything is removed
    EXPECT_TRUE(host.Pull(u"Card", {u""}).empty());
    EXPECT_EQ(host.Push({{u"b", Content(20)}}, u"Card"), 1);

    host.NewAgent();
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("card"), Names{"b"});
    EXPECT_EQ(host.FolderSpace(u"Card").second, QUOTA - 20);

    // With the host there no more than some are moved up, the others at the next start.
    std::vector<CFileRecord> many(1001);
    for (std::size_t i = 0; i < many.size(); ++i) {
        many[i].strName = u"n";
        many[i].strName += static_cast<char16_t>(0x4000 + i);
    }
    EXPECT_EQ(host.Format(u"Card"), 1);
    EXPECT_EQ(host.Push(many, u"Card"), 1);
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("card").size(), many.size() + 2);
    host.NewAgent();
    EXPECT_EQ(host.TreeOf("card").size(), many.size());
    EXPECT_EQ(host.Format(u"Card"), 1);
    EXPECT_EQ(host.Push({{u"b", Content(20)}}, u"Card"), 1);
    EXPECT_TRUE(host.Work());

    // Killed ahead of the fresh folder, and while its contents were moved up.
    fs::create_directory(host.Base() / "card" / ".dak-format");
    host.NewAgent();
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("card"), Names{"b"});
    host.Lay("card/.dak-formatted/.dak-3/c/d");
    host.NewAgent();
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("card"), (Names{"b", "c", "c/d"}));

    // What no agent has made is no format that was begun.
    host.Lay("card/.dak-format/1/x");
    host.NewAgent();
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.Pull(u"Card", {u""}).size(), 2u);
}

// Deeper than descriptors are spent on.
TEST(Format, RemovesDeepTrees) {
    CStorageHost host;
    int fd = ::open((host.Base() / "card").c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(::mkdirat(fd, "d", 0777), 0);
        const int fdNext = ::openat(fd, "d", O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = fdNext;
    }
    ::close(fd);
    EXPECT_EQ(host.Format(u"Card"), 1);
    EXPECT_TRUE(host.Work());
    EXPECT_EQ(host.TreeOf("card"), Names{});
}

// Formats, copies, deletions, some work in the background and kills in any order: what the host
// sees is what a model says, and at last it is all that lies on the disk.
TEST(Format, AgreesWithAModelUnderRandomWork) {
    for (std::uint32_t dwSeed = 1; dwSeed <= 25; ++dwSeed) {
        SCOPED_TRACE("seed " + std::to_string(dwSeed));
        CStorageHost host(std::vector<agent::CStorageOption>{{"In", "root/In"}});
        fs::remove(host.Root() / "d");
        std::map<std::u16string, std::map<std::u16string, std::size_t>> model;
        std::mt19937 random(dwSeed);
        for (int nStep = 0; nStep < 60; ++nStep) {
            const std::u16string strFolder =
                std::array<std::u16string, 3>{u"\\", u"Card", u"\\In"}[random() % 3];
            const std::u16string strName(1, static_cast<char16_t>(u'p' + random() % 5));
            auto& files = model[strFolder];
            switch (random() % 8) {
            case 0:
                ASSERT_EQ(host.Format(strFolder), 1);
                files.clear();
                break;
            case 1:
                host.NewAgent();
                break;
            case 2:
                ASSERT_EQ(host.Plain(2, Text(strFolder + u"\\" + strName)),
                          static_cast<int>(files.erase(strName)));
                break;
            case 3:
                host.Work(static_cast<int>(random() % 3));
                break;
            default:
                files[strName] = random() % 3000;
                ASSERT_EQ(host.Push({{strName, Content(files[strName])}}, strFolder), 1);
            }
            for (const auto& [strWhere, wanted] : model) {
                std::map<std::u16string, std::size_t> seen;
                for (const CFileRecord& file :
                     host.Pull(strWhere, {u"p", u"q", u"r", u"s", u"t"})) {
                    seen[file.strName] = file.data.size();
                }
                ASSERT_EQ(seen, wanted) << "step " << nStep;
            }
        }
        EXPECT_TRUE(host.Work());
        EXPECT_EQ(host.TreeOf("card").size(), model[u"Card"].size());
        EXPECT_EQ(host.TreeOf("root").size(), model[u"\\"].size() + model[u"\\In"].size() + 1);
    }
}

} // namespace
