#include "platform/posix/usb_node.h"

#include "platform/posix/descriptors.h"
#include "platform/posix/handles.h"
#include "platform/posix/usbip.h"
#include "platform/posix/waiting.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace platform::posix {
namespace {

// One connection to a device. One transfer runs at a time, on the calling thread.
//
// A transfer whose thread is stopped is taken back with an unlink and left at once. What the device
// still owes then (the answer to the unlink, and before it perhaps the transfer's own) is taken
// inside the next transfer, ahead of anything new: so at most one transfer and one unlink are ever
// open, and neither what is queued here nor what is kept can grow.
//
// The device is not trusted. Whatever it says against the protocol breaks the node for good, as the
// end of the connection does: every transfer fails, and whoever has the node open has lost its
// device.
class CUsbNode final : public CObject {
  public:
    explicit CUsbNode(CDescriptor socket);

    BOOL Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override;
    BOOL Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) override;
    bool HasLostDevice() const noexcept override { return m_bBroken; }

  private:
    // What the device has been asked for and has not answered.
    struct CTransfer {
        bool bOpen = false;
        bool bIn = false;
        bool bUnlinked = false;
        DWORD dwSeqnum = 0;
        DWORD dwLength = 0;
        // Of its own message: all bytes, and those that have not left yet.
        std::size_t nMessageBytes = 0;
        std::size_t nBytesQueued = 0;
        // Its answer.
        std::int32_t nStatus = 0;
        DWORD dwActualLength = 0;
    };

    bool MayTransfer();
    bool Settle();
    bool Submit(bool bIn, DWORD dwLength, const void* lpData);
    bool AwaitAnswer();
    void Cancel();
    bool TakeKept(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount);

    bool AwaitProgress();
    bool Flush();
    bool Receive();
    void Digest();
    bool DigestImport();
    bool DigestAnswer();
    bool DigestBody();
    void TakeRetSubmit(const BYTE* lpHeader);
    void TakeRetUnlink(const BYTE* lpHeader);
    void CompleteTransfer();
    void Enqueue(const BYTE* lpBytes, std::size_t nBytes);
    void Break();

    BYTE* InBytes() { return m_in.data() + m_nInBegin; }
    std::size_t InCount() const { return m_nInEnd - m_nInBegin; }

    CPrivateDescriptor m_socket;
    std::atomic<bool> m_bBroken = false;
    bool m_bImportOpen = true;
    DWORD m_dwLastSeqnum = 0;
    CTransfer m_transfer;
    bool m_bUnlinkOpen = false;
    DWORD m_dwUnlinkSeqnum = 0;

    // Bytes that the socket has not taken yet.
    std::vector<BYTE> m_out;
    // Bytes that have arrived and are not understood yet: one data package with its header.
    std::array<BYTE, 16384> m_in{};
    std::size_t m_nInBegin = 0;
    std::size_t m_nInEnd = 0;
    // The contents of the open transfer's answer.
    std::vector<BYTE> m_body;
    std::size_t m_nBodyMissing = 0;
    // What a transfer that had been taken back brought all the same, or a read did not want.
    std::vector<BYTE> m_kept;
    std::size_t m_nKeptTaken = 0;
};

CUsbNode::CUsbNode(CDescriptor socket) : m_socket(std::move(socket)) {
    BYTE request[usbip::OP_REQ_IMPORT_SIZE] = {};
    usbip::PutU16(request + usbip::OP_OFFSET_VERSION, usbip::VERSION);
    usbip::PutU16(request + usbip::OP_OFFSET_CODE, usbip::OP_REQ_IMPORT);
    std::memcpy(request + usbip::OP_OFFSET_BUS_ID, usbip::BUS_ID, sizeof(usbip::BUS_ID));
    Enqueue(request, sizeof(request));
    Flush();
}

BOOL CUsbNode::Read(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    if (!MayTransfer()) {
        return FALSE;
    }
    if (dwSize == 0) {
        *lpdwCount = 0;
        return TRUE;
    }
    if (TakeKept(lpBuffer, dwSize, lpdwCount)) {
        return TRUE;
    }
    if (!Settle()) {
        return FALSE;
    }
    if (TakeKept(lpBuffer, dwSize, lpdwCount)) {
        return TRUE;
    }
    if (!Submit(true, std::min(dwSize, usbip::MAX_TRANSFER), nullptr) || !AwaitAnswer()) {
        return FALSE;
    }
    std::copy(m_body.begin(), m_body.end(), static_cast<BYTE*>(lpBuffer));
    *lpdwCount = static_cast<DWORD>(m_body.size());
    return TRUE;
}

