#include "tests/support/memory_device.h"

#include <algorithm>
#include <list>
#include <span>

#include "agent/quota.h"

namespace agent {

class CFd {}; // nothing here is run

} // namespace agent

namespace test {

using agent::CDevicePath;
using agent::COpenMode;
using agent::EResult;

static std::map<std::string, CMemoryDevice*> s_devices;

static bool LiesIn(const std::string& strPath, const std::string& strFolder) {
    return strFolder.empty() || strPath == strFolder || strPath.starts_with(strFolder + "/");
}

static std::string ParentOf(const std::string& strPath) {
    return strPath.substr(0, strPath.find('/') == std::string::npos ? 0 : strPath.rfind('/'));
}

class CMemoryFolder final : public agent::CDeviceFolder {
  public:
    explicit CMemoryFolder(CMemoryDevice& memory) : device(memory) {}

    bool AddStorage(const std::string& strName, const std::string& strFolder,
                    std::string& strError) override {
        if (!device.disks.contains(strFolder)) {
            strError = strFolder + ": not there";
            return false;
        }
        m_storages.emplace_back(strName, device.disks.at(strFolder));
        device.MakeFolder(strName);
        return true;
    }
    void RemoveLeftovers(bool) override {}
    void SetQuota(std::uint64_t qwBytes) override { m_qwQuota = qwBytes; }

