#include "agent/posix/folder_work.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "agent/posix/part_file.h"
#include "agent/posix/tree_copy.h"

namespace agent {

namespace {

bool SameEntry(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether fdFolder is the folder or lies in it. By identity: a path through a link, or in other
// letters, can hide it. Also true when that cannot be told.
bool LiesIn(int fdFolder, const struct stat& folder) {
    struct stat at {};
    CFd fdAt(::openat(fdFolder, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (int nDepth = 0; nDepth < PATH_MAX && fdAt && ::fstat(fdAt.Get(), &at) == 0; ++nDepth) {
        if (SameEntry(at, folder)) {
            return true;
        }
        CFd fdParent(::openat(fdAt.Get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat parent {};
        if (fdParent && ::fstat(fdParent.Get(), &parent) == 0 && SameEntry(at, parent)) {
            return false; // the root of the system
        }
        fdAt = std::move(fdParent);
    }
    return true;
}

// Whether taking the folder away would take the root or a storage along.
bool HoldsServed(const CFolderParts& parts, const struct stat& entry) {
    return S_ISDIR(entry.st_mode) &&
           std::any_of(parts.served.begin(), parts.served.end(),
                       [&](int fdServed) { return LiesIn(fdServed, entry); });
}

bool LookUp(const CPlace& place, struct stat& status) {
    return ::fstatat(place.fdFolder.Get(), place.strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) ==
           0;
}

// To a name that is free. A file system that does not know the question is asked in two steps.
bool RenameToFree(int fdFrom, const std::string& strFrom, const CPlace& target) {
    if (::renameat2(fdFrom, strFrom.c_str(), target.fdFolder.Get(), target.strName.c_str(),
                    RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    struct stat status {};
    if (LookUp(target, status)) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(fdFrom, strFrom.c_str(), target.fdFolder.Get(), target.strName.c_str()) == 0;
}

// Takes away a file at once, a folder by way of the trash.
bool TakeAway(const CPlace& place, const std::string& strName, const struct stat& status,
              CRoom& room) {
    if (S_ISDIR(status.st_mode)) {
        return place.lpTrash->TakeIn(place.fdFolder.Get(), strName);
    }
    return room.Unlink(place.fdFolder.Get(), strName.c_str(), status);
}

class CCopyWork final : public CFolderWork {
  public:
    CCopyWork(CFd fdSource, const struct stat& source, CPlace target, bool bFailIfExists,
              bool bMove, const CFolderParts& parts)
        : m_source(source), m_target(std::move(target)), m_bFailIfExists(bFailIfExists),
          m_parts(parts), m_fdSource(::fcntl(fdSource.Get(), F_DUPFD_CLOEXEC, 0)),
          m_copy(std::move(fdSource), source, m_target.fdFolder.Get(),
                 m_target.lpJournal->PartName(), bMove, parts.room) {}

    // Nothing is left of a copy that is not done, and the target is as it was.
    ~CCopyWork() override {
        if (m_bBegun && RemovePart()) {
            m_target.lpJournal->Clear();
        } else if (m_bBegun) {
            m_target.lpJournal->Abandon();
        }
    }

    std::optional<EResult> Step(CWorkSlice slice) override {
        if (!m_bBegun) {
            const EResult eJudged = Judge();
            if (eJudged != EResult::SUCCESS) {
                return eJudged;
            }
            if (!m_target.lpJournal->Enter(m_target.strFolder)) {
                return ResultOf(errno);
            }
            m_bBegun = true;
        }
        const std::optional<EResult> eResult = m_copy.Step(std::move(slice));
        return eResult == EResult::SUCCESS ? Commit() : eResult;
    }

    const CPlace& Target() const { return m_target; }

  private:
    EResult Judge();
    EResult Commit();
    bool RemovePart();

    const struct stat m_source;
    const CPlace m_target;
    const bool m_bFailIfExists;
    const CFolderParts m_parts;
    const CFd m_fdSource; // for the questions that need a folder
    CTreeCopy m_copy;
    bool m_bBegun = false;
};

// Whether the copy may take the target's name.
EResult CCopyWork::Judge() {
    struct stat folder {};
    struct stat old {};
    if (::fstat(m_target.fdFolder.Get(), &folder) != 0 || IsReadOnly(folder) ||
        (m_copy.IsFolder() && LiesIn(m_target.fdFolder.Get(), m_source))) {
        return EResult::REFUSED;
    }
    if (!LookUp(m_target, old)) {
        return errno == ENOENT ? EResult::SUCCESS : EResult::REFUSED;
    }
    if (m_bFailIfExists || SameEntry(old, m_source)) {
        return EResult::REFUSED;
    }
    if (!m_copy.IsFolder()) {
        return JudgeTarget(m_target.fdFolder.Get(), m_target.strName);
    }
    // Only a folder takes a folder's place, and not one that holds the source.
    return S_ISDIR(old.st_mode) && !LiesIn(m_fdSource.Get(), old) && !HoldsServed(m_parts, old)
               ? EResult::SUCCESS
               : EResult::REFUSED;
}

EResult CCopyWork::Commit() {
    const int fd = m_target.fdFolder.Get();
    const std::string& strPart = m_target.lpJournal->PartName();
    const EResult eJudged = Judge();
    struct stat old {};
    if (eJudged != EResult::SUCCESS) {
        return eJudged;
    }
    if (!LookUp(m_target, old)) {
        return RenameToFree(fd, strPart, m_target) ? EResult::SUCCESS : ResultOf(errno);
    }
    if (S_ISREG(old.st_mode)) {
        // As with a file that the host brings: what the owner allows with the file, he allows with
        // its next content. A system that keeps no permissions has none to hand on.
        static_cast<void>(::fchmodat(fd, strPart.c_str(), old.st_mode & 0777, AT_SYMLINK_NOFOLLOW));
    }
    CFd fdHeld = CRoom::Hold(fd, m_target.strName.c_str(), old);
    // Of folders the two change places, and what is then the part is the old one.
    if (::renameat2(fd, strPart.c_str(), fd, m_target.strName.c_str(),
                    m_copy.IsFolder() ? RENAME_EXCHANGE : 0) != 0) {
        return ResultOf(errno);
    }
    m_parts.room.Lost(old, std::move(fdHeld));
    return EResult::SUCCESS;
}

// False when the part is still there.
bool CCopyWork::RemovePart() {
    m_copy.Stop();
    struct stat part {};
    const int fd = m_target.fdFolder.Get();
    const std::string& strPart = m_target.lpJournal->PartName();
    if (::fstatat(fd, strPart.c_str(), &part, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    return TakeAway(m_target, strPart, part, m_parts.room);
}

class CMoveWork final : public CFolderWork {
  public:
    CMoveWork(CFd fdSource, CPlace source, CPlace target, const CFolderParts& parts)
        : m_fdSource(std::move(fdSource)), m_source(std::move(source)), m_target(std::move(target)),
          m_parts(parts) {}

    std::optional<EResult> Step(CWorkSlice slice) override;

  private:
    bool Judge(const struct stat& source) const;
    bool MayBeTakenAway(const struct stat& source) const;
    EResult MoveLink() const;
    EResult RemoveSource() const;

    CFd m_fdSource;
    const CPlace m_source;
    CPlace m_target;
    const CFolderParts m_parts;
    std::unique_ptr<CCopyWork> m_pCopy; // to another file system
    struct stat m_copied {};            // the source when the copy began
};

std::optional<EResult> CMoveWork::Step(CWorkSlice slice) {
    if (m_pCopy) {
        const std::optional<EResult> eResult = m_pCopy->Step(std::move(slice));
        return eResult == EResult::SUCCESS ? RemoveSource() : eResult;
    }
    struct stat source {};
    if (!LookUp(m_source, source) || !Judge(source)) {
        return EResult::REFUSED;
    }
    if (RenameToFree(m_source.fdFolder.Get(), m_source.strName, m_target)) {
        return EResult::SUCCESS;
    }
    // The same entry under a name that differs in letters alone, where those do not count.
    struct stat target {};
    if (errno == EEXIST && m_source.strName != m_target.strName && LookUp(m_target, target) &&
        SameEntry(source, target) && (S_ISDIR(source.st_mode) || source.st_nlink == 1) &&
        ::renameat(m_source.fdFolder.Get(), m_source.strName.c_str(), m_target.fdFolder.Get(),
                   m_target.strName.c_str()) == 0) {
        return EResult::SUCCESS;
    }
    if (errno != EXDEV) {
        return ResultOf(errno);
    }
    if (S_ISLNK(source.st_mode)) {
        return MoveLink();
    }
    if (!MayBeTakenAway(source)) {
        return EResult::REFUSED;
    }
    m_copied = source;
    m_pCopy = std::make_unique<CCopyWork>(std::move(m_fdSource), source, std::move(m_target), true,
                                          true, m_parts);
    return std::nullopt;
}

bool CMoveWork::Judge(const struct stat& source) const {
    struct stat folder {};
    return (S_ISREG(source.st_mode) || S_ISDIR(source.st_mode) || S_ISLNK(source.st_mode)) &&
           !HoldsServed(m_parts, source) && ::fstat(m_target.fdFolder.Get(), &folder) == 0 &&
           !IsReadOnly(folder);
}

// Whether what is open is the source, and no mount holds it.
bool CMoveWork::MayBeTakenAway(const struct stat& source) const {
    struct stat opened {};
    struct stat folder {};
    return m_fdSource && ::fstat(m_fdSource.Get(), &opened) == 0 && SameEntry(opened, source) &&
           ::fstat(m_source.fdFolder.Get(), &folder) == 0 &&
           !IsMountPoint(m_fdSource.Get(), S_ISDIR(source.st_mode) ? folder.st_dev : source.st_dev);
}

EResult CMoveWork::MoveLink() const {
    std::array<char, PATH_MAX> text{};
    if (::readlinkat(m_source.fdFolder.Get(), m_source.strName.c_str(), text.data(),
                     text.size() - 1) < 0 ||
        ::symlinkat(text.data(), m_target.fdFolder.Get(), m_target.strName.c_str()) != 0) {
        return ResultOf(errno);
    }
    if (::unlinkat(m_source.fdFolder.Get(), m_source.strName.c_str(), 0) == 0) {
        return EResult::SUCCESS;
    }
    static_cast<void>(::unlinkat(m_target.fdFolder.Get(), m_target.strName.c_str(), 0));
    return EResult::REFUSED;
}

// The copy is whole and in its place. The source goes in one step; one that has been changed or
// cannot go stays as it is, and the copy is taken back, so that a move that is refused has changed
// nothing.
EResult CMoveWork::RemoveSource() const {
    struct stat status {};
    if (LookUp(m_source, status) && SameEntry(status, m_copied) && SameContent(status, m_copied) &&
        TakeAway(m_source, m_source.strName, status, m_parts.room)) {
        return EResult::SUCCESS;
    }
    const CPlace& target = m_pCopy->Target();
    if (LookUp(target, status)) {
        static_cast<void>(TakeAway(target, target.strName, status, m_parts.room));
    }
    return EResult::REFUSED;
}

} // namespace

std::unique_ptr<CFolderWork> MakeCopy(CFd fdSource, CPlace target, bool bFailIfExists,
                                      const CFolderParts& parts) {
    struct stat source {};
    if (!fdSource || !target.fdFolder || ::fstat(fdSource.Get(), &source) != 0 ||
        (!S_ISREG(source.st_mode) && !S_ISDIR(source.st_mode))) {
        return nullptr;
    }
    return std::make_unique<CCopyWork>(std::move(fdSource), source, std::move(target),
                                       bFailIfExists, false, parts);
}

std::unique_ptr<CFolderWork> MakeMove(CFd fdSource, CPlace source, CPlace target,
                                      const CFolderParts& parts) {
    if (!source.fdFolder || !target.fdFolder) {
        return nullptr;
    }
    return std::make_unique<CMoveWork>(std::move(fdSource), std::move(source), std::move(target),
                                       parts);
}

} // namespace agent
