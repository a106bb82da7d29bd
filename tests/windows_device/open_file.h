// Files that are open by handle.
#pragma once

#include <list>

#include "agent/quota.h"
#include "tests/windows_device/system_files.h"

namespace windows_device {

// What the handles that are open do with their files, and what they let other handles do. The
// system's own sharing would hold off everybody, and not handles alone.
class CFileUses {
  public:
    struct CUse {
        CIdentity identity;
        bool bReads = false;
        bool bWrites = false;
        bool bShareRead = false;
        bool bShareWrite = false;
        bool bGone = false; // deleted or replaced
    };
    using Entry = std::list<CUse>::iterator;

    bool Allows(const CUse& use) const;
    Entry Enter(const CUse& use) { return m_uses.insert(m_uses.end(), use); }
    void Leave(Entry entry) { m_uses.erase(entry); }

    bool IsOpen(const CIdentity& identity) const;
    void MarkGone(const CIdentity& identity);

  private:
    std::list<CUse> m_uses;
};

// uses and quota outlive the file.
agent::EResult OpenByHandle(const std::wstring& strPath, const agent::COpenMode& mode,
                            CFileUses& uses, agent::CQuota& quota,
                            std::unique_ptr<agent::COpenFile>& pFile);

} // namespace windows_device