    std::optional<agent::CEntryInfo> Find(const CDevicePath& path) override {
        return Readable(path.Text()) ? Describe(path) : std::nullopt;
    }
    std::optional<agent::CEntryInfo> Describe(const CDevicePath& path) override {
        const Entry pEntry = At(path.Text());
        if (pEntry) {
            pEntry->info.qwSize = pEntry->strBytes.size();
            pEntry->info.qwIdentity = pEntry->qwVersion;
        }
        return pEntry ? std::optional(pEntry->info) : std::nullopt;
    }
    std::unique_ptr<agent::CFolderScan> Scan(const CDevicePath& path) override;
    std::unique_ptr<agent::CFolderWork>
    BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) override;
    std::unique_ptr<agent::CFolderWork> BeginMove(const CDevicePath& source,
                                                  const CDevicePath& target) override;
    std::unique_ptr<agent::CSourceFile> OpenSource(const CDevicePath& path) override;
    agent::CFd OpenProgram(const CDevicePath&) override { return {}; }
    EResult OpenFile(const CDevicePath& path, const COpenMode& mode,
                     std::unique_ptr<agent::COpenFile>& pFile) override;
    EResult BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                      std::unique_ptr<agent::CPartFile>& pPart) override;
    void EndParts() override {}
    EResult MakeFolder(const CDevicePath& path) override {
        const EResult eResult = Judge(MayPut(path.Text(), false), "MakeFolder", path.Text());
        if (eResult == EResult::SUCCESS) {
            device.MakeFolder(path.Text());
        }
        return eResult;
    }
    EResult Remove(const CDevicePath& path) override {
        const Entry pEntry = At(path.Text());
        const EResult eResult =
            Judge(pEntry && !IsFixed(path.Text()) &&
                      (IsFolder(pEntry) ? NamesIn(path.Text()).empty() : !pEntry->info.bReadOnly),
                  "Remove", path.Text());
        if (eResult == EResult::SUCCESS) {
            device.Remove(path.Text());
        }
        return eResult;
    }
    std::optional<agent::CSpace> SpaceOf(const CDevicePath& folder) override {
        return IsFolder(At(folder.Text())) ? std::optional(Space(folder.Text())) : std::nullopt;
    }
    std::vector<std::string> StorageNames() const override {
        std::vector<std::string> names;
        for (const auto& [strName, qwSize] : m_storages) {
            names.push_back(strName);
        }
        return names;
    }
    std::unique_ptr<agent::CFolderWork> BeginFormat(const CDevicePath& storage) override;
    EResult Format(const CDevicePath& storage) {
        const std::string& strPath = storage.Text();
        const EResult eResult =
            Judge(IsFixed(strPath) && !At(strPath)->info.bReadOnly, "Format", strPath);
        for (const std::string& strName :
             eResult == EResult::SUCCESS ? NamesIn(strPath) : std::vector<std::string>()) {
            if (!IsFixed(storage.Entry(strName).Text())) {
                device.Remove(storage.Entry(strName).Text());
            }
        }
        m_bWork = m_bWork || eResult == EResult::SUCCESS;
        return eResult;
    }
    bool HasWork(bool) const override { return m_bWork; }
    void Work(bool, agent::CWorkSlice) override { m_bWork = false; }

    Entry At(const std::string& strPath) const {
        const auto it = device.entries.find(strPath);
        return it == device.entries.end() ? nullptr : it->second;
    }
    Entry Readable(const std::string& strPath) const {
        const Entry pEntry = At(strPath);
        return pEntry && !pEntry->bUnreadable ? pEntry : nullptr;
    }
    static bool IsFolder(const Entry& pEntry) { return pEntry && pEntry->info.bFolder; }
    bool IsFixed(const std::string& strPath) const {
        return strPath.empty() || DiskOf(strPath) == strPath;
    }
    // The storage that a path lies in; empty for the root.
    std::string DiskOf(const std::string& strPath) const {
        const std::string strFirst = strPath.substr(0, strPath.find('/'));
        const auto names = StorageNames();
        return std::find(names.begin(), names.end(), strFirst) == names.end() ? "" : strFirst;
    }
    // Sorted.
    std::vector<std::string> NamesIn(const std::string& strFolder) const {
        std::vector<std::string> names;
        for (const auto& [strPath, pEntry] : device.entries) {
            if (!strPath.empty() && ParentOf(strPath) == strFolder) {
                names.push_back(strPath.substr(strFolder.empty() ? 0 : strFolder.size() + 1));
            }
        }
        return names;
    }
    // Whether something new may have the name, or, if it replaces, take the place of a file.
    bool MayPut(const std::string& strPath, bool bReplaces) const {
        const Entry pFolder = At(ParentOf(strPath));
        const Entry pOld = At(strPath);
        return IsFolder(pFolder) && !pFolder->info.bReadOnly && !IsFixed(strPath) &&
               (!pOld || (bReplaces && !IsFolder(pOld) && !pOld->info.bReadOnly));
    }
    agent::CSpace Space(const std::string& strPath) const {
        agent::CQuota quota;
        std::uint64_t qwUsed = 0;
        std::uint64_t qwAll = 0;
        for (const auto& [strEach, pEntry] : device.entries) {
            qwAll += pEntry->strBytes.size();
            qwUsed += DiskOf(strEach) == DiskOf(strPath) ? pEntry->strBytes.size() : 0;
        }
        if (m_qwQuota) {
            quota.Set(*m_qwQuota, qwAll);
        }
        std::uint64_t qwSize = device.qwRootSize;
        for (const auto& [strName, qwOwn] : m_storages) {
            qwSize = strName == DiskOf(strPath) ? qwOwn : qwSize;
        }
        return quota.Bound({qwSize, qwSize - std::min(qwUsed, qwSize)});
    }
    Entry Make(bool bFolder) const {
        auto pEntry = std::make_shared<CMemoryEntry>();
        pEntry->info.bFolder = bFolder;
        Touch(*pEntry);
        pEntry->info.times.ftCreation = pEntry->qwVersion;
        return pEntry;
    }
    void Touch(CMemoryEntry& entry) const {
        device.m_ftNow += 10'000'000;
        entry.info.times.ftLastWrite = entry.info.ftLastAccess = entry.qwVersion = device.m_ftNow;
    }
    EResult Ask(std::string_view strCall, const std::string& strPath) const {
        return device.lpFault ? device.lpFault(strCall, strPath) : EResult::SUCCESS;
    }
    EResult Judge(bool bMay, std::string_view strCall, const std::string& strPath) const {
        return bMay ? Ask(strCall, strPath) : EResult::REFUSED;
    }

    CMemoryDevice& device;
    std::list<std::pair<Entry, COpenMode>> uses;

  private:
    std::vector<std::pair<std::string, std::uint64_t>> m_storages;
    std::optional<std::uint64_t> m_qwQuota;
    std::atomic<bool> m_bWork{false};
};

