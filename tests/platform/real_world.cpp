#include "tests/platform/real_world.h"

#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"
#include "tests/support/temp_folder.h"

#include <chrono>
#include <deque>
#include <mutex>

namespace contract {
namespace {

// Gives and takes what the test says.
struct CScript final : device_test::IPeer {
    bool Takes() override {
        const std::lock_guard hold(mutex);
        return bTakes;
    }
    void TakePackage(std::span<const std::uint8_t> package) override {
        const std::lock_guard hold(mutex);
        took.emplace_back(package.begin(), package.end());
    }
    std::span<const std::uint8_t> Offer() override {
        const std::lock_guard hold(mutex);
        return gives.empty() ? std::span<const std::uint8_t>() : gives.front();
    }
    void OfferTaken(std::size_t dwBytes) override {
        const std::lock_guard hold(mutex);
        test::Bytes& bytes = gives.front();
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(dwBytes));
        if (bytes.empty()) {
            gives.pop_front();
        }
    }

    std::mutex mutex;
    bool bTakes = true;
    std::deque<test::Bytes> gives;
    std::vector<test::Bytes> took;
};

struct CWorld {
    test::CTempFolder files;
    CScript script;
    std::unique_ptr<CDevice> pDevice;
};
CWorld* g_pWorld = nullptr;

template <class CHANGE>
void Change(CHANGE change) {
    {
        const std::lock_guard hold(g_pWorld->script.mutex);
        change(g_pWorld->script);
    }
    g_pWorld->pDevice->Settle();
}

} // namespace

void InWorld(const std::function<void()>& body) {
    CWorld world;
    g_pWorld = &world;
    body();
    g_pWorld = nullptr;
}

std::string Folder() {
    return g_pWorld->files.Folder().string();
}

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void PlugDevice() {
    g_pWorld->pDevice = PlugIn(g_pWorld->script);
}

void UnplugDevice() {
    g_pWorld->pDevice.reset();
}

void DeviceGives(std::vector<std::uint8_t> package) {
    Change([&](CScript& script) { script.gives.push_back(std::move(package)); });
}

void DeviceTakes(bool bTakes) {
    Change([&](CScript& script) { script.bTakes = bTakes; });
}

std::vector<std::vector<std::uint8_t>> DeviceTook() {
    g_pWorld->pDevice->Settle();
    const std::lock_guard hold(g_pWorld->script.mutex);
    return g_pWorld->script.took;
}

} // namespace contract

namespace platform::tests {

CONTRACT_TEST(Device, ThatComesBackStaysLostToItsNode) {
    contract::PlugDevice();
    const HANDLE hNode = OpenDevice();
    CTransfer cut(hNode, 20);
    contract::UnplugDevice();
    EXPECT_TRUE(cut.Fails());
    contract::PlugDevice();
    const HANDLE hAnew = OpenDevice();
    EXPECT_TRUE(IsDeviceNodeLost(hNode) && !IsDeviceNodeLost(hAnew));
    EXPECT_TRUE(CloseHandle(hNode) && CloseHandle(hAnew));
}

} // namespace platform::tests
