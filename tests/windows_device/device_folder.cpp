// The device's folder on Windows, for the tests: of one thread and one agent, at once and without
// a journal. Links are as if they were not there. A file arrives in one step, a folder that takes
// a folder's place in two. What is replaced hands on nothing. A format that meets what others hold
// open is refused behind the rest.
#include "agent/device_folder.h"

#include <algorithm>

#include "tests/windows_device/folder_reading.h"
#include "tests/windows_device/folder_trees.h"

namespace windows_device {

namespace {

using agent::CDevicePath;
using agent::CEntryInfo;
using agent::COpenMode;
using agent::EResult;
using Log = std::function<void(const std::string&)>;

// A folder of the system as the system knows it. Empty, and the reason in strError, when there is
// none.
std::wstring ServedFolder(const std::string& strFolder, std::string& strError) {
    const std::optional<std::wstring> strWide = ToWide(strFolder);
    std::wstring strPath(32768, L'\0');
    const CHandle folder(strWide ? ::CreateFileW(strWide->c_str(), FILE_READ_ATTRIBUTES, SHARE_ALL,
                                                 nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                                 nullptr)
                                 : nullptr);
    const std::optional<CEntry> entry = EntryOf(folder);
    strPath.resize(entry && entry->info.bFolder
                       ? ::GetFinalPathNameByHandleW(folder.Get(), strPath.data(), 32768, 0)
                       : 0);
    if (strPath.empty() || strPath.back() == L'\\') {
        strError = strFolder + ": no folder that can be served";
        return L"";
    }
    return strPath;
}

// All in one step.
class CWork final : public agent::CFolderWork {
  public:
    explicit CWork(std::function<EResult()> lpWork) : m_lpWork(std::move(lpWork)) {}
    std::optional<EResult> Step() override { return m_lpWork(); }

  private:
    const std::function<EResult()> m_lpWork;
};

class CWindowsFolder final : public agent::CDeviceFolder {
  public:
    CWindowsFolder(std::wstring strRoot, Log lpLog) : m_lpLog(std::move(lpLog)) {
        m_trees.served.push_back({"", std::move(strRoot)});
    }

    bool AddStorage(const std::string& strName, const std::string& strFolder,
                    std::string& strError) override;
    void RemoveLeftovers() override;
    void SetQuota(std::uint64_t qwBytes) override;
    std::optional<CEntryInfo> Find(const CDevicePath& path) override;
    std::optional<std::vector<std::string>> List(const CDevicePath& path,
                                                 std::size_t nMost) override;
    std::optional<CEntryInfo> Describe(const CDevicePath& path) override;
    std::unique_ptr<agent::CFolderScan> Scan(const CDevicePath& path) override;
    std::unique_ptr<agent::CFolderWork>
    BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) override;
    std::unique_ptr<agent::CFolderWork> BeginMove(const CDevicePath& source,
                                                  const CDevicePath& target) override;
    std::unique_ptr<agent::CSourceFile> OpenSource(const CDevicePath& path) override;
    agent::CFd OpenProgram(const CDevicePath& path) override;
    EResult OpenFile(const CDevicePath& path, const COpenMode& mode,
                     std::unique_ptr<agent::COpenFile>& pFile) override;
    EResult BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                      std::unique_ptr<agent::CPartFile>& pPart) override;
    void EndParts() override {}
    EResult MakeFolder(const CDevicePath& path) override;
    EResult Remove(const CDevicePath& path) override;
    std::optional<agent::CSpace> SpaceOf(const CDevicePath& folder) override;
    std::vector<std::string> StorageNames() const override;
    EResult Format(const CDevicePath& storage) override;
    bool HasWork(bool) const override { return false; }
    void Work(bool) override {}

  private:
    std::optional<std::wstring> Locate(const CDevicePath& path) const;
    const CServed* ServedAs(const CDevicePath& path) const;

    const Log m_lpLog;
    CTrees m_trees;
};

// Where a path of the device lies. Nothing when a name on the way is more than a name to the
// system, or a link.
std::optional<std::wstring> CWindowsFolder::Locate(const CDevicePath& path) const {
    const CServed* pServed = ServedAs(CDevicePath().Entry(path.FirstComponent()));
    std::wstring strPath = (pServed ? *pServed : m_trees.served.front()).strFolder;
    std::string_view strRest = path.Text();
    strRest.remove_prefix(pServed ? std::min(strRest.size(), path.FirstComponent().size() + 1) : 0);
    while (!strRest.empty()) {
        const std::string_view strName = strRest.substr(0, strRest.find('/'));
        const std::optional<std::wstring> strWide = ToWide(strName);
        const DWORD dwFolder = ::GetFileAttributesW(strPath.c_str());
        if (!strWide || !IsPlainName(*strWide) ||
            (dwFolder != INVALID_FILE_ATTRIBUTES &&
             (dwFolder & FILE_ATTRIBUTE_REPARSE_POINT) != 0)) {
            return std::nullopt;
        }
        strPath += L"\\" + *strWide;
        strRest.remove_prefix(std::min(strRest.size(), strName.size() + 1));
    }
    return strPath;
}

