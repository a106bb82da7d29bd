#include "agent_host.h"

#include <sys/stat.h>

#include "agent/open_files.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t R = 0x8000'0000;
constexpr std::uint32_t W = 0x4000'0000;
constexpr std::uint32_t ALL = 7; // everything is shared
constexpr std::uint32_t NONE = 0xFFFF'FFFF;
enum : std::uint32_t { CREATE_NEW = 1, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS, TRUNCATE };
enum : std::uint32_t { BEGIN, CURRENT, END };

Bytes Words(std::initializer_list<std::uint32_t> words) {
    Bytes bytes;
    for (const std::uint32_t dwWord : words) {
        AppendU32(bytes, dwWord);
    }
    return bytes;
}

// The stream of a write: what fits exactly is the final package.
std::vector<Bytes> WritePackages(const Bytes& data) {
    std::vector<Bytes> packages;
    std::size_t dwAt = 0;
    do {
        const std::size_t dwSize = std::min<std::size_t>(DAK_DATA_SIZE, data.size() - dwAt);
        const auto itAt = data.begin() + static_cast<std::ptrdiff_t>(dwAt);
        dwAt += dwSize;
        packages.push_back(DataPackage(Bytes(itAt, itAt + static_cast<std::ptrdiff_t>(dwSize)),
                                       dwAt == data.size(), 17));
    } while (dwAt < data.size());
    return packages;
}

class CFileHost : public CAgentHost {
  public:
    using CAgentHost::CAgentHost;

    // 0 when it was refused.
    std::uint32_t Open(std::u16string_view strPath, std::uint32_t dwAccess = R | W,
                       std::uint32_t dwShare = ALL, std::uint32_t dwDisposition = OPEN_ALWAYS) {
        Bytes payload = Text(strPath);
        Append(payload, Words({dwAccess, dwShare, dwDisposition}));
        Put(Command(15, payload));
        EXPECT_EQ(TakeWord(), DAK_SUCCESS);
        const Bytes reply = Take();
        EXPECT_TRUE(Take().empty());
        if (reply.size() != 18 || DakGetU32(reply.data()) != DAK_LAST_REPLY ||
            DakGetU16(reply.data() + 8) != 15) {
            ADD_FAILURE() << "no response of an open";
            return 0;
        }
        const std::uint32_t dwHandle = DakGetU32(reply.data() + 14);
        const bool bDone = DakGetU32(reply.data() + 10) != 0;
        EXPECT_TRUE(bDone ? dwHandle != 0 && dwHandle != NONE : dwHandle == NONE);
        return bDone ? dwHandle : 0;
    }
    std::uint32_t Seek(std::uint32_t dwHandle, std::int64_t llDistance, std::uint32_t dwMethod) {
        return static_cast<std::uint32_t>(
            Plain(18, Words({dwHandle, static_cast<std::uint32_t>(llDistance), dwMethod}))
                .value_or(0x5EEC));
    }
    std::int32_t Close(std::uint32_t dwHandle) {
        return Plain(19, Words({dwHandle})).value_or(-99);
    }
    void BeginRead(std::uint32_t dwHandle, std::uint32_t dwCount) {
        Put(Command(16, Words({dwHandle, dwCount})));
        EXPECT_EQ(TakeWord(), DAK_SUCCESS);
    }
    // Nothing when there was no stream of so many bytes as it announced.
    std::optional<Bytes> Read(std::uint32_t dwHandle, std::uint32_t dwCount) {
        BeginRead(dwHandle, dwCount);
        Bytes stream;
        for (const Bytes& package : TakeStream()) {
            EXPECT_EQ(DakGetU16(package.data() + 12), 16);
            stream.insert(stream.end(), package.begin() + 14, package.end());
        }
        if (stream.size() < 4 || DakGetU32(stream.data()) != stream.size() - 4) {
            return std::nullopt;
        }
        stream.erase(stream.begin(), stream.begin() + 4);
        return stream;
    }
    void BeginWrite(std::uint32_t dwHandle, std::size_t dwCount) {
        Put(Command(17, Words({dwHandle, static_cast<std::uint32_t>(dwCount)})));
        EXPECT_EQ(TakeWord(), DAK_SUCCESS);
    }
    std::optional<std::int32_t> WriteOn(const std::vector<Bytes>& packages) {
        for (std::size_t i = 0; i < packages.size(); ++i) {
            Put(packages[i]);
            const bool bLast = i + 1 == packages.size();
            EXPECT_EQ(TakeWord(), bLast || i % 50 == 0 ? DAK_SUCCESS : 0) << i;
        }
        return TakeResult(17);
    }
    std::optional<std::int32_t> Write(std::uint32_t dwHandle, const Bytes& data) {
        BeginWrite(dwHandle, data.size());
        return WriteOn(WritePackages(data));
    }
};

