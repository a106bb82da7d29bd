// Folder listings: entries, packages and windows, and replies that are none.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

using WideText = std::basic_string<WCHAR>;

// An entry as it comes; the seed makes its numbers.
Bytes Entry(DWORD dwSeed, const WideText& strText1 = DAK_WIDE("a"),
            const WideText& strText2 = DAK_WIDE("bc"), const WideText& strText3 = DAK_WIDE("def")) {
    return Join(U32(dwSeed), Text(strText1), Text(strText2), Text(strText3), Pattern(32, dwSeed));
}
// The same as it comes out: the texts ahead of the attributes, in fields of their own size, and the
// last access ahead of the last write.
Bytes Info(const Bytes& entry) {
    Bytes info;
    auto it = entry.begin() + 4;
    for (const std::size_t dwField : {520u, 520u, 160u}) {
        const std::size_t dwBegin = info.size();
        for (; it[0] != 0 || it[1] != 0; it += 2) {
            info.insert(info.end(), it, it + 2);
        }
        it += 2;
        info.resize(dwBegin + dwField);
    }
    return Join(info, Bytes(entry.begin(), entry.begin() + 4), Bytes(it, it + 8),
                Bytes(it + 16, it + 24), Bytes(it + 8, it + 16), Bytes(it + 24, it + 32));
}

Bytes First(bool bLast, DWORD dwEntries, const Bytes& bytes) {
    return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                   Join(U16(7), U32(0), U32(dwEntries), bytes));
}
Bytes Later(bool bLast, const Bytes& bytes) {
    return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE, Join(U16(7), bytes));
}

// The head of the reply is read at 1458 ms.
void ExpectListing(CRun& run, DWORD dwResult, const std::vector<Bytes>& entries) {
    CArray<_tagFileInfo, _tagFileInfo> list;
    list.Add({});
    EXPECT_EQ(run.dak->DAKGetFolderContent(DAK_WIDE("\\"), &list), dwResult);
    EXPECT_EQ(run.dak->GetLastError(), dwResult);
    ASSERT_EQ(list.GetSize(), 1 + std::ssize(entries)) << "behind what was there";
    for (int i = 1; i < list.GetSize(); ++i) {
        const Bytes info = Info(entries[static_cast<std::size_t>(i - 1)]);
        EXPECT_EQ(std::memcmp(&list[i], info.data(), sizeof(_tagFileInfo)), 0);
    }
    run.dak->ClearFileList(&list);
    run.dak->ClearFileList(&list);
    EXPECT_EQ(list.GetData(), nullptr);
}

TEST(Listing, IsCutAnywhere) {
    const std::vector<Bytes> entries = {
        Entry(1), Entry(2, {}, {}, {}),
        Entry(3, WideText(259, DAK_WIDE('x')), {}, WideText(79, 'y'))};
    const Bytes all = Join(entries[0], entries[1], entries[2]);
    for (std::size_t dwCut = 1; dwCut < all.size(); dwCut += dwCut < 130 ? 1 : 11) {
        CRun run(std::to_string(dwCut));
        const auto middle = all.begin() + static_cast<std::ptrdiff_t>(dwCut);
        run.packages["command"] = Command(7, Text(DAK_WIDE("\\")));
        run.packages["first"] = First(false, 3, Bytes(all.begin(), middle));
        run.packages["last"] = Later(true, Bytes(middle, all.end()));
        run.Play(">command@828 ack first last >ack@1478");
        ExpectListing(run, 0, entries);
        EXPECT_EQ(run.world.NowMs(), 1488u);
    }
}

// Packages of one entry each; the last, of 12288 bytes, brings what is beyond the count.
TEST(Listing, WindowsOfPackages) {
    for (const DWORD dwPackages : {1u, 2u, 49u, 50u, 51u, 100u, 101u}) {
        CRun run(std::to_string(dwPackages));
        run.device.ExpectCommand(7, Text(DAK_WIDE("\\"))).Reply(Ack());
        std::vector<Bytes> entries;
        std::uint64_t qwMs = 1458 - 2 * READ_MS;
        for (DWORD i = 1; i <= dwPackages; ++i) {
            const bool bLast = i == dwPackages;
            entries.push_back(Entry(i));
            run.device.Reply(
                i == 1 ? First(bLast, dwPackages, Entry(i))
                       : Later(bLast, Join(Entry(i), Bytes(bLast ? 12278 - Entry(i).size() : 0))));
            qwMs += 2 * READ_MS;
            if (i > 1 && (i % 50 == 0 || bLast)) {
                run.device.Expect(Ack()).At(qwMs);
            }
        }
        ExpectListing(run, 0, entries);
        EXPECT_EQ(run.world.NowMs(), qwMs + READ_MS);
    }
}

TEST(Listing, RepliesThatAreNone) {
    const Bytes one = Entry(1);
    const Bytes two = Join(one, Entry(2));
    const auto with = [](Bytes package, std::size_t dwOffset, DWORD dwValue) {
        DakPutU32(package.data() + dwOffset, dwValue);
        return package;
    };
    const Bytes first = First(false, 2, one);
    const Bytes later = Later(true, two);
    const WideText long260(260, DAK_WIDE('x'));
    const WideText long80(80, DAK_WIDE('x'));
    const struct {
        std::vector<Bytes> packages;
        bool bAcknowledged;
        DWORD dwResult;
        std::size_t dwEntries;
    } rows[] = {
        {{First(true, 0, one)}, false, 0, 0}, // bytes behind no entries
        {{First(true, 3, {})}, false, 0, 0},
        {{First(true, 1, two)}, false, 0, 1},
        {{First(false, 1, {1}), Later(false, {0}), Later(true, Bytes(one.begin() + 2, one.end()))},
         true,
         0,
         1}, // cut twice
        {{with(First(true, 1, one), 4, 9)}, false, FAIL, 0},
        {{with(First(true, 1, one), 4, 12281)}, false, FAIL, 0},
        {{First(true, 0xFFFFFFFF, two)}, false, FAIL, 2},
        {{First(true, 9, one), Later(false, Entry(2))}, true, FAIL, 2}, // is the last
        {{first, Later(false, {}), later}, false, FAIL, 1},
        {{first, Package(DAK_LAST_REPLY, Join(U16(8), two))}, true, FAIL, 1},
        {{first, with(later, 0, DAK_PACKAGE)}, false, FAIL, 1},
        {{first, with(later, 4, 1)}, false, FAIL, 1},
        {{first, with(later, 4, 12281)}, false, FAIL, 1},
        {{First(true, 1, Entry(1, {}, long260))}, false, FAIL, 0},
        {{First(true, 1, Entry(1, {}, {}, long80))}, false, FAIL, 0}};
    for (const auto& row : rows) {
        CRun run(testing::PrintToString(&row - rows));
        run.Play("> ack");
        std::ranges::for_each(row.packages,
                              [&](const Bytes& package) { run.device.Reply(package); });
        run.Play(row.bAcknowledged ? ">ack" : "");
        std::vector<Bytes> entries = {one, Entry(2)};
        entries.resize(row.dwEntries);
        ExpectListing(run, row.dwResult, entries);
        EXPECT_LT(run.world.NowMs(), 20'000u);
    }
}

} // namespace