namespace {

// A file that is open in one of the three ways.
class CMemoryFile final : public agent::CSourceFile,
                          public agent::CPartFile,
                          public agent::COpenFile {
  public:
    // A part has a name of its own until it is complete.
    CMemoryFile(CMemoryFolder& folder, std::string strPath, const COpenMode& mode,
                std::string strPart = {})
        : m_folder(folder), m_strPath(std::move(strPath)), m_strPart(std::move(strPart)),
          m_pEntry(folder.At(m_strPart.empty() ? m_strPath : m_strPart)), m_mode(mode),
          m_use(folder.uses.insert(folder.uses.end(), {m_pEntry, mode})) {}
    ~CMemoryFile() override {
        m_folder.uses.erase(m_use);
        if (!m_strPart.empty()) {
            m_folder.device.Remove(m_strPart);
        }
    }

    std::size_t Read(std::span<std::uint8_t> data) override {
        const std::size_t dwRead = Read(m_qwAt, data);
        m_qwAt += dwRead;
        return dwRead;
    }
    std::optional<std::uint64_t> Identity() const override { return m_pEntry->qwVersion; }

    EResult Write(std::span<const std::uint8_t> data) override {
        return Write(m_pEntry->strBytes.size(), data);
    }
    EResult Complete(const agent::CFileTimes& times) override {
        const bool bMay = !m_pEntry->bGone && m_folder.MayPut(m_strPath, true);
        const EResult eResult = m_folder.Judge(bMay, "Complete", m_strPath);
        if (eResult == EResult::SUCCESS) {
            agent::CFileTimes& own = m_pEntry->info.times;
            own.ftCreation = times.ftCreation ? times.ftCreation : own.ftCreation;
            own.ftLastWrite = times.ftLastWrite ? times.ftLastWrite : own.ftLastWrite;
            m_folder.device.Remove(m_strPath);
            m_folder.device.entries[m_strPath] = m_pEntry;
            m_folder.device.entries.erase(m_strPart);
        }
        return eResult;
    }

    std::optional<CState> StateForReading() const override {
        return m_mode.bRead && !m_pEntry->bUnreadable
                   ? std::optional(CState{m_pEntry->strBytes.size(), m_pEntry->qwVersion})
                   : std::nullopt;
    }
    std::size_t Read(std::uint64_t qwAt, std::span<std::uint8_t> data) override {
        const std::string& strBytes = m_pEntry->strBytes;
        const bool bReads = m_folder.Ask("Read", m_strPath) == EResult::SUCCESS;
        const auto dwAt = static_cast<std::size_t>(std::min<std::uint64_t>(qwAt, strBytes.size()));
        const std::size_t dwRead = bReads ? std::min(data.size(), strBytes.size() - dwAt) : 0;
        std::copy_n(strBytes.data() + dwAt, dwRead, data.data());
        return dwRead;
    }
    EResult JudgeWrite(std::uint64_t qwEnd) const override {
        const std::uint64_t qwSize = m_pEntry->strBytes.size();
        return !m_mode.bWrite || m_pEntry->bGone ? EResult::REFUSED
               : qwEnd <= qwSize || qwEnd - qwSize <= m_folder.Space(m_strPath).qwFree
                   ? EResult::SUCCESS
                   : EResult::NO_SPACE;
    }
    EResult Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) override {
        const std::uint64_t qwEnd = data.empty() ? 0 : qwAt + data.size();
        EResult eResult = JudgeWrite(qwEnd);
        eResult = eResult == EResult::SUCCESS ? m_folder.Ask("Write", m_strPath) : eResult;
        if (eResult == EResult::SUCCESS && !data.empty()) {
            std::string& strBytes = m_pEntry->strBytes;
            strBytes.resize(std::max(strBytes.size(), static_cast<std::size_t>(qwEnd)));
            std::copy(data.begin(), data.end(), strBytes.data() + qwAt);
            m_folder.Touch(*m_pEntry);
        }
        return eResult;
    }
    std::optional<std::uint64_t> Size() const override { return m_pEntry->strBytes.size(); }
    EResult Close() override { return m_folder.Ask("Close", m_strPath); }

