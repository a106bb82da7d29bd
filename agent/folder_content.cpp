// The content of a folder: one counted reply of entries that run on over any number of packages,
// without checksums. The host confirms packages 50, 100 and so on and the last one, but never the
// first.
//
// The count stands ahead of the first entry, so the names are gathered first, in slices. The
// entries themselves are made as they go out and never held.
#include <algorithm>
#include <utility>

#include "agent/copy_files.h"
#include "agent/device.h"
#include "agent/fields_exchange.h"
#include "agent/file_info.h"
#include "agent/name_queue.h"
#include "agent/operations.h"
#include "agent/wildcard.h"

namespace agent {

namespace {

constexpr std::size_t s_dwFirstHead = 18;
constexpr std::size_t s_dwLaterHead = 10;
constexpr std::size_t s_dwCountOffset = 14;

// Of all names together. The host would need gigabytes for the records of a folder that has more.
constexpr std::size_t s_dwMaxNames = std::size_t{64} << 20;

using Bytes = CFieldBytes;

void AppendU64(Bytes& bytes, std::uint64_t qwValue) {
    AppendU32(bytes, static_cast<std::uint32_t>(qwValue));
    AppendU32(bytes, static_cast<std::uint32_t>(qwValue >> 32));
}

void AppendText(Bytes& bytes, const std::u16string& strText) {
    const std::size_t dwAt = bytes.size();
    bytes.resize(dwAt + 2 * (strText.size() + 1));
    for (std::size_t i = 0; i < strText.size(); ++i) {
        DakPutU16(bytes.data() + dwAt + 2 * i, strText[i]);
    }
}

// The order differs from that of the record of one file.
Bytes EntryBytes(const CFileFields& fields) {
    Bytes bytes;
    AppendU32(bytes, fields.dwAttributes);
    AppendText(bytes, fields.strName);
    AppendText(bytes, fields.strPath);
    AppendText(bytes, fields.strType);
    AppendU64(bytes, fields.times.ftCreation);
    AppendU64(bytes, fields.times.ftLastWrite);
    AppendU64(bytes, fields.ftLastAccess);
    AppendU32(bytes, static_cast<std::uint32_t>(fields.qwSize >> 32));
    AppendU32(bytes, static_cast<std::uint32_t>(fields.qwSize));
    return bytes;
}

class CFolderContent final : public CExchange {
  public:
    CFolderContent(CDevice& device, std::u16string strPath)
        : m_device(device), m_strPath(std::move(strPath)) {}

    void Take(std::span<const std::uint8_t> package, COutbox& outbox, std::uint64_t) override {
        const bool bConfirmed = package.size() == DAK_HEADER_SIZE &&
                                DakGetU32(package.data()) == DAK_SUCCESS &&
                                m_eState == EState::AWAITING && outbox.Empty();
        if (bConfirmed) {
            m_eState = m_nTold == m_nEntries && m_entry.empty() ? EState::ENDED : EState::GIVING;
        }
    }

    void Prepare(COutbox& outbox) override {
        if (m_eState == EState::GATHERING) {
            Gather();
        }
        if (m_eState == EState::GIVING) {
            Give(outbox);
        } else if (m_eState == EState::FAILED) {
            GiveFailure(outbox);
        }
    }

    void Tick(COutbox& outbox, std::uint64_t) override {
        if (m_eState == EState::GATHERING) {
            Gather();
        } else if (!m_package.empty()) {
            Give(outbox);
        }
    }

    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override {
        return m_eState == EState::GATHERING || !m_package.empty() ? std::optional(qwNowMs + 1)
                                                                   : std::nullopt;
    }

    // Nothing can close the hole: the host has no way to ask for a package again.
    void PendingDropped() override {
        if (m_eState != EState::GATHERING) {
            m_eState = EState::LEFT;
        }
    }

    bool Ended() const override { return m_eState == EState::ENDED; }

  private:
    enum class EState { GATHERING, GIVING, AWAITING, FAILED, LEFT, ENDED };

    void Begin();
    void Gather();
    bool Matches(const std::string& strName);
    void TakeName(const std::string& strName);
    void Finish(EState eState, const char* lpszWhat);
    void Give(COutbox& outbox);
    void GiveFailure(COutbox& outbox);