std::size_t OpenDescriptors() {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

TEST(FileHandles, WhatTheOpenWordsSay) {
    const Bytes old = {1, 2, 3};
    struct CCase {
        std::uint32_t dwAccess, dwShare, dwDisposition;
        bool bExists; // before, holding old
        bool bOpens;
        bool bOldAfter; // holds old; else it is empty, or not there when it did not open
    };
    for (const CCase& c : std::initializer_list<CCase>{
             {R, ALL, CREATE_NEW, false, true, false},
             {R, ALL, CREATE_NEW, true, false, true},
             {W, 0, CREATE_ALWAYS, false, true, false},
             {W, 0, CREATE_ALWAYS, true, true, false},
             {R, 0, CREATE_ALWAYS, true, true, false},
             {R, 1, OPEN_EXISTING, true, true, true},
             {R, 1, OPEN_EXISTING, false, false, false},
             {R | W, 4, OPEN_ALWAYS, true, true, true},
             {R, 2, OPEN_ALWAYS, false, true, false},
             {R | W, 0, TRUNCATE, true, true, false},
             {W, 0, TRUNCATE, false, false, false},
             {R, 0, TRUNCATE, true, false, true},
             {R, 0, 0, true, false, true},
             {R, 0, 6, false, false, false},
             {0, 0, OPEN_EXISTING, true, false, true},
             {R | 1, 0, OPEN_EXISTING, true, false, true},
             {R, 8, OPEN_EXISTING, true, false, true},
         }) {
        SCOPED_TRACE(::testing::Message() << std::hex << c.dwAccess << " " << c.dwShare << " "
                                          << c.dwDisposition << " " << c.bExists);
        CFileHost host;
        if (c.bExists) {
            host.WriteFile("d/a", old);
        }
        EXPECT_EQ(host.Open(u"\\d\\a", c.dwAccess, c.dwShare, c.dwDisposition) != 0, c.bOpens);
        EXPECT_EQ(host.ReadFile("d/a"), c.bOldAfter ? std::optional(old)
                                        : c.bOpens  ? std::optional(Bytes())
                                                    : std::nullopt);
    }
}

TEST(FileHandles, WhatCannotBeOpened) {
    CFileHost host;
    host.WriteFile("d/a", {1, 2, 3});
    host.WriteFile("d/fixed", {4});
    fs::permissions(host.Root() / "d/fixed", fs::perms::owner_read);
    fs::create_directory(host.Root() / "locked");
    fs::permissions(host.Root() / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    fs::create_symlink("../d/a", host.Root() / "d/inside");
    fs::create_symlink("new", host.Root() / "d/dangling");
    fs::create_symlink("../../outside.txt", host.Root() / "d/outside");
    fs::create_symlink(host.Base() / "outside.txt", host.Root() / "d/absolute");
    fs::create_directory_symlink("../..", host.Root() / "d/up");
    ASSERT_EQ(::mkfifo((host.Root() / "d/fifo").c_str(), 0600), 0);
    const std::vector<std::string> tree = host.Tree();
    const std::size_t nDescriptors = OpenDescriptors();
    for (const std::u16string_view strPath :
         {u"", u"\\", u"\\d", u"\\Card", u"\\no\\a", u"\\d\\a\\b", u"\\..\\outside.txt",
          u"\\d\\up\\outside.txt", u"\\d\\up\\new", u"\\d\\outside", u"\\d\\absolute",
          u"\\d\\dangling", u"\\d\\fifo", u"C:\\d\\a", u"\\d\\.dak-x.part", u"\\d\\\xD800",
          u"\\locked\\new"}) {
        for (const std::uint32_t dwAccess : {R, W, R | W}) {
            EXPECT_EQ(host.Open(strPath, dwAccess), 0U)
                << ::testing::PrintToString(std::u16string(strPath));
            EXPECT_EQ(host.Open(strPath, dwAccess, ALL, CREATE_ALWAYS), 0U);
        }
    }
    for (const std::uint32_t dwAccess : {W, R | W}) {
        EXPECT_EQ(host.Open(u"\\d\\fixed", dwAccess), 0U);
    }
    EXPECT_EQ(host.Open(u"\\d\\fixed", R, ALL, CREATE_ALWAYS), 0U);
    EXPECT_EQ(host.Tree(), tree);
    EXPECT_EQ(host.ReadFile("../outside.txt")->size(), 7U);
    EXPECT_EQ(host.ReadFile("d/fixed")->size(), 1U);
    EXPECT_EQ(OpenDescriptors(), nDescriptors);

    // What the access words allow.
    const std::uint32_t dwReader = host.Open(u"\\d\\fixed", R);
    EXPECT_EQ(host.Write(dwReader, {1}), DAK_RESULT_REFUSED);
    EXPECT_EQ(host.Read(dwReader, NONE), Bytes{4});
    host.BeginRead(host.Open(u"\\d\\a", W), 1);
    EXPECT_EQ(host.TakeWord(), DAK_ABORT);
    EXPECT_TRUE(host.Handshake());
    EXPECT_EQ(host.Read(host.Open(u"/d/./inside"), 10), (Bytes{1, 2, 3}));
    EXPECT_EQ(host.Write(host.Open(u"Card\\new"), {7}), 1);
    EXPECT_EQ(host.ReadFile("../card/new"), Bytes{7});
    fs::permissions(host.Root() / "locked", fs::perms::owner_all);
}

TEST(FileHandles, CommandsOfAnotherLengthGetSilence) {
    CFileHost host;
    for (const auto& [codeFunc, dwSize] :
         std::initializer_list<std::pair<std::uint16_t, std::size_t>>{
             {15, 14}, {16, 8}, {17, 8}, {18, 12}, {19, 4}}) {
        for (const std::size_t dwWrong : {std::size_t{0}, dwSize - 1, dwSize + 1}) {
            host.Put(Command(codeFunc, Bytes(dwWrong)));
            EXPECT_TRUE(host.Take().empty()) << codeFunc << " of " << dwWrong;
        }
    }
}

// A handle outlives links and hosts, is never given out twice, and leaves nothing behind.
TEST(FileHandles, LiveUntilTheyAreClosed) {
    CFileHost host;
    const std::size_t nDescriptors = OpenDescriptors();
    const std::uint32_t dwFirst = host.Open(u"\\d\\a");
    std::vector<std::uint32_t> handles;
    while (const std::uint32_t dwHandle = host.Open(u"\\d\\b")) {
        handles.push_back(dwHandle);
        ASSERT_LT(handles.size(), 10'000U);
    }
    EXPECT_EQ(handles.size(), 255U) << "and the first";
    EXPECT_EQ(host.Open(u"\\d\\new"), 0U);
    EXPECT_FALSE(host.ReadFile("d/new")) << "without room the disk is not touched";

    EXPECT_EQ(host.Write(dwFirst, {1, 2, 3}), 1);
    EXPECT_TRUE(host.Handshake(DAK_DISCONNECT));
    host.Core().HostGone();
    EXPECT_TRUE(host.Handshake(DAK_CONNECT));
    EXPECT_EQ(host.Write(dwFirst, {4}), 1) << "with its position";
    EXPECT_EQ(host.ReadFile("d/a"), (Bytes{1, 2, 3, 4}));

    EXPECT_EQ(host.Close(dwFirst), 1);
    const std::uint32_t dwNext = host.Open(u"\\d\\a");
    EXPECT_NE(dwNext, 0U);
    handles.push_back(dwNext);
    for (const std::uint32_t dwStale : {dwFirst, std::uint32_t{0}, NONE, 0x12345678U}) {
        EXPECT_EQ(host.Close(dwStale), 0);
        EXPECT_EQ(host.Seek(dwStale, 0, BEGIN), NONE);
        EXPECT_EQ(host.Write(dwStale, {9}), DAK_RESULT_REFUSED);
        // Not the empty stream of a file's end.
        host.BeginRead(dwStale, 10);
        EXPECT_EQ(host.TakeWord(), DAK_ABORT);
        EXPECT_TRUE(host.Handshake());
    }
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(std::adjacent_find(handles.begin(), handles.end()), handles.end());
    EXPECT_FALSE(std::binary_search(handles.begin(), handles.end(), dwFirst));
    for (const std::uint32_t dwHandle : handles) {
        EXPECT_EQ(host.Close(dwHandle), 1);
    }
    EXPECT_EQ(OpenDescriptors(), nDescriptors);
    EXPECT_NE(host.Open(u"\\d\\a", R | W, 0), 0U) << "no share is left over";
    host.Restart();
    EXPECT_EQ(OpenDescriptors(), nDescriptors) << "an agent that ends closes them";
}

TEST(FileHandles, CountUpAndStepOverTheTwoThatAreNone) {
    agent::COpenFiles files(3, NONE - 1);
    for (const std::uint32_t dwWanted : {NONE - 1, 1U, 2U}) {
        EXPECT_TRUE(files.HasRoom());
        EXPECT_EQ(files.Add({}), dwWanted);
    }
    EXPECT_FALSE(files.HasRoom());
}

TEST(FileHandles, ShareAsTheirWordsSay) {
    struct CCase {
        std::uint32_t dwAccess1, dwShare1, dwAccess2, dwShare2;
        bool bSecond;
    };
    for (const CCase& c : std::initializer_list<CCase>{
             {R, 0, R, ALL, false},
             {R, 1, R, 1, true},
             {R, 1, R, 2, false},
             {R, 1, W, ALL, false},
             {R, 2, W, 1, true},
             {R, 2, R, 1, false},
             {W, 1, R, 2, true},
             {W, 1, R, 1, false},
             {W, 3, W, 2, true},
             {W, 2, W, 1, false},
             {R | W, 3, R | W, 3, true},
             {R | W, 3, R, 1, false},
             {R, 4, R, 4, false},
         }) {
        SCOPED_TRACE(::testing::Message() << std::hex << c.dwAccess1 << " " << c.dwShare1 << " "
                                          << c.dwAccess2 << " " << c.dwShare2);
        CFileHost host;
        host.WriteFile("d/a", {1});
        host.WriteFile("d/other", {1});
        fs::create_hard_link(host.Root() / "d/a", host.Root() / "d/same");
        const std::uint32_t dwFirst = host.Open(u"\\d\\a", c.dwAccess1, c.dwShare1);
        EXPECT_NE(dwFirst, 0U);
        EXPECT_EQ(host.Open(u"\\d\\same", c.dwAccess2, c.dwShare2) != 0, c.bSecond);
        EXPECT_NE(host.Open(u"\\d\\other", c.dwAccess2, c.dwShare2), 0U);
        EXPECT_EQ(host.Close(dwFirst), 1);
        if (!c.bSecond) {
            EXPECT_NE(host.Open(u"\\d\\a", c.dwAccess2, c.dwShare2), 0U) << "now it may";
        }
    }
    // Emptying counts as writing, and is not done where it is refused; later writers may come.
    CFileHost host;
    host.WriteFile("d/a", {1});
    const std::uint32_t dwReader = host.Open(u"\\d\\a", R, 1);
    EXPECT_EQ(host.Open(u"\\d\\a", R, ALL, CREATE_ALWAYS), 0U);
    EXPECT_EQ(host.ReadFile("d/a"), Bytes{1});
    EXPECT_EQ(host.Close(dwReader), 1);
    EXPECT_NE(host.Open(u"\\d\\a", R, 1, CREATE_ALWAYS), 0U);
    EXPECT_NE(host.Open(u"\\d\\a", R, 1), 0U) << "it only reads any more";
}

TEST(FileHandles, ThePointer) {
    CFileHost host;
    host.WriteFile("d/a", Content(1000));
    std::uint32_t dwHandle = host.Open(u"\\d\\a");
    constexpr std::int64_t MOST = 0x7FFF'FFFF;
    // Distance, method and the position that comes of it, one move behind the other.
    const auto move = [&](std::vector<std::int64_t> moves) {
        for (std::size_t i = 0; i < moves.size(); i += 3) {
            EXPECT_EQ(host.Seek(dwHandle, moves[i], static_cast<std::uint32_t>(moves[i + 1])),
                      moves[i + 2])
                << "move " << i / 3;
        }
    };
    move({0, CURRENT, 0, 10, BEGIN, 10, 5, CURRENT, 15, -20, CURRENT, NONE, 0, CURRENT, 15});
    move({-1, BEGIN, NONE, 0, END, 1000, -1000, END, 0, -1001, END, NONE, 7, END, 1007});
    move({0, 3, NONE, 0, CURRENT, 1007, MOST, BEGIN, MOST, MOST, CURRENT, 0xFFFF'FFFE});
    move({1, CURRENT, NONE, INT32_MIN, CURRENT, 0x7FFF'FFFE, 0, BEGIN, 0});
    EXPECT_EQ(host.Read(dwHandle, 400)->size(), 400U);
    move({0, CURRENT, 400, 990, BEGIN, 990});
    EXPECT_EQ(host.Read(dwHandle, 400)->size(), 10U);
    EXPECT_EQ(host.Read(dwHandle, 400), Bytes()) << "the end";
    move({0, CURRENT, 1000, 50, CURRENT, 1050});
    EXPECT_EQ(host.Read(dwHandle, 400), Bytes()) << "behind the end";
    EXPECT_EQ(host.Write(dwHandle, {}), 1);
    EXPECT_EQ(host.ReadFile("d/a")->size(), 1000U) << "no bytes, no growth";
    EXPECT_EQ(host.Write(dwHandle, {5}), 1);
    Bytes grown = Content(1000);
    grown.resize(1050);
    grown.push_back(5);
    EXPECT_EQ(host.ReadFile("d/a"), grown);

    // Beyond what a position can be told in: reached by reading and writing on.
    const std::uint64_t qwFour = std::uint64_t{1} << 32;
    host.WriteFile("d/big", {});
    fs::resize_file(host.Root() / "d/big", qwFour + 10);
    dwHandle = host.Open(u"\\d\\big");
    move({0, END, NONE, -11, END, NONE, -12, END, 0xFFFF'FFFE});
    EXPECT_EQ(host.Read(dwHandle, 5), Bytes(5));
    EXPECT_EQ(host.Write(dwHandle, {1, 2, 3}), 1);
    move({0, CURRENT, NONE, 1, CURRENT, NONE});
    EXPECT_EQ(host.Read(dwHandle, 100), Bytes(4));
    EXPECT_EQ(host.Write(dwHandle, {4}), 1);
    EXPECT_EQ(fs::file_size(host.Root() / "d/big"), qwFour + 11);
    move({-8, CURRENT, NONE, -12, CURRENT, NONE, -13, CURRENT, 0xFFFF'FFFE});
    EXPECT_EQ(host.Read(dwHandle, 100), (Bytes{0, 0, 0, 0, 0, 1, 2, 3, 0, 0, 0, 0, 4}));
}

// The host has accepted nAccepted packages and finds the next one bad. Meanwhile the file is
// another: what the host has not confirmed comes as it was all the same.
TEST(FileHandles, ReadsAreGivenAgainAsTheyWere) {
    CFileHost host;
    const Bytes data = Content(120 * DAK_DATA_SIZE);
    host.WriteFile("d/a", data);
    const std::uint32_t dwHandle = host.Open(u"\\d\\a", R);
    const auto dwCount = static_cast<std::uint32_t>(data.size());
    host.BeginRead(dwHandle, dwCount);
    const std::vector<Bytes> all = host.TakeStream();
    ASSERT_EQ(all.size(), 121U);
    const auto accept = [&](std::size_t nFirst, std::size_t nEnd) {
        for (std::size_t i = nFirst; i < nEnd; ++i) {
            ASSERT_EQ(host.TakeData(), all[i]) << i;
            if ((i + 1) % 50 == 0) {
                host.Put(Control(DAK_SUCCESS));
            }
        }
    };
    for (const std::size_t nAccepted : std::initializer_list<std::size_t>{0, 20, 49, 70, 99, 120}) {
        for (const bool bChanges : {false, true}) {
            SCOPED_TRACE(::testing::Message() << nAccepted << bChanges);
            host.WriteFile("d/a", data);
            EXPECT_EQ(host.Seek(dwHandle, 0, BEGIN), 0U);
            host.BeginRead(dwHandle, dwCount);
            accept(0, nAccepted);
            host.Take(14); // of the bad one
            if (bChanges) {
                host.WriteFile("d/a", Content(data.size(), 2));
                // Two writes may lie within one tick of the system's clock.
                fs::last_write_time(host.Root() / "d/a",
                                    fs::file_time_type::clock::now() + std::chrono::hours(1));
            }
            host.Put(Control(DAK_RETRANSMIT));
            for (std::size_t i = 0; i < nAccepted; ++i) {
                const std::optional<Bytes> package = host.TakeData();
                ASSERT_TRUE(package && package->size() == all[i].size());
                EXPECT_TRUE(bChanges || *package == all[i]);
            }
            // To the end of the window in hand, or of the stream.
            const std::size_t nEnd =
                bChanges ? std::min<std::size_t>(nAccepted / 50 * 50 + 50, 121) : 121;
            accept(nAccepted, nEnd);
            if (nEnd < all.size()) {
                EXPECT_EQ(host.TakeWord(), DAK_ABORT) << "rather than a mix of two contents";
                EXPECT_TRUE(host.Handshake());
                EXPECT_EQ(host.Seek(dwHandle, 0, CURRENT), nEnd * DAK_DATA_SIZE - 4);
            } else {
                host.Put(Control(DAK_SUCCESS));
                EXPECT_EQ(host.Seek(dwHandle, 0, CURRENT), dwCount);
            }
        }
    }
}

// The position follows what the host has taken, so that a short read can be gone on with.
TEST(FileHandles, ReadsThatAreCutShort) {
    CFileHost host;
    const Bytes data = Content(120 * DAK_DATA_SIZE);
    host.WriteFile("d/a", data);
    const std::uint32_t dwHandle = host.Open(u"\\d\\a", R);
    enum class EEnd { ABORT, HANDSHAKE, GONE, SHRUNK };
    for (const EEnd eEnd : {EEnd::ABORT, EEnd::HANDSHAKE, EEnd::GONE, EEnd::SHRUNK}) {
        for (const std::size_t nTaken : std::initializer_list<std::size_t>{0, 1, 30, 50, 70, 100}) {
            SCOPED_TRACE(::testing::Message() << static_cast<int>(eEnd) << " at " << nTaken);
            host.WriteFile("d/a", data);
            EXPECT_EQ(host.Seek(dwHandle, 0, BEGIN), 0U);
            host.BeginRead(dwHandle, static_cast<std::uint32_t>(data.size()));
            for (std::size_t i = 1; i <= nTaken; ++i) {
                ASSERT_TRUE(host.TakeData());
                if (i == 50 && nTaken > 50) {
                    host.Put(Control(DAK_SUCCESS));
                }
            }
            host.Core().SetTime(1);
            std::size_t nHeld = nTaken - (nTaken == 50 || nTaken == 100 ? 1 : 0);
            if (eEnd == EEnd::ABORT) {
                host.Put(Control(DAK_ABORT));
            } else if (eEnd == EEnd::GONE) {
                host.Core().HostGone();
            } else if (eEnd == EEnd::SHRUNK) {
                fs::resize_file(host.Root() / "d/a", 5);
                while (host.TakeData()) {
                }
                host.Put(Control(DAK_SUCCESS));
                EXPECT_EQ(host.TakeWord(), DAK_ABORT) << "a window in hand is given to its end";
                nHeld = nTaken <= 50 ? 50 : 100;
            }
            EXPECT_TRUE(host.Handshake());
            EXPECT_EQ(host.Seek(dwHandle, 0, CURRENT), nHeld == 0 ? 0 : nHeld * DAK_DATA_SIZE - 4);
        }
    }
}

TEST(FileHandles, WritesGoToTheFileByWindows) {
    for (const std::size_t dwSize : std::initializer_list<std::size_t>{
             0, 1, 12270, 12271, 12274, 12275, 50 * DAK_DATA_SIZE, 51 * DAK_DATA_SIZE,
             51 * DAK_DATA_SIZE + 1, 101 * DAK_DATA_SIZE + 5}) {
        SCOPED_TRACE(dwSize);
        CFileHost host;
        const Bytes old = Content(30'000, 7);
        host.WriteFile("d/a", old);
        const std::uint32_t dwHandle = host.Open(u"\\d\\a", W);
        const Bytes data = Content(dwSize);
        const std::vector<Bytes> packages = WritePackages(data);
        EXPECT_EQ(host.Seek(dwHandle, 5, BEGIN), 5U);
        host.BeginWrite(dwHandle, dwSize);
        const auto expectWritten = [&](std::size_t dwWritten) {
            Bytes wanted = old;
            wanted.resize(std::max(wanted.size(), 5 + dwWritten));
            std::copy_n(data.begin(), dwWritten, wanted.begin() + 5);
            ASSERT_TRUE(host.ReadFile("d/a") == wanted) << dwWritten;
        };
        std::size_t dwConfirmed = 0;
        for (std::size_t i = 0; i < packages.size(); ++i) {
            const bool bLast = i + 1 == packages.size();
            const bool bPoint = bLast || i % 50 == 0;
            if (bPoint) {
                // The window comes damaged first, and then in the form of a resend.
                Bytes bad = packages[i];
                bad.back() ^= 1;
                host.Put(bad);
                EXPECT_EQ(host.TakeWord(), DAK_RETRANSMIT);
                expectWritten(dwConfirmed);
                for (std::size_t j = i == 0 ? 0 : (i - 1) / 50 * 50 + 1; j < i; ++j) {
                    host.Put(packages[j]);
                }
                Bytes again = packages[i];
                again.resize(DAK_PACKAGE_SIZE, 0xEE);
                host.Put(again);
                EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
                dwConfirmed = std::min<std::size_t>(dwSize, (i + 1) * DAK_DATA_SIZE);
            } else {
                host.Put(packages[i]);
                EXPECT_TRUE(host.Take().empty());
            }
            if (bPoint || i % 50 == 30) {
                expectWritten(dwConfirmed);
            }
        }
        EXPECT_EQ(host.TakeResult(17), 1);
        EXPECT_EQ(host.Seek(dwHandle, 0, CURRENT), 5 + dwSize);
    }
}

TEST(FileHandles, WritesThatAreCutShortOrWrong) {
    CFileHost host;
    const Bytes data = Content(60 * DAK_DATA_SIZE);
    const std::vector<Bytes> packages = WritePackages(data);
    enum class EEnd { ABORT, HANDSHAKE, GONE };
    for (const EEnd eEnd : {EEnd::ABORT, EEnd::HANDSHAKE, EEnd::GONE}) {
        for (const std::size_t nSent : std::initializer_list<std::size_t>{0, 1, 30, 51, 53}) {
            const std::uint32_t dwHandle = host.Open(u"\\d\\a", W, 0, CREATE_ALWAYS);
            host.BeginWrite(dwHandle, data.size());
            for (std::size_t i = 0; i < nSent; ++i) {
                host.Put(packages[i]);
                EXPECT_EQ(host.TakeWord(), i % 50 == 0 ? DAK_SUCCESS : 0);
            }
            if (eEnd == EEnd::ABORT) {
                for (std::size_t i = nSent;; ++i) {
                    host.Put(AbortPackage());
                    if (i % 50 == 0) {
                        break;
                    }
                    EXPECT_TRUE(host.Take().empty());
                }
                EXPECT_EQ(host.TakeWord(), DAK_ABORT);
                EXPECT_EQ(host.TakeResult(17), 0);
            } else if (eEnd == EEnd::GONE) {
                host.Core().HostGone();
            }
            EXPECT_TRUE(host.Handshake());
            const std::size_t nHeld = nSent == 0 ? 0 : nSent < 51 ? 1 : 51;
            EXPECT_EQ(host.Seek(dwHandle, 0, CURRENT), nHeld * DAK_DATA_SIZE);
            EXPECT_EQ(host.ReadFile("d/a")->size(), nHeld * DAK_DATA_SIZE);
            EXPECT_EQ(host.Close(dwHandle), 1);
        }
    }
    // Another number of bytes than announced, which is how a lost package shows.
    const std::uint32_t dwHandle = host.Open(u"\\d\\a", W, 0, CREATE_ALWAYS);
    host.BeginWrite(dwHandle, 11);
    EXPECT_EQ(host.WriteOn(WritePackages(Bytes(10, 1))), DAK_RESULT_REFUSED);
    host.BeginWrite(dwHandle, 9);
    EXPECT_EQ(host.WriteOn(WritePackages(Bytes(10, 2))), DAK_RESULT_REFUSED);
    EXPECT_EQ(host.ReadFile("d/a"), Bytes(10, 1));
}

TEST(FileHandles, TheQuotaCounts) {
    CFileHost host(50'007); // outside.txt is not in it
    host.WriteFile("d/old", Bytes(20'000));
    host.Restart(50'000);
    const std::uint32_t dwOld = host.Open(u"\\d\\old");
    const std::uint32_t dwNew = host.Open(u"\\d\\new");
    EXPECT_EQ(host.Write(dwOld, Content(20'000)), 1) << "in place";
    EXPECT_EQ(host.Write(dwNew, Content(30'001)), DAK_RESULT_NO_SPACE);
    EXPECT_EQ(host.ReadFile("d/new"), Bytes()) << "refused whole";
    EXPECT_EQ(host.Write(dwNew, Content(29'999)), 1);
    EXPECT_EQ(host.Seek(dwOld, 20'001, BEGIN), 20'001U);
    EXPECT_EQ(host.Write(dwOld, {1}), DAK_RESULT_NO_SPACE) << "the hole counts";
    EXPECT_EQ(host.Seek(dwOld, 20'000, BEGIN), 20'000U);
    EXPECT_EQ(host.Write(dwOld, {1}), 1);
    EXPECT_EQ(host.Write(dwOld, {1}), DAK_RESULT_NO_SPACE);
    EXPECT_EQ(host.Push({{u"p", {1}}}), DAK_RESULT_NO_SPACE) << "one count for all";
    // Emptying and deleting give room back.
    EXPECT_NE(host.Open(u"\\d\\new", W, ALL, CREATE_ALWAYS), 0U);
    EXPECT_EQ(host.Plain(2, Text(u"\\d\\old")), 1);
    EXPECT_EQ(host.Push({{u"p", Content(50'000)}}), 1);
}

// Names may be taken from under a handle. It stays with its file.
TEST(FileHandles, DeletedReplacedAndMovedFiles) {
    CFileHost host;
    for (const bool bReplaced : {false, true}) {
        host.WriteFile("d/a", {1, 2, 3});
        const std::uint32_t dwHandle = host.Open(u"\\d\\a", R | W, 0);
        EXPECT_EQ(bReplaced ? host.Push({{u"a", {9, 9, 9, 9}}}) : host.Plain(2, Text(u"\\d\\a")),
                  1);
        EXPECT_EQ(host.Read(dwHandle, 10), (Bytes{1, 2, 3}));
        EXPECT_EQ(host.Write(dwHandle, {4}), DAK_RESULT_REFUSED) << "bytes that nobody would find";
        EXPECT_EQ(host.Seek(dwHandle, 0, END), 3U);
        const std::uint32_t dwOther = host.Open(u"\\d\\a", R | W, 0);
        EXPECT_NE(dwOther, 0U) << "another file";
        EXPECT_EQ(host.Close(dwHandle), 1);
        EXPECT_EQ(host.Read(dwOther, 10)->size(), bReplaced ? 4U : 0U);
        EXPECT_EQ(host.Close(dwOther), 1);
    }
    const std::uint32_t dwHandle = host.Open(u"\\d\\a", W, 0, CREATE_ALWAYS);
    fs::rename(host.Root() / "d/a", host.Root() / "moved");
    EXPECT_EQ(host.Write(dwHandle, {5}), 1);
    EXPECT_EQ(host.ReadFile("moved"), Bytes{5});
    // As it lies when its folder has been set aside and is not removed yet.
    fs::create_directory(host.Root() / ".dak-0-0.trash");
    fs::rename(host.Root() / "moved", host.Root() / ".dak-0-0.trash/a");
    EXPECT_EQ(host.Write(dwHandle, {6}), DAK_RESULT_REFUSED);
}

TEST(FileHandles, FilesBehindAFormat) {
    CFileHost host;
    host.onOptions = [&host](agent::CDeviceOptions& options) {
        options.bAllowFormat = true;
        fs::create_directory(host.Root() / "In");
        options.storages.push_back({"In", (host.Root() / "In").string()});
    };
    host.Restart();
    const std::uint32_t handles[] = {host.Open(u"\\d\\f"), host.Open(u"\\In\\f"),
                                     host.Open(u"\\Card\\f")};
    EXPECT_EQ(host.Plain(24, Text(u"\\")), 1);
    // Nothing has been removed yet.
    EXPECT_EQ(host.Write(handles[0], {1}), DAK_RESULT_REFUSED);
    EXPECT_EQ(host.Seek(handles[0], 0, END), 0U) << "still open";
    const std::uint32_t dwFresh = host.Open(u"\\f");
    EXPECT_EQ(host.Write(dwFresh, {2}), 1);
    EXPECT_EQ(host.Write(handles[1], {3}), 1);
    EXPECT_EQ(host.Write(handles[2], {4}), 1);
    for (std::uint64_t qwMs = 1; host.Core().NextDueMs() && qwMs < 100'000; ++qwMs) {
        host.Core().SetTime(qwMs);
    }
    EXPECT_EQ(host.Write(dwFresh, {5}), 1) << "moved up";
    EXPECT_EQ(host.ReadFile("f"), (Bytes{2, 5}));
    EXPECT_EQ(host.Plain(24, Text(u"In")), 1);
    EXPECT_EQ(host.Write(handles[1], {6}), DAK_RESULT_REFUSED);
    EXPECT_EQ(host.Write(dwFresh, {7}), 1) << "around the storage";
}

} // namespace
