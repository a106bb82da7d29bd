// The lock, with or without a name.
//
// A named lock is a file in the device folder, so that it is shared by exactly those processes that
// can reach the same devices. Whoever has the lock open has a shared lock on the file's first byte;
// its holder has an exclusive one on the second. Both belong to the open file, which the system
// closes however the process ends. The file itself stays: only its locks mean something.
#include "platform/posix/descriptors.h"
#include "platform/posix/device_folder.h"
#include "platform/posix/handles.h"
#include "platform/posix/named_locks.h"
#include "platform/posix/waiting.h"
#include "platform/thread.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

namespace platform::posix {
namespace {

constexpr off_t EXISTENCE_BYTE = 0;
constexpr off_t HOLD_BYTE = 1;

// 0, or the error; EAGAIN when another open file is in the way.
int TryFileLock(int nFile, off_t nByte, short nType) {
    struct flock lock {};
    lock.l_type = nType;
    lock.l_whence = SEEK_SET;
    lock.l_start = nByte;
    lock.l_len = 1;
    while (::fcntl(nFile, F_OFD_SETLK, &lock) != 0) {
        if (errno != EINTR) {
            return errno == EACCES ? EAGAIN : errno;
        }
    }
    return 0;
}

struct FILEIDENTITY {
    dev_t dwDevice = 0;
    ino_t dwNode = 0;
    bool operator==(const FILEIDENTITY&) const = default;
};

// One lock as this process sees it: all its handles on the same name share one object.
class CLock final : public CObject {
  public:
    CLock() : m_bNamed(false), m_file(CDescriptor()) {}
    CLock(CDescriptor file, FILEIDENTITY identity)
        : m_bNamed(true), m_identity(identity), m_file(std::move(file)) {}

    DWORD Wait(const CDeadline& deadline) override;
    BOOL Release();
    bool HandleClosed() noexcept override;

    // One more handle. False when the last one has been closed, or the lock is that of a parent
    // process: then it is no lock any more.
    bool AddUser();
    bool IsOf(const FILEIDENTITY& identity) const { return m_bNamed && m_identity == identity; }

  private:
    bool IsAlive() const { return m_nHandles > 0 && (!m_bNamed || m_file.Get() >= 0); }
    // In a forked child the mutex may be a thread's of the parent, for good.
    bool IsOfThisProcess() const { return m_dwGeneration == ProcessGeneration(); }
    int TryHold();

