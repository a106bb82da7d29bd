// The room of the device's files: what the quota counts of it, and how the disk gets it back.
//
// The system frees the blocks of a file when its last name and its last descriptor are gone, and
// that takes it up to a second for some GiB. So a large file is held on to while its name goes, and
// a thread lets go of it. The thread touches nothing but the descriptors that it is given.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "agent/posix/system_file.h"
#include "agent/quota.h"

namespace agent {

// A file that is emptied.
struct CEmptying {
    std::atomic<std::optional<EResult>> eResult{}; // nothing while it goes on beside the agent
    std::uint64_t qwBytes = 0; // that the quota still counts; nothing of the thread's
};
using Emptying = std::shared_ptr<CEmptying>;

class CRoom final : public CQuota {
  public:
    CRoom() = default;
    // Waits until the thread is done.
    ~CRoom();
    CRoom(const CRoom&) = delete;
    CRoom& operator=(const CRoom&) = delete;

    // Removes an entry that looks like status. False with errno set.
    bool Unlink(int fdFolder, const char* lpszName, const struct stat& status);

    // For an entry whose name something else takes: Hold ahead of that, Lost behind it.
    static CFd Hold(int fdFolder, const char* lpszName, const struct stat& status);
    void Lost(const struct stat& status, CFd fdHeld);

    // Closes a descriptor that may be a file's last.
    void Close(CFd fd);

    // Empties a file that is open for writing, a large one beside the agent. The quota counts
    // qwBytes of it until Emptied tells of success.
    Emptying Empty(int fd, std::uint64_t qwBytes);

    // Nothing while it goes on.
    std::optional<EResult> Emptied(const Emptying& emptying);

    // Nobody waits for it any more: the file keeps its bytes, but where the thread is at it. May be
    // null, or over.
    void GiveUp(const Emptying& emptying);

    // Whether the thread has so much to do that work in the background should wait.
    bool Busy() const;

    // Whether the host's work must wait too: it could fill the queue, or write to a file that the
    // thread is still emptying for a host that has gone, and that would take the bytes away again.
    bool MustWait();

  private:
    struct CJob {
        CFd fd;            // is closed behind it
        Emptying emptying; // null when the file is to be closed and no more
    };

    bool Give(CJob& job);
    void Run();

    Emptying m_givenUp; // when the thread had begun with it

    mutable std::mutex m_mutex; // for what follows
    std::condition_variable m_more;
    std::deque<CJob> m_jobs;
    bool m_bEnds = false;
    std::thread m_thread; // runs from the first job on
};

} // namespace agent
