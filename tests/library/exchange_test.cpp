// Every function code's exchange under the same set of devices, and the frames around it.

#include "tests/library/library_run.h"

namespace {

constexpr std::uint64_t CLOSING_MS = READ_MS;

// What an operation is called with, and what it may store into.
struct CArguments {
    std::basic_string<WCHAR> strPath = DAK_WIDE("\\a");
    const WCHAR* lpszPath = nullptr; // strPath
    const WCHAR* lpszNew = DAK_WIDE("\\bc");
    void* hFile = reinterpret_cast<void*>(std::uintptr_t{0x11223344});
    BYTE bytes[4] = {1, 2, 3, 4};
    bool bStores = true;
    DWORD dwFirst = 77;
    DWORD dwSecond = 77;
    std::uint64_t qwValue = 77;
    void* hOpened = nullptr;
    _tagFileInfo info{};
    CArray<_tagFileInfo, _tagFileInfo> files;
    CArray<_tagStorageInfo, _tagStorageInfo> storages;

    CArguments() { lpszPath = strPath.c_str(); }
    template <class T>
    T* Out(T& target) {
        return bStores ? &target : nullptr;
    }
};

enum EShape { POLLED, UNBOUNDED, FIRST_READ, SINGLE, COMPLETED, NO_RESPONSE };

struct CWait {
    EShape eShape;
    std::uint64_t nTries = 1;
    Bytes fields = {}; // of the response, behind the result
};

struct COperation {
    std::uint16_t code;
    DWORD (*call)(CDAKVorn&, CArguments&);
    Bytes (*payload)(const CArguments&);
    CWait wait;
    // Refused without: p, the path; n, the new one; h, the handle; o, a place for what comes.
    // A, the acknowledgement is awaited, and not read once; M, DAK_REPLY_PACKAGE ends the wait; V,
    // a device that went away gives DAKERROR_NO_DEVICE.
    std::string strTraits;

