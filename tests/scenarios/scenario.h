// A host with an object, a device with the real agent core, and what may come of work for both.
//
// All that there is stands in one tree of bytes: "s/..." and "r/..." (the host's C:\s and C:\r),
// all other names the device's, with "d/..." for its \d and "Card/..." for a storage, folders
// included. "answer" is what an operation gave to its caller. Work says what the tree is to be when
// it is done. Done or not, every place then holds what it held or what it is to hold: a fault may
// cut work short, and may not tear it.
#pragma once

#include "agent/agent_core.h"
#include "agent/device.h"
#include "link/dak_vorn.h"
#include "tests/sim/agent_peer.h"
#include "tests/support/temp_folder.h"

#include "platform/file.h"
#include "platform/message_window.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace scenario {

using namespace test;
using EFault = sim::CAgentPeer::EFault;
using CFault = sim::CAgentPeer::CFault;

// Of many runs of a test one in so many is made, spread over all of them, where each costs more.
constexpr std::uint64_t ONE_IN = DAK_TEST_ONE_IN;
// Beyond every wait that has an end: whoever still waits then loses the device, and ends soon.
constexpr std::uint64_t PATIENCE_MS = 30 * 60 * 1000;
constexpr std::uint64_t GOING_MS = 10'000;
constexpr DWORD FORMAT_MS = 20'000;     // on the disk; its host hears of the end at once
constexpr char FOLDER[] = "(a folder)"; // in the place of bytes

inline std::string Contents(std::size_t dwBytes, std::uint32_t dwSeed) {
    const Bytes bytes = Pattern(dwBytes, dwSeed);
    return {bytes.begin(), bytes.end()};
}
inline bool IsOfHost(const std::string& strName) {
    return strName.starts_with("s/") || strName.starts_with("r/");
}
inline std::basic_string<WCHAR> DevicePath(std::string strName) {
    std::replace(strName.begin(), strName.end(), '/', '\\');
    return DAK_WIDE("\\") + PathOf(strName).string<WCHAR>();
}
inline std::optional<std::string> At(const TREE& tree, const std::string& strName) {
    const auto it = tree.find(strName);
    return it == tree.end() ? std::nullopt : std::optional(it->second);
}
class CScenario;

struct CWork {
    TREE wanted; // when it is done; as things are now, for whoever makes it to change
    std::function<DWORD(CScenario&)> run;
    bool bWaitsWithoutEnd = false; // as long as the device is there
    // The direction of its stream of packages with checksums.
    std::optional<bool> bStreamToHost = {};
    // Whether, cut short, it has its effect or not in each place by itself, and the contents that
    // the place of its stream may have besides; else it has all of its effect or none.
    bool bPlaceByPlace = bStreamToHost.has_value();
    std::function<bool(const std::string& strNow)> mayHold = {};
};

// What the work in hand has met, or the one that was done last.
struct CMet {
    std::optional<std::string> strAnswer; // what its operation gave
    DWORD dwError = 0;                    // the finer state of its first failure
    std::uint64_t qwTookMs = 0;
    std::uint64_t nPackages[2] = {}; // to the device, to the host
    std::uint64_t nStreamFrom[2] = {UINT64_MAX / 2, UINT64_MAX / 2};
    std::uint64_t nFaults = 0; // of the pipe, cancels and unpluggings
    bool bMisled = false;      // a package went lost where none has a number
    bool bMadeGood = false;    // a fault that its stream makes good
};

class CScenario {
  public:
    explicit CScenario(sim::CWorld& rWorld) : world(rWorld) {
        std::filesystem::create_directories(OnDevice("d"));
        std::filesystem::create_directories(OnDevice("Card"));
        world.MakeHostFolder("C:/s");
        world.MakeHostFolder("C:/r");
        world.bTrace = false;
        StartAgent();
    }
    ~CScenario() {
        dak.reset();
        EXPECT_EQ(world.LiveThreads(), 0) << world.Threads();
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        for (const auto& [strName, pLock] : world.locks) {
            EXPECT_FALSE(pLock->bHeld) << strName;
        }
    }