    const bool m_bNamed;
    const FILEIDENTITY m_identity;
    const DWORD m_dwGeneration = ProcessGeneration();
    std::mutex m_mutex;
    CPrivateDescriptor m_file;
    CWaiterList m_waiters;
    int m_nHandles = 1;
    bool m_bHeld = false;
};

// The named locks of the process; those whose last handle is closed may linger.
struct CNamedLocks {
    std::mutex m_mutex;
    std::vector<std::weak_ptr<CLock>> m_locks;
};

CNamedLocks& NamedLocks() {
    static CNamedLocks& locks = *new CNamedLocks;
    return locks;
}

bool CLock::AddUser() {
    if (!IsOfThisProcess()) {
        return false;
    }
    const std::lock_guard hold(m_mutex);
    if (!IsAlive()) {
        return false;
    }
    ++m_nHandles;
    return true;
}

int CLock::TryHold() {
    if (m_bHeld) {
        return EBUSY;
    }
    const int nError = m_bNamed ? TryFileLock(m_file.Get(), HOLD_BYTE, F_WRLCK) : 0;
    m_bHeld = nError == 0;
    return nError;
}

DWORD CLock::Wait(const CDeadline& deadline) {
    // Another process's release cannot wake us. It is waited for in steps: processes turn each
    // other away by the lock's existence, so that they hardly ever meet here.
    constexpr DWORD STEP_MS = 5;

    if (!IsOfThisProcess()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    std::unique_lock hold(m_mutex);
    CWaiter waiter(m_waiters);
    while (!RefuseWhenStopping()) {
        if (!IsAlive()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        const int nError = TryHold();
        if (nError == 0) {
            return WAIT_OBJECT_0;
        }
        if (nError != EBUSY && nError != EAGAIN) {
            SetLastErrorFromErrno(nError);
            return WAIT_FAILED;
        }
        if (deadline.Passed()) {
            return WAIT_TIMEOUT;
        }
        const CDeadline step(nError == EAGAIN ? STEP_MS : INFINITE);
        waiter.Park(hold, deadline.Earlier(step));
    }
    return WAIT_FAILED;
}

BOOL CLock::Release() {
    if (!IsOfThisProcess()) {
        SetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    const std::lock_guard hold(m_mutex);
    if (!m_bHeld) {
        SetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    if (m_bNamed) {
        TryFileLock(m_file.Get(), HOLD_BYTE, F_UNLCK);
    }
    m_bHeld = false;
    m_waiters.WakeAll();
    return TRUE;
}

bool CLock::HandleClosed() noexcept {
    if (!IsOfThisProcess()) {
        return true;
    }
    const std::lock_guard hold(m_mutex);
    if (--m_nHandles == 0) {
        m_bHeld = false;
        m_file.Close();
        m_waiters.WakeAll();
    }
    return true;
}

// Whatever the name, a plain file name of its own.
std::string FileNameOfLock(const char* lpName) {
    std::string strFile = "lock.";
    for (const char* p = lpName; *p != '\0'; ++p) {
        const bool bPlain = (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') ||
                            (*p >= '0' && *p <= '9') || *p == '-' || *p == '_' || *p == '.';
        if (bPlain) {
            strFile += *p;
        } else {
            char szCode[4];
            std::snprintf(szCode, sizeof(szCode), "%%%02X",
                          static_cast<unsigned>(static_cast<unsigned char>(*p)));
            strFile += szCode;
        }
    }
    return strFile;
}

// Who may make files in the folder may use the lock, whoever made it.
mode_t RightsLikeFolder(int nFolder) {
    struct stat status {};
    mode_t nRights = 0600;
    if (::fstat(nFolder, &status) == 0) {
        nRights |= (status.st_mode & S_IWGRP) != 0 ? 0060 : 0;
        nRights |= (status.st_mode & S_IWOTH) != 0 ? 0006 : 0;
    }
    return nRights;
}

CDescriptor OpenLockFile(const char* lpName) {
    constexpr int FLAGS = O_RDWR | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC;
    const CDescriptor folder = OpenDeviceFolder(FolderUse::MakeIfMissing);
    if (!folder) {
        // Without a folder there is no device, and nobody to share the lock with.
        return CDescriptor(errno == ENOENT ? ::memfd_create(lpName, MFD_CLOEXEC) : -1);
    }
    const int nFolder = folder.Get();
    const std::string strFile = FileNameOfLock(lpName);
    CDescriptor file(::openat(nFolder, strFile.c_str(), FLAGS));
    if (!file && errno == ENOENT) {
        file = CDescriptor(::openat(nFolder, strFile.c_str(), FLAGS | O_CREAT | O_EXCL, 0600));
        if (file) {
            ::fchmod(file.Get(), RightsLikeFolder(nFolder));
        } else if (errno == EEXIST) {
            file = CDescriptor(::openat(nFolder, strFile.c_str(), FLAGS));
        }
    }
    return file;
}

enum class Existence { New, Existed, Failed };

// Makes the open file one of those that have the lock open.
Existence EnterExistence(int nFile) {
    int nError = TryFileLock(nFile, EXISTENCE_BYTE, F_WRLCK);
    if (nError != 0 && nError != EAGAIN) {
        SetLastErrorFromErrno(nError);
        return Existence::Failed;
    }
    const Existence existence = nError == 0 ? Existence::New : Existence::Existed;
    // Another process is between these same two steps at worst, unless it has been frozen there.
    for (int nTries = 0; nTries < 100 && !RefuseWhenStopping(); ++nTries) {
        nError = TryFileLock(nFile, EXISTENCE_BYTE, F_RDLCK);
        if (nError == 0) {
            return existence;
        }
        Sleep(1);
    }
    SetLastError(ERROR_SHARING_VIOLATION);
    return Existence::Failed;
}

// The lock that this process has open on the same file already.
std::shared_ptr<CLock> FindOpenLock(CNamedLocks& locks, const FILEIDENTITY& identity) {
    std::erase_if(locks.m_locks, [](const auto& pLock) { return pLock.expired(); });
    for (const auto& pWeak : locks.m_locks) {
        auto pLock = pWeak.lock();
        if (pLock != nullptr && pLock->IsOf(identity) && pLock->AddUser()) {
            return pLock;
        }
    }
    return nullptr;
}

HANDLE AddLockHandle(const std::shared_ptr<CLock>& pLock) {
    HANDLE hLock = AddHandle(pLock);
    if (hLock == nullptr) {
        pLock->HandleClosed();
    }
    return hLock;
}

HANDLE OpenNamedLock(const char* lpName, bool& bExisted) {
    CNamedLocks& locks = NamedLocks();
    const std::lock_guard hold(locks.m_mutex);
    CDescriptor file = OpenLockFile(lpName);
    struct stat status {};
    if (!file || ::fstat(file.Get(), &status) != 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const FILEIDENTITY identity{status.st_dev, status.st_ino};
    if (const auto pLock = FindOpenLock(locks, identity)) {
        bExisted = true;
        return AddLockHandle(pLock);
    }
    const Existence existence = EnterExistence(file.Get());
    if (existence == Existence::Failed) {
        return nullptr;
    }
    bExisted = existence == Existence::Existed;
    const auto pLock = std::make_shared<CLock>(std::move(file), identity);
    locks.m_locks.emplace_back(pLock);
    return AddLockHandle(pLock);
}

} // namespace

std::mutex& NamedLockMutex() {
    return NamedLocks().m_mutex;
}

} // namespace platform::posix

namespace platform {

using posix::CLock;

HANDLE CreateMutexA(_SECURITY_ATTRIBUTES* /*lpMutexAttributes*/, BOOL bInitialOwner,
                    const char* lpName) {
    return posix::WithMemory<HANDLE>(nullptr, [&]() -> HANDLE {
        bool bExisted = false;
        HANDLE hLock = lpName == nullptr ? posix::AddLockHandle(std::make_shared<CLock>())
                                         : posix::OpenNamedLock(lpName, bExisted);
        if (hLock == nullptr) {
            return nullptr;
        }
        if (bInitialOwner != FALSE && !bExisted) {
            WaitForSingleObject(hLock, 0);
        }
        posix::SetLastError(bExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
        return hLock;
    });
}

BOOL ReleaseMutex(HANDLE hMutex) {
    const auto pLock = posix::FindObject<CLock>(hMutex);
    return pLock == nullptr ? FALSE : pLock->Release();
}

} // namespace platform
