// A device's place in the device folder, for tests: its socket and the lock that says that it is
// attached. Written from the description of the folder and from usbip.h alone.
#pragma once

#include "platform/posix/usbip.h"

#include <optional>
#include <string>
#include <vector>

namespace device_test {

class CAttachment {
  public:
    // In the folder of the interface class below strDeviceFolder, which is made.
    explicit CAttachment(const std::string& strDeviceFolder, const std::string& strName = "device",
                         int nBacklog = 8);
    ~CAttachment();
    CAttachment(const CAttachment&) = delete;
    CAttachment& operator=(const CAttachment&) = delete;

    int Listener() const { return m_nListener; }
    const std::string& SocketPath() const { return m_strSocket; }

    static std::string ClassFolder(const std::string& strDeviceFolder);

  private:
    std::string m_strSocket;
    int m_nListener = -1;
    int m_nLock = -1;
};

// The device's messages.
std::vector<std::uint8_t> ImportReply(std::uint16_t wVersion = usbip::VERSION,
                                      std::uint16_t wCode = usbip::OP_REP_IMPORT,
                                      std::uint32_t dwStatus = 0);
std::vector<std::uint8_t> Answer(std::uint32_t dwCommand, std::uint32_t dwSeqnum,
                                 std::int32_t nStatus, std::uint32_t dwActualLength = 0,
                                 const std::vector<std::uint8_t>& data = {});

// A fresh folder below the system's temporary one, removed with all that is in it.
class CTempFolder {
  public:
    CTempFolder();
    ~CTempFolder();
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    std::string operator/(const std::string& strName) const { return m_strPath + "/" + strName; }
    const std::string& Path() const { return m_strPath; }

  private:
    std::string m_strPath;
};

// Sets a variable of the environment for a scope; null removes it.
class CEnvironment {
  public:
    CEnvironment(const char* lpszName, const char* lpszValue);
    ~CEnvironment();
    CEnvironment(const CEnvironment&) = delete;
    CEnvironment& operator=(const CEnvironment&) = delete;

  private:
    std::string m_strName;
    std::optional<std::string> m_strBefore;
};

} // namespace device_test
