// Host files, and what the host has besides: memory and text.
#include "platform/memory.h"
#include "platform/text.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

namespace platform::tests {

static std::string In(const std::string& strName) {
    return contract::Folder() + "\\" + strName;
}

static bool Make(const char* lpszName, const std::string& strContents) {
    const HANDLE hFile = Open(In(lpszName), GENERIC_WRITE, CREATE_ALWAYS);
    const auto dwSize = static_cast<DWORD>(strContents.size());
    DWORD dwCount = 0;
    return WriteFile(hFile, strContents.data(), dwSize, &dwCount) != FALSE && dwCount == dwSize &&
           CloseHandle(hFile) != FALSE;
}

static std::string Contents(const std::string& strPath) {
    const HANDLE hFile = Open(strPath);
    char szBuffer[256];
    DWORD dwCount = 0;
    const BOOL bRead = ReadFile(hFile, szBuffer, sizeof(szBuffer), &dwCount);
    CloseHandle(hFile);
    return bRead != FALSE ? std::string(szBuffer, dwCount) : "none";
}

static bool Move(const char* lpszFrom, const char* lpszTo) {
    return MoveFileA(In(lpszFrom).c_str(), In(lpszTo).c_str()) != FALSE;
}
static bool Replace(const char* lpszFrom, const char* lpszTo) {
    return MoveFileExA(In(lpszFrom).c_str(), In(lpszTo).c_str(), MOVEFILE_REPLACE_EXISTING) !=
           FALSE;
}
static bool Delete(const char* lpszName) {
    return DeleteFileA(In(lpszName).c_str()) != FALSE;
}
static bool Mark(const char* lpszName, DWORD dwAttributes) {
    return SetFileAttributesA(In(lpszName).c_str(), dwAttributes) != FALSE;
}
static bool MakeFolder(const std::string& strName) {
    return CreateDirectoryA(In(strName).c_str(), nullptr) != FALSE;
}

// Whether something was done, and what the two files of a test hold then.
static std::string After(bool bDone) {
    return (bDone ? "done " : "refused ") + Contents(In("a")) + " " + Contents(In("b"));
}

CONTRACT_TEST(Files, AreMadeMovedReplacedAndDeleted) {
    EXPECT_TRUE(MakeFolder("folder"));
    EXPECT_EQ(After(Make("a", "one")), "done one none");
    EXPECT_EQ(After(Move("a", "b")), "done none one");
    EXPECT_EQ(After(Move("a", "b")), "refused none one");
    EXPECT_EQ(After(Replace("a", "b")), "refused none one");
    EXPECT_EQ(After(Make("a", "two")), "done two one");
    const bool bMoved = Move("a", "b");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(After(bMoved), "refused two one");
    EXPECT_EQ(After(Replace("a", "folder")), "refused two one");
    EXPECT_EQ(After(Mark("b", FILE_ATTRIBUTE_READONLY)), "done two one");
    EXPECT_EQ(After(Replace("a", "b")), "refused two one");
    EXPECT_EQ(After(Delete("b")), "refused two one");
    EXPECT_EQ(After(Opens(In("b"), GENERIC_WRITE)), "refused two one");
    EXPECT_EQ(After(Opens(In("b"), GENERIC_WRITE, CREATE_ALWAYS)), "refused two one");
    EXPECT_EQ(After(Mark("b", FILE_ATTRIBUTE_NORMAL)), "done two one");
    EXPECT_EQ(After(Replace("a", "b")), "done none two");
    EXPECT_EQ(After(Delete("b")), "done none none");
    EXPECT_FALSE(Delete("b") || Delete("folder") || Mark("b", FILE_ATTRIBUTE_NORMAL));
}

CONTRACT_TEST(Files, OpenAsAsked) {
    const struct {
        DWORD dwDisposition;
        const char* lpszOld;
        const char* lpszNew;
    } rows[] = {
        {OPEN_EXISTING, "done contents none", "refused none none"},
        {OPEN_ALWAYS, "done contents none", "done  none"},
        {CREATE_NEW, "refused contents none", "done  none"},
        {CREATE_ALWAYS, "done  none", "done  none"},
        {TRUNCATE_EXISTING, "done  none", "refused none none"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.dwDisposition);
        Make("a", "contents");
        EXPECT_EQ(After(Opens(In("a"), GENERIC_WRITE, row.dwDisposition)), row.lpszOld);
        EXPECT_TRUE(Delete("a"));
        EXPECT_EQ(After(Opens(In("a"), GENERIC_WRITE, row.dwDisposition)), row.lpszNew);
    }
    EXPECT_FALSE(Opens(contract::Folder()) || Opens("") || MakeFolder("no folder\\b") ||
                 Opens(In("no folder\\file"), GENERIC_WRITE, CREATE_ALWAYS));

    // And transfer only what they were opened for.
    Make("a", "contents");
    char ch = 'x';
    DWORD dwCount = 77;
    HANDLE hFile = Open(In("a"));
    EXPECT_FALSE(WriteFile(hFile, &ch, 1, &dwCount));
    EXPECT_TRUE(CloseHandle(hFile));
    hFile = Open(In("a"), GENERIC_WRITE);
    EXPECT_FALSE(ReadFile(hFile, &ch, 1, &dwCount));
    EXPECT_TRUE(CloseHandle(hFile));
    EXPECT_EQ(dwCount, 77U);
}

CONTRACT_TEST(Files, MayHaveNamesOfAnyTextBehindEitherSlash) {
    const std::string strName = "\xC3\xBC\xE2\x82\xAC";
    const std::string strBelow = strName + "/" + strName;
    EXPECT_TRUE(MakeFolder(strName) && MakeFolder(strBelow) && Make("file", ""));
    EXPECT_TRUE(Make((strBelow + "\\\xF0\x9F\x98\x80 name").c_str(), "one"));
    EXPECT_EQ(Contents(In(strName + "\\" + strName + "/\xF0\x9F\x98\x80 name")), "one");
    EXPECT_FALSE(MakeFolder(strName));
    EXPECT_FALSE(MakeFolder("file"));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
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
}

CONTRACT_TEST(Files, TemporaryNamesAreNewEmptyAndNeverTooLong) {
    struct {
        char szPath[MAX_PATH] = {};
        char chGuard = 'g';
    } target;
    const auto make = [&](const std::string& strFolder, const char* lpszPrefix) {
        return GetTempFileNameA(strFolder.c_str(), lpszPrefix, 0, target.szPath) != 0;
    };
    std::set<std::string> names;
    for (const char* lpszPrefix : {"name.txt", "name.txt", "", ".hidden", "\xC3\xBC\xC3\xBC"}) {
        ASSERT_TRUE(make(contract::Folder(), lpszPrefix));
        EXPECT_TRUE(names.insert(target.szPath).second) << target.szPath;
        EXPECT_TRUE(std::string(target.szPath).starts_with(contract::Folder()));
        EXPECT_EQ(Contents(target.szPath), "");
    }
    EXPECT_FALSE(make(In("missing"), "a") || make(std::string(300, 'f'), "a"));
    // Folders of every length around the one for which nothing is left.
    std::string strFolder(20, 'd');
    while (In(strFolder).size() < 245) {
        ASSERT_TRUE(MakeFolder(strFolder));
        strFolder.append("\\").append(20, 'd');
    }
    for (strFolder.resize(strFolder.rfind('\\') + 2); In(strFolder).size() < MAX_PATH;
         strFolder += 'e') {
        MakeFolder(strFolder);
        const bool bMade = make(In(strFolder), "prefix");
        EXPECT_TRUE(bMade || In(strFolder).size() > 225) << "there was room enough";
        EXPECT_TRUE(!bMade || Opens(target.szPath));
        EXPECT_EQ(target.chGuard, 'g');
    }
}

CONTRACT_TEST(Files, KeepTheTimesTheyAreGiven) {
    constexpr std::uint64_t NOT_SET = 0;
    constexpr std::uint64_t BEYOND = 0x8000000000000000;
    const struct {
        std::uint64_t qwCreation;
        std::uint64_t qwWrite;
        bool bSets = true;
    } rows[] = {
        {116394736000000000, 116444736000000000}, // 1970
        {116394735999999999, 116444735999999999},
        {114950000000000000, 115000000000000000},
        {126950000012345678, 127000000012345678},
        {127000000000000000, NOT_SET},
        {NOT_SET, 137000000000000001}, // 2035
        {NOT_SET, NOT_SET},
        {BEYOND, 127000000000000000, false},
        {127000000000000000, BEYOND, false},
    };
    HANDLE hFile = Open(In("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    std::uint64_t qwCreated = 0;
    std::uint64_t qwWritten = 0;
    for (const auto& [qwCreation, qwWrite, bSets] : rows) {
        const auto ftCreation = std::bit_cast<FILETIME>(qwCreation);
        const auto ftWrite = std::bit_cast<FILETIME>(qwWrite);
        EXPECT_EQ(platform::SetFileTime(hFile, &ftCreation, nullptr, &ftWrite) != FALSE, bSets);
        qwCreated = bSets && qwCreation != NOT_SET ? qwCreation : qwCreated;
        qwWritten = bSets && qwWrite != NOT_SET ? qwWrite : qwWritten;
        FILETIME found[2] = {};
        EXPECT_TRUE(platform::GetFileTime(hFile, &found[0], nullptr, &found[1]));
        EXPECT_TRUE(std::bit_cast<std::uint64_t>(found[0]) == qwCreated ||
                    !contract::CreationTimesAreKept());
        EXPECT_EQ(std::bit_cast<std::uint64_t>(found[1]), qwWritten);
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
    EXPECT_EQ(LocalFree(nullptr), nullptr);

    std::uint64_t qwFree = 0;
    std::uint64_t qwTotal = 0;
    EXPECT_TRUE(GetDiskFreeSpaceExA(contract::Folder().c_str(), &qwFree, nullptr, nullptr));
    EXPECT_TRUE(GetDiskFreeSpaceExA(contract::Folder().c_str(), nullptr, &qwTotal, nullptr));
    EXPECT_TRUE(0 < qwFree && qwFree <= qwTotal);
    EXPECT_FALSE(GetDiskFreeSpaceExA(In("missing").c_str(), &qwFree, nullptr, nullptr));
}

// Converts with exactly the right room; with any smaller one it is refused.
template <class UNIT, class CONVERT>
static std::basic_string<UNIT> Converted(std::size_t nUnits, const CONVERT& convert) {
    for (std::size_t nRoom = 1;; ++nRoom) {
        std::vector<UNIT> units(nRoom);
        const int nWritten = convert(units.data(), static_cast<int>(nRoom));
        if (nRoom == nUnits) {
            EXPECT_EQ(nWritten, static_cast<int>(nUnits));
            return {units.begin(), units.end() - 1};
        }
        EXPECT_TRUE(nWritten == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER);
    }
}

CONTRACT_TEST(Text, GoesToUtf16AndBack) {
    const std::pair<std::string, std::basic_string<WCHAR>> rows[] = {
        {"", DAK_WIDE("")},
        {"plain\\text", DAK_WIDE("plain\\text")},
        {"\x7F\xC2\x80\xDF\xBF", DAK_WIDE("\x7F\x80\x7FF")},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", DAK_WIDE("\x800\xD7FF\xE000\xFFFD")},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", DAK_WIDE("\xD800\xDC00\xDBFF\xDFFF")},
    };
    for (const auto& row : rows) {
        BOOL bReplaced = TRUE;
        const auto toWide = [&](WCHAR* lpTarget, int nRoom) {
            return MultiByteToWideChar(CP_ACP, 0, row.first.c_str(), -1, lpTarget, nRoom);
        };
        const auto toNarrow = [&](char* lpTarget, int nRoom) {
            return WideCharToMultiByte(CP_ACP, 0, row.second.c_str(), -1, lpTarget, nRoom, nullptr,
                                       &bReplaced);
        };
        EXPECT_EQ(Converted<WCHAR>(row.second.size() + 1, toWide), row.second);
        EXPECT_EQ(Converted<char>(row.first.size() + 1, toNarrow), row.first);
        EXPECT_FALSE(bReplaced);
    }
    char szCopy[] = "12345";
    EXPECT_TRUE(lstrcpyA(szCopy, "abc") == szCopy && szCopy == std::string("abc"));
    EXPECT_EQ(szCopy[4], '5');
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
         {"\x80", "\xBFz", "\xC0\xAF", "\xC1\xBF", "\xC3", "\xC3z", "\xE2\x82", "\xE0\x80\x80",
          "\xED\xA0\x80", "\xF0\x9F\x98", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80",
          "\xF5\x80\x80\x80", "\xFF"}) {
        WCHAR wide[32] = {};
        const int nWritten = MultiByteToWideChar(CP_ACP, 0, lpszNarrow, -1, wide, 32);
        ASSERT_GT(nWritten, 1) << lpszNarrow;
        EXPECT_TRUE(wide[0] == 0xFFFD && wide[nWritten - 1] == 0) << lpszNarrow;
        EXPECT_EQ(wide[nWritten - 2] == DAK_WIDE('z'), std::strchr(lpszNarrow, 'z') != nullptr);
    }
}

} // namespace platform::tests
