#include "agent/posix/format.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace agent {

// Lists of a fresh folder: what is to be removed for it, and what could not be.
static constexpr char s_szList[] = ".list";
static constexpr char s_szLeft[] = ".left";

// How long a format writes down what there is, and how long it looks for room on a disk that has
// none even for that: its host waits for half a second.
static constexpr std::chrono::milliseconds s_takeIn{200};
static constexpr std::chrono::milliseconds s_makeRoom{100};
static constexpr int s_nStepsAtStart = 1000;
// What is moved up while a host may call at any moment; more waits for the next start.
static constexpr std::size_t s_nMostMovedUp = 1000;

static constexpr int s_nFolder = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

static std::string FreshName(unsigned nNumber) {
    return std::string(RESERVED_PREFIX) + std::to_string(nNumber);
}

// 0 for a name that is not the agent's.
static unsigned NumberOf(std::string_view strName) {
    if (!strName.starts_with(RESERVED_PREFIX)) {
        return 0;
    }
    strName.remove_prefix(RESERVED_PREFIX.size());
    unsigned nNumber = 0;
    const auto [lpEnd, eError] =
        std::from_chars(strName.data(), strName.data() + strName.size(), nNumber);
    return eError == std::errc() && lpEnd == strName.data() + strName.size() ? nNumber : 0;
}

// All names, or one more than the most: a host may wait.
static std::vector<std::string>
NamesIn(int fdFolder, std::size_t nMost = std::numeric_limits<std::size_t>::max()) {
    std::vector<std::string> names;
    CDirectory directory(CFd(::openat(fdFolder, ".", O_RDONLY | s_nFolder)));
    while (const dirent* pEntry =
               directory.Open() && names.size() <= nMost ? directory.Next() : nullptr) {
        names.emplace_back(pEntry->d_name);
    }
    return names;
}

// The number of the newest fresh folder, 0 for none.
static unsigned NewestIn(int fdMarker) {
    unsigned nNewest = 0;
    for (const std::string& strName : NamesIn(fdMarker)) {
        nNewest = std::max(nNewest, NumberOf(strName));
    }
    return nNewest;
}

// The lists in a marker, but for those of one fresh folder.
static void DropListsBut(int fdMarker, const std::string& strFresh) {
    for (const std::string& strName : NamesIn(fdMarker)) {
        if (CFormats::IsList(strName) &&
            (strFresh.empty() || !strName.starts_with(strFresh + "."))) {
            ::unlinkat(fdMarker, strName.c_str(), 0);
        }
    }
}

static void DropMarker(int fdFolder, int fdMarker) {
    DropListsBut(fdMarker, {});
    ::unlinkat(fdMarker, CRemoval::LIFTED, AT_REMOVEDIR);
    ::unlinkat(fdFolder, FORMAT_FOLDER, AT_REMOVEDIR);
}

