#include "tests/windows_device/folder_reading.h"

#include <algorithm>

#include "agent/device_path.h"

namespace windows_device {

namespace {

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

} // namespace

std::unique_ptr<agent::CSourceFile> MakeSource(const std::wstring& strPath) {
    CHandle file = OpenEntry(strPath, GENERIC_READ);
    const std::optional<CEntry> entry = EntryOf(file);
    return entry && !entry->info.bFolder
               ? std::make_unique<CWindowsSourceFile>(std::move(file), *entry)
               : nullptr;
}

std::unique_ptr<agent::CFolderScan> MakeScan(const std::wstring& strFolder,
                                             std::vector<std::string> first) {
    auto pScan = std::make_unique<CWindowsScan>(strFolder, std::move(first));
    return pScan->Open() ? std::move(pScan) : nullptr;
}

} // namespace windows_device
