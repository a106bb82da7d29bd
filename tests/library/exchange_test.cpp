// Every function code's exchange under the same set of devices, and the frames around it.

#include "tests/library/library_run.h"

namespace {

// What an operation is called with, and what it may store into.
struct CArguments {
    const WCHAR* path = DAK_WIDE("\\a");
    const WCHAR* next = DAK_WIDE("\\bc");
    std::uintptr_t handle = 0x11223344;
    BYTE io[4] = {0xFE, 0xFF, 0xFF, 0xFF};
    DWORD one = 77;
    DWORD two = 77;
    std::uint64_t space = 77;
    void* opened = nullptr;
    _tagFileInfo info{};
    CArray<_tagFileInfo, _tagFileInfo> files;
    CArray<_tagStorageInfo, _tagStorageInfo> storages;
    // Where what comes may have no place.
    DWORD* lpOne = &one;
    void** lpOpened = &opened;
    CArray<_tagStorageInfo, _tagStorageInfo>* lpStorages = &storages;

    void* File() const { return reinterpret_cast<void*>(handle); }
    _SECURITY_ATTRIBUTES* Any() { return reinterpret_cast<_SECURITY_ATTRIBUTES*>(io); }
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
    const char* lpszPayload; // path, next, file, none (an empty text), and numbers
    CWait wait;
    // Refused without: p, the path; n, the new one; h, the handle; o, a place for what comes.
    // A, the acknowledgement is awaited, and not read once; M, DAK_REPLY_PACKAGE ends the wait; V,
    // a device that went away gives GONE; R, it takes the result for something else.
    std::string strTraits;

