// The device's own things, which the operations work on and the core only passes on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/device_folder.h"
#include "agent/device_system.h"
#include "agent/open_files.h"
#include "agent/work_slice.h"

namespace agent {

struct CStorageOption {
    std::string strName;   // one component
    std::string strFolder; // a folder of the system
};

struct CDeviceOptions {
    std::string strRoot;
    std::vector<CStorageOption> storages;
    std::optional<std::uint64_t> qwQuota;          // bytes
    std::function<void(const std::string&)> lpLog; // one line each, without its end; may be empty
    bool bAllowFormat = false;
    CSystemOptions system = {};
    std::size_t nMostOpenFiles = 256; // by handle, at one time
    std::uint32_t dwFirstHandle = 1;  // a stale handle of another agent should find nothing open
    CWorkSlice::Clock lpClock = {};   // that slices of work go by; none in virtual time
};

class CDevice {
  public:
    // Null, and the reason in strError, when the options cannot be met.
    static std::unique_ptr<CDevice> Open(const CDeviceOptions& options, std::string& strError);

    CDeviceFolder& Folder() { return *m_pFolder; }
    bool AllowsFormat() const { return m_bAllowFormat; }
    CDeviceSystem& System() { return *m_pSystem; }
    COpenFiles& OpenFiles() { return *m_pOpenFiles; }
    CWorkSlice& Slice() { return m_slice; } // the core begins it
    void Log(const std::string& strLine) const;

  private:
    CDevice() = default;

    std::unique_ptr<CDeviceFolder> m_pFolder;
    std::unique_ptr<CDeviceSystem> m_pSystem;
    std::unique_ptr<COpenFiles> m_pOpenFiles;
    std::function<void(const std::string&)> m_lpLog;
    CWorkSlice m_slice;
    bool m_bAllowFormat = false;
};

} // namespace agent
