// The simulated host under the contract tests of the seam.

#include "tests/platform/contract_world.h"
#include "tests/sim/world.h"

#include "platform/file.h"

#include <algorithm>
#include <cstring>
#include <deque>

namespace contract {

namespace {

class CPlainDevice : public sim::IPeer {
  public:
    void SetTime(std::uint64_t /*qwNowMs*/) override {}
    bool TakePackage(std::span<const std::uint8_t> package) override {
        if (m_bTakes) {
            m_took.emplace_back(package.begin(), package.end());
        }
        return m_bTakes;
    }
    std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) override {
        if (m_gives.empty()) {
            return {};
        }
        auto& package = m_gives.front();
        const std::size_t dwCount = std::min(buffer.size(), package.size());
        std::memcpy(buffer.data(), package.data(), dwCount);
        package.erase(package.begin(), package.begin() + static_cast<std::ptrdiff_t>(dwCount));
        if (package.empty()) {
            m_gives.pop_front();
        }
        return dwCount;
    }

    bool m_bTakes = true;
    std::vector<sim::Bytes> m_took;
    std::deque<sim::Bytes> m_gives;
};

CPlainDevice* g_pDevice = nullptr;

} // namespace

void InWorld(const std::function<void()>& body) {
    CPlainDevice device;
    g_pDevice = &device;
    sim::CWorld world;
    world.MakeHostFolder(Folder());
    body();
    world.Unplug();
}

std::string Folder() {
    return "C:/contract";
}

bool CreationTimesAreKept() {
    return true;
}

std::uint64_t NowMs() {
    return sim::CWorld::Current()->NowMs();
}

void SetCpuMHz(std::optional<DWORD> dwMHz) {
    sim::CWorld::Current()->dwCpuMHz = dwMHz;
}

void PlugDevice() {
    *g_pDevice = {};
    sim::CWorld::Current()->Plug(*g_pDevice);
}

void UnplugDevice() {
    sim::CWorld::Current()->Unplug();
}

void DeviceGives(std::vector<std::uint8_t> package) {
    g_pDevice->m_gives.push_back(std::move(package));
    sim::CWorld::Current()->PeerChanged();
}

std::vector<std::vector<std::uint8_t>> DeviceTook() {
    return g_pDevice->m_took;
}

void DeviceTakes(bool bTakes) {
    g_pDevice->m_bTakes = bTakes;
    sim::CWorld::Current()->PeerChanged();
}

} // namespace contract
