// Commands and their responses, against the core on a device in memory.
#include <random>
#include <sstream>

#include "agent/command_line.h"
#include "agent/log_text.h"
#include "agent/name_queue.h"
#include "agent/open_files.h"
#include "agent/wildcard.h"
#include "tests/agent/agent_host.h"
#include "tests/agent/session_script.h"
#include "tests/support/memory_device.h"

namespace test {
namespace {

class Operations : public testing::Test {
  protected:
    Operations() { memory.MakeFolder("d"); }

    // A field as rows write it: #1 a word, ##1 two words, $01FE bytes, '' and all else texts, in
    // which %D800 is a unit, and - nothing.
    static Bytes Field(const std::string& strField) {
        if (strField[0] == '#') {
            const std::size_t dwMarks = strField.find_first_not_of('#');
            const auto llValue = std::stoll(strField.substr(dwMarks), nullptr, 0);
            return dwMarks == 2 ? U64(static_cast<std::uint64_t>(llValue))
                                : U32(static_cast<std::uint32_t>(llValue));
        }
        Bytes bytes;
        for (std::size_t i = 1; strField[0] == '$' && i < strField.size(); i += 2) {
            bytes.push_back(
                static_cast<std::uint8_t>(std::stoul(strField.substr(i, 2), nullptr, 16)));
        }
        std::u16string strText = strField == "''" ? u"" : agent::ToUtf16(strField).value();
        for (std::size_t n = strText.find(u'%'); n != std::u16string::npos;
             n = strText.find(u'%')) {
            const std::string strUnit(strText.begin() + static_cast<std::ptrdiff_t>(n) + 1,
                                      strText.begin() + static_cast<std::ptrdiff_t>(n) + 5);
            strText.replace(n, 5, 1, static_cast<char16_t>(std::stoul(strUnit, nullptr, 16)));
        }
        return strField[0] == '$' || strField == "-" ? bytes : Text(strText);
    }
    // Code and fields, and those of the response: "2 \x = 1; 25 \ = 1 ##5;".
    struct CRow {
        std::uint16_t codeFunc = 0;
        Bytes fields;
        std::int64_t llResult = 0;
        Bytes more;
    };
    static std::vector<CRow> Rows(const std::string& strRows) {
        std::vector<CRow> rows;
        std::istringstream lines(strRows);
        for (std::string strRow, strWord; std::getline(lines, strRow, ';');) {
            std::istringstream words(strRow);
            rows.emplace_back();
            words >> rows.back().codeFunc;
            for (Bytes* pSide = &rows.back().fields; words >> strWord;) {
                if (strWord == "=") {
                    words >> strWord;
                    rows.back().llResult = std::stoll(strWord, nullptr, 0);
                    pSide = &rows.back().more;
                } else {
                    *pSide = Join(*pSide, Field(strWord));
                }
            }
        }
        return rows;
    }
    void Expect(const std::vector<CRow>& rows) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(host.Call(rows[i].codeFunc, rows[i].fields),
                      Response(rows[i].codeFunc == 21 ? std::uint16_t{19} : rows[i].codeFunc,
                               static_cast<std::int32_t>(rows[i].llResult), rows[i].more))
                << "row " << i;
        }
    }
    void Expect(const std::string& strRows) { Expect(Rows(strRows)); }

    // The response to a write, and what a read brings ('A' alone: an abort).
    Bytes Write(std::uint32_t dwHandle, const Bytes& bytes, std::size_t dwAnnounced) {
        host.Put(Command(17, U32(dwHandle), U32(static_cast<std::uint32_t>(dwAnnounced))));
        EXPECT_EQ(host.TakeWord(), 'S');
        host.Send(StreamPackages(17, bytes, DAK_PACKAGE, DAK_LAST_PACKAGE, false));
        return host.Take();
    }
    Bytes Read(std::uint32_t dwHandle, std::uint32_t dwMost) {
        host.Put(Command(16, U32(dwHandle), U32(dwMost)));
        EXPECT_EQ(host.TakeWord(), 'S');
        const std::vector<Bytes> packages = host.TakeStream();
        EXPECT_TRUE(host.Shakes());
        return packages.size() == 1 ? Bytes(packages[0].begin() + 18, packages[0].end())
                                    : Bytes{'A'};
    }

    static constexpr std::uint32_t NONE = 0xFFFF'FFFF;
    static constexpr std::uint32_t R = 0x8000'0000;
    static constexpr std::uint32_t W = 0x4000'0000;
    CMemoryDevice memory;
    agent::CDeviceOptions options = ServedFrom(memory.strRoot);
    CAgentHost host{options};
};

