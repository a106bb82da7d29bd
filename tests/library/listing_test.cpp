// Folder listings: entries, packages and windows, and replies that are none.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

using WideText = std::basic_string<WCHAR>;

// An entry with numbers of its own, as it comes, and as it is to come out.
struct CEntry {
    DWORD dwSeed = 1;
    WideText strText1 = DAK_WIDE("a");
    WideText strText2 = DAK_WIDE("bc");
    WideText strText3 = DAK_WIDE("def");

    Bytes Wire() const {
        return Join(U32(dwSeed), Text(strText1), Text(strText2), Text(strText3),
                    Pattern(32, dwSeed));
    }
    bool operator==(const _tagFileInfo& info) const {
        const Bytes numbers = Pattern(32, dwSeed);
        const auto is = [&](const void* lpField, int nAt) {
            return std::memcmp(lpField, numbers.data() + nAt, 8) == 0;
        };
        return info.dwFileAttributes == dwSeed && info.szText1 == strText1 &&
               info.szText2 == strText2 && info.szText3 == strText3 &&
               is(&info.ftCreationTime, 0) && is(&info.ftLastWriteTime, 8) &&
               is(&info.ftLastAccessTime, 16) && is(&info.nFileSizeHigh, 24);
    }
};

// A listing, the head of whose reply is read at 1458 ms.
struct CListing : CRun {
    explicit CListing(const std::string& strName = {}) : CRun(strName) {
        device.ExpectCommand(7, Text(DAK_WIDE("\\"))).At(828).Reply(Ack());
    }
    static Bytes First(bool bLast, DWORD dwEntries, const Bytes& bytes) {
        return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                       Join(U16(7), U32(0), U32(dwEntries), bytes));
    }
    static Bytes Later(bool bLast, const Bytes& bytes) {
        return Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE, Join(U16(7), bytes));
    }
    void Expect(DWORD dwResult, const std::vector<CEntry>& entries, int nAhead = 0) {
        EXPECT_EQ(dak->DAKGetFolderContent(DAK_WIDE("\\"), &list), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwResult);
        ASSERT_EQ(list.GetSize(), nAhead + static_cast<int>(entries.size()));
        for (std::size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ(entries[i], list[nAhead + static_cast<int>(i)]);
        }
        for (int i = 0; i < 2; ++i) {
            dak->ClearFileList(&list);
            EXPECT_EQ(list.GetData(), nullptr);
        }
    }
    CArray<_tagFileInfo, _tagFileInfo> list;
};

TEST(Listing, IsCutAnywhere) {
    const std::vector<CEntry> entries = {{}, {2, DAK_WIDE(""), DAK_WIDE(""), DAK_WIDE("")}, {3}};
    const Bytes all = Join(entries[0].Wire(), entries[1].Wire(), entries[2].Wire());
    for (auto middle = all.begin() + 1; middle != all.end(); ++middle) {
        CListing run(std::to_string(middle - all.begin()));
        run.device.Reply(run.First(false, 3, Bytes(all.begin(), middle)));
        run.device.Reply(run.Later(true, Bytes(middle, all.end()))).Expect(Ack()).At(1478);
        run.Expect(0, entries);
        EXPECT_EQ(run.world.NowMs(), 1488u);
    }
}

// Packages of one entry each, behind what the list holds already.
TEST(Listing, WindowsOfPackages) {
    for (const DWORD dwPackages : {1u, 2u, 49u, 50u, 51u, 100u, 101u}) {
        CListing run(std::to_string(dwPackages));
        run.device.Reply(run.First(dwPackages == 1, dwPackages, CEntry().Wire()));
        std::vector<CEntry> entries = {{}};
        std::uint64_t qwMs = 1458;
        for (DWORD i = 2; i <= dwPackages; ++i) {
            entries.push_back({i});
            run.device.Reply(run.Later(i == dwPackages, entries.back().Wire()));
            qwMs += 2 * READ_MS;
            if (i % 50 == 0 || i == dwPackages) {
                run.device.Expect(Ack()).At(qwMs);
            }
        }
        run.list.Add({});
        run.Expect(0, entries, 1);
        EXPECT_EQ(run.world.NowMs(), qwMs + READ_MS);
    }
}

