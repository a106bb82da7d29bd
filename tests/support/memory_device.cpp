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

static CMemoryEntry FolderEntry() {
    CMemoryEntry entry;
    entry.info.bFolder = true;
    return entry;
}

static bool IsFolder(const Entry& pEntry) {
    return pEntry && pEntry->info.bFolder;
}

namespace {

// What an agent knows of the device: which storages it has, and who uses its files.
class CDisk {
  public:
    explicit CDisk(CMemoryDevice& memory) : device(memory) {}

    Entry At(const std::string& strPath) const {
        const auto it = device.entries.find(strPath);
        return it == device.entries.end() ? nullptr : it->second;
    }
    Entry Readable(const std::string& strPath) const {
        const Entry pEntry = At(strPath);
        return pEntry && !pEntry->bUnreadable ? pEntry : nullptr;
    }
    bool IsFixed(const std::string& strPath) const {
        return strPath.empty() || DiskOf(strPath) == strPath;
    }
    // The storage that a path lies in; empty for the root.
    std::string DiskOf(const std::string& strPath) const {
        const std::string strFirst = strPath.substr(0, strPath.find('/'));
        return storages.contains(strFirst) ? strFirst : "";
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
        const std::string strDisk = DiskOf(strPath);
        const std::uint64_t qwSize = strDisk.empty() ? device.qwRootSize : storages.at(strDisk);
        std::uint64_t qwUsed = 0;
        std::uint64_t qwAll = 0;
        for (const auto& [strEach, pEntry] : device.entries) {
            qwAll += pEntry->strBytes.size();
            qwUsed += DiskOf(strEach) == strDisk ? pEntry->strBytes.size() : 0;
        }
        agent::CQuota quota;
        qwQuota ? quota.Set(*qwQuota, qwAll) : void();
        return quota.Bound({qwSize, qwSize - std::min(qwUsed, qwSize)});
    }
    EResult Ask(std::string_view strCall, const std::string& strPath) const {
        return device.lpFault ? device.lpFault(strCall, strPath) : EResult::SUCCESS;
    }
    EResult Judge(bool bMay, std::string_view strCall, const std::string& strPath) const {
        return bMay ? Ask(strCall, strPath) : EResult::REFUSED;
    }
    // What lies under one path comes under another, itself or a copy of it.
    EResult Take(const std::string& strFrom, const std::string& strTo, bool bMove,
                 bool bReplaces) const {
        const Entry pFrom = bMove ? At(strFrom) : Readable(strFrom);
        const Entry pOld = At(strTo);
        const bool bFolders = bReplaces && IsFolder(pFrom) && IsFolder(pOld);
        bool bMay = pFrom && !LiesIn(strTo, strFrom) && !LiesIn(strFrom, strTo) &&
                    !(bMove && IsFixed(strFrom)) &&
                    (bFolders ? !pOld->info.bReadOnly && !IsFixed(strTo)
                              : MayPut(strTo, bReplaces && !IsFolder(pFrom)));
        std::map<std::string, Entry> taken;
        std::uint64_t qwBytes = 0;
        for (const auto& [strPath, pEntry] : device.entries) {
            if (bMay && LiesIn(strPath, strFrom)) {
                taken[strTo + strPath.substr(strFrom.size())] =
                    bMove ? pEntry : device.Make(*pEntry);
                qwBytes += bMove ? 0 : pEntry->strBytes.size();
                bMay = bMove || !pEntry->bUnreadable;
            }
        }
        if (!bMay || qwBytes > Space(strTo).qwFree) {
            return bMay ? EResult::NO_SPACE : EResult::REFUSED;
        }
        device.Remove(strTo);
        std::erase_if(device.entries,
                      [&](const auto& each) { return bMove && LiesIn(each.first, strFrom); });
        device.entries.merge(taken);
        return EResult::SUCCESS;
    }

