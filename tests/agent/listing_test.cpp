// What the host is told of the device's files: the record of one, and the listing of a folder.
#include "agent_host.h"

#include <set>

#include <fcntl.h>
#include <sys/stat.h>

#include "agent/name_queue.h"
#include "agent/wildcard.h"

namespace {

namespace fs = std::filesystem;

struct CInfo {
    std::u16string strName;
    std::u16string strPath;
    std::u16string strType;
    std::uint32_t dwAttributes = 0;
    std::uint64_t ftCreation = 0;
    std::uint64_t ftLastWrite = 0;
    std::uint64_t ftLastAccess = 0;
    std::uint64_t qwSize = 0;
};

std::uint64_t U64(const std::uint8_t* lpBytes) {
    return DakGetU32(lpBytes) | (std::uint64_t{DakGetU32(lpBytes + 4)} << 32);
}

// Up to its terminator, which must stand within the units given.
std::u16string TextAt(const std::uint8_t* lpBytes, std::size_t nUnits) {
    std::u16string strText;
    for (std::size_t i = 0; i < nUnits; ++i) {
        const std::uint16_t wUnit = DakGetU16(lpBytes + 2 * i);
        if (wUnit == 0) {
            return strText;
        }
        strText.push_back(static_cast<char16_t>(wUnit));
    }
    ADD_FAILURE() << "no terminator";
    return {};
}

std::optional<CInfo> FileInfo(CAgentHost& host, std::u16string_view strPath) {
    host.Put(Command(14, Text(strPath)));
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    const Bytes reply = host.Take();
    if (reply.size() != 1250 || DakGetU32(reply.data()) != DAK_LAST_REPLY ||
        DakGetU16(reply.data() + 8) != 14 || !host.Take().empty()) {
        ADD_FAILURE() << "bad reply";
        return std::nullopt;
    }
    const std::uint8_t* lpRecord = reply.data() + 14;
    if (DakGetU32(reply.data() + 10) == 0) {
        EXPECT_EQ(std::count(reply.begin() + 14, reply.end(), 0), 1236);
        return std::nullopt;
    }
    return CInfo{TextAt(lpRecord, 260),
                 TextAt(lpRecord + 520, 260),
                 TextAt(lpRecord + 1040, 80),
                 DakGetU32(lpRecord + 1200),
                 U64(lpRecord + 1204),
                 U64(lpRecord + 1220),
                 U64(lpRecord + 1212),
                 DakGetU32(lpRecord + 1232) | (std::uint64_t{DakGetU32(lpRecord + 1228)} << 32)};
}

// The packages of a listing, confirmed where a host does.
std::vector<Bytes> Packages(CAgentHost& host, std::u16string_view strPath) {
    host.Put(Command(7, Text(strPath)));
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    while (const std::optional<std::uint64_t> qwDueMs = host.Core().NextDueMs()) {
        host.Core().SetTime(*qwDueMs);
    }
    std::vector<Bytes> packages;
    for (bool bLast = false; !bLast;) {
        const Bytes package = host.Take();
        if (package.size() < 10 || DakGetU32(package.data() + 4) != package.size() - 8 ||
            DakGetU16(package.data() + 8) != 7) {
            ADD_FAILURE() << "bad package of " << package.size();
            return packages;
        }
        packages.push_back(package);
        bLast = DakGetU32(package.data()) == DAK_LAST_REPLY;
        EXPECT_TRUE(bLast || (DakGetU32(package.data()) == DAK_REPLY_PACKAGE &&
                              package.size() == DAK_PACKAGE_SIZE));
        if (packages.size() > 1 && (bLast || packages.size() % 50 == 0)) {
            EXPECT_TRUE(host.Take().empty()) << "no wait after " << packages.size();
            host.Put(Control(DAK_SUCCESS));
        }
    }
    EXPECT_TRUE(host.Take().empty());
    return packages;
}

// Nothing when the reply is one that the host takes for a failure.
std::optional<std::vector<CInfo>> List(CAgentHost& host, std::u16string_view strPath) {
    const std::vector<Bytes> packages = Packages(host, strPath);
    Bytes stream;
    for (std::size_t i = 0; i < packages.size(); ++i) {
        Append(stream, Bytes(packages[i].begin() + (i == 0 ? 18 : 10), packages[i].end()));
    }
    stream.resize(stream.size() + 1236); // reads of whole fields never run out
    std::vector<CInfo> entries;
    std::size_t dwAt = 0;
    std::uint32_t nEntries = packages.empty() ? 0 : DakGetU32(packages[0].data() + 14);
    for (; nEntries > 0 && dwAt + 1236 < stream.size(); --nEntries) {
        CInfo info;
        info.dwAttributes = DakGetU32(stream.data() + dwAt);
        dwAt += 4;
        for (auto [lpText, nUnits] : {std::pair{&info.strName, 260}, std::pair{&info.strPath, 260},
                                      std::pair{&info.strType, 80}}) {
            *lpText = TextAt(stream.data() + dwAt, static_cast<std::size_t>(nUnits));
            dwAt += 2 * lpText->size() + 2;
        }
        info.ftCreation = U64(stream.data() + dwAt);
        info.ftLastWrite = U64(stream.data() + dwAt + 8);
        info.ftLastAccess = U64(stream.data() + dwAt + 16);
        info.qwSize = DakGetU32(stream.data() + dwAt + 28) |
                      (std::uint64_t{DakGetU32(stream.data() + dwAt + 24)} << 32);
        dwAt += 32;
        entries.push_back(info);
    }
    if (nEntries > 0 || dwAt + 1236 > stream.size()) {
        EXPECT_EQ(packages.size(), 1U);
        EXPECT_EQ(entries.size(), 1U); // of nothing but the zeroes put behind
        return std::nullopt;
    }
    EXPECT_EQ(dwAt + 1236, stream.size());
    return entries;
}

std::vector<std::u16string> Names(CAgentHost& host, std::u16string_view strPath) {
    std::vector<std::u16string> names;
    const auto entries = List(host, strPath);
    if (!entries) {
        return {u"!"};
    }
    for (const CInfo& info : *entries) {
        names.push_back(info.strName);
    }
    return names;
}

using U16 = std::vector<std::u16string>;

TEST(FileInfo, FieldsOfFilesAndFolders) {
    CAgentHost host;
    host.WriteFile("d/Read.me.txt", Content(5));
    host.WriteFile("d/.hidden", {});
    host.WriteFile("d/dot.", {});
    host.WriteFile("d/none", {});
    host.WriteFile("d/x." + std::string(200, 'e'), {});
    fs::permissions(host.Root() / "d/none", fs::perms(0444));
    fs::create_directory(host.Root() / "d/.sub.dir");
    fs::create_symlink("Read.me.txt", host.Root() / "d/link.lnk");
    fs::create_symlink("../../outside.txt", host.Root() / "d/out");
    ASSERT_EQ(::truncate((host.Root() / "d/none").c_str(), 0x1'2345'6789), 0);
    const std::u16string strLong(200, u'E');
    struct CCase {
        std::u16string strPath;
        CInfo info;
    };
    const CCase cases[] = {
        {u"\\d/Read.me.txt", {u"Read.me.txt", u"\\d\\Read.me.txt", u"TXT file", 0x20, 0, 0, 0, 5}},
        {u"d\\.hidden", {u".hidden", u"\\d\\.hidden", u"File", 0x22}},
        {u"\\d\\dot.", {u"dot.", u"\\d\\dot.", u"File", 0x20}},
        {u"\\d\\none", {u"none", u"\\d\\none", u"File", 0x21, 0, 0, 0, 0x1'2345'6789}},
        {u"\\d\\link.lnk", {u"link.lnk", u"\\d\\link.lnk", u"LNK file", 0x20, 0, 0, 0, 5}},
        {u"\\d\\.sub.dir\\", {u".sub.dir", u"\\d\\.sub.dir", u"File folder", 0x12}},
        {u"\\Card", {u"Card", u"\\Card", u"File folder", 0x10}},
        {u"\\", {u"\\", u"\\", u"File folder", 0x10}},
        {u"\\d\\x." + std::u16string(200, u'e'),
         {u"x." + std::u16string(200, u'e'), u"\\d\\x." + std::u16string(200, u'e'),
          strLong.substr(0, 79), 0x20}},
    };
    for (const CCase& c : cases) {
        const std::optional<CInfo> info = FileInfo(host, c.strPath);
        ASSERT_TRUE(info) << std::string(c.strPath.begin(), c.strPath.end());
        EXPECT_EQ(info->strName, c.info.strName);
        EXPECT_EQ(info->strPath, c.info.strPath);
        EXPECT_EQ(info->strType, c.info.strType);
        EXPECT_EQ(info->dwAttributes, c.info.dwAttributes);
        EXPECT_EQ(info->qwSize, c.info.qwSize);
        EXPECT_NE(info->ftCreation, 0U);
    }
    for (const char16_t* lpszNone :
         {u"\\none", u"\\d\\out", u"\\..\\outside.txt", u"\\d\\*", u""}) {
        EXPECT_EQ(FileInfo(host, lpszNone).has_value(), *lpszNone == 0);
    }
    // A path wider than its field is cut, and not through a character.
    const std::u16string strDeep = u"\\d\\" + std::u16string(124, u'x') + u"\\" +
                                   std::u16string(130, u'y') + u"\U0001F600.txt";
    host.WriteFile(
        "d/" + std::string(124, 'x') + "/" + std::string(130, 'y') + "\xF0\x9F\x98\x80.txt", {});
    const std::optional<CInfo> deep = FileInfo(host, strDeep);
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->strPath, strDeep.substr(0, 258));
    EXPECT_EQ(deep->strName, strDeep.substr(128));
}

