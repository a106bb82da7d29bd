// A host with an object, a device with the real agent core, and the trees of both.
//
// The host pushes from C:\s and pulls to C:\r; on the device everything lies in \d, a folder of the
// file system's. Trees are maps from names below these, with forward slashes, to files.
#pragma once

#include "agent/agent_core.h"
#include "agent/device.h"
#include "link/dak_vorn.h"
#include "tests/library/test_access.h"
#include "tests/scenarios/file_times.h"
#include "tests/sim/agent_peer.h"
#include "tests/support/packages.h"
#include "tests/test_files.h"
#include "transfer/copy_job.h"

#include "platform/file.h"
#include "platform/message_window.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace scenario {

// Of the many runs of a test one in so many is made, spread over all of them, where each costs
// more.
constexpr std::uint64_t ONE_IN = DAK_TEST_ONE_IN;

using EFault = sim::CAgentPeer::EFault;
using sim::Bytes;

struct CFileState {
    Bytes bytes;
    std::uint64_t qwCreated = 0;
    std::uint64_t qwWritten = 0;
};
using Tree = std::map<std::string, CFileState>;

inline std::vector<std::string> Names(const Tree& tree) {
    std::vector<std::string> names;
    for (const auto& [strName, file] : tree) {
        names.push_back(strName);
    }
    return names;
}

// A file whose contents and times follow from size and seed.
inline CFileState File(std::size_t dwBytes, std::uint32_t dwSeed) {
    const std::uint64_t qwTime = 132'000'000'000'000'000ull + dwSeed * 36'000'000'007ull;
    return {sim::Pattern(dwBytes, dwSeed), qwTime, qwTime + 1234567};
}

