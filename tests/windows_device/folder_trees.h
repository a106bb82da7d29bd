// What is made, copied, moved and removed below the folders that are served, by paths of the
// system.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/quota.h"
#include "tests/windows_device/open_file.h"
#include "tests/windows_device/system_files.h"

namespace windows_device {

// Calls lpVisit for every entry below a folder; where that says true, for what the entry holds too.
// False when one of the folders could not be read.
using Visit = std::function<bool(const std::wstring& strPath, const WIN32_FIND_DATAW& found)>;
bool Walk(const std::wstring& strFolder, const Visit& lpVisit);

struct CServed {
    std::string strName;
    std::wstring strFolder;
};

class CTrees {
  public:
    // The root, without a name, and behind it the storages.
    std::vector<CServed> served;
    agent::CQuota quota;
    CFileUses uses;

    // Whether the root or a storage is the folder or lies in it, whatever its path is.
    bool HoldsServed(const CIdentity& folder) const;

    // Begins a file that is to become strTarget in a folder that is there. Null when it cannot be
    // made.
    std::unique_ptr<agent::CPartFile> MakePart(const std::wstring& strTarget);

    // A file that is open loses its name at once, and goes with its last handle.
    bool RemoveFile(const std::wstring& strPath, const CEntry& file);

    // Also what is read-only. A link goes itself.
    bool RemoveTree(const std::wstring& strPath);

    // What the folder holds but for folders that are served themselves.
    bool EmptyServed(const std::wstring& strFolder);

    // Gives a part its target's name.
    agent::EResult PutInPlace(const std::wstring& strPart, const std::wstring& strTarget);

    // As the contract of the device's folder says. bMove: the source is to go.
    agent::EResult Copy(const std::wstring& strSource, const std::wstring& strTarget,
                        bool bFailIfExists, bool bMove = false);
    agent::EResult Move(const std::wstring& strSource, const std::wstring& strTarget);

  private:
    std::wstring PartIn(const std::wstring& strFolder);
    agent::EResult CopyEntry(const std::wstring& strSource, const std::wstring& strTarget,
                             bool bMove);

    unsigned m_nPart = 0;
};

} // namespace windows_device