TEST(FileInfo, TimesStandWhereTheyBelong) {
    CAgentHost host;
    // What a copy has brought is what the record and the listing tell.
    const CFileRecord file{u"f", {1}, 131'000'000'000'000'001, 132'000'000'001'234'567};
    ASSERT_EQ(host.Push({file}), 1);
    struct timespec times[2] = {{1'600'000'000, 500}, {0, UTIME_OMIT}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (host.Root() / "d/f").c_str(), times, 0), 0);
    const auto entries = List(host, u"\\d");
    ASSERT_TRUE(entries && entries->size() == 1);
    for (const CInfo& info : {*FileInfo(host, u"\\d\\f"), entries->front()}) {
        EXPECT_EQ(info.ftLastWrite, file.ftLastWrite);
        EXPECT_EQ(info.ftLastAccess, 116'444'736'000'000'000 + 16'000'000'000'000'005);
        EXPECT_NE(info.ftCreation, info.ftLastAccess);
    }
    EXPECT_EQ(FileInfo(host, u"\\d\\f")->ftCreation, entries->front().ftCreation);
}

TEST(Listing, FoldersFilesAndPatterns) {
    CAgentHost host;
    for (const char* lpszName :
         {"b.txt", "a.TXT", "a", "\xC3\xBC.txt", "\xF0\x9F\x98\x80", ".hidden", ".dak-own",
          ".DAK-own", "back\\slash", "bad\xFF", "star*"}) {
        host.WriteFile(std::string("d/") + lpszName, Content(3));
    }
    // Longer than the field: 100 characters are that in bytes, not in what the host counts.
    host.WriteFile("d/" + std::string(255, 'z'), {});
    fs::create_directory(host.Root() / "d/sub");
    fs::create_directory_symlink("sub", host.Root() / "d/tosub");
    fs::create_symlink("a", host.Root() / "d/toa");
    fs::create_symlink("none", host.Root() / "d/dangling");
    fs::create_directory_symlink(host.Base(), host.Root() / "d/out");
    ASSERT_EQ(::mkfifo((host.Root() / "d/fifo").c_str(), 0600), 0);
    fs::create_directory(host.Root() / "Card"); // behind the storage of that name
    host.WriteFile("Card/hidden-by-the-storage", {});
    std::ofstream(host.Base() / "card" / "on-card") << "x";

    const U16 all = {u".hidden",    u"a",         u"a.TXT",
                     u"b.txt",      u"star*",     u"sub",
                     u"toa",        u"tosub",     std::u16string(255, u'z'),
                     u"\u00FC.txt", u"\U0001F600"};
    const struct {
        const char16_t* lpszPath;
        U16 names;
    } cases[] = {
        {u"\\d", all},
        {u"d\\", all},
        {u"\\d\\*", all},
        {u"\\d\\*.*", all},
        {u"\\d\\**", all},
        {u"\\d\\*.txt", {u"b.txt", u"\u00FC.txt"}},
        {u"\\d\\?.txt", {u"b.txt", u"\u00FC.txt"}},
        {u"\\d\\?", {u"a", u"\U0001F600"}},
        {u"\\d\\t*a*", {u"toa"}},
        {u"\\d\\A*", {}},
        {u"\\d\\*s*u*b", {u"sub", u"tosub"}},
        {u"\\d\\st*r*", {u"star*"}},
        {u"\\d\\.d*", {}},
        {u"\\d\\a.TXT", {u"a.TXT"}},
        {u"\\d\\sub", {}},
        {u"\\", {u"Card", u"d"}},
        {u"\\C*", {u"Card"}},
        {u"\\Card", {u"on-card"}},
        {u"\\none", {u"!"}},
        {u"\\none\\*", {u"!"}},
        {u"\\*\\a", {u"!"}},
        {u"\\d\\a\\*", {u"!"}},
        {u"\\d\\out", {u"!"}},
        {u"\\..", {u"!"}},
        {u"\\..\\*", {u"!"}},
    };
    for (const auto& c : cases) {
        const std::u16string strPath = c.lpszPath;
        EXPECT_EQ(Names(host, strPath), c.names) << std::string(strPath.begin(), strPath.end());
    }
    const auto entries = List(host, u"\\d\\t*");
    ASSERT_TRUE(entries && entries->size() == 2);
    EXPECT_EQ(entries->at(0).qwSize, 3U);
    EXPECT_EQ(entries->at(1).strPath, u"\\d\\tosub");
    EXPECT_EQ(entries->at(1).dwAttributes, 0x10U);
}

TEST(Listing, ManyEntriesInTheirOrderAndTheSameAgain) {
    CAgentHost host;
    std::set<std::u16string> names;
    for (int i = 0; i < 20'000; ++i) {
        const std::string strName = std::to_string(i * 7919 % 100'003);
        std::ofstream{host.Root() / "d" / strName};
        names.insert(std::u16string(strName.begin(), strName.end()));
    }
    const std::vector<Bytes> packages = Packages(host, u"\\d");
    EXPECT_GT(packages.size(), 100U);
    EXPECT_EQ(Names(host, u"\\d"), U16(names.begin(), names.end()));
    EXPECT_EQ(Packages(host, u"\\d"), packages);

    // A handshake between two slices and between two packages; a confirmation that comes early
    // changes nothing.
    for (const bool bGathered : {false, true}) {
        host.Put(Command(7, Text(u"\\d")));
        ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
        ASSERT_TRUE(host.Take().empty());
        while (bGathered && host.Core().NextDueMs()) {
            host.Core().SetTime(*host.Core().NextDueMs());
        }
        host.Put(Control(DAK_SUCCESS));
        EXPECT_EQ(host.Take().size(), bGathered ? DAK_PACKAGE_SIZE : 0);
        ASSERT_TRUE(host.Handshake());
        EXPECT_TRUE(host.Take().empty());
    }

    // Files that go between the count and their turn keep their place, with nothing but texts.
    host.Put(Command(7, Text(u"\\d")));
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    while (host.Core().NextDueMs()) {
        host.Core().SetTime(*host.Core().NextDueMs());
    }
    fs::remove_all(host.Root() / "d");
    const Bytes first = host.Take();
    ASSERT_EQ(first.size(), DAK_PACKAGE_SIZE);
    EXPECT_EQ(DakGetU32(first.data() + 14), names.size());
    EXPECT_EQ(DakGetU32(first.data() + 18), 0U);
    EXPECT_EQ(TextAt(first.data() + 22, 260), *names.begin());
}

TEST(Listing, NamesAreHeldWithinTheirBound) {
    agent::CNameQueue queue;
    for (const char* lpszName : {"b", "a", "", "ab", "a\xFF"}) {
        EXPECT_TRUE(queue.Push(lpszName, 32)); // 12 bytes of names and 20 of the rest
    }
    EXPECT_FALSE(queue.Push("c", 32));
    std::vector<std::string> names;
    while (queue.Size() > 0) {
        names.emplace_back(queue.Pop());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"", "a", "ab", "a\xFF", "b"}));
}

TEST(Listing, PatternsWithAndWithoutCase) {
    const struct {
        const char* lpszPattern;
        const char* lpszName;
        bool bExact;
        bool bFolded;
    } cases[] = {
        {"*", "", true, true},
        {"?", "", false, false},
        {"a*c", "abcbc", true, true},
        {"a*c", "abcb", false, false},
        {"A*.T?T", "abc.txt", false, true},
        {"a?c",
         "a\xC3\xBC"
         "c",
         true, true},
        {"a??c",
         "a\xC3\xBC"
         "c",
         false, false},
        {"*ab", "aab", true, true},
        {"*\xC3\xBC", "\xC3\xBC\xC3\xBC", true, true},
        {"a", "ab", false, false},
        {"ab", "a", false, false},
        {"a*", "a", true, true},
        {"*.*", "none", true, true},
        {"*.?*", "none", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(agent::CWildcard(c.lpszPattern, false).Matches(c.lpszName), c.bExact)
            << c.lpszPattern << " " << c.lpszName;
        EXPECT_EQ(agent::CWildcard(c.lpszPattern, true).Matches(c.lpszName), c.bFolded)
            << c.lpszPattern << " " << c.lpszName;
    }
}

} // namespace
