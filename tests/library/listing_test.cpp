// Folder listings: entries, packages and windows, and replies that are none.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

// An entry as it comes; the seed makes its numbers.
Bytes Entry(DWORD dwSeed, const WideText& strText1 = DAK_WIDE("a"),
            const WideText& strText2 = DAK_WIDE("bc"), const WideText& strText3 = DAK_WIDE("def")) {
    return Join(U32(dwSeed), Text(strText1), Text(strText2), Text(strText3), Pattern(32, dwSeed));
}
// The same as it comes out: the texts ahead of the attributes, in fields of their own size, and the
// last access ahead of the last write.
Bytes Info(const Bytes& entry) {
    Bytes info;
    std::size_t dwAt = 4;
    for (const std::size_t dwField : {520u, 520u, 160u}) {
        const std::size_t dwBegin = dwAt;
        for (; entry[dwAt] != 0 || entry[dwAt + 1] != 0; dwAt += 2) {
        }
        Bytes field = Part(entry, dwBegin, dwAt);
        field.resize(dwField);
        info = Join(info, field);
        dwAt += 2;
    }
    return Join(info, Part(entry, 0, 4), Part(entry, dwAt, dwAt + 8),
                Part(entry, dwAt + 16, dwAt + 24), Part(entry, dwAt + 8, dwAt + 16),
                Part(entry, dwAt + 24, dwAt + 32));
}

struct CListing : CRun {
    explicit CListing(const std::string& strName) : CRun(strName) {
        packages["request"] = Command(7, Text(DAK_WIDE("\\")));
    }
    // The first package of a reply, and a later one.
    static Bytes First(bool bLast, DWORD dwEntries, const Bytes& bytes) {
        return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                       Join(U16(7), U32(0), U32(dwEntries), bytes));
    }
    static Bytes Later(bool bLast, const Bytes& bytes) {
        return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE, Join(U16(7), bytes));
    }
    // The head of the reply is read at 1458 ms.
    void Expect(const std::string& strWords, DWORD dwResult, const std::vector<Bytes>& entries,
                std::optional<std::uint64_t> qwMs = {}) {
        CArray<_tagFileInfo, _tagFileInfo> list;
        list.Add({});
        Play(strWords);
        EXPECT_EQ(dak->DAKGetFolderContent(DAK_WIDE("\\"), &list), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwResult);
        EXPECT_EQ(world.NowMs(), qwMs.value_or(world.NowMs()));
        EXPECT_LT(world.NowMs(), 20'000u);
        ASSERT_EQ(list.GetSize(), 1 + std::ssize(entries)) << "behind what was there";
        for (int i = 1; i < list.GetSize(); ++i) {
            const Bytes info = Info(entries[static_cast<std::size_t>(i - 1)]);
            EXPECT_EQ(std::memcmp(&list[i], info.data(), sizeof(_tagFileInfo)), 0);
        }
        dak->ClearFileList(&list);
        dak->ClearFileList(&list);
        EXPECT_EQ(list.GetData(), nullptr);
    }
};

TEST(Listing, IsCutAnywhere) {
    const std::vector<Bytes> entries = {
        Entry(1), Entry(2, {}, {}, {}),
        Entry(3, WideText(259, DAK_WIDE('x')), {}, WideText(79, DAK_WIDE('y')))};
    const Bytes all = Join(entries[0], entries[1], entries[2]);
    for (std::size_t dwCut = 1; dwCut < all.size(); dwCut += dwCut < 130 ? 1 : 11) {
        CListing run(std::to_string(dwCut));
        run.packages["first"] = run.First(false, 3, Part(all, 0, dwCut));
        run.packages["last"] = run.Later(true, Part(all, dwCut, all.size()));
        run.Expect(">request@828 ack first last >ack@1478", 0, entries, 1488);
    }
}

// Packages of one entry each; the last, of 12288 bytes, brings what is beyond the count.
TEST(Listing, WindowsOfPackages) {
    for (const DWORD dwPackages : {1u, 2u, 49u, 50u, 51u, 100u, 101u}) {
        CListing run(std::to_string(dwPackages));
        std::vector<Bytes> entries;
        std::string strWords = "open";
        std::uint64_t qwMs = 1458 - 2 * READ_MS;
        for (DWORD i = 1; i <= dwPackages; ++i) {
            const bool bLast = i == dwPackages;
            entries.push_back(Entry(i));
            run.packages["p" + std::to_string(i)] =
                i == 1
                    ? run.First(bLast, dwPackages, Entry(i))
                    : run.Later(bLast, Join(Entry(i), Bytes(bLast ? 12278 - Entry(i).size() : 0)));
            qwMs += 2 * READ_MS;
            strWords += " p" + std::to_string(i);
            strWords += i > 1 && (i % 50 == 0 || bLast) ? In(" >ack", qwMs) : "";
        }
        run.Expect(strWords, 0, entries, qwMs + READ_MS);
    }
}

TEST(Listing, RepliesThatAreNone) {
    const Bytes one = Entry(1);
    const Bytes two = Join(one, Entry(2));
    const Bytes first = CListing::First(false, 2, one);
    const Bytes later = CListing::Later(true, two);
    const auto single = [](DWORD dwEntries, const Bytes& bytes) {
        return CListing::First(true, dwEntries, bytes);
    };
    const Rows<std::vector<Bytes>, bool, DWORD, std::size_t> rows = {
        // packages, whether they are acknowledged, the result, the entries that are there then
        {{single(0, one)}, false, 0, 0}, // bytes behind no entries
        {{single(3, {})}, false, 0, 0},
        {{single(1, two)}, false, 0, 1},
        {{CListing::First(false, 1, {1}), CListing::Later(false, {0}),
          CListing::Later(true, Part(one, 2, one.size()))},
         true,
         0,
         1}, // cut twice
        {{With(single(1, one), 4, 9)}, false, FAIL, 0},
        {{With(single(1, one), 4, 12'281)}, false, FAIL, 0},
        {{single(0xFFFFFFFF, two)}, false, FAIL, 2},
        {{single(9, one), CListing::Later(false, Entry(2))}, true, FAIL, 2}, // is the last
        {{first, CListing::Later(false, {}), later}, false, FAIL, 1},
        {{first, Package(DAK_LAST_REPLY, Join(U16(8), two))}, true, FAIL, 1},
        {{first, With(later, 0, DAK_PACKAGE)}, false, FAIL, 1},
        {{first, With(later, 4, 1)}, false, FAIL, 1},
        {{first, With(later, 4, 12'281)}, false, FAIL, 1},
        {{single(1, Entry(1, {}, WideText(260, DAK_WIDE('x'))))}, false, FAIL, 0},
        {{single(1, Entry(1, {}, {}, WideText(80, DAK_WIDE('x'))))}, false, FAIL, 0}};
    for (const auto& [packages, bAcknowledged, dwResult, dwEntries] : rows) {
        CListing run(testing::PrintToString(std::tuple(packages.size(), dwResult, dwEntries)));
        std::string strWords = "open";
        for (const Bytes& package : packages) {
            const std::string strName = "p" + std::to_string(run.packages.size());
            run.packages[strName] = package;
            strWords += " " + strName;
        }
        std::vector<Bytes> entries = {one, Entry(2)};
        entries.resize(dwEntries);
        run.Expect(strWords + (bAcknowledged ? " >ack" : ""), dwResult, entries);
    }
}

} // namespace
