// Folder listings: entries, packages and windows, and replies that are none.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

// An entry with these texts, and numbers that differ from field to field.
_tagFileInfo Info(DWORD dwSeed, const WideText& strText1 = DAK_WIDE("a"),
                  const WideText& strText2 = DAK_WIDE("bc"),
                  const WideText& strText3 = DAK_WIDE("def")) {
    _tagFileInfo info{};
    std::memcpy(&info.dwFileAttributes, Pattern(36, dwSeed).data(), 36);
    strText1.copy(info.szText1, std::size(info.szText1));
    strText2.copy(info.szText2, std::size(info.szText2));
    strText3.copy(info.szText3, std::size(info.szText3));
    return info;
}
// The same as it comes: the attributes ahead of the texts, and the last write ahead of the last
// access.
Bytes Entry(const _tagFileInfo& info) {
    const auto raw = [](const auto& field) {
        const auto* lpField = reinterpret_cast<const std::uint8_t*>(&field);
        return Bytes(lpField, lpField + sizeof(field));
    };
    const auto text = [](const auto& field) { // which a text may fill to its last character
        const auto nLength = std::find(std::begin(field), std::end(field), 0) - std::begin(field);
        return Text({field, static_cast<std::size_t>(nLength)});
    };
    return Join(raw(info.dwFileAttributes), text(info.szText1), text(info.szText2),
                text(info.szText3), raw(info.ftCreationTime), raw(info.ftLastWriteTime),
                raw(info.ftLastAccessTime), raw(info.nFileSizeHigh), raw(info.nFileSizeLow));
}

const _tagFileInfo INFOS[] = {
    Info(1), Info(2, {}, {}, {}),
    Info(3, WideText(259, DAK_WIDE('x')), {}, WideText(79, DAK_WIDE('y')))};

// The first package of a reply, and a later one.
Bytes First(DWORD dwWord, DWORD dwEntries, const Bytes& bytes) {
    return Package(dwWord, Join(U16(7), U32(0), U32(dwEntries), bytes));
}
Bytes Later(DWORD dwWord, const Bytes& bytes) {
    return Package(dwWord, Join(U16(7), bytes));
}

