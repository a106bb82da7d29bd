#include "cli/host_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace cli {
namespace {

std::error_code LastError() {
    return {errno, std::generic_category()};
}

} // namespace

CHeldFile::CHeldFile(const std::filesystem::path& path, How eHow) {
    constexpr int nFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const int nFile = open(path.c_str(), nFlags | (eHow == How::New ? O_CREAT | O_EXCL : 0), 0600);
    if (nFile >= 0 && flock(nFile, LOCK_EX | LOCK_NB) == 0) {
        m_nHandle = nFile;
    } else if (nFile >= 0) {
        close(nFile);
    }
}

CHeldFile::~CHeldFile() {
    if (Held()) {
        close(static_cast<int>(m_nHandle));
    }
}

bool CHeldFile::IsAt(const std::filesystem::path& path) const {
    struct stat own = {};
    struct stat there = {};
    return fstat(static_cast<int>(m_nHandle), &own) == 0 && lstat(path.c_str(), &there) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

CShortPath::CShortPath(const std::filesystem::path& folder)
    : m_strText(folder.native()),
      m_nFolder(open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
    const std::string strNumber = "/dev/fd/" + std::to_string(m_nFolder);
    struct stat own = {};
    struct stat there = {};
    // Not every system that serves a program has these names.
    if (m_nFolder >= 0 && strNumber.size() < m_strText.size() && fstat(m_nFolder, &own) == 0 &&
        stat(strNumber.c_str(), &there) == 0 && own.st_dev == there.st_dev &&
        own.st_ino == there.st_ino) {
        m_strText = strNumber;
    }
}

CShortPath::~CShortPath() {
    if (m_nFolder >= 0) {
        close(m_nFolder);
    }
}

std::error_code MakeOwnFolder(const std::filesystem::path& path) {
    return mkdir(path.c_str(), 0700) == 0 ? std::error_code() : LastError();
}

bool IsOwnFolder(const std::filesystem::path& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == geteuid();
}

std::error_code MoveOver(const std::filesystem::path& from, const std::filesystem::path& to) {
    struct stat status = {};
    if (lstat(to.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        // Where the file system has no permissions to set, there are none to take over. What a
        // program may do as somebody else was given to the old bytes alone.
        static_cast<void>(chmod(from.c_str(), (status.st_mode & 0777) | S_IWUSR));
    }
    return rename(from.c_str(), to.c_str()) == 0 ? std::error_code() : LastError();
}

} // namespace cli
