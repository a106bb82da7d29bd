// The device's folder on a POSIX file system.
#include "agent/device_folder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "agent/posix/device_file.h"
#include "agent/posix/directory.h"
#include "agent/posix/folder_scan.h"
#include "agent/posix/folder_work.h"
#include "agent/posix/format.h"
#include "agent/posix/part_file.h"
#include "agent/posix/part_journal.h"
#include "agent/posix/room.h"
#include "agent/posix/system_file.h"
#include "agent/posix/trash.h"

namespace agent {

namespace {

// Which file it is, and which content it has.
std::uint64_t ContentOf(const struct stat& status) {
    const std::array<std::uint64_t, 5> parts = {static_cast<std::uint64_t>(status.st_dev),
                                                static_cast<std::uint64_t>(status.st_ino),
                                                static_cast<std::uint64_t>(status.st_size),
                                                static_cast<std::uint64_t>(status.st_mtim.tv_sec),
                                                static_cast<std::uint64_t>(status.st_mtim.tv_nsec)};
    std::uint64_t qwContent = 1;
    for (const std::uint64_t qwPart : parts) {
        qwContent = (qwContent ^ qwPart) * 0x9E3779B97F4A7C15ULL;
        qwContent ^= qwContent >> 29;
    }
    return qwContent;
}

class CPosixSourceFile final : public CSourceFile {
  public:
    CPosixSourceFile(CFd fd, CRoom& room) : m_fd(std::move(fd)), m_room(room) {}

    ~CPosixSourceFile() override { m_room.Close(std::move(m_fd)); }

    std::size_t Read(std::span<std::uint8_t> data) override {
        const std::size_t dwRead = ReadAt(m_fd.Get(), m_qwAt, data);
        m_qwAt += dwRead;
        return dwRead;
    }

    std::optional<std::uint64_t> Identity() const override {
        struct stat status {};
        return ::fstat(m_fd.Get(), &status) == 0 ? std::optional(ContentOf(status)) : std::nullopt;
    }

  private:
    CFd m_fd;
    CRoom& m_room;
    std::uint64_t m_qwAt = 0;
};

// Opening for reading without waiting for the other end of a pipe or becoming a terminal's owner.
constexpr int s_nReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY;

class CPosixFolder final : public CDeviceFolder {
  public:
    CPosixFolder(CFd fdRoot, std::function<void(const std::string&)> lpLog)
        : m_fdRoot(std::move(fdRoot)), m_lpLog(std::move(lpLog)), m_formats(m_room, m_lpLog),
          m_journal(m_fdRoot.Get()), m_trash(m_fdRoot.Get(), m_journal.Identity(), m_room) {
        m_formats.Serve(m_fdRoot);
    }

    bool AddStorage(const std::string& strName, const std::string& strFolder,
                    std::string& strError) override;
    void SetQuota(std::uint64_t qwBytes) override;
    std::optional<CEntryInfo> Find(const CDevicePath& path) override;
    std::optional<CEntryInfo> Describe(const CDevicePath& path) override;
    std::unique_ptr<CFolderScan> Scan(const CDevicePath& path) override;
    std::unique_ptr<CFolderWork> BeginCopy(const CDevicePath& source, const CDevicePath& target,
                                           bool bFailIfExists) override;
    std::unique_ptr<CFolderWork> BeginMove(const CDevicePath& source,
                                           const CDevicePath& target) override;
    std::unique_ptr<CSourceFile> OpenSource(const CDevicePath& path) override;
    CFd OpenProgram(const CDevicePath& path) override { return Open(path, O_PATH); }
    EResult OpenFile(const CDevicePath& path, const COpenMode& mode,
                     std::unique_ptr<COpenFile>& pFile) override;
    EResult BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                      std::unique_ptr<CPartFile>& pPart) override;
    void EndParts() override;
    EResult MakeFolder(const CDevicePath& path) override;
    EResult Remove(const CDevicePath& path) override;
    void RemoveLeftovers(bool bMayFormat) override;
    std::optional<CSpace> SpaceOf(const CDevicePath& folder) override;
    std::vector<std::string> StorageNames() const override;
    std::unique_ptr<CFolderWork> BeginFormat(const CDevicePath& storage) override;
    bool MustWait() override { return m_room.MustWait(); }
    bool HasWork(bool bIdle) const override;
    void Work(bool bIdle, CWorkSlice slice) override;

