// The device node against peers that a test plays by hand: what goes over the socket to the byte,
// and what comes of a peer that keeps to no protocol.
#include "platform/file.h"
#include "platform/posix/usbip.h"
#include "tests/platform/posix_test_tools.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

namespace {

using namespace device_test;
using namespace platform_test;
using platform::CloseHandle;
using platform::GetLastError;

// The other end of a node's socket, by hand.
class CPeer {
  public:
    CPeer() : m_attachment(m_devices.folder.Path()) {
        m_hNode = OpenDevice(DevicePath().value_or(""));
        EXPECT_NE(m_hNode, INVALID_HANDLE_VALUE);
        m_nSocket = ::accept4(m_attachment.Listener(), nullptr, nullptr, SOCK_CLOEXEC);
    }
    ~CPeer() {
        CloseHandle(m_hNode);
        HangUp();
    }
    CPeer(const CPeer&) = delete;
    CPeer& operator=(const CPeer&) = delete;

    HANDLE Node() const { return m_hNode; }
    void HangUp() {
        if (m_nSocket >= 0) {
            ::close(std::exchange(m_nSocket, -1));
        }
    }

    void Send(const Bytes& bytes) {
        EXPECT_EQ(::send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Exactly so many bytes of the host's, waited for.
    Bytes Take(std::size_t nSize) {
        Bytes bytes(nSize);
        const ssize_t nTaken = ::recv(m_nSocket, bytes.data(), nSize, MSG_WAITALL);
        bytes.resize(nTaken > 0 ? static_cast<std::size_t>(nTaken) : 0);
        EXPECT_EQ(bytes.size(), nSize);
        return bytes;
    }
    std::size_t TakeAllThatIsThere() {
        std::size_t nAll = 0;
        Bytes bytes(65536);
        ssize_t nTaken = 0;
        while ((nTaken = ::recv(m_nSocket, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
            nAll += static_cast<std::size_t>(nTaken);
        }
        return nAll;
    }
    // Whether so many bytes of the host's lie in the socket, or soon do.
    bool Has(std::size_t nSize) const {
        int nThere = 0;
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(::ioctl(m_nSocket, FIONREAD, &nThere), 0);
            if (static_cast<std::size_t>(nThere) >= nSize) {
                return true;
            }
            platform::Sleep(2);
        }
        return false;
    }
    // Waits until the host has closed its end, with nothing more sent.
    bool HasBeenLeft() {
        char ch = 0;
        return ::recv(m_nSocket, &ch, 1, 0) == 0;
    }
    void Import() {
        Take(usbip::OP_REQ_IMPORT_SIZE);
        Send(ImportReply());
    }

    // The answer to a read that brings these bytes.
    static Bytes Brings(std::uint32_t dwSeqnum, const Bytes& data) {
        return Answer(usbip::RET_SUBMIT, dwSeqnum, 0, static_cast<std::uint32_t>(data.size()),
                      data);
    }

    // Takes a write of the host and says that it has arrived.
    void ServeWrite(std::uint32_t dwSeqnum, const Bytes& package) {
        const auto dwSize = static_cast<std::uint32_t>(package.size());
        ExpectSubmit(dwSeqnum, usbip::DIRECTION_OUT, dwSize);
        EXPECT_EQ(Take(dwSize), package);
        Send(Answer(usbip::RET_SUBMIT, dwSeqnum, 0, dwSize));
    }
    // The header of the host's next message, which has to be this.
    void ExpectSubmit(std::uint32_t dwSeqnum, std::uint32_t dwDirection, std::uint32_t dwLength) {
        const Bytes header = Take(usbip::HEADER_SIZE);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_COMMAND), usbip::CMD_SUBMIT);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_SEQNUM), dwSeqnum);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_DEVID), usbip::DEVICE_ID);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_DIRECTION), dwDirection);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_ENDPOINT), usbip::BULK_ENDPOINT);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_BUFFER_LENGTH), dwLength);
    }
    void ExpectUnlink(std::uint32_t dwSeqnum, std::uint32_t dwVictim) {
        const Bytes header = Take(usbip::HEADER_SIZE);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_COMMAND), usbip::CMD_UNLINK);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_SEQNUM), dwSeqnum);
        EXPECT_EQ(usbip::GetU32(header.data() + usbip::OFFSET_UNLINK_SEQNUM), dwVictim);
    }

  private:
    CDeviceFolder m_devices;
    CAttachment m_attachment;
    HANDLE m_hNode = INVALID_HANDLE_VALUE;
    int m_nSocket = -1;
};

