// What the operations hand to their callers of what the device answers.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{0xFFFFFFFE});

class Values : public testing::Test, protected CRun {
  protected:
    // A device that takes the next command and answers with these packages.
    template <class... TPackages>
    void Answer(const TPackages&... answers) {
        device.ExpectThat([](const Bytes&) {}).Reply(Ack());
        (device.Reply(answers), ...);
    }
    void Check(DWORD dwReturned, DWORD dwExpected) {
        EXPECT_EQ(dwReturned, dwExpected);
        EXPECT_EQ(dak->GetLastError(), dwExpected);
    }
    DWORD dwValue = 7;
};

TEST_F(Values, OfFiles) {
    void* hFile = nullptr;
    Answer(Response(15, 0, U32(0x80000001)));
    Check(dak->DAKCreateFile(DAK_WIDE("a"), 0, 0, 0, &hFile), FAIL);
    EXPECT_EQ(hFile, reinterpret_cast<void*>(std::uintptr_t{0x80000001})) << "stored all the same";
    const Rows<std::uint16_t, DWORD, DWORD> rows = {
        {18, 0, 0}, {18, 0x80000000, 0}, {18, 0xFFFFFFFF, FAIL}, {19, 5, FAIL}};
    for (const auto& [code, dwPosition, dwResult] : rows) {
        Answer(Response(code, static_cast<int>(dwPosition)));
        Check(dak->DAKSetFilePointer(FILE_HANDLE, 0, 0, &dwValue), dwResult);
        EXPECT_EQ(dwValue, code == 18 ? dwPosition : 0xFFFFFFFF);
    }
    // The record comes whatever the result says, but only whole.
    const Bytes record = Pattern(1236);
    _tagFileInfo info{};
    Answer(Response(14, 1, Bytes(record.begin(), record.end() - 1)));
    Check(dak->DAKGetFileInfo(DAK_WIDE("a"), &info), FAIL);
    EXPECT_EQ(info.szText1[0], 0);
    Answer(Response(14, 0, record));
    Check(dak->DAKGetFileInfo(DAK_WIDE("a"), &info), FAIL);
    EXPECT_EQ(std::memcmp(&info, record.data(), 1236), 0);
    world.Unplug();
    Check(dak->DAKSetFilePointer(FILE_HANDLE, 0, 0, &(dwValue = 7)), GONE);
    EXPECT_EQ(dwValue, 0xFFFFFFFF);
}

TEST_F(Values, OfProcessesAndMessages) {
    for (const int nResult : {1, 0}) { // stored whatever the result says
        Answer(Response(12, nResult, U32(0x80000003)));
        Check(dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("b"), &dwValue),
              nResult == 1 ? 0 : FAIL);
        EXPECT_EQ(std::exchange(dwValue, 7), 0x80000003);
    }
    for (const auto code : std::initializer_list<std::uint16_t>{19, 21, 22}) {
        for (const int nMessage : {0xC001, 0}) {
            const bool bGood = code != 22 && nMessage != 0;
            Answer(Response(code, nMessage));
            Check(dak->DAKRegisterWindowMessage(DAK_WIDE("name"), &dwValue), bGood ? 0 : FAIL);
            EXPECT_EQ(std::exchange(dwValue, 7), bGood ? 0xC001u : 0u);
        }
    }
    Answer(Response(19, 1));
    Check(dak->DAKBroadCastMessage(1, 2, 3), FAIL);
    world.Unplug();
    Check(dak->DAKRegisterWindowMessage(DAK_WIDE("name"), &dwValue), GONE);
    EXPECT_EQ(dwValue, 0u);
}

TEST_F(Values, OfKernelIoControls) {
    const Rows<int, DWORD, std::string, DWORD, std::string> rows = {
        {1, 3, "xyz", 0, "xyz4"},  {1, 4, "wxyz", 0, "wxyz"}, {1, 0, "", 0, "1234"},
        {0, 1, "x", FAIL, "x234"}, {1, 3, "x", 0, "x234"},    {1, 3, "", 0, "1234"},
        {1, 5, "", FAIL, "1234"}};
    char szIn[] = "in";
    for (const auto& [nResult, dwReported, strOutput, dwExpected, strOut] : rows) {
        char szOut[] = "1234";
        dwValue = 77;
        device.ExpectCommand(13, U32(5), U32(2), Bytes{'i', 'n'}, U32(4), Bytes(szOut, szOut + 4));
        device.Reply(Ack()).Reply(Response(13, nResult, U32(dwReported)));
        strOutput.empty() ? device : device.Reply(Bytes(strOutput.begin(), strOutput.end()));
        Check(dak->DAKKernelIoControl(5, szIn, 2, szOut, 4, &dwValue), dwExpected);
        EXPECT_EQ(szOut, strOut);
        EXPECT_EQ(dwValue, dwReported > 4 ? 77 : dwReported);
    }
    // Without a place for output the device takes the command and nobody asks for more.
    for (const DWORD dwOut : {0u, 2u}) {
        const std::uint64_t qwStart = world.NowMs();
        device.ExpectCommand(13, U32(5), U32(0), U32(dwOut), Bytes(dwOut)).Reply(Ack());
        Check(dak->DAKKernelIoControl(5, nullptr, 0, dwOut == 0 ? szIn : nullptr, dwOut, nullptr),
              FAIL);
        EXPECT_EQ(world.NowMs() - qwStart, 330u);
    }
}

