// Every operation on paths once through the object, and what refuses it, with the real agent core.

#include "tests/scenarios/scenario.h"

#include "remote_files/file_info.h"

using namespace scenario;

namespace {

using FileList = CArray<_tagFileInfo, _tagFileInfo>;

TEST(Paths, EveryOperationAndWhatRefusesIt) {
    sim::CWorld world;
    CScenario s(world);
    const CFileState file = File(300'000, 1);
    s.PutDevice({{"a", file}, {"t/sub/x", File(20'000, 2)}});
    CDAKVorn& dak = *s.dak;
    const auto expect = [&](DWORD dwResult, bool bDone) {
        EXPECT_EQ(dwResult, bDone ? DAKERROR_NONE : DAKERROR_FAIL);
        EXPECT_EQ(dak.GetLastError(), dwResult);
    };
    expect(dak.DAKCopyFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b"), 1), true);
    expect(dak.DAKCopyFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b"), 1), false);
    expect(dak.DAKCopyFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b"), 0), true);
    expect(dak.DAKCopyFile(DAK_WIDE("\\d\\none"), DAK_WIDE("\\d\\b"), 0), false);
    expect(dak.DAKMoveFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\b")), false);
    expect(dak.DAKMoveFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\t\\c")), true);
    expect(dak.DAKMoveFile(DAK_WIDE("\\d\\a"), DAK_WIDE("\\d\\c")), false);
    expect(dak.DAKCopyFile(DAK_WIDE("\\d\\t"), DAK_WIDE("\\d\\u"), 1), true);
    expect(dak.DAKMoveFile(DAK_WIDE("\\d\\t"), DAK_WIDE("\\d\\t\\in\\itself")), false);
    const Tree tree = s.DeviceTree();
    EXPECT_EQ(Names(tree), (std::vector<std::string>{"b", "t/c", "t/sub/x", "u/c", "u/sub/x"}));
    for (const char* lpszName : {"b", "t/c", "u/c"}) {
        EXPECT_TRUE(tree.at(lpszName).bytes == file.bytes);
    }

    _tagFileInfo info{};
    expect(dak.DAKGetFileInfo(DAK_WIDE("\\d\\b"), &info), true);
    EXPECT_EQ(Narrow(info.szText2), "\\d\\b");
    EXPECT_EQ(info.nFileSizeLow, 300'000u);
    EXPECT_EQ(Ticks(info.ftLastWriteTime), tree.at("b").qwWritten);
    expect(dak.DAKGetFileInfo(DAK_WIDE("\\d\\a"), &info), false);
    EXPECT_EQ(info.szText1[0], 0);

    FileList list;
    expect(dak.DAKGetFolderContent(DAK_WIDE("\\d"), &list), true);
    expect(dak.DAKGetFolderContent(DAK_WIDE("\\d\\?"), &list), true);
    expect(dak.DAKGetFolderContent(DAK_WIDE("\\d\\none"), &list), false);
    expect(dak.DAKGetFolderContent(DAK_WIDE("\\d\\*.none"), &list), true);
    ASSERT_EQ(list.GetSize(), 6);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(Narrow(list[i].szText1), std::string(1, "btu"[i % 3]));
        EXPECT_EQ(Narrow(list[i].szText3), i % 3 == 0 ? "File" : "File folder");
    }
}

} // namespace
