// The device node against a peer that is played by hand: what goes over the socket to the byte, and
// what comes of a peer that keeps to no protocol.
#include "tests/platform/posix_tools.h"

#include <poll.h>

#include <algorithm>
#include <memory>

namespace platform::tests {

// A node of the host, the device at its other end, and the host's latest transfer.
struct CPlay {
    ~CPlay() {
        pTransfer.reset();
        CloseHandle(hNode);
    }
    const CDeviceFolder devices;
    const CAttachment attachment{devices.Path()};
    const HANDLE hNode = OpenDevice();
    const CUsbipEnd device{attachment};
    std::unique_ptr<CTransfer> pTransfer;
};

// What happens next, on either side.
using STEP = std::function<void(CPlay&)>;

static STEP Reads(DWORD dwSize) {
    return [=](CPlay& play) { play.pTransfer = std::make_unique<CTransfer>(play.hNode, dwSize); };
}
static STEP Writes(const Bytes& package) {
    return [=](CPlay& play) { play.pTransfer = std::make_unique<CTransfer>(play.hNode, package); };
}
// The transfer ends by itself, and well.
static STEP Brings(const Bytes& bytes) {
    return [=](CPlay& play) {
        EXPECT_TRUE(play.pTransfer->Succeeds());
        EXPECT_EQ(play.pTransfer->Data(), bytes);
    };
}
static void Fails(CPlay& play) {
    EXPECT_TRUE(play.pTransfer->Fails());
}
// It fails, and the node is of no use any more.
static void Breaks(CPlay& play) {
    Fails(play);
    EXPECT_TRUE(CTransfer(play.hNode, 1).Fails() && CTransfer(play.hNode, Bytes(1)).Fails());
    EXPECT_TRUE(IsDeviceNodeLost(play.hNode) && DevicePaths().size() == 1) << "its own matter";
}
static void IsStopped(CPlay& play) {
    EXPECT_TRUE(play.pTransfer->IsStopped());
}

static STEP Gets(const Bytes& bytes) {
    return [=](CPlay& play) { EXPECT_EQ(play.device.Take(bytes.size()), bytes); };
}
// The beginning of it, which is not taken yet.
static void GetsSome(CPlay& play) {
    pollfd polled{play.device.Socket(), POLLIN, 0};
    EXPECT_EQ(::poll(&polled, 1, AT_ONCE_MS), 1);
}
static void GetsNothing(CPlay& play) {
    EXPECT_EQ(play.device.Waiting(), 0);
}
static STEP Says(const Bytes& bytes) {
    return [=](CPlay& play) { play.device.Send(bytes); };
}
static STEP SaysByteForByte(const Bytes& bytes) {
    return [=](CPlay& play) {
        for (const std::uint8_t byte : bytes) {
            play.device.Send({byte});
            Sleep(1);
        }
    };
}
static void HangsUp(CPlay& play) {
    play.device.HangUp();
}

// The host's messages.
static Bytes Import() {
    return Message({0x0111'8003, 0, 0x312D'3100 /* "1-1" */}, {}, usbip::OP_REQ_IMPORT_SIZE);
}
static Bytes Read(std::uint32_t dwSeqnum, std::uint32_t dwSize) {
    return Message(
        {usbip::CMD_SUBMIT, dwSeqnum, 0x10001, usbip::DIRECTION_IN, 1, 0, dwSize, 0, 0xFFFFFFFF});
}
static Bytes Write(std::uint32_t dwSeqnum, const Bytes& package) {
    return Message({usbip::CMD_SUBMIT, dwSeqnum, 0x10001, usbip::DIRECTION_OUT, 1, 0,
                    static_cast<std::uint32_t>(package.size()), 0, 0xFFFFFFFF},
                   package);
}
static Bytes Unlink(std::uint32_t dwSeqnum, std::uint32_t dwVictim) {
    return Message({usbip::CMD_UNLINK, dwSeqnum, 0x10001, 0, 0, dwVictim});
}
// The device's answer to a read that brings these bytes.
static Bytes Answer(std::uint32_t dwSeqnum, const Bytes& data) {
    return Submitted(dwSeqnum, static_cast<std::uint32_t>(data.size()), data);
}
static Bytes Cut(const Bytes& bytes, std::size_t nBegin, std::size_t nEnd) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(nBegin),
                 bytes.begin() + static_cast<std::ptrdiff_t>(nEnd));
}