  private:
    CMemoryFolder& m_folder;
    const std::string m_strPath;
    const std::string m_strPart; // empty for what is no part
    const Entry m_pEntry;
    const COpenMode m_mode;
    const std::list<std::pair<Entry, COpenMode>>::iterator m_use;
    std::uint64_t m_qwAt = 0;
};

constexpr COpenMode s_part{.bWrite = true, .bShareRead = true, .bShareWrite = true};
constexpr COpenMode s_source{.bShareRead = true, .bShareWrite = true};

class CMemoryScan final : public agent::CFolderScan {
  public:
    CMemoryScan(const CMemoryFolder& folder, std::string strPath)
        : m_folder(folder), m_strPath(std::move(strPath)), m_names(folder.NamesIn(m_strPath)) {}

    ENext Next(std::string& strName) override {
        if (m_folder.Ask("Next", m_strPath) != EResult::SUCCESS) {
            return ENext::FAILED;
        }
        if (m_names.empty()) {
            return ENext::END;
        }
        strName = m_names.back();
        m_names.pop_back();
        return agent::IsNameForHost(strName) ? ENext::NAME : ENext::SKIPPED;
    }
    std::optional<bool> FoldsCase(const std::string&) override { return m_folder.device.foldsCase; }

  private:
    const CMemoryFolder& m_folder;
    const std::string m_strPath;
    std::vector<std::string> m_names; // given from the last: a file system has an order of its own
};

class CMemoryWork final : public agent::CFolderWork {
  public:
    CMemoryWork(const CMemoryFolder& folder, std::string strPath, std::function<EResult()> lpLast)
        : m_folder(folder), m_strPath(std::move(strPath)), m_lpLast(std::move(lpLast)) {}

    std::optional<EResult> Step(agent::CWorkSlice) override {
        const EResult eResult = m_folder.Ask("Step", m_strPath);
        return eResult != EResult::SUCCESS ? std::optional(eResult)
               : --m_nLeft == 0            ? std::optional(m_lpLast())
                                           : std::nullopt;
    }

  private:
    const CMemoryFolder& m_folder;
    const std::string m_strPath;
    const std::function<EResult()> m_lpLast;
    unsigned m_nLeft = m_folder.device.nWorkSteps;
};

} // namespace

std::unique_ptr<agent::CFolderScan> CMemoryFolder::Scan(const CDevicePath& path) {
    return IsFolder(Readable(path.Text())) && Ask("Scan", path.Text()) == EResult::SUCCESS
               ? std::make_unique<CMemoryScan>(*this, path.Text())
               : nullptr;
}

std::unique_ptr<agent::CSourceFile> CMemoryFolder::OpenSource(const CDevicePath& path) {
    const Entry pEntry = Readable(path.Text());
    return pEntry && !IsFolder(pEntry) && Ask("OpenSource", path.Text()) == EResult::SUCCESS
               ? std::make_unique<CMemoryFile>(*this, path.Text(), s_source)
               : nullptr;
}

EResult CMemoryFolder::BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                                 std::unique_ptr<agent::CPartFile>& pPart) {
    if (m_qwQuota && qwSize > Space(path.Text()).qwFree) {
        return EResult::NO_SPACE;
    }
    for (std::string strOn = path.Text(); !strOn.empty();) {
        strOn = ParentOf(strOn);
        if (At(strOn) && !IsFolder(At(strOn))) {
            return EResult::REFUSED;
        }
    }
    device.MakeFolder(path.Parent().Text());
    const EResult eResult = Judge(MayPut(path.Text(), true), "BeginPart", path.Text());
    if (eResult == EResult::SUCCESS) {
        const std::string strPart = path.Parent().Entry(".dak-part").Text();
        device.Write(strPart, "");
        pPart = std::make_unique<CMemoryFile>(*this, path.Text(), s_part, strPart);
    }
    return eResult;
}

