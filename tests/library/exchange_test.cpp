// Every function code's exchange under the same set of devices, what comes out of it for the
// caller, and the frames around it.

#include "tests/library/library_run.h"

#include <cstring>

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
    // What has been stored.
    std::string Stored() const {
        std::ostringstream text;
        text << std::hex;
        one != 77 ? text << "one=" << one << ' ' : text;
        two != 77 ? text << "two=" << two << ' ' : text;
        space != 77 ? text << "space=" << space << ' ' : text;
        opened != nullptr ? text << "opened=" << reinterpret_cast<std::uintptr_t>(opened) : text;
        std::memcmp(&info, Pattern(1236).data(), 1236) == 0 ? text << "info" : text;
        return text.str();
    }
};

enum EShape { POLLED, UNBOUNDED, FIRST_READ, SINGLE, COMPLETED, NO_RESPONSE };

struct CWait {
    EShape eShape;
    std::uint64_t nTries = 1;
    Bytes fields = {}; // of the response, behind the result
};

// What is stored when a response came, whatever its result, which is #; and when none did. Counts
// of streams are looked at elsewhere.
const std::map<std::uint16_t, std::string> STORED = {
    {6, "one=5 two=9 "},     {12, "one=80000003 "}, {13, "one=0 "}, {14, "info"},
    {15, "opened=80000003"}, {18, "one=# "},        {21, "one=# "}, {25, "space=900000005 "}};
const std::map<std::uint16_t, std::string> LEFT = {
    {18, "one=ffffffff "}, {21, "one=0 "}, {25, "space=0 "}};

