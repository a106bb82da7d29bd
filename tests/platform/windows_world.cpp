// This system under the contract tests of the seam: temporary folders, the real clock, and a device
// that is presented to the system by the tests.
#include "tests/platform/contract_world.h"
#include "tests/platform/scripted_device.h"

#include <chrono>
#include <filesystem>
#include <memory>

namespace contract {
namespace {

constexpr char CPU_KEY[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
constexpr char CPU_VALUE[] = "~MHz";

class CTempFolder {
  public:
    CTempFolder() {
        char szRoot[MAX_PATH];
        char szName[MAX_PATH];
        ::GetTempPathA(sizeof(szRoot), szRoot);
        // Takes the name as a file, which makes room for the folder.
        ::GetTempFileNameA(szRoot, "dak", 0, szName);
        ::DeleteFileA(szName);
        ::CreateDirectoryA(szName, nullptr);
        m_strPath = szName;
    }
    ~CTempFolder() {
        std::error_code error;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_strPath, error)) {
            ::SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
        }
        std::filesystem::remove_all(m_strPath, error);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    const std::string& Path() const { return m_strPath; }

  private:
    std::string m_strPath;
};

struct CWorld {
    CTempFolder files;
    std::unique_ptr<device_test::CScriptedDevice> pDevice;
};

CWorld* g_pWorld = nullptr;

} // namespace

void InWorld(const std::function<void()>& body) {
    CWorld world;
    g_pWorld = &world;
    body();
    g_pWorld = nullptr;
}

std::string Folder() {
    return g_pWorld->files.Path();
}

// Wine's files, which lie on another system, have none of their own.
bool CreationTimesAreKept() {
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr;
}

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void SetCpuMHz(std::optional<DWORD> dwMHz) {
    HKEY hKey = nullptr;
    ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, CPU_KEY, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &hKey,
                      nullptr);
    if (dwMHz) {
        const DWORD dwValue = *dwMHz;
        ::RegSetValueExA(hKey, CPU_VALUE, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue),
                         sizeof(dwValue));
    } else {
        ::RegDeleteValueA(hKey, CPU_VALUE);
    }
    ::RegCloseKey(hKey);
}

void PlugDevice() {
    g_pWorld->pDevice = std::make_unique<device_test::CScriptedDevice>();
}

void UnplugDevice() {
    g_pWorld->pDevice.reset();
}

void DeviceGives(std::vector<std::uint8_t> package) {
    g_pWorld->pDevice->Gives(std::move(package));
}

std::vector<std::vector<std::uint8_t>> DeviceTook() {
    return g_pWorld->pDevice->Took();
}

void DeviceTakes(bool bTakes) {
    g_pWorld->pDevice->WillTake(bTakes);
}

} // namespace contract
