// What the operations on the device's system and storages hand to their callers.

#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using sim::Bytes;
using sim::Text;
using sim::U32;

class DeviceServices : public testing::Test {
  protected:
    // A device that takes the next command and answers with these packages.
    void Answer(const std::vector<Bytes>& packages) {
        device.ExpectThat([](const Bytes&) {}).Reply(sim::Ack());
        for (const Bytes& package : packages) {
            device.Reply(package);
        }
    }
    void Check(DWORD dwReturned, DWORD dwExpected) {
        EXPECT_EQ(dwReturned, dwExpected);
        EXPECT_EQ(dak.GetLastError(), dwExpected);
        EXPECT_EQ(device.PendingPackages(), 0u);
    }
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    CDAKVorn dak;
};

TEST_F(DeviceServices, ProcessResults) {
    DWORD dwResult = 7;
    Answer({sim::Response(12, 1, U32(0x80000003))});
    Check(dak.DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("b"), &dwResult), 0);
    EXPECT_EQ(dwResult, 0x80000003);
    Answer({sim::Response(12, 0, U32(5))});
    Check(dak.DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("b"), &dwResult), DAKERROR_FAIL);
    EXPECT_EQ(dwResult, 5u) << "stored whatever the result says";
    // Without a place for the value the device is not to wait for the program either.
    device.ExpectCommand(12, Text(DAK_WIDE("a")), Text(DAK_WIDE("")), U32(0)).Reply(sim::Ack());
    device.Reply(sim::Response(12, 1, U32(1)));
    Check(dak.DAKCreateProcess(DAK_WIDE("a"), nullptr, nullptr), 0);
}

TEST_F(DeviceServices, KernelIoControl) {
    const std::string strIn = "in";
    struct {
        const char* lpszName;
        DWORD nOutSize;
        int nResult;
        DWORD dwReported;
        Bytes output;
        DWORD dwExpected;
        std::string strOut;
        DWORD dwReturned;
    } const rows[] = {
        {"output", 4, 1, 3, {'x', 'y', 'z'}, 0, "xyz4", 3},
        {"all of it", 4, 1, 4, {'w', 'x', 'y', 'z'}, 0, "wxyz", 4},
        {"no output", 4, 1, 0, {}, 0, "1234", 0},
        {"refused, with output", 4, 0, 1, {'x'}, DAKERROR_FAIL, "x234", 1},
        {"short", 4, 1, 3, {'x'}, 0, "x234", 3},
        {"missing", 4, 1, 3, {}, 0, "1234", 3},
        {"more than there is room for", 2, 1, 3, {}, DAKERROR_FAIL, "1234", 77},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszName);
        char szOut[] = "1234";
        DWORD dwReturned = 77;
        device.ExpectCommand(13, U32(5), U32(2), Bytes{'i', 'n'}, U32(row.nOutSize),
                             Bytes(szOut, szOut + row.nOutSize));
        device.Reply(sim::Ack()).Reply(sim::Response(13, row.nResult, U32(row.dwReported)));
        if (!row.output.empty()) {
            device.Reply(row.output);
        }
        Check(dak.DAKKernelIoControl(5, const_cast<char*>(strIn.data()), 2, szOut, row.nOutSize,
                                     &dwReturned),
              row.dwExpected);
        EXPECT_EQ(szOut, row.strOut);
        EXPECT_EQ(dwReturned, row.dwReturned);
    }
    char szOut[] = "1234";
    Answer({sim::Response(13, 1, U32(1)), {'x'}});
    Check(dak.DAKKernelIoControl(5, nullptr, 0, szOut, 4, nullptr), 0);
    // Without a place for output the device takes the command and nobody asks for more.
    for (const bool bBuffer : {true, false}) {
        const std::uint64_t qwStart = world.NowMs();
        device.ExpectCommand(13, U32(5), U32(0), U32(bBuffer ? 0 : 2), Bytes(bBuffer ? 0 : 2));
        device.Reply(sim::Ack());
        Check(dak.DAKKernelIoControl(5, nullptr, 0, bBuffer ? szOut : nullptr, bBuffer ? 0 : 2,
                                     nullptr),
              DAKERROR_FAIL);
        EXPECT_EQ(world.NowMs(), qwStart + 330);
    }
}

TEST_F(DeviceServices, WindowMessages) {
    for (const std::uint16_t code : {std::uint16_t{19}, std::uint16_t{21}, std::uint16_t{22}}) {
        DWORD dwMessage = 7;
        Answer({sim::Response(code, 0xC001)});
        Check(dak.DAKRegisterWindowMessage(DAK_WIDE("name"), &dwMessage),
              code == 22 ? DAKERROR_FAIL : 0);
        EXPECT_EQ(dwMessage, code == 22 ? 0u : 0xC001u);
    }
    DWORD dwMessage = 7;
    Answer({sim::Response(19, 0)});
    Check(dak.DAKRegisterWindowMessage(DAK_WIDE("name"), &dwMessage), DAKERROR_FAIL);
    EXPECT_EQ(dwMessage, 0u);
    Answer({sim::Response(19, 1)});
    Check(dak.DAKBroadCastMessage(1, 2, 3), DAKERROR_FAIL);
    dwMessage = 7;
    world.Unplug();
    Check(dak.DAKRegisterWindowMessage(DAK_WIDE("name"), &dwMessage), DAKERROR_NO_DEVICE);
    EXPECT_EQ(dwMessage, 0u);
}