TEST(Listing, FullPackagesAndLongTexts) {
    CRun run;
    // What somebody left in the pipe is drained, 8 bytes at a time.
    run.world.At(320, [&] { run.device.Give(Bytes(20, 1)); });
    const CEntry last{2, WideText(259, DAK_WIDE('x')), WideText(259, DAK_WIDE('y')),
                      WideText(79, DAK_WIDE('z'))};
    Bytes all;
    for (int i = 0; i < 11; ++i) {
        all = Join(all, last.Wire());
    }
    ASSERT_GT(all.size(), 12270u);
    run.device.ExpectCommand(7, Text(DAK_WIDE("\\"))).At(858).Reply(Ack());
    run.device.Reply(CListing::First(false, 11, Bytes(all.begin(), all.begin() + 12270)));
    run.device.Reply(CListing::Later(true, Bytes(all.begin() + 12270, all.end()))).Expect(Ack());
    CArray<_tagFileInfo, _tagFileInfo> list;
    EXPECT_EQ(run.dak->DAKGetFolderContent(DAK_WIDE("\\"), &list), 0u);
    ASSERT_EQ(list.GetSize(), 11);
    EXPECT_EQ(last, list[10]);
}

TEST(Listing, RepliesThatAreNone) {
    const Bytes two = Join(CEntry().Wire(), CEntry{2}.Wire());
    const auto part = [&](std::ptrdiff_t nFrom, std::ptrdiff_t nTo) {
        return Bytes(two.begin() + nFrom, two.begin() + nTo);
    };
    const auto with = [](Bytes package, std::size_t dwOffset, DWORD dwValue) {
        DakPutU32(package.data() + dwOffset, dwValue);
        return package;
    };
    const Bytes one = CEntry().Wire();
    const Bytes single = CListing::First(true, 1, one);
    const Bytes later = CListing::Later(true, two);
    const auto unended = [](std::size_t dwChars) {
        return CListing::First(true, 1,
                               CEntry{1, DAK_WIDE(""), WideText(dwChars, DAK_WIDE('x'))}.Wire());
    };
    const std::map<std::string, Bytes> packages = {
        {"moreBytes", CListing::First(true, 0, one)},
        {"length10", CListing::First(true, 3, {})},
        {"oneOfTwo", CListing::First(true, 1, two)},
        {"firstPart", CListing::First(false, 2, part(0, 2))},
        {"secondPart", CListing::Later(false, part(2, 3))},
        {"thirdPart", CListing::Later(false, part(3, 5))},
        {"lastPart", CListing::Later(true, part(5, std::ssize(two)))},
        {"length9", with(single, 4, 9)},
        {"length12281", with(single, 4, 12281)},
        {"endless", CListing::First(true, 0xFFFFFFFF, two)},
        {"lastOfNine", CListing::First(true, 9, one)},
        {"second", CListing::Later(false, CEntry{2}.Wire())},
        {"first", CListing::First(false, 2, one)},
        {"nothing", CListing::Later(false, {})},
        {"later", later},
        {"foreign", Package(DAK_LAST_REPLY, Join(U16(8), two))},
        {"otherWord", with(later, 0, DAK_PACKAGE)},
        {"later1", with(later, 4, 1)},
        {"later12281", with(later, 4, 12281)},
        {"unended260", unended(260)},
        {"unended80",
         CListing::First(
             true, 1, CEntry{1, DAK_WIDE(""), DAK_WIDE(""), WideText(80, DAK_WIDE('x'))}.Wire())}};
    const struct {
        const char* lpszWords;
        DWORD dwResult;
        std::size_t dwEntries;
    } rows[] = {{"moreBytes", 0, 0},
                {"length10", 0, 0},
                {"oneOfTwo", 0, 1},
                {"firstPart secondPart thirdPart lastPart >ack", 0, 2},
                {"length9", DAKERROR_FAIL, 0},
                {"length12281", DAKERROR_FAIL, 0},
                {"endless", DAKERROR_FAIL, 2},
                {"lastOfNine second >ack", DAKERROR_FAIL, 2}, // the last from the first on
                {"first nothing later", DAKERROR_FAIL, 1},
                {"first foreign >ack", DAKERROR_FAIL, 1},
                {"first otherWord", DAKERROR_FAIL, 1},
                {"first later1", DAKERROR_FAIL, 1},
                {"first later12281", DAKERROR_FAIL, 1},
                {"unended260", DAKERROR_FAIL, 0},
                {"unended80", DAKERROR_FAIL, 0}};
    for (const auto& row : rows) {
        CListing run(row.lpszWords);
        run.packages.insert(packages.begin(), packages.end());
        run.Play(row.lpszWords);
        std::vector<CEntry> entries = {{1}, {2}};
        entries.resize(row.dwEntries);
        run.Expect(row.dwResult, entries);
        EXPECT_LT(run.world.NowMs(), 20'000u);
    }
}

} // namespace