    CMemoryDevice& device;
    std::map<std::string, std::uint64_t> storages; // with their sizes
    std::vector<std::string> storageNames;         // in their order
    std::optional<std::uint64_t> qwQuota;
    std::list<std::pair<Entry, COpenMode>> uses;
};

// A file that is open in one of the three ways.
class CMemoryFile final : public agent::CSourceFile,
                          public agent::CPartFile,
                          public agent::COpenFile {
  public:
    // A part has a name of its own until it is complete.
    CMemoryFile(CDisk& disk, std::string strPath, const COpenMode& mode, std::string strPart = {})
        : m_disk(disk), m_strPath(std::move(strPath)), m_strPart(std::move(strPart)),
          m_pEntry(disk.At(m_strPart.empty() ? m_strPath : m_strPart)), m_mode(mode),
          m_use(disk.uses.insert(disk.uses.end(), {m_pEntry, mode})) {}
    ~CMemoryFile() override {
        m_disk.uses.erase(m_use);
        if (!m_strPart.empty()) {
            m_disk.device.Remove(m_strPart);
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
        const bool bMay = !m_pEntry->bGone && m_disk.MayPut(m_strPath, true);
        const EResult eResult = m_disk.Judge(bMay, "Complete", m_strPath);
        if (eResult == EResult::SUCCESS) {
            agent::CFileTimes& own = m_pEntry->info.times;
            own.ftCreation = times.ftCreation ? times.ftCreation : own.ftCreation;
            own.ftLastWrite = times.ftLastWrite ? times.ftLastWrite : own.ftLastWrite;
            m_disk.device.Remove(m_strPath);
            m_disk.device.entries[m_strPath] = m_pEntry;
            m_disk.device.entries.erase(m_strPart);
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
        const bool bReads = m_disk.Ask("Read", m_strPath) == EResult::SUCCESS;
        const auto dwAt = static_cast<std::size_t>(std::min<std::uint64_t>(qwAt, strBytes.size()));
        const std::size_t dwRead = bReads ? std::min(data.size(), strBytes.size() - dwAt) : 0;
        std::copy_n(strBytes.data() + dwAt, dwRead, data.data());
        return dwRead;
    }
    EResult JudgeWrite(std::uint64_t qwEnd) const override {
        const std::uint64_t qwSize = m_pEntry->strBytes.size();
        return !m_mode.bWrite || m_pEntry->bGone ? EResult::REFUSED
               : qwEnd <= qwSize || qwEnd - qwSize <= m_disk.Space(m_strPath).qwFree
                   ? EResult::SUCCESS
                   : EResult::NO_SPACE;
    }
    EResult Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) override {
        const std::uint64_t qwEnd = data.empty() ? 0 : qwAt + data.size();
        EResult eResult = JudgeWrite(qwEnd);
        eResult = eResult == EResult::SUCCESS ? m_disk.Ask("Write", m_strPath) : eResult;
        if (eResult == EResult::SUCCESS && !data.empty()) {
            std::string& strBytes = m_pEntry->strBytes;
            strBytes.resize(std::max(strBytes.size(), static_cast<std::size_t>(qwEnd)));
            std::copy(data.begin(), data.end(), strBytes.data() + qwAt);
            m_disk.device.Touch(*m_pEntry);
        }
        return eResult;
    }
    std::optional<std::uint64_t> Size() const override { return m_pEntry->strBytes.size(); }
    EResult Close() override { return m_disk.Ask("Close", m_strPath); }

  private:
    CDisk& m_disk;
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
    CMemoryScan(const CDisk& disk, std::string strPath)
        : m_disk(disk), m_strPath(std::move(strPath)), m_names(disk.NamesIn(m_strPath)) {}

    ENext Next(std::string& strName) override {
        if (m_disk.Ask("Next", m_strPath) != EResult::SUCCESS || m_names.empty()) {
            return m_names.empty() ? ENext::END : ENext::FAILED;
        }
        strName = m_names.back();
        m_names.pop_back();
        return agent::IsNameForHost(strName) ? ENext::NAME : ENext::SKIPPED;
    }
    std::optional<bool> FoldsCase(const std::string&) override { return m_disk.device.foldsCase; }

  private:
    const CDisk& m_disk;
    const std::string m_strPath;
    std::vector<std::string> m_names; // given from the last: a file system has an order of its own
};

class CMemoryWork final : public agent::CFolderWork {
  public:
    CMemoryWork(const CDisk& disk, std::string strPath, std::function<EResult()> lpLast)
        : m_disk(disk), m_strPath(std::move(strPath)), m_lpLast(std::move(lpLast)) {}

    std::optional<EResult> Step(agent::CWorkSlice) override {
        const EResult eResult = m_disk.Ask("Step", m_strPath);
        return eResult != EResult::SUCCESS ? std::optional(eResult)
               : --m_nLeft == 0            ? std::optional(m_lpLast())
                                           : std::nullopt;
    }

  private:
    const CDisk& m_disk;
    const std::string m_strPath;
    const std::function<EResult()> m_lpLast;
    unsigned m_nLeft = m_disk.device.nWorkSteps;
};

class CMemoryFolder final : public agent::CDeviceFolder, public CDisk {
  public:
    using CDisk::CDisk;

    bool AddStorage(const std::string& strName, const std::string& strFolder,
                    std::string& strError) override {
        const bool bThere = device.disks.contains(strFolder);
        if (bThere) {
            storages[strName] = device.disks.at(strFolder);
            storageNames.push_back(strName);
            device.MakeFolder(strName);
        }
        strError = bThere ? "" : strFolder + ": not there";
        return bThere;
    }
    void RemoveLeftovers(bool) override {}
    void SetQuota(std::uint64_t qwBytes) override { qwQuota = qwBytes; }
    std::optional<agent::CEntryInfo> Find(const CDevicePath& path) override {
        return Readable(path.Text()) ? Describe(path) : std::nullopt;
    }
    std::optional<agent::CEntryInfo> Describe(const CDevicePath& path) override {
        const Entry pEntry = At(path.Text());
        if (!pEntry) {
            return std::nullopt;
        }
        pEntry->info.qwSize = pEntry->strBytes.size();
        pEntry->info.qwIdentity = pEntry->qwVersion;
        return pEntry->info;
    }
    std::unique_ptr<agent::CFolderScan> Scan(const CDevicePath& path) override {
        const bool bMay = IsFolder(Readable(path.Text()));
        return Judge(bMay, "Scan", path.Text()) == EResult::SUCCESS
                   ? std::make_unique<CMemoryScan>(*this, path.Text())
                   : nullptr;
    }
    std::unique_ptr<agent::CFolderWork>
    BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) override {
        return BeginTaking(source.Text(), target.Text(), false, !bFailIfExists);
    }
    std::unique_ptr<agent::CFolderWork> BeginMove(const CDevicePath& source,
                                                  const CDevicePath& target) override {
        return BeginTaking(source.Text(), target.Text(), true, false);
    }
    std::unique_ptr<agent::CSourceFile> OpenSource(const CDevicePath& path) override {
        const Entry pEntry = Readable(path.Text());
        const bool bMay = pEntry && !IsFolder(pEntry);
        return Judge(bMay, "OpenSource", path.Text()) == EResult::SUCCESS
                   ? std::make_unique<CMemoryFile>(*this, path.Text(), s_source)
                   : nullptr;
    }
    agent::CFd OpenProgram(const CDevicePath&) override { return {}; }
    EResult OpenFile(const CDevicePath& path, const COpenMode& mode,
                     std::unique_ptr<agent::COpenFile>& pFile) override {
        const Entry pEntry = At(path.Text());
        const bool bEmpties = mode.eExisting == COpenMode::EExisting::EMPTY;
        const bool bWrites = mode.bWrite || bEmpties;
        const bool bShared = std::all_of(uses.begin(), uses.end(), [&](const auto& use) {
            const COpenMode& other = use.second;
            return use.first != pEntry ||
                   ((other.bShareRead || !mode.bRead) && (other.bShareWrite || !bWrites) &&
                    (mode.bShareRead || !other.bRead) && (mode.bShareWrite || !other.bWrite));
        });
        const bool bMay =
            pEntry ? mode.eExisting != COpenMode::EExisting::REFUSE && !IsFolder(pEntry) &&
                         !(mode.bRead && pEntry->bUnreadable) &&
                         !(bWrites && pEntry->info.bReadOnly) && bShared
                   : mode.eMissing == COpenMode::EMissing::MAKE && MayPut(path.Text(), false);
        const EResult eResult = Judge(bMay, "OpenFile", path.Text());
        if (eResult == EResult::SUCCESS) {
            !pEntry || bEmpties ? static_cast<void>(device.Write(path.Text(), "")) : void();
            pFile = std::make_unique<CMemoryFile>(*this, path.Text(), mode);
        }
        return eResult;
    }
    EResult BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                      std::unique_ptr<agent::CPartFile>& pPart) override {
        if (qwQuota && qwSize > Space(path.Text()).qwFree) {
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
    void EndParts() override {}
    EResult MakeFolder(const CDevicePath& path) override {
        const EResult eResult = Judge(MayPut(path.Text(), false), "MakeFolder", path.Text());
        eResult == EResult::SUCCESS ? static_cast<void>(device.MakeFolder(path.Text())) : void();
        return eResult;
    }
    EResult Remove(const CDevicePath& path) override {
        const Entry pEntry = At(path.Text());
        const bool bMay =
            pEntry && !IsFixed(path.Text()) &&
            (IsFolder(pEntry) ? NamesIn(path.Text()).empty() : !pEntry->info.bReadOnly);
        const EResult eResult = Judge(bMay, "Remove", path.Text());
        eResult == EResult::SUCCESS ? device.Remove(path.Text()) : void();
        return eResult;
    }
    std::optional<agent::CSpace> SpaceOf(const CDevicePath& folder) override {
        return IsFolder(At(folder.Text())) ? std::optional(Space(folder.Text())) : std::nullopt;
    }
    std::vector<std::string> StorageNames() const override { return storageNames; }
    std::unique_ptr<agent::CFolderWork> BeginFormat(const CDevicePath& storage) override {
        const bool bMay = IsFixed(storage.Text()) && !At(storage.Text())->info.bReadOnly;
        const auto format = [this, bMay, storage] {
            for (const std::string& strName :
                 bMay ? NamesIn(storage.Text()) : std::vector<std::string>()) {
                const std::string strPath = storage.Entry(strName).Text();
                IsFixed(strPath) ? void() : device.Remove(strPath);
            }
            m_bWork = m_bWork || bMay;
            return bMay ? EResult::SUCCESS : EResult::REFUSED;
        };
        return std::make_unique<CMemoryWork>(*this, storage.Text(), format);
    }
    bool HasWork(bool) const override { return m_bWork; }
    void Work(bool, agent::CWorkSlice) override { m_bWork = false; }

  private:
    std::unique_ptr<agent::CFolderWork>
    BeginTaking(const std::string& strFrom, const std::string& strTo, bool bMove, bool bReplaces) {
        return IsFolder(At(ParentOf(strTo)))
                   ? std::make_unique<CMemoryWork>(
                         *this, strTo, [=, this] { return Take(strFrom, strTo, bMove, bReplaces); })
                   : nullptr;
    }

    std::atomic<bool> m_bWork{false};
};

} // namespace

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
    entries[""] = Make(FolderEntry());
}

