// The device's folder on Windows, for the tests: of one thread and one agent, at once and without
// a journal. Links are as if they were not there. A file arrives in one step, a folder that takes
// a folder's place in two. What is replaced hands on nothing.
#include "agent/device_folder.h"

#include <algorithm>

#include "agent/quota.h"
#include "tests/windows_device/open_file.h"
#include "tests/windows_device/system_files.h"

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

class CWindowsSourceFile final : public agent::CSourceFile {
  public:
    CWindowsSourceFile(CHandle file, const CEntry& entry) : m_file(std::move(file)) {
        for (const std::uint64_t qwPart : {std::uint64_t{entry.identity.dwVolume},
                                           entry.identity.qwIndex, entry.info.times.ftLastWrite}) {
            m_qwIdentity = (m_qwIdentity ^ qwPart) * 0x9E3779B97F4A7C15ULL;
            m_qwIdentity ^= m_qwIdentity >> 29;
        }
        m_qwIdentity |= 1; // 0 stands for none
    }

    std::size_t Read(std::span<std::uint8_t> data) override {
        const std::size_t dwRead = ReadAt(m_file, m_qwAt, data);
        m_qwAt += dwRead;
        return dwRead;
    }

    std::uint64_t Identity() const override { return m_qwIdentity; }

  private:
    CHandle m_file;
    std::uint64_t m_qwAt = 0;
    std::uint64_t m_qwIdentity = 1;
};

// All in one step.
class CWork final : public agent::CFolderWork {
  public:
    explicit CWork(std::function<EResult()> lpWork) : m_lpWork(std::move(lpWork)) {}
    std::optional<EResult> Step() override { return m_lpWork(); }

  private:
    const std::function<EResult()> m_lpWork;
};

