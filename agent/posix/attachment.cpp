#include "agent/posix/attachment.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/posix/device_place.h"

namespace agent {

static std::string Reason(const std::string& strPath) {
    return strPath + ": " + std::strerror(errno);
}

// Opens a folder by open, and makes it first where it is missing, but not what lies above.
template <class TOpen>
static CFd OpenMadeFolder(int fdAt, const std::string& strPath, TOpen open) {
    if (::mkdirat(fdAt, strPath.c_str(), 0700) != 0 && errno != EEXIST) {
        return CFd();
    }
    return CFd(open());
}

// The folder of the interface class in the device folder.
static CFd OpenClassFolder(std::string& strPath, std::string& strError) {
    const device_place::FOLDERCHOICE choice = device_place::ChooseFolder();
    strPath = choice.strPath;
    const CFd fdDevices =
        OpenMadeFolder(AT_FDCWD, choice.strPath, [&] { return device_place::OpenFolder(choice); });
    CFd fd;
    if (fdDevices) {
        strPath = strPath + "/" + device_place::CLASS_FOLDER;
        fd = OpenMadeFolder(fdDevices.Get(), device_place::CLASS_FOLDER, [&] {
            return ::openat(fdDevices.Get(), device_place::CLASS_FOLDER,
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        });
    }
    if (!fd) {
        strError = errno == EACCES && choice.bByDefault
                       ? strPath + " belongs to somebody else or is open to others"
                       : Reason(strPath);
    }
    return fd;
}

// What tells this agent from every other, for as long as it runs.
static const std::string& Identity() {
    static const std::string strIdentity = [] {
        std::random_device random;
        std::string strWords;
        for (int i = 0; i < 4; ++i) {
            strWords += std::to_string(random()) + (i < 3 ? "-" : "\n");
        }
        return strWords;
    }();
    return strIdentity;
}

bool CAttachment::JudgeName(const std::string& strName, std::string& strError) {
    if (device_place::IsName(strName)) {
        return true;
    }
    strError = "\"" + strName + "\" is no name for a device: at most " +
               std::to_string(device_place::MAX_NAME) +
               " characters, no blanks or separators, no dot ahead, not \"" +
               device_place::LOCK_SUFFIX + "\" behind";
    return false;
}

std::unique_ptr<CAttachment> CAttachment::Attach(const std::string& strName,
                                                 std::string& strError) {
    if (!JudgeName(strName, strError)) {
        return nullptr;
    }
    std::unique_ptr<CAttachment> pAttachment(new CAttachment);
    pAttachment->m_strName = strName;
    pAttachment->m_fdFolder = OpenClassFolder(pAttachment->m_strPath, strError);
    if (!pAttachment->m_fdFolder) {
        return nullptr;
    }
    pAttachment->m_strPath += "/" + strName;
    if (!pAttachment->Lock(strError) || !pAttachment->Listen(strError)) {
        return nullptr;
    }
    return pAttachment;
}

// The agent that had the file before may have removed it between our opening and our locking: a
// lock counts only if the file still has its name. It says who has it before there is a socket.
bool CAttachment::Lock(std::string& strError) {
    const std::string strLock = m_strName + device_place::LOCK_SUFFIX;
    for (int nTry = 0; nTry < 100; ++nTry) {
        CFd fd(::openat(m_fdFolder.Get(), strLock.c_str(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd) {
            break;
        }
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (::fcntl(fd.Get(), F_OFD_SETLK, &lock) != 0) {
            if (errno == EAGAIN || errno == EACCES) {
                strError = "another agent is attached as " + m_strName;
                return false;
            }
            break;
        }
        struct stat held {};
        struct stat named {};
        if (::fstat(fd.Get(), &held) == 0 &&
            ::fstatat(m_fdFolder.Get(), strLock.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
            held.st_ino == named.st_ino && held.st_dev == named.st_dev) {
            if (::ftruncate(fd.Get(), 0) != 0 ||
                !WriteWhole(fd.Get(), Identity().data(), Identity().size())) {
                break;
            }
            m_fdLock = std::move(fd);
            return true;
        }
    }
    strError = Reason(m_strPath + device_place::LOCK_SUFFIX);
    return false;
}

// The path of a socket may have 107 bytes only, so it is reached through the open folder.
bool CAttachment::Listen(std::string& strError) {
    if (::unlinkat(m_fdFolder.Get(), m_strName.c_str(), 0) != 0 && errno != ENOENT) {
        strError = Reason(m_strPath);
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string strShort =
        "/proc/self/fd/" + std::to_string(m_fdFolder.Get()) + "/" + m_strName;
    std::copy_n(strShort.c_str(), std::min(strShort.size(), sizeof(address.sun_path) - 1),
                address.sun_path);
    CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const mode_t mode = ::umask(0177);
    // The system's own signature takes the general kind of address.
    const bool bBound =
        fd && ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::umask(mode);
    if (!bBound || ::listen(fd.Get(), 16) != 0) {
        strError = Reason(m_strPath);
        if (bBound) {
            ::unlinkat(m_fdFolder.Get(), m_strName.c_str(), 0);
        }
        return false;
    }
    m_fdSocket = std::move(fd);
    return true;
}

CAttachment::~CAttachment() {
    if (m_fdSocket) {
        ::unlinkat(m_fdFolder.Get(), m_strName.c_str(), 0);
    }
    if (m_fdLock) {
        ::unlinkat(m_fdFolder.Get(), (m_strName + device_place::LOCK_SUFFIX).c_str(), 0);
    }
}

} // namespace agent
