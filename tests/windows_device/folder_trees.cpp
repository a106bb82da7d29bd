#include "tests/windows_device/folder_trees.h"

#include <algorithm>

#include "agent/device_path.h"

namespace windows_device {

using agent::EResult;

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

bool CTrees::HoldsServed(const CIdentity& folder) const {
    return std::any_of(served.begin(), served.end(),
                       [&](const CServed& each) { return LiesIn(each.strFolder, folder); });
}

// A name of the agent's own that is free.
std::wstring CTrees::PartIn(const std::wstring& strFolder) {
    return strFolder + L"\\.dak-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
           std::to_wstring(reinterpret_cast<std::uintptr_t>(this)) + L"-" +
           std::to_wstring(++m_nPart) + L".part";
}

// The system refuses to replace a file that is open, so that one is led aside first.
EResult CTrees::PutInPlace(const std::wstring& strPart, const std::wstring& strTarget) {
    const std::optional<CEntry> old = Look(strTarget);
    if (old && !old->info.bFolder && old->info.bReadOnly) {
        return EResult::REFUSED;
    }
    const bool bAside = old && (old->info.bFolder || uses.IsOpen(old->identity));
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
        quota.Remove(old->info.qwSize);
    }
    return EResult::SUCCESS;
}

bool CTrees::RemoveFile(const std::wstring& strPath, const CEntry& file) {
    std::wstring strNow = strPath;
    if (uses.IsOpen(file.identity)) {
        for (const CServed& each : served) {
            const std::wstring strAside = PartIn(each.strFolder);
            if (strPath.starts_with(each.strFolder + L"\\") &&
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
        quota.Remove(file.info.qwSize);
        uses.MarkGone(file.identity);
    }
    return bRemoved;
}

bool CTrees::RemoveTree(const std::wstring& strPath) {
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

bool CTrees::EmptyServed(const std::wstring& strFolder) {
    bool bEmptied = true;
    Walk(strFolder, [&](const std::wstring& strPath, const WIN32_FIND_DATAW&) {
        const std::optional<CEntry> entry = Look(strPath);
        const bool bKeeps = entry && entry->info.bFolder && HoldsServed(entry->identity);
        const bool bServed =
            bKeeps && std::any_of(served.begin(), served.end(), [&](const CServed& each) {
                const std::optional<CEntry> other = Look(each.strFolder);
                return other && other->identity == entry->identity;
            });
        bEmptied = (bKeeps || RemoveTree(strPath)) && bEmptied;
        return bKeeps && !bServed;
    });
    return bEmptied;
}

// To a name that is free. Reserved names stay behind; a link ends the copy.
EResult CTrees::CopyEntry(const std::wstring& strSource, const std::wstring& strTarget,
                          bool bMove) {
    const std::optional<CEntry> entry = Look(strSource);
    if (!entry) {
        return EResult::REFUSED;
    }
    if (!bMove && !quota.HasRoom(entry->info.qwSize)) {
        return EResult::NO_SPACE;
    }
    if (!(entry->info.bFolder ? ::CreateDirectoryW(strTarget.c_str(), nullptr)
                              : ::CopyFileW(strSource.c_str(), strTarget.c_str(), TRUE))) {
        return LastResult();
    }
    quota.Add(entry->info.qwSize);
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

EResult CTrees::Copy(const std::wstring& strSource, const std::wstring& strTarget,
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

EResult CTrees::Move(const std::wstring& strSource, const std::wstring& strTarget) {
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
    if (old && !::MoveFileExW(strSource.c_str(), strBetween.c_str(), 0)) {
        return LastResult();
    }
    if (::MoveFileExW(strBetween.c_str(), strTarget.c_str(), 0)) {
        return EResult::SUCCESS;
    }
    if (old) {
        ::MoveFileExW(strBetween.c_str(), strSource.c_str(), 0);
        return EResult::REFUSED;
    }
    if (::GetLastError() != ERROR_NOT_SAME_DEVICE) {
        return LastResult();
    }
    const EResult eCopied = Copy(strSource, strTarget, true, true);
    return eCopied != EResult::SUCCESS || RemoveTree(strSource) ? eCopied : EResult::REFUSED;
}

namespace {

// A part is shared with nobody who would delete it, so that another agent's clean-up leaves it.
class CWindowsPartFile final : public agent::CPartFile {
  public:
    CWindowsPartFile(CTrees& trees, std::wstring strPart, std::wstring strTarget)
        : m_trees(trees), m_strPart(std::move(strPart)), m_strTarget(std::move(strTarget)),
          m_file(OpenEntry(m_strPart, GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW)),
          m_bPart(static_cast<bool>(m_file)) {}
    ~CWindowsPartFile() override {
        if (m_bPart) {
            static_cast<void>(m_file.Close());
            ::DeleteFileW(m_strPart.c_str());
            m_trees.quota.Remove(m_qwWritten);
        }
    }

    bool Open() const { return m_bPart; }

    EResult Write(std::span<const std::uint8_t> data) override {
        if (!m_trees.quota.HasRoom(data.size())) {
            return EResult::NO_SPACE;
        }
        m_trees.quota.Add(data.size());
        const std::uint64_t qwAt = std::exchange(m_qwWritten, m_qwWritten + data.size());
        return WriteAt(m_file, qwAt, data) ? EResult::SUCCESS : LastResult();
    }

    EResult Complete(const agent::CFileTimes& times) override {
        SetTimes(m_file, times);
        if (!m_file.Close()) {
            return LastResult();
        }
        const EResult eResult = m_trees.PutInPlace(m_strPart, m_strTarget);
        m_bPart = eResult != EResult::SUCCESS;
        return eResult;
    }

  private:
    CTrees& m_trees;
    const std::wstring m_strPart;
    const std::wstring m_strTarget;
    CHandle m_file;
    bool m_bPart;
    std::uint64_t m_qwWritten = 0;
};

} // namespace

std::unique_ptr<agent::CPartFile> CTrees::MakePart(const std::wstring& strTarget) {
    auto pPart = std::make_unique<CWindowsPartFile>(*this, PartIn(ParentOf(strTarget)), strTarget);
    return pPart->Open() ? std::move(pPart) : nullptr;
}

} // namespace windows_device
