#include "agent/posix/device_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace agent {

bool CFileShares::Allows(const CUse& use) const {
    return std::all_of(m_uses.begin(), m_uses.end(), [&](const CUse& other) {
        return other.inode != use.inode || other.device != use.device ||
               ((other.bShareRead || !use.bReads) && (other.bShareWrite || !use.bWrites) &&
                (use.bShareRead || !other.bReads) && (use.bShareWrite || !other.bWrites));
    });
}

bool CFileShares::IsRead(const CUse& use) const {
    return std::any_of(m_uses.begin(), m_uses.end(), [&use](const CUse& other) {
        return other.inode == use.inode && other.device == use.device && other.bReads;
    });
}

// A file system that counts no links tells 0 for every file.
static bool IsGone(int fd, const struct stat& status) {
    return status.st_nlink == 0 && PathOf(fd).ends_with(" (deleted)");
}

void CFileShares::GiveBackRoom(CRoom& room) {
    for (CUse& use : m_uses) {
        struct stat status {};
        if (!room.Busy() && use.bWrites && !use.givenBack && !IsRead(use) &&
            ::fstat(use.fd, &status) == 0 && status.st_size > 0 && IsGone(use.fd, status)) {
            // Where this fails the last close does it.
            use.givenBack = room.Empty(use.fd, 0);
        }
    }
}

CPosixOpenFile::CPosixOpenFile(CFd fd, const COpenMode& mode, CFileShares& shares,
                               CFileShares::Entry entry, const CFormats& formats, CRoom& room,
                               Emptying emptying)
    : m_fd(std::move(fd)), m_bRead(mode.bRead), m_bWrite(mode.bWrite), m_shares(shares),
      m_entry(entry), m_formats(formats), m_room(room), m_emptying(std::move(emptying)) {}

CPosixOpenFile::~CPosixOpenFile() {
    m_room.GiveUp(m_emptying);
    m_shares.Leave(m_entry);
}

std::optional<COpenFile::CState> CPosixOpenFile::StateForReading() const {
    struct stat status {};
    if (!m_bRead || ::fstat(m_fd.Get(), &status) != 0) {
        return std::nullopt;
    }
    return CState{static_cast<std::uint64_t>(status.st_size),
                  static_cast<std::uint64_t>(status.st_mtim.tv_sec) * 1'000'000'000 +
                      static_cast<std::uint64_t>(status.st_mtim.tv_nsec)};
}

std::size_t CPosixOpenFile::Read(std::uint64_t qwAt, std::span<std::uint8_t> data) {
    return ReadAt(m_fd.Get(), qwAt, data);
}

// What is written to a file that has no name, or lies where the host cannot see it any more, would
// be gone with its handle.
EResult CPosixOpenFile::JudgeWrite(std::uint64_t qwEnd) const {
    struct stat status {};
    if (!m_bWrite || ::fstat(m_fd.Get(), &status) != 0 || status.st_nlink == 0 ||
        !m_formats.ShowsFile(m_fd.Get())) {
        return EResult::REFUSED;
    }
    const auto qwSize = static_cast<std::uint64_t>(status.st_size);
    return qwEnd <= qwSize || m_room.HasRoom(qwEnd - qwSize) ? EResult::SUCCESS : EResult::NO_SPACE;
}

EResult CPosixOpenFile::Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) {
    const EResult eJudged = JudgeWrite(data.empty() ? 0 : qwAt + data.size());
    const std::optional<std::uint64_t> qwBefore = Size();
    if (eJudged != EResult::SUCCESS || !qwBefore) {
        return eJudged;
    }
    int nError = 0;
    for (std::size_t dwDone = 0; dwDone < data.size() && nError == 0;) {
        const ssize_t nWritten = ::pwrite(m_fd.Get(), data.data() + dwDone, data.size() - dwDone,
                                          static_cast<off_t>(qwAt + dwDone));
        if (nWritten > 0) {
            dwDone += static_cast<std::size_t>(nWritten);
        } else if (nWritten == 0 || errno != EINTR) {
            nError = nWritten == 0 ? EIO : errno;
        }
    }
    const std::uint64_t qwAfter = Size().value_or(*qwBefore);
    m_room.Add(qwAfter - std::min(qwAfter, *qwBefore));
    return nError == 0 ? EResult::SUCCESS : ResultOf(nError);
}

std::optional<std::uint64_t> CPosixOpenFile::Size() const {
    struct stat status {};
    if (::fstat(m_fd.Get(), &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

// A network file system tells a full disk only now. close() may not be called twice.
EResult CPosixOpenFile::Close() {
    CFd fdLast(::fcntl(m_fd.Get(), F_DUPFD_CLOEXEC, 0));
    const EResult eResult =
        ::close(m_fd.Release()) == 0 || errno == EINTR ? EResult::SUCCESS : ResultOf(errno);
    m_room.Close(std::move(fdLast));
    return eResult;
}

int FlagsFor(const COpenMode& mode) {
    const bool bChanges = mode.bWrite || mode.eExisting == COpenMode::EExisting::EMPTY;
    // Neither waits for the other end of a pipe nor becomes a terminal's owner.
    return (!bChanges    ? O_RDONLY
            : mode.bRead ? O_RDWR
                         : O_WRONLY) |
           O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
}

EResult TakeOpenFile(CFd fd, const COpenMode& mode, CFileShares& shares, const CFormats& formats,
                     CRoom& room, std::unique_ptr<COpenFile>& pFile) {
    Emptying emptying;
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return EResult::REFUSED;
    }
    const bool bEmpties = mode.eExisting == COpenMode::EExisting::EMPTY;
    CFileShares::CUse use{.device = status.st_dev,
                          .inode = status.st_ino,
                          .bReads = mode.bRead,
                          .bWrites = mode.bWrite || bEmpties,
                          .bShareRead = mode.bShareRead,
                          .bShareWrite = mode.bShareWrite,
                          .fd = fd.Get()};
    if ((use.bWrites && IsReadOnly(status)) || !shares.Allows(use)) {
        return EResult::REFUSED;
    }
    if (bEmpties) {
        emptying = room.Empty(fd.Get(), static_cast<std::uint64_t>(status.st_size));
        const EResult eEmptied = room.Emptied(emptying).value_or(EResult::SUCCESS);
        if (eEmptied != EResult::SUCCESS) {
            return eEmptied;
        }
    }
    use.bWrites = mode.bWrite; // nobody comes to the file before emptying is over
    pFile = std::make_unique<CPosixOpenFile>(std::move(fd), mode, shares, shares.Enter(use),
                                             formats, room, std::move(emptying));
    return EResult::SUCCESS;
}

} // namespace agent
