// The simulated host: the whole platform seam with virtual time, for tests.
//
//     TEST(Example, Something) {
//         sim::CWorld world;                  // this thread is now the world's thread 1
//         sim::CScriptedDevice device(world); // plugs itself in (scripted_device.h)
//         world.WriteHostFile("C:/s/a.txt", {1, 2, 3});
//         CDAKVorn dak;
//         EXPECT_EQ(dak.ConnectDevice(), 0u);
//         EXPECT_EQ(world.NowMs(), 320u);
//     }
//
// Threads are real ones that pass one baton: exactly one runs, and it hands over only in platform
// calls that block (Sleep, waits, pipe transfers) and at its end. Those that can run do so in the
// order in which they became able to, so a run is the same every time. When all wait, the clock
// jumps to the next moment at which something is due; what is due at one moment happens in this
// order: actions of At, the device, threads by the time they began to wait. A wait whose object
// comes at the very millisecond of its time-out is a success. When nothing is ever due the test
// fails with a list of the threads, and from then on every call fails, so that all of them end.
//
// All of the world's functions are called by threads of the world. Faults count from the call that
// plans them: number 1 is the next such call.
#pragma once

#include "platform/message_window.h"
#include "platform/types.h"
#include "tests/support/packages.h"
#include "tests/support/temp_folder.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace platform::posix {
class CObject; // what stands behind a handle
}

namespace sim {

using namespace test; // packages, and what they are made of

// The calls that are counted. OpenNode, ReadPipe and WritePipe are CreateFileA, ReadFile and
// WriteFile on the device node. Those of the first list can fail without a mistake of the caller;
// a test that names one of the second list has it fail all the same.
#define SIM_CALLS_THAT_FAIL                                                                        \
    CreateFileA, OpenNode, ReadFile, ReadPipe, WriteFile, WritePipe, SetFilePointer, GetFileSize,  \
        GetFileTime, SetFileTime, DeleteFileA, MoveFileA, MoveFileExA, SetFileAttributesA,         \
        CreateDirectoryA, GetTempFileNameA, GetDiskFreeSpaceExA, CreateThread, CreateMutexA,       \
        LocalAlloc, PostMessageA, CreateToolhelp32Snapshot, Process32First, Process32Next,         \
        OpenProcess, TerminateProcess, RegOpenKeyExA, RegQueryValueExA, SetupDiGetClassDevsA,      \
        SetupDiEnumDeviceInterfaces, SetupDiGetDeviceInterfaceDetailA
#define SIM_CALLS_THAT_SUCCEED                                                                     \
    Sleep, WaitForSingleObject, WaitOnAddress, WakeByAddressAll, ResumeThread, TerminateThread,    \
        ReleaseMutex, CloseHandle

enum class ECall { SIM_CALLS_THAT_FAIL, SIM_CALLS_THAT_SUCCEED, Count };
const std::string& CallName(ECall eCall);

// The device's end of the pipe. The world tells the time ahead of every other call. No function
// may block or call the platform.
class IPeer {
  public:
    virtual ~IPeer() = default;
    virtual void SetTime(std::uint64_t qwNowMs) = 0;

    // One write of the host. False: not now; the write blocks and asks again after whatever
    // happens to the pipe, at NextDueMs, and after CWorld::PeerChanged.
    virtual bool TakePackage(std::span<const std::uint8_t> package) = 0;

    // Bytes for a read of the host, at most the rest of one package. Nothing: the read blocks, and
    // asks again as above. 0: a transfer of no bytes.
    virtual std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) = 0;

    // When SetTime is wanted though the host is silent.
    virtual std::optional<std::uint64_t> NextDueMs() { return {}; }

    // A transfer that was blocked has been stopped by the host.
    virtual void TransferStopped([[maybe_unused]] bool bWrite) {}

    // The host has opened or closed the node; the device was unplugged.
    virtual void Opened() {}
    virtual void Closed() {}
    virtual void Unplugged() {}
};

struct CPostedMessage {
    HWND hWnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    std::uint64_t qwMs;
};

// A file as it is at the moment; another size that GetFileSize is to tell can be put in.
struct CHostFile {
    const Bytes bytes;
    const FILETIME ftCreation;
    const FILETIME ftWrite;
    std::optional<std::uint64_t> qwReportedSize;
};

// A read of a host file on its way: the hook may shorten dwBytes, and may call platform::Sleep.
struct CFileRead {
    std::string strPath;
    std::uint64_t qwPosition;
    DWORD dwBytes;
    bool bFail;
};

