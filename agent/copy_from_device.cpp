// Copy from the device. First the list of files is made, in slices, from the wanted names; sizes,
// times and identities are fixed with it. Then the stream is given: result word, count, and the
// records. A file is opened when its contents are due and closed behind them, so that memory holds
// the list and one package whatever the files' sizes. One that is not as it was listed by then, or
// behind its last byte, is not given to its end: the host never holds a mix of two contents.
#include <algorithm>
#include <cstring>

#include "agent/copy_files.h"
#include "agent/device.h"
#include "agent/name_queue.h"
#include "agent/stream_sender.h"

namespace agent {

namespace {

// Files and bytes of names that one command may come to.
constexpr std::size_t s_nMostFiles = 500'000;
constexpr std::size_t s_dwMostNames = std::size_t{64} << 20;

// dwStreamResult of a stream that holds what it announces.
constexpr std::uint32_t s_dwStreamResult = 1;
constexpr std::size_t s_dwStreamHead = 8;

struct CListedFile {
    std::uint32_t dwSize;
    std::uint32_t dwPathLength; // of its path in the names, UTF-8
    std::size_t dwPathAt;
    CFileTimes times;
    std::uint64_t qwIdentity;
};

class CFileSource final : public CStreamSource {
  public:
    CFileSource(CDevice& device, const std::u16string& strSource, std::uint32_t dwNames,
                std::span<const std::uint8_t> names)
        : m_device(device), m_source(CDevicePath::Parse(strSource)), m_dwNamesLeft(dwNames),
          m_names(names.begin(), names.end()) {}

    EWork Begin() override;
    std::uint64_t Length() const override { return m_qwLength; }
    void Rewind() override;
    bool Read(std::span<std::uint8_t>& data) override;

  private:
    // A folder whose files are being listed. Its names are gathered first, since they go out
    // sorted.
    struct CLevel {
        std::string strRelative;
        std::unique_ptr<CFolderScan> pScan; // null when all names are there
        CNameQueue names = {};
    };

    bool NextWanted();
    void NextEntry();
    void TakeName(CLevel& level);
    void Look(const std::string& strRelative);
    CDevicePath PathOf(const std::string& strRelative) const;
    bool HasRoomFor(std::size_t dwName);
    void Refuse(const std::string& strWhy);
    void AddFile(const CDevicePath& path, const std::string& strRelative, const CEntryInfo& info);
    std::string RelativeOf(const CListedFile& file) const;
    void BeginRecord();
    bool OpenContents();
    bool IsAsListed() const;
    bool ReadContents(std::span<std::uint8_t> data);

    CDevice& m_device;
    const std::optional<CDevicePath> m_source;

    // The list in the making.
    std::uint32_t m_dwNamesLeft;
    std::vector<std::uint8_t> m_names; // of the command, from the next one on
    std::size_t m_dwNamesAt = 0;
    std::vector<CLevel> m_levels; // the folders in work, each in the one ahead of it
    std::size_t m_nToLook = 0;    // names in them
    std::size_t m_dwToLook = 0;   // their bytes
    bool m_bRefused = false;

    // The list.
    std::vector<CListedFile> m_files;
    std::string m_strPaths;
    std::uint64_t m_qwLength = s_dwStreamHead;

