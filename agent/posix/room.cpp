#include "agent/posix/room.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

// What is freed in a few milliseconds.
static constexpr std::uint64_t s_qwFreedAtOnce = std::uint64_t{16} << 20;

// Files that wait for the thread, each with a descriptor; and so many that it is busy. The host's
// work waits while as many more would be too many: a step of it, or its end, gives one or two.
static constexpr std::size_t s_nMostJobs = 64;
static constexpr std::size_t s_nBusy = 8;

static bool IsLarge(const struct stat& status) {
    return S_ISREG(status.st_mode) &&
           static_cast<std::uint64_t>(status.st_blocks) * 512 > s_qwFreedAtOnce;
}

static EResult EmptyNow(int fd) {
    return ::ftruncate(fd, 0) == 0 ? EResult::SUCCESS : ResultOf(errno);
}

CRoom::~CRoom() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bEnds = true;
    }
    m_more.notify_one();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

CFd CRoom::Hold(int fdFolder, const char* lpszName, const struct stat& status) {
    return status.st_nlink == 1 && IsLarge(status)
               ? CFd(::openat(fdFolder, lpszName, O_PATH | O_NOFOLLOW | O_CLOEXEC))
               : CFd();
}

void CRoom::Lost(const struct stat& status, CFd fdHeld) {
    if (S_ISREG(status.st_mode) && status.st_nlink == 1) {
        Remove(static_cast<std::uint64_t>(status.st_size));
    }
    Close(std::move(fdHeld));
}

bool CRoom::Unlink(int fdFolder, const char* lpszName, const struct stat& status) {
    CFd fdHeld = Hold(fdFolder, lpszName, status);
    if (::unlinkat(fdFolder, lpszName, S_ISDIR(status.st_mode) ? AT_REMOVEDIR : 0) != 0) {
        return false;
    }
    Lost(status, std::move(fdHeld));
    return true;
}

void CRoom::Close(CFd fd) {
    struct stat status {};
    if (fd && ::fstat(fd.Get(), &status) == 0 && status.st_nlink == 0 && IsLarge(status)) {
        CJob job{std::move(fd), nullptr};
        static_cast<void>(Give(job)); // else it is closed here
    }
}

Emptying CRoom::Empty(int fd, std::uint64_t qwBytes) {
    auto emptying = std::make_shared<CEmptying>();
    emptying->qwBytes = qwBytes;
    struct stat status {};
    CJob job{CFd(), emptying};
    if (::fstat(fd, &status) == 0 && IsLarge(status)) {
        job.fd = CFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    }
    if (!job.fd || !Give(job)) {
        emptying->eResult = EmptyNow(fd);
    }
    return emptying;
}

std::optional<EResult> CRoom::Emptied(const Emptying& emptying) {
    const std::optional<EResult> eResult = emptying->eResult;
    if (eResult == EResult::SUCCESS) {
        Remove(std::exchange(emptying->qwBytes, 0));
    }
    return eResult;
}

void CRoom::GiveUp(const Emptying& emptying) {
    if (!emptying || Emptied(emptying)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto itJob = std::find_if(m_jobs.begin(), m_jobs.end(),
                                    [&](const CJob& job) { return job.emptying == emptying; });
    if (itJob != m_jobs.end()) {
        itJob->emptying.reset();
    } else {
        m_givenUp = emptying; // the thread has taken it
    }
}

bool CRoom::Busy() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_jobs.size() >= s_nBusy;
}

bool CRoom::MustWait() {
    if (m_givenUp && Emptied(m_givenUp)) {
        m_givenUp.reset();
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_givenUp || m_jobs.size() >= s_nMostJobs - s_nBusy;
}

// False, and the job is the caller's still, when the thread cannot take it.
bool CRoom::Give(CJob& job) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    try {
        if (!m_thread.joinable()) {
            m_thread = std::thread([this] { Run(); });
        }
    } catch (const std::system_error&) {
        return false;
    }
    if (m_jobs.size() == s_nMostJobs) {
        return false;
    }
    m_jobs.push_back(std::move(job));
    m_more.notify_one();
    return true;
}

void CRoom::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_more.wait(lock, [this] { return m_bEnds || !m_jobs.empty(); });
        if (m_jobs.empty()) {
            return;
        }
        CJob job = std::move(m_jobs.front());
        lock.unlock();
        if (job.emptying) {
            job.emptying->eResult = EmptyNow(job.fd.Get());
        }
        job.fd.Close();
        lock.lock();
        m_jobs.pop_front(); // it counted until now
    }
}

} // namespace agent
