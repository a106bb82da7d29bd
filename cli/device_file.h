// One open file of the device.
#pragma once

#include "link/dak_vorn.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cli {

// What a verb moves in one operation: large, for each one has its own beginning and end on the
// link.
inline constexpr DWORD FILE_BLOCK_BYTES = 4U << 20;

// While it lives, a request to end (console::CInterrupts) cuts a read or write of the object short.
class CCutShort {
  public:
    explicit CCutShort(CDAKVorn& dak);
    ~CCutShort();
    CCutShort(const CCutShort&) = delete;
    CCutShort& operator=(const CCutShort&) = delete;

  private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bEnded = false;
    std::thread m_thread; // last: it uses the others
};

// Operations return what the library returns; GetLastError of the object says more. A file that is
// still open with the object's end is closed.
class CDeviceFile {
  public:
    explicit CDeviceFile(CDAKVorn& dak) : m_dak(dak) {}
    ~CDeviceFile();
    CDeviceFile(const CDeviceFile&) = delete;
    CDeviceFile& operator=(const CDeviceFile&) = delete;

    DWORD OpenToRead(const std::string& strPath);
    // A file that is there already is refused.
    DWORD OpenNew(const std::string& strPath);

    // The next bytes, at most nBytes of them; none with DAKERROR_NONE at the file's end. A stream
    // that breaks is not noticed as such: the device may have gone further than what came, and the
    // next read sets it back.
    DWORD Read(std::vector<char>& bytes, std::size_t nBytes);
    DWORD Write(const char* lpBytes, std::size_t nBytes);

    DWORD Close();

  private:
    DWORD Open(const std::string& strPath, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition);
    DWORD SetBack();

    CDAKVorn& m_dak;
    void* m_hFile = nullptr;
    std::uint64_t m_qwTaken = 0; // bytes that Read has given
    bool m_bShort = false;       // the latest of them came short
};

} // namespace cli