    // The pass in hand.
    std::vector<std::uint8_t> m_fields; // head of the stream or of a record
    std::size_t m_dwFieldsAt = 0;
    std::size_t m_nNextFile = 0;
    std::uint64_t m_qwLeft = 0; // of the contents of file m_nNextFile - 1
    std::unique_ptr<CSourceFile> m_pFile;
    bool m_bLost = false; // a part of these contents could not be had
};

// Looks at the next wanted name of the command. False when there is none left.
bool CFileSource::NextWanted() {
    if (m_dwNamesLeft == 0) {
        return false;
    }
    --m_dwNamesLeft;
    CPayload payload(std::span<const std::uint8_t>(m_names).subspan(m_dwNamesAt));
    std::u16string strName;
    payload.TakeText(strName, DAK_MAX_NAME); // the command was judged when it came
    m_dwNamesAt = m_names.size() - payload.Rest().size();
    const std::optional<CDevicePath> path = CDevicePath().Below(strName);
    if (path) {
        Look(path->Text());
    } else {
        m_device.Log("copy from the device: a name that is not allowed is left out");
    }
    return true;
}

EWork CFileSource::Begin() {
    do {
        if (!m_levels.empty()) {
            NextEntry();
        } else if (!NextWanted()) {
            m_names = {};
            m_device.Log("copy from the device: " + std::to_string(m_files.size()) + " files");
            Rewind();
            return EWork::DONE;
        }
        m_device.Slice().Spend();
    } while (!m_bRefused && !m_device.Slice().Over());
    return m_bRefused ? EWork::FAILED : EWork::MORE;
}

void CFileSource::NextEntry() {
    CLevel& level = m_levels.back();
    if (level.pScan) {
        TakeName(level);
    } else if (level.names.Size() == 0) {
        m_levels.pop_back();
    } else {
        const std::string strName(level.names.Pop());
        --m_nToLook;
        m_dwToLook -= strName.size();
        Look(level.strRelative.empty() ? strName : level.strRelative + "/" + strName);
    }
}

void CFileSource::TakeName(CLevel& level) {
    std::string strName;
    switch (level.pScan->Next(strName)) {
    case CFolderScan::ENext::NAME:
        if (HasRoomFor(strName.size()) && level.names.Push(strName, SIZE_MAX)) {
            ++m_nToLook;
            m_dwToLook += strName.size();
        }
        return;
    case CFolderScan::ENext::LINK:
        return;
    case CFolderScan::ENext::SKIPPED:
        if (IsNameForHost(strName)) {
            m_device.Log("copy from the device: " + PathOf(level.strRelative).Text() + "/" +
                         strName + " is nothing to be copied, left out");
        }
        return;
    case CFolderScan::ENext::END:
        level.pScan.reset();
        return;
    case CFolderScan::ENext::FAILED:
        Refuse("folder \\" + PathOf(level.strRelative).Text() + " cannot be listed");
        return;
    }
}

CDevicePath CFileSource::PathOf(const std::string& strRelative) const {
    return strRelative.empty() ? *m_source : m_source->Entry(strRelative);
}

// The whole command: a part of what it wants would look like all.
void CFileSource::Refuse(const std::string& strWhy) {
    m_device.Log("copy from the device: " + strWhy);
    m_bRefused = true;
}

// Whether one more name may be kept, as a file of the list or to be looked at.
bool CFileSource::HasRoomFor(std::size_t dwName) {
    const bool bRoom = m_files.size() + m_nToLook < s_nMostFiles &&
                       m_strPaths.size() + m_dwToLook + dwName <= s_dwMostNames;
    if (!bRoom && !m_bRefused) {
        Refuse("more files than one command may come to");
    }
    return bRoom;
}

void CFileSource::Look(const std::string& strRelative) {
    if (!m_source) {
        return;
    }
    const CDevicePath path = PathOf(strRelative);
    const std::optional<CEntryInfo> info = m_device.Folder().Find(path);
    if (!info) {
        m_device.Log("copy from the device: " + path.Text() + " cannot be read, left out");
    } else if (!info->bFolder) {
        AddFile(path, strRelative, *info);
    } else if (auto pScan = m_device.Folder().Scan(path)) {
        m_levels.push_back({strRelative, std::move(pScan)});
    } else {
        Refuse("folder \\" + path.Text() + " cannot be listed");
    }
}

void CFileSource::AddFile(const CDevicePath& path, const std::string& strRelative,
                          const CEntryInfo& info) {
    const std::optional<std::u16string> strName = path.HostNameIn(*m_source);
    if (!strName || strName->empty() || strName->size() >= DAK_MAX_NAME ||
        info.qwSize > UINT32_MAX) {
        m_device.Log("copy from the device: " + path.Text() + " is too large or named too long");
        return;
    }
    if (!HasRoomFor(strRelative.size())) {
        return;
    }
    m_files.push_back({static_cast<std::uint32_t>(info.qwSize),
                       static_cast<std::uint32_t>(strRelative.size()), m_strPaths.size(),
                       info.times, info.qwIdentity});
    m_strPaths += strRelative;
    m_qwLength += RECORD_HEAD_SIZE + 2 * (strName->size() + 1) + info.qwSize;
}

std::string CFileSource::RelativeOf(const CListedFile& file) const {
    return m_strPaths.substr(file.dwPathAt, file.dwPathLength);
}

void CFileSource::Rewind() {
    m_fields.assign(s_dwStreamHead, 0);
    DakPutU32(m_fields.data(), s_dwStreamResult);
    DakPutU32(m_fields.data() + 4, static_cast<std::uint32_t>(m_files.size()));
    m_dwFieldsAt = 0;
    m_nNextFile = 0;
    m_qwLeft = 0;
    m_pFile.reset();
    m_bLost = false;
}

void CFileSource::BeginRecord() {
    const CListedFile& file = m_files[m_nNextFile++];
    const std::u16string strName =
        m_source->Entry(RelativeOf(file)).HostNameIn(*m_source).value_or(u"");
    m_fields.assign(RECORD_HEAD_SIZE + 2 * (strName.size() + 1), 0);
    DakPutU32(m_fields.data(), file.dwSize);
    DakPutU64(m_fields.data() + 8, file.times.ftCreation);
    DakPutU64(m_fields.data() + 16, file.times.ftLastWrite);
    for (std::size_t i = 0; i < strName.size(); ++i) {
        DakPutU16(m_fields.data() + RECORD_HEAD_SIZE + 2 * i, strName[i]);
    }
    m_dwFieldsAt = 0;
    m_qwLeft = file.dwSize;
    m_pFile.reset();
    m_bLost = false;
}

bool CFileSource::OpenContents() {
    m_pFile = m_device.Folder().OpenSource(m_source->Entry(RelativeOf(m_files[m_nNextFile - 1])));
    return m_pFile && IsAsListed();
}

bool CFileSource::IsAsListed() const {
    return m_pFile->Identity() == m_files[m_nNextFile - 1].qwIdentity;
}

// What comes behind a part that could not be had would not stand where it belongs.
bool CFileSource::ReadContents(std::span<std::uint8_t> data) {
    const bool bOpen = !m_bLost && (m_pFile || OpenContents());
    const std::size_t dwRead = bOpen ? m_pFile->Read(data) : 0;
    std::fill(data.begin() + static_cast<std::ptrdiff_t>(dwRead), data.end(), std::uint8_t{0});
    m_qwLeft -= data.size();
    const bool bGood = dwRead == data.size() && (m_qwLeft > 0 || IsAsListed());
    if (m_qwLeft == 0) {
        m_pFile.reset();
    }
    if (bGood) {
        return true;
    }
    m_bLost = true;
    m_device.Log("copy from the device: " + RelativeOf(m_files[m_nNextFile - 1]) +
                 " has changed, or cannot be read");
    return false;
}

bool CFileSource::Read(std::span<std::uint8_t>& data) {
    bool bAll = true;
    do {
        std::size_t dwCount = 0;
        if (m_dwFieldsAt < m_fields.size()) {
            dwCount = std::min(m_fields.size() - m_dwFieldsAt, data.size());
            std::memcpy(data.data(), m_fields.data() + m_dwFieldsAt, dwCount);
            m_dwFieldsAt += dwCount;
        } else if (m_qwLeft > 0) {
            dwCount = static_cast<std::size_t>(std::min<std::uint64_t>(m_qwLeft, data.size()));
            bAll = ReadContents(data.first(dwCount)) && bAll;
            m_device.Slice().Spend();
        } else {
            BeginRecord();
        }
        data = data.subspan(dwCount);
    } while (!data.empty() && !m_device.Slice().Over());
    return bAll;
}

} // namespace

std::unique_ptr<CExchange> OpenCopyFromDevice(CDevice& device, const std::u16string& strSource,
                                              CPayload payload) {
    std::uint32_t dwNames = 0;
    if (!payload.TakeU32(dwNames)) {
        return nullptr;
    }
    const std::span<const std::uint8_t> names = payload.Rest();
    std::u16string strName;
    for (std::uint32_t i = 0; i < dwNames; ++i) {
        if (!payload.TakeText(strName, DAK_MAX_NAME)) {
            return nullptr;
        }
    }
    if (!payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CStreamSender>(
        DAK_FUNC_TRANSMIT_FILES, std::make_unique<CFileSource>(device, strSource, dwNames, names));
}

} // namespace agent