struct COperation {
    std::uint16_t code;
    DWORD (*call)(CDAKVorn&, CArguments&);
    const char* lpszPayload; // path, next, file, none (an empty text), and numbers
    CWait wait;
    // Refused without: p, the path; n, the new one; h, the handle; o, a place for what comes.
    // A, the acknowledgement is awaited, and not read once; M, DAK_REPLY_PACKAGE ends the wait; V,
    // a device that went away gives GONE.
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
    // What the caller gets for a result, and what GetLastError tells then: of a write what its
    // stream has left.
    DWORD Return(int nResult) const {
        const bool bGood = code == 7    ? true
                           : code == 17 ? nResult == 1
                           : code == 18 ? nResult != -1
                                        : nResult != 0;
        return bGood ? 0 : code == 25 ? DAKERROR_FOLDER_SPACE : FAIL;
    }
    DWORD Left(DWORD dwResult) const { return code == 17 ? DAKERROR_NONE : dwResult; }
    std::string Stored(std::optional<int> nResult) const {
        const bool bStores = nResult && !(code == 12 && Has(SINGLE));
        const auto& texts = bStores ? STORED : LEFT;
        std::string strStored = texts.contains(code) ? texts.at(code) : "";
        if (const auto nNumber = strStored.find('#'); nNumber != std::string::npos) {
            std::ostringstream number;
            number << std::hex << *nResult;
            strStored.replace(nNumber, 1, number.str());
        }
        return strStored;
    }
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define CALL(name, ...)                                                                            \
    [](CDAKVorn& dak, [[maybe_unused]] CArguments& in) -> DWORD {                                  \
        return dak.DAK##name(__VA_ARGS__);                                                         \
    }

const Bytes ZERO(4);
const Bytes HIGH = U32(0x80000003);
const Bytes SPACE = U64(0x900000005);
const COperation OPERATIONS[] = {
    {1, CALL(MoveFile, in.path, in.next), "path next", {POLLED, 121}, "pnM"},
    {2, CALL(DeleteFile, in.path), "path", {UNBOUNDED}, "pV"},
    {6, CALL(GetDeviceFreeSpace, &in.one, &in.two), "", {POLLED, 1201, SPACE}, ""},
    {7, CALL(GetFolderContent, in.path, &in.files), "path", {POLLED, 121, ZERO}, "pAM"},
    {10, CALL(CreateDirectory, in.path, in.Any()), "path", {POLLED, 1201}, "p"},
    {12, CALL(CreateProcess, in.path, in.next, &in.one), "path next 1", {UNBOUNDED, 1, HIGH}, "pV"},
    {12, CALL(CreateProcess, in.path, nullptr, nullptr), "path none 0", {SINGLE, 1, HIGH}, "pV"},
    {13,
     CALL(KernelIoControl, 7, in.io, 4, in.io, 4, &in.one),
     "7 4 -2 4 -2",
     {POLLED, 1201, ZERO},
     ""},
    {14, CALL(GetFileInfo, in.path, &in.info), "path", {SINGLE, 1, Pattern(1236)}, "p"},
    {15, CALL(CreateFile, in.path, 1, 2, 3, in.lpOpened), "path 1 2 3", {POLLED, 1201, HIGH}, "po"},
    {16, CALL(ReadFile, in.File(), in.io, 4, in.lpOne), "file 4", {NO_RESPONSE}, "hoA"},
    {17, CALL(WriteFile, in.File(), in.io, 4, in.lpOne), "file 4", {FIRST_READ, 1201}, "hoA"},
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
    explicit CExchange(const COperation& operation, const std::string& strWords = {})
        : CRun(std::to_string(operation.code) + ": " + strWords), op(operation) {
        world.bTrace = false;
        const auto with = [&](std::uint32_t dwWord, std::uint16_t code, int nResult = 1) {
            return With(Response(code, nResult, op.wait.fields), 0, dwWord);
        };
        const Bytes good = with(DAK_LAST_REPLY, op.code);
        packages.insert({{"result0", with(DAK_LAST_REPLY, op.code, 0)},
                         {"result1", good},
                         {"result2", with(DAK_LAST_REPLY, op.code, 2)},
                         {"result-1", with(DAK_LAST_REPLY, op.code, -1)},
                         {"good", good},
                         {"foreign", with(DAK_LAST_REPLY, 99)},
                         {"closing", with(DAK_LAST_REPLY, 19)},
                         {"high", with(DAK_LAST_REPLY | 0x10000, op.code)},
                         {"more", with(DAK_REPLY_PACKAGE, op.code)},
                         {"foreignmore", with(DAK_REPLY_PACKAGE, 99)},
                         {"head", Part(good, 0, 6)},
                         {"middle", Part(good, 6, 10)},
                         {"end", Part(good, 10, good.size())},
                         {"rest", Part(good, 6, good.size())},
                         {"highack", Control(DAK_SUCCESS | 0x10000)},
                         {"bytes", DataPackage(DAK_LAST_PACKAGE, 17, {0xFE, 0xFF, 0xFF, 0xFF})}});
        packages["command"] = op.Request(in);
    }
    std::size_t Size() const { return packages.at("command").size(); }
    // qwMs: when the exchange is over. The closing of a device that has gone fails at once.
    // nResult: of the response, where one came.
    void Expect(const std::string& strWords, std::uint64_t qwMs, DWORD dwResult, DWORD dwError,
                std::optional<int> nResult = {}) {
        packages["command"] = op.Request(in);
        Play(strWords);
        EXPECT_EQ(op.call(*dak, in), dwResult);
        EXPECT_EQ(dak->GetLastError(), dwError);
        EXPECT_EQ(world.NowMs(), qwMs + (world.IsPlugged() ? READ_MS : 0));
        EXPECT_FALSE(dak->IsTransmitting());
        EXPECT_EQ(device.OpenNow(), 0);
        if (op.code != 16 && op.code != 17 && dwResult != DAKERROR_BUSY) {
            EXPECT_EQ(in.Stored(), op.Stored(dwResult == 0 ? nResult.value_or(1) : nResult));
        }
    }

    const COperation& op;
    CArguments in;
};

TEST(Exchange, BytesOfADeletion) {
    CRun run;
    run.Play(">21E00000.08000000.0200.5C0061000000 00E00000.00000000 "
             "22E00000.06000000.0200.01000000");
    EXPECT_EQ(run.dak->DAKDeleteFile(DAK_WIDE("\\a")), 0u);
}

// Answers to each shape of wait, and the time it takes them; below 0: that long to a failure.
TEST(Exchange, Answers) {
    // nOnce: first-read wait and single read
    const Rows<std::string, int, int, int> rows = {
        {"foreign good", 20, -10, -10},        {"high good", 20, -10, -10},
        {"foreignmore good", 20, -10, -10},    {"more good", 20, -10, -10},
        {"closing good", 20, -10, -10},        {"head rest good", 30, -10, 20},
        {"head middle end good", 40, -10, -20}};
    for (const COperation& op : OPERATIONS) {
        for (const int nResult : {0, 1, 2, -1}) {
            const DWORD dwResult = op.Return(nResult);
            const DWORD dwLeft = op.code == 17 && nResult == -1 ? NO_SPACE : op.Left(dwResult);
            if (!op.Has(NO_RESPONSE)) {
                const std::string strWord = "result" + std::to_string(nResult);
                CExchange(op, strWord)
                    .Expect(op.Taken() + strWord, op.AwaitMs() + READ_MS, dwResult, dwLeft,
                            nResult);
            }
        }
        for (const auto& [strWords, nPolled, nOnce, nCompleted] : rows) {
            int nMs = op.Polls() ? nPolled : op.Has(COMPLETED) ? nCompleted : nOnce;
            if (op.Is('M') && strWords == "more good") {
                nMs = op.code == 7 ? 10 : -10; // a listing takes either word
            } else if (strWords == "closing good" && (op.code == 19 || op.code == 21)) {
                nMs = 10; // devices answer a message's name so
            }
            const DWORD dwResult = nMs > 0 ? 0 : FAIL;
            if (!op.Has(NO_RESPONSE)) {
                CExchange(op, strWords)
                    .Expect(op.Taken() + strWords,
                            op.AwaitMs() + static_cast<std::uint64_t>(std::abs(nMs)), dwResult,
                            op.Left(dwResult));
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
            std::optional<int> nResult = {};
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
        const auto add = [&](const std::string& strWords, std::uint64_t qwMs, DWORD dwResult,
                             std::optional<int> nResult = {}) {
            rows.push_back({strWords, op.AwaitMs() + qwMs, dwResult, op.Left(dwResult), nResult});
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
                add(strTaken + "result0", READ_MS, op.Is('V') ? GONE : op.Return(0), 0);
            }
            if (CExchange(op).Size() < 14 + op.wait.fields.size() && op.code != 7) {
                rows.push_back({"!LocalAlloc#3 " + op.Taken(), op.AwaitMs(), FAIL, FAIL});
            }
        }
        for (const CRow& row : rows) {
            CExchange(op, row.strWords)
                .Expect(row.strWords, row.qwMs, row.dwResult, row.dwError, row.nResult);
        }
    }
}

TEST(Exchange, PathsGoOutAsTheyAre) {
    const WideText paths[] = {
        WideText(7000, DAK_WIDE('x')), DAK_WIDE("/\u00FC\U0001F4C1\xD800"), {}};
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

TEST(Exchange, RefusedArgumentsTouchNothing) {
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

// The output of an I/O control comes behind its response.
TEST(Exchange, OutputOfAKernelIoControl) {
    const Rows<int, DWORD, std::string, DWORD, std::string, DWORD> rows = {
        // result, bytes announced, bytes sent, what the caller gets: result, output, its size
        {1, 3, "xyz", 0, "xyz4", 3},  {1, 4, "wxyz", 0, "wxyz", 4}, {1, 0, "", 0, "1234", 0},
        {0, 1, "x", FAIL, "x234", 1}, {1, 3, "x", 0, "x234", 3},    {1, 3, "", 0, "1234", 3},
        {1, 5, "", FAIL, "1234", 77}};
    for (const auto& [nResult, dwAnnounced, strSent, dwExpected, strOut, dwSize] : rows) {
        CRun run(strSent);
        char szIn[] = "in";
        char szOut[] = "1234";
        DWORD dwOutput = 77;
        run.packages["request"] =
            Command(13, U32(5), U32(2), Bytes{'i', 'n'}, U32(4), Bytes{'1', '2', '3', '4'});
        run.packages["answer"] = Response(13, nResult, U32(dwAnnounced));
        run.packages["output"] = Bytes(strSent.begin(), strSent.end());
        run.Play(strSent.empty() ? "open answer" : "open answer output");
        EXPECT_EQ(run.dak->DAKKernelIoControl(5, szIn, 2, szOut, 4, &dwOutput), dwExpected);
        EXPECT_EQ(szOut, strOut);
        EXPECT_EQ(dwOutput, dwSize);
        // Without a place for output the device takes the command and nobody asks for more.
        const std::uint64_t qwStart = run.world.NowMs();
        run.packages["request"] = Command(13, U32(5), U32(0), U32(2), Bytes(2));
        run.Play("open");
        EXPECT_EQ(run.dak->DAKKernelIoControl(5, nullptr, 0, nullptr, 2, nullptr), FAIL);
        EXPECT_EQ(run.world.NowMs() - qwStart, LINK_UP_MS + 2 * READ_MS);
    }
}

// So do the records of storages. They are added whatever the result says, but only whole.
TEST(Exchange, RecordsOfStorages) {
    const WideText names[] = {DAK_WIDE("Root"), WideText(51, DAK_WIDE('y'))};
    const auto record = [&](int nIndex) {
        Bytes name = nIndex == 0 ? Text(names[0]) : Text(names[1] + DAK_WIDE("z")); // unended
        name.resize(104, 0xCC); // behind the name the device's memory shows
        return Join(name, Pattern(16, static_cast<DWORD>(nIndex)));
    };
    const Bytes two = Join(record(0), record(1));
    const Rows<int, int, Bytes, int, int> rows = {
        // result, records announced, sent, bytes announced beyond those sent, records added
        {1, 2, two, 0, 2},
        {0, 2, two, 0, 2},
        {5, 2, {}, 0, 0},
        {1, 1, two, 0, 1},
        {1, 3, two, 0, 2},
        {1, -1, two, 0, 0},
        {1, 2, {}, 240, 0},
        {1, 2, {}, -1, 0},
        {1, 2, {}, 1 << 20, 0},
        {1, 2, Part(two, 0, 239), 0, 1},
        {1, 2, Part(two, 0, 239), 1, 1}};
    for (const auto& [nResult, nCount, records, nLengthMore, nAdded] : rows) {
        CRun run(testing::PrintToString(std::tuple(nResult, nCount, nLengthMore)));
        const Bytes reply = Response(23, nResult, U32(static_cast<DWORD>(nCount)), records);
        run.packages["reply"] =
            With(reply, DAK_OFFSET_LENGTH,
                 static_cast<DWORD>(static_cast<int>(reply.size()) - 8 + nLengthMore));
        CArray<_tagStorageInfo, _tagStorageInfo> list;
        list.Add({});
        run.Play("> ack reply");
        EXPECT_EQ(run.dak->DAKGetStorageInfo(&list), nResult == 0 ? FAIL : 0);
        const std::uint64_t qwRead = nLengthMore == 240 ? 750 : records.empty() ? 0 : 10;
        EXPECT_EQ(run.world.NowMs(), 340 + qwRead);
        ASSERT_EQ(list.GetSize(), nAdded + 1) << "behind what was there";
        for (int i = 0; i < nAdded; ++i) {
            _tagStorageInfo expected{};
            names[i].copy(expected.szStorageName, 51);
            std::memcpy(&expected.dwValue1, record(i).data() + 104, 12);
            EXPECT_EQ(std::memcmp(&list[i + 1], &expected, sizeof(expected)), 0);
        }
        run.dak->ClearStorageList(&list);
        EXPECT_EQ(list.GetData(), nullptr);
    }
}

} // namespace
