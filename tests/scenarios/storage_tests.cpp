// Free space, storages and formatting, from the library's operations to folders of the system, with
// the exact time of each.

#include "tests/scenarios/scenario.h"

using namespace scenario;

namespace {

constexpr std::uint64_t QUOTA = 20'000'000;

// A link that comes up, an acknowledgement, a response, and the link's closing.
constexpr std::uint64_t PLAIN_MS = 10 + 300 + 10 + 10 + 10;

// A device with a storage "Card", whose folder lies in the root's.
class CStorages : public CScenario {
  public:
    explicit CStorages(sim::CWorld& rWorld, bool bAllowFormat = true) : CScenario(rWorld, QUOTA) {
        std::filesystem::create_directories(CardFolder());
        onOptions = [this, bAllowFormat](agent::CDeviceOptions& options) {
            options.storages.push_back({"Card", CardFolder()});
            options.bAllowFormat = bAllowFormat;
        };
    }

    std::string CardFolder() const { return Root() + "/cards/1"; }
    void PutCard(const std::string& strName, std::size_t dwSize) const {
        std::ofstream(CardFolder() + "/" + strName) << std::string(dwSize, 'x');
    }
    std::size_t OnCard() const {
        const std::filesystem::recursive_directory_iterator folder(CardFolder());
        return static_cast<std::size_t>(std::distance(begin(folder), end(folder)));
    }

    // One operation, which returns dwWanted behind exactly qwMs.
    template <typename Operation>
    void Expect(DWORD dwWanted, std::uint64_t qwMs, Operation operation) {
        const std::uint64_t qwBegin = world.NowMs();
        EXPECT_EQ(operation(*dak), dwWanted);
        EXPECT_EQ(dak->GetLastError(), dwWanted);
        EXPECT_EQ(world.NowMs() - qwBegin, qwMs);
    }
};

TEST(Storages, SpaceAndStoragesAreTold) {
    sim::CWorld world;
    CStorages s(world);
    s.PutDevice({{"a", File(1'000'000, 1)}});
    s.PutCard("b", 10'240);
    s.StartAgent();
    // The card's folder is found in the root's as well.
    constexpr std::uint64_t qwFree = QUOTA - 1'000'000 - 2 * 10'240;
    DWORD dwFreeKib = 0;
    DWORD dwTotalKib = 0;
    s.Expect(0, PLAIN_MS,
             [&](CDAKVorn& dak) { return dak.DAKGetDeviceFreeSpace(&dwFreeKib, &dwTotalKib); });
    EXPECT_EQ(dwFreeKib, qwFree / 1024);
    EXPECT_EQ(dwTotalKib, QUOTA / 1024);

    struct CRow {
        const WCHAR* lpszPath;
        DWORD dwResult;
        std::uint64_t qwFree;
    };
    for (const CRow& row : {CRow{DAK_WIDE(""), 0, qwFree}, CRow{DAK_WIDE("\\d"), 0, qwFree},
                            CRow{DAK_WIDE("Card"), 0, qwFree}, CRow{DAK_WIDE("\\d\\a"), 6, 0},
                            CRow{DAK_WIDE("\\none"), 6, 0}, CRow{DAK_WIDE(".."), 6, 0}}) {
        std::uint64_t qwSpace = 1;
        s.Expect(row.dwResult, PLAIN_MS,
                 [&](CDAKVorn& dak) { return dak.DAKGetFolderFreeSpace(row.lpszPath, &qwSpace); });
        EXPECT_EQ(qwSpace, row.qwFree);
    }

    CArray<_tagStorageInfo, _tagStorageInfo> storages;
    s.Expect(0, PLAIN_MS + 10, [&](CDAKVorn& dak) { return dak.DAKGetStorageInfo(&storages); });
    ASSERT_EQ(storages.GetSize(), 2);
    for (int i = 0; i < 2; ++i) {
        const _tagStorageInfo& info = storages[i];
        EXPECT_EQ(std::basic_string<WCHAR>(info.szStorageName),
                  i == 0 ? DAK_WIDE("\\") : DAK_WIDE("Card"));
        EXPECT_EQ(info.dwValue1, QUOTA / 1024);
        EXPECT_EQ(info.dwValue2, qwFree / 1024);
        EXPECT_EQ(info.dwValue3, static_cast<DWORD>(i + 1));
    }
}

// What lay on it is gone for the host with the answer, and for the disk soon behind it.
TEST(Storages, AFormatIsAnsweredInTimeAndTheRestIsUntouched) {
    sim::CWorld world;
    CStorages s(world);
    for (int i = 0; i < 500; ++i) {
        s.PutCard(std::to_string(i), 1);
    }
    s.PutDevice({{"kept", File(5000, 1)}});
    s.PutHost("C:/s", {{"1", File(20'000, 2)}, {"new", File(300'000, 3)}});
    s.StartAgent();
    s.Expect(0, PLAIN_MS, [](CDAKVorn& dak) { return dak.DAKFormatPartition(DAK_WIDE("Card")); });
    s.Expect(DAKERROR_FAIL, PLAIN_MS,
             [](CDAKVorn& dak) { return dak.DAKDeleteFile(DAK_WIDE("\\Card\\499")); });
    // A job right behind it, one name of which is still in the way on the disk.
    s.strDevice = DAK_WIDE("\\Card");
    EXPECT_EQ(s.Run(DAK_TO_DEVICE, {"1", "new"}), 0u);
    EXPECT_EQ(s.Run(DAK_FROM_DEVICE, {"1", "2", "new"}), 0u);
    EXPECT_EQ(world.HostFiles("C:/r"), (std::vector<std::string>{"1", "new"}));
    for (int i = 0; i < 500 && s.OnCard() != 2; ++i) {
        platform::Sleep(100);
    }
    EXPECT_EQ(s.OnCard(), 2u);
    EXPECT_EQ(s.DeviceTree().size(), 3u);

    // The root: its own files go, the card's stay.
    s.Expect(0, PLAIN_MS, [](CDAKVorn& dak) { return dak.DAKFormatPartition(DAK_WIDE("\\")); });
    EXPECT_EQ(s.Run(DAK_FROM_DEVICE, {"1"}), 0u);
    platform::Sleep(1000);
    EXPECT_EQ(Names(s.DeviceTree()), (std::vector<std::string>{"/cards/1/1", "/cards/1/new"}));
}

TEST(Storages, AFormatIsRefused) {
    for (const bool bAllowed : {false, true}) {
        sim::CWorld world;
        CStorages s(world, bAllowed);
        s.PutCard("b", 1);
        s.PutDevice({{"a", File(10, 1)}});
        s.StartAgent();
        const Tree before = s.DeviceTree();
        for (const WCHAR* lpszName : {bAllowed ? DAK_WIDE("None") : DAK_WIDE("Card"),
                                      bAllowed ? DAK_WIDE(".") : DAK_WIDE("\\"), DAK_WIDE("d")}) {
            s.Expect(DAKERROR_FAIL, PLAIN_MS,
                     [&](CDAKVorn& dak) { return dak.DAKFormatPartition(lpszName); });
        }
        EXPECT_EQ(Names(s.DeviceTree()), Names(before));
    }
}

} // namespace