// The root or the storage that the path is. Null for any other.
const CServed* CWindowsFolder::ServedAs(const CDevicePath& path) const {
    const std::optional<std::wstring> strName = ToWide(path.Text());
    const auto it =
        std::find_if(m_trees.served.begin(), m_trees.served.end(), [&](const CServed& served) {
            return strName && SameName(*strName, *ToWide(served.strName));
        });
    return it == m_trees.served.end() ? nullptr : &*it;
}

bool CWindowsFolder::AddStorage(const std::string& strName, const std::string& strFolder,
                                std::string& strError) {
    const std::optional<std::u16string> strUnits = agent::ToUtf16(strName);
    const std::optional<CDevicePath> path =
        strUnits ? CDevicePath::Parse(*strUnits) : std::optional<CDevicePath>();
    if (!path || path->Text() != strName || !IsPlainName(*ToWide(strName)) || ServedAs(*path) ||
        strUnits->size() > agent::MAX_STORAGE_NAME) {
        strError = "\"" + strName + "\" cannot be the name of a storage";
        return false;
    }
    m_trees.served.push_back({strName, ServedFolder(strFolder, strError)});
    return !m_trees.served.back().strFolder.empty();
}

void CWindowsFolder::RemoveLeftovers() {
    for (const CServed& served : m_trees.served) {
        Walk(served.strFolder, [&](const std::wstring& strPath, const WIN32_FIND_DATAW& found) {
            const bool bLeft = agent::IsReserved(FromWide(found.cFileName).value_or(""));
            if (bLeft && m_trees.RemoveTree(strPath) && m_lpLog) {
                m_lpLog("removed what a killed agent left: " + FromWide(strPath).value_or(""));
            }
            return !bLeft;
        });
    }
}

void CWindowsFolder::SetQuota(std::uint64_t qwBytes) {
    std::uint64_t qwUsed = 0;
    for (const CServed& served : m_trees.served) {
        Walk(served.strFolder, [&](const std::wstring&, const WIN32_FIND_DATAW& found) {
            qwUsed += (std::uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow;
            return true;
        });
    }
    m_trees.quota.Set(qwBytes, qwUsed);
}

std::optional<CEntryInfo> CWindowsFolder::Find(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath && OpenEntry(*strPath, GENERIC_READ) ? Describe(path) : std::nullopt;
}

std::optional<CEntryInfo> CWindowsFolder::Describe(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    const std::optional<CEntry> entry = strPath ? Look(*strPath) : std::nullopt;
    return entry ? std::optional(entry->info) : std::nullopt;
}

std::unique_ptr<agent::CFolderScan> CWindowsFolder::Scan(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath ? MakeScan(*strPath, path.IsRoot() ? StorageNames() : std::vector<std::string>())
                   : nullptr;
}

std::optional<std::vector<std::string>> CWindowsFolder::List(const CDevicePath& path,
                                                             std::size_t nMost) {
    const std::unique_ptr<agent::CFolderScan> pScan = Scan(path);
    std::vector<std::string> names;
    std::string strName;
    for (auto eNext = agent::CFolderScan::ENext::NAME; pScan;) {
        eNext = pScan->Next(strName);
        if (eNext == agent::CFolderScan::ENext::END) {
            std::sort(names.begin(), names.end());
            return names;
        }
        if (eNext == agent::CFolderScan::ENext::FAILED || names.size() == nMost) {
            break;
        }
        if (eNext == agent::CFolderScan::ENext::NAME) {
            names.push_back(strName);
        }
    }
    return std::nullopt;
}

std::unique_ptr<agent::CSourceFile> CWindowsFolder::OpenSource(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath ? MakeSource(*strPath) : nullptr;
}

agent::CFd CWindowsFolder::OpenProgram(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath && Look(*strPath) ? agent::CFd(*strPath) : agent::CFd();
}

EResult CWindowsFolder::OpenFile(const CDevicePath& path, const COpenMode& mode,
                                 std::unique_ptr<agent::COpenFile>& pFile) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath && !ServedAs(path)
               ? OpenByHandle(*strPath, mode, m_trees.uses, m_trees.quota, pFile)
               : EResult::REFUSED;
}

