// The device: whether it is there, and transfers on its node.
#include "platform/device_choice.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"

namespace platform::tests {

static HANDLE PlugAndOpen() {
    contract::PlugDevice();
    return OpenDevice();
}

static bool Writes(HANDLE hNode, const Bytes& package) {
    CTransfer write(hNode, package);
    return write.Succeeds() && write.Count() == package.size();
}

// What a read brings that is stopped at its time-out.
static std::optional<Bytes> ReadNode(HANDLE hNode, DWORD dwSize, DWORD dwTimeoutMs = AT_ONCE_MS) {
    CTransfer read(hNode, dwSize);
    read.EndsWithin(dwTimeoutMs);
    return read.Done() ? std::optional(read.Data()) : std::nullopt;
}

CONTRACT_TEST(Device, IsPresentWhileItIsPlugged) {
    EXPECT_EQ(DevicePaths().size(), 0U);
    HANDLE hNode = PlugAndOpen();
    const std::vector<std::string> paths = DevicePaths();
    ASSERT_EQ(paths.size(), 1U);
    char szNames[300] = "";
    DWORD dwSize = sizeof(szNames);
    EXPECT_EQ(ListDevices(szNames, &dwSize), ERROR_SUCCESS);
    EXPECT_TRUE(!ChooseDevice("none") && DevicePaths().empty());
    EXPECT_TRUE(ChooseDevice(szNames) && DevicePaths() == paths);
    EXPECT_TRUE(ChooseDevice(nullptr) && DevicePaths() == paths);
    CTransfer cut(hNode, 20);
    contract::UnplugDevice();
    EXPECT_TRUE(cut.Fails());
    EXPECT_EQ(DevicePaths().size(), 0U);
    EXPECT_FALSE(Opens(paths[0], GENERIC_READ | GENERIC_WRITE));
    EXPECT_FALSE(Writes(hNode, Pattern(20)) || ReadNode(hNode, 20));
    EXPECT_TRUE(CloseHandle(hNode));
    hNode = PlugAndOpen();
    EXPECT_TRUE(Writes(hNode, Pattern(20)));
    EXPECT_TRUE(CloseHandle(hNode));
    EXPECT_FALSE(Writes(hNode, Pattern(20))) << "closed";
}

CONTRACT_TEST(Device, EveryWriteIsOnePackage) {
    HANDLE hNode = PlugAndOpen();
    const std::vector<Bytes> packages = {Pattern(20, 1), Pattern(12288, 2), Pattern(8, 3),
                                         Pattern(1, 4), Pattern(12288, 5)};
    for (const Bytes& package : packages) {
        EXPECT_TRUE(Writes(hNode, package));
    }
    EXPECT_EQ(contract::DeviceTook(), packages);
    EXPECT_TRUE(CloseHandle(hNode));
}

CONTRACT_TEST(Device, AReadWaitsAndTakesOfOnePackageWhatItWants) {
    HANDLE hNode = PlugAndOpen();
    const Bytes package = Pattern(12288);
    contract::DeviceGives(Pattern(8, 9));
    contract::DeviceGives(package);
    EXPECT_EQ(ReadNode(hNode, 12288), Pattern(8, 9)) << "no two packages in one read";
    EXPECT_EQ(ReadNode(hNode, 14), Bytes(package.begin(), package.begin() + 14));
    EXPECT_EQ(ReadNode(hNode, 12288), Bytes(package.begin() + 14, package.end()));
    EXPECT_TRUE(CTransfer(hNode, 8).IsStopped()) << "nothing there";
    CTransfer reader(hNode, 100);
    Sleep(SETTLE_MS);
    contract::DeviceGives(Pattern(20, 3));
    EXPECT_TRUE(reader.Succeeds());
    EXPECT_EQ(reader.Data(), Pattern(20, 3));
    EXPECT_TRUE(CloseHandle(hNode));
}

CONTRACT_TEST(Device, AStoppedReadLosesNothing) {
    HANDLE hNode = PlugAndOpen();
    for (DWORD i = 0; i < 5; ++i) {
        EXPECT_EQ(ReadNode(hNode, 12288, i), std::nullopt);
    }
    // A write in between must not mind either.
    EXPECT_TRUE(Writes(hNode, Pattern(20)));
    const Bytes package = Pattern(3000);
    contract::DeviceGives(package);
    Bytes all;
    for (DWORD i = 0; i < 1000 && all.size() < package.size(); ++i) {
        // Some of these are stopped before the bytes come, some after, some in between.
        const Bytes part = ReadNode(hNode, 500, i % 3).value_or(Bytes());
        all.insert(all.end(), part.begin(), part.end());
    }
    EXPECT_EQ(all, package);
    EXPECT_EQ(contract::DeviceTook().size(), 1U);
    EXPECT_TRUE(CloseHandle(hNode));
}

CONTRACT_TEST(Device, AStoppedWriteLeavesThePipeUsable) {
    HANDLE hNode = PlugAndOpen();
    EXPECT_TRUE(Writes(hNode, Pattern(20)));
    contract::DeviceTakes(false);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(CTransfer(hNode, Pattern(12288, i)).IsStopped());
    }
    contract::DeviceGives(Pattern(8, 4));
    EXPECT_EQ(ReadNode(hNode, 8), Pattern(8, 4));
    contract::DeviceTakes(true);
    EXPECT_TRUE(Writes(hNode, Pattern(12288, 9)));
    EXPECT_EQ(contract::DeviceTook(), (std::vector{Pattern(20), Pattern(12288, 9)}));
    EXPECT_TRUE(CloseHandle(hNode));
}

} // namespace platform::tests
