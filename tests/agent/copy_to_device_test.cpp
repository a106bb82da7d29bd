#include "agent_host.h"

#include <csignal>
#include <functional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace {

const Bytes s_old = {'o', 'l', 'd'};

// A stream of exactly nPackages packages, one file in it.
CFileRecord FileOfPackages(std::size_t nPackages) {
    const std::size_t dwHead = 4 + 24 + 2 * 6;
    return {u"a.txt", Content((nPackages - 1) * DAK_DATA_SIZE + 100 - dwHead)};
}

// Opens a push and sends its first nTo packages, taking the confirmation of each window but the
// last, which may be short.
void OpenAndSend(CAgentHost& host, const std::vector<Bytes>& packages, std::size_t nTo) {
    ASSERT_TRUE(host.OpenPush());
    for (std::size_t i = 0; i < nTo; ++i) {
        host.Put(packages[i]);
        if (i % 50 == 0) {
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS) << "package " << i + 1;
        }
    }
}

// Sends packages [nFrom, nTo) and expects silence up to the last of them.
void SendSilently(CAgentHost& host, const std::vector<Bytes>& packages, std::size_t nFrom,
                  std::size_t nTo) {
    for (std::size_t i = nFrom; i < nTo; ++i) {
        host.Put(packages[i]);
        if (i + 1 < nTo) {
            ASSERT_FALSE(host.Core().HasBytes()) << "after package " << i + 1;
        }
    }
}

Bytes Resent(Bytes package) {
    package.resize(DAK_PACKAGE_SIZE, 0xEE); // what lay in the host's slot
    return package;
}

TEST(CopyToDevice, AnswersAtTheEndsOfWindowsAndNowhereElse) {
    for (const std::size_t nPackages :
         std::initializer_list<std::size_t>{1, 2, 50, 51, 52, 100, 101, 102}) {
        CAgentHost host;
        const CFileRecord file = FileOfPackages(nPackages);
        const std::vector<Bytes> packages = Packages(Stream({file}));
        ASSERT_EQ(packages.size(), nPackages);
        ASSERT_TRUE(host.OpenPush());
        EXPECT_EQ(host.SendAll(packages), 1) << nPackages;
        EXPECT_EQ(host.ReadFile("d/a.txt"), file.data);
    }
}