// The entries that come are the first of INFOS, again and again.
void ExpectListing(CRun& run, const std::string& strWords, DWORD dwResult, int nEntries) {
    CArray<_tagFileInfo, _tagFileInfo> list;
    list.Add({});
    run.packages["request"] = Command(7, Text(DAK_WIDE("\\")));
    run.Play(strWords);
    EXPECT_EQ(run.dak->DAKGetFolderContent(DAK_WIDE("\\"), &list), dwResult);
    EXPECT_EQ(run.dak->GetLastError(), dwResult);
    EXPECT_LT(run.world.NowMs(), 20'000u);
    ASSERT_EQ(list.GetSize(), 1 + nEntries) << "behind what was there";
    for (int i = 0; i < nEntries; ++i) {
        EXPECT_EQ(std::memcmp(&list[1 + i], &INFOS[i % 3], sizeof(_tagFileInfo)), 0) << i;
    }
    run.dak->ClearFileList(&list);
    EXPECT_EQ(list.GetData(), nullptr);
}

TEST(Listing, IsCutAnywhere) {
    const Bytes all = Join(Entry(INFOS[0]), Entry(INFOS[1]), Entry(INFOS[2]));
    for (std::size_t dwCut = 1; dwCut < all.size(); dwCut += dwCut < 130 ? 1 : 11) {
        CRun run(std::to_string(dwCut));
        run.packages["first"] = First(DAK_REPLY_PACKAGE, 3, Part(all, 0, dwCut));
        run.packages["last"] = Later(DAK_LAST_REPLY, Part(all, dwCut, all.size()));
        ExpectListing(run, ">request@828 ack first last >ack@1478", 0, 3);
    }
}

// Packages of one entry each; the last, of 12288 bytes, brings what is beyond the count. The head
// of the reply is read at 1458 ms.
TEST(Listing, WindowsOfPackages) {
    for (const int nPackages : {1, 2, 49, 50, 51, 100, 101}) {
        CRun run(std::to_string(nPackages));
        std::string strWords = "open";
        std::uint64_t qwMs = 1458 - 2 * READ_MS;
        for (int i = 0; i < nPackages; ++i) {
            const DWORD dwWord = i + 1 == nPackages ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE;
            Bytes entry = Entry(INFOS[i % 3]);
            entry.resize(i > 0 && dwWord == DAK_LAST_REPLY ? 12'278 : entry.size());
            const std::string strName = "p" + std::to_string(i);
            run.packages[strName] =
                i == 0 ? First(dwWord, static_cast<DWORD>(nPackages), entry) : Later(dwWord, entry);
            qwMs += 2 * READ_MS;
            const bool bAck = i > 0 && ((i + 1) % 50 == 0 || dwWord == DAK_LAST_REPLY);
            strWords += " " + strName + (bAck ? In(" >ack", qwMs) : "");
        }
        ExpectListing(run, strWords, 0, nPackages);
        EXPECT_EQ(run.world.NowMs(), qwMs + READ_MS);
    }
}

TEST(Listing, RepliesThatAreNone) {
    constexpr DWORD LAST = DAK_LAST_REPLY;
    const Bytes one = Entry(INFOS[0]);
    const Bytes two = Join(one, Entry(INFOS[1]));
    const Bytes last = Later(LAST, Entry(INFOS[1]));
    const std::map<std::string, Bytes> packages = {
        {"first", First(DAK_REPLY_PACKAGE, 2, one)},
        {"last", last},
        {"start", First(DAK_REPLY_PACKAGE, 1, Part(one, 0, 1))},
        {"middle", Later(DAK_REPLY_PACKAGE, Part(one, 1, 2))},
        {"rest", Later(LAST, Part(one, 2, one.size()))},
        {"nonebutbytes", First(LAST, 0, one)},
        {"threebutnone", First(LAST, 3, {})},
        {"manybuttwo", First(LAST, 0xFFFFFFFF, two)},
        {"ninebutone", First(LAST, 9, one)},
        {"empty", Later(DAK_REPLY_PACKAGE, {})},
        {"more", Later(DAK_REPLY_PACKAGE, Entry(INFOS[1]))},
        {"foreign", Package(LAST, Join(U16(8), Entry(INFOS[1])))},
        {"word", With(last, 0, DAK_PACKAGE)},
        {"firstlength9", With(First(LAST, 1, one), 4, 9)},
        {"firstlength12281", With(First(LAST, 1, one), 4, 12'281)},
        {"longtext1", First(LAST, 1, Entry(Info(1, {}, WideText(260, DAK_WIDE('x')))))},
        {"longtext3", First(LAST, 1, Entry(Info(1, {}, {}, WideText(80, DAK_WIDE('x')))))}};
    const Rows<std::string, DWORD, int> rows = {{"nonebutbytes", 0, 0},
                                                {"threebutnone", 0, 0},
                                                {"start middle rest >ack", 0, 1},
                                                {"manybuttwo", FAIL, 2},
                                                {"ninebutone more >ack", FAIL, 2}, // is the last
                                                {"first empty last", FAIL, 1},
                                                {"first foreign >ack", FAIL, 1},
                                                {"first word", FAIL, 1},
                                                {"firstlength9", FAIL, 0},
                                                {"firstlength12281", FAIL, 0},
                                                {"longtext1", FAIL, 0},
                                                {"longtext3", FAIL, 0}};
    for (const auto& [strWords, dwResult, nEntries] : rows) {
        CRun run(strWords);
        run.packages.insert(packages.begin(), packages.end());
        ExpectListing(run, "open " + strWords, dwResult, nEntries);
    }
}

} // namespace