    std::filesystem::path OnDevice(const std::string& strName = {}) const {
        return m_folder / (std::to_string(m_nPhotographs) + "/" + strName);
    }
    // A new agent on the device's files, with room for so many bytes in all.
    void StartAgent(std::uint64_t qwQuota = 100'000'000) {
        m_pPeer.reset();
        m_pCore.reset();
        agent::CDeviceOptions options{.strRoot = NameOf(OnDevice()),
                                      .storages = {{"Card", NameOf(OnDevice("Card"))}},
                                      .qwQuota = qwQuota,
                                      .lpLog = {},
                                      .bAllowFormat = true};
        std::string strError;
        m_pDevice = agent::CDevice::Open(options, strError);
        ASSERT_NE(m_pDevice, nullptr) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
        m_pPeer = std::make_unique<sim::CAgentPeer>(world, *m_pCore);
        m_pPeer->onPackage = [this](bool bToHost, std::uint64_t) { return FaultOf(bToHost); };
        bNewAgent = false;
    }
    // From now on the device's files are those that a kill of its agent at this moment leaves.
    void KillAgent() {
        const std::filesystem::path now = OnDevice();
        ++m_nPhotographs;
        std::filesystem::copy(now, OnDevice(), std::filesystem::copy_options::recursive);
        bNewAgent = true;
    }