EResult CWindowsFolder::BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                                  std::unique_ptr<agent::CPartFile>& pPart) {
    const std::optional<std::wstring> strPath = Locate(path);
    if (!strPath || ServedAs(path)) {
        return EResult::REFUSED;
    }
    if (!m_trees.quota.HasRoom(qwSize)) {
        return EResult::NO_SPACE;
    }
    std::vector<std::wstring> missing;
    for (std::wstring strNext = ParentOf(*strPath); !Look(strNext); strNext = ParentOf(strNext)) {
        if (strNext.rfind(L'\\') <= 3) {
            return EResult::REFUSED; // the served folder itself is gone
        }
        missing.push_back(strNext);
    }
    for (; !missing.empty(); missing.pop_back()) {
        if (!::CreateDirectoryW(missing.back().c_str(), nullptr)) {
            return LastResult();
        }
    }
    const std::optional<CEntry> old = Look(*strPath);
    if (old && (old->info.bFolder || old->info.bReadOnly)) {
        return EResult::REFUSED;
    }
    pPart = m_trees.MakePart(*strPath);
    return pPart ? EResult::SUCCESS : LastResult();
}

EResult CWindowsFolder::MakeFolder(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return !strPath || ServedAs(path)                           ? EResult::REFUSED
           : ::CreateDirectoryW(strPath->c_str(), nullptr) != 0 ? EResult::SUCCESS
                                                                : LastResult();
}

EResult CWindowsFolder::Remove(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    const std::optional<CEntry> entry = strPath ? Look(*strPath) : std::nullopt;
    if (!entry || ServedAs(path)) {
        return EResult::REFUSED;
    }
    const bool bRemoved =
        entry->info.bFolder
            ? !m_trees.HoldsServed(entry->identity) && ::RemoveDirectoryW(strPath->c_str())
            : !entry->info.bReadOnly && m_trees.RemoveFile(*strPath, *entry);
    return bRemoved ? EResult::SUCCESS : EResult::REFUSED;
}

std::unique_ptr<agent::CFolderWork> CWindowsFolder::BeginCopy(const CDevicePath& source,
                                                              const CDevicePath& target,
                                                              bool bFailIfExists) {
    const std::optional<std::wstring> strSource = Locate(source);
    const std::optional<std::wstring> strTarget = Locate(target);
    return !strSource || !strTarget || ServedAs(target)
               ? nullptr
               : std::make_unique<CWork>([this, strSource, strTarget, bFailIfExists] {
                     return m_trees.Copy(*strSource, *strTarget, bFailIfExists);
                 });
}

std::unique_ptr<agent::CFolderWork> CWindowsFolder::BeginMove(const CDevicePath& source,
                                                              const CDevicePath& target) {
    const std::optional<std::wstring> strSource = Locate(source);
    const std::optional<std::wstring> strTarget = Locate(target);
    return !strSource || !strTarget || ServedAs(source) || ServedAs(target)
               ? nullptr
               : std::make_unique<CWork>(
                     [this, strSource, strTarget] { return m_trees.Move(*strSource, *strTarget); });
}

std::optional<agent::CSpace> CWindowsFolder::SpaceOf(const CDevicePath& folder) {
    const std::optional<std::wstring> strPath = Locate(folder);
    const std::optional<CEntry> entry = strPath ? Look(*strPath) : std::nullopt;
    ULARGE_INTEGER free{};
    ULARGE_INTEGER total{};
    return entry && entry->info.bFolder &&
                   ::GetDiskFreeSpaceExW((*strPath + L"\\").c_str(), &free, &total, nullptr)
               ? std::optional(m_trees.quota.Bound({total.QuadPart, free.QuadPart}))
               : std::nullopt;
}

std::vector<std::string> CWindowsFolder::StorageNames() const {
    std::vector<std::string> names;
    std::for_each(m_trees.served.begin() + 1, m_trees.served.end(),
                  [&](const CServed& served) { names.push_back(served.strName); });
    return names;
}

EResult CWindowsFolder::Format(const CDevicePath& storage) {
    const CServed* pServed = ServedAs(storage);
    const std::optional<CEntry> entry = pServed ? Look(pServed->strFolder) : std::nullopt;
    const auto nNames =
        std::count_if(m_trees.served.begin(), m_trees.served.end(), [&](const CServed& served) {
            const std::optional<CEntry> other = Look(served.strFolder);
            return entry && other && other->identity == entry->identity;
        });
    return nNames == 1 && m_trees.EmptyServed(pServed->strFolder) ? EResult::SUCCESS
                                                                  : EResult::REFUSED;
}

} // namespace

} // namespace windows_device

std::unique_ptr<agent::CDeviceFolder>
agent::CDeviceFolder::Open(const std::string& strRoot,
                           std::function<void(const std::string&)> lpLog, std::string& strError) {
    std::wstring strFolder = windows_device::ServedFolder(strRoot, strError);
    return strFolder.empty() ? nullptr
                             : std::make_unique<windows_device::CWindowsFolder>(
                                   std::move(strFolder), std::move(lpLog));
}
