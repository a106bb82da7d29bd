// The device in memory: folder and programs behind the agent's core, linked in place of
// posix_device. Names differ in every byte, there are no links, and times are those of a counter.
//
// The test reaches the same entries, by the device's paths in UTF-8. While a core may be at work on
// another thread, it does that out of lpFault alone.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/device.h"
#include "tests/support/temp_folder.h"

namespace test {

struct CMemoryEntry {
    agent::CEntryInfo info; // its size counts nothing: that of the bytes does
    std::string strBytes;
    std::uint64_t qwVersion = 0; // differs for another entry, and behind every write
    bool bUnreadable = false;
    bool bGone = false; // deleted, replaced or formatted away
};
using Entry = std::shared_ptr<CMemoryEntry>;

class CMemoryDevice {
  public:
    static constexpr std::uint64_t DISK_SIZE = std::uint64_t{256} << 20;

    CMemoryDevice();
    ~CMemoryDevice(); // behind what was opened on it
    CMemoryDevice(const CMemoryDevice&) = delete;
    CMemoryDevice& operator=(const CMemoryDevice&) = delete;

    const std::string strRoot; // what a core is to be told; the files outlive it
    std::uint64_t qwRootSize = DISK_SIZE;
    // What a storage can be put on: a folder of the system with the size of its disk.
    std::map<std::string, std::uint64_t> disks;

    // All files and folders by their paths: the root under an empty one, and storages by their
    // names.
    std::map<std::string, Entry> entries;
    // Makes what is missing; a file that is there stays the same file.
    CMemoryEntry& Write(const std::string& strPath, std::string_view strBytes);
    CMemoryEntry& MakeFolder(const std::string& strPath);
    void Remove(const std::string& strPath); // with all that it holds
    TREE Files() const;

    // Asked within a call, which fails with another result than success. It may change the device
    // in the middle of a work. The calls: "Read", "Write", "Complete", "Close", "Next", "Step", and
    // what opens or changes something in the folder, by its name.
    std::function<agent::EResult(std::string_view strCall, const std::string& strPath)> lpFault;
    unsigned nWorkSteps = 1;              // of a copy or a move
    std::optional<bool> foldsCase{false}; // as scans tell

    // A program is any file, or a name that is in the folders of programs. It runs until the test
    // ends it, from any thread.
    std::set<std::string> otherPrograms;
    struct CProgram {
        std::string strPath;
        std::vector<std::string> arguments;
        std::optional<std::uint32_t> dwStatus = {};
        std::shared_ptr<agent::CProcessState> pState = std::make_shared<agent::CProcessState>();
    };
    std::vector<CProgram> Programs() const; // that were started
    void EndProgram(std::size_t nProgram, std::uint32_t dwStatus);
    std::vector<agent::CDeviceProcesses::CVariables> Messages() const; // for message commands

    // For whoever serves it: an entry has been written; a new one, like another.
    void Touch(CMemoryEntry& entry);
    Entry Make(const CMemoryEntry& from);

  private:
    friend class CMemoryProcesses;

    std::uint64_t m_ftNow = 133'000'000'000'000'000;
    mutable std::mutex m_mutex; // for what follows
    std::vector<CProgram> m_programs;
    std::vector<agent::CDeviceProcesses::CVariables> m_messages;
};

} // namespace test
