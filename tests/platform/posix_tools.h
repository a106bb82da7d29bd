// What the tests of the Linux implementation share: a device folder and its environment, the
// device's end of a node's socket, written from the description of the folder and from usbip.h
// alone, and other processes.
#pragma once

#include "platform/posix/usbip.h"
#include "tests/platform/platform_tools.h"
#include "tests/support/temp_folder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

namespace platform::tests {

// A variable of the environment for a scope; an empty one counts as none.
struct CEnvironment {
    CEnvironment(const char* lpszVariable, const std::string& strValue)
        : lpszName(lpszVariable),
          strBefore(::getenv(lpszName) != nullptr ? ::getenv(lpszName) : "") {
        ::setenv(lpszName, strValue.c_str(), 1);
    }
    ~CEnvironment() { ::setenv(lpszName, strBefore.c_str(), 1); }
    CEnvironment(const CEnvironment&) = delete;
    CEnvironment& operator=(const CEnvironment&) = delete;

    const char* const lpszName;
    const std::string strBefore;
};

// A device folder of the test's own, with a path that is too long for the address of a socket.
struct CDeviceFolder {
    CDeviceFolder() { std::filesystem::create_directories(strFolder); }

    const test::CTempFolder temp;
    const std::string strFolder = temp.Path(std::string(100, 'd') + "/" + std::string(100, 'e'));
    const CEnvironment environment{"DAK_DEVICE_DIR", strFolder};
};

// A device's place in a device folder: its socket, and the lock that says that it is attached.
struct CAttachment {
    explicit CAttachment(const std::string& strFolder, const std::string& strName = "device")
        : strSocket(strFolder + "/{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}/" + strName) {
        const std::filesystem::path folder = std::filesystem::path(strSocket).parent_path();
        std::filesystem::create_directories(folder);
        // The address leads through a descriptor of the folder.
        const int nFolder = ::open(folder.c_str(), O_PATH | O_CLOEXEC);
        const std::string strShort = "/proc/self/fd/" + std::to_string(nFolder) + "/" + strName;
        sockaddr_un address{AF_UNIX, {}};
        strShort.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(nListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(nListener, 8), 0);
        ::close(nFolder);
        nLock = ::open((strSocket + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_TRUE(Lock(F_OFD_SETLK, F_WRLCK)); // of the open file, as the asker is this process
    }
    ~CAttachment() {
        ::close(nLock);
        ::close(nListener);
        ::unlink(strSocket.c_str());
        ::unlink((strSocket + ".lock").c_str());
    }
    CAttachment(const CAttachment&) = delete;
    CAttachment& operator=(const CAttachment&) = delete;

    bool Lock(int nCommand, int nType) const {
        struct flock lock {};
        lock.l_type = static_cast<short>(nType);
        return ::fcntl(nLock, nCommand, &lock) == 0;
    }

    const std::string strSocket;
    const int nListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int nLock = -1;
};

// A message that opens with these words, and the bytes behind its header.
inline Bytes Message(std::initializer_list<std::uint32_t> words, const Bytes& data = {},
                     std::size_t nHeader = usbip::HEADER_SIZE) {
    Bytes message(nHeader);
    std::uint8_t* lpWord = message.data();
    for (const std::uint32_t dwWord : words) {
        usbip::PutU32(std::exchange(lpWord, lpWord + 4), dwWord);
    }
    return test::Join(message, data);
}
inline Bytes ImportReply(std::uint8_t bProtocol = usbip::PROTOCOL_PACED,
                         std::uint32_t dwVersionAndCode = 0x0111'0003, std::uint32_t dwStatus = 0) {
    Bytes reply = Message({dwVersionAndCode, dwStatus}, {}, usbip::OP_REP_IMPORT_SIZE);
    reply[usbip::OP_REP_OFFSET_CLASS] = usbip::CLASS_VENDOR;
    reply[usbip::OP_REP_OFFSET_PROTOCOL] = bProtocol;
    return reply;
}
inline Bytes Submitted(std::uint32_t dwSeqnum, std::uint32_t dwLength, const Bytes& data = {}) {
    return Message({usbip::RET_SUBMIT, dwSeqnum, 0, 0, 0, 0, dwLength}, data);
}
// The answer to a read that brings these bytes.
inline Bytes Answered(std::uint32_t dwSeqnum, const Bytes& data) {
    return Submitted(dwSeqnum, static_cast<std::uint32_t>(data.size()), data);
}
inline Bytes Unlinked(std::uint32_t dwSeqnum, std::int32_t nStatus) {
    return Message({usbip::RET_UNLINK, dwSeqnum, 0, 0, 0, static_cast<std::uint32_t>(nStatus)});
}

// The device's end of a node's socket, played by hand.
class CUsbipEnd {
  public:
    explicit CUsbipEnd(const CAttachment& attachment)
        : m_nSocket(::accept4(attachment.nListener, nullptr, nullptr, SOCK_CLOEXEC)) {
        const timeval atOnce{AT_ONCE_MS / 1000, 0};
        ::setsockopt(m_nSocket, SOL_SOCKET, SO_RCVTIMEO, &atOnce, sizeof(atOnce));
    }
    ~CUsbipEnd() { ::close(m_nSocket); }
    CUsbipEnd(const CUsbipEnd&) = delete;
    CUsbipEnd& operator=(const CUsbipEnd&) = delete;

    int Socket() const { return m_nSocket; }
    // A host that has gone is found so at the next Take.
    void Send(const Bytes& bytes) const {
        static_cast<void>(::send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    // So many bytes of the host's, waited for unless the flags say otherwise; fewer when it has
    // gone.
    Bytes Take(std::size_t nSize, int nFlags = MSG_WAITALL) const {
        Bytes bytes(nSize);
        const ssize_t nTaken = nSize == 0 ? 0 : ::recv(m_nSocket, bytes.data(), nSize, nFlags);
        bytes.resize(nTaken > 0 ? static_cast<std::size_t>(nTaken) : 0);
        return bytes;
    }

  private:
    const int m_nSocket;
};

// A process that runs a piece of the test, says with a byte how it went, and then waits to be
// killed.
class CProcess {
  public:
    explicit CProcess(const std::function<char()>& body) {
        EXPECT_EQ(::pipe2(m_nEnds, O_CLOEXEC), 0);
        m_nPid = ::fork();
        if (m_nPid == 0) {
            const char ch = body();
            static_cast<void>(!::write(m_nEnds[1], &ch, 1));
            for (;;) {
                ::pause();
            }
        }
        ::close(m_nEnds[1]);
    }
    ~CProcess() {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
        ::close(m_nEnds[0]);
    }
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    // Waited for; 0 when none comes any more.
    char Answer() const {
        char ch = 0;
        return ::read(m_nEnds[0], &ch, 1) == 1 ? ch : '\0';
    }

  private:
    int m_nEnds[2];
    pid_t m_nPid;
};

} // namespace platform::tests
