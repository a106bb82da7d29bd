// Names, entries and handles of the system, for a device that is served from Windows.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "agent/device_folder.h"
#include "platform/types.h"

namespace agent {

// What lies at a path of the device, by the path of the system.
class CFd {
  public:
    CFd() = default;
    explicit CFd(std::wstring strPath) : m_strPath(std::move(strPath)) {}

    explicit operator bool() const { return !m_strPath.empty(); }
    const std::wstring& Path() const { return m_strPath; }

  private:
    std::wstring m_strPath;
};

} // namespace agent

namespace windows_device {

// Closes its handle.
class CHandle {
  public:
    CHandle() = default;
    explicit CHandle(HANDLE hObject) : m_hObject(hObject) {}
    CHandle(CHandle&& other) noexcept : m_hObject(other.Release()) {}
    CHandle& operator=(CHandle&& other) noexcept {
        std::swap(m_hObject, other.m_hObject);
        return *this;
    }
    ~CHandle() { static_cast<void>(Close()); }

    HANDLE Get() const { return m_hObject; }
    explicit operator bool() const {
        return m_hObject != nullptr && m_hObject != INVALID_HANDLE_VALUE;
    }
    HANDLE Release() { return std::exchange(m_hObject, nullptr); }
    bool Close() { return *this && ::CloseHandle(Release()) != FALSE; }

  private:
    HANDLE m_hObject = nullptr;
};

// Which file or folder it is, whatever its name.
struct CIdentity {
    std::uint32_t dwVolume = 0;
    std::uint64_t qwIndex = 0;
    bool operator==(const CIdentity&) const = default;
};

struct CEntry {
    agent::CEntryInfo info;
    CIdentity identity;
    DWORD dwAttributes = 0;
};

std::optional<std::wstring> ToWide(std::string_view strText);
std::optional<std::string> FromWide(std::wstring_view strText);

// Whether names are one to the system.
bool SameName(std::wstring_view strA, std::wstring_view strB);

// Whether a component names what it seems to name: no stream, device or wildcard, and nothing that
// the system would drop.
bool IsPlainName(std::wstring_view strName);

// For all that works on a file while others do as they like with it.
inline constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A file or a folder.
CHandle OpenEntry(const std::wstring& strPath, DWORD dwAccess, DWORD dwShare = SHARE_ALL,
                  DWORD dwCreation = OPEN_EXISTING);

// Nothing for what is neither file nor folder: a link is as if it were not there.
std::optional<CEntry> EntryOf(const CHandle& handle);
std::optional<CEntry> Look(const std::wstring& strPath);

// Whether the entry is the folder or lies in it.
bool LiesIn(std::wstring strPath, const CIdentity& folder);

std::wstring ParentOf(const std::wstring& strPath);

// Bytes from a position on: fewer than data holds only at the end of the file or on an error.
std::size_t ReadAt(const CHandle& file, std::uint64_t qwAt, std::span<std::uint8_t> data);
bool WriteAt(const CHandle& file, std::uint64_t qwAt, std::span<const std::uint8_t> data);

// A time of 0 stays as it is. A time that the file system cannot hold is no failure of the
// contents.
void SetTimes(const CHandle& handle, const agent::CFileTimes& times);

// By the system's last error: NO_SPACE for a disk that is full, else REFUSED.
agent::EResult LastResult();

// All of a folder's entries.
class CListing {
  public:
    explicit CListing(const std::wstring& strFolder);
    ~CListing();
    CListing(const CListing&) = delete;
    CListing& operator=(const CListing&) = delete;

    bool Open() const { return m_hFind != INVALID_HANDLE_VALUE; }
    bool Failed() const { return m_bFailed; }
    const WIN32_FIND_DATAW* Next(); // null behind the last, and on an error

  private:
    WIN32_FIND_DATAW m_data{};
    HANDLE m_hFind;
    bool m_bFirst = true;
    bool m_bFailed = false;
};

} // namespace windows_device
