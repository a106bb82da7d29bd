// The simulated host under the contract tests of the seam.

#include "tests/platform/contract_world.h"
#include "tests/sim/scripted_device.h"

namespace contract {

namespace {

// Takes and gives without a script.
class CPlainDevice : public sim::CScriptedDevice {
  public:
    explicit CPlainDevice(sim::CWorld& world) : CScriptedDevice(world) {
        ServeHandshakes(false);
        onPackage = [this](const sim::Bytes& package) { took.push_back(package); };
    }
    bool TakePackage(std::span<const std::uint8_t> package) override {
        return bTakes && CScriptedDevice::TakePackage(package);
    }
    bool bTakes = true;
    std::vector<sim::Bytes> took;
};

std::optional<CPlainDevice> g_device;

} // namespace

void InWorld(const std::function<void()>& body) {
    sim::CWorld world;
    world.MakeHostFolder(Folder());
    world.bPromptDevice = true;
    body();
    g_device.reset();
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

void PlugDevice() {
    g_device.emplace(*sim::CWorld::Current());
}

void UnplugDevice() {
    sim::CWorld::Current()->Unplug();
}

void DeviceGives(std::vector<std::uint8_t> package) {
    g_device->Give(std::move(package));
}

std::vector<std::vector<std::uint8_t>> DeviceTook() {
    return g_device->took;
}

void DeviceTakes(bool bTakes) {
    g_device->bTakes = bTakes;
    sim::CWorld::Current()->PeerChanged();
}

} // namespace contract
