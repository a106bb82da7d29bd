#include "agent/posix/part_file.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

EResult JudgeTarget(int fdFolder, const std::string& strTarget) {
    struct stat status {};
    if (::fstatat(fdFolder, strTarget.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? EResult::SUCCESS : EResult::REFUSED;
    }
    const bool bReplaceable =
        S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && !IsReadOnly(status));
    return bReplaceable ? EResult::SUCCESS : EResult::REFUSED;
}

CPosixPartFile::CPosixPartFile(CFd fdFolder, CPartJournal& journal, std::string strTarget,
                               CRoom& room)
    : m_fdFolder(std::move(fdFolder)), m_journal(journal), m_strPart(journal.PartName()),
      m_strTarget(std::move(strTarget)), m_room(room),
      m_fd(::openat(m_fdFolder.Get(), m_strPart.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666)) {}

CPosixPartFile::~CPosixPartFile() {
    if (m_fd) {
        Remove();
    }
}

// A part that cannot be removed is left to the next agent, and counts.
void CPosixPartFile::Remove() {
    CFd fdHeld(::openat(m_fdFolder.Get(), m_strPart.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    m_fd.Close();
    if (::unlinkat(m_fdFolder.Get(), m_strPart.c_str(), 0) == 0 || errno == ENOENT) {
        m_room.Remove(m_qwWritten);
    } else {
        m_journal.Abandon();
    }
    m_room.Close(std::move(fdHeld));
}

EResult CPosixPartFile::Write(std::span<const std::uint8_t> data) {
    if (!m_room.HasRoom(data.size())) {
        return EResult::NO_SPACE;
    }
    m_room.Add(data.size());
    m_qwWritten += data.size();
    return WriteWhole(m_fd.Get(), data.data(), data.size()) ? EResult::SUCCESS : ResultOf(errno);
}

EResult CPosixPartFile::Complete(const CFileTimes& times) {
    struct stat folder {};
    if (::fstat(m_fdFolder.Get(), &folder) != 0 || IsReadOnly(folder) ||
        JudgeTarget(m_fdFolder.Get(), m_strTarget) != EResult::SUCCESS) {
        return EResult::REFUSED;
    }
    if (times.ftCreation != 0) {
        KeepCreationTime(m_fd.Get(), times.ftCreation);
    }
    struct stat old {};
    const bool bOld =
        ::fstatat(m_fdFolder.Get(), m_strTarget.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(old.st_mode);
    if (bOld) {
        // What the owner allows with the file, he allows with its next content. A system that
        // keeps no permissions has none to hand on.
        static_cast<void>(::fchmod(m_fd.Get(), old.st_mode & 0777));
    }
    // Behind the last write and all other changes, which would move it.
    if (times.ftLastWrite != 0) {
        timespec stamps[2] = {};
        stamps[0].tv_nsec = UTIME_OMIT;
        stamps[1] = TimeOf(times.ftLastWrite);
        // A time that the file system cannot hold is no failure of the contents.
        static_cast<void>(::futimens(m_fd.Get(), stamps));
    }
    CFd fdHeld = bOld ? CRoom::Hold(m_fdFolder.Get(), m_strTarget.c_str(), old) : CFd();
    // A network file system tells a full disk only now. close() may not be called twice, so the
    // descriptor is given up whatever it says.
    const int fd = m_fd.Release();
    if ((::close(fd) != 0 && errno != EINTR) ||
        ::renameat(m_fdFolder.Get(), m_strPart.c_str(), m_fdFolder.Get(), m_strTarget.c_str()) !=
            0) {
        const EResult eResult = ResultOf(errno);
        Remove();
        return eResult;
    }
    if (bOld) {
        m_room.Lost(old, std::move(fdHeld));
    }
    return EResult::SUCCESS;
}

} // namespace agent