// A transfer on a thread, as the library makes them.
class CTransfer {
  public:
    CTransfer(HANDLE hNode, DWORD dwSize, const void* lpData = nullptr)
        : m_buffer(dwSize), m_thread([this, hNode, dwSize, lpData] {
              m_bDone = lpData == nullptr
                            ? platform::ReadFile(hNode, m_buffer.data(), dwSize, &m_dwCount)
                            : platform::WriteFile(hNode, lpData, dwSize, &m_dwCount);
              m_dwError = GetLastError();
          }) {}

    // Left alone it ends, and well.
    bool Succeeds() {
        EXPECT_TRUE(m_thread.EndsWithin(AT_ONCE_MS));
        m_thread.Stop();
        return m_bDone != FALSE;
    }
    // Left alone it ends, as a failure, with the count untouched.
    bool Fails() {
        EXPECT_TRUE(m_thread.EndsWithin(AT_ONCE_MS));
        m_thread.Stop();
        EXPECT_EQ(m_dwError, ERROR_GEN_FAILURE);
        return m_bDone == FALSE && m_dwCount == 0;
    }
    // Left alone it does not end; stopped, it ends without a trace.
    bool IsStopped(DWORD dwAfterMs = 20) {
        const bool bBlocked = !m_thread.EndsWithin(dwAfterMs);
        const auto start = std::chrono::steady_clock::now();
        m_thread.Stop();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        // On a busy machine the stop may come before the thread's first step.
        EXPECT_TRUE(m_dwError == ERROR_OPERATION_ABORTED || m_dwError == NOT_RUN);
        return bBlocked && m_bDone == FALSE && m_dwCount == 0;
    }
    Bytes Data() const { return Bytes(m_buffer.begin(), m_buffer.begin() + m_dwCount); }
    DWORD Count() const { return m_dwCount; }

  private:
    Bytes m_buffer;
    DWORD m_dwCount = 0;
    BOOL m_bDone = FALSE;
    static constexpr DWORD NOT_RUN = 0xFFFF;
    DWORD m_dwError = NOT_RUN;
    CTask m_thread; // last: it uses the others
};

TEST(PosixNode, TransfersGoOutAsTheProtocolSays) {
    CPeer peer;
    const Bytes request = peer.Take(usbip::OP_REQ_IMPORT_SIZE);
    Bytes expected = {0x01, 0x11, 0x80, 0x03, 0, 0, 0, 0, '1', '-', '1'};
    expected.resize(usbip::OP_REQ_IMPORT_SIZE);
    EXPECT_EQ(request, expected);

    CTransfer first(peer.Node(), 20);
    EXPECT_TRUE(first.IsStopped()) << "before it has been answered";
    const Bytes package(12288, 0xAB);
    CTransfer write(peer.Node(), 12288, package.data());
    peer.Send(ImportReply());
    peer.ServeWrite(1, package);
    EXPECT_TRUE(write.Succeeds());
    EXPECT_EQ(write.Count(), 12288U);

    CTransfer read(peer.Node(), 500);
    peer.ExpectSubmit(2, usbip::DIRECTION_IN, 500);
    // The answer may come in any pieces.
    const Bytes answer = CPeer::Brings(2, {1, 2, 3, 4, 5});
    for (const std::uint8_t byte : answer) {
        peer.Send({byte});
        platform::Sleep(1);
    }
    EXPECT_TRUE(read.Succeeds());
    EXPECT_EQ(read.Data(), (Bytes{1, 2, 3, 4, 5}));
}

TEST(PosixNode, BytesThatComeForAStoppedReadAreKept) {
    CPeer peer;
    peer.Import();
    CTransfer stopped(peer.Node(), 100);
    peer.ExpectSubmit(1, usbip::DIRECTION_IN, 100);
    const Bytes late = CPeer::Brings(1, {1, 2, 3, 4, 5, 6, 7, 8});
    peer.Send(Bytes(late.begin(), late.end() - 5)); // half of them before the stop
    EXPECT_TRUE(stopped.IsStopped());
    peer.ExpectUnlink(2, 1);
    peer.Send(Bytes(late.end() - 5, late.end()));
    peer.Send(Answer(usbip::RET_UNLINK, 2, 0));

    // A write in between neither takes nor loses them.
    const Bytes package(20, 1);
    CTransfer write(peer.Node(), 20, package.data());
    peer.ServeWrite(3, package);
    EXPECT_TRUE(write.Succeeds());

    CTransfer part(peer.Node(), 3);
    EXPECT_TRUE(part.Succeeds());
    EXPECT_EQ(part.Data(), (Bytes{1, 2, 3}));
    CTransfer rest(peer.Node(), 100);
    EXPECT_TRUE(rest.Succeeds());
    EXPECT_EQ(rest.Data(), (Bytes{4, 5, 6, 7, 8})) << "at once, without asking for more";
    EXPECT_EQ(peer.TakeAllThatIsThere(), 0U);
    CTransfer next(peer.Node(), 100);
    peer.ExpectSubmit(4, usbip::DIRECTION_IN, 100);
    EXPECT_TRUE(next.IsStopped());
    peer.ExpectUnlink(5, 4);
    peer.Send(CPeer::Brings(4, {9}));
    peer.Send(Answer(usbip::RET_UNLINK, 5, 0));
    CTransfer again(peer.Node(), 100);
    EXPECT_TRUE(again.Succeeds());
    EXPECT_EQ(again.Data(), Bytes{9});
}

