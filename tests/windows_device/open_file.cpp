#include "tests/windows_device/open_file.h"

#include <algorithm>

namespace windows_device {

using agent::COpenFile;
using agent::COpenMode;
using agent::EResult;

bool CFileUses::Allows(const CUse& use) const {
    return std::all_of(m_uses.begin(), m_uses.end(), [&](const CUse& other) {
        return other.identity != use.identity || other.bGone ||
               ((other.bShareRead || !use.bReads) && (other.bShareWrite || !use.bWrites) &&
                (use.bShareRead || !other.bReads) && (use.bShareWrite || !other.bWrites));
    });
}

bool CFileUses::IsOpen(const CIdentity& identity) const {
    return std::any_of(m_uses.begin(), m_uses.end(),
                       [&](const CUse& use) { return use.identity == identity && !use.bGone; });
}

void CFileUses::MarkGone(const CIdentity& identity) {
    for (CUse& use : m_uses) {
        use.bGone = use.bGone || use.identity == identity;
    }
}

namespace {

class COpenedFile final : public COpenFile {
  public:
    COpenedFile(CHandle file, const COpenMode& mode, CFileUses& uses, CFileUses::Entry use,
                agent::CQuota& quota)
        : m_file(std::move(file)), m_mode(mode), m_uses(uses), m_use(use), m_quota(quota) {}
    ~COpenedFile() override { m_uses.Leave(m_use); }

    std::optional<CState> StateForReading() const override {
        const std::optional<CEntry> entry = EntryOf(m_file);
        return m_mode.bRead && entry
                   ? std::optional(CState{entry->info.qwSize, entry->info.times.ftLastWrite})
                   : std::nullopt;
    }

    std::size_t Read(std::uint64_t qwAt, std::span<std::uint8_t> data) override {
        return ReadAt(m_file, qwAt, data);
    }

    EResult JudgeWrite(std::uint64_t qwEnd) const override {
        const std::optional<std::uint64_t> qwSize = Size();
        if (!m_mode.bWrite || m_use->bGone || !qwSize) {
            return EResult::REFUSED;
        }
        return qwEnd <= *qwSize || m_quota.HasRoom(qwEnd - *qwSize) ? EResult::SUCCESS
                                                                    : EResult::NO_SPACE;
    }

    EResult Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) override {
        const EResult eJudged = JudgeWrite(data.empty() ? 0 : qwAt + data.size());
        const std::uint64_t qwBefore = Size().value_or(0);
        if (eJudged != EResult::SUCCESS) {
            return eJudged;
        }
        const EResult eResult = WriteAt(m_file, qwAt, data) ? EResult::SUCCESS : LastResult();
        const std::uint64_t qwAfter = Size().value_or(qwBefore);
        m_quota.Add(qwAfter - std::min(qwAfter, qwBefore));
        return eResult;
    }

    std::optional<std::uint64_t> Size() const override {
        LARGE_INTEGER size{};
        return ::GetFileSizeEx(m_file.Get(), &size)
                   ? std::optional(static_cast<std::uint64_t>(size.QuadPart))
                   : std::nullopt;
    }

    EResult Close() override { return m_file.Close() ? EResult::SUCCESS : LastResult(); }

  private:
    CHandle m_file;
    const COpenMode m_mode;
    CFileUses& m_uses;
    const CFileUses::Entry m_use;
    agent::CQuota& m_quota;
};

} // namespace

EResult OpenByHandle(const std::wstring& strPath, const COpenMode& mode, CFileUses& uses,
                     agent::CQuota& quota, std::unique_ptr<COpenFile>& pFile) {
    const bool bEmpties = mode.eExisting == COpenMode::EExisting::EMPTY;
    const bool bMakes = !Look(strPath);
    if (bMakes ? mode.eMissing == COpenMode::EMissing::REFUSE
               : mode.eExisting == COpenMode::EExisting::REFUSE) {
        return EResult::REFUSED;
    }
    const DWORD dwAccess = FILE_READ_ATTRIBUTES | (mode.bRead ? GENERIC_READ : 0) |
                           (mode.bWrite || bEmpties ? GENERIC_WRITE : 0);
    CHandle file = OpenEntry(strPath, dwAccess, SHARE_ALL, bMakes ? CREATE_NEW : OPEN_EXISTING);
    if (!file) {
        return LastResult();
    }
    const std::optional<CEntry> entry = EntryOf(file);
    CFileUses::CUse use;
    use.bReads = mode.bRead;
    use.bWrites = mode.bWrite || bEmpties;
    use.bShareRead = mode.bShareRead;
    use.bShareWrite = mode.bShareWrite;
    if (!entry || entry->info.bFolder || (use.bWrites && entry->info.bReadOnly)) {
        return EResult::REFUSED;
    }
    use.identity = entry->identity;
    if (!uses.Allows(use)) {
        return EResult::REFUSED;
    }
    if (bEmpties && !::SetEndOfFile(file.Get())) {
        return LastResult();
    }
    quota.Remove(bEmpties ? entry->info.qwSize : 0);
    use.bWrites = mode.bWrite; // emptying is over
    pFile = std::make_unique<COpenedFile>(std::move(file), mode, uses, uses.Enter(use), quota);
    return EResult::SUCCESS;
}

} // namespace windows_device