TEST(PosixNode, PlaysItsPart) {
    constexpr std::int32_t GONE = usbip::STATUS_UNLINKED;
    const Bytes package = Pattern(12288);
    // More than the socket takes while nobody reads.
    const Bytes large = Pattern(usbip::MAX_TRANSFER);
    const Bytes late = Answer(1, {1, 2, 3, 4, 5});
    const Bytes three = Answer(1, {1, 2, 3});
    const std::vector<STEP> imported = {Gets(Import()), Says(ImportReply())};
    std::vector<STEP> reading = imported;
    reading.insert(reading.end(), {Reads(100), Gets(Read(1, 100))});
    std::vector<STEP> stopped = reading;
    stopped.insert(stopped.end(), {IsStopped, Gets(Unlink(2, 1))});
    const struct {
        const char* lpszWhat;
        std::vector<STEP> before;
        std::vector<STEP> steps;
    } rows[] = {
        {"nothing goes out ahead of the import",
         {},
         {Gets(Import()), Reads(20), IsStopped, Writes(package), GetsNothing, Says(ImportReply()),
          Gets(Write(1, package)), Says(Submitted(1, 12288)), Brings(package), Reads(500),
          Gets(Read(2, 500)), SaysByteForByte(Answer(2, {7, 8})), Brings({7, 8})}},
        {"what comes for a stopped read is kept",
         reading,
         {Says(Cut(late, 0, 51)), IsStopped, Gets(Unlink(2, 1)), Says(Cut(late, 51, 53)),
          Says(Unlinked(2, 0)), Writes({9}), Gets(Write(3, {9})), Says(Submitted(3, 1)),
          Brings({9}), Reads(3), Brings({1, 2, 3}), Reads(100), Brings({4, 5}), GetsNothing}},
        {"all of it",
         stopped,
         {Says(late), Says(Unlinked(2, 0)), Reads(9), Brings({1, 2, 3, 4, 5}), Reads(7),
          Gets(Read(3, 7))}},
        {"nothing piles up behind what is not answered",
         stopped,
         {Writes(package), IsStopped, Reads(12288), IsStopped, Writes(package), IsStopped,
          GetsNothing, Says(Unlinked(2, GONE)), Reads(8), Gets(Read(3, 8)), Says(Answer(3, {9})),
          Brings({9})}},
        {"a package that is half out is finished first",
         imported,
         {Writes(large), GetsSome, IsStopped, Writes({1, 2}), Gets(Write(1, large)),
          Gets(Unlink(2, 1)), Says(Submitted(1, usbip::MAX_TRANSFER)), Says(Unlinked(2, 0)),
          Gets(Write(3, {1, 2})), Says(Submitted(3, 2)), Brings({1, 2})}},
        {"a refusal leaves the pipe usable",
         reading,
         {Says(Message({usbip::RET_SUBMIT, 1, 0, 0, 0, ~31U, 3}, {1, 2, 3})), Fails, Reads(100),
          Gets(Read(2, 100)), Says(Answer(2, {7})), Brings({7})}},
        {"too long a package", imported, {Writes(Bytes(usbip::MAX_TRANSFER + 1)), Fails}},

        {"no reply", {}, {Reads(100), HangsUp, Breaks}},
        {"half an import", {}, {Reads(100), Says(Cut(ImportReply(), 0, 100)), HangsUp, Breaks}},
        {"another version", {}, {Reads(100), Says(ImportReply(0x0100'0003)), Breaks}},
        {"another code", {}, {Reads(100), Says(ImportReply(0x0111'0005)), Breaks}},
        {"a refusal", {}, {Reads(100), Says(Cut(ImportReply(0x0111'0003, 1), 0, 8)), Breaks}},
        {"an answer ahead of all", {}, {Reads(9), Says(test::Join(ImportReply(), three)), Breaks}},
        {"text", {}, {Reads(100), Says(Bytes(400, 'a')), Breaks}},
        {"no answer", reading, {HangsUp, Breaks}},
        {"half a header", reading, {Says(Cut(three, 0, 20)), HangsUp, Breaks}},
        {"half the bytes", reading, {Says(Cut(three, 0, 50)), HangsUp, Breaks}},
        {"an unknown command", reading, {Says(Message({9, 1})), Breaks}},
        {"a command for devices", reading, {Says(Read(1, 100)), Breaks}},
        {"another's answer", reading, {Says(Answer(2, {1})), Breaks}},
        {"more than was asked for", reading, {Says(Submitted(1, 101)), Breaks}},
        {"an absurd length", reading, {Says(Submitted(1, 0xFFFFFFFF)), Breaks}},
        {"an unlink of nothing", reading, {Says(Unlinked(1, 0)), Breaks}},
        {"half of it gone",
         imported,
         {Writes(large), Says(Submitted(1, usbip::MAX_TRANSFER)), Breaks}},
        {"garbage behind it", reading, {Says(test::Join(three, Bytes(48, 0xFF))), Breaks}},
        {"another's unlink", stopped, {Says(Unlinked(3, GONE)), Reads(100), Breaks}},
        {"no outcome of an unlink", stopped, {Says(Unlinked(2, -1)), Reads(100), Breaks}},
        {"an answer that never came", stopped, {Says(Unlinked(2, 0)), Reads(100), Breaks}},
        {"an unlink's submission", stopped, {Says(Submitted(2, 0)), Reads(100), Breaks}},

        {"silence", {}, {Reads(100), IsStopped, Writes(package), IsStopped}},
        {"a begun import", {}, {Reads(100), Says({1, 0x11, 0}), IsStopped, Reads(1), IsStopped}},
        {"a begun answer", reading, {Says({0, 0, 0}), IsStopped, Writes(package), IsStopped}},
        {"begun bytes", reading, {Says(Cut(three, 0, 49)), IsStopped, Writes(package), IsStopped}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszWhat);
        CPlay play;
        std::ranges::for_each(row.before, [&](const STEP& step) { step(play); });
        std::ranges::for_each(row.steps, [&](const STEP& step) { step(play); });
    }
}

TEST(PosixNode, OpensAtOnceWhereverTheFolderLies) {
    const test::CTempFolder folder;
    const std::string strDeep = folder.Path(std::string(200, 'd'));
    const CEnvironment environment("DAK_DEVICE_DIR", strDeep.c_str());
    EXPECT_TRUE(CloseHandle(CreateMutexA(nullptr, FALSE, "TheLock")));
    EXPECT_TRUE(std::filesystem::is_empty(folder.Folder())) << "it may be mistyped";
    // Nobody accepts, and there is room for one or two.
    const CAttachment attachment(strDeep, std::string(80, 'n'), 0);
    std::vector<HANDLE> opened = {OpenDevice()};
    while (opened.size() < 10 && opened.back() != INVALID_HANDLE_VALUE) {
        opened.push_back(Open(DevicePaths()[0], GENERIC_READ | GENERIC_WRITE));
    }
    EXPECT_LT(opened.size(), 10U) << "a full queue must refuse";
    std::ranges::for_each(opened, CloseHandle);
}

TEST(PosixNode, AForkedChildDoesNotKeepTheConnection) {
    CPlay play;
    Gets(Import())(play);
    DWORD dwCount = 0;
    const CProcess child([&] { return ReadFile(play.hNode, &dwCount, 1, &dwCount) ? 'n' : 'y'; });
    EXPECT_EQ(child.Answer(), 'y') << "nor can it use it";
    EXPECT_TRUE(CloseHandle(play.hNode));
    EXPECT_EQ(play.device.Take(1), Bytes()) << "the child's copy keeps it open";
}

} // namespace platform::tests