TEST(PosixNode, AStoppedTransferIsAnsweredForBeforeTheNext) {
    CPeer peer;
    peer.Import();
    CTransfer stopped(peer.Node(), 100);
    peer.ExpectSubmit(1, usbip::DIRECTION_IN, 100);
    EXPECT_TRUE(stopped.IsStopped());
    peer.ExpectUnlink(2, 1);
    // As long as the device says nothing, nothing more is sent, and nothing piles up.
    const Bytes package(12288, 1);
    for (int i = 0; i < 20; ++i) {
        CTransfer silent(peer.Node(), 12288, i % 2 == 0 ? package.data() : nullptr);
        EXPECT_TRUE(silent.IsStopped(2));
    }
    EXPECT_EQ(peer.TakeAllThatIsThere(), 0U);
    peer.Send(Answer(usbip::RET_UNLINK, 2, usbip::STATUS_UNLINKED));
    CTransfer next(peer.Node(), 8);
    peer.ExpectSubmit(3, usbip::DIRECTION_IN, 8);
    peer.Send(CPeer::Brings(3, {9}));
    EXPECT_TRUE(next.Succeeds());
    EXPECT_EQ(next.Data(), Bytes{9});
}

TEST(PosixNode, APackageThatIsHalfOutIsFinishedFirst) {
    CPeer peer;
    peer.Import();
    // More than the socket takes while nobody reads.
    const Bytes package(usbip::MAX_TRANSFER, 0xCD);
    CTransfer stopped(peer.Node(), usbip::MAX_TRANSFER, package.data());
    EXPECT_TRUE(stopped.IsStopped(100));
    const Bytes second(20, 0xEF);
    CTransfer next(peer.Node(), 20, second.data());
    peer.ExpectSubmit(1, usbip::DIRECTION_OUT, usbip::MAX_TRANSFER);
    EXPECT_EQ(peer.Take(usbip::MAX_TRANSFER), package);
    peer.ExpectUnlink(2, 1);
    peer.Send(Answer(usbip::RET_SUBMIT, 1, 0, usbip::MAX_TRANSFER));
    peer.Send(Answer(usbip::RET_UNLINK, 2, 0));
    peer.ServeWrite(3, second);
    EXPECT_TRUE(next.Succeeds());
    EXPECT_EQ(next.Count(), 20U);
}

// Writes that the peer answers without reading them, until the socket has no room for one: that one
// is left blocked. Returns its number.
std::uint32_t FillSocket(CPeer& peer, const Bytes& package, std::unique_ptr<CTransfer>& pBlocked) {
    const auto dwSize = static_cast<DWORD>(package.size());
    std::size_t nExpected = 0;
    for (std::uint32_t dwSeqnum = 1;; ++dwSeqnum) {
        pBlocked = std::make_unique<CTransfer>(peer.Node(), dwSize, package.data());
        nExpected += usbip::HEADER_SIZE + package.size();
        if (!peer.Has(nExpected)) {
            return dwSeqnum;
        }
        peer.Send(Answer(usbip::RET_SUBMIT, dwSeqnum, 0, dwSize));
        EXPECT_TRUE(pBlocked->Succeeds());
    }
}

