#include "agent/posix/attachment.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace agent {

static constexpr char s_szInterfaceClass[] = "{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}";
static constexpr std::size_t s_dwMaxName = 64;

static std::string Variable(const char* lpszName) {
    const char* lpszValue = std::getenv(lpszName);
    return lpszValue ? lpszValue : "";
}

static std::string Reason(const std::string& strPath) {
    return strPath + ": " + std::strerror(errno);
}

// The folder, made if it is missing, its last component only.
static CFd OpenMadeFolder(int fdAt, const std::string& strPath, int nFlags) {
    if (::mkdirat(fdAt, strPath.c_str(), 0700) != 0 && errno != EEXIST) {
        return CFd();
    }
    return CFd(::openat(fdAt, strPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | nFlags));
}

// In a folder that everybody may write to, ours must be ours: not a link, and closed to others.
static CFd OpenOwnFolder(const std::string& strPath, std::string& strError) {
    CFd fd = OpenMadeFolder(AT_FDCWD, strPath, O_NOFOLLOW);
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0) {
        strError = Reason(strPath);
        return CFd();
    }
    if (status.st_uid != ::geteuid() || (status.st_mode & 0077) != 0) {
        strError = strPath + " belongs to somebody else or is open to others";
        return CFd();
    }
    return fd;
}

static CFd OpenDeviceFolder(std::string& strPath, std::string& strError) {
    CFd fd;
    if (!Variable("DAK_DEVICE_DIR").empty()) {
        strPath = Variable("DAK_DEVICE_DIR");
        fd = OpenMadeFolder(AT_FDCWD, strPath, 0);
    } else if (!Variable("XDG_RUNTIME_DIR").empty()) {
        strPath = Variable("XDG_RUNTIME_DIR") + "/dak";
        fd = OpenMadeFolder(AT_FDCWD, strPath, 0);
    } else {
        strPath = "/tmp/dak-" + std::to_string(::geteuid());
        fd = OpenOwnFolder(strPath, strError);
        if (!fd) {
            return CFd();
        }
    }
    if (fd) {
        fd = OpenMadeFolder(fd.Get(), s_szInterfaceClass, O_NOFOLLOW);
        strPath = strPath + "/" + s_szInterfaceClass;
    }
    if (!fd) {
        strError = Reason(strPath);
    }
    return fd;
}

bool CAttachment::JudgeName(const std::string& strName, std::string& strError) {
    if (!strName.empty() && strName.size() <= s_dwMaxName && strName.front() != '.' &&
        !strName.ends_with(".lock") && std::all_of(strName.begin(), strName.end(), [](char c) {
            return static_cast<unsigned char>(c) > 0x20 && c != 0x7F && c != '/' && c != '\\';
        })) {
        return true;
    }
    strError = "\"" + strName + "\" is no name for a device: at most " +
               std::to_string(s_dwMaxName) +
               " characters, no blanks or separators, no dot ahead, not \".lock\" behind";
    return false;
}

std::unique_ptr<CAttachment> CAttachment::Attach(const std::string& strName,
                                                 std::string& strError) {
    if (!JudgeName(strName, strError)) {
        return nullptr;
    }
    std::unique_ptr<CAttachment> pAttachment(new CAttachment);
    pAttachment->m_strName = strName;
    pAttachment->m_fdFolder = OpenDeviceFolder(pAttachment->m_strPath, strError);
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
// lock counts only if the file still has its name.
bool CAttachment::Lock(std::string& strError) {
    const std::string strLock = m_strName + ".lock";
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
            m_fdLock = std::move(fd);
            return true;
        }
    }
    strError = Reason(m_strPath + ".lock");
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
        ::unlinkat(m_fdFolder.Get(), (m_strName + ".lock").c_str(), 0);
    }
}

} // namespace agent