BOOL CUsbNode::Write(const void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    if (!MayTransfer()) {
        return FALSE;
    }
    if (dwSize > usbip::MAX_TRANSFER) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (dwSize == 0) {
        *lpdwCount = 0;
        return TRUE;
    }
    if (!Settle() || !Submit(false, dwSize, lpBuffer) || !AwaitAnswer()) {
        return FALSE;
    }
    *lpdwCount = m_transfer.dwActualLength;
    return TRUE;
}

bool CUsbNode::MayTransfer() {
    if (RefuseWhenStopping()) {
        return false;
    }
    if (m_bBroken || m_socket.Get() < 0) {
        SetLastError(ERROR_GEN_FAILURE);
        return false;
    }
    return true;
}

bool CUsbNode::TakeKept(void* lpBuffer, DWORD dwSize, DWORD* lpdwCount) {
    const std::size_t nLeft = m_kept.size() - m_nKeptTaken;
    if (nLeft == 0) {
        return false;
    }
    const std::size_t nTaken = std::min<std::size_t>(nLeft, dwSize);
    std::memcpy(lpBuffer, m_kept.data() + m_nKeptTaken, nTaken);
    m_nKeptTaken += nTaken;
    *lpdwCount = static_cast<DWORD>(nTaken);
    return true;
}

// Takes what the device owes from earlier: the reply to the import, or the answers that a stopped
// transfer left behind.
bool CUsbNode::Settle() {
    while (m_bImportOpen || m_transfer.bOpen || m_bUnlinkOpen) {
        if (!Flush() || (!Receive() && !AwaitProgress())) {
            return false;
        }
    }
    return true;
}

