// Every function code's exchange under the same set of devices, what comes out of it for the
// caller, and the arguments that are none.

#include "tests/library/library_run.h"

#include <cstring>

namespace {

const Bytes ZERO(4);
const Bytes HIGH = U32(0x80000003);
const Bytes SPACE = U64(0x900000005);
const Bytes RECORD = Pattern(1236);

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
    std::string Stored() const {
        std::ostringstream text;
        text << std::hex;
        one != 77 ? text << "one=" << one : text;
        two != 77 ? text << "two=" << two : text;
        space != 77 ? text << "space=" << space : text;
        opened != nullptr ? text << "opened=" << reinterpret_cast<std::uintptr_t>(opened) : text;
        std::memcmp(&info, RECORD.data(), RECORD.size()) == 0 ? text << "record" : text;
        return text.str();
    }
};

enum EShape { POLLED, UNBOUNDED, SINGLE, COMPLETED };

struct CWait {
    EShape eShape;
    std::uint64_t nTries = 1;
    Bytes fields = {}; // of the response, behind the result
};

const CWait CONTROL = {POLLED, 1201, ZERO};

struct COperation {
    std::uint16_t code;
    DWORD (*call)(CDAKVorn&, CArguments&);
    const char* lpszPayload; // path, next, file, none (an empty text), and numbers
    CWait wait;
    // Refused without: p, the path; n, the new one; h, the handle; o, a place for what comes.
    // A, the acknowledgement is awaited, and not read once; M, DAK_REPLY_PACKAGE ends the wait; V,
    // a device that went away gives GONE; S, lets the device settle.
    std::string strTraits;

