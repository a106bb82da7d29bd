// Processes, from /proc.
#include "platform/process.h"

#include "platform/posix/descriptors.h"
#include "platform/posix/handles.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace platform {
namespace posix {
namespace {

// The list is taken at once; the name of each process is looked up when the walk comes to it, as
// most walks need few of them.
class CSnapshot final : public CObject {
  public:
    explicit CSnapshot(CDescriptor proc, std::vector<pid_t> pids)
        : m_proc(std::move(proc)), m_pids(std::move(pids)) {}

    void Rewind() { m_nNext = 0; }
    BOOL Next(PROCESSENTRY32& entry);

  private:
    const CDescriptor m_proc;
    const std::vector<pid_t> m_pids;
    std::size_t m_nNext = 0;
};

class CProcess final : public CObject {
  public:
    CProcess(CDescriptor process, pid_t nPid) : m_process(std::move(process)), m_nPid(nPid) {}

    // Signal 0 only asks whether it would be allowed.
    bool Signal(int nSignal) const {
        return m_process
                   ? ::syscall(SYS_pidfd_send_signal, m_process.Get(), nSignal, nullptr, 0) == 0
                   : ::kill(m_nPid, nSignal) == 0;
    }

  private:
    // None where the system has no such descriptors; then the number itself has to serve.
    const CDescriptor m_process;
    const pid_t m_nPid;
};

std::string_view LastComponent(std::string_view strPath) {
    const std::size_t dwAt = strPath.find_last_of("/\\");
    return dwAt == std::string_view::npos ? strPath : strPath.substr(dwAt + 1);
}

std::string_view ReadProcFile(int nProc, pid_t nPid, const char* lpszFile, char* lpBuffer,
                              std::size_t nSize) {
    char szPath[40];
    std::snprintf(szPath, sizeof(szPath), "%d/%s", nPid, lpszFile);
    const CDescriptor file(::openat(nProc, szPath, O_RDONLY | O_CLOEXEC));
    const ssize_t nRead = file ? ::read(file.Get(), lpBuffer, nSize) : 0;
    return {lpBuffer, nRead > 0 ? static_cast<std::size_t>(nRead) : 0};
}

// The name by which the kernel knows what a process runs. It has at most 15 bytes; a longer one is
// made whole from the command that started the process, if that agrees with it.
std::string NameByCommand(int nProc, pid_t nPid) {
    constexpr std::size_t CUT_AT = 15;
    char comm[32];
    std::string_view strComm = ReadProcFile(nProc, nPid, "comm", comm, sizeof(comm));
    strComm = strComm.substr(0, strComm.find('\n'));
    if (strComm.size() >= CUT_AT) {
        char command[PATH_MAX];
        std::string_view strCommand =
            ReadProcFile(nProc, nPid, "cmdline", command, sizeof(command));
        strCommand = LastComponent(strCommand.substr(0, strCommand.find('\0')));
        if (strCommand.starts_with(strComm)) {
            return std::string(strCommand);
        }
    }
    return std::string(strComm);
}

// The file that a process runs, without its folders. Empty for what has none: kernel threads, and
// processes that have ended but still have an entry.
std::string FileNameOf(int nProc, pid_t nPid) {
    constexpr std::string_view DELETED = " (deleted)";
    char szLink[24];
    char path[PATH_MAX];
    std::snprintf(szLink, sizeof(szLink), "%d/exe", nPid);
    const ssize_t nLength = ::readlinkat(nProc, szLink, path, sizeof(path));
    if (nLength <= 0) {
        // Of other users' processes only the name is told.
        return errno == EACCES || errno == EPERM ? NameByCommand(nProc, nPid) : std::string();
    }
    std::string_view strPath(path, static_cast<std::size_t>(nLength));
    if (strPath.ends_with(DELETED)) {
        strPath.remove_suffix(DELETED.size());
    }
    const std::string_view strName = LastComponent(strPath);
    // A Windows program runs in the file of its loader; the kernel is told its own name.
    return strName.starts_with("wine") ? NameByCommand(nProc, nPid) : std::string(strName);
}

BOOL CSnapshot::Next(PROCESSENTRY32& entry) {
    while (m_nNext < m_pids.size()) {
        const pid_t nPid = m_pids[m_nNext++];
        const std::string strName = FileNameOf(m_proc.Get(), nPid);
        if (strName.empty()) {
            continue;
        }
        const std::size_t nLength = std::min(strName.size(), sizeof(entry.szExeFile) - 1);
        std::memcpy(entry.szExeFile, strName.data(), nLength);
        entry.szExeFile[nLength] = '\0';
        entry.th32ProcessID = static_cast<DWORD>(nPid);
        return TRUE;
    }
    SetLastError(ERROR_NO_MORE_ITEMS);
    return FALSE;
}

std::vector<pid_t> ListPids(DIR* pProc) {
    std::vector<pid_t> pids;
    pids.reserve(256);
    while (const dirent* pEntry = ::readdir(pProc)) {
        const char* lpszEnd = pEntry->d_name + std::strlen(pEntry->d_name);
        pid_t nPid = 0;
        const auto [lpRead, error] = std::from_chars(pEntry->d_name, lpszEnd, nPid);
        if (error == std::errc() && lpRead == lpszEnd && nPid > 0) {
            pids.push_back(nPid);
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

HANDLE TakeSnapshot() {
    CDescriptor proc(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    CDescriptor copy(proc ? ::fcntl(proc.Get(), F_DUPFD_CLOEXEC, 0) : -1);
    DIR* pProc = copy ? ::fdopendir(copy.Get()) : nullptr;
    if (pProc == nullptr) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    copy.Release();
    std::vector<pid_t> pids;
    try {
        pids = ListPids(pProc);
    } catch (...) {
        ::closedir(pProc);
        throw;
    }
    ::closedir(pProc);
    return AddHandle(std::make_shared<CSnapshot>(std::move(proc), std::move(pids)));
}

HANDLE OpenOtherProcess(pid_t nPid) {
    CDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, nPid, 0)));
    if (!process && errno != ENOSYS) {
        SetLastErrorFromErrno(errno == ESRCH ? EINVAL : errno);
        return nullptr;
    }
    const auto pProcess = std::make_shared<CProcess>(std::move(process), nPid);
    if (!pProcess->Signal(0)) {
        SetLastErrorFromErrno(errno == ESRCH ? EINVAL : errno);
        return nullptr;
    }
    return AddHandle(pProcess);
}

} // namespace
} // namespace posix

HANDLE CreateToolhelp32Snapshot(DWORD dwFlags, DWORD th32ProcessID) {
    if (dwFlags != TH32CS_SNAPPROCESS || th32ProcessID != 0) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return posix::WithMemory<HANDLE>(nullptr, [] { return posix::TakeSnapshot(); });
}

BOOL Process32First(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    const auto pSnapshot = posix::FindObject<posix::CSnapshot>(hSnapshot);
    if (pSnapshot == nullptr) {
        return FALSE;
    }
    pSnapshot->Rewind();
    return Process32Next(hSnapshot, lppe);
}

BOOL Process32Next(HANDLE hSnapshot, PROCESSENTRY32* lppe) {
    const auto pSnapshot = posix::FindObject<posix::CSnapshot>(hSnapshot);
    return pSnapshot == nullptr
               ? FALSE
               : posix::WithMemory<BOOL>(FALSE, [&] { return pSnapshot->Next(*lppe); });
}

HANDLE OpenProcess(DWORD dwDesiredAccess, BOOL /*bInheritHandle*/, DWORD dwProcessId) {
    if (dwDesiredAccess != PROCESS_TERMINATE || dwProcessId == 0 || dwProcessId > INT_MAX) {
        posix::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // Neither the first process of the system nor the one that asks is ever ended from here.
    if (dwProcessId == 1 || dwProcessId == static_cast<DWORD>(::getpid())) {
        posix::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return posix::WithMemory<HANDLE>(
        nullptr, [&] { return posix::OpenOtherProcess(static_cast<pid_t>(dwProcessId)); });
}

BOOL TerminateProcess(HANDLE hProcess, UINT /*uExitCode*/) {
    const auto pProcess = posix::FindObject<posix::CProcess>(hProcess);
    if (pProcess == nullptr) {
        return FALSE;
    }
    if (!pProcess->Signal(SIGKILL)) {
        posix::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    return TRUE;
}

} // namespace platform