// A file system that knows no locks keeps nobody away.
static bool Lock(int fd) {
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Nothing that is there is replaced.
static bool RenameTo(int fdTo, int fdFrom, const char* lpszName) {
    if (::renameat2(fdFrom, lpszName, fdTo, lpszName, RENAME_NOREPLACE) == 0) {
        return true;
    }
    struct stat status {};
    return (errno == EINVAL || errno == ENOSYS) &&
           ::fstatat(fdTo, lpszName, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT &&
           ::renameat(fdFrom, lpszName, fdTo, lpszName) == 0;
}

// To change its parent a folder must be writable. It gets its permissions back.
static bool MoveEntry(int fdFrom, int fdTo, const char* lpszName) {
    struct stat status {};
    if (RenameTo(fdTo, fdFrom, lpszName)) {
        return true;
    }
    if (errno != EACCES || ::fstatat(fdFrom, lpszName, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(status.st_mode) ||
        ::fchmodat(fdFrom, lpszName, (status.st_mode & 07777) | 0700, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const bool bMoved = RenameTo(fdTo, fdFrom, lpszName);
    // The owner, who could change it before.
    static_cast<void>(
        ::fchmodat(bMoved ? fdTo : fdFrom, lpszName, status.st_mode & 07777, AT_SYMLINK_NOFOLLOW));
    return bMoved;
}

// The names that could be moved, of those wanted.
static std::vector<std::string> MoveEntries(int fdFrom, int fdTo,
                                            const std::vector<std::string>& names) {
    std::vector<std::string> moved;
    std::copy_if(names.begin(), names.end(), std::back_inserter(moved),
                 [&](const auto& strName) { return MoveEntry(fdFrom, fdTo, strName.c_str()); });
    return moved;
}

bool CFormats::IsList(std::string_view strName) {
    return strName.starts_with(RESERVED_PREFIX) &&
           (strName.ends_with(s_szList) || strName.ends_with(s_szLeft));
}

CFormats::CFormats(CRoom& room, std::function<void(const std::string&)> lpLog)
    : m_room(room), m_lpLog(std::move(lpLog)) {}

void CFormats::Log(const std::string& strLine) const {
    if (m_lpLog) {
        m_lpLog(strLine);
    }
}

void CFormats::Serve(CFd& fdView) {
    CFd fdFolder(::openat(fdView.Get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    m_served.push_back(std::make_unique<CServed>(
        CServed{fdView, std::move(fdFolder), CFd(), CFd(), std::string()}));
}

std::vector<int> CFormats::Folders() const {
    std::vector<int> folders;
    for (const auto& pServed : m_served) {
        folders.push_back(pServed->fdFolder.Get());
    }
    return folders;
}

// Nothing when the path does not lie below the folder.
static std::optional<std::string_view> RestBelow(std::string_view strPath,
                                                 std::string_view strFolder) {
    if (!strPath.starts_with(strFolder)) {
        return std::nullopt;
    }
    strPath.remove_prefix(strFolder.size());
    if (!strFolder.ends_with('/') && !strPath.starts_with('/')) {
        return std::nullopt;
    }
    return strPath;
}

bool CFormats::ShowsFile(int fdFile) const {
    const std::string strFile = PathOf(fdFile);
    if (strFile.empty()) {
        return true;
    }
    const CServed* pInnermost = nullptr;
    std::size_t dwLongest = 0;
    for (const auto& pServed : m_served) {
        const std::string strFolder = PathOf(pServed->fdFolder.Get());
        if (strFolder.size() > dwLongest && RestBelow(strFile, strFolder)) {
            pInnermost = pServed.get();
            dwLongest = strFolder.size();
        }
    }
    if (!pInnermost) {
        return false;
    }
    std::optional<std::string_view> strRest = RestBelow(strFile, PathOf(pInnermost->fdView.Get()));
    while (strRest && !strRest->empty() && !IsReserved(*strRest)) {
        strRest->remove_prefix(std::min(strRest->find('/'), strRest->size() - 1) + 1);
    }
    return strRest && strRest->empty();
}

CSpared CFormats::OthersThan(const CServed& served) const {
    CSpared spared;
    for (const auto& pOther : m_served) {
        if (pOther.get() != &served) {
            spared.Add(pOther->fdFolder.Get(), served.fdFolder.Get());
        }
    }
    return spared;
}

// A full disk may have no room for the folder that stands for its emptiness: then the removal
// begins ahead of it.
bool CFormats::MakeRoomFor(const CServed& served, const CFormatList& old, Clock::time_point tEnd,
                           const std::function<bool()>& make) const {
    std::unique_ptr<CRemoval> pRemoval;
    while (!make()) {
        if (errno != ENOSPC && errno != EDQUOT) {
            return false;
        }
        if (!pRemoval) {
            pRemoval = std::make_unique<CRemoval>(served.fdFolder.Get(), old.Entries(),
                                                  OthersThan(served), -1, m_room);
        }
        const std::uint64_t qwBefore = pRemoval->Removed();
        while (pRemoval->Removed() == qwBefore) {
            if (Clock::now() >= tEnd || !pRemoval->Step()) {
                return false;
            }
        }
    }
    return true;
}

bool CFormats::MakeMarker(CServed& served) const {
    const int fdFolder = served.fdFolder.Get();
    const auto open = [fdFolder] {
        return CFd(::openat(fdFolder, FORMAT_FOLDER, O_RDONLY | s_nFolder));
    };
    served.fdMarker = open();
    if (!served.fdMarker && errno == ENOENT && ::mkdirat(fdFolder, FORMAT_FOLDER, 0700) == 0) {
        served.fdMarker = open();
    }
    if (served.fdMarker && !Lock(served.fdMarker.Get())) {
        served.fdMarker.Close(); // another agent formats the same folder
        errno = EBUSY;
    }
    return static_cast<bool>(served.fdMarker);
}

// What lay in the folder, and what earlier formats have in the marker.
CFormatList CFormats::ListOf(const CServed& served, const CFormatList& old) {
    CFormatList list = old;
    for (const std::string& strName : NamesIn(served.fdMarker.Get())) {
        if (!CFormats::IsList(strName) && strName != CRemoval::LIFTED) {
            list.Add(std::string(FORMAT_FOLDER) + "/" + strName);
        }
    }
    list.Add(std::string(FORMAT_FOLDER) + "/" + CRemoval::LIFTED);
    return list;
}

bool CFormats::TurnTo(CServed& served, const std::string& strFresh) {
    CFd fdFresh(::openat(served.fdMarker.Get(), strFresh.c_str(), O_RDONLY | s_nFolder));
    CFd fdView(::openat(served.fdMarker.Get(), strFresh.c_str(), O_PATH | s_nFolder));
    if (!fdFresh || !fdView) {
        return false;
    }
    served.fdFresh = std::move(fdFresh);
    served.fdView = std::move(fdView);
    served.strFresh = strFresh;
    return true;
}

void CFormats::BeginRemoval(CServed& served, CFormatList list) const {
    served.bAwaitsIdle = false;
    served.pRemoval.reset(); // it goes by the list
    served.list = std::move(list);
    served.pRemoval = std::make_unique<CRemoval>(served.fdFolder.Get(), served.list.Entries(),
                                                 OthersThan(served), served.fdMarker.Get(), m_room);
}

// The list is made in slices; what follows takes no longer however much there is.
class CFormats::CFormat final : public CFolderWork {
  public:
    CFormat(CFormats& formats, CServed& served)
        : m_formats(formats), m_served(served),
          m_listing(served.fdFolder.Get(), formats.OthersThan(served), Clock::now() + s_takeIn) {}

    std::optional<EResult> Step(CWorkSlice slice) override {
        if (m_listing.Step(slice)) {
            return std::nullopt;
        }
        return m_formats.Format(m_served, m_listing.list) ? EResult::SUCCESS : EResult::REFUSED;
    }

  private:
    CFormats& m_formats;
    CServed& m_served;
    CFormatListing m_listing;
};

std::unique_ptr<CFolderWork> CFormats::Begin(const CFd& fdView) {
    const auto itServed = std::find_if(m_served.begin(), m_served.end(),
                                       [&](const auto& p) { return &p->fdView == &fdView; });
    return itServed != m_served.end() && MayBeFormatted(**itServed)
               ? std::make_unique<CFormat>(*this, **itServed)
               : nullptr;
}

bool CFormats::MayBeFormatted(const CServed& served) const {
    struct stat status {};
    return ::fstat(served.fdFolder.Get(), &status) == 0 && !IsReadOnly(status) &&
           !OthersThan(served).IsSpared(IdentityOf(served.fdFolder.Get()));
}

bool CFormats::Format(CServed& served, const CFormatList& old) {
    struct stat status {};
    if (::fstat(served.fdFolder.Get(), &status) != 0) {
        return false;
    }
    const auto tEnd = Clock::now() + s_makeRoom;
    const auto make = [&](const std::function<bool()>& lpMake) {
        return MakeRoomFor(served, old, tEnd, lpMake);
    };
    if (!served.fdMarker && !make([&] { return MakeMarker(served); })) {
        return false;
    }
    const int fdMarker = served.fdMarker.Get();
    const std::string strFresh = FreshName(NewestIn(fdMarker) + 1);
    CFormatList list = ListOf(served, old);
    // With the fresh folder the format is made. The umask has no say: the folder is to look as it
    // did.
    if (make([&] { return list.Store(fdMarker, strFresh + s_szList); }) &&
        make([&] { return ::mkdirat(fdMarker, strFresh.c_str(), status.st_mode & 0777) == 0; }) &&
        ::fchmodat(fdMarker, strFresh.c_str(), status.st_mode & 07777, 0) == 0 &&
        TurnTo(served, strFresh)) {
        DropListsBut(fdMarker, strFresh);
        BeginRemoval(served, std::move(list));
        return true;
    }
    ::unlinkat(fdMarker, strFresh.c_str(), AT_REMOVEDIR);
    ::unlinkat(fdMarker, (strFresh + s_szList).c_str(), 0);
    if (served.strFresh.empty()) {
        DropMarker(served.fdFolder.Get(), fdMarker);
        served.fdMarker.Close();
    }
    return false;
}

void CFormats::TakeUp(bool bMayRemove) {
    for (const auto& pServed : m_served) {
        if (!TakeUpView(*pServed)) {
            continue;
        }
        TakeUpRemoval(*pServed, bMayRemove);
        for (int i = 0; i < s_nStepsAtStart && pServed->pRemoval; ++i) {
            StepRemoval(*pServed);
        }
        if (std::exchange(pServed->bAwaitsIdle, false)) {
            MoveUp(*pServed, std::numeric_limits<std::size_t>::max());
        }
    }
}

// False when the folder is its own view.
bool CFormats::TakeUpView(CServed& served) {
    const int fdFolder = served.fdFolder.Get();
    served.fdMarker = CFd(::openat(fdFolder, FORMAT_FOLDER, O_RDONLY | s_nFolder));
    if (!served.fdMarker) {
        FinishMovingUp(served);
        return false;
    }
    const bool bOurs = Lock(served.fdMarker.Get());
    const unsigned nNewest = bOurs ? NewestIn(served.fdMarker.Get()) : 0;
    if (nNewest != 0 && TurnTo(served, FreshName(nNewest))) {
        DropListsBut(served.fdMarker.Get(), served.strFresh);
        return true;
    }
    if (bOurs && nNewest == 0) { // killed before it was made
        DropMarker(fdFolder, served.fdMarker.Get());
    }
    served.fdMarker.Close();
    return false;
}

void CFormats::TakeUpRemoval(CServed& served, bool bMayRemove) const {
    const int fdMarker = served.fdMarker.Get();
    const std::string strLeft = served.strFresh + s_szLeft;
    CFormatList list;
    if (list.Load(fdMarker, served.strFresh + s_szList)) {
        if (bMayRemove) {
            Log("going on with a format that an agent before has begun");
            BeginRemoval(served, std::move(list));
        } else {
            Log("what a format has not removed yet stays, out of sight: formats are not allowed");
        }
    } else if (!list.Load(fdMarker, strLeft) || list.AllGone(served.fdFolder.Get())) {
        ::unlinkat(fdMarker, strLeft.c_str(), 0);
        served.bAwaitsIdle = true;
    }
}

// What was killed while it moved up.
void CFormats::FinishMovingUp(const CServed& served) const {
    const int fdFolder = served.fdFolder.Get();
    const CFd fdFormatted(::openat(fdFolder, FORMATTED_FOLDER, O_RDONLY | s_nFolder));
    if (!fdFormatted || !Lock(fdFormatted.Get())) {
        return;
    }
    for (const std::string& strName : NamesIn(fdFormatted.Get())) {
        if (NumberOf(strName) == 0) {
            continue;
        }
        const CFd fdFresh(::openat(fdFormatted.Get(), strName.c_str(), O_RDONLY | s_nFolder));
        if (fdFresh) {
            MoveEntries(fdFresh.Get(), fdFolder, NamesIn(fdFresh.Get()));
        }
        if (::unlinkat(fdFormatted.Get(), strName.c_str(), AT_REMOVEDIR) != 0) {
            Log(std::string("not everything could be moved up from ") + FORMATTED_FOLDER);
        }
    }
    ::unlinkat(fdFolder, FORMATTED_FOLDER, AT_REMOVEDIR);
}

bool CFormats::HasWork(bool bIdle) const {
    return std::any_of(m_served.begin(), m_served.end(), [bIdle](const auto& pServed) {
        return pServed->pRemoval || (bIdle && pServed->bAwaitsIdle);
    });
}

void CFormats::Work(bool bIdle, CWorkSlice& slice) {
    for (const auto& pServed : m_served) {
        for (; pServed->pRemoval && !slice.Over() && !m_room.Busy(); slice.Spend()) {
            StepRemoval(*pServed);
        }
        if (bIdle && std::exchange(pServed->bAwaitsIdle, false)) {
            MoveUp(*pServed, s_nMostMovedUp);
        }
    }
}

void CFormats::StepRemoval(CServed& served) const {
    if (served.pRemoval->Step()) {
        return;
    }
    const bool bAll = served.pRemoval->Complete() && served.list.Whole();
    Log("format: removed " + std::to_string(served.pRemoval->Removed()) + " entries" +
        (bAll ? "" : "; what cannot be removed stays out of sight"));
    const int fdMarker = served.fdMarker.Get();
    const std::string strList = served.strFresh + s_szList;
    if (bAll) {
        ::unlinkat(fdMarker, strList.c_str(), 0);
    } else {
        ::renameat(fdMarker, strList.c_str(), fdMarker, (served.strFresh + s_szLeft).c_str());
    }
    served.bAwaitsIdle = bAll;
    served.pRemoval.reset();
    served.list = {};
}

// What is spared may bear the name of something new; then the view stays where it is.
bool CFormats::MayMoveUp(const CServed& served, std::size_t nMost) const {
    const std::vector<std::string> names = NamesIn(served.fdFresh.Get(), nMost);
    return names.size() <= nMost &&
           std::all_of(names.begin(), names.end(), [&served](const std::string& strName) {
               struct stat status {};
               return ::fstatat(served.fdFolder.Get(), strName.c_str(), &status,
                                AT_SYMLINK_NOFOLLOW) != 0 &&
                      errno == ENOENT;
           });
}

void CFormats::MoveUp(CServed& served, std::size_t nMost) {
    const int fdFolder = served.fdFolder.Get();
    CFd fdView(::openat(fdFolder, ".", O_PATH | s_nFolder));
    if (!fdView || !MayMoveUp(served, nMost) ||
        ::renameat(fdFolder, FORMAT_FOLDER, fdFolder, FORMATTED_FOLDER) != 0) {
        return;
    }
    const std::vector<std::string> names = NamesIn(served.fdFresh.Get());
    const std::vector<std::string> moved = MoveEntries(served.fdFresh.Get(), fdFolder, names);
    if (moved.size() != names.size()) {
        // The host goes on seeing all of it where it was.
        MoveEntries(fdFolder, served.fdFresh.Get(), moved);
        ::renameat(fdFolder, FORMATTED_FOLDER, fdFolder, FORMAT_FOLDER);
        Log(std::string("not everything could be moved up from ") + FORMAT_FOLDER);
        return;
    }
    ::unlinkat(served.fdMarker.Get(), served.strFresh.c_str(), AT_REMOVEDIR);
    ::unlinkat(fdFolder, FORMATTED_FOLDER, AT_REMOVEDIR);
    served.fdView = std::move(fdView);
    served.fdFresh.Close();
    served.fdMarker.Close();
    served.strFresh.clear();
}

} // namespace agent
