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

// Of work that goes on beside the agent: nothing as long as it does.
using Outcome = std::shared_ptr<std::atomic<std::optional<EResult>>>;

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

    // Empties a file that is open for writing; the quota knows of it already. Nothing when that
    // goes on beside the agent, and then outcome tells of it.
    std::optional<EResult> Empty(int fd, Outcome& outcome);

    // Whether the thread has so much to do that whoever can wait should.
    bool Busy() const;

  private:
    struct CJob {
        CFd fd;          // is closed behind it
        Outcome outcome; // of emptying the file; null when it is to be closed and no more
    };

    bool Give(CJob& job);
    void Run();

    mutable std::mutex m_mutex; // for what follows
    std::condition_variable m_more;
    std::deque<CJob> m_jobs;
    bool m_bEnds = false;
    std::thread m_thread; // runs from the first job on
};

} // namespace agent
