// Host files, and what the host has besides: memory and text.
#include "platform/memory.h"
#include "platform/text.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

namespace platform::tests {

static std::string In(const std::string& strName) {
    return contract::Folder() + "\\" + strName;
}

// Makes a file with these contents.
static bool Make(const std::string& strPath, const std::string& strContents) {
    const HANDLE hFile = Open(strPath, GENERIC_WRITE, CREATE_ALWAYS);
    DWORD dwCount = 0;
    return WriteFile(hFile, strContents.data(), static_cast<DWORD>(strContents.size()), &dwCount) &&
           dwCount == strContents.size() && CloseHandle(hFile);
}

static std::string Contents(const std::string& strPath) {
    const HANDLE hFile = Open(strPath);
    char szBuffer[256];
    DWORD dwCount = 0;
    const BOOL bRead = ReadFile(hFile, szBuffer, sizeof(szBuffer), &dwCount);
    CloseHandle(hFile);
    return bRead == FALSE ? "none" : dwCount == 0 ? "empty" : std::string(szBuffer, dwCount);
}

// Does what the words say with files of the test's folder.
static bool Does(const std::string& strWords) {
    std::istringstream words(strWords);
    std::string strVerb;
    std::string strName;
    std::string strOther;
    words >> strVerb >> strName >> strOther;
    const std::string strPath = In(strName);
    const std::string strTo = In(strOther);
    const char* const lpszPath = strPath.c_str();
    const std::map<std::string, DWORD> dispositions = {{"create-new", CREATE_NEW},
                                                       {"create", CREATE_ALWAYS},
                                                       {"open", OPEN_EXISTING},
                                                       {"open-always", OPEN_ALWAYS},
                                                       {"truncate", TRUNCATE_EXISTING}};
    const auto open = dispositions.find(strVerb);
    return open != dispositions.end() ? Opens(strPath, GENERIC_WRITE, open->second)
           : strVerb == "make"        ? Make(strPath, strOther)
           : strVerb == "folder"      ? CreateDirectoryA(lpszPath, nullptr)
           : strVerb == "move"        ? MoveFileA(lpszPath, strTo.c_str())
           : strVerb == "replace" ? MoveFileExA(lpszPath, strTo.c_str(), MOVEFILE_REPLACE_EXISTING)
           : strVerb == "delete"  ? DeleteFileA(lpszPath)
           : strVerb == "protect" ? SetFileAttributesA(lpszPath, FILE_ATTRIBUTE_READONLY)
                                  : SetFileAttributesA(lpszPath, FILE_ATTRIBUTE_NORMAL);
}

CONTRACT_TEST(Files, AreMadeOpenedMovedAndDeleted) {
    // What is tried: whether it is done, and what the files a and b hold then.
    const char* const rows[] = {
        "folder folder: yes none none",   "make a one: yes one none",
        "move a b: yes none one",         "move a b: no none one",
        "replace a b: no none one",       "make a two: yes two one",
        "move a b: no two one",           "replace a folder: no two one",
        "protect b: yes two one",         "replace a b: no two one",
        "delete b: no two one",           "open b: no two one",
        "create b: no two one",           "free b: yes two one",
        "replace a b: yes none two",      "delete b: yes none none",
        "delete b: no none none",         "delete folder: no none none",
        "free b: no none none",           "open a: no none none",
        "truncate a: no none none",       "open-always a: yes empty none",
        "create-new b: yes empty empty",  "make a old: yes old empty",
        "open a: yes old empty",          "open-always a: yes old empty",
        "create-new a: no old empty",     "truncate a: yes empty empty",
        "make b old: yes empty old",      "create b: yes empty empty",
        "create no/file: no empty empty", "folder no/folder: no empty empty",
        "open folder: no empty empty"};
    for (const std::string strRow : rows) {
        const std::string strWords = strRow.substr(0, strRow.find(':'));
        const std::string strDone = Does(strWords) ? ": yes " : ": no ";
        EXPECT_EQ(strWords + strDone + Contents(In("a")) + " " + Contents(In("b")), strRow);
    }
    for (const char* lpszTaken : {"move a b", "folder a", "folder folder"}) {
        EXPECT_TRUE(!Does(lpszTaken) && GetLastError() == ERROR_ALREADY_EXISTS) << lpszTaken;
    }
    EXPECT_FALSE(Opens(""));
    // Names of any text, behind either slash.
    const std::string strName = "\xC3\xBC\xE2\x82\xAC";
    EXPECT_TRUE(Does("folder " + strName) && Does("folder " + strName + "/" + strName));
    EXPECT_TRUE(Does("make " + strName + "/" + strName + "\\\xF0\x9F\x98\x80 one"));
    EXPECT_EQ(Contents(In(strName + "\\" + strName + "/\xF0\x9F\x98\x80")), "one");
}

CONTRACT_TEST(Files, AreWrittenAndReadAtThePosition) {
    HANDLE hFile = Open(In("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    const Bytes pattern = Pattern(700001);
    const auto dwSize = static_cast<DWORD>(pattern.size());
    DWORD dwCount = 0;
    DWORD dwHigh = 9;
    EXPECT_TRUE(WriteFile(hFile, pattern.data(), dwSize, &dwCount) && dwCount == dwSize);
    EXPECT_TRUE(GetFileSize(hFile, &dwHigh) == dwSize && dwHigh == 0);
    Bytes bytes(pattern.size());
    EXPECT_TRUE(ReadFile(hFile, bytes.data(), dwSize, &dwCount) && dwCount == 0) << "at the end";
    EXPECT_EQ(SetFilePointer(hFile, 0, nullptr, FILE_BEGIN), 0U);
    EXPECT_TRUE(ReadFile(hFile, bytes.data(), dwSize, &dwCount) && dwCount == dwSize);
    EXPECT_EQ(bytes, pattern);
    EXPECT_EQ(SetFilePointer(hFile, -5, nullptr, FILE_END), dwSize - 5);
    EXPECT_EQ(SetFilePointer(hFile, 2, nullptr, FILE_CURRENT), dwSize - 3);
    EXPECT_TRUE(ReadFile(hFile, bytes.data(), 100, &dwCount) && dwCount == 3);
    EXPECT_TRUE(std::equal(pattern.end() - 3, pattern.end(), bytes.begin()));
    EXPECT_EQ(SetFilePointer(hFile, -1, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_TRUE(CloseHandle(hFile));
    // Only what they were opened for.
    for (const DWORD dwAccess : {DWORD{GENERIC_READ}, DWORD{GENERIC_WRITE}}) {
        hFile = Open(In("file"), dwAccess);
        EXPECT_FALSE(dwAccess == GENERIC_READ ? WriteFile(hFile, bytes.data(), 1, &dwCount)
                                              : ReadFile(hFile, bytes.data(), 1, &dwCount));
        EXPECT_TRUE(dwCount == 3 && CloseHandle(hFile));
    }
}

CONTRACT_TEST(Files, TemporaryNamesAreNewEmptyAndNeverTooLong) {
    struct {
        char szPath[MAX_PATH] = {};
        char chGuard = 'g';
    } target;
    const auto make = [&](const std::string& strFolder, const std::string& strPrefix) {
        return GetTempFileNameA(strFolder.c_str(), strPrefix.c_str(), 0, target.szPath) != 0;
    };
    std::set<std::string> names;
    // Of a name that means anything but itself, and of half a character, nothing is taken over.
    for (const std::string strPrefix :
         {"name.txt", "name.txt", "", "../../up", "sub\\name", "ab:c", "NUL", ".hidden",
          "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC"}) {
        ASSERT_TRUE(make(contract::Folder(), strPrefix));
        const std::string strPath = target.szPath;
        EXPECT_TRUE(names.insert(strPath).second) << strPath;
        EXPECT_EQ(strPath.find_last_of("\\/"), contract::Folder().size());
        EXPECT_EQ(Contents(strPath), "empty");
        WCHAR wide[MAX_PATH] = {};
        MultiByteToWideChar(CP_ACP, 0, strPath.c_str(), -1, wide, MAX_PATH);
        EXPECT_EQ(std::count(wide, wide + MAX_PATH, WCHAR{0xFFFD}), 0);
    }
    EXPECT_FALSE(make(In("missing"), "a") || make(std::string(300, 'f'), "a"));
    // Folders of every length around the one for which nothing is left.
    std::string strFolder(20, 'd');
    while (In(strFolder).size() < 245) {
        ASSERT_TRUE(Does("folder " + strFolder));
        strFolder.append("\\").append(20, 'd');
    }
    for (strFolder.resize(strFolder.rfind('\\') + 2); In(strFolder).size() < MAX_PATH;
         strFolder += 'e') {
        Does("folder " + strFolder);
        const bool bMade = make(In(strFolder), "prefix");
        EXPECT_TRUE(bMade ? Opens(target.szPath) : In(strFolder).size() > 225);
        EXPECT_EQ(target.chGuard, 'g');
    }
}

CONTRACT_TEST(Files, KeepTheTimesTheyAreGiven) {
    constexpr std::uint64_t BEYOND = 0x8000000000000000;
    // The times of creation and of the latest write that are set, and those that are there then.
    const std::uint64_t rows[][4] = {
        {116394735999999999, 116444735999999999, 116394735999999999, 116444735999999999}, // 1969
        {126950000012345678, 0, 126950000012345678, 116444735999999999},
        {0, 137000000000000001, 126950000012345678, 137000000000000001}, // 2035
        {BEYOND, 127000000000000000, 126950000012345678, 137000000000000001},
        {127000000000000000, BEYOND, 126950000012345678, 137000000000000001},
    };
    HANDLE hFile = Open(In("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    for (const auto& row : rows) {
        const auto ftCreation = std::bit_cast<FILETIME>(row[0]);
        const auto ftWrite = std::bit_cast<FILETIME>(row[1]);
        EXPECT_EQ(platform::SetFileTime(hFile, &ftCreation, nullptr, &ftWrite) != FALSE,
                  row[0] != BEYOND && row[1] != BEYOND);
        FILETIME found[2] = {};
        EXPECT_TRUE(platform::GetFileTime(hFile, &found[0], nullptr, &found[1]));
        EXPECT_TRUE(std::bit_cast<std::uint64_t>(found[0]) == row[2] ||
                    !contract::CreationTimesAreKept());
        EXPECT_EQ(std::bit_cast<std::uint64_t>(found[1]), row[3]);
    }
    EXPECT_TRUE(platform::SetFileTime(hFile, nullptr, nullptr, nullptr));
    EXPECT_TRUE(platform::GetFileTime(hFile, nullptr, nullptr, nullptr) && CloseHandle(hFile));
}

CONTRACT_TEST(Memory, IsZeroAndRoomIsTold) {
    for (int i = 0; i < 3; ++i) {
        CLocalBuffer buffer(100000);
        EXPECT_EQ(std::count(buffer.Get(), buffer.Get() + 100000, 0), 100000);
        std::memset(buffer.Get(), 0xEE, 100000);
    }
    std::uint64_t qwFree = 0;
    std::uint64_t qwTotal = 0;
    EXPECT_TRUE(GetDiskFreeSpaceExA(contract::Folder().c_str(), &qwFree, &qwTotal, nullptr));
    EXPECT_TRUE(0 < qwFree && qwFree <= qwTotal);
    EXPECT_FALSE(GetDiskFreeSpaceExA(In("missing").c_str(), &qwFree, nullptr, nullptr));
}

CONTRACT_TEST(Text, GoesToUtf16AndBackWhereThereIsRoom) {
    const std::pair<std::string, std::basic_string<WCHAR>> rows[] = {
        {"\\\x7F\xC2\x80\xDF\xBF", DAK_WIDE("\\\x7F\x80\x7FF")},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", DAK_WIDE("\x800\xD7FF\xE000\xFFFD")},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", DAK_WIDE("\xD800\xDC00\xDBFF\xDFFF")},
    };
    for (const auto& [strNarrow, strWide] : rows) {
        std::basic_string<WCHAR> wide(strWide.size(), 0);
        std::string narrow(strNarrow.size(), 0);
        BOOL bReplaced = TRUE;
        // The room is that of the text without its terminator, and so many more.
        const auto toWide = [&](std::size_t nMore) {
            return MultiByteToWideChar(CP_ACP, 0, strNarrow.c_str(), -1, wide.data(),
                                       static_cast<int>(wide.size() + nMore));
        };
        const auto toNarrow = [&](std::size_t nMore) {
            return WideCharToMultiByte(CP_ACP, 0, strWide.c_str(), -1, narrow.data(),
                                       static_cast<int>(narrow.size() + nMore), nullptr,
                                       &bReplaced);
        };
        EXPECT_TRUE(toWide(0) == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER);
        EXPECT_TRUE(toNarrow(0) == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(toWide(1), static_cast<int>(wide.size() + 1));
        EXPECT_EQ(toNarrow(1), static_cast<int>(narrow.size() + 1));
        EXPECT_TRUE(wide == strWide && narrow == strNarrow && !bReplaced);
    }
    char szCopy[] = "12345";
    EXPECT_TRUE(lstrcpyA(szCopy, "abc") == szCopy && std::memcmp(szCopy, "abc\0005", 6) == 0);
}

CONTRACT_TEST(Text, ReplacesWhatIsMalformed) {
    for (const WCHAR* lpszWide : {DAK_WIDE("a\xD800"), DAK_WIDE("a\xDC00z"),
                                  DAK_WIDE("\xDBFF\xDBFF\xDFFF"), DAK_WIDE("\xD800z")}) {
        char narrow[32];
        BOOL bReplaced = FALSE;
        EXPECT_GT(WideCharToMultiByte(CP_ACP, 0, lpszWide, -1, narrow, 32, nullptr, &bReplaced), 0);
        EXPECT_TRUE(bReplaced);
    }
    for (const char* lpszNarrow :
         {"\x80", "\xBFz", "\xC1\xBF", "\xC3", "\xC3z", "\xE2\x82", "\xE0\x80\x80", "\xED\xA0\x80",
          "\xF0\x9F\x98", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80", "\xFF"}) {
        WCHAR wide[32] = {};
        const int nWritten = MultiByteToWideChar(CP_ACP, 0, lpszNarrow, -1, wide, 32);
        ASSERT_GT(nWritten, 1) << lpszNarrow;
        EXPECT_TRUE(wide[0] == 0xFFFD && wide[nWritten - 1] == 0) << lpszNarrow;
        EXPECT_EQ(wide[nWritten - 2] == DAK_WIDE('z'), std::strchr(lpszNarrow, 'z') != nullptr);
    }
}

} // namespace platform::tests