CMemoryDevice::~CMemoryDevice() {
    s_devices.erase(strRoot);
}

void CMemoryDevice::Touch(CMemoryEntry& entry) {
    m_ftNow += 10'000'000;
    entry.info.times.ftLastWrite = entry.info.ftLastAccess = entry.qwVersion = m_ftNow;
}

// A copy keeps the time of the last write, if it has one.
Entry CMemoryDevice::Make(const CMemoryEntry& from) {
    const auto pEntry = std::make_shared<CMemoryEntry>(from);
    Touch(*pEntry);
    agent::CFileTimes& times = pEntry->info.times;
    times.ftCreation = pEntry->qwVersion;
    times.ftLastWrite =
        from.info.times.ftLastWrite != 0 ? from.info.times.ftLastWrite : times.ftLastWrite;
    return pEntry;
}

CMemoryEntry& CMemoryDevice::MakeFolder(const std::string& strPath) {
    if (!entries.contains(strPath)) {
        MakeFolder(ParentOf(strPath));
        entries[strPath] = Make(FolderEntry());
    }
    return *entries.at(strPath);
}

CMemoryEntry& CMemoryDevice::Write(const std::string& strPath, std::string_view strBytes) {
    MakeFolder(ParentOf(strPath));
    Entry& pEntry = entries[strPath];
    pEntry = pEntry ? pEntry : Make(CMemoryEntry());
    pEntry->strBytes = strBytes;
    Touch(*pEntry);
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