    // What is there for everybody, or what works in progress have there for themselves.
    TREE Everything(bool bOwn = false) const {
        const auto isOwn = [](const std::string& strName) {
            return strName.find(".dak-") != std::string::npos || strName.ends_with(".tmp");
        };
        TREE tree;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(OnDevice())) {
            const std::string strName = NameOf(entry.path().lexically_relative(OnDevice()));
            if (isOwn(strName) == bOwn) {
                tree[strName] = entry.is_directory() ? FOLDER : ReadBytes(entry.path());
            }
        }
        for (const std::string& strName : world.HostFiles("C:/")) {
            if (isOwn(strName) == bOwn) {
                const Bytes bytes = *world.ReadHostFile("C:/" + strName);
                tree[strName] = {bytes.begin(), bytes.end()};
            }
        }
        return tree;
    }
    // Lays files past the agent.
    void Lay(const TREE& tree) {
        for (const auto& [strName, strBytes] : tree) {
            if (IsOfHost(strName)) {
                world.WriteHostFile("C:/" + strName, {strBytes.begin(), strBytes.end()});
            } else {
                m_folder.Write(std::to_string(m_nPhotographs) + "/" + strName, strBytes);
            }
        }
    }

    // Does work against what is planned to be in its way, and holds what came of it to what may.
    DWORD Do(const CWork& work, const std::function<void()>& plan = {}) {
        const TREE before = Everything();
        m_pWork = &work;
        ++m_nWorks;
        met = {};
        UnplugAfter(PATIENCE_MS);
        if (plan) {
            plan();
        }
        const std::uint64_t qwBegin = world.NowMs();
        const DWORD dwResult = work.run(*this);
        met.qwTookMs = world.NowMs() - qwBegin;
        EXPECT_LE(met.qwTookMs, work.bWaitsWithoutEnd ? PATIENCE_MS + GOING_MS : PATIENCE_MS);
        m_pWork = nullptr;
        world.ClearFaults();
        if (m_hCancel != nullptr) {
            world.Join(std::exchange(m_hCancel, nullptr));
        }
        ExpectSettled(work, before, dwResult == 0);
        return dwResult;
    }
    // Faults off: the device answers, and nothing is left of what was cut short.
    void Recover() {
        world.qwFreeBytes = 1ull << 40;
        onPackage = nullptr;
        if (bNewAgent) {
            StartAgent();
        } else if (!world.IsPlugged()) {
            world.Plug(*m_pPeer);
        }
        EXPECT_EQ(dak->ConnectDevice(), 0u);
        for (const auto& [strName, strBytes] : Everything(true)) {
            if (bHostFails && IsOfHost(strName)) {
                platform::DeleteFileA(("C:/" + strName).c_str());
            }
        }
        platform::Sleep(FORMAT_MS);
        const TREE left = Everything(true);
        EXPECT_TRUE(left.empty()) << "something is left";
        bHostFails = false;
    }

    // What meets the work in hand: at a package, of data or not, or at a moment.
    void MeetPackage(bool bToHost, std::uint64_t n, const CFault& fault, bool bKills,
                     std::optional<bool> bOfData = {}) {
        onPackage = [=, this](bool bIsToHost, std::uint64_t nPackage, bool bData) {
            const bool bHere =
                bIsToHost == bToHost && nPackage == n && bData == bOfData.value_or(bData);
            bHere&& bKills ? KillAgent() : void();
            return bHere ? std::optional(fault) : std::nullopt;
        };
    }
    void UnplugAfter(std::uint64_t qwMs) {
        world.At(world.NowMs() + qwMs, [this, nWork = m_nWorks] {
            if (m_pWork != nullptr && nWork == m_nWorks) {
                ++met.nFaults;
                world.Unplug();
            }
        });
    }
    void CancelAfter(std::uint64_t qwMs) {
        m_bCancelled = false;
        m_hCancel = world.Spawn([this, qwMs] {
            platform::Sleep(static_cast<DWORD>(qwMs));
            met.nFaults += m_pWork != nullptr ? 1u : 0u;
            m_pWork != nullptr ? dak->TerminateTransfer() : void();
            m_bCancelled = true;
        });
    }

    // For work: what an operation has returned, and a job until it has ended.
    DWORD Took(DWORD dwResult) {
        EXPECT_EQ(dwResult == 0, dak->GetLastError() == 0) << dwResult;
        met.dwError = met.dwError == 0 ? dak->GetLastError() : met.dwError;
        return dwResult;
    }
    // The operations between are the one with the stream.
    void BeginStream() { std::copy_n(met.nPackages, 2, met.nStreamFrom); }
    void EndStream() { std::fill_n(met.nStreamFrom, 2, UINT64_MAX / 2); }
    DWORD Transmit(UINT nDirection, const std::vector<std::string>& names) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        CStringArray list;
        for (std::string strName : names) {
            std::replace(strName.begin(), strName.end(), '/', '\\');
            list.Add(((bPush ? "C:\\s\\" : "") + strName).c_str());
        }
        world.posted.clear();
        BeginStream();
        const DWORD dwStarted =
            dak->DAKTransmitFiles(nDirection, bPush ? DAK_WIDE("C:\\s") : DAK_WIDE("\\d"),
                                  bPush ? DAK_WIDE("\\d") : DAK_WIDE("C:\\r"), &list, m_window);
        while (dwStarted == 0 && world.LiveThreads() > (m_bCancelled ? 0 : 1) &&
               !world.HasFailed()) {
            platform::Sleep(50);
        }
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
        EXPECT_LE(world.posted.size(), dwStarted == 0 ? 1u : 0u);
        return Took(dwStarted == 0 ? dak->GetLastError() : dwStarted);
    }

    sim::CWorld& world;
    std::optional<CDAKVorn> dak{std::in_place};
    // Asked for every package, with its number from the work's beginning in its direction, and
    // whether it is data that bears a checksum.
    std::function<std::optional<CFault>(bool bToHost, std::uint64_t n, bool bData)> onPackage;
    bool bNewAgent = false;  // is wanted
    bool bHostFails = false; // in ways for which a job leaves out files, or its part file behind

    CMet met;

  private:
    std::optional<CFault> FaultOf(bool bToHost) {
        const std::uint64_t n = ++met.nPackages[bToHost];
        // Behind the handshake and a command or its acknowledgement.
        const bool bData = m_pWork != nullptr && m_pWork->bStreamToHost == bToHost &&
                           n > met.nStreamFrom[bToHost] + 2;
        const auto fault = onPackage ? onPackage(bToHost, n, bData) : std::nullopt;
        met.nFaults += fault ? 1u : 0u;
        if (fault && bData) {
            // What is cut within the head that the host reads first is as good as lost, and a
            // length that promises more than the final package has ends the stream.
            const EFault eFault = fault->eFault;
            met.bMisled |= eFault == EFault::Drop ||
                           (eFault == EFault::Cut && fault->dwAmount < DAK_DATA_OFFSET);
            met.bMadeGood |= eFault == EFault::Corrupt && (!bToHost || fault->dwAmount / 4 != 1);
        }
        return fault;
    }

    void ExpectSettled(const CWork& work, const TREE& before, bool bDone) const {
        TREE after = Everything();
        met.strAnswer ? after.emplace("answer", *met.strAnswer) : std::pair(after.end(), false);
        const bool bAll = bDone && !(bHostFails && work.bPlaceByPlace);
        EXPECT_TRUE(work.bPlaceByPlace || after == work.wanted || (!bAll && after == before));
        TREE all = before;
        all.insert(work.wanted.begin(), work.wanted.end());
        all.insert(after.begin(), after.end());
        for (const auto& [strName, strBytes] : all) {
            const auto now = At(after, strName);
            const auto wanted = At(work.wanted, strName);
            const auto old = At(before, strName);
            EXPECT_TRUE(now == wanted || (!bAll && now == old) ||
                        (!bDone && now && wanted && wanted != old &&
                         (met.bMisled || (work.mayHold && work.mayHold(*now)))))
                << strName << " is torn, lost or foreign: " << (now ? now->size() : 0) << " bytes";
        }
    }

    CTempFolder m_folder;
    int m_nPhotographs = 0;
    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::unique_ptr<sim::CAgentPeer> m_pPeer; // goes first
    HWND m_window = platform::CreateMessageWindow();
    const CWork* m_pWork = nullptr;
    std::uint64_t m_nWorks = 0;
    HANDLE m_hCancel = nullptr;
    bool m_bCancelled = true;
};