    CDevice& m_device;
    const std::u16string m_strPath;
    EState m_eState = EState::GATHERING;
    CDevicePath m_folder;
    std::unique_ptr<CFolderScan> m_pScan;
    std::string m_strPattern; // until it is known whether letters count
    std::optional<CWildcard> m_wildcard;
    CNameQueue m_names;
    bool m_bTooMany = false;
    std::size_t m_nTooLong = 0;
    std::size_t m_nEntries = 0;
    std::size_t m_nTold = 0; // entries that are on their way
    Bytes m_entry;           // what is left of the latest one
    Bytes m_package;         // in the making; else empty
    std::uint64_t m_qwPackages = 0;
};

// The path names a folder, or a file alone, or ends in a pattern.
void CFolderContent::Begin() {
    const std::optional<CDevicePath> path = CDevicePath::Parse(m_strPath);
    if (!path) {
        return;
    }
    const bool bPattern = IsPattern(path->Leaf()) && path->Leaf().size() <= 4 * FILE_TEXT_CHARS;
    const std::optional<CEntryInfo> info =
        bPattern ? std::nullopt : m_device.Folder().Describe(*path);
    m_folder = bPattern || (info && !info->bFolder) ? path->Parent() : *path;
    if (info && !info->bFolder) {
        TakeName(std::string(path->Leaf()));
        Finish(EState::GIVING, nullptr);
        return;
    }
    m_pScan = m_device.Folder().Scan(m_folder);
    if (m_pScan && bPattern) {
        m_strPattern = path->Leaf();
        m_wildcard.emplace(m_strPattern, false);
    }
}

void CFolderContent::Gather() {
    if (!m_pScan) {
        Begin();
        if (!m_pScan && m_eState == EState::GATHERING) {
            Finish(EState::FAILED, "not there");
        }
        return;
    }
    std::string strName;
    CWorkSlice& slice = m_device.Slice();
    do {
        switch (m_pScan->Next(strName)) {
        case CFolderScan::ENext::NAME:
        case CFolderScan::ENext::LINK:
            if (Matches(strName)) {
                TakeName(strName);
            }
            break;
        case CFolderScan::ENext::SKIPPED:
            break;
        case CFolderScan::ENext::END:
            Finish(m_bTooMany ? EState::FAILED : EState::GIVING,
                   m_bTooMany ? "too many names" : nullptr);
            return;
        case CFolderScan::ENext::FAILED:
            Finish(EState::FAILED, "cannot be read");
            return;
        }
        slice.Spend();
    } while (!slice.Over());
}

// The first name with letters tells whether they count. To a name without any that is all the same.
bool CFolderContent::Matches(const std::string& strName) {
    if (!m_strPattern.empty()) {
        if (const std::optional<bool> bFolds = m_pScan->FoldsCase(strName)) {
            m_wildcard.emplace(m_strPattern, *bFolds);
            m_strPattern.clear();
        }
    }
    return !m_wildcard || m_wildcard->Matches(strName);
}

void CFolderContent::TakeName(const std::string& strName) {
    if (ToUtf16(strName).value_or(u"").size() >= FILE_TEXT_CHARS) {
        ++m_nTooLong;
    } else {
        m_bTooMany = m_bTooMany || !m_names.Push(strName, s_dwMaxNames);
    }
}

void CFolderContent::Finish(EState eState, const char* lpszWhat) {
    m_eState = eState;
    m_pScan.reset();
    m_nEntries = m_names.Size();
    m_device.Log("list " + m_folder.Text() + ": " +
                 (lpszWhat ? std::string(lpszWhat) : std::to_string(m_nEntries) + " entries") +
                 (m_nTooLong > 0 ? ", " + std::to_string(m_nTooLong) + " names too long" : ""));
}

void CFolderContent::Give(COutbox& outbox) {
    const bool bFirst = m_qwPackages == 0;
    if (m_package.empty()) {
        m_package.resize(bFirst ? s_dwFirstHead : s_dwLaterHead);
    }
    CWorkSlice& slice = m_device.Slice();
    bool bOver = false;
    while (m_package.size() < DAK_PACKAGE_SIZE && (m_nTold < m_nEntries || !m_entry.empty())) {
        if (bOver) {
            return;
        }
        if (m_entry.empty()) {
            const CDevicePath path = m_folder.Entry(m_names.Pop());
            m_entry = EntryBytes(FieldsOf(path, m_device.Folder().Describe(path)));
            ++m_nTold;
            slice.Spend();
        }
        const auto itEnd =
            m_entry.begin() + static_cast<std::ptrdiff_t>(
                                  std::min(m_entry.size(), DAK_PACKAGE_SIZE - m_package.size()));
        m_package.insert(m_package.end(), m_entry.begin(), itEnd);
        m_entry.erase(m_entry.begin(), itEnd);
        bOver = slice.Over();
    }
    Bytes package = std::exchange(m_package, {});
    ++m_qwPackages;
    const bool bLast = m_nTold == m_nEntries && m_entry.empty();
    DakPutHeader(package.data(), bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                 static_cast<std::uint32_t>(package.size()) - DAK_HEADER_SIZE);
    DakPutU16(package.data() + DAK_OFFSET_CODE, DAK_FUNC_GET_FOLDER_CONTENT);
    if (bFirst) {
        DakPutU32(package.data() + DAK_OFFSET_RESULT, 1);
        DakPutU32(package.data() + s_dwCountOffset, static_cast<std::uint32_t>(m_nEntries));
    }
    outbox.Put(std::move(package));
    if (bFirst && bLast) {
        m_eState = EState::ENDED;
    } else if (bLast || m_qwPackages % DAK_WINDOW_PACKAGES == 0) {
        m_eState = EState::AWAITING;
    }
}

// The host does not read the result word of a listing. What it does take for a failure, at once
// and for certain, is a reply that announces an entry and ends within it.
void CFolderContent::GiveFailure(COutbox& outbox) {
    Bytes package(s_dwFirstHead + 2);
    DakPutHeader(package.data(), DAK_LAST_REPLY,
                 static_cast<std::uint32_t>(package.size()) - DAK_HEADER_SIZE);
    DakPutU16(package.data() + DAK_OFFSET_CODE, DAK_FUNC_GET_FOLDER_CONTENT);
    DakPutU32(package.data() + s_dwCountOffset, 1);
    outbox.Put(std::move(package));
    m_eState = EState::ENDED;
}

} // namespace

std::unique_ptr<CExchange> OpenGetFolderContent(CDevice& device, CPayload payload) {
    std::u16string strPath;
    if (!payload.TakeText(strPath, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFolderContent>(device, std::move(strPath));
}

} // namespace agent