TEST(PosixNode, APackageThatHasNotBegunToLeave) {
    const Bytes package(12288, 0xCD);
    for (const bool bAnswered : {false, true}) {
        CPeer peer;
        peer.Import();
        std::unique_ptr<CTransfer> pBlocked;
        const std::uint32_t dwBlocked = FillSocket(peer, package, pBlocked);
        if (bAnswered) { // though the device cannot know of it
            peer.Send(Answer(usbip::RET_SUBMIT, dwBlocked, 0, 12288));
            EXPECT_TRUE(pBlocked->Fails());
            continue;
        }
        EXPECT_TRUE(pBlocked->IsStopped());
        EXPECT_EQ(peer.TakeAllThatIsThere(), (dwBlocked - 1) * (usbip::HEADER_SIZE + 12288));
        // It is taken back whole: there is nothing to unlink and nothing to wait for.
        CTransfer next(peer.Node(), 8);
        peer.ExpectSubmit(dwBlocked + 1, usbip::DIRECTION_IN, 8);
        peer.Send(CPeer::Brings(dwBlocked + 1, {7}));
        EXPECT_TRUE(next.Succeeds());
    }
}

TEST(PosixNode, ARefusedTransferLeavesThePipeUsable) {
    CPeer peer;
    peer.Import();
    CTransfer refused(peer.Node(), 100);
    peer.ExpectSubmit(1, usbip::DIRECTION_IN, 100);
    peer.Send(Answer(usbip::RET_SUBMIT, 1, -32, 3, {1, 2, 3}));
    EXPECT_TRUE(refused.Fails());
    CTransfer next(peer.Node(), 100);
    peer.ExpectSubmit(2, usbip::DIRECTION_IN, 100);
    peer.Send(CPeer::Brings(2, {7}));
    EXPECT_TRUE(next.Succeeds());
    EXPECT_EQ(next.Data(), Bytes{7});
    const Bytes tooLong(usbip::MAX_TRANSFER + 1);
    DWORD dwCount = 0;
    EXPECT_FALSE(
        platform::WriteFile(peer.Node(), tooLong.data(), usbip::MAX_TRANSFER + 1, &dwCount));
}

TEST(PosixNode, WhatIsAgainstTheProtocolBreaksItForGood) {
    const Bytes reply = ImportReply();
    const Bytes sound = CPeer::Brings(1, {1, 2, 3});
    Bytes followed = sound;
    followed.resize(followed.size() + usbip::HEADER_SIZE, 0xFF);
    Bytes early = reply;
    early.insert(early.end(), sound.begin(), sound.end());
    // Said in the place of the import's reply, or in that of the answer to a read of 100 bytes.
    enum class When { AtTheImport, AtTheRead };
    using enum When;
    const struct {
        const char* lpszWhat;
        When when;
        Bytes bytes;
        bool bHangUp;
    } rows[] = {
        {"no reply", AtTheImport, {}, true},
        {"half an import", AtTheImport, Bytes(reply.begin(), reply.begin() + 100), true},
        {"another version", AtTheImport, ImportReply(0x0100), false},
        {"another code", AtTheImport, ImportReply(usbip::VERSION, 0x0005), false},
        {"a refusal", AtTheImport, Bytes{0x01, 0x11, 0x00, 0x03, 0, 0, 0, 1}, false},
        {"an answer ahead of its question", AtTheImport, early, false},
        {"text", AtTheImport, Bytes(400, 'a'), false},
        {"no answer", AtTheRead, {}, true},
        {"half a header", AtTheRead, Bytes(sound.begin(), sound.begin() + 20), true},
        {"half the bytes", AtTheRead, Bytes(sound.begin(), sound.end() - 1), true},
        {"an unknown command", AtTheRead, Answer(9, 1, 0), false},
        {"a command for devices", AtTheRead, Answer(usbip::CMD_SUBMIT, 1, 0), false},
        {"another's answer", AtTheRead, CPeer::Brings(2, {1}), false},
        {"more than was asked for", AtTheRead, Answer(usbip::RET_SUBMIT, 1, 0, 101), false},
        {"an absurd length", AtTheRead, Answer(usbip::RET_SUBMIT, 1, 0, 0xFFFFFFFF), false},
        {"an unlink of nothing", AtTheRead, Answer(usbip::RET_UNLINK, 1, 0), false},
        {"garbage behind the answer", AtTheRead, followed, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszWhat);
        CPeer peer;
        CTransfer read(peer.Node(), 100);
        if (row.when == AtTheRead) {
            peer.Import();
            peer.ExpectSubmit(1, usbip::DIRECTION_IN, 100);
        }
        peer.Send(row.bytes);
        if (row.bHangUp) {
            peer.HangUp();
        }
        EXPECT_TRUE(read.Fails());
        for (const void* lpData :
             {static_cast<const void*>(nullptr), static_cast<const void*>("x")}) {
            CTransfer later(peer.Node(), 1, lpData);
            EXPECT_TRUE(later.Fails());
        }
    }
}

