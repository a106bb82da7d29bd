// The agent's core, package by package: commands and their responses, streams and what becomes of
// them under every fault.
#include <random>

#include "agent/command_line.h"
#include "agent/log_text.h"
#include "agent/name_queue.h"
#include "agent/open_files.h"
#include "agent/wildcard.h"
#include "tests/agent/session.h"

namespace test {
namespace {

// Every command with its fields.
constexpr const char* COMMANDS[] = {"1 a b",
                                    "2 a",
                                    "6",
                                    "7 a",
                                    "8 $00 a b #1 c",
                                    "8 $01 a b",
                                    "10 a",
                                    "12 a b #0",
                                    "13 #1 #2 $0304 #1 $05",
                                    "14 a",
                                    "15 a #1 #1 #1",
                                    "16 #0 #0",
                                    "17 #0 #0",
                                    "18 #0 #0 #0",
                                    "19 #0",
                                    "20 a b #0",
                                    "21 a",
                                    "22 #1 #1 #1",
                                    "23",
                                    "24 a",
                                    "25 a"};

TEST(Session, PackagesThatGetSilence) {
    CSession session;
    Bytes longer = Command(2, Text(u"a")); // than it says
    --longer[DAK_OFFSET_LENGTH];
    Bytes otherLink = Handshake(DAK_CONNECT);
    otherLink[8] ^= 1;
    std::vector<Bytes> silent = {{},
                                 {1, 2, 3},
                                 longer,
                                 otherLink,
                                 Join(Handshake(DAK_CONNECT), Bytes{0}),
                                 Command(3),
                                 Command(0xFFFF),
                                 CSession::CommandOf("8 $02 a b #0"),
                                 Package(DAK_LAST_REPLY, Join(U16(2), Text(u"a"))),
                                 Join(Control(DAK_ABORT), Bytes(DAK_MAXPACKAGELENGTH))};
    for (const std::uint32_t dwWord : {DAK_SUCCESS, DAK_RETRANSMIT, DAK_LAST_PACKAGE, DAK_ABORT}) {
        silent.push_back(Control(dwWord));
    }
    for (const char* lpszCommand : COMMANDS) {
        const Bytes command = CSession::CommandOf(lpszCommand);
        const Bytes fields(command.begin() + DAK_COMMAND_PAYLOAD_OFFSET, command.end());
        const auto codeFunc = static_cast<std::uint16_t>(std::stoul(lpszCommand));
        silent.push_back(Command(codeFunc, fields, Bytes{0}));
        if (!fields.empty()) {
            silent.push_back(Command(codeFunc, Bytes(fields.begin(), fields.end() - 1)));
        }
        session.Put(command);
        EXPECT_EQ(session.Word(), "S") << lpszCommand;
        EXPECT_TRUE(session.Shakes());
    }
    for (std::size_t i = 0; i < silent.size(); ++i) {
        session.Put(silent[i]);
        EXPECT_EQ(session.Word(), "-") << i;
    }
}

TEST(Session, HandshakesAndPackagesInParts) {
    CSession session;
    for (int i = 0; i < 3; ++i) { // the last answer stands
        session.Put(Handshake(DAK_CONNECT, 0x40000));
    }
    EXPECT_EQ(session.Take(), Handshake(DAK_CONNECT, 0x30001));
    session.Put(Command(10, Text(u"\\x")));
    Bytes taken;
    for (const std::size_t dwMost : {3U, 100U, 8U, 9U}) {
        EXPECT_FALSE(session.Core().NextBytes().empty());
        taken = Join(taken, session.Take(dwMost));
    }
    EXPECT_EQ(taken, Join(Ack(), Response(10, 1)));
    // A handshake, and the next command, drop the rest.
    session.Play(R"(word = -; 2 \x; part 3 = 3; shake; 10 \y; part 3 = 3; 2 \y = 1; 2 \y = 0)");
}

TEST(Session, PathsAndWorkOnThem) {
    PlayRows<CSession>(R"(
- folders and paths:
    10 \new = 1; 10 \new = 0; 10 new/a = 1; 10 \\new\.\a\\b\ = 1; 2 \new = 0; 2 \new\a\b = 1; 2 \ = 0;
    10 \..\x = 0; 10 \d\..\x = 0; 10 C:\x = 0; 10 \.dak-x = 0; 10 \.DaK-y = 0; 10 \%DC00 = 0; 2 '' = 0
- copies and moves:
    lay d/f=12345 o/.dak-x=x new; 2 \o\.dak-x = 0; 1 \d\f \d\g = 1; 1 \d\f \x = 0; 1 \..\g \x = 0;
    1 \d\g \.dak-x = 0; 20 \d\g \new\h #0 = 1; 20 \new \d\g #0 = 0; 20 \new \copy #0x80000000 = 1;
    20 \new \copy #0x80000000 = 0; 20 \d \copy #0 = 1;
    files = copy/g=12345 d/g=12345 new/h=12345 o/.dak-x=x
- work that a handshake ends:
    lay d/a=1; steps 4; 1 \d\a \x; shake; 1 \d\a \x; pass 1; shake; 20 \d\a \x #0; due; pass 1; pass 1;
    word = -; shake; files = d/a=1; 20 \d\a \x #0 = 1
- work that fails: lay d/a=1; fault Step full; 1 \d\a \x = 0; 20 \d\a \x #0 = 0; files = d/a=1
)");
}

// What the host is told of an entry of d.
struct CInfo {
    std::u16string strName;
    std::u16string strType = u"File";
    std::uint32_t dwAttributes = 0x20;
    std::string strBytes = {};
    std::u16string strFolder = u"\\d\\";

