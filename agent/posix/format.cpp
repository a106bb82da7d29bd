#include "agent/posix/format.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace agent {

static constexpr char s_szFormat[] = ".dak-format";
static constexpr char s_szFormatted[] = ".dak-formatted";

static constexpr std::chrono::milliseconds s_slice{5};
// How long a format looks for room on a disk that has none even for its folders.
static constexpr std::chrono::milliseconds s_makeRoom{300};
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

static std::vector<std::string> NamesIn(int fdFolder) {
    std::vector<std::string> names;
    CDirectory directory(CFd(::openat(fdFolder, ".", O_RDONLY | s_nFolder)));
    while (const dirent* pEntry = directory.Open() ? directory.Next() : nullptr) {
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

// A file system that knows no locks keeps nobody away.
static bool Lock(int fd) {
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Nothing that is there is replaced.
static bool MoveEntry(int fdFrom, int fdTo, const char* lpszName) {
    if (::renameat2(fdFrom, lpszName, fdTo, lpszName, RENAME_NOREPLACE) == 0) {
        return true;
    }
    struct stat status {};
    return (errno == EINVAL || errno == ENOSYS) &&
           ::fstatat(fdTo, lpszName, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT &&
           ::renameat(fdFrom, lpszName, fdTo, lpszName) == 0;
}

// False when something stays.
static bool MoveAll(int fdFrom, int fdTo) {
    bool bAll = true;
    for (const std::string& strName : NamesIn(fdFrom)) {
        bAll = MoveEntry(fdFrom, fdTo, strName.c_str()) && bAll;
    }
    return bAll;
}

CFormats::CFormats(CQuota& quota, std::function<void(const std::string&)> lpLog)
    : m_quota(quota), m_lpLog(std::move(lpLog)) {}

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
bool CFormats::MakeRoomFor(CServed& served, Clock::time_point tEnd,
                           const std::function<bool()>& make) const {
    std::unique_ptr<CRemoval> pRemoval;
    while (!make()) {
        if (errno != ENOSPC && errno != EDQUOT) {
            return false;
        }
        if (!pRemoval) {
            CSpared spared = OthersThan(served);
            if (served.fdMarker) {
                spared.Add(served.fdMarker.Get(), served.fdFolder.Get());
            }
            pRemoval = std::make_unique<CRemoval>(
                CFd(::openat(served.fdFolder.Get(), ".", O_RDONLY | s_nFolder)), std::move(spared),
                -1, m_quota);
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

bool CFormats::MakeMarker(CServed& served, Clock::time_point tEnd) const {
    const int fdFolder = served.fdFolder.Get();
    if (!MakeRoomFor(served, tEnd, [fdFolder] {
            return ::mkdirat(fdFolder, s_szFormat, 0700) == 0 || errno == EEXIST;
        })) {
        return false;
    }
    served.fdMarker = CFd(::openat(fdFolder, s_szFormat, O_RDONLY | s_nFolder));
    if (served.fdMarker && !Lock(served.fdMarker.Get())) {
        served.fdMarker.Close(); // another agent formats the same folder
    }
    return static_cast<bool>(served.fdMarker);
}

bool CFormats::TurnTo(CServed& served, const std::string& strFresh) {
    CFd fdFresh(::openat(served.fdMarker.Get(), strFresh.c_str(), O_RDONLY | s_nFolder));
    CFd fdView(::openat(served.fdMarker.Get(), strFresh.c_str(), O_PATH | s_nFolder));
    CFd fdOld(::openat(served.fdFolder.Get(), ".", O_RDONLY | s_nFolder));
    if (!fdFresh || !fdView || !fdOld) {
        return false;
    }
    CSpared spared = OthersThan(served);
    spared.Add(fdFresh.Get(), served.fdFolder.Get());
    served.pRemoval = std::make_unique<CRemoval>(std::move(fdOld), std::move(spared),
                                                 served.fdMarker.Get(), m_quota);
    served.bAwaitsIdle = false;
    served.fdFresh = std::move(fdFresh);
    served.fdView = std::move(fdView);
    served.strFresh = strFresh;
    return true;
}

bool CFormats::Format(const CFd& fdView) {
    const auto itServed = std::find_if(m_served.begin(), m_served.end(),
                                       [&](const auto& p) { return &p->fdView == &fdView; });
    if (itServed == m_served.end()) {
        return false;
    }
    CServed& served = **itServed;
    const auto tEnd = Clock::now() + s_makeRoom;
    struct stat status {};
    if (::fstat(served.fdFolder.Get(), &status) != 0 || IsReadOnly(status) ||
        OthersThan(served).IsSpared(IdentityOf(served.fdFolder.Get())) ||
        (!served.fdMarker && !MakeMarker(served, tEnd))) {
        return false;
    }
    const int fdMarker = served.fdMarker.Get();
    const std::string strFresh = FreshName(NewestIn(fdMarker) + 1);
    const bool bMade = MakeRoomFor(served, tEnd, [&] {
        return ::mkdirat(fdMarker, strFresh.c_str(), status.st_mode & 0777) == 0;
    });
    // The umask has no say: the folder is to look as it did.
    if (bMade && ::fchmodat(fdMarker, strFresh.c_str(), status.st_mode & 07777, 0) == 0 &&
        TurnTo(served, strFresh)) {
        return true;
    }
    ::unlinkat(fdMarker, strFresh.c_str(), AT_REMOVEDIR);
    if (served.strFresh.empty()) {
        ::unlinkat(served.fdFolder.Get(), s_szFormat, AT_REMOVEDIR);
        served.fdMarker.Close();
    }
    return false;
}

void CFormats::TakeUp() {
    for (const auto& pServed : m_served) {
        TakeUp(*pServed);
    }
}

void CFormats::TakeUp(CServed& served) {
    const int fdFolder = served.fdFolder.Get();
    served.fdMarker = CFd(::openat(fdFolder, s_szFormat, O_RDONLY | s_nFolder));
    if (served.fdMarker) {
        if (!Lock(served.fdMarker.Get())) {
            served.fdMarker.Close();
            return;
        }
        const unsigned nNewest = NewestIn(served.fdMarker.Get());
        if (nNewest != 0 && TurnTo(served, FreshName(nNewest))) {
            Log("going on with a format that an agent before has begun");
            for (int i = 0; i < s_nStepsAtStart && served.pRemoval; ++i) {
                StepRemoval(served);
            }
            if (std::exchange(served.bAwaitsIdle, false)) {
                MoveUp(served, std::numeric_limits<std::size_t>::max());
            }
        } else {
            ::unlinkat(fdFolder, s_szFormat, AT_REMOVEDIR); // killed before it had begun
            served.fdMarker.Close();
        }
        return;
    }
    const CFd fdFormatted(::openat(fdFolder, s_szFormatted, O_RDONLY | s_nFolder));
    if (!fdFormatted || !Lock(fdFormatted.Get())) {
        return;
    }
    for (const std::string& strName : NamesIn(fdFormatted.Get())) {
        if (NumberOf(strName) == 0) {
            continue;
        }
        const CFd fdFresh(::openat(fdFormatted.Get(), strName.c_str(), O_RDONLY | s_nFolder));
        if (fdFresh && !MoveAll(fdFresh.Get(), fdFolder)) {
            Log(std::string("not everything could be moved up from ") + s_szFormatted);
        }
        ::unlinkat(fdFormatted.Get(), strName.c_str(), AT_REMOVEDIR);
    }
    ::unlinkat(fdFolder, s_szFormatted, AT_REMOVEDIR);
}

bool CFormats::HasWork(bool bIdle) const {
    return std::any_of(m_served.begin(), m_served.end(), [bIdle](const auto& pServed) {
        return pServed->pRemoval || (bIdle && pServed->bAwaitsIdle);
    });
}

void CFormats::Work(bool bIdle) {
    const auto tEnd = Clock::now() + s_slice;
    for (const auto& pServed : m_served) {
        while (pServed->pRemoval && Clock::now() < tEnd) {
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
    served.bAwaitsIdle = served.pRemoval->Complete();
    Log("format: removed " + std::to_string(served.pRemoval->Removed()) + " entries" +
        (served.bAwaitsIdle ? "" : "; what cannot be removed stays out of sight"));
    served.pRemoval.reset();
}

// What is spared may bear the name of something new; then the view stays where it is.
bool CFormats::MayMoveUp(const CServed& served, std::size_t nMost) const {
    const std::vector<std::string> names = NamesIn(served.fdFresh.Get());
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
        ::renameat(fdFolder, s_szFormat, fdFolder, s_szFormatted) != 0) {
        return;
    }
    if (!MoveAll(served.fdFresh.Get(), fdFolder)) {
        Log(std::string("not everything could be moved up from ") + s_szFormatted);
    }
    ::unlinkat(served.fdMarker.Get(), served.strFresh.c_str(), AT_REMOVEDIR);
    ::unlinkat(fdFolder, s_szFormatted, AT_REMOVEDIR);
    served.fdView = std::move(fdView);
    served.fdFresh.Close();
    served.fdMarker.Close();
    served.strFresh.clear();
}

} // namespace agent
