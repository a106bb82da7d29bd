// Files that are open by handle, on a POSIX file system.
#pragma once

#include <list>
#include <optional>

#include "agent/posix/format.h"
#include "agent/posix/room.h"
#include "agent/posix/system_file.h"

namespace agent {

// What the handles that are open do with their files, and what they let other handles do.
class CFileShares {
  public:
    struct CUse {
        dev_t device = 0;
        ino_t inode = 0;
        bool bReads = false;
        bool bWrites = false;
        bool bShareRead = false;
        bool bShareWrite = false;
        int fd = -1;
        Emptying givenBack = nullptr;
    };
    using Entry = std::list<CUse>::iterator;

    bool Allows(const CUse& use) const;
    Entry Enter(const CUse& use) { return m_uses.insert(m_uses.end(), use); }
    void Leave(Entry entry) { m_uses.erase(entry); }

    // Empties files that have lost their last name and can be read by no handle: nobody can come to
    // what is in them, and a handle that was forgotten would keep its room.
    void GiveBackRoom(CRoom& room);

  private:
    bool IsRead(const CUse& use) const;

    std::list<CUse> m_uses;
};

class CPosixOpenFile final : public COpenFile {
  public:
    // shares, formats and room outlive it; entry is left at its end.
    CPosixOpenFile(CFd fd, const COpenMode& mode, CFileShares& shares, CFileShares::Entry entry,
                   const CFormats& formats, CRoom& room, Emptying emptying);
    ~CPosixOpenFile() override;

    std::optional<EResult> Opened() const override {
        return m_emptying ? m_room.Emptied(m_emptying) : EResult::SUCCESS;
    }
    std::optional<CState> StateForReading() const override;
    std::size_t Read(std::uint64_t qwAt, std::span<std::uint8_t> data) override;
    EResult JudgeWrite(std::uint64_t qwEnd) const override;
    EResult Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) override;
    std::optional<std::uint64_t> Size() const override;
    EResult Close() override;

  private:
    CFd m_fd;
    const bool m_bRead;
    const bool m_bWrite;
    CFileShares& m_shares;
    const CFileShares::Entry m_entry;
    const CFormats& m_formats;
    CRoom& m_room;
    const Emptying m_emptying;
};

// The existing file behind fd, which is open as FlagsFor says: judged, entered, and emptied if the
// mode wants that.
EResult TakeOpenFile(CFd fd, const COpenMode& mode, CFileShares& shares, const CFormats& formats,
                     CRoom& room, std::unique_ptr<COpenFile>& pFile);

// The flags of open() that a mode wants, but for making the file.
int FlagsFor(const COpenMode& mode);

} // namespace agent
