// Every function code's exchange under the same set of devices, and the frames around it.

#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"

#include "link/device_connection.h"

#include <gtest/gtest.h>

namespace {

using sim::Bytes;
using sim::ECall;
using sim::Text;
using sim::U32;

constexpr std::uint64_t WRITTEN_MS = 310; // a command goes out behind handshake and pause
constexpr std::uint64_t CLOSING_MS = 10;

enum EShape { POLLED, UNBOUNDED, FIRST_READ, SINGLE, COMPLETED, NO_RESPONSE };

void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{0x11223344});

// What an operation may store into.
struct COutputs {
    DWORD dwFirst = 0;
    DWORD dwSecond = 0;
    std::uint64_t qwValue = 0;
    void* hFile = nullptr;
    _tagFileInfo info{};
    CArray<_tagFileInfo, _tagFileInfo> files;
    CArray<_tagStorageInfo, _tagStorageInfo> storages;
    BYTE bytes[4] = {1, 2, 3, 4};
};

struct COperation {
    const char* lpszName;
    std::uint16_t code;
    std::function<DWORD(CDAKVorn&, COutputs&)> call;
    Bytes payload;
    EShape eShape;
    DWORD dwBound;
    Bytes fields; // of the response, behind the result
    bool bReplyEnds = false;
    std::uint64_t qwSettleMs = 0;
    std::uint64_t qwDrainMs = 0;
    std::uint64_t qwAckPauseMs = 0;
    bool bPolledAck = false;
    bool bAvailability = false;