// What the device says is stored whatever the result.
TEST_F(Values, OfFreeSpace) {
    const Bytes space = U64(0x0000000900000005);
    DWORD dwSecond = 77;
    std::uint64_t qwSpace = 77;
    Answer(Response(6, 0, space));
    Check(dak->DAKGetDeviceFreeSpace(&dwValue, nullptr), FAIL);
    Answer(Response(6, 1, space));
    Check(dak->DAKGetDeviceFreeSpace(nullptr, &dwSecond), 0);
    EXPECT_TRUE(dwValue == 5 && dwSecond == 9);
    Answer(Response(25, 0, space));
    Check(dak->DAKGetFolderFreeSpace(DAK_WIDE("\\"), &qwSpace), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(qwSpace, 0x0000000900000005u);
    Answer(Response(25, 1, space));
    Check(dak->DAKGetFolderFreeSpace(DAK_WIDE(""), nullptr), 0);
    // The words stay as they were where no response came, the value is cleared.
    Play("> gone@100");
    Check(dak->DAKGetDeviceFreeSpace(&dwValue, &dwSecond), FAIL);
    EXPECT_TRUE(dwValue == 5 && dwSecond == 9);
    Check(dak->DAKGetFolderFreeSpace(DAK_WIDE("\\"), &qwSpace), GONE);
    EXPECT_EQ(qwSpace, 0u);
}

TEST_F(Values, OfStorages) {
    const std::basic_string<WCHAR> names[] = {DAK_WIDE("Root"),
                                              std::basic_string<WCHAR>(51, DAK_WIDE('y'))};
    const auto record = [&](int nIndex) {
        Bytes name = nIndex == 0 ? Text(names[0]) : Text(names[1] + DAK_WIDE("z")); // unended
        name.resize(104, 0xCC); // behind the name the device's memory shows
        return Join(name, Pattern(16, static_cast<DWORD>(nIndex)));
    };
    const Bytes two = Join(record(0), record(1));
    const Bytes torn(two.begin(), two.begin() + 239);
    // nLengthMore: announced beyond what comes
    const Rows<int, int, Bytes, int, int> rows = {
        {1, 2, two, 0, 2},  {0, 2, two, 0, 2},  {5, 2, {}, 0, 0},      {1, 1, two, 0, 1},
        {1, 3, two, 0, 2},  {1, -1, two, 0, 0}, {1, 2, torn, 0, 1},    {1, 2, torn, 1, 1},
        {1, 2, {}, 240, 0}, {1, 2, {}, -1, 0},  {1, 2, {}, 1 << 20, 0}};
    for (const auto& [nResult, nCount, records, nLengthMore, nAdded] : rows) {
        Bytes reply = Response(23, nResult, U32(static_cast<DWORD>(nCount)), records);
        DakPutU32(reply.data() + DAK_OFFSET_LENGTH,
                  static_cast<DWORD>(static_cast<int>(reply.size()) - 8 + nLengthMore));
        CArray<_tagStorageInfo, _tagStorageInfo> list;
        list.Add({});
        const std::uint64_t qwStart = world.NowMs();
        Answer(reply);
        Check(dak->DAKGetStorageInfo(&list), nResult == 0 ? FAIL : 0);
        const std::uint64_t qwRead = nLengthMore == 240 ? 750 : records.empty() ? 0 : 10;
        EXPECT_EQ(world.NowMs() - qwStart, 340 + qwRead);
        ASSERT_EQ(list.GetSize(), nAdded + 1) << "behind what was there";
        for (int i = 0; i < nAdded; ++i) {
            _tagStorageInfo expected{};
            names[i].copy(expected.szStorageName, 51);
            std::memcpy(&expected.dwValue1, record(i).data() + 104, 12);
            EXPECT_EQ(std::memcmp(&list[i + 1], &expected, sizeof(expected)), 0);
        }
        dak->ClearStorageList(&list);
        EXPECT_EQ(list.GetData(), nullptr);
    }
}

} // namespace
