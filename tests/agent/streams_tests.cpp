// The streams of copies, and of reads and writes by handle, against the core on a device in memory.
#include "tests/agent/agent_host.h"
#include "tests/support/memory_device.h"

namespace test {
namespace {

struct CWorld {
    CMemoryDevice memory;
    CAgentHost host{ServedFrom(memory.strRoot)};

    Bytes File(const std::string& strPath) const {
        const TREE files = memory.Files();
        const auto it = files.find(strPath);
        return it == files.end() ? Bytes{0xAB, 0xCD} : Bytes(it->second.begin(), it->second.end());
    }
    CMemoryEntry& Write(const std::string& strPath, const Bytes& bytes) {
        return memory.Write(strPath, std::string(bytes.begin(), bytes.end()));
    }
};

const Bytes DONE = Response(DAK_FUNC_TRANSMIT_FILES, 1);

// A file that fills so many packages of its stream, but for what the last one lacks.
CFileRecord FileOf(std::size_t nPackages, std::size_t dwLast, std::size_t dwAhead) {
    return {.strName = u"a.txt",
            .bytes = Pattern((nPackages - 1) * DAK_DATA_SIZE + dwLast - dwAhead - 24 - 12)};
}

std::vector<Bytes> PushOf(const CFileRecord& file) {
    return CAgentHost::PushPackages(CAgentHost::PushStream({file}));
}

TEST(CopyToDevice, AnswersAtTheEndsOfWindowsAndNowhereElse) {
    for (const auto& [nPackages, lpszCame] :
         std::initializer_list<std::pair<std::size_t, const char*>>{{1, "1S"},
                                                                    {2, "1S 2S"},
                                                                    {50, "1S 50S"},
                                                                    {51, "1S 51S"},
                                                                    {52, "1S 51S 52S"},
                                                                    {101, "1S 51S 101S"},
                                                                    {102, "1S 51S 101S 102S"}}) {
        CWorld world;
        const CFileRecord file = FileOf(nPackages, 100, 4);
        ASSERT_TRUE(world.host.BeginsPush());
        EXPECT_EQ(world.host.Send(PushOf(file)), lpszCame);
        EXPECT_EQ(world.host.Take(), DONE);
        EXPECT_EQ(world.File("d/a.txt"), file.bytes);
        EXPECT_EQ(world.memory.entries.at("d/a.txt")->info.times.ftLastWrite, file.ftLastWrite);
        EXPECT_EQ(world.memory.entries.at("d/a.txt")->info.times.ftCreation, file.ftCreation);
    }
}

// The parser gets whole windows, the first of which is one package: every byte of a record meets
// its end.
TEST(CopyToDevice, RecordsCutAtEveryByte) {
    const CFileRecord file{.strName = u"\u00e4\U0001F600.b", .bytes = {7, 8, 9}};
    for (std::size_t dwCut = 0; dwCut <= Record(file).size(); ++dwCut) {
        CWorld world;
        const CFileRecord filler{.strName = u"f", .bytes = Pattern(DAK_DATA_SIZE - 4 - 28 - dwCut)};
        EXPECT_EQ(world.host.Push({filler, file, {.strName = u"z", .bytes = {1}}}), DONE) << dwCut;
        EXPECT_EQ(world.File("d/\u00e4\U0001F600.b"), file.bytes) << dwCut;
        EXPECT_EQ(world.File("d/z"), Bytes{1}) << dwCut;
    }
}

TEST(CopyToDevice, BadPackageMeansTheWholeWindowAgain) {
    const struct {
        const char* lpszWhat;
        void (*lpDo)(Bytes& package);
    } damages[] = {
        {"a byte of the data", [](Bytes& p) { p[p.size() / 2] ^= 1; }},
        {"the checksum", [](Bytes& p) { p[9] ^= 0x80; }},
        {"the function code", [](Bytes& p) { p[12] = 17; }},
        {"the length", [](Bytes& p) { p[4] ^= 1; }},
        {"a length beyond the package", [](Bytes& p) { p[7] = 0xFF; }},
        {"the command word", [](Bytes& p) { p[0] = 0x77; }},
        {"its end is missing", [](Bytes& p) { p.resize(p.size() / 2); }},
        {"nearly all is missing", [](Bytes& p) { p.resize(3); }},
        // No checksum covers it: where the window ends, it would be a good end of the stream.
        {"the word of the final package", [](Bytes& p) { p[0] = 0x21; }},
    };
    const CFileRecord file = FileOf(95, 100, 4);
    const std::vector<Bytes> packages = PushOf(file);
    // From one end of a window to the next, and which of its packages is bad.
    const struct {
        std::size_t nFrom, nBad, nTo;
    } places[] = {{0, 0, 1},    {1, 1, 51},   {1, 25, 51}, {1, 50, 51},
                  {51, 51, 95}, {51, 73, 95}, {51, 94, 95}};
    for (const auto& damage : damages) {
        for (const auto& [nFrom, nBad, nTo] : places) {
            if (&damage == std::end(damages) - 1 && nBad + 1 == nTo) {
                continue;
            }
            SCOPED_TRACE(std::string(damage.lpszWhat) + ", " + std::to_string(nBad + 1));
            CWorld world;
            std::vector<Bytes> sent = packages;
            damage.lpDo(sent[nBad]);
            ASSERT_TRUE(world.host.BeginsPush());
            EXPECT_EQ(world.host.Send(sent, 0, nFrom), nFrom == 0   ? ""
                                                       : nFrom == 1 ? "1S"
                                                                    : "1S 51S");
            EXPECT_EQ(world.host.Send(sent, nFrom, nTo, false), std::to_string(nTo) + "R");
            // Once more bad, then good: slots of the full size, with what lay in them behind.
            sent = packages;
            sent.back().resize(DAK_PACKAGE_SIZE, 0xEE);
            sent[nBad][20] ^= 2;
            EXPECT_EQ(world.host.Send(sent, nFrom, nTo), std::to_string(nTo) + "R");
            sent[nBad][20] ^= 2;
            EXPECT_EQ(world.host.Send(sent, nFrom, nTo), std::to_string(nTo) + "S");
            world.host.Send(packages, nTo);
            EXPECT_EQ(world.host.Take(), DONE);
            EXPECT_TRUE(world.File("d/a.txt") == file.bytes);
        }
    }
}

// What is lost, comes twice, or is repeated because its verdict was lost: the contents never shift.
TEST(CopyToDevice, LostAndDoubledPackagesAndVerdicts) {
    CFileRecord file = FileOf(120, 100, 4);
    for (const bool bAllTheSame : {false, true}) { // windows that begin alike
        file.bytes = bAllTheSame ? Bytes(file.bytes.size()) : file.bytes;
        const std::vector<Bytes> packages = PushOf(file);
        for (const std::string strWhat :
             {"lost", "doubled", "bad", "verdict 1", "verdict 51", "verdict 101"}) {
            SCOPED_TRACE(strWhat);
            CWorld world;
            world.Write("d/a.txt", {1});
            world.host.Pass(0);
            ASSERT_TRUE(world.host.BeginsPush());
            std::size_t nNext = 101;
            if (strWhat.starts_with("verdict")) {
                nNext = std::stoul(strWhat.substr(8));
                world.host.Send(packages, 0, nNext);
                for (int nTimes = 0; nTimes < 2; ++nTimes) {
                    world.host.Pass(0);
                    world.host.Pass(4999);
                    EXPECT_FALSE(world.host.Core().HasBytes());
                    world.host.Pass(1);
                    EXPECT_EQ(world.host.TakeWord(), 'R');
                    EXPECT_EQ(world.host.Send(packages, nNext == 1 ? 0 : nNext - 50, nNext),
                              std::to_string(nNext) + "S");
                }
            } else {
                std::vector<Bytes> sent = packages;
                sent[70][100] ^= std::uint8_t{strWhat == "bad"};
                const auto it = sent.begin() + 70;
                if (strWhat == "lost") {
                    sent.erase(it);
                } else if (strWhat == "doubled") {
                    sent.insert(it, packages[70]);
                }
                EXPECT_EQ(world.host.Send(sent, 0, 51), "1S 51S");
                const std::size_t nSent = strWhat == "lost" ? 100 : strWhat == "bad" ? 101 : 102;
                for (std::size_t i = 51; i < nSent; ++i) {
                    world.host.Put(sent[i]);
                }
                if (strWhat == "lost") {
                    EXPECT_TRUE(world.host.Take().empty());
                    world.host.Pass(5000);
                }
                EXPECT_EQ(world.host.TakeWord(), 'R');
                EXPECT_EQ(world.host.Send(packages, 51, 101), "101S");
            }
            world.host.Send(packages, nNext);
            EXPECT_EQ(world.host.Take(), DONE);
            EXPECT_TRUE(world.File("d/a.txt") == file.bytes);
        }
    }
}

TEST(CopyToDevice, SlowHostIsNotHurried) {
    CWorld world;
    const CFileRecord file = FileOf(60, 100, 4);
    const std::vector<Bytes> packages = PushOf(file);
    ASSERT_TRUE(world.host.BeginsPush());
    for (std::size_t i = 0; i < packages.size(); ++i) {
        world.host.Pass(4999);
        world.host.Put(packages[i]);
        EXPECT_TRUE(i % 50 != 0 || world.host.TakeWord() == 'S');
        world.host.Pass(0);
    }
    EXPECT_EQ(world.host.TakeWord(), 'S');
    EXPECT_EQ(world.host.Take(), DONE);
}

// A host gives up by filling the window with aborts; one that stops within a record does so twice.
// Other ends come at once. In each case the old file is there, and nothing else.
TEST(CopyToDevice, WhatIsCutShortLeavesTheOldFile) {
    const CFileRecord file = FileOf(120, 100, 4);
    const std::vector<Bytes> packages = PushOf(file);
    const Bytes abort = Join(Control(DAK_ABORT), Bytes(DAK_MAXPACKAGELENGTH, 0x5A));
    for (const std::size_t nSent :
         std::initializer_list<std::size_t>{0, 1, 2, 49, 50, 51, 52, 101, 110}) {
        for (const char* lpszEnd : {"abort", "twice", "resend", "connect", "disconnect", "gone"}) {
            SCOPED_TRACE(lpszEnd + std::to_string(nSent));
            const std::string strEnd = lpszEnd;
            CWorld world;
            world.Write("d/a.txt", {1, 2});
            const TREE before = world.memory.Files();
            ASSERT_TRUE(world.host.BeginsPush());
            std::vector<Bytes> sent = packages;
            const std::size_t nEnd = (nSent + 49) / 50 * 50 + 1; // of the window
            if (strEnd == "resend" && nSent != nEnd && nEnd < packages.size()) {
                sent[nEnd - 1][100] ^= 1;
                world.host.Send(sent, 0, nEnd);
                world.host.Send(packages, nEnd == 1 ? 0 : nEnd - 50, nSent);
            } else {
                world.host.Send(packages, 0, nSent);
            }
            EXPECT_EQ(world.memory.Files() == before, nSent == 0);
            if (strEnd == "connect" || strEnd == "disconnect") {
                EXPECT_TRUE(world.host.Shakes(strEnd == "connect" ? DAK_CONNECT : DAK_DISCONNECT));
            } else if (strEnd == "gone") {
                world.host.Core().HostGone();
            } else {
                for (std::size_t i = nSent; i < nEnd; ++i) {
                    EXPECT_FALSE(world.host.Core().HasBytes()) << i;
                    world.host.Put(abort);
                }
                for (std::size_t i = nSent; i < nEnd && strEnd == "twice"; ++i) {
                    world.host.Put(abort);
                }
                EXPECT_EQ(world.host.TakeWord(), 'A');
                EXPECT_EQ(world.host.Take(), Response(DAK_FUNC_TRANSMIT_FILES, 0));
            }
            EXPECT_TRUE(world.host.Take().empty());
            EXPECT_EQ(world.memory.Files(), before);
            EXPECT_EQ(world.host.Push({{.strName = u"n", .bytes = {3}}}), DONE);
        }
    }
}

// Whole streams, their result, and what they leave in d. A refused file costs those behind it
// nothing, but a disk without room, or records that have lost their order, drop the rest.
TEST(CopyToDevice, WhatAStreamComesTo) {
    const CFileRecord a{.strName = u"a", .bytes = {1}};
    const CFileRecord b{.strName = u"b", .bytes = Pattern(700'000)};
    const auto stream = [](const std::vector<CFileRecord>& files, std::uint32_t nMore = 0) {
        Bytes bytes = CAgentHost::PushStream(files);
        DakPutU32(bytes.data(), static_cast<std::uint32_t>(files.size()) + nMore);
        return bytes;
    };
    Bytes cut = stream({a, b});
    cut.pop_back();
    Bytes huge = stream({a});
    huge[4 + 4] = 1;
    std::vector<CFileRecord> longest = {a};
    static const std::u16string s_long(260, u'n');
    longest[0].strName = std::u16string_view(s_long).substr(1);
    const struct {
        const char* lpszWhat;
        Bytes stream;
        std::int32_t nResult;
        std::vector<std::string> names;
    } rows[] = {
        {"two files", stream({a, b}), 1, {"a", "b"}},
        {"nothing", {}, -2, {}},
        {"none", stream({}), 1, {}},
        {"none of those announced", stream({}, 3), 1, {}},
        {"fewer", stream({a}, 2), 1, {"a"}},
        {"cut in the contents", cut, -2, {"a"}},
        {"cut in a head", Join(stream({a}, 1), Bytes{0}), -2, {"a"}},
        {"cut in a name", Join(stream({a}, 1), Bytes(24), Bytes{0x61, 0}), -2, {"a"}},
        {"more", Join(stream({a}), Bytes{0}), -2, {"a"}},
        {"4 GiB", huge, -2, {}},
        {"the longest name", stream(longest), 1, {std::string(259, 'n')}},
        {"a longer one", stream({b, {.strName = s_long, .bytes = {}}, a}), -2, {"b"}},
        {"one refused", stream({a, {.strName = u"..\\b", .bytes = b.bytes}, b}), -2, {"a", "b"}},
    };
    for (const auto& row : rows) {
        CWorld world;
        ASSERT_TRUE(world.host.BeginsPush());
        world.host.Send(CAgentHost::PushPackages(row.stream));
        EXPECT_EQ(world.host.Take(), Response(8, row.nResult)) << row.lpszWhat;
        std::vector<std::string> names;
        for (const auto& [strPath, strBytes] : world.memory.Files()) {
            names.push_back(strPath.substr(2));
        }
        EXPECT_EQ(names, row.names) << row.lpszWhat;
    }
    // What the folder says to a file, and where no file may go.
    for (const std::string strCall : {"BeginPart", "Write", "Complete"}) {
        for (const auto eResult : {agent::EResult::NO_SPACE, agent::EResult::REFUSED}) {
            CWorld world;
            world.Write("d/b", {2});
            world.memory.lpFault = [&](std::string_view strNow, const std::string& strPath) {
                return strNow == strCall && strPath == "d/b" ? eResult : agent::EResult::SUCCESS;
            };
            const bool bFull = eResult == agent::EResult::NO_SPACE;
            TREE files = {{"d/a", "\1"}, {"d/b", "\2"}, {"d/c", "\3"}};
            files.erase(bFull ? "d/c" : "");
            EXPECT_EQ(world.host.Push({a, b, {.strName = u"c", .bytes = {3}}}),
                      Response(8, bFull ? -1 : -2));
            EXPECT_EQ(world.memory.Files(), files);
        }
    }
    for (const char16_t* lpszName : {u"..\\a", u"x\\..\\..\\a", u"\\a", u"/a", u"C:\\a", u"c:a",
                                     u"", u".", u".dak-0.part", u"x\\.DaK-0", u"\xD800"}) {
        CWorld world;
        EXPECT_EQ(world.host.Push({{.strName = lpszName, .bytes = {}}}), Response(8, -2));
        EXPECT_EQ(world.host.Push({a}, u"\\..\\x"), Response(8, -2));
        EXPECT_EQ(world.memory.entries.size(), 1U);
    }
}

TEST(CopyFromDevice, EveryByteOfASmallStream) {
    CWorld world;
    world.Write("a", {7}).info.times = {2, 3};
    EXPECT_EQ(world.host.Pull(u"\\", {u"a"}),
              std::vector<Bytes>{Join(Bytes{0x22, 0xE0, 0, 0, 43, 0, 0, 0, 120, 0, 0, 0, 8, 0},
                                      Bytes{1, 0, 0, 0, 1, 0, 0, 0},             // result, files
                                      Bytes{1, 0, 0, 0, 0, 0, 0, 0},             // size
                                      Bytes{2, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0}, // times
                                      Bytes{0, 0, 0, 0, 'a', 0, 0, 0, 7})});
}

TEST(CopyFromDevice, WaitsAtTheEndsOfWindows) {
    for (const std::size_t nPackages :
         std::initializer_list<std::size_t>{1, 2, 49, 50, 51, 100, 101}) {
        for (const std::size_t dwLast : {std::size_t{100}, std::size_t{DAK_DATA_SIZE}}) {
            CWorld world;
            const CFileRecord file = FileOf(nPackages, dwLast, 8);
            world.Write("d/a.txt", file.bytes).info.times = {file.ftCreation, file.ftLastWrite};
            const std::vector<Bytes> packages = world.host.Pull(u"\\d", {u"a.txt"});
            EXPECT_EQ(packages.size(), nPackages);
            EXPECT_TRUE(packages == CAgentHost::PullPackages({file})) << nPackages;
            EXPECT_EQ(world.host.Call(10, Text(u"\\next")), Response(10, 1));
        }
    }
}

// A stream of the device, by its command: a copy, and a read by handle.
struct CGiving {
    Bytes command;
    std::vector<Bytes> packages;
};

void Begin(CWorld& world, const CGiving& giving, std::size_t nTaken) {
    ASSERT_TRUE(world.host.Shakes());
    world.host.Put(giving.command);
    ASSERT_EQ(world.host.TakeWord(), 'S');
    for (std::size_t i = 0; i < nTaken; ++i) {
        ASSERT_TRUE(world.host.TakeData() == giving.packages[i]) << i;
        if ((i + 1) % 50 == 0 && i + 1 < nTaken) {
            world.host.Put(Ack());
        }
    }
}

// The host has accepted nAccepted packages, and finds the next one bad. Meanwhile the file is
// another: what it has not confirmed comes as it was, and it never gets a mix of two.
TEST(StreamsFromDevice, GiveAgainFromTheFirstPackage) {
    const CFileRecord file = FileOf(130, 77, 8);
    CWorld world;
    const auto restore = [&] {
        world.Write("d/a.txt", file.bytes).info.times = {file.ftCreation, file.ftLastWrite};
    };
    restore();
    world.host.Call(DAK_FUNC_CREATE_FILE, Text(u"\\d\\a.txt"), U32(0x8000'0000), U32(7), U32(3));
    const Bytes size = U32(static_cast<std::uint32_t>(file.bytes.size()));
    const CGiving givings[] = {
        {Command(8, CAgentHost::PullFields(u"\\d", {u"a.txt"})), CAgentHost::PullPackages({file})},
        {Command(16, U32(1), size),
         StreamPackages(16, Join(size, file.bytes), DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false)}};
    for (const CGiving& giving : givings) {
        for (const std::size_t nAccepted :
             std::initializer_list<std::size_t>{0, 6, 49, 56, 100, 129}) {
            for (const bool bChanges : {false, true}) {
                SCOPED_TRACE(std::to_string(nAccepted) + (bChanges ? " changes" : ""));
                restore();
                ASSERT_TRUE(world.host.Shakes());
                world.host.Call(DAK_FUNC_SET_FILE_POINTER, U32(1), U32(0), U32(0));
                Begin(world, giving, nAccepted);
                if (nAccepted % 50 == 0 && nAccepted > 0) {
                    world.host.Put(Ack());
                }
                world.host.Take(14); // of the bad one
                if (bChanges) {
                    world.Write("d/a.txt", Pattern(file.bytes.size(), 2));
                }
                world.host.Put(Control(DAK_RETRANSMIT));
                const std::size_t nConfirmed = nAccepted / 50 * 50;
                const bool bRead = &giving != givings;
                // A copy holds nothing back, so that one ends where it cannot go on.
                std::size_t nLast =
                    bChanges ? bRead ? std::min<std::size_t>(nConfirmed + 50, 130) : nConfirmed
                             : 130;
                for (std::size_t i = 0; i < nLast; ++i) {
                    const Bytes package = world.host.TakeData();
                    ASSERT_EQ(package.size(), giving.packages[i].size()) << i;
                    ASSERT_TRUE(package == giving.packages[i] || (bChanges && i < nConfirmed)) << i;
                    if (((i + 1) % 50 == 0 && i >= nConfirmed) || i == 129) {
                        EXPECT_TRUE(world.host.Take().empty());
                        world.host.Put(Ack());
                    }
                }
                EXPECT_EQ(world.host.TakeWord(), nLast < 130 ? 'A' : '-');
            }
        }
    }
}

// A handle's position follows what the host has taken.
TEST(StreamsFromDevice, CutShort) {
    CWorld world;
    const Bytes data = Pattern(120 * DAK_DATA_SIZE);
    const Bytes size = U32(static_cast<std::uint32_t>(data.size()));
    world.Write("d/a", data);
    world.host.Call(DAK_FUNC_CREATE_FILE, Text(u"\\d\\a"), U32(0x8000'0000), U32(7), U32(3));
    const CGiving read{
        Command(16, U32(1), size),
        StreamPackages(16, Join(size, data), DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false)};
    for (const std::string strEnd :
         {"abort", "handshake", "gone", "shrunk", "dropped", "unreadable"}) {
        for (const std::size_t nTaken : std::initializer_list<std::size_t>{0, 1, 30, 50, 70, 100}) {
            SCOPED_TRACE(strEnd + std::to_string(nTaken));
            world.Write("d/a", data);
            world.host.Call(DAK_FUNC_SET_FILE_POINTER, U32(1), U32(0), U32(0));
            Begin(world, read, nTaken);
            world.host.Pass(1);
            std::size_t nHeld = nTaken - (nTaken == 50 || nTaken == 100 ? 1 : 0);
            if (strEnd == "abort") {
                world.host.Put(Control(DAK_ABORT));
            } else if (strEnd == "gone") {
                world.host.Core().HostGone();
            } else if (strEnd == "dropped") {
                world.host.Take(3);
                world.host.Core().DropPending();
                EXPECT_TRUE(world.host.Take().empty()) << "there is a hole now";
            } else if (strEnd != "handshake") { // a window in hand is given to its end
                world.memory.entries.at("d/a")->bUnreadable = strEnd == "unreadable";
                if (strEnd == "shrunk") {
                    world.Write("d/a", Pattern(5));
                }
                nHeld = nTaken <= 50 ? 50 : 100;
                for (std::size_t i = nTaken; i < nHeld; ++i) {
                    EXPECT_TRUE(world.host.TakeData() == read.packages[i]);
                }
                world.host.Put(Ack());
                EXPECT_EQ(world.host.TakeWord(), 'A');
                world.memory.entries.at("d/a")->bUnreadable = false;
            }
            EXPECT_TRUE(world.host.Shakes());
            EXPECT_EQ(world.host.Call(DAK_FUNC_SET_FILE_POINTER, U32(1), U32(0), U32(1)),
                      Response(18, static_cast<std::int32_t>(
                                       nHeld == 0 ? 0 : nHeld * DAK_DATA_SIZE - 4)));
        }
    }
    // A copy's file that is written meanwhile, also without another size, or that fails, ends in a
    // word that no host takes for data, and ahead of its last package; so does a list that cannot
    // be made.
    for (const auto& [bRefused, dwSize, nWhole] :
         std::initializer_list<std::tuple<bool, std::size_t, std::size_t>>{
             {false, 130 * DAK_DATA_SIZE, 120},
             {false, data.size(), 120},
             {false, 7 * DAK_DATA_SIZE, 7},
             {true, data.size(), 5},
             {true, data.size(), 0}}) {
        world.Write("d/a", data);
        EXPECT_TRUE(world.host.Shakes());
        world.host.Put(Command(8, CAgentHost::PullFields(u"\\", {nWhole == 0 ? u"d" : u"d\\a"})));
        EXPECT_EQ(world.host.TakeWord(), 'S');
        for (std::size_t i = 0; i <= nWhole; ++i) {
            if (i == std::min<std::size_t>(5, nWhole)) {
                world.Write("d/a", Pattern(dwSize));
                world.memory.lpFault = [bFails = bRefused](std::string_view, const std::string&) {
                    return bFails ? agent::EResult::REFUSED : agent::EResult::SUCCESS;
                };
            }
            EXPECT_TRUE(i == nWhole || !world.host.TakeData().empty());
            if ((i + 1) % 50 == 0) {
                world.host.Put(Ack());
            }
        }
        EXPECT_EQ(world.host.TakeWord(), 'A') << dwSize << bRefused;
        world.memory.lpFault = nullptr;
    }
}

// A list that cannot be had whole is none, and the log says why.
TEST(CopyFromDevice, ListsThatCannotBeMade) {
    for (const bool bTooLong : {false, true}) {
        CMemoryDevice memory;
        std::string strLog;
        agent::CDeviceOptions options = ServedFrom(memory.strRoot);
        options.lpLog = [&](const std::string& strLine) { strLog += strLine; };
        CAgentHost host(options);
        const std::string strFolder = "d/" + std::string(bTooLong ? 60'000 : 1, 'n');
        for (int i = 0; i < (bTooLong ? 1200 : 1); ++i) { // 64 MiB of names and more
            memory.Write(strFolder + (bTooLong ? "" : "/") + std::to_string(i), "x");
        }
        memory.lpFault = [&](std::string_view strCall, const std::string& strPath) {
            return !bTooLong && strCall == "Next" && strPath == strFolder ? agent::EResult::REFUSED
                                                                          : agent::EResult::SUCCESS;
        };
        host.Put(Command(8, CAgentHost::PullFields(u"\\", {u"d"})));
        EXPECT_EQ(host.TakeWord(), 'S');
        host.Settle();
        EXPECT_EQ(host.TakeWord(), 'A');
        EXPECT_NE(strLog.find(bTooLong ? "more files" : "\\d/n cannot be listed"),
                  std::string::npos)
            << strLog;
    }
}

// The command's names meet the end of a piece in every byte.
TEST(CopyFromDevice, CommandInPiecesCutAnywhere) {
    CWorld world;
    world.Write("d/\u00e4\U0001F600.b", {1});
    world.Write("d/x/y.txt", {2});
    const std::vector<std::u16string> wanted = {u"\u00e4\U0001F600.b", u"x\\y.txt"};
    const std::vector<Bytes> all = world.host.Pull(u"\\d", wanted);
    const std::size_t dwPiece = DAK_PACKAGE_SIZE - 10;
    const auto put = [&](const Bytes& payload, std::size_t dwAt) {
        const auto it = payload.begin() + static_cast<std::ptrdiff_t>(dwAt);
        const std::size_t dwSize = std::min(dwPiece, payload.size() - dwAt);
        Bytes piece = Command(8, Bytes(it, it + static_cast<std::ptrdiff_t>(dwSize)));
        DakPutU32(piece.data(), dwAt + dwSize < payload.size() ? DAK_PACKAGE : DAK_LAST_PACKAGE);
        world.host.Put(piece);
        return world.host.TakeWord();
    };
    const std::size_t dwNames = 2 * (6 + 8);
    for (std::size_t dwCut = 1; dwCut <= dwNames; dwCut += 2) {
        std::vector<std::u16string> names; // that are not there fill the room ahead
        for (std::size_t dwRoom = 2 * dwPiece - CAgentHost::PullFields(u"\\d", {}).size() - dwCut;
             dwRoom > 0;) {
            const std::size_t dwTake = dwRoom > 410 ? 400 : dwRoom;
            names.emplace_back(dwTake / 2 - 1, u'n');
            dwRoom -= dwTake;
        }
        names.insert(names.end(), wanted.begin(), wanted.end());
        const Bytes payload = CAgentHost::PullFields(u"\\d", names);
        EXPECT_EQ(put(payload, 0), 'S');
        EXPECT_EQ(put(payload, dwPiece), 'S');
        EXPECT_EQ(put(payload, 2 * dwPiece), 'S');
        EXPECT_EQ(world.host.TakeStream(), all) << dwCut;
    }
    // A piece of another command, or of another size, spoils its chain and no other; so do more
    // than 16 MiB.
    const Bytes payload(3 * dwPiece);
    Bytes foreign = Join(Command(8, Bytes(dwPiece)));
    DakPutU32(foreign.data(), DAK_PACKAGE);
    for (const std::size_t dwAt : {std::size_t{8}, std::size_t{4}}) {
        Bytes bad = foreign;
        bad[dwAt] ^= 2;
        bad.resize(dwAt == 8 ? bad.size() : bad.size() - 2);
        DakPutU32(bad.data() + 4, static_cast<std::uint32_t>(bad.size()) - 8);
        EXPECT_EQ(put(payload, 0), 'S');
        world.host.Put(bad);
        EXPECT_EQ(world.host.TakeWord(), '-');
        EXPECT_EQ(put(payload, 2 * dwPiece), '-');
        EXPECT_EQ(world.host.Pull(u"\\d", wanted), all);
    }
    std::size_t nPieces = 0;
    while (nPieces < 5000 && put(payload, 0) == 'S') {
        ++nPieces;
    }
    EXPECT_EQ(nPieces, (std::size_t{16} << 20) / dwPiece);
    EXPECT_TRUE(world.host.Shakes());
}

TEST(CopyFromDevice, WhatANameBrings) {
    CWorld world;
    for (const char* lpszPath : {"d/b", "d/sub/z", "d/sub/deep/er/y", "d/empty", "d/.dak-1.part",
                                 "d/back\\slash", "d/bad\xff", "d/shut", "other"}) {
        world.Write(lpszPath, {}).info.times = {1, 2};
    }
    world.memory.MakeFolder("d/hollow");
    world.memory.entries.at("d/shut")->bUnreadable = true;
    world.Write("d/" + std::string(130, 'n') + "/" + std::string(129, 'n'), {}).info.times = {1, 2};
    world.memory.qwRootSize = 1;
    const std::u16string strLong = std::u16string(130, u'n') + u"\\" + std::u16string(129, u'n');
    const struct {
        const char16_t* lpszFolder;
        std::vector<std::u16string> names;
        std::vector<const char16_t*> came;
    } rows[] = {
        {u"\\d", {u"b", u"nothing", u"sub"}, {u"b", u"sub\\deep\\er\\y", u"sub\\z"}},
        {u"d\\", {u"sub/./deep\\", u"hollow", u"empty"}, {u"sub\\deep\\er\\y", u"empty"}},
        {u"\\", {u"d\\sub"}, {u"d\\sub\\deep\\er\\y", u"d\\sub\\z"}},
        {u"\\d", {u""}, {u"b", u"empty", u"sub\\deep\\er\\y", u"sub\\z"}}, // one name is too long
        {u"\\d", {strLong.substr(0, 130)}, {}},
        {u"\\d",
         {u"shut", u"..\\other", u"\\other", u"C:\\other", u".dak-1.part", u"back\\slash"},
         {}},
        {u"\\..\\root", {u"other"}, {}},
        {u"\\missing", {u"other"}, {}},
    };
    for (const auto& row : rows) {
        std::vector<CFileRecord> files;
        for (const char16_t* lpszName : row.came) {
            files.push_back({.strName = lpszName, .bytes = {}, .ftCreation = 1, .ftLastWrite = 2});
        }
        EXPECT_EQ(world.host.Pull(row.lpszFolder, row.names), CAgentHost::PullPackages(files));
    }
    // More than one slice of looking: a handshake is served in between.
    std::vector<CFileRecord> files(
        9000, {.strName = u"", .bytes = {}, .ftCreation = 1, .ftLastWrite = 2});
    std::vector<std::u16string> names;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string strName = "m/" + std::to_string(10'000 + i);
        world.Write(strName, {}).info.times = {1, 2};
        names.push_back(u"m\\" + std::u16string(strName.begin() + 2, strName.end()));
    }
    for (std::size_t i = 0; i < files.size(); ++i) {
        files[i].strName = names[i];
    }
    const Bytes command = Command(8, CAgentHost::PullFields(u"\\", {u"m"}));
    world.host.Put(command);
    EXPECT_EQ(world.host.TakeWord(), 'S');
    EXPECT_FALSE(world.host.Core().HasBytes());
    EXPECT_TRUE(world.host.Shakes());
    EXPECT_TRUE(world.host.Pull(u"\\", {u"m"}) == CAgentHost::PullPackages(files));
}

} // namespace
} // namespace test