    bool Is(char chTrait) const { return strTraits.find(chTrait) != std::string::npos; }
    bool Has(EShape eShape) const { return wait.eShape == eShape; }
    bool Polls() const { return Has(POLLED) || Has(UNBOUNDED); }
    Bytes Request(const CArguments& in) const {
        Bytes payload;
        std::istringstream words(lpszPayload);
        for (std::string strWord; words >> strWord;) {
            payload =
                Join(payload, strWord == "path"   ? Text(in.path)
                              : strWord == "next" ? Text(in.next)
                              : strWord == "none" ? Text({})
                              : strWord == "file" ? U32(static_cast<DWORD>(in.handle))
                                                  : U32(static_cast<DWORD>(std::stoi(strWord))));
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
        return WrittenMs() + AckPauseMs() + READ_MS + (Is('S') ? 500 : 0);
    }
    std::string Taken() const { return In(">command", WrittenMs()) + " ack "; }
    DWORD Return(int nResult) const {
        const bool bGood = code == 7 || (code == 18 ? nResult != -1 : nResult != 0);
        return bGood ? 0 : code == 25 ? DAKERROR_FOLDER_SPACE : FAIL;
    }
    // What is stored when a response came, whatever its result, and when none did.
    std::string Stored(std::optional<int> nResult) const {
        std::ostringstream result;
        result << std::hex << "one=" << nResult.value_or(code == 18 ? -1 : 0);
        using Texts = std::map<std::uint16_t, std::string>;
        const std::string strOne = result.str();
        const Texts left = {{18, strOne}, {21, strOne}, {25, "space=0"}};
        Texts stored = {
            {6, "one=5two=9"}, {13, "one=0"}, {14, "record"}, {18, strOne}, {21, strOne}};
        stored.insert({{15, "opened=80000003"}, {25, "space=900000005"}});
        stored[12] = Is('S') ? "" : "one=80000003";
        const Texts& texts = nResult ? stored : left;
        return texts.contains(code) ? texts.at(code) : "";
    }
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CALL(name, ...)                                                                            \
    [](CDAKVorn& dak, [[maybe_unused]] CArguments& in) -> DWORD {                                  \
        return dak.DAK##name(__VA_ARGS__);                                                         \
    }

const COperation OPERATIONS[] = {
    {1, CALL(MoveFile, in.path, in.next), "path next", {POLLED, 121}, "pnM"},
    {2, CALL(DeleteFile, in.path), "path", {UNBOUNDED}, "pV"},
    {6, CALL(GetDeviceFreeSpace, &in.one, &in.two), "", {POLLED, 1201, SPACE}, ""},
    {7, CALL(GetFolderContent, in.path, &in.files), "path", {POLLED, 121, ZERO}, "pAMS"},
    {10, CALL(CreateDirectory, in.path, nullptr), "path", {POLLED, 1201}, "p"},
    {12, CALL(CreateProcess, in.path, in.next, &in.one), "path next 1", {UNBOUNDED, 1, HIGH}, "pV"},
    {12, CALL(CreateProcess, in.path, nullptr, nullptr), "path none 0", {SINGLE, 1, HIGH}, "pVS"},
    {13, CALL(KernelIoControl, 7, in.io, 4, in.io, 4, &in.one), "7 4 -2 4 -2", CONTROL, ""},
    {14, CALL(GetFileInfo, in.path, &in.info), "path", {SINGLE, 1, RECORD}, "p"},
    {15, CALL(CreateFile, in.path, 1, 2, 3, in.lpOpened), "path 1 2 3", {POLLED, 1201, HIGH}, "po"},
    {18, CALL(SetFilePointer, in.File(), -2, 1, in.lpOne), "file -2 1", {COMPLETED}, "ho"},
    {19, CALL(CloseFile, in.File()), "file", {COMPLETED}, "h"},
    {20, CALL(CopyFile, in.path, in.next, -5), "path next -5", {POLLED, 1201}, "pn"},
    {21, CALL(RegisterWindowMessage, in.path, in.lpOne), "path", {COMPLETED}, "po"},
    {22, CALL(BroadCastMessage, 1, 2, -3), "1 2 -3", {COMPLETED}, ""},
    {23, CALL(GetStorageInfo, in.lpStorages), "", {UNBOUNDED, 1, ZERO}, "oM"},
    {24, CALL(FormatPartition, in.path), "path", {SINGLE}, "p"},
    {25, CALL(GetFolderFreeSpace, in.path, &in.space), "path", {POLLED, 361, SPACE}, "M"}};

// One operation with a device for it.
struct CExchange : CRun {
    explicit CExchange(const COperation& operation, const std::string& strWords = {},
                       const WCHAR* lpszPath = DAK_WIDE("\\a"))
        : CRun(std::to_string(operation.code) + ": " + strWords), op(operation) {
        world.bTrace = false;
        in.path = lpszPath;
        const auto response = [&](int nResult, std::uint16_t code) {
            return Response(code, nResult, op.wait.fields);
        };
        for (const int nResult : {0, 1, 2, -1}) {
            packages["result" + std::to_string(nResult)] = response(nResult, op.code);
        }
        const Bytes good = packages["good"] = response(1, op.code);
        packages["foreign"] = response(1, 99);
        packages["closing"] = response(1, 19);
        packages["high"] = With(good, 0, DAK_LAST_REPLY | 0x10000);
        packages["more"] = With(good, 0, DAK_REPLY_PACKAGE);
        packages["foreignmore"] = With(packages["foreign"], 0, DAK_REPLY_PACKAGE);
        packages["head"] = Part(good, 0, 6);
        packages["middle"] = Part(good, 6, 10);
        packages["end"] = Part(good, 10, good.size());
        packages["rest"] = Part(good, 6, good.size());
        packages["highack"] = Control(DAK_SUCCESS | 0x10000);
        packages["command"] = op.Request(in);
    }
    std::size_t Size() const { return packages.at("command").size(); }
    // qwMs: when the exchange is over. The closing of a device that has gone fails at once.
    // nResult: of the response, where one came.
    void Expect(const std::string& strWords, std::uint64_t qwMs, DWORD dwResult,
                std::optional<int> nResult = {}) {
        Play(strWords);
        EXPECT_EQ(op.call(*dak, in), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwResult);
        EXPECT_EQ(world.NowMs(), qwMs + (world.IsPlugged() ? READ_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        EXPECT_EQ(device.OpenNow(), 0);
        EXPECT_EQ(in.Stored(), op.Stored(dwResult == 0 ? nResult.value_or(1) : nResult));
    }

    const COperation& op;
    CArguments in;
};

// Results, to paths that go out as they are, and answers to each shape of wait with the time it
// takes them; below 0: that long to a failure.
TEST(Exchange, Answers) {
    const Rows<std::string, int, int, int> rows = {
        {"foreign good", 20, -10, -10},        {"high good", 20, -10, -10},
        {"foreignmore good", 20, -10, -10},    {"more good", 20, -10, -10},
        {"closing good", 20, -10, -10},        {"head rest good", 30, -10, 20},
        {"head middle end good", 40, -10, -20}};
    const WideText strLong(7000, DAK_WIDE('x'));
    for (const COperation& op : OPERATIONS) {
        std::optional<CExchange> prompt(std::in_place, op, "a prompt device");
        prompt->world.bPromptDevice = true;
        prompt->Expect(">command ack good", -READ_MS, 0, 1);
        prompt.reset();
        for (const int nResult : {0, 1, 2, -1}) {
            const std::string strWord = "result" + std::to_string(nResult);
            const WCHAR* lpszPath = nResult == 1    ? strLong.c_str()
                                    : op.code == 25 ? DAK_WIDE("")
                                                    : DAK_WIDE("/\u00FC\U0001F4C1\xD800");
            CExchange(op, strWord, lpszPath)
                .Expect(op.Taken() + strWord, op.AwaitMs() + READ_MS, op.Return(nResult), nResult);
        }
        for (const auto& [strWords, nPolled, nSingle, nCompleted] : rows) {
            int nMs = op.Polls() ? nPolled : op.Has(COMPLETED) ? nCompleted : nSingle;
            if (op.Is('M') && strWords == "more good") {
                nMs = op.code == 7 ? 10 : -10; // a listing takes either word
            } else if (strWords == "closing good" && (op.code == 19 || op.code == 21)) {
                nMs = 10; // devices answer a message's name so
            }
            const std::uint64_t qwMs = op.AwaitMs() + static_cast<std::uint64_t>(std::abs(nMs));
            CExchange(op, strWords).Expect(op.Taken() + strWords, qwMs, nMs > 0 ? 0 : FAIL);
        }
    }
}

TEST(Exchange, WhatElseEndsIt) {
    for (const COperation& op : OPERATIONS) {
        const auto expect = [&](const std::string& strWords, std::uint64_t qwMs, DWORD dwResult,
                                std::optional<int> nResult = {}) {
            CExchange(op, strWords).Expect(strWords, qwMs, dwResult, nResult);
        };
        const std::string strCommand = In(">command", op.WrittenMs()) + " ";
        const std::uint64_t qwAcked = op.WrittenMs() + op.AckPauseMs() + READ_MS;
        const std::uint64_t qwSilence = op.Is('A') ? 1201 * (op.AckPauseMs() + 1018) : 518;
        const DWORD dwGone = op.Is('V') ? GONE : FAIL;
        const std::size_t dwSize = CExchange(op).Size();
        expect("other", -READ_MS, DAKERROR_BUSY);
        expect("gone", 300, GONE);
        expect("!LocalAlloc#2", LINK_UP_MS, FAIL); // the request's, behind the node's
        expect("!WaitForSingleObject#4", LINK_UP_MS, DAKERROR_BUSY); // behind the handshake's
        expect("linked hang", op.WrittenMs() + dwSize + 500, op.code == 25 ? GONE : FAIL);
        expect(strCommand, op.WrittenMs() + qwSilence, FAIL);
        expect(strCommand + "gone@200", op.WrittenMs() + (op.Is('A') ? 700 : 200), dwGone);
        for (const std::string strAck : {"shortack", "retransmit", "highack"}) {
            expect(strCommand + strAck + " good", qwAcked, FAIL);
        }
        // The last try counts, at its last millisecond, and none behind it. Nothing bounds the
        // unbounded waits but the device's going.
        const bool bBound = !op.Has(UNBOUNDED);
        const std::uint64_t qwLast = (bBound ? op.wait.nTries : 2000) * op.TryMs() - 500;
        const std::uint64_t qwPause = op.Polls() ? 500 : 0;
        const std::uint64_t qwEnd = op.AwaitMs() + qwLast;
        const std::uint64_t qwAnswer = qwEnd - op.WrittenMs();
        expect(op.Taken() + In("good", qwAnswer), qwEnd, 0);
        if (bBound) {
            expect(op.Taken() + In("good", qwAnswer + 1), qwEnd + qwPause, FAIL);
        } else {
            expect(op.Taken() + In("good", qwAnswer + 1), qwEnd + qwPause + READ_MS, 0);
            expect(op.Taken() + In("gone", qwAnswer + 600), qwEnd + 1100, dwGone);
        }
        if (op.Polls()) { // the others ask nobody
            // What arrived in the very try in which the device went away still counts.
            const std::string strGone = op.Is('A') ? "gone?2 " : "gone?1 ";
            const std::string strTaken = op.Taken().insert(strCommand.size(), strGone);
            expect(strTaken + "good", op.AwaitMs() + READ_MS, 0);
            expect(strTaken + "result0", op.AwaitMs() + READ_MS, op.Is('V') ? GONE : op.Return(0),
                   0);
        }
        if (dwSize < 14 + op.wait.fields.size() && op.code != 7) {
            expect("!LocalAlloc#3 " + op.Taken(), op.AwaitMs(), FAIL);
        }
    }
}

TEST(Exchange, RefusedArgumentsTouchNothing) {
    CRun run;
    CDAKVorn& dak = *run.dak;
    constexpr std::uintptr_t NO_HANDLES[] = {0, 0xFFFFFFFF, ~0ull, 1ull << 32};
    for (const COperation& op : OPERATIONS) {
        for (const std::uintptr_t handle : NO_HANDLES) {
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
    EXPECT_TRUE(dak.GetLastError() == DAKERROR_FOLDER_SPACE && in.space == 0);
    // The counts are set once handle and pointer have passed. Nothing asked for is a success.
    for (const auto& call : {&CDAKVorn::DAKReadFile, &CDAKVorn::DAKWriteFile}) {
        EXPECT_EQ((dak.*call)(in.File(), in.io, 4, nullptr), FAIL);
        for (const std::uintptr_t handle : NO_HANDLES) {
            EXPECT_EQ((dak.*call)(reinterpret_cast<void*>(handle), in.io, 4, &in.one), FAIL);
        }
        for (const DWORD dwBytes : {1u, 0u}) {
            in.one = 5;
            EXPECT_EQ((dak.*call)(in.File(), nullptr, dwBytes, &in.one), dwBytes * FAIL);
            EXPECT_TRUE(in.one == 0 && dak.GetLastError() == dwBytes * FAIL);
        }
    }
    EXPECT_EQ(dak.DAKGetDeviceFreeSpace(nullptr, nullptr), 0u);
    EXPECT_EQ(run.world.CallCount(), 1u) << "the resend buffer";
}

// The output of an I/O control comes behind its response.
TEST(Exchange, OutputOfAKernelIoControl) {
    const Rows<int, DWORD, std::string, DWORD, std::string, DWORD> rows = {
        // result, bytes announced, bytes sent, what the caller gets: result, output, its size
        {1, 3, "xyz", 0, "xyz4", 3},
        {1, 4, "wxyz", 0, "wxyz", 4},
        {0, 1, "x", FAIL, "x234", 1},
        {1, 3, "x", 0, "x234", 3},
        {1, 5, "", FAIL, "1234", 77}};
    for (const auto& [nResult, dwAnnounced, strSent, dwExpected, strOut, dwSize] : rows) {
        CRun run(strOut);
        char szOut[] = "1234";
        DWORD dwOutput = 77;
        run.packages["answer"] = Response(13, nResult, U32(dwAnnounced));
        run.packages["output"] = Bytes(strSent.begin(), strSent.end());
        run.Play(strSent.empty() ? "> ack answer" : "> ack answer output");
        EXPECT_EQ(run.dak->DAKKernelIoControl(5, szOut, 4, szOut, 4, &dwOutput), dwExpected);
        EXPECT_EQ(szOut, strOut);
        EXPECT_EQ(dwOutput, dwSize);
        // Without a place for output the device takes the command and nobody asks for more.
        run.Play(">21E00000.10000000.0D00.05000000.00000000.02000000.0000 ack");
        EXPECT_EQ(run.dak->DAKKernelIoControl(5, nullptr, 0, nullptr, 2, nullptr), FAIL);
    }
}

// So do the records of storages. They are added whatever the result says, but only whole.
TEST(Exchange, RecordsOfStorages) {
    const WideText strLongest(51, DAK_WIDE('y'));
    const Bytes numbers = Pattern(16);
    // A name without an end; behind another one the device's memory shows.
    const Bytes two = Join(Text(DAK_WIDE("Root")), Bytes(94, 0xCC), numbers,
                           Part(Text(strLongest + DAK_WIDE("y")), 0, 104), numbers);
    const Rows<int, int, std::size_t, int, int> rows = {
        // result, records announced, bytes sent, bytes announced beyond those, records added
        {1, 2, 240, 0, 2},     {0, 2, 240, 0, 2},  {5, 2, 0, 0, 0},   {1, 1, 240, 0, 1},
        {1, 3, 240, 0, 2},     {1, -1, 240, 0, 0}, {1, 2, 0, 240, 0}, {1, 2, 0, -1, 0},
        {1, 2, 0, 1 << 20, 0}, {1, 2, 239, 0, 1},  {1, 2, 239, 1, 1}};
    for (const auto& [nResult, nCount, dwSent, nLengthMore, nAdded] : rows) {
        CRun run(testing::PrintToString(std::tuple(nResult, nCount, dwSent, nLengthMore)));
        run.packages["reply"] = With(
            Response(23, nResult, U32(static_cast<DWORD>(nCount)), Part(two, 0, dwSent)),
            DAK_OFFSET_LENGTH, static_cast<DWORD>(10 + static_cast<int>(dwSent) + nLengthMore));
        CArray<_tagStorageInfo, _tagStorageInfo> list;
        list.Add({});
        run.Play("> ack reply");
        EXPECT_EQ(run.dak->DAKGetStorageInfo(&list), nResult == 0 ? FAIL : 0);
        EXPECT_EQ(run.world.NowMs(), 340u + (nLengthMore == 240 ? 750 : dwSent == 0 ? 0 : 10));
        ASSERT_EQ(list.GetSize(), nAdded + 1) << "behind what was there";
        for (int i = 0; i < nAdded; ++i) {
            _tagStorageInfo expected{};
            (i == 0 ? WideText(DAK_WIDE("Root")) : strLongest).copy(expected.szStorageName, 51);
            std::memcpy(&expected.dwValue1, numbers.data(), 12);
            EXPECT_EQ(std::memcmp(&list[i + 1], &expected, sizeof(expected)), 0);
        }
        run.dak->ClearStorageList(&list);
        EXPECT_EQ(list.GetData(), nullptr);
    }
}

} // namespace
