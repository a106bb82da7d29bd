// Every operation but the copies, once, with what it did to the folder that the device serves.
#include "tests/windows_end_to_end/world.h"

#include <algorithm>

namespace windows_end_to_end {
namespace {

class Operations : public CWorldTest {
  protected:
    Operations() {
        fs::create_directory(m_folder / "card");
        m_options.storages = {{"Card", Narrow(m_folder / "card")}};
        m_options.bAllowFormat = true;
        m_options.system.bAllowExec = true;
        m_options.system.strName = "handheld";
        Plug();
    }

    DWORD Position(void* hFile, LONG lDistance, DWORD dwMethod) {
        DWORD dwPosition = 0;
        const DWORD dwResult = m_dak.DAKSetFilePointer(hFile, lDistance, dwMethod, &dwPosition);
        EXPECT_EQ(dwResult, dwPosition == MAXDWORD ? DAKERROR_FAIL : DAKERROR_NONE);
        return dwPosition;
    }
};

TEST_F(Operations, OnFilesByHandle) {
    // More than a window, and to no package's end.
    std::string strBytes = File(620'001, 1).strBytes;
    const auto dwBytes = static_cast<DWORD>(strBytes.size());
    void* hFile = nullptr;
    DWORD dwCount = 0;
    ASSERT_EQ(m_dak.DAKCreateFile(L"\\f", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW,
                                  &hFile),
              DAKERROR_NONE);
    EXPECT_TRUE(fs::exists(OnDevice("f")));
    void* hSecond = nullptr;
    EXPECT_EQ(m_dak.DAKCreateFile(L"\\f", GENERIC_READ, 0, CREATE_NEW, &hSecond), DAKERROR_FAIL);
    EXPECT_EQ(m_dak.DAKWriteFile(hFile, strBytes.data(), dwBytes, &dwCount), DAKERROR_NONE);
    EXPECT_EQ(dwCount, dwBytes);
    EXPECT_EQ(Position(hFile, -9, FILE_BEGIN), MAXDWORD);
    EXPECT_EQ(Position(hFile, 0, FILE_CURRENT), dwBytes);
    EXPECT_EQ(Position(hFile, -11, FILE_END), dwBytes - 11);

    std::string strRead(dwBytes, '\0');
    EXPECT_EQ(m_dak.DAKReadFile(hFile, strRead.data(), dwBytes, &dwCount), DAKERROR_NONE);
    EXPECT_EQ(dwCount, 11U);
    EXPECT_EQ(strRead.substr(0, 11), strBytes.substr(dwBytes - 11));
    EXPECT_EQ(m_dak.DAKReadFile(hFile, strRead.data(), 1, &dwCount), DAKERROR_FAIL);
    EXPECT_EQ(dwCount, 0U);
    EXPECT_EQ(Position(hFile, 0, FILE_BEGIN), 0U);
    EXPECT_EQ(m_dak.DAKReadFile(hFile, strRead.data(), dwBytes, &dwCount), DAKERROR_NONE);
    EXPECT_TRUE(strRead == strBytes);

    EXPECT_EQ(Position(hFile, 5, FILE_BEGIN), 5U);
    char szMiddle[] = "middle";
    EXPECT_EQ(m_dak.DAKWriteFile(hFile, szMiddle, 6, &dwCount), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKCloseFile(hFile), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKCloseFile(hFile), DAKERROR_FAIL);
    EXPECT_TRUE(ReadBytes(OnDevice("f")) == strBytes.replace(5, 6, szMiddle));
}

TEST_F(Operations, OnPaths) {
    EXPECT_EQ(m_dak.DAKCreateDirectory(L"\\Docs", nullptr), DAKERROR_NONE);
    EXPECT_TRUE(fs::is_directory(OnDevice("Docs")));
    EXPECT_EQ(m_dak.DAKCreateDirectory(L"\\none\\Docs", nullptr), DAKERROR_FAIL);
    const TREE one = {{L"a \x20AC.txt", File(5000, 1)}};
    WriteTree(OnDevice("Docs"), one);
    const auto InDocs = [&](TREE wanted) { ExpectSameTree(ReadTree(OnDevice("Docs")), wanted); };

    EXPECT_EQ(m_dak.DAKMoveFile(L"\\Docs\\a \x20AC.txt", L"\\Docs\\b.txt"), DAKERROR_NONE);
    InDocs({{L"b.txt", one.at(L"a \x20AC.txt")}});
    EXPECT_EQ(m_dak.DAKMoveFile(L"\\Docs\\none", L"\\Docs\\c"), DAKERROR_FAIL);
    EXPECT_EQ(m_dak.DAKCopyFile(L"\\Docs\\b.txt", L"\\Docs\\c", TRUE), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKCopyFile(L"\\Docs\\b.txt", L"\\Docs\\c", TRUE), DAKERROR_FAIL);
    const TREE copied = ReadTree(OnDevice("Docs"));
    ASSERT_EQ(copied.size(), 2U);
    EXPECT_EQ(copied.at(L"c").strBytes, copied.at(L"b.txt").strBytes);

    _tagFileInfo info{};
    EXPECT_EQ(m_dak.DAKGetFileInfo(L"\\Docs\\b.txt", &info), DAKERROR_NONE);
    EXPECT_STREQ(info.szText1, L"b.txt");
    EXPECT_STREQ(info.szText2, L"\\Docs\\b.txt");
    EXPECT_EQ(info.dwFileAttributes, DWORD{FILE_ATTRIBUTE_ARCHIVE});
    EXPECT_EQ(info.nFileSizeLow, 5000U);
    EXPECT_EQ(Ticks(info.ftLastWriteTime), one.begin()->second.qwWritten);
    EXPECT_EQ(m_dak.DAKGetFileInfo(L"\\Docs\\none", &info), DAKERROR_FAIL);

    fs::create_directory(OnDevice("Docs/folder"));
    CArray<_tagFileInfo, _tagFileInfo> entries;
    EXPECT_EQ(m_dak.DAKGetFolderContent(L"\\Docs", &entries), DAKERROR_NONE);
    ASSERT_EQ(entries.GetSize(), 3);
    for (int i = 0; i < 3; ++i) {
        const wchar_t* const names[] = {L"b.txt", L"c", L"folder"};
        EXPECT_STREQ(entries.GetAt(i).szText1, names[i]);
        EXPECT_EQ((entries.GetAt(i).dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0, i == 2);
    }
    m_dak.ClearFileList(&entries);
    EXPECT_EQ(entries.GetSize(), 0);
    EXPECT_EQ(m_dak.DAKDeleteFile(L"\\Docs\\c"), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKDeleteFile(L"\\Docs\\c"), DAKERROR_FAIL);
    InDocs({{L"b.txt", copied.at(L"b.txt")}});
}

TEST_F(Operations, OnTheSystem) {
    fs::copy_file(StandIn(), OnDevice("program.exe"));
    DWORD dwStatus = 0;
    EXPECT_EQ(m_dak.DAKCreateProcess(L"\\program.exe", L"7", &dwStatus), DAKERROR_NONE);
    EXPECT_EQ(dwStatus, 7U);
    EXPECT_EQ(m_dak.DAKCreateProcess(L"\\program.exe", L"0", nullptr), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKCreateProcess(L"\\none.exe", nullptr, nullptr), DAKERROR_FAIL);

    // Answers that are shorter and longer than any package.
    constexpr DWORD ECHO_CONTROL = 1;
    for (const DWORD dwBytes : {1U, 12'289U, 500'000U}) {
        std::string strIn = File(dwBytes, 3).strBytes;
        std::string strOut(dwBytes, '\0');
        DWORD dwCount = 0;
        EXPECT_EQ(m_dak.DAKKernelIoControl(ECHO_CONTROL, strIn.data(), dwBytes, strOut.data(),
                                           dwBytes, &dwCount),
                  DAKERROR_NONE);
        EXPECT_EQ(dwCount, dwBytes);
        EXPECT_TRUE(strOut == strIn) << dwBytes;
    }

    DWORD dwMessage = 0;
    DWORD dwAgain = 0;
    EXPECT_EQ(m_dak.DAKRegisterWindowMessage(L"Sync \x20AC", &dwMessage), DAKERROR_NONE);
    EXPECT_GE(dwMessage, 0xC000U);
    EXPECT_EQ(m_dak.DAKRegisterWindowMessage(L"Sync \x20AC", &dwAgain), DAKERROR_NONE);
    EXPECT_EQ(dwAgain, dwMessage);
    EXPECT_EQ(m_dak.DAKBroadCastMessage(dwMessage, 4'000'000'000, -5), DAKERROR_NONE);
    EXPECT_TRUE(m_pAgent->Says("\"Sync \xE2\x82\xAC\" wParam 4000000000 lParam -5"));
}

TEST_F(Operations, OnStorages) {
    ULARGE_INTEGER total{};
    ASSERT_TRUE(::GetDiskFreeSpaceExW(OnDevice("").c_str(), nullptr, &total, nullptr));
    const std::uint64_t qwTotalKiB = std::min<std::uint64_t>(total.QuadPart / 1024, MAXDWORD);
    DWORD dwFreeKiB = 0;
    DWORD dwTotalKiB = 0;
    EXPECT_EQ(m_dak.DAKGetDeviceFreeSpace(&dwFreeKiB, &dwTotalKiB), DAKERROR_NONE);
    EXPECT_EQ(dwTotalKiB, qwTotalKiB);
    EXPECT_TRUE(dwFreeKiB > 0 && dwFreeKiB <= dwTotalKiB);
    std::uint64_t qwFree = 0;
    EXPECT_EQ(m_dak.DAKGetFolderFreeSpace(L"\\Card", &qwFree), DAKERROR_NONE);
    EXPECT_TRUE(qwFree > 0 && qwFree <= total.QuadPart);
    EXPECT_EQ(m_dak.DAKGetFolderFreeSpace(L"\\none", &qwFree), DAKERROR_FOLDER_SPACE);

    CArray<_tagStorageInfo, _tagStorageInfo> storages;
    EXPECT_EQ(m_dak.DAKGetStorageInfo(&storages), DAKERROR_NONE);
    ASSERT_EQ(storages.GetSize(), 2);
    EXPECT_STREQ(storages.GetAt(0).szStorageName, L"\\");
    EXPECT_STREQ(storages.GetAt(1).szStorageName, L"Card");
    EXPECT_EQ(storages.GetAt(0).dwValue1, qwTotalKiB);
    EXPECT_TRUE(storages.GetAt(0).dwValue3 == 1 && storages.GetAt(1).dwValue3 == 2);
    m_dak.ClearStorageList(&storages);

    WriteTree(OnDevice(""), {{L"f", File(5, 1)}});
    WriteTree(m_folder / "card", {{L"g", File(5, 2)}, {L"h\\i", File(5, 3)}});
    EXPECT_EQ(m_dak.DAKFormatPartition(L"Card"), DAKERROR_NONE);
    EXPECT_TRUE(Eventually([&] { return fs::is_empty(m_folder / "card"); }));
    EXPECT_TRUE(fs::exists(OnDevice("f")));
    EXPECT_EQ(m_dak.DAKFormatPartition(L"f"), DAKERROR_FAIL);
}

} // namespace
} // namespace windows_end_to_end
