#include "cli/device_file.h"

#include "cli/console.h"
#include "cli/text.h"

#include <chrono>

namespace cli {
namespace {

constexpr DWORD ACCESS_READ = 0x80000000;
constexpr DWORD ACCESS_WRITE = 0x40000000;
constexpr DWORD SHARE_NONE = 0;
constexpr DWORD SHARE_READ_WRITE = 3;
constexpr DWORD CREATE_NEW_FILE = 1;
constexpr DWORD OPEN_EXISTING_FILE = 3;
constexpr DWORD MOVE_FROM_CURRENT = 1;
constexpr DWORD NO_POSITION = 0xFFFFFFFF;

} // namespace

CCutShort::CCutShort(CDAKVorn& dak) {
    m_thread = std::thread([this, &dak] {
        constexpr std::chrono::milliseconds look{100};
        std::unique_lock hold(m_mutex);
        while (!m_ended.wait_for(hold, look, [this] { return m_bEnded; })) {
            // Again at each look: the stream may not have begun at the first.
            if (console::CInterrupts::Requested()) {
                dak.TerminateTransfer();
            }
        }
    });
}

CCutShort::~CCutShort() {
    {
        const std::lock_guard hold(m_mutex);
        m_bEnded = true;
    }
    m_ended.notify_one();
    m_thread.join();
}

CDeviceFile::~CDeviceFile() {
    static_cast<void>(Close());
}

DWORD CDeviceFile::Open(const std::string& strPath, DWORD dwAccess, DWORD dwShare,
                        DWORD dwDisposition) {
    void* hFile = nullptr;
    const DWORD dwResult =
        m_dak.DAKCreateFile(Utf8ToWide(strPath)->c_str(), dwAccess, dwShare, dwDisposition, &hFile);
    m_hFile = dwResult == DAKERROR_NONE ? hFile : nullptr;
    m_qwTaken = 0;
    m_bShort = false;
    return dwResult;
}

DWORD CDeviceFile::OpenToRead(const std::string& strPath) {
    return Open(strPath, ACCESS_READ, SHARE_READ_WRITE, OPEN_EXISTING_FILE);
}

DWORD CDeviceFile::OpenNew(const std::string& strPath) {
    return Open(strPath, ACCESS_WRITE, SHARE_NONE, CREATE_NEW_FILE);
}

// Positions have 32 bits, so that a distance is all that can be told of a larger one. It fits: a
// read takes the device at most one block too far.
DWORD CDeviceFile::SetBack() {
    DWORD dwPosition = NO_POSITION;
    const DWORD dwResult = m_dak.DAKSetFilePointer(m_hFile, 0, MOVE_FROM_CURRENT, &dwPosition);
    const LONG lDistance = static_cast<LONG>(static_cast<DWORD>(m_qwTaken) - dwPosition);
    return dwResult != DAKERROR_NONE || lDistance == 0
               ? dwResult
               : m_dak.DAKSetFilePointer(m_hFile, lDistance, MOVE_FROM_CURRENT, &dwPosition);
}

DWORD CDeviceFile::Read(std::vector<char>& bytes, std::size_t nBytes) {
    bytes.clear();
    if (m_bShort) {
        if (const DWORD dwResult = SetBack(); dwResult != DAKERROR_NONE) {
            return dwResult;
        }
    }
    bytes.resize(nBytes);
    DWORD dwCount = 0;
    const DWORD dwResult =
        m_dak.DAKReadFile(m_hFile, bytes.data(), static_cast<DWORD>(nBytes), &dwCount);
    bytes.resize(dwCount);
    m_qwTaken += dwCount;
    m_bShort = dwCount < nBytes;
    const bool bEnd = dwResult == DAKERROR_FAIL && m_dak.GetLastError() == DAKERROR_NONE;
    return bEnd ? DAKERROR_NONE : dwResult;
}

DWORD CDeviceFile::Write(const char* lpBytes, std::size_t nBytes) {
    DWORD dwCount = 0;
    // The operation reads the buffer alone.
    return m_dak.DAKWriteFile(m_hFile, const_cast<char*>(lpBytes), static_cast<DWORD>(nBytes),
                              &dwCount);
}

DWORD CDeviceFile::Close() {
    if (m_hFile == nullptr) {
        return DAKERROR_NONE;
    }
    const DWORD dwResult = m_dak.DAKCloseFile(m_hFile);
    m_hFile = nullptr;
    return dwResult;
}

} // namespace cli