    bool Is(char chTrait) const { return strTraits.find(chTrait) != std::string::npos; }
    bool Has(EShape eShape) const { return wait.eShape == eShape; }
    bool Polls() const { return Has(POLLED) || Has(UNBOUNDED); }
    Bytes Request(const CArguments& in) const {
        Bytes payload;
        std::istringstream words(lpszPayload);
        for (std::string strWord; words >> strWord;) {
            const WCHAR* lpText = strWord == "path"   ? in.path
                                  : strWord == "next" ? in.next
                                                      : DAK_WIDE("");
            payload = Join(payload, strWord == "file"  ? U32(static_cast<DWORD>(in.handle))
                                    : strWord[0] < 'a' ? U32(static_cast<DWORD>(std::stoi(strWord)))
                                                       : Text(lpText));
        }
        return Command(code, payload);
    }
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
    // The words of a device that takes the command and, of a write, its one package.
    std::string Taken() const {
        return In(">command", WrittenMs()) + (code == 17 ? " ack >bytes ack " : " ack ");
    }
    // What GetLastError tells behind it: of a write what its stream has left.
    DWORD Left(DWORD dwResult) const { return code == 17 ? DAKERROR_NONE : dwResult; }
    DWORD Refused() const { return code == 25 ? DAKERROR_FOLDER_SPACE : FAIL; }
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CALL(name, ...)                                                                            \
    [](CDAKVorn& dak, [[maybe_unused]] CArguments& in) -> DWORD {                                  \
        return dak.DAK##name(__VA_ARGS__);                                                         \
    }

const Bytes ZERO(4);
const COperation OPERATIONS[] = {
    {1, CALL(MoveFile, in.path, in.next), "path next", {POLLED, 121}, "pnM"},
    {2, CALL(DeleteFile, in.path), "path", {UNBOUNDED}, "pV"},
    {6, CALL(GetDeviceFreeSpace, &in.one, &in.two), "", {POLLED, 1201, U64(5)}, ""},
    {7, CALL(GetFolderContent, in.path, &in.files), "path", {POLLED, 121, ZERO}, "pAMR"},
    {10, CALL(CreateDirectory, in.path, in.Any()), "path", {POLLED, 1201}, "p"},
    {12, CALL(CreateProcess, in.path, in.next, &in.one), "path next 1", {UNBOUNDED, 1, ZERO}, "pV"},
    {12, CALL(CreateProcess, in.path, nullptr, nullptr), "path none 0", {SINGLE, 1, ZERO}, "pV"},
    {13, CALL(KernelIoControl, 7, in.io, 4, in.io, 4, {}), "7 4 -2 4 -2", {POLLED, 1201, ZERO}, ""},
    {14, CALL(GetFileInfo, in.path, &in.info), "path", {SINGLE, 1, Bytes(1236, 1)}, "p"},
    {15, CALL(CreateFile, in.path, 1, 2, 3, in.lpOpened), "path 1 2 3", {POLLED, 1201, ZERO}, "po"},
    {16, CALL(ReadFile, in.File(), in.io, 4, in.lpOne), "file 4", {NO_RESPONSE}, "hoA"},
    {17, CALL(WriteFile, in.File(), in.io, 4, in.lpOne), "file 4", {FIRST_READ, 1201}, "hoAR"},
    {18, CALL(SetFilePointer, in.File(), -2, 1, in.lpOne), "file -2 1", {COMPLETED}, "hoR"},
    {19, CALL(CloseFile, in.File()), "file", {COMPLETED}, "h"},
    {20, CALL(CopyFile, in.path, in.next, -5), "path next -5", {POLLED, 1201}, "pn"},
    {21, CALL(RegisterWindowMessage, in.path, in.lpOne), "path", {COMPLETED}, "po"},
    {22, CALL(BroadCastMessage, 1, 2, -3), "1 2 -3", {COMPLETED}, ""},
    {23, CALL(GetStorageInfo, in.lpStorages), "", {UNBOUNDED, 1, ZERO}, "oM"},
    {24, CALL(FormatPartition, in.path), "path", {SINGLE}, "p"},
    {25, CALL(GetFolderFreeSpace, in.path, &in.space), "path", {POLLED, 361, U64(5)}, "M"}};

// One operation with a device for it.
struct CExchange : CRun {
    explicit CExchange(const COperation& operation, const std::string& strWords = {})
        : CRun(std::to_string(operation.code) + ": " + strWords), op(operation) {
        world.bTrace = false;
        const auto with = [&](std::uint32_t dwWord, std::uint16_t code, int nResult = 1) {
            Bytes package = Response(code, nResult, op.wait.fields);
            DakPutU32(package.data(), dwWord);
            return package;
        };
        const Bytes good = with(DAK_LAST_REPLY, op.code);
        packages.insert({{"good", good},
                         {"zero", with(DAK_LAST_REPLY, op.code, 0)},
                         {"two", with(DAK_LAST_REPLY, op.code, 2)},
                         {"minus", with(DAK_LAST_REPLY, op.code, -1)},
                         {"foreign", with(DAK_LAST_REPLY, 99)},
                         {"high", with(DAK_LAST_REPLY | 0x10000, op.code)},
                         {"more", with(DAK_REPLY_PACKAGE, op.code)},
                         {"foreignmore", with(DAK_REPLY_PACKAGE, 99)},
                         {"head", Bytes(good.begin(), good.begin() + 6)},
                         {"middle", Bytes(good.begin() + 6, good.begin() + 10)},
                         {"end", Bytes(good.begin() + 10, good.end())},
                         {"rest", Bytes(good.begin() + 6, good.end())},
                         {"shortack", Bytes{0, 0xE0, 0, 0, 0, 0, 0}},
                         {"highack", Control(DAK_SUCCESS | 0x10000)},
                         {"longack", Join(U32(DAK_SUCCESS), U32(77))},
                         {"bytes", DataPackage(DAK_LAST_PACKAGE, 17, {0xFE, 0xFF, 0xFF, 0xFF})}});
        packages["command"] = op.Request(in);
        actions["other"] = [&] { world.OtherProcessOpensLock("NadoxUSBAPI"); };
    }
    std::size_t Size() const { return packages.at("command").size(); }
    // qwMs: when the exchange is over. The closing of a device that has gone fails at once.
    void Expect(const std::string& strWords, std::uint64_t qwMs, DWORD dwResult, DWORD dwError) {
        packages["command"] = op.Request(in);
        Play(strWords);
        EXPECT_EQ(op.call(*dak, in), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwError);
        EXPECT_EQ(world.NowMs(), qwMs + (world.IsPlugged() ? READ_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        EXPECT_EQ(device.OpenNow(), 0);
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
    // nOnce: first-read wait and single read
    const Rows<std::string, int, int, int> rows = {{"good", 10, 10, 10},
                                                   {"two", 10, 10, 10},
                                                   {"minus", 10, 10, 10},
                                                   {"zero", -10, -10, -10},
                                                   {"foreign good", 20, -10, -10},
                                                   {"high good", 20, -10, -10},
                                                   {"foreignmore good", 20, -10, -10},
                                                   {"more good", 20, -10, -10},
                                                   {"head rest good", 30, -10, 20},
                                                   {"head middle end good", 40, -10, -20}};
    for (const auto& [strWords, nPolled, nOnce, nCompleted] : rows) {
        const bool bResult = strWords.find(' ') == std::string::npos && strWords != "good";
        for (const COperation& op : OPERATIONS) {
            int nMs = op.Polls() ? nPolled : op.Has(COMPLETED) ? nCompleted : nOnce;
            if (op.Is('M') && strWords == "more good") {
                nMs = op.code == 7 ? 10 : -10; // a listing takes either word
            }
            const DWORD dwRefused = strWords == "zero" ? op.Refused() : FAIL;
            const DWORD dwResult = nMs > 0 ? 0 : dwRefused;
            if (!op.Has(NO_RESPONSE) && !(op.Is('R') && bResult)) {
                CExchange(op).Expect(op.Taken() + strWords,
                                     op.AwaitMs() + static_cast<std::uint64_t>(std::abs(nMs)),
                                     dwResult, op.Left(dwResult));
            }
        }
    }
}

TEST(Exchange, WhatElseEndsIt) {
    for (const COperation& op : OPERATIONS) {
        const std::string strCommand = In(">command", op.WrittenMs()) + " ";
        const std::uint64_t qwAcked = op.WrittenMs() + op.AckPauseMs() + READ_MS;
        const std::uint64_t qwSilence = op.Is('A') ? 1201 * (op.AckPauseMs() + 1018) : 518;
        const DWORD dwGone = op.Is('V') ? GONE : FAIL;
        const bool bSays = op.code == 17 || op.code == 25;
        struct CRow {
            std::string strWords;
            std::uint64_t qwMs;
            DWORD dwResult;
            DWORD dwError;
        };
        std::vector<CRow> rows = {
            {"other", -READ_MS, DAKERROR_BUSY, DAKERROR_BUSY},
            {"gone", 300, GONE, GONE},
            {"!LocalAlloc#2", LINK_UP_MS, FAIL, FAIL}, // the request's, behind the node's
            {"linked hang", op.WrittenMs() + CExchange(op).Size() + 500,
             op.code == 25 ? GONE : FAIL, bSays ? GONE : FAIL},
            {strCommand, op.WrittenMs() + qwSilence, FAIL, FAIL},
            {strCommand + "gone@200", op.WrittenMs() + (op.Is('A') ? 700 : 200), dwGone,
             op.code == 17 ? GONE : dwGone},
            {strCommand + "shortack good", qwAcked, FAIL, FAIL},
            {strCommand + "retransmit good", qwAcked, FAIL, FAIL},
            {strCommand + "highack good", qwAcked, FAIL, FAIL}};
        const auto add = [&](const std::string& strWords, std::uint64_t qwMs, DWORD dwResult) {
            rows.push_back({strWords, op.AwaitMs() + qwMs, dwResult, op.Left(dwResult)});
        };
        if (!op.Has(NO_RESPONSE)) {
            // The last try counts, at its last millisecond, and none behind it. Nothing bounds the
            // unbounded waits but the device's going.
            const bool bBound = !op.Has(UNBOUNDED);
            const std::uint64_t qwLast = (bBound ? op.wait.nTries : 2000) * op.TryMs() - 500;
            const std::uint64_t qwPause = op.Has(SINGLE) || op.Has(COMPLETED) ? 0 : 500;
            const std::uint64_t qwGiven = op.WrittenMs() + (op.code == 17 ? READ_MS : 0);
            const std::uint64_t qwAnswer = op.AwaitMs() - qwGiven + qwLast;
            add(op.Taken() + In("good", qwAnswer), qwLast, 0);
            add(op.Taken() + In("good", qwAnswer + 1), qwLast + qwPause + (bBound ? 0 : READ_MS),
                bBound ? FAIL : 0);
            bBound ? void() : add(op.Taken() + In("gone", qwAnswer + 600), qwLast + 1100, dwGone);
            if (op.Polls() || op.Has(FIRST_READ)) { // the others ask nobody
                // What arrived in the very try in which the device went away still counts.
                const std::string strGone = std::string("gone?") + (op.code == 17 ? "4 "
                                                                    : op.Is('A')  ? "2 "
                                                                                  : "1 ");
                const std::string strTaken = op.Taken().insert(strCommand.size(), strGone);
                add(strTaken + "good", READ_MS, 0);
                add(strTaken + "zero", READ_MS,
                    op.code == 7 ? 0
                    : op.Is('V') ? GONE
                                 : op.Refused());
            }
            if (CExchange(op).Size() < 14 + op.wait.fields.size() && op.code != 7) {
                rows.push_back({"!LocalAlloc#3 " + op.Taken(), op.AwaitMs(), FAIL, FAIL});
            }
        }
        for (const CRow& row : rows) {
            CExchange(op, row.strWords).Expect(row.strWords, row.qwMs, row.dwResult, row.dwError);
        }
    }
}

TEST(Frame, PathsGoOutAsTheyAre) {
    const std::basic_string<WCHAR> paths[] = {
        std::basic_string<WCHAR>(7000, DAK_WIDE('x')), DAK_WIDE("/\u00FC\U0001F4C1\xD800"), {}};
    for (const COperation& op : OPERATIONS) {
        for (const auto& strPath : paths) {
            if (op.code == 25 || (op.Is('p') && !strPath.empty())) {
                CExchange run(op, std::to_string(strPath.size()));
                run.in.path = strPath.c_str();
                run.Expect(op.Taken() + "good", op.AwaitMs() + READ_MS, 0, 0);
            }
        }
    }
}

TEST(Frame, RefusedArgumentsTouchNothing) {
    CRun run;
    CDAKVorn& dak = *run.dak;
    for (const COperation& op : OPERATIONS) {
        for (std::uintptr_t handle : {0ull, 0xFFFFFFFFull, ~0ull, 1ull << 32}) {
            for (const char chNeed : {'p', 'n', 'h', 'o'}) {
                CArguments in;
                (chNeed == 'p' ? in.path : in.next) = handle == 0 ? nullptr : DAK_WIDE("");
                in.handle = chNeed == 'h' ? handle : in.handle;
                if (chNeed == 'o') {
                    in.lpOne = nullptr, in.lpOpened = nullptr, in.lpStorages = nullptr;
                }
                EXPECT_TRUE(!op.Is(chNeed) ||
                            (op.call(dak, in) == FAIL && dak.GetLastError() == FAIL))
                    << op.code << chNeed << handle;
            }
        }
    }
    CArguments in;
    const auto control = [&](DWORD dwCode, void* lpIn, DWORD dwIn, DWORD dwOut) {
        return dak.DAKKernelIoControl(dwCode, lpIn, dwIn, in.io, dwOut, nullptr);
    };
    for (const DWORD dwResult :
         {dak.DAKBroadCastMessage(0, 1, 2), control(0, nullptr, 0, 4), control(1, nullptr, 1, 4),
          control(1, nullptr, 0, 1u << 20), control(1, in.io, 0xFFFFFFFF, 4)}) {
        EXPECT_EQ(dwResult, FAIL);
    }
    EXPECT_EQ(dak.DAKGetFolderFreeSpace(nullptr, &in.space), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(dak.GetLastError(), DAKERROR_FOLDER_SPACE);
    EXPECT_EQ(in.space, 0u);
    // The counts are set once handle and pointer have passed. Nothing asked for is a success.
    for (const auto& call : {&CDAKVorn::DAKReadFile, &CDAKVorn::DAKWriteFile}) {
        for (const DWORD dwBytes : {1u, 0u}) {
            in.one = 5;
            EXPECT_EQ((dak.*call)(in.File(), nullptr, dwBytes, &in.one), dwBytes * FAIL);
            EXPECT_EQ(in.one, 0u);
        }
        EXPECT_EQ(dak.GetLastError(), 0u);
    }
    EXPECT_EQ(dak.DAKGetDeviceFreeSpace(nullptr, nullptr), 0u);
    EXPECT_EQ(run.world.CallCount(), 1u) << "the resend buffer";
}

} // namespace
