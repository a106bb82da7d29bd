// The copies in both directions: what goes over the wire, byte for byte, where it is cut, and what
// becomes of it on the host's disk.

#include "platform/file.h"
#include "tests/library/library_run.h"

namespace {

constexpr std::uint64_t PUSH_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + 10; // and a look at the file
constexpr std::uint64_t PULL_MS = LINK_UP_MS + READ_MS + 500;

// The file's bytes hold such as a signed sum would take from the checksum.
TEST(Copy, InBytes) {
    const std::string strRecord = "0300000000000000.0102030405060708.1112131415161718."
                                  "61002E007400780074000000.68FF80";
    {
        CTransfer run(DAK_TO_DEVICE);
        run.AddFile("C:\\s\\a.txt", {0x68, 0xFF, 0x80});
        run.Play(In(">21E00000.13000000.0800.01.43003A005C0073000000.5C0064000000", LINK_UP_MS) +
                 " ack " + In(">21E00000.31000000.AA040000.0800.01000000." + strRecord, PUSH_MS) +
                 " ack 22E00000.06000000.0800.01000000");
        run.Run("", 0, PUSH_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS + DRAIN_MS);
    }
    CTransfer run(DAK_FROM_DEVICE);
    run.list.Add("a.txt");
    run.Play(In(">21E00000.23000000.0800.00.5C0064000000.43003A005C0073000000.01000000."
                "61002E007400780074000000",
                LINK_UP_MS) +
             " ack 22E00000.35000000.AB040000.0800.01000000.01000000." + strRecord +
             In(" >ack", PULL_MS + 2 * READ_MS));
    run.Run("", 0, PULL_MS + 2 * READ_MS + 500 + DRAIN_MS);
    run.ExpectFile("C:/s/a.txt", {0x68, 0xFF, 0x80});
}

// Folders go out as they were given, and names come with either slash.
TEST(Copy, FoldersAreMadeAndFilesReplaced) {
    CTransfer run(DAK_FROM_DEVICE);
    run.world.WriteHostFile("C:/s/a/locked", {1});
    platform::SetFileAttributesA("C:/s/a/locked", FILE_ATTRIBUTE_READONLY);
    run.LayRequest(DAK_WIDE("C:\\s\\\\"), DAK_WIDE("\\d\\"));
    run.LayRecords(FileRecord(DAK_WIDE("a\\b/empty"), {}),
                   FileRecord(DAK_WIDE("..\u00FC..\\\u65E5"), Pattern(30'000)),
                   FileRecord(DAK_WIDE("a\\locked"), {2}));
    run.Play("!MoveFileExA#1=32 whole"); // somebody looks at it
    EXPECT_EQ(run.Start(DAK_WIDE("C:\\s\\\\"), DAK_WIDE("\\d\\")), 0u);
    run.ExpectEnd(0);
    run.ExpectFile("C:/s/a/b/empty", {});
    run.ExpectFile("C:/s/..\xC3\xBC../\xE6\x97\xA5", Pattern(30'000));
    run.ExpectFile("C:/s/a/locked", {2});
    EXPECT_EQ(run.world.HostFiles("C:/s").size(), 3u);
}

// A first file of such a size that the package ends dwCut bytes into the next record: ahead of it,
// in each of its fields, in its contents and behind them. Files that cannot be opened have been
// counted all the same.
TEST(Copy, ARecordIsCutAnywhere) {
    const Bytes next = FileRecord(DAK_WIDE("\u00E4\\\u65E5.x"), Pattern(9, 3));
    for (const DWORD nDirection : {DAK_TO_DEVICE, DAK_FROM_DEVICE}) {
        for (std::size_t dwCut = 0; dwCut <= next.size(); ++dwCut) {
            CTransfer run(nDirection, std::to_string(dwCut));
            const std::size_t dwHead =
                (run.IsPush() ? 4 : 8) + FileRecord(DAK_WIDE("a"), {}).size();
            const Bytes contents = Pattern(DAK_DATA_SIZE - dwHead - dwCut);
            if (run.IsPush()) {
                run.AddFile("C:\\s\\a", contents);
                run.list.Add("C:\\s\\missing");
                run.AddFile("C:\\s\\" + std::string(255, 'x'), {1}); // 260 characters
                run.AddFile("C:\\s\\\xC3\xA4/\xE6\x97\xA5.x", Pattern(9, 3));
            }
            run.LayRecords(FileRecord(DAK_WIDE("a"), contents), next);
            run.Run("whole", 0);
            run.ExpectFile("C:/s/a", contents);
            run.ExpectFile("C:/s/\xC3\xA4/\xE6\x97\xA5.x", Pattern(9, 3));
        }
    }
}

// The pieces of a chained request, cut inside a short name and wherever else they end. A run of
// names begins at an odd byte, so a cut always parts a character, and no piece is ever just full.
TEST(CopyFromDevice, ALongRequestIsCutAnywhere) {
    for (const std::size_t dwCut : {1u, 3u, 5u, 7u}) {
        CTransfer run(DAK_FROM_DEVICE, std::to_string(dwCut));
        Bytes names = Join(Bytes{0}, Text(DAK_WIDE("\\d")), Text(DAK_WIDE("C:\\s")), U32(49));
        const std::size_t dwOdd = (DAK_PACKAGE_SIZE - 10 - names.size() - 23 * 520 - dwCut) / 2 - 1;
        for (int i = 0; i < 49; ++i) {
            const std::size_t dwChars = i == 23 ? dwOdd : i == 24 ? 2 : 259;
            run.list.Add(std::string(dwChars, 'n').c_str());
            names = Join(names, Text(WideText(dwChars, DAK_WIDE('n'))));
        }
        for (std::size_t dwAt = 0; dwAt < names.size(); dwAt += 12'278) {
            const std::size_t dwEnd = std::min(names.size(), dwAt + 12'278);
            run.packages["piece"] = Package(dwEnd == names.size() ? DAK_LAST_PACKAGE : DAK_PACKAGE,
                                            Join(U16(8), Part(names, dwAt, dwEnd)));
            run.Play(">piece ack");
        }
        run.LayRecords();
        run.Run("sent >ack", 0, LINK_UP_MS + 3 * 10 + 500 + 20 + 500 + DRAIN_MS);
    }
}

// Room for the file and 102400 bytes beside it; an old target counts, and goes first only where
// the room is short without it.
TEST(CopyFromDevice, RoomIsAskedForEachFile) {
    constexpr std::uint64_t LARGE = 20'000 + 102'400;
    const Rows<std::uint64_t, std::size_t, std::uint64_t, bool, bool> rows = {
        // size, the old one's size, free, whether that is enough, and the old one goes first
        {20'000, 0, LARGE, true, false},           {20'000, 0, LARGE - 1, false, false},
        {20'000, 5000, LARGE, true, false},        {20'000, 5000, LARGE - 1, true, true},
        {20'000, 5000, LARGE - 5000, true, true},  {20'000, 5000, LARGE - 5001, false, false},
        {1ull << 40, 0, 1ull << 40, false, false}, {~0ull, 5000, 1ull << 40, false, false}};
    for (const auto& [qwSize, dwOldSize, qwFree, bEnough, bOldGoesFirst] : rows) {
        CTransfer run(DAK_FROM_DEVICE, std::to_string(qwFree) + " free");
        dwOldSize != 0 ? run.world.WriteHostFile("C:/s/a.bin", Bytes(dwOldSize)) : void();
        run.world.qwFreeBytes = qwFree;
        run.LayRecords(With(
            With(FileRecord(DAK_WIDE("a.bin"), Pattern(20'000)), 0, static_cast<DWORD>(qwSize)), 4,
            static_cast<DWORD>(qwSize >> 32)));
        run.Run(bEnough ? "whole" : "open sent >abort", bEnough ? 0 : NO_SPACE);
        EXPECT_EQ(run.world.Trace({"file delete C:/s/a.bin"}).size(), bOldGoesFirst ? 1u : 0u);
        EXPECT_EQ(run.world.HostFiles("C:/s").size(), bEnough || dwOldSize != 0 ? 1u : 0u);
    }
    // What lies in the package in hand whole is written all the same. A host that cannot tell has
    // no room, nor one that cannot make a folder for want of it.
    for (const std::string strFault : {"!GetDiskFreeSpaceExA", "!CreateDirectoryA#1=112"}) {
        CTransfer run(DAK_FROM_DEVICE, strFault);
        run.LayRecords(FileRecord(DAK_WIDE("b\\a.bin"), Pattern(100)));
        run.Run(strFault + " whole", NO_SPACE);
        EXPECT_EQ(run.world.HostFileExists("C:/s/b/a.bin"), strFault[1] == 'G');
    }
}

TEST(CopyFromDevice, ANameStaysBelowTheFolder) {
    const WideText strLong(255, DAK_WIDE('x'));
    const std::vector<WideText> names = {
        DAK_WIDE(".."),      DAK_WIDE("..\\x"), DAK_WIDE("../x"),     DAK_WIDE("b\\..\\..\\x"),
        DAK_WIDE("b\\../x"), DAK_WIDE("b\\.."), DAK_WIDE("\\x"),      DAK_WIDE("/x"),
        DAK_WIDE("C:\\x"),   DAK_WIDE("c:x"),   DAK_WIDE("b\\\\x"),   DAK_WIDE("b\\"),
        DAK_WIDE(".\\x"),    DAK_WIDE(""),      DAK_WIDE("x\xD800y"), strLong};
    for (const WideText& strName : names) {
        CTransfer run(DAK_FROM_DEVICE, testing::PrintToString(strName));
        // What came ahead of a bad name stays; the longest there can be has 259 characters in all.
        run.LayRecords(FileRecord(strLong.c_str() + 1, {1}), FileRecord(strName, Pattern(20'000)));
        run.Run("open sent >abort", strName == strLong ? FAIL : PROTOCOL);
        EXPECT_EQ(run.world.HostFiles("C:/"),
                  std::vector<std::string>{"s/" + std::string(254, 'x')});
        EXPECT_TRUE(platform::CreateDirectoryA("C:/s/b", nullptr)) << "nobody has made it";
    }
}

// A text whose rest is not in the next package.
TEST(CopyFromDevice, ANameThatDoesNotEnd) {
    for (const std::size_t dwBytes : {3u, 500u, 4000u}) {
        for (const std::size_t dwLeft : {0u, 1u, 3u, 519u, 520u, 521u}) {
            CTransfer run(DAK_FROM_DEVICE,
                          std::to_string(dwLeft) + " of " + std::to_string(dwBytes));
            const Bytes name(std::max(dwBytes, dwLeft), 'x');
            run.LayRecords(
                FileRecord(DAK_WIDE("a.bin"), Pattern(DAK_DATA_SIZE - 8 - 36 - 24 - dwLeft)),
                Join(U64(9), U64(0), U64(0), name));
            const char* lpszRest = dwLeft == name.size() ? "open p1 >ack"
                                   : dwLeft < 520        ? "open p1 p2 >ack"
                                                         : "open p1 >abort";
            run.Run(lpszRest, PROTOCOL);
            EXPECT_EQ(run.world.HostFiles("C:/s").size(), 1u);
        }
    }
}

// A destination that is not there, and one that the host's code page does not have, not even where
// a folder has the name that comes out.
TEST(CopyFromDevice, ADestinationThatIsNone) {
    for (const WCHAR* lpszDest : {DAK_WIDE("C:\\t"), DAK_WIDE("C:\\\xD800")}) {
        CTransfer run(DAK_FROM_DEVICE);
        run.world.MakeHostFolder("C:/\xEF\xBF\xBD");
        run.LayRequest(lpszDest, DAK_WIDE("\\d"));
        run.LayRecords(FileRecord(DAK_WIDE("a"), {1}));
        run.Play("whole");
        EXPECT_EQ(run.Start(lpszDest), 0u);
        run.ExpectEnd(FAIL);
        EXPECT_EQ(run.world.HostFiles("C:/"), std::vector<std::string>{});
    }
}

} // namespace