TEST_F(Operations, HandshakesAndPackagesInParts) {
    const Bytes reply = Handshake(DAK_CONNECT, 0x30001);
    for (int i = 0; i < 3; ++i) { // the last answer stands
        host.Put(Handshake(DAK_CONNECT, 0x40000));
    }
    EXPECT_EQ(host.Take(), reply);
    EXPECT_TRUE(host.Take().empty());
    for (Bytes wrong : {Join(reply, Bytes{0}), Bytes(reply.begin(), reply.end() - 1), reply}) {
        wrong[8] = wrong.size() == reply.size() ? 11 : wrong[8]; // of another link
        host.Put(wrong);
        EXPECT_TRUE(host.Take().empty());
    }
    host.Put(Command(10, Text(u"\\x")));
    const Bytes all = Join(Ack(), Response(10, 1));
    Bytes taken;
    for (const auto& [dwMost, dwGiven] :
         {std::pair<std::size_t, std::size_t>{3, 3}, {100, 5}, {8, 8}, {9, 6}}) {
        EXPECT_EQ(host.Core().NextBytes().size() >= dwGiven, true);
        const Bytes part = host.Take(dwMost);
        EXPECT_EQ(part.size(), dwGiven);
        taken = Join(taken, part);
    }
    EXPECT_EQ(taken, all);
    host.Put(Command(2, Text(u"\\x")));
    host.Take(3); // a handshake, and the next command, drop the rest
    EXPECT_TRUE(host.Shakes());
    host.Put(Command(10, Text(u"\\y")));
    EXPECT_EQ(host.TakeWord(), 'S');
    EXPECT_EQ(host.Take(3).size(), 3U);
    Expect(R"(2 \y = 1; 2 \y = 0)");
}

// Every command, a byte short, a byte long, and right.
TEST_F(Operations, FieldsThatDoNotComeOutEvenGetSilence) {
    for (const auto& [codeFunc, fields, llResult, more] :
         Rows("1 a b; 2 a; 6; 7 a; 8 $00 a b #1 c; 8 $01 a b; 10 a; 12 a b #0; 13 #1 #2 $0304 #1 "
              "$05; 14 a;"
              "15 a #1 #1 #1; 16 #0 #0; 17 #0 #0; 18 #0 #0 #0; 19 #0; 20 a b #0; 21 a; 22 #1 #1 "
              "#1; 23; 24 a; 25 a")) {
        Bytes shorter = fields;
        shorter.resize(fields.size() - (fields.empty() ? 0 : 1));
        for (const Bytes& wrong : {shorter, Join(fields, Bytes{0})}) {
            host.Put(Command(codeFunc, wrong));
            EXPECT_TRUE((fields.empty() && wrong.empty()) || host.Take().empty()) << codeFunc;
            EXPECT_TRUE(host.Shakes());
        }
        host.Put(Command(codeFunc, fields));
        EXPECT_EQ(host.TakeWord(), 'S') << codeFunc;
        EXPECT_TRUE(host.Shakes());
    }
    Bytes direction = CAgentHost::PullFields(u"a", {});
    direction[0] = 2;
    Bytes longer = Command(2, Text(u"a")); // than it says
    --longer[DAK_OFFSET_LENGTH];
    std::vector<Bytes> packages = {{}, {1, 2, 3}, longer};
    for (const std::uint32_t dwWord : {DAK_SUCCESS, DAK_RETRANSMIT, DAK_LAST_PACKAGE}) {
        packages.push_back(Control(dwWord));
    }
    for (const Bytes& command :
         {Command(3), Command(0xFFFF), Command(8, direction),
          Package(DAK_LAST_REPLY, Join(U16(2), Text(u"a"))), Control(DAK_ABORT)}) {
        packages.push_back(command);
    }
    packages.push_back(Join(Control(DAK_ABORT), Bytes(DAK_MAXPACKAGELENGTH)));
    for (const Bytes& package : packages) {
        host.Put(package);
        EXPECT_TRUE(host.Take().empty());
    }
}