// The name of an entry for the host. Nothing when it cannot be told or may not open it.
std::optional<std::string> NameForHost(const WIN32_FIND_DATAW& found) {
    const std::optional<std::string> strName = FromWide(found.cFileName);
    return strName && agent::IsNameForHost(*strName) && IsPlainName(found.cFileName) &&
                   (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0
               ? strName
               : std::nullopt;
}

class CWindowsScan final : public agent::CFolderScan {
  public:
    CWindowsScan(std::wstring strFolder, std::vector<std::string> first)
        : m_strFolder(std::move(strFolder)), m_first(std::move(first)), m_listing(m_strFolder) {}

    bool Open() const { return m_listing.Open(); }

    ENext Next(std::string& strName) override {
        if (m_nFirst < m_first.size()) {
            strName = m_first[m_nFirst++];
            return ENext::NAME;
        }
        const WIN32_FIND_DATAW* pFound = m_listing.Next();
        if (!pFound) {
            return m_listing.Failed() ? ENext::FAILED : ENext::END;
        }
        const std::optional<std::string> strFound = NameForHost(*pFound);
        const bool bHidden = std::any_of(m_first.begin(), m_first.end(), [&](const auto& strFirst) {
            return SameName(ToWide(strFirst).value_or(L""), pFound->cFileName);
        });
        strName = strFound.value_or("");
        return strFound && !bHidden ? ENext::NAME : ENext::SKIPPED;
    }

    // A folder can be told to keep names apart that differ in letters alone.
    std::optional<bool> FoldsCase(const std::string& strName) override {
        std::wstring strTurned = ToWide(strName).value_or(L"");
        const std::optional<CEntry> own = Look(m_strFolder + L"\\" + strTurned);
        bool bLetters = false;
        for (wchar_t& chNext : strTurned) {
            const bool bLetter =
                (chNext >= L'a' && chNext <= L'z') || (chNext >= L'A' && chNext <= L'Z');
            chNext = bLetter ? static_cast<wchar_t>(chNext ^ 0x20) : chNext;
            bLetters = bLetters || bLetter;
        }
        if (!bLetters || !own) {
            return std::nullopt;
        }
        const std::optional<CEntry> turned = Look(m_strFolder + L"\\" + strTurned);
        return turned && turned->identity == own->identity;
    }

  private:
    const std::wstring m_strFolder;
    const std::vector<std::string> m_first;
    std::size_t m_nFirst = 0;
    CListing m_listing;
};

class CWindowsFolder final : public agent::CDeviceFolder {
  public:
    CWindowsFolder(std::wstring strRoot, Log lpLog)
        : m_lpLog(std::move(lpLog)), m_served{{"", std::move(strRoot)}} {}

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
    friend class CWindowsPartFile;

    // The root, without a name, and behind it the storages.
    struct CServed {
        std::string strName;
        std::wstring strFolder;
    };

    std::optional<std::wstring> Locate(const CDevicePath& path) const;
    const CServed* ServedAs(const CDevicePath& path) const;
    bool HoldsServed(const CIdentity& folder) const;
    std::wstring PartIn(const std::wstring& strFolder);
    bool RemoveFile(const std::wstring& strPath, const CEntry& file);
    bool RemoveTree(const std::wstring& strPath);
    bool EmptyServed(const std::wstring& strFolder);
    EResult PutInPlace(const std::wstring& strPart, const std::wstring& strTarget);
    EResult CopyEntry(const std::wstring& strSource, const std::wstring& strTarget, bool bMove);
    EResult Copy(const std::wstring& strSource, const std::wstring& strTarget, bool bFailIfExists,
                 bool bMove);
    EResult Move(const std::wstring& strSource, const std::wstring& strTarget);

    const Log m_lpLog;
    std::vector<CServed> m_served;
    agent::CQuota m_quota;
    CFileUses m_uses;
    unsigned m_nPart = 0;
};

// A part is shared with nobody who would delete it, so that another agent's clean-up leaves it.
class CWindowsPartFile final : public agent::CPartFile {
  public:
    CWindowsPartFile(CWindowsFolder& folder, std::wstring strPart, std::wstring strTarget)
        : m_folder(folder), m_strPart(std::move(strPart)), m_strTarget(std::move(strTarget)),
          m_file(OpenEntry(m_strPart, GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW)),
          m_bPart(static_cast<bool>(m_file)) {}
    ~CWindowsPartFile() override {
        if (m_bPart) {
            static_cast<void>(m_file.Close());
            ::DeleteFileW(m_strPart.c_str());
            m_folder.m_quota.Remove(m_qwWritten);
        }
    }

    bool Open() const { return m_bPart; }

    EResult Write(std::span<const std::uint8_t> data) override {
        if (!m_folder.m_quota.HasRoom(data.size())) {
            return EResult::NO_SPACE;
        }
        m_folder.m_quota.Add(data.size());
        const std::uint64_t qwAt = std::exchange(m_qwWritten, m_qwWritten + data.size());
        return WriteAt(m_file, qwAt, data) ? EResult::SUCCESS : LastResult();
    }

    EResult Complete(const agent::CFileTimes& times) override {
        SetTimes(m_file, times);
        if (!m_file.Close()) {
            return LastResult();
        }
        const EResult eResult = m_folder.PutInPlace(m_strPart, m_strTarget);
        m_bPart = eResult != EResult::SUCCESS;
        return eResult;
    }

  private:
    CWindowsFolder& m_folder;
    const std::wstring m_strPart;
    const std::wstring m_strTarget;
    CHandle m_file;
    bool m_bPart;
    std::uint64_t m_qwWritten = 0;
};

// Where a path of the device lies. Nothing when a name on the way is more than a name to the
// system, or a link.
std::optional<std::wstring> CWindowsFolder::Locate(const CDevicePath& path) const {
    const CServed* pServed = ServedAs(CDevicePath().Entry(path.FirstComponent()));
    std::wstring strPath = (pServed ? *pServed : m_served.front()).strFolder;
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
const CWindowsFolder::CServed* CWindowsFolder::ServedAs(const CDevicePath& path) const {
    const std::optional<std::wstring> strName = ToWide(path.Text());
    const auto it = std::find_if(m_served.begin(), m_served.end(), [&](const CServed& served) {
        return strName && SameName(*strName, *ToWide(served.strName));
    });
    return it == m_served.end() ? nullptr : &*it;
}

// Whether the root or a storage is the folder or lies in it, whatever its path is.
bool CWindowsFolder::HoldsServed(const CIdentity& folder) const {
    return std::any_of(m_served.begin(), m_served.end(),
                       [&](const CServed& served) { return LiesIn(served.strFolder, folder); });
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
    m_served.push_back({strName, ServedFolder(strFolder, strError)});
    return !m_served.back().strFolder.empty();
}

// Calls lpVisit for every entry below a folder; where that says true, for what the entry holds too.
// False when one of the folders could not be read.
using Visit = std::function<bool(const std::wstring& strPath, const WIN32_FIND_DATAW& found)>;
bool Walk(const std::wstring& strFolder, const Visit& lpVisit) {
    CListing listing(strFolder);
    bool bRead = listing.Open();
    while (const WIN32_FIND_DATAW* pFound = listing.Next()) {
        const std::wstring strPath = strFolder + L"\\" + pFound->cFileName;
        const DWORD dwKind =
            pFound->dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
        if (lpVisit(strPath, *pFound) && dwKind == FILE_ATTRIBUTE_DIRECTORY) {
            bRead = Walk(strPath, lpVisit) && bRead;
        }
    }
    return bRead && !listing.Failed();
}

void CWindowsFolder::RemoveLeftovers() {
    for (const CServed& served : m_served) {
        Walk(served.strFolder, [&](const std::wstring& strPath, const WIN32_FIND_DATAW& found) {
            const bool bLeft = agent::IsReserved(FromWide(found.cFileName).value_or(""));
            if (bLeft && RemoveTree(strPath) && m_lpLog) {
                m_lpLog("removed what a killed agent left: " + FromWide(strPath).value_or(""));
            }
            return !bLeft;
        });
    }
}

void CWindowsFolder::SetQuota(std::uint64_t qwBytes) {
    std::uint64_t qwUsed = 0;
    for (const CServed& served : m_served) {
        Walk(served.strFolder, [&](const std::wstring&, const WIN32_FIND_DATAW& found) {
            qwUsed += (std::uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow;
            return true;
        });
    }
    m_quota.Set(qwBytes, qwUsed);
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
    if (!strPath) {
        return nullptr;
    }
    auto pScan = std::make_unique<CWindowsScan>(
        *strPath, path.IsRoot() ? StorageNames() : std::vector<std::string>());
    return pScan->Open() ? std::move(pScan) : nullptr;
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
    CHandle file = strPath ? OpenEntry(*strPath, GENERIC_READ) : CHandle();
    const std::optional<CEntry> entry = EntryOf(file);
    return entry && !entry->info.bFolder
               ? std::make_unique<CWindowsSourceFile>(std::move(file), *entry)
               : nullptr;
}

agent::CFd CWindowsFolder::OpenProgram(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath && Look(*strPath) ? agent::CFd(*strPath) : agent::CFd();
}

EResult CWindowsFolder::OpenFile(const CDevicePath& path, const COpenMode& mode,
                                 std::unique_ptr<agent::COpenFile>& pFile) {
    const std::optional<std::wstring> strPath = Locate(path);
    return strPath && !ServedAs(path) ? OpenByHandle(*strPath, mode, m_uses, m_quota, pFile)
                                      : EResult::REFUSED;
}

// A name of the agent's own that is free.
std::wstring CWindowsFolder::PartIn(const std::wstring& strFolder) {
    return strFolder + L"\\.dak-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
           std::to_wstring(reinterpret_cast<std::uintptr_t>(this)) + L"-" +
           std::to_wstring(++m_nPart) + L".part";
}

EResult CWindowsFolder::BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                                  std::unique_ptr<agent::CPartFile>& pPart) {
    const std::optional<std::wstring> strPath = Locate(path);
    if (!strPath || ServedAs(path)) {
        return EResult::REFUSED;
    }
    if (!m_quota.HasRoom(qwSize)) {
        return EResult::NO_SPACE;
    }
    std::vector<std::wstring> missing;
    const std::wstring strFolder = ParentOf(*strPath);
    for (std::wstring strNext = strFolder; !Look(strNext); strNext = ParentOf(strNext)) {
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
    auto pFile = std::make_unique<CWindowsPartFile>(*this, PartIn(strFolder), *strPath);
    if (!pFile->Open()) {
        return LastResult();
    }
    pPart = std::move(pFile);
    return EResult::SUCCESS;
}

// Gives a part its target's name. The system refuses to replace a file that is open, so that one
// is led aside first.
EResult CWindowsFolder::PutInPlace(const std::wstring& strPart, const std::wstring& strTarget) {
    const std::optional<CEntry> old = Look(strTarget);
    if (old && !old->info.bFolder && old->info.bReadOnly) {
        return EResult::REFUSED;
    }
    const bool bAside = old && (old->info.bFolder || m_uses.IsOpen(old->identity));
    const std::wstring strAside = bAside ? PartIn(ParentOf(strTarget)) : L"";
    if (bAside && !::MoveFileExW(strTarget.c_str(), strAside.c_str(), 0)) {
        return LastResult();
    }
    if (!::MoveFileExW(strPart.c_str(), strTarget.c_str(), old ? MOVEFILE_REPLACE_EXISTING : 0)) {
        const EResult eResult = LastResult();
        if (bAside) {
            ::MoveFileExW(strAside.c_str(), strTarget.c_str(), 0);
        }
        return eResult;
    }
    if (bAside) {
        RemoveTree(strAside);
    } else if (old) {
        m_quota.Remove(old->info.qwSize);
    }
    return EResult::SUCCESS;
}

EResult CWindowsFolder::MakeFolder(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    return !strPath || ServedAs(path)                           ? EResult::REFUSED
           : ::CreateDirectoryW(strPath->c_str(), nullptr) != 0 ? EResult::SUCCESS
                                                                : LastResult();
}

// A file that is open loses its name at once, and goes with its last handle.
bool CWindowsFolder::RemoveFile(const std::wstring& strPath, const CEntry& file) {
    std::wstring strNow = strPath;
    if (m_uses.IsOpen(file.identity)) {
        for (const CServed& served : m_served) {
            const std::wstring strAside = PartIn(served.strFolder);
            if (strPath.starts_with(served.strFolder + L"\\") &&
                ::MoveFileExW(strPath.c_str(), strAside.c_str(), 0)) {
                strNow = strAside;
                break;
            }
        }
    }
    const bool bRemoved =
        (!file.info.bReadOnly ||
         ::SetFileAttributesW(strNow.c_str(),
                              file.dwAttributes & ~DWORD{FILE_ATTRIBUTE_READONLY})) &&
        ::DeleteFileW(strNow.c_str());
    if (bRemoved) {
        m_quota.Remove(file.info.qwSize);
        m_uses.MarkGone(file.identity);
    }
    return bRemoved;
}

// A link goes itself.
bool CWindowsFolder::RemoveTree(const std::wstring& strPath) {
    const std::optional<CEntry> entry = Look(strPath);
    if (entry && !entry->info.bFolder) {
        return RemoveFile(strPath, *entry);
    }
    if (!entry) {
        return ::DeleteFileW(strPath.c_str()) || ::RemoveDirectoryW(strPath.c_str());
    }
    bool bEmpty = true;
    Walk(strPath, [&](const std::wstring& strEntry, const WIN32_FIND_DATAW&) {
        bEmpty = RemoveTree(strEntry) && bEmpty;
        return false;
    });
    return bEmpty && ::SetFileAttributesW(strPath.c_str(), FILE_ATTRIBUTE_NORMAL) &&
           ::RemoveDirectoryW(strPath.c_str());
}

EResult CWindowsFolder::Remove(const CDevicePath& path) {
    const std::optional<std::wstring> strPath = Locate(path);
    const std::optional<CEntry> entry = strPath ? Look(*strPath) : std::nullopt;
    if (!entry || ServedAs(path)) {
        return EResult::REFUSED;
    }
    const bool bRemoved =
        entry->info.bFolder ? !HoldsServed(entry->identity) && ::RemoveDirectoryW(strPath->c_str())
                            : !entry->info.bReadOnly && RemoveFile(*strPath, *entry);
    return bRemoved ? EResult::SUCCESS : EResult::REFUSED;
}

// To a name that is free. Reserved names stay behind; a link ends the copy.
EResult CWindowsFolder::CopyEntry(const std::wstring& strSource, const std::wstring& strTarget,
                                  bool bMove) {
    const std::optional<CEntry> entry = Look(strSource);
    if (!entry) {
        return EResult::REFUSED;
    }
    if (!bMove && !m_quota.HasRoom(entry->info.qwSize)) {
        return EResult::NO_SPACE;
    }
    if (!(entry->info.bFolder ? ::CreateDirectoryW(strTarget.c_str(), nullptr)
                              : ::CopyFileW(strSource.c_str(), strTarget.c_str(), TRUE))) {
        return LastResult();
    }
    m_quota.Add(entry->info.qwSize);
    EResult eResult = EResult::SUCCESS;
    if (entry->info.bFolder) {
        const bool bRead =
            Walk(strSource, [&](const std::wstring& strEntry, const WIN32_FIND_DATAW& found) {
                if (eResult == EResult::SUCCESS &&
                    !agent::IsReserved(FromWide(found.cFileName).value_or(""))) {
                    eResult = CopyEntry(strEntry, strTarget + L"\\" + found.cFileName, bMove);
                }
                return false;
            });
        eResult = bRead ? eResult : EResult::REFUSED;
    }
    SetTimes(OpenEntry(strTarget, FILE_WRITE_ATTRIBUTES),
             {bMove ? entry->info.times.ftCreation : 0, entry->info.times.ftLastWrite});
    if (!::SetFileAttributesW(strTarget.c_str(), entry->dwAttributes)) {
        return LastResult();
    }
    return eResult;
}

EResult CWindowsFolder::Copy(const std::wstring& strSource, const std::wstring& strTarget,
                             bool bFailIfExists, bool bMove) {
    const std::wstring strFolder = ParentOf(strTarget);
    const std::optional<CEntry> source = Look(strSource);
    const std::optional<CEntry> folder = Look(strFolder);
    const std::optional<CEntry> old = Look(strTarget);
    if (!source || !folder || (source->info.bFolder && LiesIn(strFolder, source->identity))) {
        return EResult::REFUSED;
    }
    if (old && (bFailIfExists || old->identity == source->identity ||
                old->info.bFolder != source->info.bFolder || LiesIn(strSource, old->identity) ||
                (old->info.bFolder ? HoldsServed(old->identity) : old->info.bReadOnly))) {
        return EResult::REFUSED;
    }
    const std::wstring strPart = PartIn(strFolder);
    EResult eResult = CopyEntry(strSource, strPart, bMove);
    if (eResult == EResult::SUCCESS) {
        eResult = PutInPlace(strPart, strTarget);
    }
    if (eResult != EResult::SUCCESS) {
        RemoveTree(strPart);
    }
    return eResult;
}

std::unique_ptr<agent::CFolderWork> CWindowsFolder::BeginCopy(const CDevicePath& source,
                                                              const CDevicePath& target,
                                                              bool bFailIfExists) {
    const std::optional<std::wstring> strSource = Locate(source);
    const std::optional<std::wstring> strTarget = Locate(target);
    return !strSource || !strTarget || ServedAs(target)
               ? nullptr
               : std::make_unique<CWork>([this, strSource, strTarget, bFailIfExists] {
                     return Copy(*strSource, *strTarget, bFailIfExists, false);
                 });
}

EResult CWindowsFolder::Move(const std::wstring& strSource, const std::wstring& strTarget) {
    const std::optional<CEntry> source = Look(strSource);
    const std::optional<CEntry> old = Look(strTarget);
    if (!source || !Look(ParentOf(strTarget)) ||
        (old && (strSource == strTarget || !SameName(strSource, strTarget))) ||
        (source->info.bFolder &&
         (LiesIn(ParentOf(strTarget), source->identity) || HoldsServed(source->identity)))) {
        return EResult::REFUSED;
    }
    // Other letters of the same name are no change to every system.
    const std::wstring strBetween = old ? PartIn(ParentOf(strTarget)) : strSource;
    if ((!old || ::MoveFileExW(strSource.c_str(), strBetween.c_str(), 0)) &&
        ::MoveFileExW(strBetween.c_str(), strTarget.c_str(), 0)) {
        return EResult::SUCCESS;
    }
    if (::GetLastError() != ERROR_NOT_SAME_DEVICE) {
        return LastResult();
    }
    const EResult eCopied = Copy(strSource, strTarget, true, true);
    return eCopied != EResult::SUCCESS || RemoveTree(strSource) ? eCopied : EResult::REFUSED;
}

std::unique_ptr<agent::CFolderWork> CWindowsFolder::BeginMove(const CDevicePath& source,
                                                              const CDevicePath& target) {
    const std::optional<std::wstring> strSource = Locate(source);
    const std::optional<std::wstring> strTarget = Locate(target);
    return !strSource || !strTarget || ServedAs(source) || ServedAs(target)
               ? nullptr
               : std::make_unique<CWork>(
                     [this, strSource, strTarget] { return Move(*strSource, *strTarget); });
}

std::optional<agent::CSpace> CWindowsFolder::SpaceOf(const CDevicePath& folder) {
    const std::optional<std::wstring> strPath = Locate(folder);
    const std::optional<CEntry> entry = strPath ? Look(*strPath) : std::nullopt;
    ULARGE_INTEGER free{};
    ULARGE_INTEGER total{};
    return entry && entry->info.bFolder &&
                   ::GetDiskFreeSpaceExW((*strPath + L"\\").c_str(), &free, &total, nullptr)
               ? std::optional(m_quota.Bound({total.QuadPart, free.QuadPart}))
               : std::nullopt;
}

std::vector<std::string> CWindowsFolder::StorageNames() const {
    std::vector<std::string> names;
    std::for_each(m_served.begin() + 1, m_served.end(),
                  [&](const CServed& served) { names.push_back(served.strName); });
    return names;
}

// What the folder holds but for folders that are served themselves.
bool CWindowsFolder::EmptyServed(const std::wstring& strFolder) {
    bool bEmptied = true;
    Walk(strFolder, [&](const std::wstring& strPath, const WIN32_FIND_DATAW&) {
        const std::optional<CEntry> entry = Look(strPath);
        const bool bKeeps = entry && entry->info.bFolder && HoldsServed(entry->identity);
        const bool bServed =
            bKeeps && std::any_of(m_served.begin(), m_served.end(), [&](const CServed& served) {
                const std::optional<CEntry> other = Look(served.strFolder);
                return other && other->identity == entry->identity;
            });
        bEmptied = (bKeeps || RemoveTree(strPath)) && bEmptied;
        return bKeeps && !bServed;
    });
    return bEmptied;
}

EResult CWindowsFolder::Format(const CDevicePath& storage) {
    const CServed* pServed = ServedAs(storage);
    const std::optional<CEntry> entry = pServed ? Look(pServed->strFolder) : std::nullopt;
    const auto nNames = std::count_if(m_served.begin(), m_served.end(), [&](const CServed& served) {
        const std::optional<CEntry> other = Look(served.strFolder);
        return entry && other && other->identity == entry->identity;
    });
    return nNames == 1 && EmptyServed(pServed->strFolder) ? EResult::SUCCESS : EResult::REFUSED;
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