TEST(PosixNode, AnUnlinkIsJudgedToo) {
    const std::vector<Bytes> rows = {
        Answer(usbip::RET_UNLINK, 3, usbip::STATUS_UNLINKED), // another's
        Answer(usbip::RET_UNLINK, 2, -1),                     // no such outcome
        Answer(usbip::RET_UNLINK, 2, 0),                      // of an answer never given
        Answer(usbip::RET_SUBMIT, 2, 0),
    };
    for (const Bytes& answer : rows) {
        SCOPED_TRACE(&answer - rows.data());
        CPeer peer;
        peer.Import();
        CTransfer stopped(peer.Node(), 100);
        peer.ExpectSubmit(1, usbip::DIRECTION_IN, 100);
        EXPECT_TRUE(stopped.IsStopped());
        peer.ExpectUnlink(2, 1);
        peer.Send(answer);
        CTransfer next(peer.Node(), 100);
        EXPECT_TRUE(next.Fails());
    }
}

TEST(PosixNode, ASilentPeerHoldsNothingUp) {
    const Bytes reply = ImportReply();
    for (const std::size_t nSent : {0U, 1U, 8U, 319U, 320U, 321U, 367U}) {
        SCOPED_TRACE(nSent);
        CPeer peer;
        Bytes bytes = reply;
        const Bytes answer = CPeer::Brings(1, {1, 2, 3});
        bytes.insert(bytes.end(), answer.begin(), answer.end());
        bytes.resize(nSent);
        CTransfer read(peer.Node(), 100);
        peer.Send(bytes);
        EXPECT_TRUE(read.IsStopped());
        const Bytes package(12288);
        CTransfer write(peer.Node(), 12288, package.data());
        EXPECT_TRUE(write.IsStopped());
    }
}

TEST(PosixNode, WaitingCostsNoProcessorTime) {
    const auto usedMs = [] {
        timespec used{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return used.tv_sec * 1000 + used.tv_nsec / 1000000;
    };
    CPeer peer;
    // What a stop has left behind must not keep the next waits awake, nor an answer that has only
    // begun.
    const Bytes package(usbip::MAX_TRANSFER);
    for (int i = 0; i < 3; ++i) {
        CTransfer stopped(peer.Node(), 100);
        EXPECT_TRUE(stopped.IsStopped());
    }
    peer.Import();
    peer.Send({0, 0, 0});
    const auto nBefore = usedMs();
    CTransfer read(peer.Node(), 100);
    EXPECT_TRUE(read.IsStopped(300));
    CTransfer write(peer.Node(), usbip::MAX_TRANSFER, package.data());
    EXPECT_TRUE(write.IsStopped(300));
    EXPECT_LT(usedMs() - nBefore, 60);
}

TEST(PosixNode, OpeningNeverWaits) {
    const CDeviceFolder devices;
    // Nobody accepts, and there is room for one or two.
    const CAttachment attachment(devices.folder.Path(), "device", 0);
    const std::string strPath = DevicePath().value_or("");
    std::vector<HANDLE> opened;
    while (opened.size() < 10) {
        HANDLE hNode = OpenDevice(strPath);
        if (hNode == INVALID_HANDLE_VALUE) {
            break;
        }
        opened.push_back(hNode);
    }
    EXPECT_LT(opened.size(), 10U) << "a full queue must refuse";
    for (HANDLE hNode : opened) {
        CTransfer read(hNode, 8);
        EXPECT_TRUE(read.IsStopped());
        EXPECT_TRUE(CloseHandle(hNode));
    }
}

TEST(PosixNode, TheFolderMayLieDeep) {
    const CTempFolder folder;
    const std::string strDeep = folder / std::string(100, 'd') + "/" + std::string(100, 'e');
    const CEnvironment environment("DAK_DEVICE_DIR", strDeep.c_str());
    EXPECT_EQ(ProbeLock(), 'n') << "made with the folders above it";
    const CAttachment attachment(strDeep, std::string(80, 'n'));
    HANDLE hNode = OpenDevice(DevicePath().value_or(""));
    EXPECT_NE(hNode, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(hNode));
}

TEST(PosixNode, AForkedChildDoesNotKeepTheConnection) {
    CPeer peer;
    CProcess child([&] {
        DWORD dwCount = 0;
        char ch = 0;
        return platform::ReadFile(peer.Node(), &ch, 1, &dwCount) == FALSE ? 'y' : 'n';
    });
    EXPECT_EQ(child.Answer(), 'y') << "nor can it use it";
    peer.Take(usbip::OP_REQ_IMPORT_SIZE);
    EXPECT_TRUE(CloseHandle(peer.Node()));
    EXPECT_TRUE(peer.HasBeenLeft()) << "although the child lives";
}

} // namespace
