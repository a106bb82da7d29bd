// The host's end of USB/IP against any device: the input is a byte that says what the host does,
// and all that the device sends ahead of its end of the connection.

#include "platform/device.h"
#include "platform/file.h"
#include "platform/posix/usb_node.h"
#include "tests/support/temp_folder.h"

#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Listens below a folder of its own.
class CListener {
  public:
    CListener() {
        m_address.sun_family = AF_UNIX;
        std::strncpy(m_address.sun_path, m_folder.Path("s").c_str(),
                     sizeof(m_address.sun_path) - 1);
        if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)) != 0 ||
            ::listen(m_fd, 1) != 0) {
            std::abort();
        }
    }
    ~CListener() { ::close(m_fd); }
    CListener(const CListener&) = delete;
    CListener& operator=(const CListener&) = delete;

    const char* Path() const { return m_address.sun_path; }
    int Accept() const { return ::accept(m_fd, nullptr, nullptr); }

  private:
    test::CTempFolder m_folder;
    sockaddr_un m_address{};
    int m_fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* lpData, std::size_t dwSize) {
    if (dwSize == 0) {
        return 0;
    }
    static const CListener s_listener;
    const HANDLE hNode = platform::posix::OpenUsbNode(s_listener.Path());
    const int fd = s_listener.Accept();
    if (hNode == nullptr || fd < 0) {
        std::abort();
    }
    (void)!::send(fd, lpData + 1, dwSize - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    static BYTE s_buffer[1 << 14];
    for (int i = 0; i < 8; ++i) {
        constexpr DWORD SIZES[] = {0, 8, 12288, 1 << 14};
        const DWORD dwBytes = SIZES[(*lpData >> 4 ^ i) & 3];
        DWORD dwCount = 0;
        const bool bRead = (*lpData >> i & 1) != 0;
        const BOOL bDone = bRead ? platform::ReadFile(hNode, s_buffer, dwBytes, &dwCount)
                                 : platform::WriteFile(hNode, s_buffer, dwBytes, &dwCount);
        if (bDone && dwCount > dwBytes) {
            std::abort();
        }
    }
    platform::CloseHandle(hNode);
    ::close(fd);
    return 0;
}