    Bytes Request() const { return sim::Command(code, payload); }
    Bytes Reply(int nResult = 1) const { return sim::Response(code, nResult, fields); }
    std::uint64_t R() const { return Reply().size(); }
    // One try that brings nothing.
    std::uint64_t TryMs() const { return 10 + R() + 500 + 500; }
    std::uint64_t WrittenMs() const { return WRITTEN_MS + qwDrainMs; }
    // From the command's write to the first read for the response.
    std::uint64_t AckMs() const { return qwAckPauseMs + 10 + qwSettleMs + (code == 17 ? 70 : 0); }
    bool Polls() const { return eShape == POLLED || eShape == UNBOUNDED; }
    bool IsOnce() const { return eShape == SINGLE || eShape == COMPLETED; }
    DWORD Refused() const { return code == 25 ? DAKERROR_FOLDER_SPACE : DAKERROR_FAIL; }
    // Behind a missing response: a write's is what the stream left.
    DWORD Error() const { return code == 17 ? DAKERROR_NONE : DAKERROR_FAIL; }
    DWORD Gone() const { return bAvailability ? DAKERROR_NO_DEVICE : DAKERROR_FAIL; }
    // A device that takes the command and, for the write, its one package.
    void TakeCommand(sim::CScriptedDevice& device) const {
        device.Expect(Request()).At(WrittenMs()).Reply(sim::Ack());
        if (code == 17) {
            device.ExpectDataPackage(DAK_LAST_PACKAGE, 17, {1, 2, 3, 4}).Reply(sim::Ack());
        }
    }
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CALL(...) [](CDAKVorn& dak, [[maybe_unused]] COutputs& out) { return dak.__VA_ARGS__; }

std::vector<COperation> Operations() {
    const Bytes none;
    const Bytes path = Text(DAK_WIDE("\\a"));
    const Bytes two = sim::Join(Text(DAK_WIDE("\\a")), Text(DAK_WIDE("\\bc")));
    const Bytes handle = U32(0x11223344);
    const Bytes stream = sim::Join(handle, U32(4));
    const Bytes space = sim::U64(5);
    const Bytes zero = U32(0);
    const Bytes process = sim::Join(two, U32(1));
    const Bytes start = sim::Join(path, Text(DAK_WIDE("")), zero);
    const Bytes control = sim::Join(U32(7), U32(1), Bytes(1, 1), U32(4), U32(0x04030201));
    const Bytes create = sim::Join(path, U32(1), U32(2), U32(3));
    const Bytes seek = sim::Join(handle, U32(0xFFFFFFFE), U32(1));
    const Bytes copy = sim::Join(two, U32(0xFFFFFFFB));
    const Bytes broadcast = sim::Join(U32(1), U32(2), U32(0xFFFFFFFD));
    std::vector<COperation> all = {
        {"Move", 1, CALL(DAKMoveFile(DAK_WIDE("\\a"), DAK_WIDE("\\bc"))), two, POLLED, 121, none,
         true},
        {"Delete", 2, CALL(DAKDeleteFile(DAK_WIDE("\\a"))), path, UNBOUNDED, 0, none},
        {"DeviceFreeSpace", 6, CALL(DAKGetDeviceFreeSpace(&out.dwFirst, &out.dwSecond)), none,
         POLLED, 1201, space},
        {"FolderContent", 7, CALL(DAKGetFolderContent(DAK_WIDE("\\a"), &out.files)), path, POLLED,
         121, zero, true, 500, 518, 100},
        {"CreateDirectory", 10, CALL(DAKCreateDirectory(DAK_WIDE("\\a"), nullptr)), path, POLLED,
         1201, none},
        {"CreateProcess", 12,
         CALL(DAKCreateProcess(DAK_WIDE("\\a"), DAK_WIDE("\\bc"), &out.dwFirst)), process,
         UNBOUNDED, 0, zero},
        {"StartProcess", 12, CALL(DAKCreateProcess(DAK_WIDE("\\a"), nullptr, nullptr)), start,
         SINGLE, 1, zero, false, 500},
        {"KernelIoControl", 13, CALL(DAKKernelIoControl(7, out.bytes, 1, out.bytes, 4, nullptr)),
         control, POLLED, 1201, zero},
        {"GetFileInfo", 14, CALL(DAKGetFileInfo(DAK_WIDE("\\a"), &out.info)), path, SINGLE, 1,
         Bytes(1236, 1)},
        {"CreateFile", 15, CALL(DAKCreateFile(DAK_WIDE("\\a"), 1, 2, 3, &out.hFile)), create,
         POLLED, 1201, handle},
        {"ReadFile", 16, CALL(DAKReadFile(FILE_HANDLE, out.bytes, 4, &out.dwFirst)), stream,
         NO_RESPONSE, 0, none},
        {"WriteFile", 17, CALL(DAKWriteFile(FILE_HANDLE, out.bytes, 4, &out.dwFirst)), stream,
         FIRST_READ, 1201, none},
        {"SetFilePointer", 18, CALL(DAKSetFilePointer(FILE_HANDLE, -2, 1, &out.dwFirst)), seek,
         COMPLETED, 1, none},
        {"CloseFile", 19, CALL(DAKCloseFile(FILE_HANDLE)), handle, COMPLETED, 1, none},
        {"CopyFile", 20, CALL(DAKCopyFile(DAK_WIDE("\\a"), DAK_WIDE("\\bc"), -5)), copy, POLLED,
         1201, none},
        {"RegisterWindowMessage", 21, CALL(DAKRegisterWindowMessage(DAK_WIDE("\\a"), &out.dwFirst)),
         path, COMPLETED, 1, none},
        {"BroadCastMessage", 22, CALL(DAKBroadCastMessage(1, 2, -3)), broadcast, COMPLETED, 1,
         none},
        {"StorageInfo", 23, CALL(DAKGetStorageInfo(&out.storages)), none, UNBOUNDED, 0, zero, true},
        {"FormatPartition", 24, CALL(DAKFormatPartition(DAK_WIDE("\\a"))), path, SINGLE, 1, none},
        {"FolderFreeSpace", 25, CALL(DAKGetFolderFreeSpace(DAK_WIDE("\\a"), &out.qwValue)), path,
         POLLED, 361, space, true}};
    for (COperation& op : all) {
        op.bPolledAck = op.code == 7 || op.code == 16 || op.code == 17;
        op.bAvailability = op.code == 2 || op.code == 12;
    }
    return all;
}

struct CRun {
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    CDAKVorn dak;
    COutputs out;
};

// What an operation is to return and to leave in GetLastError; qwMs is when its exchange is over,
// ahead of the closing.
struct COutcome {
    std::uint64_t qwMs;
    DWORD dwResult;
    DWORD dwError;
    COutcome(std::uint64_t ms, DWORD result) : COutcome(ms, result, result) {}
    COutcome(std::uint64_t ms, DWORD result, DWORD error)
        : qwMs(ms), dwResult(result), dwError(error) {}
};
// Sets a device up for an operation; nothing means that it is not for this one.
using Play = std::function<std::optional<COutcome>(const COperation&, CRun&)>;

void ForEveryOperation(const Play& play) {
    for (const COperation& op : Operations()) {
        SCOPED_TRACE(op.lpszName);
        CRun run;
        run.world.bTrace = false;
        const auto expected = play(op, run);
        if (!expected) {
            run.device.Finish();
            continue;
        }
        EXPECT_EQ(op.call(run.dak, run.out), expected->dwResult);
        EXPECT_EQ(run.dak.GetLastError(), expected->dwError);
        // The closing handshake of a device that has gone fails at once.
        EXPECT_EQ(run.world.NowMs(), expected->qwMs + (run.world.IsPlugged() ? CLOSING_MS : 0));
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        EXPECT_EQ(run.device.OpenNow(), 0);
        EXPECT_FALSE(run.dak.IsTransmitting());
        EXPECT_LE(run.world.Open().size(), 3u) << "resend buffer, and the arrays' at most";
    }
}

// The same for those that await a response, from a device that has taken the command; qwFrom is
// when the wait begins.
void ForEveryResponse(
    const std::function<COutcome(const COperation&, CRun&, std::uint64_t)>& play) {
    ForEveryOperation([&](const COperation& op, CRun& run) -> std::optional<COutcome> {
        if (op.eShape == NO_RESPONSE) {
            return {};
        }
        op.TakeCommand(run.device);
        return play(op, run, op.WrittenMs() + op.AckMs());
    });
}

TEST(Exchange, GoodAnswersOfAllResults) {
    for (const int nResult : {1, 0, 2, -1}) {
        SCOPED_TRACE(nResult);
        ForEveryResponse([&](const COperation& op, CRun& run, std::uint64_t qwFrom) {
            // A write and a seek read more into it, a listing nothing.
            const bool bOwnWay = op.code == 7 || op.code == 17 || op.code == 18;
            const int nOwn = bOwnWay ? 1 : nResult;
            run.device.Reply(op.Reply(nOwn));
            return COutcome(qwFrom + 10, nOwn != 0 ? 0 : op.Refused());
        });
    }
}

TEST(Exchange, AcknowledgementThatIsNone) {
    struct {
        const char* lpszName;
        Bytes bytes;
        bool bGood;
    } const rows[] = {{"short", Bytes{0, 0xE0, 0, 0, 0, 0, 0}, false},
                      {"wrong word", sim::Control(DAK_RETRANSMIT), false},
                      {"high half", sim::Control(DAK_SUCCESS | 0x10000), false},
                      {"with a length", sim::Join(U32(DAK_SUCCESS), U32(77)), true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszName);
        ForEveryOperation([&](const COperation& op, CRun& run) -> std::optional<COutcome> {
            if (row.bGood && (op.eShape == NO_RESPONSE || op.code == 17)) {
                return {};
            }
            run.device.Expect(op.Request()).At(op.WrittenMs()).Reply(row.bytes).Reply(op.Reply());
            const std::uint64_t qwTaken = op.WrittenMs() + op.qwAckPauseMs + 10;
            return row.bGood ? COutcome(op.WrittenMs() + op.AckMs() + 10, 0)
                             : COutcome(qwTaken, DAKERROR_FAIL);
        });
    }
}

TEST(Exchange, NoAcknowledgement) {
    for (const bool bGone : {false, true}) {
        ForEveryOperation([&](const COperation& op, CRun& run) -> std::optional<COutcome> {
            run.device.Expect(op.Request()).At(op.WrittenMs());
            if (bGone) {
                run.device.VanishAfter(200);
                const std::uint64_t qwPause = op.bPolledAck ? 500 : 0;
                return COutcome(op.WrittenMs() + 200 + qwPause, op.Gone(),
                                op.code == 17 ? DAKERROR_NO_DEVICE : op.Gone());
            }
            const std::uint64_t qwWait =
                op.bPolledAck ? 1201 * (op.qwAckPauseMs + 1018) : std::uint64_t{518};
            return COutcome(op.WrittenMs() + qwWait, DAKERROR_FAIL);
        });
    }
}

TEST(Exchange, CommandNotTaken) {
    ForEveryOperation([](const COperation& op, CRun& run) -> std::optional<COutcome> {
        run.device.ExpectHandshake(DAK_CONNECT);
        run.device.DoNotTake().At(op.WrittenMs() + op.Request().size() + 500);
        const bool bSays = op.code == 17 || op.code == 25;
        return COutcome(op.WrittenMs() + op.Request().size() + 500,
                        op.code == 25 ? DAKERROR_NO_DEVICE : DAKERROR_FAIL,
                        bSays ? DAKERROR_NO_DEVICE : DAKERROR_FAIL);
    });
}

TEST(Exchange, SilenceUpToTheBound) {
    ForEveryResponse([](const COperation& op, CRun& run, std::uint64_t qwFrom) {
        if (op.eShape == UNBOUNDED) {
            // Longer than any bound; the read in which the device goes is the last.
            const std::uint64_t qwGone = qwFrom + 3000 * op.TryMs() + 200;
            run.world.At(qwGone, [&world = run.world] { world.Unplug(); });
            return COutcome(qwGone + 500, op.Gone());
        }
        return COutcome(qwFrom + op.dwBound * op.TryMs() - (op.IsOnce() ? 500 : 0), DAKERROR_FAIL,
                        op.Error());
    });
}

TEST(Exchange, TheLastTryCountsAndNoneBehindIt) {
    for (const std::uint64_t qwLate : {0u, 1u}) {
        SCOPED_TRACE(qwLate);
        ForEveryResponse([&](const COperation& op, CRun& run, std::uint64_t qwFrom) {
            const DWORD dwLast = op.eShape == UNBOUNDED ? 2000 : op.dwBound;
            const std::uint64_t qwEnd = qwFrom + dwLast * op.TryMs() - 500;
            run.world.At(qwEnd + qwLate, [&] { run.device.Give(op.Reply()); });
            if (qwLate == 0) {
                return COutcome(qwEnd, 0);
            }
            return op.eShape == UNBOUNDED
                       ? COutcome(qwEnd + 500 + 10, 0)
                       : COutcome(qwEnd + (op.IsOnce() ? 0 : 500), DAKERROR_FAIL, op.Error());
        });
    }
}

TEST(Exchange, AnotherPackageAheadOfTheResponse) {
    struct {
        std::uint32_t dwWord;
        bool bOwnCode;
    } const rows[] = {{DAK_LAST_REPLY, false},
                      {DAK_LAST_REPLY | 0x10000, true},
                      {DAK_REPLY_PACKAGE, false},
                      {DAK_REPLY_PACKAGE, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.dwWord);
        ForEveryResponse([&](const COperation& op, CRun& run, std::uint64_t qwFrom) {
            Bytes package = sim::Response(row.bOwnCode ? op.code : 99, 1, op.fields);
            DakPutU32(package.data(), row.dwWord);
            run.device.Reply(package).Reply(op.Reply());
            const bool bEnds = op.bReplyEnds && row.dwWord == DAK_REPLY_PACKAGE && row.bOwnCode;
            if (op.Polls() && !bEnds) {
                return COutcome(qwFrom + 20, 0); // dropped
            }
            return op.code == 7 ? COutcome(qwFrom + 10, 0) // as good as the other word
                                : COutcome(qwFrom + 10, DAKERROR_FAIL, op.Error());
        });
    }
}

TEST(Exchange, ResponseInPieces) {
    for (const int nPieces : {2, 3}) {
        SCOPED_TRACE(nPieces);
        ForEveryResponse([&](const COperation& op, CRun& run, std::uint64_t qwFrom) {
            const Bytes whole = op.Reply();
            run.device.Reply(Bytes(whole.begin(), whole.begin() + 6));
            if (nPieces == 3) {
                run.device.Reply(Bytes(whole.begin() + 6, whole.begin() + 10));
            }
            run.device.Reply(Bytes(whole.begin() + (nPieces == 2 ? 6 : 10), whole.end()));
            if (op.Polls()) { // dropped without a pause, and the wait goes on
                run.device.Reply(whole);
                return COutcome(qwFrom + (nPieces == 2 ? 30 : 40), 0);
            }
            if (op.eShape == COMPLETED) {
                return COutcome(qwFrom + 20, nPieces == 2 ? 0 : DAKERROR_FAIL);
            }
            return COutcome(qwFrom + 10, DAKERROR_FAIL, op.Error());
        });
    }
}

TEST(Exchange, DeviceGoneInTheVeryTryOfItsAnswer) {
    for (const int nResult : {1, 0}) {
        ForEveryResponse([&](const COperation& op, CRun& run, std::uint64_t qwFrom) {
            if (op.IsOnce()) { // asks nobody
                run.device.Reply(op.Reply());
                return COutcome(qwFrom + 10, 0);
            }
            const std::uint64_t nEarlier = op.code == 17 ? 3 : op.bPolledAck ? 1 : 0;
            run.device.VanishAtQuestion(nEarlier + 1).Reply(op.Reply(nResult));
            if (nResult != 0 || op.code == 7) {
                return COutcome(qwFrom + 10, 0);
            }
            const DWORD dwResult = op.bAvailability ? DAKERROR_NO_DEVICE : op.Refused();
            return COutcome(qwFrom + 10, dwResult, op.code == 17 ? op.Error() : dwResult);
        });
    }
}

TEST(Frame, NoLockNoDeviceNoMemory) {
    ForEveryOperation([](const COperation&, CRun& run) -> std::optional<COutcome> {
        run.world.OtherProcessOpensLock("NadoxUSBAPI");
        return COutcome(-CLOSING_MS, DAKERROR_BUSY);
    });
    ForEveryOperation([](const COperation&, CRun& run) -> std::optional<COutcome> {
        run.world.Unplug();
        return COutcome(300, DAKERROR_NO_DEVICE);
    });
    // The detail record is the first block, the request the second, a larger response the third.
    for (const std::uint64_t nBlock : {2u, 3u}) {
        ForEveryOperation([&](const COperation& op, CRun& run) -> std::optional<COutcome> {
            if (nBlock == 2) {
                run.world.FailCall(ECall::LocalAlloc, 2);
                return COutcome(WRITTEN_MS, DAKERROR_FAIL);
            }
            if (op.Request().size() >= op.R() || op.code == 7) {
                return {};
            }
            run.world.FailCall(ECall::LocalAlloc, 3);
            op.TakeCommand(run.device);
            return COutcome(op.WrittenMs() + op.AckMs(), DAKERROR_FAIL);
        });
    }
}

TEST(Frame, RefusedArgumentsTouchNothing) {
    CRun run;
    run.device.ServeHandshakes(false); // any package would fail the test
    CDAKVorn& dak = run.dak;
    COutputs& out = run.out;
    const auto fails = [&](DWORD dwReturned) {
        return dwReturned == DAKERROR_FAIL && dak.GetLastError() == DAKERROR_FAIL;
    };
    DWORD dw = 5;
    void* hFile = &dw;
    for (const WCHAR* lpsz : {static_cast<const WCHAR*>(nullptr), DAK_WIDE("")}) {
        EXPECT_TRUE(fails(dak.DAKCreateDirectory(lpsz, nullptr)));
        EXPECT_TRUE(fails(dak.DAKDeleteFile(lpsz)));
        EXPECT_TRUE(fails(dak.DAKMoveFile(lpsz, DAK_WIDE("b"))));
        EXPECT_TRUE(fails(dak.DAKMoveFile(DAK_WIDE("a"), lpsz)));
        EXPECT_TRUE(fails(dak.DAKCopyFile(lpsz, DAK_WIDE("b"), 0)));
        EXPECT_TRUE(fails(dak.DAKCopyFile(DAK_WIDE("a"), lpsz, 0)));
        EXPECT_TRUE(fails(dak.DAKGetFileInfo(lpsz, &out.info)));
        EXPECT_TRUE(fails(dak.DAKGetFolderContent(lpsz, &out.files)));
        EXPECT_TRUE(fails(dak.DAKCreateFile(lpsz, 0, 0, 0, &hFile)));
        EXPECT_TRUE(fails(dak.DAKCreateProcess(lpsz, DAK_WIDE(""), &dw)));
        EXPECT_TRUE(fails(dak.DAKRegisterWindowMessage(lpsz, &dw)));
        EXPECT_TRUE(fails(dak.DAKFormatPartition(lpsz)));
    }
    const std::uintptr_t handles[] = {0, 0xFFFFFFFF, UINTPTR_MAX, std::uintptr_t{1} << 32};
    for (const std::uintptr_t handle : handles) {
        void* h = reinterpret_cast<void*>(handle);
        EXPECT_TRUE(fails(dak.DAKReadFile(h, nullptr, 0, &dw)));
        EXPECT_TRUE(fails(dak.DAKWriteFile(h, nullptr, 0, &dw)));
        EXPECT_TRUE(fails(dak.DAKSetFilePointer(h, 0, 0, &out.dwFirst)));
        EXPECT_TRUE(fails(dak.DAKCloseFile(h)));
    }
    EXPECT_TRUE(fails(dak.DAKCreateFile(DAK_WIDE("a"), 0, 0, 0, nullptr)));
    EXPECT_TRUE(fails(dak.DAKReadFile(FILE_HANDLE, out.bytes, 4, nullptr)));
    EXPECT_TRUE(fails(dak.DAKWriteFile(FILE_HANDLE, out.bytes, 4, nullptr)));
    EXPECT_TRUE(fails(dak.DAKSetFilePointer(FILE_HANDLE, 0, 0, nullptr)));
    EXPECT_TRUE(fails(dak.DAKRegisterWindowMessage(DAK_WIDE("a"), nullptr)));
    EXPECT_TRUE(fails(dak.DAKBroadCastMessage(0, 1, 2)));
    EXPECT_TRUE(fails(dak.DAKGetStorageInfo(nullptr)));
    EXPECT_TRUE(fails(dak.DAKKernelIoControl(0, nullptr, 0, &dw, 4, &dw)));
    EXPECT_TRUE(fails(dak.DAKKernelIoControl(1, nullptr, 0, &dw, 1u << 20, &dw)));
    EXPECT_TRUE(fails(dak.DAKKernelIoControl(1, &dw, 0xFFFFFFFF, &dw, 4, &dw)));
    EXPECT_EQ(dw, 5u);
    EXPECT_EQ(hFile, &dw);
    out.qwValue = 9;
    EXPECT_EQ(dak.DAKGetFolderFreeSpace(nullptr, &out.qwValue), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(dak.GetLastError(), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(out.qwValue, 0u);
    // The counts are set once handle and pointer have passed. Nothing asked for is a success.
    for (const auto& call : {&CDAKVorn::DAKReadFile, &CDAKVorn::DAKWriteFile}) {
        for (const DWORD dwBytes : {0u, 1u}) {
            dw = 5;
            EXPECT_EQ((dak.*call)(FILE_HANDLE, nullptr, dwBytes, &dw), dwBytes * DAKERROR_FAIL);
            EXPECT_EQ(dak.GetLastError(), dwBytes * DAKERROR_FAIL);
            EXPECT_EQ(dw, 0u);
        }
    }
    EXPECT_EQ(dak.DAKGetDeviceFreeSpace(nullptr, nullptr), 0u);
    EXPECT_EQ(dak.GetLastError(), 0u);
    EXPECT_EQ(run.world.NowMs(), 0u);
    EXPECT_EQ(run.world.CallCount(ECall::RegOpenKeyExA), 0u);
    EXPECT_EQ(run.world.CallCount(ECall::CreateMutexA), 0u);
    EXPECT_EQ(run.world.Questions(), 0u);
}

} // namespace