TEST_F(DeviceServices, FreeSpace) {
    const Bytes space = sim::U64(0x0000000900000005);
    DWORD dwFirst = 77;
    DWORD dwSecond = 77;
    std::uint64_t qwSpace = 77;
    // What the device says is stored whatever the result.
    Answer({sim::Response(6, 0, space)});
    Check(dak.DAKGetDeviceFreeSpace(&dwFirst, nullptr), DAKERROR_FAIL);
    Answer({sim::Response(6, 1, space)});
    Check(dak.DAKGetDeviceFreeSpace(nullptr, &dwSecond), 0);
    EXPECT_EQ(dwFirst, 5u);
    EXPECT_EQ(dwSecond, 9u);
    Answer({sim::Response(25, 0, space)});
    Check(dak.DAKGetFolderFreeSpace(DAK_WIDE("\\"), &qwSpace), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(qwSpace, 0x0000000900000005u);
    // An empty path goes out as it is.
    device.ExpectCommand(25, Bytes(2)).Reply(sim::Ack()).Reply(sim::Response(25, 1, space));
    Check(dak.DAKGetFolderFreeSpace(DAK_WIDE(""), nullptr), 0);
    // The words stay as they were where no response came, the value is cleared.
    device.ExpectThat([](const Bytes&) {}).VanishAfter(100);
    Check(dak.DAKGetDeviceFreeSpace(&dwFirst, &dwSecond), DAKERROR_FAIL);
    EXPECT_EQ(dwFirst, 5u);
    EXPECT_EQ(dwSecond, 9u);
    Check(dak.DAKGetFolderFreeSpace(DAK_WIDE("\\"), &qwSpace), DAKERROR_NO_DEVICE);
    EXPECT_EQ(qwSpace, 0u);
}

TEST_F(DeviceServices, StorageInfo) {
    const auto record = [](std::basic_string_view<WCHAR> name, DWORD dwValue) {
        Bytes bytes = Text(name);
        bytes.resize(104, 0xCC); // behind the name the device's memory shows
        return sim::Join(bytes, U32(dwValue), U32(dwValue + 1), U32(dwValue + 2), U32(99));
    };
    const Bytes two = sim::Join(record(DAK_WIDE("Root"), 10),
                                record(std::basic_string<WCHAR>(51, DAK_WIDE('x')), 20));
    const Bytes endless = sim::Join(Bytes(104, 'y'), Bytes(16, 1));
    const Bytes torn(two.begin(), two.begin() + 239);
    struct {
        const char* lpszName;
        int nResult;
        int nCount;
        Bytes records;
        int nLengthMore; // announced beyond what comes
        DWORD dwExpected;
        int nAdded;
        std::uint64_t qwMs;
    } const rows[] = {
        {"two", 1, 2, two, 0, 0, 2, 350},
        {"none", 5, 2, {}, 0, 0, 0, 340},
        {"refused", 0, 2, two, 0, DAKERROR_FAIL, 2, 350},
        {"fewer counted", 1, 1, two, 0, 0, 1, 350},
        {"more counted", 1, 3, two, 0, 0, 2, 350},
        {"count below 0", 1, -1, two, 0, 0, 0, 350},
        {"a torn record", 1, 2, torn, 0, 0, 1, 350},
        {"a short read", 1, 2, torn, 1, 0, 1, 350},
        {"no read", 1, 2, {}, 240, 0, 0, 340 + 750},
        {"length below the head", 1, 2, {}, -1, 0, 0, 340},
        {"length out of all reason", 1, 2, {}, 1 << 20, DAKERROR_FAIL, 0, 340},
        {"a name without its end", 1, 1, endless, 0, 0, 1, 350},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszName);
        Bytes reply =
            sim::Response(23, row.nResult, U32(static_cast<DWORD>(row.nCount)), row.records);
        DakPutU32(reply.data() + DAK_OFFSET_LENGTH,
                  static_cast<DWORD>(static_cast<int>(reply.size()) - 8 + row.nLengthMore));
        CArray<_tagStorageInfo, _tagStorageInfo> list;
        list.Add({});
        const std::uint64_t qwStart = world.NowMs();
        Answer({reply});
        Check(dak.DAKGetStorageInfo(&list), row.dwExpected);
        EXPECT_EQ(world.NowMs() - qwStart, row.qwMs);
        EXPECT_EQ(list.GetSize(), row.nAdded + 1) << "behind what was there";
        for (int i = 1; i < list.GetSize() && row.records != endless; ++i) {
            _tagStorageInfo expected{};
            (i == 1 ? DAK_WIDE("Root") : std::basic_string<WCHAR>(51, DAK_WIDE('x')))
                .copy(expected.szStorageName, 52);
            const DWORD dwValue = i == 1 ? 10 : 20;
            expected.dwValue1 = dwValue;
            expected.dwValue2 = dwValue + 1;
            expected.dwValue3 = dwValue + 2;
            EXPECT_EQ(std::memcmp(&list[i], &expected, sizeof(expected)), 0);
        }
        if (row.records == endless) {
            EXPECT_EQ(list[1].szStorageName[51], 0);
        }
        dak.ClearStorageList(&list);
        EXPECT_EQ(list.GetData(), nullptr);
        EXPECT_EQ(list.GetSize(), 0);
    }
}

} // namespace