enum class EWake { Woken, TimedOut, Stopped };

struct CCarrier;
class CThread;

class CWorld {
  public:
    CWorld();
    // Ends all threads, whatever they wait for, and prints the end of the trace if the test failed.
    ~CWorld();
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    // Clock.
    std::uint64_t NowMs() const { return m_qwNowMs; }
    // Runs an action at a virtual time, on whatever thread; it may not block.
    void At(std::uint64_t qwMs, std::function<void()> action) {
        m_actions.emplace(qwMs, std::move(action));
    }

    // Threads. Spawn starts body on a thread of its own; Join waits for its end.
    HANDLE Spawn(std::function<void()> body) { return NewThread(std::move(body), false); }
    void Join(HANDLE hThread);
    int LiveThreads() const { return static_cast<int>(m_threads.size()) - 1; } // but for thread 1
    // A list of the threads and what each waits for.
    std::string Threads() const;
    bool HasFailed() const { return m_bFailed; }

    // Faults. CallCount() and FailAnyCall take the calls that can fail, all kinds together.
    std::uint64_t CallCount() const { return m_qwFailingCalls; }
    std::uint64_t CallCount(ECall eCall) const { return m_counts[static_cast<std::size_t>(eCall)]; }
    void FailCall(ECall eCall, std::uint64_t nNumber, DWORD dwError = 0, std::uint64_t nTimes = 1);
    void FailAnyCall(std::uint64_t nNumber, std::uint64_t nTimes = 1);
    void ClearFaults() { m_faults.clear(); }
    int FaultsMet() const { return m_nFaultsMet; }
    SIZE_T dwFailAllocationsOf = 0; // LocalAlloc of exactly this size fails

    // Trace: lines "MS text", those whose text begins with one of the given words (none: all).
    std::vector<std::string> Trace(std::initializer_list<std::string_view> beginnings = {}) const;
    bool bTrace = true;

    // What is open: handles, information sets, keys, memory blocks, one line each.
    std::vector<std::string> Open() const;

    // Host files: real ones, below a folder of the world's own, which is the process's working
    // folder as long as the world is there. Either slash separates; drives and the root exist,
    // other folders must be made.
    void WriteHostFile(const std::string& strPath, const Bytes& bytes, FILETIME ftCreation = {},
                       FILETIME ftWrite = {}); // makes the folders too
    std::optional<Bytes> ReadHostFile(const std::string& strPath) const;
    bool HostFileExists(const std::string& strPath) const;
    void MakeHostFolder(const std::string& strPath); // and those above it
    // Paths of all files below a folder, relative to it, with forward slashes, sorted.
    std::vector<std::string> HostFiles(const std::string& strFolder) const;
    // Null when missing. The record is as old as the latest call for that path.
    CHostFile* HostFile(const std::string& strPath);
    std::uint32_t nRandomNumber = 0;        // the latest that the system gave out
    std::uint64_t qwFreeBytes = 1ull << 40; // consumed by what is written
    bool bOpenFilesCannotBeDeleted = false; // nor moved, nor opened against each other
    std::function<void(CFileRead&)> onFileRead;

    // Registry.
    std::optional<DWORD> dwCpuMHz; // nothing: the value is missing
    bool bRegistryKeyExists = true;

    // Processes, in the order of the snapshot.
    struct CProcess {
        DWORD dwId;
        std::string strFile;
        bool bOpenable;
    };
    DWORD AddProcess(const std::string& strFile, bool bOpenable = true);
    std::vector<CProcess> processes;
    std::vector<std::string> strEndedProcesses;

    // The locks that are open anywhere, and one as another process has it.
    struct CLock {
        bool bHeld = false;
        int nHandles = 0;
    };
    std::map<std::string, std::shared_ptr<CLock>> locks;
    void OtherProcessOpensLock(const std::string& strName);
    void OtherProcessClosesLock(const std::string& strName);

    // Messages posted to windows that were alive.
    std::vector<CPostedMessage> posted;

    // The device. The peer outlives its being plugged in.
    void Plug(IPeer& peer);
    // The interface disappears, every open node goes stale and its transfers fail. With a peer:
    // only if it is the one plugged in.
    void Unplug();
    void Unplug(const IPeer& peer) {
        if (m_pPeer == &peer) {
            Unplug();
        }
    }
    // The n-th enumeration of interfaces from now on finds the device gone.
    void UnplugAtQuestion(std::uint64_t nNumber) { m_qwUnplugAt = m_qwQuestions + nNumber; }
    bool bPromptDevice = false; // platform/device.h, IsPromptDevice
    bool IsPlugged() const { return m_pPeer != nullptr; }
    void PeerChanged() { WakeAll(&m_pPeer); }