    // In fields of so many characters, cut and not through one, or in texts that follow each other.
    Bytes Put(std::size_t nName, std::size_t nType) const {
        const auto text = [](const std::u16string& strText, std::size_t nChars) {
            Bytes bytes = Text(strText.substr(0, nChars == 260 ? 258 : nChars));
            bytes.resize(nChars == SIZE_MAX ? bytes.size() : 2 * nChars);
            return bytes;
        };
        return Join(text(strName, nName), text(strFolder + strName, nName), text(strType, nType));
    }
    Bytes Size() const { return Join(U32(0), U32(static_cast<std::uint32_t>(strBytes.size()))); }
    Bytes Info() const {
        return Join(Put(260, 80), U32(dwAttributes), U64(1), U64(3), U64(2), Size());
    }
    Bytes Entry() const {
        const std::uint64_t qwOne =
            dwAttributes != 0 ? 1 : 0; // an entry that has gone has texts alone
        return Join(U32(dwAttributes), Put(SIZE_MAX, SIZE_MAX), U64(qwOne), U64(2 * qwOne),
                    U64(3 * qwOne), Size());
    }
    void Lay(CMemoryDevice& memory) const {
        std::string strPath = *agent::ToUtf8(strFolder.substr(1) + strName);
        std::replace(strPath.begin(), strPath.end(), '\\', '/');
        CMemoryEntry& entry =
            dwAttributes == 0x10 ? memory.MakeFolder(strPath) : memory.Write(strPath, strBytes);
        entry.info.bReadOnly = dwAttributes == 0x21;
        entry.info.times = {1, 2};
        entry.info.ftLastAccess = 3;
    }
};

Bytes ListingOf(const std::vector<CInfo>& infos) {
    Bytes stream = Join(U32(1), U32(static_cast<std::uint32_t>(infos.size())));
    for (const CInfo& info : infos) {
        const Bytes entry = info.Entry();
        stream.insert(stream.end(), entry.begin(), entry.end());
    }
    return stream;
}
// What came of a listing, confirmed as a host does it: package 50, 100 and so on and the last, but
// never the first.
Bytes List(CSession& session, const std::u16string& strPath) {
    Bytes stream;
    std::size_t nPackages = 0;
    for (Bytes next = session.Call(Command(7, Text(strPath))); !next.empty();
         next = session.Take()) {
        const bool bLast = DakGetU32(next.data()) == DAK_LAST_REPLY;
        EXPECT_EQ(DakGetU16(&next[DAK_OFFSET_CODE]), 7);
        EXPECT_TRUE(bLast || next.size() == DAK_PACKAGE_SIZE);
        stream.insert(stream.end(), next.begin() + DAK_COMMAND_PAYLOAD_OFFSET, next.end());
        if (++nPackages > 1 && (bLast || nPackages % 50 == 0)) {
            EXPECT_EQ(session.Word(), "-");
            session.Put(Ack());
        }
    }
    return stream;
}

TEST(Session, InfoAndListing) {
    CSession session;
    const std::u16string strLong = u"x." + std::u16string(200, u'e');
    const CInfo infos[] = {{u".hidden", u"File", 0x22},
                           {u"Read.me.txt", u"TXT file", 0x20, "12345"},
                           {u"a."},
                           {u"fixed", u"File", 0x21},
                           {u"sub.dir", u"File folder", 0x10},
                           {strLong, std::u16string(79, u'E')},
                           {u"\u00FC.b", u"B file"},
                           {u"\U0001F600"}};
    // Wider than its field: cut, and not through a character.
    const CInfo deep{std::u16string(132, u'y') + u"\U0001F600.b",
                     u"B file",
                     0x20,
                     {},
                     u"\\" + std::u16string(124, u'x') + u"\\"};
    deep.Lay(session.memory);
    EXPECT_EQ(session.Call(Command(14, Text(deep.strFolder + deep.strName))),
              Response(14, 1, deep.Info()));
    for (const CInfo& info : infos) {
        info.Lay(session.memory);
        EXPECT_EQ(session.Call(Command(14, Text(u"\\d\\" + info.strName))),
                  Response(14, 1, info.Info()));
    }
    for (const char* lpszHidden : {"d/.dak-own", "d/.DAK-own", "d/back\\slash", "d/bad\xFF"}) {
        session.memory.Write(lpszHidden, "");
    }
    session.memory.Write("d/" + std::string(260, 'z'), "");
    session.memory.MakeFolder("shut").bUnreadable = true;
    EXPECT_EQ(session.Call(Command(14, Text(u"\\none"))), Response(14, 0, Bytes(1236)));
    EXPECT_EQ(session.Call(Command(14, Text(u"\\shut")))[10], 1) << "also what cannot be read";
    // A pattern, whether letters are folded, and which entries come; x for what the host takes for
    // a failure.
    std::istringstream rows(R"(\d n 01234567 d\* n 01234567 \d\*.* n 01234567 \d\*.txt n 1 \d\r* n -
        \d\r* y 1 \d\r* ? - \d\? n 7 \d\?.b n 6 \d\.d* n - \d\Read.me.txt n 1 \d\sub.dir n -
        \none n x \none\* n x \*\a n x \shut n x \.. n x \d\fixed\* n x)");
    for (std::string strPath, strFolds, strCome; rows >> strPath >> strFolds >> strCome;) {
        std::vector<CInfo> wanted;
        for (const char ch : strCome == "-" || strCome == "x" ? "" : strCome) {
            wanted.push_back(infos[ch - '0']);
        }
        session.memory.foldsCase = strFolds == "?" ? std::nullopt : std::optional(strFolds == "y");
        EXPECT_EQ(List(session, *agent::ToUtf16(strPath)),
                  strCome == "x" ? Join(U32(0), U32(1), Bytes(2)) : ListingOf(wanted))
            << strPath;
    }
    session.Play("fault Next refused");
    EXPECT_EQ(List(session, u"\\d"), Join(U32(0), U32(1), Bytes(2)));
}

TEST(Session, LongListings) {
    CSession session;
    std::vector<CInfo> infos;
    for (int i = 10'000; i < 30'000; ++i) {
        infos.push_back({*agent::ToUtf16(std::to_string(i))});
        infos.back().Lay(session.memory);
    }
    EXPECT_TRUE(List(session, u"\\d") == ListingOf(infos));
    // A handshake between two slices, and between two packages; a confirmation that comes early
    // changes nothing, and a package that was dropped ends it all.
    session.Play(
        R"(7 \d; word = -; shake; word = -; 7 \d; settle; ack;
        part 100 = 100; shake; word = -; 7 \d; settle; part 100 = 100; drop; word = -; shake)");
    // Files that go meanwhile keep their place, with nothing but texts.
    session.Play(R"(7 \d; settle; rm d)");
    infos[0].dwAttributes = 0;
    const Bytes first = session.Take();
    const Bytes entry = infos[0].Entry();
    EXPECT_TRUE(
        std::equal(entry.begin(), entry.end(), first.begin() + DAK_COMMAND_PAYLOAD_OFFSET + 8));
}

TEST(Session, OpenFilesByHandle) {
    PlayRows<CSession>(R"(
- BY is: 15 \d\a #0x80000000
- WRITING is: 15 \d\a #0x40000000
- made new and not anew: BY #7 #1 = 1 #1; files = d/a=; lay d/a=old; BY #7 #1 = 0 #-1; files = d/a=old
- made always: WRITING #0 #2 = 1 #1; files = d/a=; 19 #1 = 1; lay d/a=old; BY #0 #2 = 1 #2; files = d/a=
- open: BY #1 #3 = 0 #-1; files =; lay d/a=old; BY #1 #3 = 1 #1; files = d/a=old
- open always: BY #2 #4 = 1 #1; files = d/a=; lay d/a=old; 15 \d\a #0xC0000000 #4 #4 = 0 #-1; 19 #1 = 1;
    15 \d\a #0xC0000000 #4 #4 = 1 #2; files = d/a=old
- emptied: WRITING #0 #5 = 0 #-1; lay d/a=old; BY #0 #5 = 0 #-1; files = d/a=old; WRITING #0 #5 = 1 #1;
    files = d/a=
- words that are none: lay d/a=old; BY #0 #0 = 0 #-1; BY #0 #6 = 0 #-1; BY #8 #3 = 0 #-1;
    15 \d\a #0 #0 #3 = 0 #-1; 15 \d\a #0x80000001 #0 #3 = 0 #-1; 15 \..\a #0x80000000 #7 #4 = 0 #-1;
    15 \d #0x80000000 #7 #3 = 0 #-1; files = d/a=old
- shared: lay d/a=x; BY #1 #3 = 1 #1; BY #2 #3 = 0 #-1; WRITING #1 #3 = 0 #-1; 19 #1 = 1; 19 #1 = 0;
    BY #2 #3 = 1 #2; WRITING #1 #3 = 1 #3
)");
    // As many as may be, until one has not been used for ten minutes; without room the disk is not
    // touched.
    CSession session;
    session.Play("lay d/b=");
    for (int n = 1; n < 257; ++n) {
        session.Play(R"(15 \d\b #0x80000000 #7 #3 = 1 #)" + std::to_string(n));
    }
    session.Play(
        R"(15 \d\n #0x40000000 #7 #1 = 0 #-1; files = d/b=; pass 599000; 15 \d\n #0x40000000 #7 #1 = 0 #-1;
        18 #1 #0 #1 = 0; pass 2000; 15 \d\none #0x80000000 #7 #3 = 0 #-1; 18 #2 #0 #1 = 0;
        15 \d\n #0x40000000 #7 #1 = 1 #257; 18 #1 #0 #1 = 0; 18 #2 #0 #1 = 0; 18 #3 #0 #1 = -1)");
    agent::COpenFiles files(4, UINT32_MAX - 1);
    for (const std::uint32_t dwWanted : {UINT32_MAX - 1, 1U, 2U, 3U}) {
        EXPECT_TRUE(files.HasRoom());
        EXPECT_EQ(files.Add({}), dwWanted);
    }
    EXPECT_FALSE(files.HasRoom());
}

TEST(Session, PointerReadsAndWrites) {
    PlayRows<CSession>(R"(
- OPEN is: lay d/a.txt=12345; 15 \d\a.txt #0xC0000000 #7 #3 = 1 #1
- positions:
    OPEN; 18 #1 #3 #0 = 3; 18 #1 #5 #1 = 8; 18 #1 #-20 #1 = -1; 18 #1 #0 #1 = 8; 18 #1 #-1 #0 = -1;
    18 #1 #0 #2 = 5; 18 #1 #-6 #2 = -1; 18 #1 #7 #2 = 12; 18 #1 #0 #3 = -1;
    18 #1 #0x7FFFFFFF #0 = 0x7FFFFFFF; 18 #1 #0x7FFFFFFF #1 = 0xFFFFFFFE; 18 #1 #1 #1 = -1;
    18 #1 #0x80000000 #1 = 0x7FFFFFFE; 18 #2 #0 #0 = -1
- behind the end: OPEN; 18 #1 #7 #0 = 7; 16 #1 #9; part 99 = 18; shake; write #1 1 1; send 1; word = 1;
    18 #1 #0 #1 = 8
- what a handle may not:
    lay d/a.txt=123; 15 \d\a.txt #0x80000000 #7 #3 = 1 #1; 15 \d\a.txt #0x40000000 #7 #3 = 1 #2; leave;
    write #1 1; send 1; word = -2; write #3 1; send 1; word = -2; 16 #2 #1; word = A; shake; 16 #3 #1;
    word = A; shake; files = d/a.txt=123; rm d/a.txt; write #2 1; send 1; word = -2; fault Close full;
    19 #2 = 0; 19 #2 = 0
- no room for its end: OPEN; room 12000; write #1 2; send 2; word = -1; files = d/a.txt=12345
- fewer or more bytes than announced, X of lose twice: OPEN; write #1 40; send 40 X 30; word = -2
- there and back, N of 1 2 51 52 102:
    OPEN; write #1 N; send N; word = 1; whole; 18 #1 #0 #0 = 0; read #1 N; get N; word = -; 10 \next = 1
- FIRST is: 18 #1 #0 #0 = 0
- a write cut short, X of shake gone:
    OPEN; write #1 60; X; at #1 = 0; write #1 60; send 1; X; at #1 = 1; FIRST; write #1 60; send 30; X;
    at #1 = 1; FIRST; write #1 60; send 53; X; at #1 = 51
- a read cut short, X of stop shake gone drop:
    OPEN; read #1 120; pass 1; X; shake; at #1 = 0; read #1 120; get 30; pass 1; X; shake; at #1 = 30;
    FIRST; read #1 120; get 50; pass 1; X; shake; at #1 = 50; FIRST; read #1 120; get 99; pass 1; X; shake;
    at #1 = 99
- a read cut short in the middle of a package, and ahead of a confirmation:
    OPEN; read #1 120; get 70; part 3 = 3; drop; word = -; shake; at #1 = 70; FIRST; read #1 120; get 49;
    part 12288 = 12288; pass 1; shake; at #1 = 49
- a read whose file got short: OPEN; read #1 120; get 30; lay d/a.txt=1; get 120 = 51A; shake; at #1 = 50
)");
}

TEST(Session, CopiesToTheDevice) {
    PlayRows<CSession>(R"(
- answers where windows end, N of 1 2 50 51 52 101 102: push N; send N; word = 1; whole
- slow:
    push 60; pass 4999; send 1; pass 4999; send 7; pass 4999; send 51; pass 4999; send 60; word = 1; whole
- BAD is: send 95 20^02 74 = R; send 95; word = 1; whole
- bad in a byte, in what the head says or in size, X of 6150^01 9^80 12^19 4^01 7^FF 0^57 0^01 ~6144 ~3:
    push 95; send 51; send 95 X 73 = R; BAD
- bad where windows begin and end, X of 20^01 ~3:
    push 95; send 1 X 1 = R; send 51 X 2 = R; send 51 X 51 = R; send 51; send 95 X 95 = R; BAD
- the end sent again at the full size:
    push 95; send 51; send 95 9^01 94 = R; send 95 ~12288 95; word = 1; whole
- lost, also where windows begin alike, X of - zeroes:
    push 120 - X; send 51; send 101 lose 71 = -; pass 5000; word = R; send 120; word = 1; whole
- bad or doubled, X of - zeroes, Y of twice 20^01:
    push 120 - X; send 51; send 101 Y 71 = R; send 120; word = 1; whole
- AGAIN is: pass 0; pass 4999; word = -; pass 1; word = R; back
- its verdict was lost, X of - zeroes, N of 1 51 101:
    push 120 - X; send N; AGAIN; send N; AGAIN; send 120; word = 1; whole
- OLD is: word = -; files = d/a.txt=old; push 1; send 1; word = 1; whole
- given up, N of 0 1 30 51 52: lay d/a.txt=old; push 120; send N; send 120 abort = A; word = 0; OLD
- cut short, N of 0 1 30 51 52, X of shake leave gone: lay d/a.txt=old; push 120; send N; X; OLD
- sent again and given up:
    lay d/a.txt=old; push 95; send 51 9^01 30 = R; send 30; send 95 abort = A; word = 0; OLD
)");
    // The parser gets whole windows, the first of which is one package: every byte of a record
    // meets its end.
    for (std::size_t dwCut = 0; dwCut < 24 + 12 + 3; ++dwCut) {
        const std::string strFill = std::to_string(DAK_DATA_SIZE - 32 - dwCut);
        CSession().Play(
            "stream #3 ##" + strFill + " ##1 ##2 f \"f*" + strFill +
            " ##2 ##1 ##2 \u00e4\U0001F600.b \"78 ##1 ##1 ##2 z \"1 = 1; files = d/f=f*" + strFill +
            " d/z=1 d/\u00e4\U0001F600.b=78");
    }
}

// Whole streams, their result, and what they leave in d. A refused file costs those behind it
// nothing, but a disk without room, or records that have lost their order, drop the rest.
TEST(Session, WhatAStreamComesTo) {
    PlayRows<CSession>(R"(
- A is: ##1 ##2 ##3 a "1
- B is: ##70000 ##2 ##3 b "b*70000
- C is: ##1 ##2 ##3 c "3
- two files: stream #2 A B = 1; files = d/a=1 d/b=b*70000
- nothing: stream = -2; files =
- none: stream #0 = 1; files =
- fewer than announced: stream #3 A = 1; files = d/a=1
- cut in the contents: stream #2 A ##70000 ##2 ##3 b "b*69999 = -2; files = d/a=1
- cut in a head, X of "x ##1: stream #2 A X = -2; files = d/a=1
- cut in a name: stream #2 A ##1 ##2 ##3 $6100 = -2; files = d/a=1
- more than announced: stream #1 A "x = -2; files = d/a=1
- 4 GiB: stream #1 ##0x100000001 ##2 ##3 a "1 = -2; files =
- the longest name: stream #1 ##1 ##2 ##3 n*259 "1 = 1
- a longer one: stream #3 B ##1 ##2 ##3 n*260 "1 A = -2; files = d/b=b*70000
- one refused: stream #3 A ##70000 ##2 ##3 ..\b "b*70000 B = -2; files = d/a=1 d/b=b*70000
- one without room, X of BeginPart Write Complete:
    lay d/b=2; fault X full d/b; stream #3 A B C = -1; files = d/a=1 d/b=2
- one that the folder refuses, X of BeginPart Write Complete:
    lay d/b=2; fault X refused d/b; stream #3 A B C = -2; files = d/a=1 d/b=2 d/c=3
- no place for a file, X of ..\a x\..\..\a \a /a C:\a c:a '' . .dak-0.part x\.DaK-0 %D800: stream #1 ##0 ##2 ##3 X = -2; files =
- no folder for files: stream #1 A = 1; 8 $01 s \..\x; send 1; word = -2; files = d/a=1
)");
}

TEST(Session, StreamsFromTheDevice) {
    PlayRows<CSession>(R"(
- waits where windows end, N of 1 2 49 50 51 100 101, X of 100 12274:
    pull N - X; settle; get N; word = -; 10 \next = 1
- a file that is another behind its last byte: pull 121; get 5; touch; get 121 = 121A
- a file that got short: pull 121; get 5; lay d/a.txt=1; get 121 = 6A; shake
- a file that fails: pull 121; get 5; fault Read refused; get 121 = 6A
- a list that cannot be made: lay d/n/1=x; fault Next refused d/n; 8 $00 \ C:\t #1 d; settle; word = A
- OPEN is: lay d/a.txt=12345; 15 \d\a.txt #0xC0000000 #7 #3 = 1 #1
- what is bad comes again, and what was confirmed too, N of 0 6 49 56 100 129:
    OPEN; pull 130; settle; get N; part 14 = 14; again; get 130; word = -; read #1 130; get N;
    part 14 = 14; again; get 130; word = -
- a read of a file that is another by then gives the window that it holds, N of 0 6 49:
    OPEN; read #1 130; get N; part 14 = 14; touch; again; get 130 = 51A
- a copy of a file that is another by then gives nothing more, N of 0 6 49:
    pull 130; settle; get N; part 14 = 14; touch; again; get 130 = 1A
- and nothing behind what is confirmed: pull 130; get 56; part 14 = 14; touch; again; get 130 = 51A
)");
    CSession session; // every byte of a small one
    session.memory.Write("a", "\7").info.times = {2, 3};
    session.Play(R"(8 $00 \ C:\t #1 a; settle)");
    EXPECT_EQ(session.Take(14), (Bytes{0x22, 0xE0, 0, 0, 43, 0, 0, 0, 120, 0, 0, 0, 8, 0}));
    EXPECT_EQ(session.Take(), Join(U32(1), U32(1), U64(1), U64(2), U64(3), Text(u"a"), Bytes{7}));
}

// The command's names meet the end of a piece in every byte.
TEST(Session, CommandsInPieces) {
    CSession session;
    session.memory.Write("d/\u00e4\U0001F600.b", "").info.times = {1, 2};
    const Bytes name = Text(u"\u00e4\U0001F600.b");
    constexpr std::size_t PIECE = DAK_PACKAGE_SIZE - 10;
    const auto put = [&](const Bytes& payload, std::size_t dwAt, std::uint16_t codeFunc = 8) {
        const std::size_t dwSize = std::min(PIECE, payload.size() - dwAt);
        Bytes piece = Command(codeFunc, Bytes(&payload[dwAt], &payload[dwAt] + dwSize));
        DakPutU32(piece.data(), dwAt + dwSize < payload.size() ? DAK_PACKAGE : DAK_LAST_PACKAGE);
        session.Put(piece);
        return session.Word();
    };
    for (std::size_t dwCut = 1; dwCut <= name.size(); dwCut += 2) {
        Bytes names; // that are not there fill the room ahead
        std::uint32_t nNames = 1;
        const Bytes head = Join(Bytes{0}, Text(u"\\d"), Text(u"t"));
        for (std::size_t dwRoom = PIECE - head.size() - 4 - dwCut; dwRoom > 0; ++nNames) {
            const std::size_t dwTake = dwRoom > 410 ? 400 : dwRoom;
            names = Join(names, Text(std::u16string(dwTake / 2 - 1, u'n')));
            dwRoom -= dwTake;
        }
        const Bytes payload = Join(head, U32(nNames), names, name);
        EXPECT_EQ(put(payload, 0), "S");
        EXPECT_EQ(put(payload, PIECE), "S");
        session.Settle();
        EXPECT_EQ(session.Take(14).size(), 14U);
        EXPECT_EQ(session.Take(), Join(U32(1), U32(1), U64(0), U64(1), U64(2), name)) << dwCut;
        session.Play("shake");
    }
    // A piece of another command, or of another size, spoils its chain and no other; a handshake
    // ends one; more than 16 MiB are none.
    const Bytes payload(3 * PIECE);
    for (const bool bForeign : {true, false}) {
        EXPECT_EQ(put(payload, 0), "S");
        EXPECT_EQ(bForeign ? put(payload, PIECE, 10) : put(Bytes(2 * PIECE - 2), PIECE), "-");
        EXPECT_EQ(put(payload, 2 * PIECE), "-");
    }
    EXPECT_EQ(put(payload, 0), "S");
    session.Play(R"(shake; 10 \next = 1)");
    std::size_t nPieces = 0;
    while (nPieces < 5000 && put(payload, 0) == "S") {
        ++nPieces;
    }
    EXPECT_EQ(nPieces, (std::size_t{16} << 20) / PIECE);
    EXPECT_TRUE(session.Shakes());
}

TEST(Session, WhatANameBrings) {
    CSession session;
    const std::string strWide = std::string(130, 'n') + "/" + std::string(129, 'n');
    std::istringstream paths(
        "b sub/z sub/deep/er/y empty .dak-1.part back\\slash bad\xFF shut ../other " + strWide);
    for (std::string strPath; paths >> strPath;) {
        session.memory.Write(strPath == "../other" ? "other" : "d/" + strPath, "").info.times = {1,
                                                                                                 2};
    }
    session.memory.MakeFolder("d/hollow");
    session.memory.entries.at("d/shut")->bUnreadable = true;
    session.Play(
        R"(names \d b nothing sub = b sub\deep\er\y sub\z; names d\ sub/./deep\ hollow empty = sub\deep\er\y empty;
        names \ d\sub = d\sub\deep\er\y d\sub\z; names \d '' = b empty sub\deep\er\y sub\z; names \missing other =;
        names \..\root other =; names \d shut ..\other \other C:\other .dak-1.part back\slash =)");
    // More than one slice of looking, in the middle of which a handshake is served; and more names
    // than one command may come to.
    std::string strMany;
    for (int i = 10'000; i < 15'000; ++i) {
        session.memory.Write("m/" + std::to_string(i), "").info.times = {1, 2};
        strMany += (strMany.empty() ? "m\\" : " m\\") + std::to_string(i);
    }
    session.Play(R"(8 $00 \ C:\t #1 m; word = -; shake)");
    EXPECT_EQ(session.Do("names \\ m", strMany), strMany);
    for (int i = 0; i < 1200; ++i) { // 64 MiB and more
        session.memory.Write("l/" + std::string(60'000, 'n') + std::to_string(i), "");
    }
    session.Play(R"(8 $00 \ C:\t #1 l; settle; word = A)");
}

TEST(Session, SpaceStoragesAndFormat) {
    CSession session;
    const std::string strLong(51, 'n');
    session.memory.disks = {{"card", 10 << 20}, {"large", std::uint64_t{1} << 50}};
    session.memory.qwRootSize = 8 << 20;
    session.memory.Write("d/a", std::string(1 << 20, 'x'));
    session.options.storages = {{"Card", "card"}, {strLong, "large"}};
    session.Restart();
    session.memory.Write("Card/b", std::string(2 << 20, 'x'));
    const auto record = [](const std::u16string& strName, std::uint32_t dwTotal,
                           std::uint32_t dwFree, std::uint32_t dwKind) {
        Bytes name = Text(strName);
        name.resize(104);
        return Join(name, U32(dwTotal), U32(dwFree), U32(dwKind), U32(0));
    };
    EXPECT_EQ(session.Call(Command(23)),
              Response(23, 1, U32(3), record(u"\\", 8 << 10, 7 << 10, 1),
                       record(u"Card", 10 << 10, 8 << 10, 2),
                       record(*agent::ToUtf16(strLong), UINT32_MAX, UINT32_MAX, 2)));
    session.Play(
        R"(6 = 1 #7168 #8192; 25 '' = 1 ##7340032; 25 \d = 1 ##7340032; 25 /Card/ = 1 ##8388608;
        25 \new = 0 ##0; 25 \d\a = 0 ##0; 25 \d\.. = 0 ##0; 24 Card = 0; 24 \ = 0)");
    session.options.bAllowFormat = true;
    session.options.qwQuota = 4 << 20;
    session.Restart();
    session.Play(
        R"(6 = 1 #1024 #4096; 24 '' = 0; 24 . = 0; 24 \. = 0; 24 \\ = 0; 24 d = 0; 24 new = 0;
        24 card = 0; 24 Card\b = 0; 24 .. = 0; 24 C: = 0; 24 %D800 = 0; files = Card/b=x*2097152 d/a=x*1048576;
        24 Card; word = 1; due; settle; !due; files = d/a=x*1048576; 24 \ = 1; files =)");
}

TEST(Session, ProgramsControlsAndMessages) {
    CSession session;
    std::vector<std::string> notices;
    session.memory.Write("d/tell", "");
    session.memory.otherPrograms = {"tool"};
    session.options.system.strName = "n\xC3\xA4me";
    session.options.system.strVersion = "1.2";
    session.options.system.messageCommands = {"note"};
    session.options.system.lpNotice = [&](const std::string& strLine) {
        notices.push_back(strLine);
    };
    session.Restart();
    session.Play(R"(12 \d\tell '' #0 = 0 #0)"); // commands for messages allow no programs
    session.options.system.bAllowExec = true;
    session.Restart();
    EXPECT_EQ(session.Call(Command(12, Text(u"\\d\\tell"), Text(u"a 'b c' \x4E2D"), U32(0))),
              Response(12, 1, U32(0)));
    // Who waits gets the status, when there is one; a handshake ends the waiting alone.
    session.Play(
        R"(12 tool '' #0 = 1 #0; 12 \tool '' #1 = 0 #0; 12 \d '' #1 = 0 #0; 12 \..\tool '' #1 = 0 #0;
        12 \d\tell 'open #1 = 0 #0; 12 \d\tell %D800 #1 = 0 #0; 12 \d\tell '' #1; pass 5000; word = -; due; shake;
        12 \d\tell '' #1; pass 5000; word = -; due)");
    EXPECT_EQ(session.memory.Programs()[0].arguments,
              (std::vector<std::string>{"a", "b c", "\xE4\xB8\xAD"}));
    for (std::uint32_t i = 0; i < 4; ++i) {
        session.memory.EndProgram(i, 7 + i);
    }
    session.Pass(1);
    EXPECT_EQ(session.Take(), Response(12, 1, U32(10)));
    session.Restart();
    session.Pass(77);
    // Code, input, room for output; result and output. Without room no response is sent, and the
    // work is done though nobody comes for one.
    session.Play(
        R"(13 #1 #0 #1 "e = 1 #0; 13 #1 #1 $05 #1 "e = 1 #1 $05; 13 #1 #2 $0506 #4 "e*4 = 1 #2 $0506;
        13 #1 #2 $0506 #1 "e = 0 #0; 13 #2 #0 #8 "e*8 = 1 #8 1.2; 13 #3 #1 $01 #99 "e*99 = 1 #10 n%00E4me;
        13 #3 #0 #9 "e*9 = 0 #0; 13 #4 #0 #8 "e*8 = 1 #8 ##77; 13 #4 #0 #7 "e*7 = 0 #0; 13 #0 #0 #4 "e*4 = 0 #0;
        13 #5 #3 $010000 #4 "e*4 = 0 #0; 13 #5 #4 #600001 #4 "e*4 = 0 #0; 13 #6 #0 #4 "e*4 = 0 #0;
        13 #1 #99999 "x*99999 #99999 "e*99999 = 1 #99999 "x*99999; 13 #1 #1 $05 #0; word = -;
        13 #5 #4 #300 #0; word = -; pass 999; up; pass 1; !up; pass 299; !up; pass 1; up)");
    session.Play("21 one%000A = 0xC000; 21 two = 0xC001; 21 one%000A = 0xC000; 21 '' = 0; 21 %D800 "
                 "= 0; 21 x*256 = 0;"
                 "21 x*255 = 0xC002; 22 #0 #1 #2 = 0; 22 #0xC001 #7 #-2 = 1; 22 #1024 #-1 #3 = 1; "
                 "22 #0xC000 #0 #0 = 1");
    EXPECT_EQ(notices, (std::vector<std::string>{"message 0xC001 \"two\" wParam 7 lParam -2",
                                                 "message 0x0400 wParam 4294967295 lParam 3",
                                                 "message 0xC000 \"one?\" wParam 0 lParam 0"}));
    EXPECT_EQ(session.memory.Messages()[0],
              (agent::CDeviceProcesses::CVariables{{"DAK_MESSAGE", "49153"},
                                                   {"DAK_MESSAGE_NAME", "two"},
                                                   {"DAK_WPARAM", "7"},
                                                   {"DAK_LPARAM", "-2"}}));
    for (std::uint32_t i = 0xC003; i <= 0xFFFF; ++i) {
        session.Call(Command(21, Text(*agent::ToUtf16(std::to_string(i)))));
    }
    session.Play("21 more = 0; 21 65535 = 65535");
}

TEST(Texts, CommandLinesPatternsAndNames) {
    // In lines \t \n and \\ as in C; words with a bar between them, or ! for none.
    const std::pair<const char*, const char*> lines[] = {
        {"", ""},
        {" \t a  b\n", "a|b|"},
        {R"(a" b "c'd e'f)", "a b cd ef|"},
        {R"("" '' x)", "||x|"},
        {R"('a\b"c' "d'e")", R"(a\b"c|d'e|)"},
        {R"("\a\"\\\$\`")", R"(\a"\$`|)"},
        {R"(a\ b \"c\' \\)", R"(a b|"c'|\|)"},
        {"a\\\nb \"c\\\nd\" 'e\\\nf'", "ab|cd|e\\\nf|"},
        {"$HOME * #x ;", "$HOME|*|#x|;|"},
        {"\xC3\xA4 \"\xE4 \"", "\xC3\xA4|\xE4 |"},
        {"a 'b", "!"},
        {"a \"b", "!"},
        {R"("a\")", "!"},
        {R"(a\)", "!"}};
    for (const auto& [lpszLine, lpszWords] : lines) {
        std::string strWords;
        const auto words = agent::SplitCommandLine(lpszLine);
        for (const std::string& strWord : words.value_or(std::vector<std::string>())) {
            strWords += strWord + "|";
        }
        EXPECT_EQ(words ? strWords : "!", lpszWords) << lpszLine;
    }
    // Pattern, name, and whether it matches: always, with letters folded, or never.
    std::istringstream patterns(
        "* - y ? - n a*c abcbc y a*c abcb n A*.T?T abc.txt f a?c a\u00FCc y a??c a\u00FCc n "
        "*ab aab y *\u00FC \u00FC\u00FC y a ab n ab a n a* a y *.* none y *.?* none n");
    for (std::string strPattern, strName, strMatches;
         patterns >> strPattern >> strName >> strMatches;) {
        strName = strName == "-" ? "" : strName;
        const bool bExact = agent::CWildcard(strPattern, false).Matches(strName);
        const bool bFolded = agent::CWildcard(strPattern, true).Matches(strName);
        EXPECT_EQ(bExact && bFolded ? "y"
                  : bFolded         ? "f"
                                    : "n",
                  strMatches)
            << strPattern << " " << strName;
    }
    EXPECT_EQ(agent::Printable("a\x1B[\x7F\n\xC2\x9B\xC2\xA0\xC3\x9F"), "a?[???\xC2\xA0\xC3\x9F");
    agent::CNameQueue queue;
    for (const char* lpszName : {"b", "a", "", "ab", "a\xFF"}) {
        EXPECT_TRUE(queue.Push(lpszName, 32)); // 12 bytes of names and 20 of the rest
    }
    EXPECT_FALSE(queue.Push("c", 32));
    for (const char* lpszName : {"", "a", "ab", "a\xFF", "b"}) {
        EXPECT_EQ(queue.Pop(), lpszName);
    }
}

// Random packages, exchanges that begin well and are then spoilt, and calls that fail. Whatever
// came, the next handshake is served, a copy goes there and back, and nothing is left of what was
// cut short.
TEST(Session, AnythingAtAnyMoment) {
    for (std::uint32_t dwSeed = 1; dwSeed <= 40; ++dwSeed) {
        SCOPED_TRACE(dwSeed);
        CSession session;
        std::mt19937 random(dwSeed);
        session.options.bAllowFormat = dwSeed % 4 == 0;
        session.options.system.bAllowExec = true;
        session.Restart();
        session.memory.Write("a", std::string(40'000, 't'));
        session.memory.nWorkSteps = 1 + dwSeed % 3;
        session.memory.lpFault = [&](auto, auto&) {
            return static_cast<agent::EResult>(random() % 16 > 1 ? 0 : 1 + random() % 2);
        };
        const Bytes push = CSession::CommandOf("8 $01 a d");
        const std::vector<Bytes> packages =
            StreamPackages(8, Join(U32(1), Record({.strName = u"x", .bytes = Pattern(900'000)})),
                           DAK_PACKAGE, DAK_LAST_PACKAGE, true);
        for (int i = 0; i < 2000; ++i) {
            const auto nWhat = random() % 20;
            Bytes package =
                nWhat < 3   ? CSession::CommandOf(COMMANDS[random() % std::size(COMMANDS)])
                : nWhat < 4 ? push
                : nWhat < 14
                    ? packages[random() % 6 == 0 ? random() % packages.size()
                                                 : static_cast<std::size_t>(i) % packages.size()]
                : nWhat < 15
                    ? Pattern(random() % 30, dwSeed)
                    : Control(std::array{DAK_SUCCESS, DAK_RETRANSMIT, DAK_ABORT}[random() % 3]);
            if (random() % 8 == 0 && !package.empty()) {
                package[random() % package.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
            }
            session.Put(package);
            session.Take(random() % 4 == 0 ? 3 : DAK_PACKAGE_SIZE);
            random() % 16 == 0 ? session.Pass(random() % 6000) : void();
            random() % 32 == 0 ? session.Core().DropPending() : void();
        }
        session.memory.lpFault = nullptr;
        session.Play("shake; lay d; push 3; send 3; word = 1; whole; pull 3; settle; get 3");
        for (const auto& [strPath, strBytes] : session.memory.Files()) {
            ASSERT_EQ(strPath.find(".dak-"), std::string::npos) << strPath;
        }
    }
}

} // namespace
} // namespace test
