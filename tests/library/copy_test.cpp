// The copies in both directions: what goes over the wire, byte for byte, and what becomes of it on
// the host's disk.

#include "platform/file.h"
#include "tests/library/transfer_run.h"

#include <iomanip>

namespace {

constexpr std::uint64_t PUSH_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + 10; // and a look at the file
constexpr std::uint64_t PULL_MS = LINK_UP_MS + READ_MS + 500;

void ExpectFile(CRun& run, const std::string& strPath, const Bytes& bytes) {
    EXPECT_EQ(run.world.ReadHostFile(strPath), bytes) << strPath;
    const sim::CHostFile* pFile = run.world.HostFile(strPath);
    EXPECT_TRUE(pFile != nullptr && pFile->ftCreation.dwHighDateTime == CREATED >> 32 &&
                pFile->ftWrite.dwLowDateTime == static_cast<DWORD>(WRITTEN));
}

Bytes Hex(const std::string& strDigits) {
    Bytes bytes;
    std::istringstream digits(strDigits);
    for (std::string strByte; digits >> std::setw(2) >> strByte;) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(strByte, nullptr, 16)));
    }
    return bytes;
}

// The file's bytes hold such as a signed sum would take from the checksum.
TEST(Copy, ToTheDeviceInBytes) {
    CTransfer run(DAK_TO_DEVICE);
    run.AddFile("C:\\s\\a.txt", {0x68, 0xFF, 0x80});
    run.packages["request"] = Hex("21E00000 13000000 0800 01 43003A005C0073000000 5C0064000000");
    run.packages["file"] = Hex("21E00000 31000000 AA040000 0800 01000000 0300000000000000"
                               "0102030405060708 1112131415161718 61002E007400780074000000 68FF80");
    run.packages["done"] = Hex("22E00000 06000000 0800 01000000");
    run.Play(In(">request", LINK_UP_MS) + " ack " + In(">file", PUSH_MS) + " ack done");
    run.Run(DAKERROR_NONE, PUSH_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS + DRAIN_MS);
}

TEST(Copy, FromTheDeviceInBytes) {
    CTransfer run(DAK_FROM_DEVICE);
    run.list.Add("a.txt");
    run.packages["request"] = Hex("21E00000 23000000 0800 00 5C0064000000 43003A005C0073000000"
                                  "01000000 61002E007400780074000000");
    run.packages["file"] = Hex("22E00000 35000000 AB040000 0800 01000000 01000000 0300000000000000"
                               "0102030405060708 1112131415161718 61002E007400780074000000 68FF80");
    run.Play(In(">request", LINK_UP_MS) + " ack file " + In(">ack", PULL_MS + 2 * READ_MS));
    run.Run(DAKERROR_NONE, PULL_MS + 2 * READ_MS + 500 + DRAIN_MS);
    ExpectFile(run, "C:/s/a.txt", {0x68, 0xFF, 0x80});
}

// Several files in one stream, among them an empty one and such that cannot be opened; they have
// been counted all the same.
TEST(Copy, ToTheDeviceFilesFollowOneAnother) {
    CTransfer run(DAK_TO_DEVICE);
    run.AddFile("C:\\s\\a.bin", Pattern(40'000));
    run.list.Add("C:\\s\\missing");
    run.list.Add(("C:\\s\\" + std::string(255, 'x')).c_str()); // 260 characters
    run.AddFile("C:\\s\\b\\\xC3\xBC\xE6\x97\xA5", {});
    run.AddFile("C:\\s\\z", {7});
    run.packages["request"] =
        Command(8, Bytes{1}, Text(DAK_WIDE("C:\\s")), Text(DAK_WIDE("\\d\\\\")));
    run.PlayWhole(Join(U32(5), FileRecord(DAK_WIDE("a.bin"), Pattern(40'000)),
                       FileRecord(DAK_WIDE("b\\\u00FC\u65E5"), {}),
                       FileRecord(DAK_WIDE("z"), {7})));
    EXPECT_EQ(run.Start(DAK_WIDE("C:\\s"), DAK_WIDE("\\d\\\\")), 0u); // goes out as it was given
    run.ExpectEnd(DAKERROR_NONE);
}

TEST(Copy, FromTheDeviceFoldersAreMadeAndFilesReplaced) {
    CTransfer run(DAK_FROM_DEVICE);
    const Bytes exact = Pattern(DAK_DATA_SIZE - 8 - FileRecord(DAK_WIDE("a\\b\\exact"), {}).size());
    run.world.MakeHostFolder("C:/s/a");
    run.world.WriteHostFile("C:/s/large", {1});
    run.world.WriteHostFile("C:/s/locked", {1});
    platform::SetFileAttributesA("C:/s/locked", FILE_ATTRIBUTE_READONLY);
    run.packages["request"] =
        Command(8, Bytes{0}, Text(DAK_WIDE("\\d\\")), Text(DAK_WIDE("C:\\s\\\\")), U32(0));
    run.PlayWhole(Records(
        FileRecord(DAK_WIDE("a\\b\\exact"), exact), FileRecord(DAK_WIDE("a\\c/empty"), {}),
        FileRecord(DAK_WIDE("large"), Pattern(30'000)),
        FileRecord(DAK_WIDE("..\u00FC..\\\u65E5"), {1}), FileRecord(DAK_WIDE("locked"), {2})));
    EXPECT_EQ(run.Start(DAK_WIDE("C:\\s\\\\"), DAK_WIDE("\\d\\")), 0u);
    run.ExpectEnd(DAKERROR_NONE);
    ExpectFile(run, "C:/s/a/b/exact", exact);
    ExpectFile(run, "C:/s/a/c/empty", {});
    ExpectFile(run, "C:/s/large", Pattern(30'000));
    ExpectFile(run, "C:/s/..\xC3\xBC../\xE6\x97\xA5", {1});
    ExpectFile(run, "C:/s/locked", {2});
    EXPECT_EQ(run.world.HostFiles("C:/s").size(), 5u);
    EXPECT_TRUE(run.world.Trace({"file delete"}).empty()) << "each was replaced in one step";
}

// A first file of such a size that the package ends dwCut bytes into the next record: ahead of it,
// in each of its fields, in its contents and behind them.
TEST(Copy, ARecordIsCutAnywhere) {
    const Bytes next = FileRecord(DAK_WIDE("\u00E4\\\u65E5.x"), Pattern(9, 3));
    for (const DWORD nDirection : {DAK_TO_DEVICE, DAK_FROM_DEVICE}) {
        for (std::size_t dwCut = 0; dwCut <= next.size(); ++dwCut) {
            CTransfer run(nDirection, std::to_string(dwCut));
            const std::size_t dwHead =
                (run.IsPush() ? 4 : 8) + FileRecord(DAK_WIDE("a"), {}).size();
            const Bytes contents = Pattern(DAK_DATA_SIZE - dwHead - dwCut);
            const Bytes first = FileRecord(DAK_WIDE("a"), contents);
            if (run.IsPush()) {
                run.AddFile("C:\\s\\a", contents);
                run.AddFile("C:\\s\\\xC3\xA4\\\xE6\x97\xA5.x", Pattern(9, 3));
            }
            run.PlayWhole(run.IsPush() ? Join(U32(2), first, next) : Records(first, next));
            run.Run(DAKERROR_NONE);
            ExpectFile(run, "C:/s/a", contents);
            ExpectFile(run, "C:/s/\xC3\xA4/\xE6\x97\xA5.x", Pattern(9, 3));
        }
    }
}

} // namespace