inline FILETIME Time(std::uint64_t qwTime) {
    return {static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
}
inline std::uint64_t Ticks(const FILETIME& time) {
    return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

inline std::string Narrow(const WCHAR* lpszText) {
    std::string strText;
    for (; *lpszText != 0; ++lpszText) {
        strText.push_back(static_cast<char>(*lpszText));
    }
    return strText;
}

// What a job may leave of a tree: every file as it was or as it was wanted, none lost, and no
// other. A job that is done has left nothing out.
inline void ExpectSettled(const Tree& before, const Tree& wanted, const Tree& after, bool bDone) {
    for (const auto& [strName, file] : after) {
        const auto itOld = before.find(strName);
        const auto itNew = wanted.find(strName);
        const bool bOld = itOld != before.end() && itOld->second.bytes == file.bytes;
        const bool bNew = itNew != wanted.end() && itNew->second.bytes == file.bytes;
        EXPECT_TRUE(bOld || bNew) << strName << " of " << file.bytes.size()
                                  << " bytes is torn or foreign";
    }
    for (const auto& [strName, file] : before) {
        EXPECT_TRUE(after.contains(strName)) << strName << " is lost";
    }
    for (const auto& [strName, file] : wanted) {
        const auto it = after.find(strName);
        EXPECT_TRUE(!bDone || (it != after.end() && it->second.bytes == file.bytes))
            << strName << " did not arrive, but the job says so";
    }
}

class CScenario {
  public:
    explicit CScenario(sim::CWorld& rWorld, std::optional<std::uint64_t> qwQuota = {})
        : world(rWorld), m_qwQuota(qwQuota) {
        m_roots.push_back(NameOf(MakeTemporaryFolder("dak-scenario-")));
        std::filesystem::create_directory(Root() + "/d");
        StartAgent();
        world.MakeHostFolder("C:/s");
        world.MakeHostFolder("C:/r");
        world.bTrace = false;
    }

    ~CScenario() {
        dak.reset();
        EXPECT_EQ(world.LiveThreads(), 0) << world.Threads();
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_EQ(g_bAbortPending, FALSE);
        for (const auto& [strName, pLock] : world.locks) {
            EXPECT_FALSE(pLock->bHeld);
        }
        pPeer.reset();
        m_pCore.reset();
        m_pDevice.reset();
        for (const std::string& strRoot : m_roots) {
            std::filesystem::remove_all(strRoot);
        }
    }

    CScenario(const CScenario&) = delete;
    CScenario& operator=(const CScenario&) = delete;

    const std::string& Root() const { return m_roots.back(); }

    // The device's files as a kill of its agent at this moment would leave them.
    void PhotographDevice() {
        std::string strRoot = Root() + "+";
        std::filesystem::copy(Root(), strRoot, std::filesystem::copy_options::recursive);
        m_roots.push_back(strRoot);
    }

    // Asked ahead of each start of an agent but the first.
    std::function<void(agent::CDeviceOptions&)> onOptions;

    // A new agent on the latest photograph, or on the files as they are.
    void StartAgent() {
        pPeer.reset();
        m_pCore.reset();
        m_pDevice.reset();
        std::string strError;
        agent::CDeviceOptions options;
        options.strRoot = Root();
        options.qwQuota = m_qwQuota;
        if (onOptions) {
            onOptions(options);
        }
        m_pDevice = agent::CDevice::Open(options, strError);
        ASSERT_NE(m_pDevice, nullptr) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
        pPeer = std::make_unique<sim::CAgentPeer>(world, *m_pCore);
    }

    void Replug() {
        if (!world.IsPlugged()) {
            world.Plug(*pPeer);
        }
    }

    // Trees.

    void PutHost(const std::string& strFolder, const Tree& tree) {
        for (const auto& [strName, file] : tree) {
            world.WriteHostFile(strFolder + "/" + strName, file.bytes, Time(file.qwCreated),
                                Time(file.qwWritten));
        }
    }
    Tree HostTree(const std::string& strFolder) {
        Tree tree;
        for (const std::string& strName : world.HostFiles(strFolder)) {
            const sim::CHostFile& file = *world.HostFile(strFolder + "/" + strName);
            tree[strName] = {file.bytes, Ticks(file.ftCreation), Ticks(file.ftWrite)};
        }
        return tree;
    }
    void PutDevice(const Tree& tree) const {
        for (const auto& [strName, file] : tree) {
            const std::filesystem::path path = PathOf(Root() + "/d/" + strName);
            std::filesystem::create_directories(path.parent_path());
            std::ofstream(path, std::ios::binary)
                .write(reinterpret_cast<const char*>(file.bytes.data()),
                       static_cast<std::streamsize>(file.bytes.size()));
        }
    }
    // What lies outside of \d, the agent's own files, has a slash ahead; they are there only as
    // long as the agent knows nothing of the end of a stream.
    Tree DeviceTree(bool bOwnFiles = true) const {
        Tree tree;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Root())) {
            std::string strName = NameOf(entry.path()).substr(Root().size());
            strName = strName.starts_with("/d/") ? strName.substr(3) : strName;
            if (!entry.is_regular_file() ||
                (!bOwnFiles && strName.find(".dak-") != std::string::npos)) {
                continue;
            }
            std::ifstream stream(entry.path(), std::ios::binary);
            CFileState& file = tree[strName];
            file.bytes.resize(entry.file_size());
            stream.read(reinterpret_cast<char*>(file.bytes.data()),
                        static_cast<std::streamsize>(file.bytes.size()));
            file.qwWritten = WriteTimeOf(entry.path());
        }
        return tree;
    }
    bool DeviceKeepsCreationTimes() const { return KeepsCreationTimes(Root()); }

    // Jobs.

    DWORD Start(UINT nDirection, const std::vector<std::string>& names) {
        list.RemoveAll();
        for (std::string strName : names) {
            std::replace(strName.begin(), strName.end(), '/', '\\');
            list.Add((nDirection == DAK_TO_DEVICE ? "C:\\s\\" + strName : strName).c_str());
        }
        world.posted.clear();
        return nDirection == DAK_TO_DEVICE
                   ? dak->DAKTransmitFiles(DAK_TO_DEVICE, DAK_WIDE("C:\\s"), strDevice, &list,
                                           window)
                   : dak->DAKTransmitFiles(DAK_FROM_DEVICE, strDevice, DAK_WIDE("C:\\r"), &list,
                                           window);
    }
    // Waits for the worker's end and gives the outcome.
    DWORD AwaitEnd() {
        const HANDLE hThread = CDAKVornTestAccess::m_hCommitThread(*dak);
        if (hThread != nullptr) {
            platform::WaitForSingleObject(hThread, INFINITE);
        }
        while (world.LiveThreads() != 0 && !world.HasFailed()) {
            platform::Sleep(100);
        }
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
        EXPECT_LE(world.posted.size(), 1u);
        return dak->GetLastError();
    }
    // A job with an optional cancel, so long after it has begun.
    DWORD Run(UINT nDirection, const std::vector<std::string>& names,
              std::optional<std::uint64_t> qwCancelMs = {}) {
        const DWORD dwResult = Start(nDirection, names);
        if (dwResult != 0) {
            EXPECT_EQ(dak->GetLastError(), dwResult);
            return dwResult;
        }
        if (qwCancelMs) {
            platform::Sleep(static_cast<DWORD>(*qwCancelMs));
            dak->TerminateTransfer();
        }
        return AwaitEnd();
    }

    // Faults off: now a job of that direction must do, and leave nothing but whole files.
    void ExpectRecovered(UINT nDirection, const Tree& wanted, const Tree& before) {
        world.ClearFaults();
        pPeer->ClearFaults();
        Replug();
        Tree all = before;
        for (const auto& [strName, file] : wanted) {
            all[strName] = file;
        }
        EXPECT_EQ(Run(nDirection, Names(wanted)), 0u);
        EXPECT_EQ(world.posted.size(), 1u);
        const Tree after = nDirection == DAK_TO_DEVICE ? DeviceTree() : HostTree("C:/r");
        EXPECT_EQ(Names(after), Names(all));
        ExpectSettled(all, wanted, after, true);
        EXPECT_EQ(DeviceTree(true).size(), DeviceTree(false).size());
    }

    agent::CAgentCore& Core() { return *m_pCore; }

    sim::CWorld& world;
    std::unique_ptr<sim::CAgentPeer> pPeer;
    std::optional<CDAKVorn> dak{std::in_place};
    HWND window = platform::CreateMessageWindow();
    CStringArray list;
    const WCHAR* strDevice = DAK_WIDE("\\d");

  private:
    const std::optional<std::uint64_t> m_qwQuota;
    std::vector<std::string> m_roots;
    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
};

} // namespace scenario