bool CUsbNode::Submit(bool bIn, DWORD dwLength, const void* lpData) {
    m_transfer = CTransfer();
    m_transfer.bOpen = true;
    m_transfer.bIn = bIn;
    m_transfer.dwSeqnum = ++m_dwLastSeqnum;
    m_transfer.dwLength = dwLength;

    BYTE header[usbip::HEADER_SIZE] = {};
    usbip::PutU32(header + usbip::OFFSET_COMMAND, usbip::CMD_SUBMIT);
    usbip::PutU32(header + usbip::OFFSET_SEQNUM, m_transfer.dwSeqnum);
    usbip::PutU32(header + usbip::OFFSET_DEVID, usbip::DEVICE_ID);
    usbip::PutU32(header + usbip::OFFSET_DIRECTION,
                  bIn ? usbip::DIRECTION_IN : usbip::DIRECTION_OUT);
    usbip::PutU32(header + usbip::OFFSET_ENDPOINT, usbip::BULK_ENDPOINT);
    usbip::PutU32(header + usbip::OFFSET_BUFFER_LENGTH, dwLength);
    usbip::PutU32(header + usbip::OFFSET_NUMBER_OF_PACKETS, 0xFFFFFFFF);

    // Everything earlier has left, as the device could not have answered it otherwise.
    iovec parts[2] = {{header, sizeof(header)},
                      {const_cast<void*>(lpData), bIn ? 0 : std::size_t{dwLength}}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    m_transfer.nMessageBytes = parts[0].iov_len + parts[1].iov_len;
    ssize_t nSent = ::sendmsg(m_socket.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (nSent < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            Break();
            return false;
        }
        nSent = 0;
    }
    const auto nLeft = static_cast<std::size_t>(nSent);
    m_transfer.nBytesQueued = m_transfer.nMessageBytes - nLeft;
    if (nLeft < sizeof(header)) {
        Enqueue(header + nLeft, sizeof(header) - nLeft);
    }
    if (m_transfer.nBytesQueued > 0 && !bIn) {
        const std::size_t nDataLeft = nLeft < sizeof(header) ? 0 : nLeft - sizeof(header);
        Enqueue(static_cast<const BYTE*>(lpData) + nDataLeft, dwLength - nDataLeft);
    }
    return !m_bBroken;
}

// Waits for the answer to the transfer just submitted. False, with the error number, when it
// failed or was stopped.
bool CUsbNode::AwaitAnswer() {
    while (m_transfer.bOpen) {
        // The answer takes the device a moment, so the wait comes first.
        if (!AwaitProgress()) {
            if (!m_bBroken) {
                Cancel();
                SetLastError(ERROR_OPERATION_ABORTED);
            }
            return false;
        }
        if (!Flush()) {
            return false;
        }
        Receive();
        if (m_bBroken) {
            return false;
        }
    }
    if (m_transfer.nStatus != 0) {
        SetLastError(ERROR_GEN_FAILURE);
        return false;
    }
    return true;
}

// Takes the open transfer back, without waiting for anything.
void CUsbNode::Cancel() {
    if (m_transfer.nBytesQueued == m_transfer.nMessageBytes) {
        // The device has not heard of it.
        m_out.clear();
        m_transfer.bOpen = false;
        return;
    }
    m_transfer.bUnlinked = true;
    m_bUnlinkOpen = true;
    m_dwUnlinkSeqnum = ++m_dwLastSeqnum;
    BYTE header[usbip::HEADER_SIZE] = {};
    usbip::PutU32(header + usbip::OFFSET_COMMAND, usbip::CMD_UNLINK);
    usbip::PutU32(header + usbip::OFFSET_SEQNUM, m_dwUnlinkSeqnum);
    usbip::PutU32(header + usbip::OFFSET_DEVID, usbip::DEVICE_ID);
    usbip::PutU32(header + usbip::OFFSET_UNLINK_SEQNUM, m_transfer.dwSeqnum);
    Enqueue(header, sizeof(header));
    Flush();
}

// Blocks until the socket has something for us, or takes what is queued for it. False, with the
// error number, in a thread that is being stopped.
bool CUsbNode::AwaitProgress() {
    if (m_bBroken) {
        return false;
    }
    const int nEvents = POLLIN | (m_out.empty() ? 0 : POLLOUT);
    return WaitForDescriptor(m_socket.Get(), static_cast<short>(nEvents));
}

// Sends of the queue what the socket takes now. False when the node is broken.
bool CUsbNode::Flush() {
    if (m_out.empty() || m_bBroken) {
        return !m_bBroken;
    }
    const ssize_t nSent =
        ::send(m_socket.Get(), m_out.data(), m_out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (nSent < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            Break();
        }
        return !m_bBroken;
    }
    m_out.erase(m_out.begin(), m_out.begin() + nSent);
    // Behind the transfer's own bytes there is at most its unlink.
    m_transfer.nBytesQueued -= std::min(m_transfer.nBytesQueued, static_cast<std::size_t>(nSent));
    return true;
}

// Takes what has arrived. False when that was nothing, or the node is broken.
bool CUsbNode::Receive() {
    if (m_nInBegin > 0) {
        std::memmove(m_in.data(), InBytes(), InCount());
        m_nInEnd = InCount();
        m_nInBegin = 0;
    }
    const ssize_t nReceived =
        ::recv(m_socket.Get(), m_in.data() + m_nInEnd, m_in.size() - m_nInEnd, MSG_DONTWAIT);
    if (nReceived <= 0) {
        if (nReceived == 0 || (errno != EAGAIN && errno != EINTR)) {
            Break();
        }
        return false;
    }
    m_nInEnd += static_cast<std::size_t>(nReceived);
    Digest();
    return !m_bBroken;
}

void CUsbNode::Digest() {
    bool bProgress = true;
    while (bProgress && !m_bBroken) {
        if (m_nBodyMissing > 0) {
            bProgress = DigestBody();
        } else {
            bProgress = m_bImportOpen ? DigestImport() : DigestAnswer();
        }
    }
}

bool CUsbNode::DigestImport() {
    if (InCount() < usbip::OP_HEADER_SIZE) {
        return false;
    }
    const BYTE* lpReply = InBytes();
    // A refusal has no more than the header.
    if (usbip::GetU16(lpReply + usbip::OP_OFFSET_VERSION) != usbip::VERSION ||
        usbip::GetU16(lpReply + usbip::OP_OFFSET_CODE) != usbip::OP_REP_IMPORT ||
        usbip::GetU32(lpReply + usbip::OP_OFFSET_STATUS) != 0 || !m_out.empty()) {
        Break();
        return false;
    }
    if (InCount() < usbip::OP_REP_IMPORT_SIZE) {
        return false;
    }
    m_nInBegin += usbip::OP_REP_IMPORT_SIZE;
    m_bImportOpen = false;
    return true;
}

bool CUsbNode::DigestAnswer() {
    if (InCount() < usbip::HEADER_SIZE) {
        return false;
    }
    const BYTE* lpHeader = InBytes();
    m_nInBegin += usbip::HEADER_SIZE;
    switch (usbip::GetU32(lpHeader + usbip::OFFSET_COMMAND)) {
    case usbip::RET_SUBMIT:
        TakeRetSubmit(lpHeader);
        return true;
    case usbip::RET_UNLINK:
        TakeRetUnlink(lpHeader);
        return true;
    default:
        Break();
        return false;
    }
}

void CUsbNode::TakeRetSubmit(const BYTE* lpHeader) {
    const DWORD dwActualLength = usbip::GetU32(lpHeader + usbip::OFFSET_ACTUAL_LENGTH);
    if (!m_transfer.bOpen || m_transfer.nBytesQueued != 0 ||
        usbip::GetU32(lpHeader + usbip::OFFSET_SEQNUM) != m_transfer.dwSeqnum ||
        dwActualLength > m_transfer.dwLength) {
        Break();
        return;
    }
    m_transfer.nStatus = static_cast<std::int32_t>(usbip::GetU32(lpHeader + usbip::OFFSET_STATUS));
    m_transfer.dwActualLength = dwActualLength;
    m_body.clear();
    m_nBodyMissing = m_transfer.bIn ? dwActualLength : 0;
    if (m_nBodyMissing > 0) {
        try {
            m_body.reserve(m_nBodyMissing);
        } catch (const std::bad_alloc&) {
            Break();
        }
        return;
    }
    CompleteTransfer();
}

bool CUsbNode::DigestBody() {
    const std::size_t nTaken = std::min(InCount(), m_nBodyMissing);
    if (nTaken == 0) {
        return false;
    }
    m_body.insert(m_body.end(), InBytes(), InBytes() + nTaken);
    m_nInBegin += nTaken;
    m_nBodyMissing -= nTaken;
    if (m_nBodyMissing == 0) {
        CompleteTransfer();
    }
    return true;
}

void CUsbNode::CompleteTransfer() {
    m_transfer.bOpen = false;
    if (m_transfer.bUnlinked && m_transfer.bIn && m_transfer.nStatus == 0) {
        // Nothing is kept yet: a read is only submitted when nothing is.
        m_kept.swap(m_body);
        m_nKeptTaken = 0;
    }
}

void CUsbNode::TakeRetUnlink(const BYTE* lpHeader) {
    const auto nStatus = static_cast<std::int32_t>(usbip::GetU32(lpHeader + usbip::OFFSET_STATUS));
    // A transfer that was answered before has its answer before this one.
    const bool bSound = nStatus == usbip::STATUS_UNLINKED || (nStatus == 0 && !m_transfer.bOpen);
    if (!m_bUnlinkOpen || !m_out.empty() || !bSound ||
        usbip::GetU32(lpHeader + usbip::OFFSET_SEQNUM) != m_dwUnlinkSeqnum) {
        Break();
        return;
    }
    m_bUnlinkOpen = false;
    m_transfer.bOpen = false;
}

void CUsbNode::Enqueue(const BYTE* lpBytes, std::size_t nBytes) {
    try {
        m_out.insert(m_out.end(), lpBytes, lpBytes + nBytes);
    } catch (const std::bad_alloc&) {
        Break();
    }
}

void CUsbNode::Break() {
    m_bBroken = true;
    m_out.clear();
    m_kept.clear();
    m_nKeptTaken = 0;
    ::shutdown(m_socket.Get(), SHUT_RDWR);
    SetLastError(ERROR_GEN_FAILURE);
}

// Connects to the very socket that was looked at, by way of its descriptor: that way a path may
// also be longer than a socket address.
bool ConnectTo(int nSocket, const char* lpszSocketPath) {
    const CDescriptor node(::open(lpszSocketPath, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!node || ::fstat(node.Get(), &status) != 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d", node.Get());
    if (::connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    return true;
}

} // namespace

HANDLE OpenUsbNode(const char* lpszSocketPath) {
    CDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    if (!ConnectTo(connection.Get(), lpszSocketPath)) {
        return nullptr;
    }
    // Room for many of the library's packages, so that each leaves as a whole at once.
    const int nBufferSize = 256 << 10;
    ::setsockopt(connection.Get(), SOL_SOCKET, SO_SNDBUF, &nBufferSize, sizeof(nBufferSize));
    return AddHandle(std::make_shared<CUsbNode>(std::move(connection)));
}

} // namespace platform::posix