  private:
    // The descriptors of the root and the storages lead to what the host sees as them, which a
    // format turns to another folder.
    struct CStorage {
        std::string strName;
        CFd fd;
        std::unique_ptr<CPartJournal> pJournal;
        std::unique_ptr<CTrash> pTrash;
    };

    bool IsFixed(const CDevicePath& path) const;
    bool IsServed(const struct stat& folder) const;
    const CStorage* StorageOf(const CDevicePath& path) const;
    static std::string RestIn(const CStorage* lpStorage, const CDevicePath& path);
    CTrash& TrashFor(const CDevicePath& path);
    CPartJournal& JournalFor(const CDevicePath& path);
    void RemoveParts(CPartJournal& journal, const CFd& fdView, CTrash& trash);
    CPlace PlaceOf(const CDevicePath& path);
    static std::optional<CEntryInfo> InfoOf(const CFd& fd);
    CFd Open(const CDevicePath& path, int nFlags) const;
    CFd OpenMaking(const CDevicePath& folder);
    CFd MakeFile(const CDevicePath& path, int nFlags) const;
    std::uint64_t CountBytes(CFd fdFolder) const;

    CFd m_fdRoot;
    std::function<void(const std::string&)> m_lpLog;
    std::deque<CStorage> m_storages; // they do not move
    CRoom m_room;                    // outlives those who use it
    CFormats m_formats;
    CFileShares m_shares;
    CPartJournal m_journal;
    CTrash m_trash;
};

// The root and the storages themselves.
bool CPosixFolder::IsFixed(const CDevicePath& path) const {
    return path.IsRoot() ||
           (path.Parent().IsRoot() &&
            std::any_of(m_storages.begin(), m_storages.end(),
                        [&](const CStorage& s) { return s.strName == path.Leaf(); }));
}

// The same whatever its path is: a storage's folder may lie below the root.
bool CPosixFolder::IsServed(const struct stat& folder) const {
    const std::vector<int> served = m_formats.Folders();
    return std::any_of(served.begin(), served.end(), [&folder](int fdServed) {
        return IdentityOf(fdServed) == FolderIdentity(folder.st_dev, folder.st_ino);
    });
}

// Null for a path of the root's own.
const CPosixFolder::CStorage* CPosixFolder::StorageOf(const CDevicePath& path) const {
    const auto it = std::find_if(m_storages.begin(), m_storages.end(), [&](const CStorage& s) {
        return s.strName == path.FirstComponent();
    });
    return it == m_storages.end() ? nullptr : &*it;
}

// The path below the root or the storage.
std::string CPosixFolder::RestIn(const CStorage* lpStorage, const CDevicePath& path) {
    const std::string& strPath = path.Text();
    return lpStorage ? strPath.substr(std::min(strPath.size(), lpStorage->strName.size() + 1))
                     : strPath;
}

CFd CPosixFolder::Open(const CDevicePath& path, int nFlags) const {
    const CStorage* lpStorage = StorageOf(path);
    return OpenBelow(lpStorage ? lpStorage->fd.Get() : m_fdRoot.Get(), RestIn(lpStorage, path),
                     nFlags);
}

// The folder, made with all that is missing ahead of it. The depth is bounded by the length that
// the system allows a path, which the first try meets.
CFd CPosixFolder::OpenMaking(const CDevicePath& folder) {
    CFd fd = Open(folder, O_PATH | O_DIRECTORY);
    if (fd || errno != ENOENT || folder.IsRoot()) {
        return fd;
    }
    const CFd fdParent = OpenMaking(folder.Parent());
    if (!fdParent) {
        return CFd();
    }
    if (::mkdirat(fdParent.Get(), std::string(folder.Leaf()).c_str(), 0777) != 0 &&
        errno != EEXIST) {
        return CFd();
    }
    return Open(folder, O_PATH | O_DIRECTORY);
}

bool CPosixFolder::AddStorage(const std::string& strName, const std::string& strFolder,
                              std::string& strError) {
    const std::optional<std::u16string> strWide = ToUtf16(strName);
    const std::optional<CDevicePath> path =
        strWide ? CDevicePath::Parse(*strWide) : std::optional<CDevicePath>();
    if (!path || path->Text() != strName || strName.find('/') != std::string::npos ||
        strName.empty() || IsFixed(*path) || strWide->size() > MAX_STORAGE_NAME) {
        strError = "\"" + strName + "\" cannot be the name of a storage";
        return false;
    }
    CFd fd(::open(strFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        strError = strFolder + ": " + std::strerror(errno);
        return false;
    }
    auto pJournal = std::make_unique<CPartJournal>(fd.Get());
    auto pTrash = std::make_unique<CTrash>(fd.Get(), pJournal->Identity(), m_room);
    m_storages.push_back({strName, std::move(fd), std::move(pJournal), std::move(pTrash)});
    m_formats.Serve(m_storages.back().fd);
    return true;
}

// Without the folders below it that are served themselves, and counted for themselves. One folder
// is open at a time, however deep they lie: the way back up is by "..", as long as that leads to
// where the way down came from.
std::uint64_t CPosixFolder::CountBytes(CFd fdFolder) const {
    struct CLevel {
        FolderIdentity identity;
        std::vector<std::string> folders; // still to be counted
    };
    std::uint64_t qwBytes = 0;
    std::vector<CLevel> levels;
    const auto enter = [&] {
        levels.push_back({IdentityOf(fdFolder.Get()), {}});
        CDirectory directory(OpenBelow(fdFolder.Get(), "", O_RDONLY | O_DIRECTORY));
        while (const dirent* pEntry = directory.Open() ? directory.Next() : nullptr) {
            struct stat status {};
            if (::fstatat(directory.Fd(), pEntry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;
            }
            if (S_ISREG(status.st_mode) && !CFormats::IsList(pEntry->d_name)) {
                qwBytes += static_cast<std::uint64_t>(status.st_size);
            } else if (S_ISDIR(status.st_mode) && !IsServed(status)) {
                levels.back().folders.emplace_back(pEntry->d_name);
            }
        }
    };
    constexpr int nFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    for (enter(); !levels.empty();) {
        if (!levels.back().folders.empty()) {
            CFd fdNext(::openat(fdFolder.Get(), levels.back().folders.back().c_str(), nFlags));
            levels.back().folders.pop_back();
            if (fdNext) {
                fdFolder = std::move(fdNext);
                enter();
            }
            continue;
        }
        levels.pop_back();
        fdFolder = CFd(::openat(fdFolder.Get(), "..", nFlags));
        if (!levels.empty() && IdentityOf(fdFolder.Get()) != levels.back().identity) {
            break;
        }
    }
    return qwBytes;
}

void CPosixFolder::SetQuota(std::uint64_t qwBytes) {
    std::uint64_t qwUsed = 0;
    for (const int fdFolder : m_formats.Folders()) {
        qwUsed += CountBytes(OpenBelow(fdFolder, "", O_RDONLY | O_DIRECTORY));
    }
    m_room.Set(qwBytes, qwUsed);
}

std::optional<CEntryInfo> CPosixFolder::Find(const CDevicePath& path) {
    return InfoOf(Open(path, s_nReadFlags));
}

std::optional<CEntryInfo> CPosixFolder::Describe(const CDevicePath& path) {
    CFd fd = Open(path, s_nReadFlags);
    if (!fd && errno == EACCES) {
        fd = Open(path, O_PATH);
    }
    return InfoOf(fd);
}

std::optional<CEntryInfo> CPosixFolder::InfoOf(const CFd& fd) {
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0 ||
        (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))) {
        return std::nullopt;
    }
    CEntryInfo info;
    info.bFolder = S_ISDIR(status.st_mode);
    info.bReadOnly = IsReadOnly(status);
    info.qwSize = info.bFolder ? 0 : static_cast<std::uint64_t>(status.st_size);
    info.times = TimesOf(fd.Get(), status);
    info.ftLastAccess = FileTimeOf(status.st_atim);
    info.qwIdentity = ContentOf(status);
    return info;
}

std::unique_ptr<CFolderScan> CPosixFolder::Scan(const CDevicePath& path) {
    std::vector<std::string> storages;
    for (const CStorage& storage : m_storages) {
        if (path.IsRoot()) {
            storages.push_back(storage.strName);
        }
    }
    return MakeScan(Open(path, O_RDONLY | O_DIRECTORY), path, std::move(storages),
                    [this](const CDevicePath& entry, int nFlags) { return Open(entry, nFlags); });
}

CPlace CPosixFolder::PlaceOf(const CDevicePath& path) {
    const CDevicePath folder = path.Parent();
    return {Open(folder, O_PATH | O_DIRECTORY), RestIn(StorageOf(path), folder),
            std::string(path.Leaf()), &TrashFor(path), &JournalFor(path)};
}

std::unique_ptr<CFolderWork>
CPosixFolder::BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) {
    return IsFixed(target) ? nullptr
                           : MakeCopy(Open(source, s_nReadFlags), PlaceOf(target), bFailIfExists,
                                      {m_room, m_formats.Folders()});
}