EResult CMemoryFolder::OpenFile(const CDevicePath& path, const COpenMode& mode,
                                std::unique_ptr<agent::COpenFile>& pFile) {
    const Entry pEntry = At(path.Text());
    const bool bEmpties = mode.eExisting == COpenMode::EExisting::EMPTY;
    const bool bWrites = mode.bWrite || bEmpties;
    const bool bShared = std::all_of(uses.begin(), uses.end(), [&](const auto& use) {
        return use.first != pEntry ||
               ((use.second.bShareRead || !mode.bRead) && (use.second.bShareWrite || !bWrites) &&
                (mode.bShareRead || !use.second.bRead) && (mode.bShareWrite || !use.second.bWrite));
    });
    const bool bMay =
        pEntry ? mode.eExisting != COpenMode::EExisting::REFUSE && !IsFolder(pEntry) &&
                     !(mode.bRead && pEntry->bUnreadable) && !(bWrites && pEntry->info.bReadOnly) &&
                     bShared
               : mode.eMissing == COpenMode::EMissing::MAKE && MayPut(path.Text(), false);
    const EResult eResult = Judge(bMay, "OpenFile", path.Text());
    if (eResult == EResult::SUCCESS) {
        if (!pEntry || bEmpties) {
            device.Write(path.Text(), "");
        }
        pFile = std::make_unique<CMemoryFile>(*this, path.Text(), mode);
    }
    return eResult;
}

std::unique_ptr<agent::CFolderWork>
CMemoryFolder::BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) {
    const Entry pSource = Readable(source.Text());
    const auto copy = [this, pSource, strFrom = source.Text(), strTo = target.Text(),
                       bFailIfExists] {
        const Entry pOld = At(strTo);
        std::map<std::string, Entry> clones;
        std::uint64_t qwBytes = 0;
        bool bMay = IsFolder(pSource) == IsFolder(pOld)
                        ? !pOld || (!bFailIfExists && !pOld->info.bReadOnly && !IsFixed(strTo))
                        : MayPut(strTo, false);
        for (const auto& [strPath, pEntry] : device.entries) {
            if (LiesIn(strPath, strFrom)) {
                const Entry pClone = clones[strTo + strPath.substr(strFrom.size())] =
                    std::make_shared<CMemoryEntry>(*pEntry);
                Touch(*pClone);
                pClone->info.times = {pClone->qwVersion, pEntry->info.times.ftLastWrite};
                qwBytes += pEntry->strBytes.size();
                bMay = bMay && !pEntry->bUnreadable;
            }
        }
        if (!bMay || LiesIn(strTo, strFrom) || LiesIn(strFrom, strTo) || clones.empty()) {
            return EResult::REFUSED;
        }
        if (qwBytes > Space(strTo).qwFree) {
            return EResult::NO_SPACE;
        }
        device.Remove(strTo);
        device.entries.merge(clones);
        return EResult::SUCCESS;
    };
    return pSource && IsFolder(At(ParentOf(target.Text())))
               ? std::make_unique<CMemoryWork>(*this, target.Text(), copy)
               : nullptr;
}

std::unique_ptr<agent::CFolderWork> CMemoryFolder::BeginMove(const CDevicePath& source,
                                                             const CDevicePath& target) {
    const auto move = [this, strFrom = source.Text(), strTo = target.Text()] {
        if (!At(strFrom) || IsFixed(strFrom) || !MayPut(strTo, false) || LiesIn(strTo, strFrom)) {
            return EResult::REFUSED;
        }
        std::map<std::string, Entry> moved;
        for (const auto& [strPath, pEntry] : device.entries) {
            moved[LiesIn(strPath, strFrom) ? strTo + strPath.substr(strFrom.size()) : strPath] =
                pEntry;
        }
        device.entries = std::move(moved);
        return EResult::SUCCESS;
    };
    return IsFolder(At(ParentOf(target.Text())))
               ? std::make_unique<CMemoryWork>(*this, target.Text(), move)
               : nullptr;
}

std::unique_ptr<agent::CFolderWork> CMemoryFolder::BeginFormat(const CDevicePath& storage) {
    return std::make_unique<CMemoryWork>(*this, storage.Text(),
                                         [this, storage] { return Format(storage); });
}

class CMemoryProcesses final : public agent::CDeviceProcesses {
  public:
    explicit CMemoryProcesses(CMemoryDevice& device) : m_device(device) {}