    bool Is(char chTrait) const { return strTraits.find(chTrait) != std::string::npos; }
    bool Polls() const { return wait.eShape == POLLED || wait.eShape == UNBOUNDED; }
    bool IsOnce() const { return wait.eShape == SINGLE || wait.eShape == COMPLETED; }
    // One try that brings nothing.
    std::uint64_t TryMs() const { return READ_MS + 14 + wait.fields.size() + 500 + 500; }
    // When the command goes out, behind a listing's drain, and when the response is first asked
    // for.
    std::uint64_t WrittenMs() const { return LINK_UP_MS + (code == 7 ? FAILED_READ_MS : 0); }
    std::uint64_t AckPauseMs() const { return code == 7 ? 100 : 0; }
    std::uint64_t AwaitMs() const {
        const bool bSettles = code == 7 || (code == 12 && wait.eShape == SINGLE);
        return WrittenMs() + AckPauseMs() + READ_MS + (bSettles ? 500 : 0) +
               (code == 17 ? READ_MS + RETRY_BASE_MS : 0);
    }
    DWORD Gone() const { return Is('V') ? DAKERROR_NO_DEVICE : DAKERROR_FAIL; }
};

// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define CALL(...)                                                                                  \
    [](CDAKVorn& dak, [[maybe_unused]] CArguments& in) -> DWORD { return dak.__VA_ARGS__; }
#define SENDS(...) []([[maybe_unused]] const CArguments& in) { return Join(__VA_ARGS__); }
#define PATH Text(in.lpszPath)
#define FILE_WORD U32(static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(in.hFile)))
// NOLINTEND(cppcoreguidelines-macro-usage)

const COperation OPERATIONS[] = {
    COperation(1, CALL(DAKMoveFile(in.lpszPath, in.lpszNew)), SENDS(PATH, Text(in.lpszNew)),
               {POLLED, 121}, "pnM"),
    COperation(2, CALL(DAKDeleteFile(in.lpszPath)), SENDS(PATH), {UNBOUNDED}, "pV"),
    COperation(6, CALL(DAKGetDeviceFreeSpace(&in.dwFirst, &in.dwSecond)), SENDS(),
               {POLLED, 1201, U64(5)}, ""),
    COperation(7, CALL(DAKGetFolderContent(in.lpszPath, &in.files)), SENDS(PATH),
               {POLLED, 121, U32(0)}, "pAM"),
    COperation(10, CALL(DAKCreateDirectory(in.lpszPath, nullptr)), SENDS(PATH), {POLLED, 1201},
               "p"),
    COperation(12, CALL(DAKCreateProcess(in.lpszPath, in.lpszNew, &in.dwFirst)),
               SENDS(PATH, Text(in.lpszNew), U32(1)), {UNBOUNDED, 1, U32(0)}, "pV"),
    COperation(12, CALL(DAKCreateProcess(in.lpszPath, nullptr, nullptr)),
               SENDS(PATH, Bytes(2), U32(0)), {SINGLE, 1, U32(0)}, "pV"),
    COperation(13, CALL(DAKKernelIoControl(7, in.bytes, 1, in.bytes, 4, nullptr)),
               SENDS(U32(7), U32(1), Bytes{1}, U32(4), Bytes{1, 2, 3, 4}), {POLLED, 1201, U32(0)},
               ""),
    COperation(14, CALL(DAKGetFileInfo(in.lpszPath, &in.info)), SENDS(PATH),
               {SINGLE, 1, Bytes(1236, 1)}, "p"),
    COperation(15, CALL(DAKCreateFile(in.lpszPath, 1, 2, 3, in.Out(in.hOpened))),
               SENDS(PATH, U32(1), U32(2), U32(3)), {POLLED, 1201, U32(9)}, "po"),
    COperation(16, CALL(DAKReadFile(in.hFile, in.bytes, 4, in.Out(in.dwFirst))),
               SENDS(FILE_WORD, U32(4)), {NO_RESPONSE}, "hoA"),
    COperation(17, CALL(DAKWriteFile(in.hFile, in.bytes, 4, in.Out(in.dwFirst))),
               SENDS(FILE_WORD, U32(4)), {FIRST_READ, 1201}, "hoA"),
    COperation(18, CALL(DAKSetFilePointer(in.hFile, -2, 1, in.Out(in.dwFirst))),
               SENDS(FILE_WORD, U32(0xFFFFFFFE), U32(1)), {COMPLETED}, "ho"),
    COperation(19, CALL(DAKCloseFile(in.hFile)), SENDS(FILE_WORD), {COMPLETED}, "h"),
    COperation(20, CALL(DAKCopyFile(in.lpszPath, in.lpszNew, -5)),
               SENDS(PATH, Text(in.lpszNew), U32(0xFFFFFFFB)), {POLLED, 1201}, "pn"),
    COperation(21, CALL(DAKRegisterWindowMessage(in.lpszPath, in.Out(in.dwFirst))), SENDS(PATH),
               {COMPLETED}, "po"),
    COperation(22, CALL(DAKBroadCastMessage(1, 2, -3)), SENDS(U32(1), U32(2), U32(0xFFFFFFFD)),
               {COMPLETED}, ""),
    COperation(23, CALL(DAKGetStorageInfo(in.Out(in.storages))), SENDS(), {UNBOUNDED, 1, U32(0)},
               "oM"),
    COperation(24, CALL(DAKFormatPartition(in.lpszPath)), SENDS(PATH), {SINGLE}, "p"),
    COperation(25, CALL(DAKGetFolderFreeSpace(in.lpszPath, &in.qwValue)), SENDS(PATH),
               {POLLED, 361, U64(5)}, "M")};

// One operation with a device for it.
struct CExchangeRun : CRun {
    explicit CExchangeRun(const COperation& operation, const std::string& strName = {})
        : CRun(std::to_string(operation.code) + ": " + strName), op(operation) {
        world.bTrace = false;
        const Bytes good = Response(op.code, 1, op.wait.fields);
        const auto with = [&](std::uint32_t dwWord, std::uint16_t code) {
            Bytes package = Response(code, 1, op.wait.fields);
            DakPutU32(package.data(), dwWord);
            return package;
        };
        packages.insert({{"good", good},
                         {"zero", Response(op.code, 0, op.wait.fields)},
                         {"two", Response(op.code, 2, op.wait.fields)},
                         {"minus", Response(op.code, -1, op.wait.fields)},
                         {"foreign", with(DAK_LAST_REPLY, 99)},
                         {"high", with(DAK_LAST_REPLY | 0x10000, op.code)},
                         {"more", with(DAK_REPLY_PACKAGE, op.code)},
                         {"moreforeign", with(DAK_REPLY_PACKAGE, 99)},
                         {"head", Bytes(good.begin(), good.begin() + 6)},
                         {"middle", Bytes(good.begin() + 6, good.begin() + 10)},
                         {"end", Bytes(good.begin() + 10, good.end())},
                         {"rest", Bytes(good.begin() + 6, good.end())},
                         {"shortack", Bytes{0, 0xE0, 0, 0, 0, 0, 0}},
                         {"highack", Control(DAK_SUCCESS | 0x10000)},
                         {"longack", Join(U32(DAK_SUCCESS), U32(77))},
                         {"bytes", DataPackage(DAK_LAST_PACKAGE, 17, {1, 2, 3, 4})}});
    }
    // The device takes the command; with an acknowledgement also a write's one package.
    void TakeCommand(const std::string& strAck = "ack") {
        device.Expect(Command(op.code, op.payload(in))).At(op.WrittenMs());
        Play(strAck +
             (op.code == DAK_FUNC_WRITE_FILE && strAck.ends_with("ack") ? " >bytes ack" : ""));
    }
    // qwMs: when the exchange is over. The closing of a device that has gone fails at once.
    void Expect(std::uint64_t qwMs, DWORD dwResult, DWORD dwError) {
        EXPECT_EQ(op.call(*dak, in), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwError);
        EXPECT_EQ(world.NowMs(), qwMs + (world.IsPlugged() ? CLOSING_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        EXPECT_EQ(device.OpenNow(), 0);
    }
    void Expect(std::uint64_t qwMs, DWORD dwResult) { Expect(qwMs, dwResult, dwResult); }
    // Without a right response; the error of a write is then what its stream has left.
    void ExpectNone(std::uint64_t qwMs, DWORD dwResult = DAKERROR_FAIL) {
        Expect(qwMs, dwResult, op.code == DAK_FUNC_WRITE_FILE ? DAKERROR_NONE : dwResult);
    }

    const COperation& op;
    CArguments in;
};

TEST(Exchange, BytesOfADeletion) {
    CRun run;
    run.device.Expect({0x21, 0xE0, 0, 0, 8, 0, 0, 0, 2, 0, 0x5C, 0, 0x61, 0, 0, 0})
        .Reply({0, 0xE0, 0, 0, 0, 0, 0, 0})
        .Reply({0x22, 0xE0, 0, 0, 6, 0, 0, 0, 2, 0, 1, 0, 0, 0});
    EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), 0u);
}

// Answers to each shape of wait, and the time it takes them; below 0: that long to a failure.
TEST(Exchange, Answers) {
    const struct {
        std::string strWords;
        int nPolled;
        int nOnce; // first-read wait and single read
        int nCompleted;
    } rows[] = {{"good", 10, 10, 10},
                {"two", 10, 10, 10},
                {"minus", 10, 10, 10},
                {"zero", -10, -10, -10},
                {"foreign good", 20, -10, -10},
                {"high good", 20, -10, -10},
                {"moreforeign good", 20, -10, -10},
                {"more good", 20, -10, -10},
                {"head rest good", 30, -10, 20},
                {"head middle end good", 40, -10, -20}};
    for (const auto& row : rows) {
        const bool bResult = row.nPolled <= 10 && row.strWords != "good";
        for (const COperation& op : OPERATIONS) {
            // Those that read something else into the result.
            if (op.wait.eShape == NO_RESPONSE ||
                (bResult && (op.code == 7 || op.code == 17 || op.code == 18))) {
                continue;
            }
            CExchangeRun run(op, row.strWords);
            run.TakeCommand();
            run.Play(row.strWords);
            int nMs = op.Polls()                    ? row.nPolled
                      : op.wait.eShape == COMPLETED ? row.nCompleted
                                                    : row.nOnce;
            if (op.Is('M') && row.strWords.starts_with("more ")) {
                nMs = op.code == 7 ? 10 : -10; // a listing takes either word
            }
            const std::uint64_t qwMs = op.AwaitMs() + static_cast<std::uint64_t>(std::abs(nMs));
            const bool bRefused = op.code == 25 && row.strWords == "zero";
            nMs > 0 ? run.Expect(qwMs, 0)
                    : run.ExpectNone(qwMs, bRefused ? DAKERROR_FOLDER_SPACE : DAKERROR_FAIL);
        }
    }
}

TEST(Exchange, Acknowledgements) {
    for (const std::string strAck : {"shortack", "retransmit", "highack", "longack"}) {
        for (const COperation& op : OPERATIONS) {
            CExchangeRun run(op, strAck);
            const bool bGood = strAck == "longack" && op.wait.eShape != NO_RESPONSE;
            run.TakeCommand(bGood ? strAck : strAck == "longack" ? "retransmit" : strAck + " good");
            bGood ? run.Play("good") : void();
            bGood ? run.Expect(op.AwaitMs() + 10, 0)
                  : run.Expect(op.WrittenMs() + op.AckPauseMs() + 10, DAKERROR_FAIL);
        }
    }
    for (const COperation& op : OPERATIONS) {
        {
            CExchangeRun run(op, "silence");
            run.TakeCommand("");
            run.Expect(op.WrittenMs() + (op.Is('A') ? 1201 * (op.AckPauseMs() + 1018) : 518),
                       DAKERROR_FAIL);
        }
        {
            CExchangeRun run(op, "gone");
            run.TakeCommand("gone@200");
            run.Expect(op.WrittenMs() + 200 + (op.Is('A') ? 500 : 0), op.Gone(),
                       op.code == 17 ? DAKERROR_NO_DEVICE : op.Gone());
        }
        CExchangeRun run(op, "command not taken");
        const std::uint64_t qwMs = op.WrittenMs() + Command(op.code, op.payload(run.in)).size();
        run.device.ExpectHandshake(DAK_CONNECT).DoNotTake().At(qwMs + 500);
        run.Expect(qwMs + 500, op.code == 25 ? DAKERROR_NO_DEVICE : DAKERROR_FAIL,
                   op.code == 17 || op.code == 25 ? DAKERROR_NO_DEVICE : DAKERROR_FAIL);
    }
}

// The last try counts, at its last millisecond, and none behind it. Nothing bounds the unbounded
// waits but the device's going.
TEST(Exchange, BoundOfTries) {
    for (const COperation& op : OPERATIONS) {
        if (op.wait.eShape == NO_RESPONSE) {
            continue;
        }
        const bool bBound = op.wait.eShape != UNBOUNDED;
        const std::uint64_t qwLast =
            op.AwaitMs() + (bBound ? op.wait.nTries : 2000) * op.TryMs() - 500;
        for (const std::uint64_t qwLate : {0u, 1u}) {
            CExchangeRun run(op, "at " + std::to_string(qwLast + qwLate));
            run.TakeCommand();
            run.world.At(qwLast + qwLate, [&] { run.Play("good"); });
            const std::uint64_t qwPause = op.IsOnce() ? 0 : 500;
            qwLate == 0 ? run.Expect(qwLast, 0)
            : bBound    ? run.ExpectNone(qwLast + qwPause)
                        : run.Expect(qwLast + qwPause + 10, 0);
        }
        if (!bBound) {
            CExchangeRun run(op, "silence, then gone");
            run.TakeCommand();
            run.Play(In("gone", 3000 * op.TryMs() + 200));
            run.Expect(op.AwaitMs() + 3000 * op.TryMs() + 200 + 490, op.Gone());
        }
    }
}

// What arrived in the very try in which the device went away still counts.
TEST(Exchange, DeviceGoneInTheTryOfItsAnswer) {
    for (const COperation& op : OPERATIONS) {
        if (!op.Polls() && op.wait.eShape != FIRST_READ) {
            continue; // asks nobody
        }
        const int nEarlier = op.code == DAK_FUNC_WRITE_FILE ? 3 : op.Is('A') ? 1 : 0;
        for (const std::string strAnswer : {"good", "zero"}) {
            CExchangeRun run(op, strAnswer);
            run.TakeCommand("gone?" + std::to_string(nEarlier + 1) + " ack");
            run.Play(strAnswer);
            const DWORD dwRefused = op.code == 25 ? DAKERROR_FOLDER_SPACE : op.Gone();
            strAnswer == "good" || op.code == 7 ? run.Expect(op.AwaitMs() + 10, 0)
                                                : run.ExpectNone(op.AwaitMs() + 10, dwRefused);
        }
    }
}

TEST(Frame, NoLockNoDeviceNoMemory) {
    const struct {
        const char* lpszWords;
        std::uint64_t qwMs;
        DWORD dwResult;
    } rows[] = {{"other", -CLOSING_MS, DAKERROR_BUSY},
                {"gone", 300, DAKERROR_NO_DEVICE},
                {"!LocalAlloc#2", LINK_UP_MS, DAKERROR_FAIL}}; // the request's, behind the node's
    for (const COperation& op : OPERATIONS) {
        for (const auto& row : rows) {
            CExchangeRun run(op, row.lpszWords);
            run.actions["other"] = [&] { run.world.OtherProcessOpensLock("NadoxUSBAPI"); };
            run.Play(row.lpszWords);
            run.Expect(row.qwMs, row.dwResult);
        }
        CExchangeRun run(op, "no memory for a response that is larger");
        if (Command(op.code, op.payload(run.in)).size() < 14 + op.wait.fields.size() &&
            op.code != 7) {
            run.Play("!LocalAlloc#3");
            run.TakeCommand();
            run.Expect(op.AwaitMs(), DAKERROR_FAIL);
        }
    }
}

TEST(Frame, PathsGoOutAsTheyAre) {
    for (const COperation& op : OPERATIONS) {
        for (const auto& strPath :
             {std::basic_string<WCHAR>(7000, DAK_WIDE('x')),
              std::basic_string<WCHAR>(DAK_WIDE("/\u00FC\U0001F4C1\xD800"))}) {
            CExchangeRun run(op, std::to_string(strPath.size()));
            run.in.lpszPath = strPath.c_str();
            if (op.Is('p') || op.code == 25) {
                run.TakeCommand();
                run.Play("good");
                run.Expect(op.AwaitMs() + 10, 0);
            }
        }
    }
}

TEST(Frame, RefusedArgumentsTouchNothing) {
    for (const COperation& op : OPERATIONS) {
        const auto refuses = [&](char chWhat, auto&& spoil) {
            CExchangeRun run(op, std::string("without ") + chWhat);
            spoil(run.in);
            if (op.Is(chWhat)) {
                EXPECT_EQ(op.call(*run.dak, run.in), DAKERROR_FAIL);
                EXPECT_EQ(run.dak->GetLastError(), DAKERROR_FAIL);
                EXPECT_EQ(run.world.CallCount(), 1u) << "the resend buffer";
                EXPECT_EQ(run.in.hOpened, nullptr);
            }
        };
        for (const WCHAR* lpsz : {static_cast<const WCHAR*>(nullptr), DAK_WIDE("")}) {
            refuses('p', [&](CArguments& in) { in.lpszPath = lpsz; });
            refuses('n', [&](CArguments& in) { in.lpszNew = lpsz; });
        }
        for (const std::uintptr_t handle : {std::uintptr_t{0}, std::uintptr_t{0xFFFFFFFF},
                                            UINTPTR_MAX, std::uintptr_t{1} << 32}) {
            refuses('h', [&](CArguments& in) { in.hFile = reinterpret_cast<void*>(handle); });
        }
        refuses('o', [](CArguments& in) { in.bStores = false; });
    }
    CRun run;
    CDAKVorn& dak = *run.dak;
    BYTE bytes[4];
    DWORD dwCount = 5;
    EXPECT_EQ(dak.DAKBroadCastMessage(0, 1, 2), DAKERROR_FAIL);
    EXPECT_EQ(dak.DAKKernelIoControl(0, nullptr, 0, bytes, 4, nullptr), DAKERROR_FAIL);
    EXPECT_EQ(dak.DAKKernelIoControl(1, nullptr, 1, bytes, 4, nullptr), DAKERROR_FAIL);
    EXPECT_EQ(dak.DAKKernelIoControl(1, nullptr, 0, bytes, 1u << 20, nullptr), DAKERROR_FAIL);
    EXPECT_EQ(dak.DAKKernelIoControl(1, bytes, 0xFFFFFFFF, bytes, 4, nullptr), DAKERROR_FAIL);
    std::uint64_t qwSpace = 9;
    EXPECT_EQ(dak.DAKGetFolderFreeSpace(nullptr, &qwSpace), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(dak.GetLastError(), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(qwSpace, 0u);
    // The counts are set once handle and pointer have passed. Nothing asked for is a success.
    for (const auto& call : {&CDAKVorn::DAKReadFile, &CDAKVorn::DAKWriteFile}) {
        for (const DWORD dwBytes : {0u, 1u}) {
            dwCount = 5;
            EXPECT_EQ((dak.*call)(CArguments().hFile, nullptr, dwBytes, &dwCount),
                      dwBytes * DAKERROR_FAIL);
            EXPECT_EQ(dak.GetLastError(), dwBytes * DAKERROR_FAIL);
            EXPECT_EQ(dwCount, 0u);
        }
    }
    EXPECT_EQ(dak.DAKGetDeviceFreeSpace(nullptr, nullptr), 0u);
    EXPECT_EQ(dak.GetLastError(), 0u);
    EXPECT_EQ(run.world.CallCount(), 1u) << "the resend buffer";
    EXPECT_EQ(run.world.NowMs(), 0u);
}

} // namespace