std::unique_ptr<CFolderWork> CPosixFolder::BeginMove(const CDevicePath& source,
                                                     const CDevicePath& target) {
    return IsFixed(source) || IsFixed(target)
               ? nullptr
               : MakeMove(Open(source, s_nReadFlags), PlaceOf(source), PlaceOf(target),
                          {m_room, m_formats.Folders()});
}

std::unique_ptr<CSourceFile> CPosixFolder::OpenSource(const CDevicePath& path) {
    CFd fd = Open(path, s_nReadFlags);
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return nullptr;
    }
    return std::make_unique<CPosixSourceFile>(std::move(fd), m_room);
}

// A file that is not there yet, also not as a link.
CFd CPosixFolder::MakeFile(const CDevicePath& path, int nFlags) const {
    const CFd fdParent = Open(path.Parent(), O_PATH | O_DIRECTORY);
    struct stat status {};
    if (!fdParent || ::fstat(fdParent.Get(), &status) != 0) {
        return CFd();
    }
    if (IsReadOnly(status)) {
        errno = EACCES;
        return CFd();
    }
    return CFd(::openat(fdParent.Get(), std::string(path.Leaf()).c_str(),
                        nFlags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
}

EResult CPosixFolder::OpenFile(const CDevicePath& path, const COpenMode& mode,
                               std::unique_ptr<COpenFile>& pFile) {
    if (IsFixed(path)) {
        return EResult::REFUSED;
    }
    m_shares.GiveBackRoom(m_room); // also of what copies have replaced
    CFd fd;
    errno = ENOENT;
    if (mode.eExisting != COpenMode::EExisting::REFUSE) {
        fd = Open(path, FlagsFor(mode));
    }
    if (!fd && errno == ENOENT && mode.eMissing == COpenMode::EMissing::MAKE) {
        fd = MakeFile(path, FlagsFor(mode));
    }
    return fd ? TakeOpenFile(std::move(fd), mode, m_shares, m_formats, m_room, pFile)
              : ResultOf(errno);
}

EResult CPosixFolder::BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                                std::unique_ptr<CPartFile>& pPart) {
    if (IsFixed(path)) {
        return EResult::REFUSED;
    }
    if (!m_room.HasRoom(qwSize)) {
        return EResult::NO_SPACE;
    }
    const CDevicePath folder = path.Parent();
    CFd fdFolder = OpenMaking(folder);
    struct stat status {};
    if (!fdFolder || ::fstat(fdFolder.Get(), &status) != 0) {
        return ResultOf(errno);
    }
    const std::string strTarget(path.Leaf());
    if (IsReadOnly(status) || JudgeTarget(fdFolder.Get(), strTarget) != EResult::SUCCESS) {
        return EResult::REFUSED;
    }
    CPartJournal& journal = JournalFor(path);
    if (!journal.Enter(RestIn(StorageOf(path), folder))) {
        return ResultOf(errno);
    }
    auto pFile = std::make_unique<CPosixPartFile>(std::move(fdFolder), journal, strTarget, m_room);
    if (!pFile->Open()) {
        return ResultOf(errno);
    }
    pPart = std::move(pFile);
    return EResult::SUCCESS;
}

void CPosixFolder::EndParts() {
    m_journal.Clear();
    for (const CStorage& storage : m_storages) {
        storage.pJournal->Clear();
    }
    m_shares.GiveBackRoom(m_room);
}

EResult CPosixFolder::MakeFolder(const CDevicePath& path) {
    if (IsFixed(path)) {
        return EResult::REFUSED;
    }
    const CFd fdParent = Open(path.Parent(), O_PATH | O_DIRECTORY);
    if (!fdParent || ::mkdirat(fdParent.Get(), std::string(path.Leaf()).c_str(), 0777) != 0) {
        return ResultOf(errno);
    }
    return EResult::SUCCESS;
}

EResult CPosixFolder::Remove(const CDevicePath& path) {
    if (IsFixed(path)) {
        return EResult::REFUSED;
    }
    const std::string strLeaf(path.Leaf());
    const CFd fdParent = Open(path.Parent(), O_PATH | O_DIRECTORY);
    struct stat status {};
    if (!fdParent ||
        ::fstatat(fdParent.Get(), strLeaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return EResult::REFUSED;
    }
    const bool bAllowed = S_ISREG(status.st_mode)   ? !IsReadOnly(status)
                          : S_ISDIR(status.st_mode) ? !IsServed(status)
                                                    : S_ISLNK(status.st_mode);
    if (!bAllowed) {
        return EResult::REFUSED;
    }
    if (!m_room.Unlink(fdParent.Get(), strLeaf.c_str(), status)) {
        return EResult::REFUSED;
    }
    m_shares.GiveBackRoom(m_room);
    return EResult::SUCCESS;
}

void CPosixFolder::RemoveLeftovers(bool bMayFormat) {
    m_formats.TakeUp(bMayFormat);
    RemoveParts(m_journal, m_fdRoot, m_trash);
    m_trash.Adopt();
    for (const CStorage& storage : m_storages) {
        RemoveParts(*storage.pJournal, storage.fd, *storage.pTrash);
        storage.pTrash->Adopt();
    }
}

void CPosixFolder::RemoveParts(CPartJournal& journal, const CFd& fdView, CTrash& trash) {
    journal.CleanUp([&](const std::string& strFolder, const std::string& strPart) {
        const std::optional<std::u16string> strWide = ToUtf16(strFolder);
        const std::optional<CDevicePath> folder =
            strWide ? CDevicePath::Parse(*strWide) : std::optional<CDevicePath>();
        errno = ENOENT; // what is no path leads nowhere
        const CFd fd =
            folder ? OpenBelow(fdView.Get(), folder->Text(), O_PATH | O_DIRECTORY) : CFd();
        const bool bRemoved = fd && (::unlinkat(fd.Get(), strPart.c_str(), 0) == 0 ||
                                     trash.TakeIn(fd.Get(), strPart));
        const bool bGone = bRemoved || errno == ENOENT;
        if (bRemoved && m_lpLog) {
            m_lpLog("removed a part file that a killed agent left in \\" + strFolder);
        }
        return bGone;
    });
}

// Those on the file system of the path.
CTrash& CPosixFolder::TrashFor(const CDevicePath& path) {
    const CStorage* lpStorage = StorageOf(path);
    return lpStorage ? *lpStorage->pTrash : m_trash;
}

CPartJournal& CPosixFolder::JournalFor(const CDevicePath& path) {
    const CStorage* lpStorage = StorageOf(path);
    return lpStorage ? *lpStorage->pJournal : m_journal;
}

bool CPosixFolder::HasWork(bool bIdle) const {
    return m_formats.HasWork(bIdle) || !m_trash.Empty() ||
           std::any_of(m_storages.begin(), m_storages.end(),
                       [](const CStorage& storage) { return !storage.pTrash->Empty(); });
}

void CPosixFolder::Work(bool bIdle, CWorkSlice slice) {
    const auto work = [&](CTrash& trash) {
        for (; !trash.Empty() && !slice.Over() && !m_room.Busy(); slice.Spend()) {
            trash.Step();
        }
    };
    m_formats.Work(bIdle, slice);
    work(m_trash);
    for (const CStorage& storage : m_storages) {
        work(*storage.pTrash);
    }
    m_shares.GiveBackRoom(m_room);
}

std::optional<CSpace> CPosixFolder::SpaceOf(const CDevicePath& folder) {
    const CFd fd = Open(folder, O_PATH | O_DIRECTORY);
    struct statvfs status {};
    if (!fd || ::fstatvfs(fd.Get(), &status) != 0) {
        return std::nullopt;
    }
    return m_room.Bound({std::uint64_t{status.f_blocks} * status.f_frsize,
                         std::uint64_t{status.f_bavail} * status.f_frsize});
}

std::vector<std::string> CPosixFolder::StorageNames() const {
    std::vector<std::string> names;
    for (const CStorage& storage : m_storages) {
        names.push_back(storage.strName);
    }
    return names;
}

std::unique_ptr<CFolderWork> CPosixFolder::BeginFormat(const CDevicePath& storage) {
    const CStorage* lpStorage = StorageOf(storage);
    return storage.IsRoot()                                  ? m_formats.Begin(m_fdRoot)
           : lpStorage && RestIn(lpStorage, storage).empty() ? m_formats.Begin(lpStorage->fd)
                                                             : nullptr;
}

} // namespace

std::unique_ptr<CDeviceFolder> CDeviceFolder::Open(const std::string& strRoot,
                                                   std::function<void(const std::string&)> lpLog,
                                                   std::string& strError) {
    CFd fd(::open(strRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        strError = strRoot + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::make_unique<CPosixFolder>(std::move(fd), std::move(lpLog));
}

} // namespace agent