    std::shared_ptr<const agent::CProcessState>
    StartProgram(const CDevicePath& path, bool bBareName,
                 const std::vector<std::string>& arguments) override {
        const auto it = m_device.entries.find(path.Text());
        if (it == m_device.entries.end()
                ? !bBareName || !m_device.otherPrograms.contains(path.Text())
                : it->second->info.bFolder) {
            return nullptr;
        }
        const std::lock_guard<std::mutex> lock(m_device.m_mutex);
        return m_device.m_programs.emplace_back(path.Text(), arguments).pState;
    }
    void StartMessageCommands(const CVariables& variables) override {
        const std::lock_guard<std::mutex> lock(m_device.m_mutex);
        m_device.m_messages.push_back(variables);
    }
    void Tick(std::uint64_t) override {
        const std::lock_guard<std::mutex> lock(m_device.m_mutex);
        for (const CMemoryDevice::CProgram& program : m_device.m_programs) {
            *program.pState = {program.dwStatus.has_value(), program.dwStatus.value_or(0)};
        }
    }
    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override {
        const std::lock_guard<std::mutex> lock(m_device.m_mutex);
        return std::any_of(m_device.m_programs.begin(), m_device.m_programs.end(),
                           [](const auto& program) { return !program.pState->bEnded; })
                   ? std::optional(qwNowMs + 50)
                   : std::nullopt;
    }

  private:
    CMemoryDevice& m_device;
};

CMemoryDevice::CMemoryDevice() : strRoot("memory " + std::to_string(s_devices.size() + 1)) {
    s_devices[strRoot] = this;
    entries[""] = CMemoryFolder(*this).Make(true);
}

CMemoryDevice::~CMemoryDevice() {
    s_devices.erase(strRoot);
}

CMemoryEntry& CMemoryDevice::MakeFolder(const std::string& strPath) {
    if (!entries.contains(strPath)) {
        MakeFolder(ParentOf(strPath));
        entries[strPath] = CMemoryFolder(*this).Make(true);
    }
    return *entries.at(strPath);
}

CMemoryEntry& CMemoryDevice::Write(const std::string& strPath, std::string_view strBytes) {
    MakeFolder(ParentOf(strPath));
    Entry& pEntry = entries[strPath];
    pEntry = pEntry ? pEntry : CMemoryFolder(*this).Make(false);
    pEntry->strBytes = strBytes;
    CMemoryFolder(*this).Touch(*pEntry);
    return *pEntry;
}

void CMemoryDevice::Remove(const std::string& strPath) {
    std::erase_if(entries, [&](const auto& each) {
        const bool bGoes = LiesIn(each.first, strPath);
        each.second->bGone = each.second->bGone || bGoes;
        return bGoes;
    });
}

TREE CMemoryDevice::Files() const {
    TREE tree;
    for (const auto& [strPath, pEntry] : entries) {
        if (!pEntry->info.bFolder) {
            tree[strPath] = pEntry->strBytes;
        }
    }
    return tree;
}

std::vector<CMemoryDevice::CProgram> CMemoryDevice::Programs() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_programs;
}

void CMemoryDevice::EndProgram(std::size_t nProgram, std::uint32_t dwStatus) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_programs.at(nProgram).dwStatus = dwStatus;
}

std::vector<agent::CDeviceProcesses::CVariables> CMemoryDevice::Messages() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

} // namespace test

std::unique_ptr<agent::CDeviceFolder>
agent::CDeviceFolder::Open(const std::string& strRoot, std::function<void(const std::string&)>,
                           std::string& strError) {
    const auto it = test::s_devices.find(strRoot);
    strError = it == test::s_devices.end() ? strRoot + ": no device in memory" : "";
    return it == test::s_devices.end() ? nullptr
                                       : std::make_unique<test::CMemoryFolder>(*it->second);
}

std::shared_ptr<agent::CDeviceProcesses>
agent::CDeviceProcesses::Open(const CDeviceOptions& options, CDeviceFolder&, std::string&) {
    return std::make_shared<test::CMemoryProcesses>(*test::s_devices.at(options.strRoot));
}
