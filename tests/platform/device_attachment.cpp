#include "tests/platform/device_attachment.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace device_test {
namespace {

void Check(bool bDone, const char* lpszWhat) {
    if (!bDone) {
        throw std::system_error(errno, std::generic_category(), lpszWhat);
    }
}

} // namespace

std::string CAttachment::ClassFolder(const std::string& strDeviceFolder) {
    return strDeviceFolder + "/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}";
}

CAttachment::CAttachment(const std::string& strDeviceFolder, const std::string& strName,
                         int nBacklog)
    : m_strSocket(ClassFolder(strDeviceFolder) + "/" + strName) {
    std::filesystem::create_directories(ClassFolder(strDeviceFolder));
    m_nListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(m_nListener >= 0, "socket");
    // Bound under a short way to the folder, as the folder's own may be too long for an address.
    const int nFolder = ::open(ClassFolder(strDeviceFolder).c_str(), O_PATH | O_CLOEXEC);
    const std::string strShort = "/proc/self/fd/" + std::to_string(nFolder) + "/" + strName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, strShort.c_str(), sizeof(address.sun_path) - 1);
    Check(::bind(m_nListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Check(::listen(m_nListener, nBacklog) == 0, "listen");
    ::close(nFolder);

    m_nLock = ::open((m_strSocket + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    // A lock of the open file, not of the process: in a test the asker is the same process.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    Check(m_nLock >= 0 && ::fcntl(m_nLock, F_OFD_SETLK, &lock) == 0, "lock");
}

CAttachment::~CAttachment() {
    ::close(m_nLock);
    ::close(m_nListener);
    ::unlink(m_strSocket.c_str());
    ::unlink((m_strSocket + ".lock").c_str());
}

std::vector<std::uint8_t> ImportReply(std::uint16_t wVersion, std::uint16_t wCode,
                                      std::uint32_t dwStatus) {
    std::vector<std::uint8_t> reply(usbip::OP_REP_IMPORT_SIZE);
    usbip::PutU16(reply.data() + usbip::OP_OFFSET_VERSION, wVersion);
    usbip::PutU16(reply.data() + usbip::OP_OFFSET_CODE, wCode);
    usbip::PutU32(reply.data() + usbip::OP_OFFSET_STATUS, dwStatus);
    return reply;
}

std::vector<std::uint8_t> Answer(std::uint32_t dwCommand, std::uint32_t dwSeqnum,
                                 std::int32_t nStatus, std::uint32_t dwActualLength,
                                 const std::vector<std::uint8_t>& data) {
    std::vector<std::uint8_t> answer(usbip::HEADER_SIZE);
    usbip::PutU32(answer.data() + usbip::OFFSET_COMMAND, dwCommand);
    usbip::PutU32(answer.data() + usbip::OFFSET_SEQNUM, dwSeqnum);
    usbip::PutU32(answer.data() + usbip::OFFSET_STATUS, static_cast<std::uint32_t>(nStatus));
    usbip::PutU32(answer.data() + usbip::OFFSET_ACTUAL_LENGTH, dwActualLength);
    answer.insert(answer.end(), data.begin(), data.end());
    return answer;
}

CTempFolder::CTempFolder() {
    m_strPath = (std::filesystem::temp_directory_path() / "dak-test-XXXXXX").string();
    Check(::mkdtemp(m_strPath.data()) != nullptr, "mkdtemp");
}

CTempFolder::~CTempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_strPath, ignored);
}

CEnvironment::CEnvironment(const char* lpszName, const char* lpszValue) : m_strName(lpszName) {
    if (const char* lpszBefore = std::getenv(lpszName)) {
        m_strBefore = lpszBefore;
    }
    lpszValue != nullptr ? ::setenv(lpszName, lpszValue, 1) : ::unsetenv(lpszName);
}

CEnvironment::~CEnvironment() {
    m_strBefore ? ::setenv(m_strName.c_str(), m_strBefore->c_str(), 1)
                : ::unsetenv(m_strName.c_str());
}

} // namespace device_test