// A change of the device's files: "delete", "folder" (is made), "copy", "move", or "format" of the
// storage.
inline CWork Change(const CScenario& s, const std::string& strWhat, const std::string& strFrom,
                    const std::string& strTo) {
    const bool bFormat = strWhat == "format";
    CWork work{.wanted = s.Everything(), .run = {}, .bWaitsWithoutEnd = strWhat == "delete"};
    work.bPlaceByPlace = bFormat;
    work.run = [=, from = DevicePath(strFrom), to = DevicePath(strTo)](CScenario& host) {
        CDAKVorn& dak = *host.dak;
        const DWORD dwResult =
            host.Took(strWhat == "delete"   ? dak.DAKDeleteFile(from.c_str())
                      : strWhat == "folder" ? dak.DAKCreateDirectory(to.c_str(), nullptr)
                      : strWhat == "copy"   ? dak.DAKCopyFile(from.c_str(), to.c_str(), 0)
                      : strWhat == "move"   ? dak.DAKMoveFile(from.c_str(), to.c_str())
                                            : dak.DAKFormatPartition(DAK_WIDE("Card")));
        // It is answered at once, and takes its time on the disk; behind a killed agent the next
        // one ends it.
        platform::Sleep(bFormat && dwResult == 0 ? FORMAT_MS : 0);
        return bFormat && host.bNewAgent ? DAKERROR_FAIL : dwResult;
    };
    if (strWhat == "folder") {
        work.wanted[strTo] = FOLDER;
    } else if (strWhat == "copy" || strWhat == "move") {
        work.wanted[strTo] = work.wanted[strFrom];
    }
    std::erase_if(work.wanted, [&](const auto& file) {
        return bFormat ? file.first.starts_with("Card/")
                       : file.first == strFrom && (strWhat == "delete" || strWhat == "move");
    });
    return work;
}
// Of C:\s to \d, and from there to C:\r.
inline CWork Job(const CScenario& s, UINT nDirection, const std::vector<std::string>& names) {
    CWork work{s.Everything(), [=](CScenario& host) { return host.Transmit(nDirection, names); }};
    const bool bPush = nDirection == DAK_TO_DEVICE;
    for (const std::string& strName : names) {
        work.wanted[(bPush ? "d/" : "r/") + strName] =
            work.wanted.at((bPush ? "s/" : "d/") + strName);
        for (auto n = strName.find('/'); bPush && n + 1 != 0; n = strName.find('/', n + 1)) {
            work.wanted["d/" + strName.substr(0, n)] = FOLDER;
        }
    }
    work.bStreamToHost = !bPush;
    work.bPlaceByPlace = true;
    return work;
}
// A read or write by handle; where none is given, the file is opened and closed as part of the
// work.
inline CWork Stream(const CScenario& s, bool bRead, const std::string& strName, std::size_t dwAt,
                    const std::string& strData, void* hGiven = nullptr) {
    CWork work{.wanted = s.Everything(), .run = {}, .bStreamToHost = bRead};
    const auto with = [dwAt, strOld = work.wanted[strName]](const std::string& strPart) {
        std::string strAll = strOld;
        strAll.resize(std::max(strOld.size(), strPart.empty() ? 0 : dwAt + strPart.size()));
        return strPart.empty() ? strAll : strAll.replace(dwAt, strPart.size(), strPart);
    };
    work.wanted[bRead ? "answer" : strName] = bRead ? strData : with(strData);
    work.run = [=, path = DevicePath(strName)](CScenario& host) {
        constexpr DWORD READ_WRITE = 0xC0000000, SHARED = 3, ALWAYS = 4;
        CDAKVorn& dak = *host.dak;
        void* hFile = hGiven;
        DWORD dwResult =
            hGiven != nullptr
                ? 0
                : host.Took(dak.DAKCreateFile(path.c_str(), READ_WRITE, SHARED, ALWAYS, &hFile));
        if (dwResult != 0) {
            return dwResult;
        }
        DWORD dwCount = 0; // and a position
        dwResult = host.Took(dak.DAKSetFilePointer(hFile, static_cast<LONG>(dwAt), 0, &dwCount));
        dwCount = 0;
        host.BeginStream();
        std::string strBuffer = bRead ? std::string(strData.size(), '\xEE') : strData;
        if (dwResult == 0) {
            dwResult = (dak.*(bRead ? &CDAKVorn::DAKReadFile : &CDAKVorn::DAKWriteFile))(
                hFile, strBuffer.data(), static_cast<DWORD>(strBuffer.size()), &dwCount);
            host.EndStream();
            host.met.dwError = dwResult == 0 ? 0 : dak.GetLastError();
            EXPECT_TRUE(bRead ? (dwResult == 0) == (dwCount > 0)
                              : dwResult != 0 || host.met.dwError == 0);
        }
        if (bRead) {
            host.met.strAnswer = strBuffer.substr(0, dwCount);
        }
        const DWORD dwClosed = hGiven != nullptr ? 0 : host.Took(dak.DAKCloseFile(hFile));
        // A short read is a success of the operation, and less than all of the work.
        dwResult = dwResult == 0 && dwCount < strData.size() ? DAKERROR_FAIL : dwResult;
        return dwResult != 0 ? dwResult : dwClosed;
    };
    // Of a read what came, and of a write whole windows.
    work.mayHold = [=](const std::string& strNow) {
        bool bHolds = bRead && strData.starts_with(strNow);
        for (std::size_t n = DAK_DATA_SIZE; !bRead && n < strData.size(); n += 50 * DAK_DATA_SIZE) {
            bHolds = bHolds || strNow == with(strData.substr(0, n));
        }
        return bHolds;
    };
    return work;
}

} // namespace scenario
