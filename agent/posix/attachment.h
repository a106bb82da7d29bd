// How the agent shows up on this system: a socket that listens and a locked file beside it, in the
// folder of the device interface class. As long as the lock is held the device counts as attached;
// a killed agent loses it at once, and what it left is replaced by the next one.
#pragma once

#include <memory>
#include <string>

#include "agent/posix/system_file.h"

namespace agent {

class CAttachment {
  public:
    // Whether a device can have this name; if not, strError says what a name is.
    static bool JudgeName(const std::string& strName, std::string& strError);

    // Attaches under strName. Null, and the reason in strError, when the name is no name for a
    // device, another agent has it, or the device folder is not to be trusted.
    static std::unique_ptr<CAttachment> Attach(const std::string& strName, std::string& strError);

    // Detaches: socket and lock file are gone before the lock is.
    ~CAttachment();
    CAttachment(const CAttachment&) = delete;
    CAttachment& operator=(const CAttachment&) = delete;

    // Listens, and does not block.
    int Socket() const { return m_fdSocket.Get(); }
    const std::string& Path() const { return m_strPath; }

  private:
    CAttachment() = default;
    bool Lock(std::string& strError);
    bool Listen(std::string& strError);

    std::string m_strName;
    std::string m_strPath;
    CFd m_fdFolder;
    CFd m_fdLock;
    CFd m_fdSocket;
};

} // namespace agent
