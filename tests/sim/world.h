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

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sim {

using namespace test; // packages, and what they are made of

// The calls that are counted. OpenNode, ReadPipe and WritePipe are CreateFileA, ReadFile and
// WriteFile on the device node. Those of the first list can fail without a mistake of the caller.
#define SIM_CALLS_THAT_FAIL(X)                                                                     \
    X(CreateFileA)                                                                                 \
    X(OpenNode)                                                                                    \
    X(ReadFile)                                                                                    \
    X(ReadPipe)                                                                                    \
    X(WriteFile)                                                                                   \
    X(WritePipe)                                                                                   \
    X(SetFilePointer)                                                                              \
    X(GetFileSize)                                                                                 \
    X(GetFileTime)                                                                                 \
    X(SetFileTime)                                                                                 \
    X(DeleteFileA)                                                                                 \
    X(MoveFileA)                                                                                   \
    X(MoveFileExA)                                                                                 \
    X(SetFileAttributesA)                                                                          \
    X(CreateDirectoryA)                                                                            \
    X(GetTempFileNameA)                                                                            \
    X(GetDiskFreeSpaceExA)                                                                         \
    X(CreateThread)                                                                                \
    X(CreateMutexA)                                                                                \
    X(LocalAlloc)                                                                                  \
    X(PostMessageA)                                                                                \
    X(CreateToolhelp32Snapshot)                                                                    \
    X(Process32First)                                                                              \
    X(Process32Next)                                                                               \
    X(OpenProcess)                                                                                 \
    X(TerminateProcess)                                                                            \
    X(RegOpenKeyExA)                                                                               \
    X(RegQueryValueExA)                                                                            \
    X(SetupDiGetClassDevsA)                                                                        \
    X(SetupDiEnumDeviceInterfaces)                                                                 \
    X(SetupDiGetDeviceInterfaceDetailA)
#define SIM_CALLS_THAT_SUCCEED(X)                                                                  \
    X(Sleep)                                                                                       \
    X(WaitForSingleObject)                                                                         \
    X(WaitOnAddress)                                                                               \
    X(WakeByAddressAll)                                                                            \
    X(ResumeThread)                                                                                \
    X(TerminateThread)                                                                             \
    X(ReleaseMutex)                                                                                \
    X(CloseHandle)                                                                                 \
    X(WideCharToMultiByte)                                                                         \
    X(MultiByteToWideChar)

enum class ECall {
#define SIM_ENUMERATOR(name) name,
    SIM_CALLS_THAT_FAIL(SIM_ENUMERATOR) SIM_CALLS_THAT_SUCCEED(SIM_ENUMERATOR)
#undef SIM_ENUMERATOR
        Count
};
const char* CallName(ECall eCall);

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

struct CHostFile {
    Bytes bytes;
    FILETIME ftCreation{};
    FILETIME ftAccess{};
    FILETIME ftWrite{};
    bool bReadOnly = false;
    std::optional<std::uint64_t> qwReportedSize;
    int nHandles = 0;
};

// A read of a host file on its way: the hook may shorten dwBytes, and may call platform::Sleep.
struct CFileRead {
    std::string strPath;
    std::uint64_t qwPosition;
    DWORD dwBytes;
    bool bFail;
};

class CWorld;

// What a handle stands for.
class CObject {
  public:
    virtual ~CObject() = default;
    virtual std::string What() const = 0;
    virtual void Close(CWorld& /*world*/) {}
};

enum class EWake { Woken, TimedOut, Stopped };

class CThread;

// A real thread, which carries one simulated thread after another.
struct CCarrier {
    CThread* pThread = nullptr;
    bool bBaton = false;
    bool bEnd = false;
    std::condition_variable condition;
    std::thread thread;
};

class CThread : public CObject {
  public:
    enum class EState { Suspended, Ready, Running, Waiting, Ended };
    std::string What() const override { return "thread " + std::to_string(nNumber); }

    CWorld* pWorld = nullptr;
    int nNumber = 0;
    EState eState = EState::Suspended;
    std::function<DWORD()> entry;
    bool bStop = false;
    unsigned nRefused = 0; // blocking calls refused since it was stopped
    const void* lpWaitKey = nullptr;
    std::uint64_t qwDue = 0;
    std::uint64_t qwWaitNumber = 0;
    const char* lpszWaitsFor = "";
    std::uint64_t qwWaitArgument = 0;
    EWake eWake = EWake::Woken;
    CCarrier* pCarrier = nullptr;
};

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
    void At(std::uint64_t qwMs, std::function<void()> action);
    std::uint64_t qwTimeLimitMs = 100ull * 3600 * 1000; // the test fails behind it
    std::uint64_t qwCallLimit = 50'000'000;

    // Threads. Spawn starts body on a thread of its own; Join waits for its end.
    HANDLE Spawn(std::function<void()> body);
    void Join(HANDLE hThread);
    int LiveThreads() const; // thread 1 not counted
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

    // Host files. Either slash separates; drives and the root exist, other folders must be made.
    void WriteHostFile(const std::string& strPath, Bytes bytes, FILETIME ftCreation = {},
                       FILETIME ftWrite = {}); // makes the folders too
    std::optional<Bytes> ReadHostFile(const std::string& strPath) const;
    bool HostFileExists(const std::string& strPath) const;
    bool HostFolderExists(const std::string& strPath) const;
    void MakeHostFolder(const std::string& strPath); // and those above it
    // Paths of all files below a folder, relative to it, with forward slashes, sorted.
    std::vector<std::string> HostFiles(const std::string& strFolder) const;
    // The record of a file, to look at or to change; null when missing. qwReportedSize makes
    // GetFileSize tell another size than the file has.
    CHostFile* HostFile(const std::string& strPath);
    std::uint64_t qwFreeBytes = 1ull << 40; // consumed by what is written
    bool bOpenFilesCannotBeDeleted = false; // nor moved, nor opened against each other
    std::function<void(CFileRead&)> onFileRead;

    // Registry.
    std::optional<DWORD> dwCpuMHz; // nothing: the value is missing
    bool bRegistryKeyExists = true;

    // Processes, in the order of the snapshot.
    DWORD AddProcess(const std::string& strFile, bool bOpenable = true);
    std::vector<std::string> strEndedProcesses;

    // The lock as another process has it.
    void OtherProcessOpensLock(const std::string& strName, bool bHolds = false);
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
    std::uint64_t Questions() const { return m_qwQuestions; }
    bool IsPlugged() const { return m_pPeer != nullptr; }
    void PeerChanged() { WakeAll(&m_pPeer); }
    bool bNodeOpens = true;

    // For the implementation of the seam.

    static CWorld* Current(); // null on a thread that is not of the world
    // Counts a call. False: it fails, and the error number is set.
    bool Enter(ECall eCall);
    bool IsStopped() const;
    // Waits for WakeAll of the key or the time. In a thread being stopped it returns at once, after
    // giving way, unless bEvenIfStopped.
    EWake Block(const void* lpKey, std::optional<std::uint64_t> qwDue, const char* lpszWaitsFor,
                std::uint64_t qwArgument = 0, bool bEvenIfStopped = false);
    std::optional<std::uint64_t> DueAfter(DWORD dwMs) const;
    void WakeAll(const void* lpKey);
    void Note(const char* lpszFormat, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    HANDLE Add(std::shared_ptr<CObject> pObject);
    bool Remove(HANDLE hObject);
    template <class T>
    std::shared_ptr<T> Get(HANDLE hObject) const {
        const auto it = m_handles.find(hObject);
        return it == m_handles.end() ? nullptr : std::dynamic_pointer_cast<T>(it->second);
    }
    HANDLE NewThread(std::function<DWORD()> entry, bool bSuspended);
    void Start(const std::shared_ptr<CThread>& pThread);
    void Stop(CThread& thread);
    bool AskForDevice(); // a question
    IPeer* Peer();       // with the time told
    const void* PipeKey() const {
        return &m_pPeer;
    }
    FILETIME FileTimeNow() const;

    struct CLock {
        bool bHeld = false;
        bool bHeldByOther = false;
        bool bOtherHasOpen = false;
        int nHandles = 0;
    };
    struct CProcess {
        DWORD dwId;
        std::string strFile;
        bool bOpenable;
    };
    struct CWindow {
        std::vector<platform::WINDOWMESSAGE> messages;
    };
    static std::string Canonical(const std::string& strPath);
    static std::string Parent(const std::string& strCanonical);
    std::shared_ptr<CHostFile> FindFile(const std::string& strCanonical) const;
    bool FindFolder(const std::string& strCanonical) const;
    std::map<std::string, std::shared_ptr<CLock>> locks;
    std::map<std::string, std::shared_ptr<CHostFile>> files;
    std::set<std::string> folders;
    std::vector<CProcess> processes;
    std::map<HWND, CWindow> windows;
    std::map<void*, SIZE_T> blocks;
    std::uint64_t qwPlugNumber = 0; // a node opened under another number is stale
    DWORD dwTempNames = 0;

  private:
    struct CFault {
        std::optional<ECall> eCall;
        std::uint64_t qwFirst;
        std::uint64_t qwTimes;
        DWORD dwError;
    };
    struct CEvent {
        std::uint64_t qwMs;
        std::string strText;
    };
    std::shared_ptr<CThread> MakeThread(std::function<DWORD()> entry);
    void Carry(CCarrier& carrier);
    void HandOver(CThread& self);
    bool AwaitBaton(CCarrier& carrier);
    void GiveBaton(CThread& thread);
    CThread& PickNext();
    void Advance();
    void MakeReady(CThread& thread, EWake eWake);
    void StopAll();
    void Fail(const std::string& strWhy);
    void Refuse(CThread& self);

    std::uint64_t m_qwNowMs = 0;
    std::uint64_t m_qwWaits = 0;
    std::uint64_t m_qwPeerToldMs = ~0ull;
    std::multimap<std::uint64_t, std::function<void()>> m_actions;
    std::mutex m_mutex; // of what the carriers look at, and of nothing else
    std::vector<std::unique_ptr<CCarrier>> m_carriers;
    std::vector<CCarrier*> m_idle;
    std::vector<std::shared_ptr<CThread>> m_threads; // not ended, thread 1 first
    std::vector<CThread*> m_ready;
    int m_nThreads = 0;
    bool m_bFailed = false;
    bool m_bEnding = false;
    std::array<std::uint64_t, static_cast<std::size_t>(ECall::Count)> m_counts{};
    std::uint64_t m_qwCalls = 0;
    std::uint64_t m_qwFailingCalls = 0;
    std::vector<CFault> m_faults;
    int m_nFaultsMet = 0;
    std::vector<CEvent> m_trace;
    std::map<HANDLE, std::shared_ptr<CObject>> m_handles;
    IPeer* m_pPeer = nullptr;
    std::uint64_t m_qwQuestions = 0;
    std::uint64_t m_qwUnplugAt = 0;
};

// The path of the device node.
inline constexpr char DEVICE_NODE[] = "\\\\?\\usb#dak#0";

// Sets the calling thread's error number and returns what a failing call returns.
void SetError(DWORD dwError);
inline BOOL FailWith(DWORD dwError) {
    SetError(dwError);
    return FALSE;
}

// Runs a scenario in a world of its own with call number 1 failing, then number 2 and so on, until
// a run meets no fault: once every call of that kind (none: of all that can fail) has failed. With
// nTimes the calls behind it fail too. Returns how many faults there were. Failures of the test
// name the number, and Sweep(scenario, eCall, nTimes, number) repeats that run alone.
std::uint64_t Sweep(const std::function<void(CWorld&)>& scenario, std::optional<ECall> eCall = {},
                    std::uint64_t nTimes = 1, std::uint64_t nOnly = 0);

} // namespace sim