TEST_F(Operations, PathsAndWorkOnThem) {
    memory.Write("d/file", "12345").info.bReadOnly = true;
    memory.Write("o/.dak-x", "");
    Expect(
        R"(10 \new = 1; 10 \new = 0; 10 new/a = 1; 10 \\new\.\a\\b\ = 1; 2 \new = 0; 2 \new\a\b = 1;
        2 \d\file = 0; 2 \o\.dak-x = 0; 2 \ = 0; 2 '' = 0; 10 \..\x = 0; 10 \d\..\x = 0; 10 C:\x = 0;
        10 \.dak-x = 0; 10 \.DaK-y = 0; 10 \%DC00 = 0; 1 \d\file \d\g = 1; 1 \d\file \x = 0;
        1 \..\g \x = 0; 1 \d\g \.dak-x = 0; 20 \d\g \new\h #0 = 1; 20 \new \d\g #0 = 0;
        20 \new \copy #0x80000000 = 1; 20 \new \copy #0x80000000 = 0; 20 \d \copy #0 = 1)");
    EXPECT_EQ(memory.Files(),
              (TREE{{"copy/g", "12345"}, {"d/g", "12345"}, {"new/h", "12345"}, {"o/.dak-x", ""}}));
    // At each moment of the work a handshake is served at once, and ends it; no room is a failure.
    memory.nWorkSteps = 4;
    for (CRow& row : Rows(R"(1 \new \x = 1; 20 \x \y #0 = 1)")) {
        const TREE before = memory.Files();
        for (std::uint64_t nSteps = 0; nSteps < 4; ++nSteps) {
            host.Put(Command(row.codeFunc, row.fields));
            EXPECT_EQ(host.TakeWord(), 'S');
            for (std::uint64_t i = 0; i < nSteps; ++i) {
                EXPECT_TRUE(host.Core().NextDueMs());
                host.Pass(1);
            }
            EXPECT_TRUE(host.Shakes());
            EXPECT_EQ(memory.Files(), before);
        }
        memory.lpFault = [](auto strCall, auto&) {
            return strCall == "Step" ? agent::EResult::NO_SPACE : agent::EResult::SUCCESS;
        };
        EXPECT_EQ(host.Call(row.codeFunc, row.fields), Response(row.codeFunc, 0));
        memory.lpFault = nullptr;
        Expect(std::vector{row});
    }
}

// What the host is told of an entry.
struct CInfo {
    std::u16string strName;
    std::u16string strPath;
    std::u16string strType = u"File";
    std::uint32_t dwAttributes = 0x20;
    std::uint64_t qwSize = 0;
};
constexpr std::uint64_t CREATED = 0x1'0000'0001;
constexpr std::uint64_t WRITTEN = 0x1'0000'0002;
constexpr std::uint64_t READ = 0x1'0000'0003;

Bytes SizeOf(const CInfo& info) {
    return Join(U32(static_cast<std::uint32_t>(info.qwSize >> 32)),
                U32(static_cast<std::uint32_t>(info.qwSize)));
}
Bytes FileInfo(const CInfo& info) {
    const auto field = [](const std::u16string& strText, std::size_t nChars) {
        Bytes bytes = Text(strText);
        bytes.resize(2 * nChars);
        return bytes;
    };
    return Join(field(info.strName, 260), field(info.strPath, 260), field(info.strType, 80),
                U32(info.dwAttributes), U64(CREATED), U64(READ), U64(WRITTEN), SizeOf(info));
}
std::vector<Bytes> Listing(const std::vector<CInfo>& entries) {
    Bytes stream;
    for (const CInfo& info : entries) {
        const Bytes entry =
            Join(U32(info.dwAttributes), Text(info.strName), Text(info.strPath), Text(info.strType),
                 U64(info.dwAttributes ? CREATED : 0), U64(info.dwAttributes ? WRITTEN : 0),
                 U64(info.dwAttributes ? READ : 0), SizeOf(info));
        stream.insert(stream.end(), entry.begin(), entry.end());
    }
    std::vector<Bytes> packages;
    Bytes head = Join(U16(7), U32(1), U32(static_cast<std::uint32_t>(entries.size())));
    for (std::size_t dwAt = 0; dwAt < stream.size() || packages.empty(); head = U16(7)) {
        const std::size_t dwCount =
            std::min(DAK_MAXPACKAGELENGTH - head.size(), stream.size() - dwAt);
        const auto it = stream.begin() + static_cast<std::ptrdiff_t>(dwAt);
        dwAt += dwCount;
        packages.push_back(
            Package(dwAt == stream.size() ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                    Join(head, Bytes(it, it + static_cast<std::ptrdiff_t>(dwCount)))));
    }
    return packages;
}
std::vector<Bytes> List(CAgentHost& host, std::u16string_view strPath) {
    host.Put(Command(7, Text(strPath)));
    EXPECT_EQ(host.TakeWord(), 'S');
    host.Settle();
    std::vector<Bytes> packages;
    for (Bytes next = host.Take(); !next.empty(); next = host.Take()) {
        packages.push_back(next);
        const bool bLast = DakGetU32(next.data()) == DAK_LAST_REPLY;
        if (packages.size() > 1 && (bLast || packages.size() % 50 == 0)) {
            EXPECT_TRUE(host.Take().empty()) << "no wait behind " << packages.size();
            host.Put(Ack());
        }
    }
    return packages;
}

TEST_F(Operations, InfoAndListing) {
    const std::u16string strLong(200, u'e');
    const CInfo infos[] = {
        {.strName = u".hidden", .strPath = u"\\d\\.hidden", .dwAttributes = 0x22},
        {.strName = u"Read.me.txt",
         .strPath = u"\\d\\Read.me.txt",
         .strType = u"TXT file",
         .qwSize = 5},
        {.strName = u"a.", .strPath = u"\\d\\a."},
        {.strName = u"fixed", .strPath = u"\\d\\fixed", .dwAttributes = 0x21},
        {.strName = u"sub.dir",
         .strPath = u"\\d\\sub.dir",
         .strType = u"File folder",
         .dwAttributes = 0x10},
        {.strName = u"x." + strLong,
         .strPath = u"\\d\\x." + strLong,
         .strType = std::u16string(79, u'E')},
        {.strName = u"\u00FC.b", .strPath = u"\\d\\\u00FC.b", .strType = u"B file"},
        {.strName = u"\U0001F600", .strPath = u"\\d\\\U0001F600"},
    };
    for (const CInfo& info : infos) {
        const std::string strPath = "d/" + *agent::ToUtf8(info.strName);
        CMemoryEntry& entry = info.dwAttributes == 0x10
                                  ? memory.MakeFolder(strPath)
                                  : memory.Write(strPath, std::string(info.qwSize, 'x'));
        entry.info.bReadOnly = info.dwAttributes == 0x21;
        entry.info.times = {CREATED, WRITTEN};
        entry.info.ftLastAccess = READ;
        Expect({{14, Text(info.strPath), 1, FileInfo(info)}});
    }
    for (const char* lpszHidden : {".dak-own", ".DAK-own", "back\\slash", "bad\xFF"}) {
        memory.Write(std::string("d/") + lpszHidden, "");
    }
    memory.Write("d/" + std::string(260, 'z'), "");
    CMemoryEntry& shut = memory.MakeFolder("shut");
    shut.bUnreadable = true;
    // Wider than its field: cut, and not through a character.
    const std::u16string strDeep =
        u"\\" + std::u16string(124, u'x') + u"\\" + std::u16string(132, u'y') + u"\U0001F600.b";
    CMemoryEntry& deep = memory.Write(
        *agent::ToUtf8(u"" + std::u16string(124, u'x') + u"/" + strDeep.substr(126)), "");
    deep.info.times = {CREATED, WRITTEN};
    deep.info.ftLastAccess = READ;
    const Bytes deepInfo = FileInfo(
        {.strName = strDeep.substr(126), .strPath = strDeep.substr(0, 258), .strType = u"B file"});
    Expect({{14, Text(strDeep), 1, deepInfo}});
    for (const char16_t* lpszNone : {u"\\none", u"\\d\\..", u"\\d\\*"}) {
        Expect({{14, Text(lpszNone), 0, Bytes(1236)}});
    }
    EXPECT_EQ(host.Call(14, Text(u"\\shut"))[10], 1) << "also what cannot be read";
    const struct {
        const char16_t* lpszPath;
        std::vector<std::size_t> which;
        std::optional<bool> folds = false;
    } rows[] = {
        {u"\\d", {0, 1, 2, 3, 4, 5, 6, 7}},
        {u"d\\*", {0, 1, 2, 3, 4, 5, 6, 7}},
        {u"\\d\\*.*", {0, 1, 2, 3, 4, 5, 6, 7}},
        {u"\\d\\*.txt", {1}},
        {u"\\d\\r*", {}},
        {u"\\d\\r*", {1}, true},
        {u"\\d\\r*", {}, {}},
        {u"\\d\\?", {7}},
        {u"\\d\\?.b", {6}},
        {u"\\d\\.d*", {}},
        {u"\\d\\Read.me.txt", {1}},
        {u"\\d\\sub.dir", {}},
    };
    for (const auto& row : rows) {
        std::vector<CInfo> wanted;
        for (const std::size_t n : row.which) {
            wanted.push_back(infos[n]);
        }
        memory.foldsCase = row.folds;
        EXPECT_EQ(List(host, row.lpszPath), Listing(wanted)) << *agent::ToUtf8(row.lpszPath);
    }
    // What the host takes for a failure.
    const std::vector<Bytes> failed = {
        Package(DAK_LAST_REPLY, Join(U16(7), U32(0), U32(1), Bytes(2)))};
    for (const char16_t* lpszNone :
         {u"\\none", u"\\none\\*", u"\\*\\a", u"\\shut", u"\\..", u"\\d\\fixed\\*"}) {
        EXPECT_EQ(List(host, lpszNone), failed) << *agent::ToUtf8(lpszNone);
    }
    memory.lpFault = [](auto strCall, auto&) {
        return strCall == "Next" ? agent::EResult::REFUSED : agent::EResult::SUCCESS;
    };
    EXPECT_EQ(List(host, u"\\d"), failed);
}

TEST_F(Operations, LongListings) {
    std::vector<CInfo> infos;
    for (int i = 0; i < 20'000; ++i) {
        const std::string strName = std::to_string(10'000 + i);
        CMemoryEntry& entry = memory.Write("d/" + strName, "");
        entry.info.times = {CREATED, WRITTEN};
        entry.info.ftLastAccess = READ;
        const std::u16string strWide(strName.begin(), strName.end());
        infos.push_back({.strName = strWide, .strPath = u"\\d\\" + strWide});
    }
    const std::vector<Bytes> packages = Listing(infos);
    EXPECT_GT(packages.size(), 100U);
    EXPECT_TRUE(List(host, u"\\d") == packages);
    // A handshake between two slices, and between two packages; a confirmation that comes early
    // changes nothing, and a package that was dropped ends it all.
    for (const int nCase : {0, 1, 2}) {
        host.Put(Command(7, Text(u"\\d")));
        EXPECT_EQ(host.TakeWord(), 'S');
        EXPECT_TRUE(host.Take().empty());
        if (nCase > 0) {
            host.Settle();
        }
        host.Put(Ack());
        EXPECT_EQ(host.Take(100).size(), nCase > 0 ? 100U : 0U);
        if (nCase == 2) {
            host.Core().DropPending();
        } else {
            EXPECT_TRUE(host.Shakes());
        }
        EXPECT_TRUE(host.Take().empty());
        EXPECT_TRUE(host.Shakes());
    }
    // Files that go meanwhile keep their place, with nothing but texts.
    host.Put(Command(7, Text(u"\\d")));
    EXPECT_EQ(host.TakeWord(), 'S');
    host.Settle();
    memory.Remove("d");
    for (CInfo& info : infos) {
        info.dwAttributes = 0;
    }
    EXPECT_EQ(host.Take(), Listing(infos)[0]);
}

TEST_F(Operations, OpenFilesByHandle) {
    enum : std::uint32_t { NEW = 1, CREATE, EXISTING, ALWAYS, EMPTY };
    const struct {
        std::uint32_t dwAccess, dwShare, dwHow;
        bool bExists, bOpens, bKeeps;
    } rows[] = {{R, 7, NEW, false, true, false},         {R, 7, NEW, true, false, true},
                {W, 0, CREATE, false, true, false},      {R, 0, CREATE, true, true, false},
                {R, 1, EXISTING, true, true, true},      {R, 1, EXISTING, false, false, false},
                {R | W, 4, ALWAYS, true, true, true},    {R, 2, ALWAYS, false, true, false},
                {R | W, 0, EMPTY, true, true, false},    {W, 0, EMPTY, false, false, false},
                {R, 0, EMPTY, true, false, true},        {R, 0, 0, true, false, true},
                {R, 0, 6, false, false, false},          {0, 0, EXISTING, true, false, true},
                {R | 1, 0, EXISTING, true, false, true}, {R, 8, EXISTING, true, false, true}};
    std::uint32_t dwNext = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        memory.Remove("d/a");
        if (row.bExists) {
            memory.Write("d/a", "old");
        }
        const std::uint32_t dwHandle = row.bOpens ? dwNext++ : NONE;
        EXPECT_EQ(
            host.Call(15, Text(u"\\d\\a"), U32(row.dwAccess), U32(row.dwShare), U32(row.dwHow)),
            Response(15, row.bOpens, U32(dwHandle)));
        EXPECT_EQ(memory.Files(), row.bKeeps   ? (TREE{{"d/a", "old"}})
                                  : row.bOpens ? (TREE{{"d/a", ""}})
                                               : TREE{});
    }
    // The share words, as another handle finds them; then as many handles as may be open.
    memory.Write("d/s", "x");
    EXPECT_EQ(dwNext, 8U);
    Expect(
        R"(15 \d\s #0x80000000 #1 #3 = 1 #8; 15 \d\s #0x80000000 #2 #3 = 0 #-1; 15 \d\s #0x40000000 #1 #3 = 0 #-1;
        19 #8 = 1; 19 #8 = 0; 15 \d\s #0x80000000 #2 #3 = 1 #9; 15 \d\s #0x40000000 #1 #3 = 1 #10;
        15 \..\s #0x80000000 #7 #4 = 0 #-1; 15 \d #0x80000000 #7 #3 = 0 #-1; 19 #9 = 1; 19 #10 = 1)");
    memory.Write("d/b", "");
    for (int n = 11; n < 260; ++n) {
        Expect(R"(15 \d\b #0x80000000 #7 #3 = 1 #)" + std::to_string(n));
    }
    Expect(R"(15 \d\new #0x40000000 #7 #1 = 0 #-1)");
    EXPECT_FALSE(memory.entries.contains("d/new")) << "without room the disk is not touched";
    // Until one has not been used for ten minutes: the first was, the second goes.
    host.Pass(599'000);
    Expect(R"(15 \d\new #0x40000000 #7 #1 = 0 #-1; 18 #1 #0 #1 = 0)");
    host.Pass(2'000);
    Expect(R"(15 \d\none #0x80000000 #7 #3 = 0 #-1; 18 #2 #0 #1 = 0)");
    Expect(
        R"(15 \d\new #0x40000000 #7 #1 = 1 #260; 18 #1 #0 #1 = 0; 18 #2 #0 #1 = 0; 18 #3 #0 #1 = -1)");
    agent::COpenFiles files(4, NONE - 1);
    for (const std::uint32_t dwWanted : {NONE - 1, 1U, 2U, 3U}) {
        EXPECT_TRUE(files.HasRoom());
        EXPECT_EQ(files.Add({}), dwWanted);
    }
    EXPECT_FALSE(files.HasRoom());
}

TEST_F(Operations, ThePointerReadsAndWrites) {
    const Bytes data = Pattern(1000);
    memory.Write("d/a", std::string(data.begin(), data.end()));
    Expect(
        R"(15 \d\a #0xC0000000 #7 #3 = 1 #1; 18 #1 #10 #0 = 10; 18 #1 #5 #1 = 15; 18 #1 #-20 #1 = -1;
        18 #1 #0 #1 = 15; 18 #1 #-1 #0 = -1; 18 #1 #0 #2 = 1000; 18 #1 #-1001 #2 = -1; 18 #1 #7 #2 = 1007;
        18 #1 #0 #3 = -1; 18 #1 #0x7FFFFFFF #0 = 0x7FFFFFFF; 18 #1 #0x7FFFFFFF #1 = 0xFFFFFFFE;
        18 #1 #1 #1 = -1; 18 #1 #0x80000000 #1 = 0x7FFFFFFE; 18 #2 #0 #0 = -1; 18 #1 #990 #0 = 990)");
    EXPECT_EQ(Read(1, 400), Bytes(data.begin() + 990, data.end()));
    EXPECT_EQ(Read(1, 400), Bytes());
    Expect("18 #1 #50 #1 = 1050");
    EXPECT_EQ(Read(1, 400), Bytes()) << "behind the end";
    EXPECT_EQ(Write(1, {}, 0), Response(17, 1));
    EXPECT_EQ(memory.entries.at("d/a")->strBytes.size(), 1000U);
    EXPECT_EQ(Write(1, {5}, 1), Response(17, 1));
    EXPECT_EQ(memory.entries.at("d/a")->strBytes.substr(1000), std::string(50, '\0') + '\5');
    // Sizes at the ends of packages and windows; another number of bytes than announced is how a
    // lost package shows.
    for (const std::size_t dwSize : std::initializer_list<std::size_t>{
             1, DAK_DATA_SIZE, DAK_DATA_SIZE + 1, 51 * DAK_DATA_SIZE, 51 * DAK_DATA_SIZE + 1}) {
        memory.Write("d/a", "12345");
        Expect("18 #1 #5 #0 = 5");
        const Bytes bytes = Pattern(dwSize);
        EXPECT_EQ(Write(1, bytes, dwSize), Response(17, 1));
        EXPECT_TRUE(memory.entries.at("d/a")->strBytes ==
                    "12345" + std::string(bytes.begin(), bytes.end()));
        Expect("18 #1 #0 #1 = " + std::to_string(5 + dwSize));
        EXPECT_EQ(Write(1, bytes, dwSize + 1), Response(17, -2));
        EXPECT_EQ(Write(1, bytes, dwSize - 1), Response(17, -2));
    }
    // Windows reach the file one by one, and the position stays behind the last.
    const std::vector<Bytes> packages =
        StreamPackages(17, Pattern(60 * DAK_DATA_SIZE), DAK_PACKAGE, DAK_LAST_PACKAGE, false);
    for (const auto& [nSent, nHeld] :
         {std::pair<std::size_t, std::size_t>{0, 0}, {1, 1}, {30, 1}, {51, 51}, {53, 51}}) {
        for (const bool bGone : {false, true}) {
            memory.Write("d/a", "");
            Expect("18 #1 #0 #0 = 0");
            host.Put(Command(17, U32(1), U32(60 * DAK_DATA_SIZE)));
            EXPECT_EQ(host.TakeWord(), 'S');
            host.Send(packages, 0, nSent);
            bGone ? host.Core().HostGone() : static_cast<void>(host.Shakes());
            Expect("18 #1 #0 #1 = " + std::to_string(nHeld * DAK_DATA_SIZE));
            EXPECT_EQ(memory.entries.at("d/a")->strBytes.size(), nHeld * DAK_DATA_SIZE);
        }
    }
    // A handle lives as long as the device, and refuses what it may not do.
    memory.Write("d/a", "123");
    Expect(R"(15 \d\a #0x80000000 #7 #3 = 1 #2; 15 \d\a #0x40000000 #7 #3 = 1 #3)");
    EXPECT_TRUE(host.Shakes(DAK_DISCONNECT));
    EXPECT_EQ(Read(2, NONE), Bytes({'1', '2', '3'}));
    for (const std::uint32_t dwBad : {2U, 4U, 0U, NONE}) {
        EXPECT_EQ(Write(dwBad, {1}, 1), Response(17, -2));
    }
    for (const std::uint32_t dwBad : {3U, 4U, 0U, NONE}) {
        EXPECT_EQ(Read(dwBad, 1), Bytes{'A'});
    }
    memory.qwRootSize = 3 + DAK_DATA_SIZE;
    EXPECT_EQ(Write(3, Pattern(DAK_DATA_SIZE + 4), DAK_DATA_SIZE + 4), Response(17, -1));
    EXPECT_EQ(memory.Files().at("d/a"), "123") << "refused whole";
    memory.Remove("d/a");
    EXPECT_EQ(Write(3, {1}, 1), Response(17, -2));
    memory.lpFault = [](auto strCall, auto&) {
        return strCall == "Close" ? agent::EResult::NO_SPACE : agent::EResult::SUCCESS;
    };
    Expect("19 #3 = 0; 19 #3 = 0");
}

TEST_F(Operations, SpaceStoragesAndFormat) {
    const std::u16string strLong(51, u'n');
    memory.disks = {{"card", 10 << 20}, {"large", std::uint64_t{1} << 50}};
    memory.qwRootSize = 8 << 20;
    memory.Write("d/a", std::string(1 << 20, 'x'));
    options.storages = {{"Card", "card"}, {*agent::ToUtf8(strLong), "large"}};
    host.Restart(options);
    memory.Write("Card/b", std::string(2 << 20, 'x'));
    const auto record = [](std::u16string_view strName, std::uint32_t dwTotal, std::uint32_t dwFree,
                           std::uint32_t dwKind) {
        Bytes name = Text(strName);
        name.resize(104);
        return Join(name, U32(dwTotal), U32(dwFree), U32(dwKind), U32(0));
    };
    Expect({{23,
             {},
             1,
             Join(U32(3), record(u"\\", 8 << 10, 7 << 10, 1), record(u"Card", 10 << 10, 8 << 10, 2),
                  record(strLong, NONE, NONE, 2))}});
    Expect(
        R"(6 = 1 #7168 #8192; 25 '' = 1 ##7340032; 25 \d = 1 ##7340032; 25 /Card/ = 1 ##8388608; 25 \new = 0 ##0;
        25 \d\a = 0 ##0; 25 \d\.. = 0 ##0; 24 Card = 0; 24 \ = 0)");
    options.bAllowFormat = true;
    options.qwQuota = 4 << 20;
    host.Restart(options);
    Expect(
        R"(6 = 1 #1024 #4096; 24 '' = 0; 24 . = 0; 24 \. = 0; 24 \\ = 0; 24 d = 0; 24 new = 0; 24 card = 0;
        24 Card\b = 0; 24 .. = 0; 24 C: = 0; 24 %D800 = 0)");
    EXPECT_EQ(memory.Files().size(), 2U);
    host.Put(Command(24, Text(u"Card")));
    EXPECT_EQ(host.TakeWord(), 'S');
    EXPECT_EQ(host.Take(), Response(24, 1));
    EXPECT_TRUE(host.Core().NextDueMs()) << "work in the background";
    host.Settle();
    EXPECT_FALSE(host.Core().NextDueMs());
    EXPECT_EQ(memory.Files().size(), 1U);
    Expect(R"(24 \ = 1)");
    EXPECT_EQ(memory.entries.size(), 3U);
}

TEST_F(Operations, ProgramsControlsAndMessages) {
    std::vector<std::string> notices;
    memory.Write("d/tell", "");
    memory.otherPrograms = {"tool"};
    options.system.strName = "n\xC3\xA4me";
    options.system.strVersion = "1.2";
    options.system.messageCommands = {"note"};
    options.system.lpNotice = [&](const std::string& strLine) { notices.push_back(strLine); };
    host.Restart(options);
    Expect(R"(12 \d\tell '' #0 = 0 #0)"); // commands for messages allow no programs
    options.system.bAllowExec = true;
    host.Restart(options);
    const Bytes three = Text(u"a 'b c' \x4E2D");
    Expect({{12, Join(Text(u"\\d\\tell"), three, U32(0)), 1, U32(0)}});
    Expect(
        R"(12 tool '' #0 = 1 #0; 12 \tool '' #1 = 0 #0; 12 \d '' #1 = 0 #0; 12 \..\tool '' #1 = 0 #0;
        12 \d\tell 'open #1 = 0 #0; 12 \d\tell %D800 #1 = 0 #0)");
    ASSERT_EQ(memory.Programs().size(), 2U);
    EXPECT_EQ(memory.Programs()[0].arguments,
              (std::vector<std::string>{"a", "b c", "\xE4\xB8\xAD"}));
    // Who waits gets the status, when there is one; a handshake ends the waiting alone.
    for (const bool bLeaves : {true, false}) {
        host.Put(Command(12, Text(u"\\d\\tell"), Text(u""), U32(1)));
        EXPECT_EQ(host.TakeWord(), 'S');
        host.Pass(5000);
        EXPECT_TRUE(host.Take().empty());
        EXPECT_TRUE(host.Core().NextDueMs());
        EXPECT_TRUE(!bLeaves || host.Shakes());
    }
    for (std::uint32_t i = 0; i < 4; ++i) {
        memory.EndProgram(i, 7 + i);
    }
    host.Pass(1);
    EXPECT_EQ(host.Take(), Response(12, 1, U32(10)));

    // Code, input, room for output, result, output.
    const auto control = [](std::uint32_t dwCode, const Bytes& input, std::uint32_t nOutSize) {
        return Join(U32(dwCode), U32(static_cast<std::uint32_t>(input.size())), input,
                    U32(nOutSize), Bytes(nOutSize, 0xEE));
    };
    host.Restart(options);
    host.Pass(0);
    host.Pass(77);
    std::istringstream rows(
        "1 - 1 1 - 1 $05 1 1 $05 1 $0506 4 1 $0506 1 $0506 1 0 - 2 - 8 1 1.2 3 $01 100 1 n%00E4me "
        "3 - 9 0 - 4 - 8 1 ##77 4 - 7 0 - 5 $010000 4 0 - 5 #600001 4 0 - 0 - 4 0 - 6 - 4 0 -");
    std::string strInput;
    std::string strOutput;
    std::int32_t nResult = 0;
    for (std::uint32_t dwCode, nOutSize;
         rows >> dwCode >> strInput >> nOutSize >> nResult >> strOutput;) {
        const Bytes output = Field(strOutput);
        host.Put(Command(13, control(dwCode, Field(strInput), nOutSize)));
        EXPECT_EQ(host.TakeWord(), 'S');
        EXPECT_EQ(host.Take(),
                  Response(13, nResult, U32(static_cast<std::uint32_t>(output.size()))));
        EXPECT_EQ(host.Take(), output) << dwCode << " " << nOutSize;
        EXPECT_TRUE(host.Take().empty());
    }
    host.Put(Command(13, control(1, Pattern(100'000), 100'000)));
    EXPECT_EQ(host.TakeWord(), 'S');
    EXPECT_EQ(host.Take(), Response(13, 1, U32(100'000)));
    EXPECT_TRUE(host.Take(200'000) == Pattern(100'000));
    // Without room for output no response is sent, and the work is done though nobody comes for
    // one.
    EXPECT_TRUE(host.Call(13, control(1, {1}, 0)).empty());
    EXPECT_TRUE(host.Call(13, control(5, U32(300), 0)).empty());
    for (const auto& [qwMs, bUp] :
         {std::pair<std::uint64_t, bool>{999, true}, {1, false}, {299, false}, {1, true}}) {
        host.Pass(qwMs);
        EXPECT_EQ(host.Core().LinkUp(), bUp) << qwMs;
    }
    Expect("21 one%000A = 0xC000; 21 two = 0xC001; 21 one%000A = 0xC000; 21 '' = 0; 21 %D800 = 0; "
           "21 " +
           std::string(256, 'x') + " = 0; 21 " + std::string(255, 'x') +
           " = 0xC002; 22 #0 #1 #2 = 0; 22 #0xC001 #7 #-2 = 1; 22 #1024 #-1 #3 = 1;"
           "22 #0xC000 #0 #0 = 1");
    EXPECT_EQ(notices, (std::vector<std::string>{"message 0xC001 \"two\" wParam 7 lParam -2",
                                                 "message 0x0400 wParam 4294967295 lParam 3",
                                                 "message 0xC000 \"one?\" wParam 0 lParam 0"}));
    EXPECT_EQ(memory.Messages()[0],
              (agent::CDeviceProcesses::CVariables{{"DAK_MESSAGE", "49153"},
                                                   {"DAK_MESSAGE_NAME", "two"},
                                                   {"DAK_WPARAM", "7"},
                                                   {"DAK_LPARAM", "-2"}}));
    for (std::uint32_t i = 0xC003; i <= 0xFFFF; ++i) {
        Expect("21 " + std::to_string(i) + " = " + std::to_string(i));
    }
    Expect("21 more = 0; 21 65535 = 65535");
}

TEST(Texts, CommandLinesPatternsAndNames) {
    using Words = std::vector<std::string>;
    const std::pair<const char*, std::optional<Words>> lines[] = {
        {"", Words{}},
        {" \t a  b\n", Words{"a", "b"}},
        {R"(a" b "c'd e'f)", Words{"a b cd ef"}},
        {R"("" '' x)", Words{"", "", "x"}},
        {R"('a\b"c' "d'e")", Words{R"(a\b"c)", "d'e"}},
        {R"("\a\"\\\$\`")", Words{R"(\a"\$`)"}},
        {R"(a\ b \"c\' \\)", Words{"a b", R"("c')", R"(\)"}},
        {"a\\\nb \"c\\\nd\" 'e\\\nf'", Words{"ab", "cd", "e\\\nf"}},
        {"$HOME * #x ; |", Words{"$HOME", "*", "#x", ";", "|"}},
        {"\xC3\xA4 \"\xE4 \"", Words{"\xC3\xA4", "\xE4 "}},
        {"a 'b", {}},
        {"a \"b", {}},
        {R"("a\")", {}},
        {R"(a\)", {}}};
    for (const auto& [lpszLine, words] : lines) {
        EXPECT_EQ(agent::SplitCommandLine(lpszLine), words) << lpszLine;
    }
    // Pattern, name, and whether it matches: always, with letters folded, or never.
    std::istringstream patterns(
        "* - y ? - n a*c abcbc y a*c abcb n A*.T?T abc.txt f a?c a\u00FCc y a??c a\u00FCc n *ab "
        "aab y "
        "*\u00FC \u00FC\u00FC y a ab n ab a n a* a y *.* none y *.?* none n");
    for (std::string strPattern, strName, strMatches;
         patterns >> strPattern >> strName >> strMatches;) {
        strName = strName == "-" ? "" : strName;
        const bool bExact = agent::CWildcard(strPattern, false).Matches(strName);
        const bool bFolded = agent::CWildcard(strPattern, true).Matches(strName);
        EXPECT_EQ(bExact ? "y" : bFolded ? "f" : "n", strMatches) << strPattern << " " << strName;
        EXPECT_TRUE(bFolded || !bExact);
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
TEST(Core, AnythingAtAnyMoment) {
    const char* lpszSeed = std::getenv("DAK_AGENT_SEED");
    const std::uint32_t dwFirst =
        lpszSeed ? static_cast<std::uint32_t>(std::strtoul(lpszSeed, nullptr, 10)) : 1;
    for (std::uint32_t dwSeed = dwFirst; dwSeed <= (lpszSeed ? dwFirst : 100); ++dwSeed) {
        SCOPED_TRACE("to repeat: DAK_AGENT_SEED=" + std::to_string(dwSeed) +
                     " agent_tests --gtest_filter=Core.AnythingAtAnyMoment");
        CMemoryDevice memory;
        agent::CDeviceOptions options = ServedFrom(memory.strRoot);
        options.bAllowFormat = dwSeed % 4 == 0;
        options.system.bAllowExec = true;
        options.qwQuota = dwSeed % 3 == 0 ? std::optional<std::uint64_t>(5'000'000) : std::nullopt;
        CAgentHost host(options);
        memory.Write("d/there", std::string(40'000, 't'));
        std::mt19937 random(dwSeed);
        memory.nWorkSteps = 1 + dwSeed % 3;
        memory.lpFault = [&](std::string_view, const std::string&) {
            return random() % 16 > 1 ? agent::EResult::SUCCESS
                                     : static_cast<agent::EResult>(1 + random() % 2);
        };
        for (int nRun = 0; nRun < 4; ++nRun) {
            RunSessionScript(host.Core(),
                             Pattern(200 + random() % 2000, static_cast<std::uint32_t>(random())));
        }
        memory.lpFault = nullptr;
        ASSERT_TRUE(host.Shakes());
        CFileRecord file{.strName = u"after", .bytes = Pattern(20'000, dwSeed)};
        ASSERT_EQ(host.Push({file}, u"\\fresh"), Response(8, 1));
        ASSERT_TRUE(host.Pull(u"\\fresh", {u"after"}) == CAgentHost::PullPackages({file}));
        for (const auto& [strPath, strBytes] : memory.Files()) {
            ASSERT_EQ(strPath.find(".dak-"), std::string::npos) << strPath;
        }
    }
}

} // namespace
} // namespace test