TEST(CopyToDevice, SetsTimes) {
    CAgentHost host;
    const CFileRecord file{u"a.txt", {1}};
    ASSERT_EQ(host.Push({file}), 1);
    const std::string strPath = (host.Root() / "d/a.txt").string();
    struct stat status {};
    ASSERT_EQ(::stat(strPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1'555'526'400);
    EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'700);
    std::uint8_t bytes[8] = {};
    if (::getxattr(strPath.c_str(), "user.dak.creation_time", bytes, 8) == 8) {
        const std::uint64_t ft = DakGetU32(bytes) | (std::uint64_t{DakGetU32(bytes + 4)} << 32);
        EXPECT_EQ(ft, file.ftCreation);
        const std::vector<CFileRecord> back = host.Pull(u"\\d", {u"a.txt"});
        ASSERT_EQ(back.size(), 1U);
        EXPECT_EQ(back[0].ftCreation, file.ftCreation);
        EXPECT_EQ(back[0].ftLastWrite, file.ftLastWrite);
    }
}

// A filler moves every byte of a record over the end of the first package, and over the end of the
// first window of fifty.
TEST(CopyToDevice, RecordsCutAtEveryByte) {
    const CFileRecord file{u"\u00e4\U0001F600.b", {7, 8, 9}};
    const std::size_t dwRecord = Record(file).size();
    for (const std::size_t nBefore : std::initializer_list<std::size_t>{1, 51}) {
        for (std::size_t dwCut = 0; dwCut <= dwRecord; ++dwCut) {
            CAgentHost host;
            const std::size_t dwFiller = nBefore * DAK_DATA_SIZE - 4 - 28 - dwCut;
            const std::vector<CFileRecord> files = {{u"f", Content(dwFiller)}, file, {u"z", {1}}};
            const std::vector<Bytes> packages = Packages(Stream(files));
            ASSERT_TRUE(host.OpenPush());
            ASSERT_EQ(host.SendAll(packages), 1) << dwCut;
            EXPECT_EQ(host.ReadFile("d/\u00e4\U0001F600.b"), file.data) << dwCut;
            EXPECT_EQ(host.ReadFile("d/z"), Bytes{1}) << dwCut;
        }
    }
}

TEST(CopyToDevice, BadPackageMeansTheWholeWindowAgain) {
    struct CDamage {
        const char* lpszWhat;
        void (*lpDo)(Bytes& package);
    };
    const CDamage damages[] = {
        {"a byte of the data", [](Bytes& p) { p[p.size() / 2] ^= 1; }},
        {"the checksum", [](Bytes& p) { p[9] ^= 0x80; }},
        {"the function code", [](Bytes& p) { p[12] = 17; }},
        {"the length", [](Bytes& p) { p[4] ^= 1; }},
        {"a length beyond the package", [](Bytes& p) { p[7] = 0xFF; }},
        {"the command word", [](Bytes& p) { p[0] = 0x77; }},
        // At the end of a window this would be a good end of the stream: no checksum covers the
        // header.
        {"the word of the final package", [](Bytes& p) { p[0] = 0x21; }},
        {"its end is missing", [](Bytes& p) { p.resize(p.size() / 2); }},
        {"nearly all is missing", [](Bytes& p) { p.resize(3); }},
    };
    const CFileRecord file = FileOfPackages(95); // the last window is a short one
    const std::vector<Bytes> packages = Packages(Stream({file}));
    // The beginning, the middle and the end of windows of all kinds: each for the first damage, one
    // for every other.
    const struct {
        std::size_t nFrom, nBad, nTo;
    } places[] = {{0, 0, 1},    {1, 1, 51},   {1, 25, 51}, {1, 50, 51},
                  {51, 51, 95}, {51, 73, 95}, {51, 94, 95}};
    for (std::size_t i = 0; i < std::size(places) + std::size(damages) - 1; ++i) {
        const auto& [nFrom, nBad, nTo] = places[i % std::size(places)];
        const CDamage& damage = damages[i < std::size(places) ? 0 : i - std::size(places) + 1];
        SCOPED_TRACE(std::string(damage.lpszWhat) + ", package " + std::to_string(nBad + 1));
        CAgentHost host;
        std::vector<Bytes> sent = packages;
        damage.lpDo(sent[nBad]);
        // A host reads only where it waits for a verdict.
        OpenAndSend(host, sent, nTo - 1);
        host.Put(sent[nTo - 1]);
        ASSERT_EQ(host.TakeWord(), DAK_RETRANSMIT);
        // Once more bad, then good.
        for (const bool bGood : {false, true}) {
            for (std::size_t nNext = nFrom; nNext < nTo; ++nNext) {
                Bytes package = Resent(packages[nNext]);
                if (!bGood && nNext == nBad) {
                    package[600] ^= 1;
                    package[20] ^= 2;
                }
                host.Put(package);
            }
            ASSERT_EQ(host.TakeWord(), bGood ? DAK_SUCCESS : DAK_RETRANSMIT);
        }
        if (nTo == packages.size()) {
            ASSERT_EQ(host.TakeResult(8), 1);
        } else {
            ASSERT_EQ(host.SendAll(packages, nTo), 1);
        }
        EXPECT_EQ(host.ReadFile("d/a.txt"), file.data);
    }
}

// A package that comes twice or that is lost shifts the count; what is behind it must not be taken
// for what belongs there.
TEST(CopyToDevice, LostOrDoubledPackageNeverShiftsTheContents) {
    const CFileRecord file = FileOfPackages(60);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    for (const bool bLost : {false, true}) {
        CAgentHost host;
        host.WriteFile("d/a.txt", s_old);
        host.Core().SetTime(0);
        OpenAndSend(host, packages, 1);
        for (std::size_t i = 1; i < 51; ++i) {
            for (int nTimes = i != 20 ? 1 : bLost ? 0 : 2; nTimes > 0; --nTimes) {
                host.Put(packages[i]);
            }
        }
        if (bLost) {
            // Both wait now; the agent's patience ends first.
            ASSERT_TRUE(host.Take().empty());
            ASSERT_TRUE(host.Core().NextDueMs().has_value());
            host.Core().SetTime(*host.Core().NextDueMs());
        }
        ASSERT_EQ(host.TakeWord(), DAK_RETRANSMIT);
        SendSilently(host, packages, 1, 51);
        ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
        EXPECT_EQ(host.SendAll(packages, 51), 1);
        EXPECT_EQ(host.ReadFile("d/a.txt"), file.data);
    }
}

// The pipe loses a confirmation: both wait, the agent's patience ends first, and the host repeats a
// window that is in the file already.
TEST(CopyToDevice, LostConfirmationDoesNotDoubleItsWindow) {
    const CFileRecord file = FileOfPackages(120);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    for (const std::size_t nEnd : std::initializer_list<std::size_t>{1, 51, 101}) {
        CAgentHost host;
        OpenAndSend(host, packages, nEnd); // the last confirmation never arrives
        for (int nTimes = 0; nTimes < 2; ++nTimes) {
            for (std::uint64_t i = 0; i < 3; ++i) {
                host.Core().SetTime(*host.Core().NextDueMs());
            }
            ASSERT_EQ(host.TakeWord(), DAK_RETRANSMIT);
            SendSilently(host, packages, nEnd == 1 ? 0 : nEnd - 50, nEnd);
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
        }
        EXPECT_EQ(host.SendAll(packages, nEnd), 1);
        EXPECT_EQ(host.ReadFile("d/a.txt"), file.data) << nEnd;
    }
}

TEST(CopyToDevice, SlowHostIsNotHurried) {
    CAgentHost host;
    const CFileRecord file = FileOfPackages(60);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    ASSERT_TRUE(host.OpenPush());
    std::uint64_t qwNowMs = 0;
    for (std::size_t i = 0; i < packages.size(); ++i) {
        for (int nPause = 0; nPause < 3; ++nPause) { // ten seconds from package to package
            host.Core().SetTime(qwNowMs += 5000);
        }
        host.Put(packages[i]);
        if (i % 50 == 0) {
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS) << i;
        }
    }
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    EXPECT_EQ(host.TakeResult(8), 1);
    EXPECT_EQ(host.ReadFile("d/a.txt"), file.data);
}

// How many abort packages a host sends when nSent data packages have gone out.
std::size_t AbortsAfter(std::size_t nSent) {
    std::size_t nAborts = 0;
    do {
        ++nAborts;
    } while ((nSent + 1 + nAborts) % 50 != 2);
    return nAborts;
}

TEST(CopyToDevice, AbortEndsTheStreamWhereTheWindowWouldHaveEnded) {
    const CFileRecord file = FileOfPackages(120);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    for (const std::size_t nSent :
         std::initializer_list<std::size_t>{0, 1, 2, 49, 50, 51, 52, 101, 110}) {
        SCOPED_TRACE(nSent);
        CAgentHost host;
        host.WriteFile("d/a.txt", s_old);
        const std::vector<std::string> before = host.Tree();
        OpenAndSend(host, packages, nSent);
        const std::size_t nAborts = AbortsAfter(nSent);
        for (std::size_t i = 0; i < nAborts; ++i) {
            ASSERT_FALSE(host.Core().HasBytes()) << "before abort " << i + 1;
            host.Put(AbortPackage());
        }
        for (std::size_t i = 0; i < nAborts; ++i) {
            host.Put(AbortPackage()); // a host that stops in a record sends the run again
        }
        EXPECT_EQ(host.Take(8), Control(DAK_ABORT));
        const Bytes reply = host.Take(14);
        ASSERT_EQ(reply.size(), 14U);
        EXPECT_EQ(DakGetU32(reply.data() + 10), 0U);
        EXPECT_TRUE(host.Take().empty());
        EXPECT_EQ(host.ReadFile("d/a.txt"), s_old);
        EXPECT_EQ(host.Tree(), before);
        EXPECT_TRUE(host.Handshake());
        EXPECT_EQ(host.Push({file}), 1);
    }
}

TEST(CopyToDevice, AbortInTheMiddleOfAResend) {
    const CFileRecord file = FileOfPackages(60);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    CAgentHost host;
    host.WriteFile("d/a.txt", s_old);
    std::vector<Bytes> sent = packages;
    sent[55][100] ^= 1;
    OpenAndSend(host, sent, sent.size());
    ASSERT_EQ(host.TakeWord(), DAK_RETRANSMIT);
    // The pass has nine packages as the first had, and the final one is among those left out.
    for (std::size_t i = 51; i < 54; ++i) {
        host.Put(Resent(packages[i]));
    }
    for (std::size_t i = 54; i < 60; ++i) {
        ASSERT_FALSE(host.Core().HasBytes());
        host.Put(AbortPackage());
    }
    EXPECT_EQ(host.Take(), Control(DAK_ABORT));
    EXPECT_EQ(host.TakeResult(8), 0);
    EXPECT_EQ(host.ReadFile("d/a.txt"), s_old);
}

TEST(CopyToDevice, WhatIsCutShortLeavesTheOldFile) {
    const CFileRecord file = FileOfPackages(60);
    const std::vector<Bytes> packages = Packages(Stream({file}));
    const std::function<void(CAgentHost&)> cuts[] = {
        [](CAgentHost& host) { EXPECT_TRUE(host.Handshake(DAK_DISCONNECT)); },
        [](CAgentHost& host) { EXPECT_TRUE(host.Handshake(DAK_CONNECT)); },
        [](CAgentHost& host) { host.Core().HostGone(); },
    };
    for (const auto& cut : cuts) {
        CAgentHost host;
        host.WriteFile("d/a.txt", s_old);
        const std::vector<std::string> before = host.Tree();
        OpenAndSend(host, packages, 55);
        EXPECT_NE(host.Tree(), before) << "a part file is in work";
        cut(host);
        EXPECT_EQ(host.Tree(), before);
        EXPECT_EQ(host.ReadFile("d/a.txt"), s_old);
        EXPECT_EQ(host.Push({file}), 1);
        EXPECT_EQ(host.Tree(), before);
    }
}

TEST(CopyToDevice, ReplacesAndKeepsPermissions) {
    CAgentHost host;
    host.WriteFile("d/a.txt", s_old);
    std::filesystem::permissions(host.Root() / "d/a.txt", std::filesystem::perms(0640));
    const CFileRecord file{u"a.txt", {1, 2}};
    EXPECT_EQ(host.Push({file, {u"x\\y/z.txt", {3}}}, u"\\d\\"), 1);
    EXPECT_EQ(host.ReadFile("d/a.txt"), file.data);
    EXPECT_EQ(std::filesystem::status(host.Root() / "d/a.txt").permissions(),
              std::filesystem::perms(0640));
    EXPECT_EQ(host.ReadFile("d/x/y/z.txt"), Bytes{3});
    EXPECT_EQ(host.Push({file}, u"new\\folder"), 1);
    EXPECT_EQ(host.ReadFile("new/folder/a.txt"), file.data);
    EXPECT_EQ(host.Push({file}, u"\\Card"), 1);
    EXPECT_TRUE(std::filesystem::exists(host.Base() / "card/a.txt"));
}

TEST(CopyToDevice, RefusedPathsMakeNothing) {
    std::u16string deep; // a name too long for a record, of components that would all do
    while (deep.size() < DAK_MAX_NAME) {
        deep += u"n\\";
    }
    deep += u"n";
    const std::u16string targets[] = {
        u"..\\a",
        u"x\\..\\..\\a",
        u"\\a",
        u"/a",
        u"C:\\a",
        u"c:a",
        u"",
        u".",
        u"sub",
        u"ro.txt",
        u"ro.txt\\below",
        u"link\\a",
        u".dak-00.part",
        u"x\\.dak-00.journal",
        std::u16string(1, 0xD800),
        std::u16string(300, u'n'),
        std::u16string(259, u'n'), // longer than the file system allows
        deep,
    };
    CAgentHost host;
    host.WriteFile("d/ro.txt", s_old);
    std::filesystem::permissions(host.Root() / "d/ro.txt", std::filesystem::perms(0444));
    std::filesystem::create_directory(host.Root() / "d/sub");
    std::filesystem::create_directory_symlink(host.Base(), host.Root() / "d/link");
    std::filesystem::create_directory(host.Root() / "locked");
    std::filesystem::permissions(host.Root() / "locked", std::filesystem::perms(0555));
    const std::vector<std::string> before = host.Tree();
    for (const std::u16string& strName : targets) {
        SCOPED_TRACE(std::string(strName.begin(), strName.end()).substr(0, 40));
        EXPECT_EQ(host.Push({{strName, {1}}}), -2);
        EXPECT_EQ(host.Tree(), before);
    }
    EXPECT_EQ(host.Push({{u"", {1}}}, u"\\new"), -2);
    EXPECT_EQ(host.Push({{u"a", {1}}}, u"\\..\\"), -2);
    EXPECT_EQ(host.Push({{u"a", {1}}}, u"\\d\\link"), -2);
    EXPECT_EQ(host.Push({{u"a", {1}}}, u"\\locked"), -2);
    EXPECT_EQ(host.Push({{u"Card", {1}}}, u"\\"), -2);
    EXPECT_EQ(host.Tree(), before);
    EXPECT_EQ(host.ReadFile("d/ro.txt"), s_old);
}

// What follows a refused file is received, acknowledged and dropped; what came before it stays.
TEST(CopyToDevice, NegativeResultGoesOnReceiving) {
    CAgentHost host;
    const std::vector<CFileRecord> files = {
        {u"first", {1}}, {u"..\\bad", Content(700'000)}, {u"third", {3}}};
    EXPECT_EQ(host.Push(files), -2);
    EXPECT_EQ(host.ReadFile("d/first"), Bytes{1});
    EXPECT_FALSE(host.ReadFile("d/third"));
}

TEST(CopyToDevice, StreamsThatAreNotWhatTheyAnnounce) {
    struct CCase {
        const char* lpszWhat;
        Bytes stream;
        std::int32_t nResult;
    };
    Bytes tooMuch = Stream({{u"a", {1}}});
    tooMuch.push_back(0);
    Bytes huge;
    AppendU32(huge, 1);
    Append(huge, Record({u"a", {1}}, 1));
    Bytes cut = Stream({{u"a", {1}}, {u"b", {2, 3}}});
    cut.pop_back();
    Bytes cutHead = Stream({{u"a", {1}}}, 1);
    cutHead.push_back(0);
    const CCase cases[] = {
        {"fewer records", Stream({{u"a", {1}}}, 2), 1},
        {"none of them", Stream({}, 3), 1},
        {"nothing at all", {}, -2},
        {"a record cut in its contents", cut, -2},
        {"a record cut in its head", cutHead, -2},
        {"more than announced", tooMuch, -2},
        {"4 GiB and more", huge, -2},
    };
    for (const CCase& test : cases) {
        SCOPED_TRACE(test.lpszWhat);
        CAgentHost host;
        ASSERT_TRUE(host.OpenPush());
        EXPECT_EQ(host.SendAll(Packages(test.stream)), test.nResult);
        EXPECT_FALSE(host.ReadFile("d/b"));
        const bool bKept = test.stream.size() > 30 && test.stream != huge;
        EXPECT_EQ(host.ReadFile("d/a").has_value(), bKept);
    }
}

TEST(CopyToDevice, QuotaAndFullDisk) {
    CAgentHost host(1000);
    EXPECT_EQ(host.Push({{u"a", Content(600)}}), 1);
    EXPECT_EQ(host.Push({{u"b", Content(401)}}), -1);
    EXPECT_EQ(host.Push({{u"b", Content(400)}}), 1);
    EXPECT_EQ(host.Push({{u"c", Content(1)}}), -1);
    EXPECT_EQ(host.Push({{u"a", Content(0)}}), 1); // gives its old size back
    EXPECT_EQ(host.Plain(2, Text(u"\\d\\b")), 1);
    EXPECT_EQ(host.Push({{u"c", Content(1000)}}), 1);
    host.Restart(1000);
    EXPECT_EQ(host.Push({{u"c", Content(1)}}), -1) << "what is there at the start counts";

    // The limit that the system sets on a file stands for a disk that runs full in the middle.
    host.Restart();
    const auto lpOldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{300'000, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::vector<std::string> before = host.Tree();
    const std::optional<std::int32_t> nResult = host.Push({{u"c", Content(2'000'000)}});
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, lpOldHandler);
    EXPECT_EQ(nResult, -1);
    EXPECT_EQ(host.Tree(), before);
    EXPECT_EQ(host.ReadFile("d/c")->size(), 1000U);
}

} // namespace