    // For the implementation of the seam (seam.h).

    static CWorld* Current(); // null on a thread that is not of the world
    // Counts a call. False: it fails, and the error number is set.
    bool Enter(ECall eCall);
    bool IsStopped() const;
    static constexpr std::uint64_t NEVER = ~0ull;
    std::uint64_t DueAfter(DWORD dwMs) const { return dwMs == INFINITE ? NEVER : m_qwNowMs + dwMs; }
    // Waits for WakeAll of the key or the time. In a thread being stopped it returns at once, after
    // giving way, unless bEvenIfStopped.
    EWake Block(const void* lpKey, std::uint64_t qwDue, std::string strWaitsFor,
                bool bEvenIfStopped = false);
    // The same until isThere() is true, which is asked again at each wake.
    template <class TIsThere>
    EWake Await(const void* lpKey, DWORD dwMs, const std::string& strWaitsFor, TIsThere isThere) {
        const std::uint64_t qwDue = DueAfter(dwMs);
        EWake eWake = EWake::Woken;
        while (eWake == EWake::Stopped || !isThere()) {
            if (eWake != EWake::Woken || dwMs == 0) {
                return eWake == EWake::Stopped ? eWake : EWake::TimedOut;
            }
            eWake = Block(lpKey, qwDue, strWaitsFor);
        }
        return EWake::Woken;
    }
    void WakeAll(const void* lpKey);
    template <class... TParts>
    void Note(const TParts&... parts) {
        if (bTrace && m_trace.size() < MAX_EVENTS) {
            std::ostringstream text;
            (text << ... << parts);
            m_trace.emplace_back(m_qwNowMs, text.str());
        }
    }
    // Gives an object a handle; says what an open handle stands for.
    HANDLE Add(std::shared_ptr<platform::posix::CObject> pObject, std::string strWhat);
    void Name(HANDLE hObject, std::string strWhat);
    HANDLE NewThread(std::function<void()> entry, bool bSuspended);
    void Start(CThread& thread);
    void Stop(CThread& thread);
    bool AskForDevice(); // a question
    IPeer* Peer();       // with the time told
    const void* PipeKey() const { return &m_pPeer; }

    std::map<HANDLE, std::string> handles; // their names, and those of some that are closed
    std::map<void*, SIZE_T> blocks;
    std::map<std::string, CHostFile> files; // the records that were asked for
    std::map<HWND, std::vector<platform::WINDOWMESSAGE>> windows;
    std::uint64_t qwPlugNumber = 0; // a node opened under another number is stale

  private:
    static constexpr std::size_t MAX_EVENTS = 300'000;
    struct CFault {
        std::optional<ECall> eCall;
        std::uint64_t qwFirst;
        std::uint64_t qwTimes;
        DWORD dwError;
    };
    void Carry(CCarrier& carrier);
    void HandOver(CThread& self);
    CThread& PickNext();
    void Advance();
    void MakeReady(CThread& thread, EWake eWake);
    void End(CThread& thread);
    void StopAll();
    void Fail(const std::string& strWhy);

    const CTempFolder m_folder;
    const std::filesystem::path m_pathBefore;
    std::uint64_t m_qwNowMs = 0;
    std::uint64_t m_qwWaits = 0;
    std::optional<std::uint64_t> m_qwPeerToldMs;
    std::multimap<std::uint64_t, std::function<void()>> m_actions;
    std::vector<std::unique_ptr<CCarrier>> m_carriers;
    std::vector<CCarrier*> m_idle;
    std::vector<std::shared_ptr<CThread>> m_threads; // not ended, thread 1 first
    std::vector<CThread*> m_ready;
    std::uint64_t m_nThreads = 0;
    bool m_bFailed = false;
    bool m_bEnding = false;
    std::array<std::uint64_t, static_cast<std::size_t>(ECall::Count)> m_counts{};
    std::uint64_t m_qwCalls = 0;
    std::uint64_t m_qwFailingCalls = 0;
    std::vector<CFault> m_faults;
    int m_nFaultsMet = 0;
    std::vector<std::pair<std::uint64_t, std::string>> m_trace;
    IPeer* m_pPeer = nullptr;
    std::uint64_t m_qwQuestions = 0;
    std::uint64_t m_qwUnplugAt = 0;
};

// The path of the device node.
inline constexpr std::string_view DEVICE_NODE = "\\\\?\\usb/dak";

} // namespace sim
