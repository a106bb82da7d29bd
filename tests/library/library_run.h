// What the tests of the library share: a world with a device and an object, the device's part as a
// line of words, copies up to their message, and the times that operations are made of.
#pragma once

#include "link/dak_vorn.h"
#include "link/device_connection.h"
#include "platform/message_window.h"
#include "platform/thread.h"
#include "tests/sim/scripted_device.h"
#include "transfer/copy_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

// What no exported operation shows or brings about.
struct CDAKVornTestAccess {
    static BOOL& Copying(CDAKVorn& dak) { return dak.m_bCopying; }
    static std::uint64_t& SizeCopied(CDAKVorn& dak) { return dak.m_dwSizeCopied; }
    static std::uint64_t& SizeTotal(CDAKVorn& dak) { return dak.m_dwSizeTotal; }
    static const char* PartPath(CDAKVorn& dak) { return dak.m_szPartPath; }
    static int OpenDevice(CDAKVorn& dak) { return dak.OpenDevice(); }
};
using Access = CDAKVornTestAccess;
using namespace test;
using sim::ECall;
using WideText = std::basic_string<WCHAR>;

inline constexpr DWORD FAIL = DAKERROR_FAIL;
inline constexpr DWORD GONE = DAKERROR_NO_DEVICE;
inline constexpr DWORD PROTOCOL = DAKERROR_PROTOCOL;
inline constexpr DWORD NO_SPACE = DAKERROR_NO_SPACE;
inline constexpr DWORD REFUSED = DAKERROR_DEVICE_REFUSED;
inline constexpr DWORD CANCELLED = DAKERROR_CANCELLED;

// Of a host that does not tell its speed, with a device that answers at once.
inline constexpr std::uint64_t READ_MS = 10;
inline constexpr std::uint64_t LINK_UP_MS = READ_MS + 300;
inline constexpr std::uint64_t RETRY_BASE_MS = 60;
inline constexpr std::uint64_t FAILED_READ_MS = READ_MS + 508; // of 8 bytes
inline constexpr std::uint64_t FAILED_TRY_MS = FAILED_READ_MS + 500;
inline constexpr std::uint64_t READS_AT_MOST = 1201;
inline constexpr std::uint64_t DRAIN_MS = 4 * FAILED_READ_MS + 3 * 300;

// A table, whose columns get their names where it is walked through.
template <class... TColumns>
using Rows = std::vector<std::tuple<TColumns...>>;

// The word name@qwMs.
inline std::string In(const std::string& strName, std::uint64_t qwMs) {
    return strName + "@" + std::to_string(qwMs);
}
inline Bytes Part(const Bytes& bytes, std::size_t dwFrom, std::size_t dwTo) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(dwFrom),
            bytes.begin() + static_cast<std::ptrdiff_t>(dwTo)};
}
// The package with another word of 32 bits at that place.
inline Bytes With(Bytes package, std::size_t dwOffset, DWORD dwValue) {
    DakPutU32(package.data() + dwOffset, dwValue);
    return package;
}

// A world in which whatever has been opened is closed at the end.
struct CRun {
    explicit CRun(const std::string& strName = {}) : trace(__FILE__, __LINE__, strName) {}
    ~CRun() {
        dak.reset();
        EXPECT_EQ(world.LiveThreads(), 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_FALSE(IsHandleOpen(g_hDeviceMutex));
        EXPECT_EQ(g_bAbortPending, FALSE);
    }

    void Cancel() { StoreShared(Access::Copying(*dak), BOOL{0}); }

    // Adds to the device's script, a step for each word:
    //     name       gives that package; name@5 gives it 5 ms later
    //     >name      takes that package, and no other one; >name@5 at 5 ms of the world's clock
    //     >          takes any package
    //     21E0.0800  a package in literal bytes, for a name; dots are for the reader
    //     hang       the next write hangs until the host stops it
    //     gone       goes away; gone@5 in 5 ms; gone?2 when it is asked for the second time
    //     cancel     what TerminateTransfer tells a running stream; cancel@5 in 5 ms
    //     linked     answers the host's first handshake, so that what follows waits for it
    //     !Call#2=112 the second such call of the host fails with error 112; !Call the first
    //     -12288     the host gets no memory of that many bytes
    //     3*word     the word three times
    // The name of an action runs it, that of a line plays its words.
    void Play(const std::string& strWords) {
        std::istringstream words(strWords);
        for (std::string strWord; words >> strWord;) {
            const auto nStar = strWord.find('*'); // npos + 1 is 0
            for (int i = nStar == std::string::npos ? 1 : std::stoi(strWord); i > 0; --i) {
                PlayWord(strWord.substr(nStar + 1));
            }
        }
    }

    // A package by its name, or literal bytes.
    Bytes Named(const std::string& strName) const {
        Bytes bytes;
        if (packages.contains(strName)) {
            return packages.at(strName);
        }
        for (std::size_t i = 0; i < strName.size(); i += 2) {
            i += strName[i] == '.' ? 1u : 0u;
            bytes.push_back(
                static_cast<std::uint8_t>(std::stoul(strName.substr(i, 2), nullptr, 16)));
        }
        return bytes;
    }

    // Names the packages of a stream p1, p2 and so on; s2 is p2 as the host sends it again, in
    // full, and a2 as it tells of a cancel. The line "sent" is all of them up to the last, with an
    // acknowledgement wherever one is due, "whole" the last one's too.
    void LayStream(std::uint16_t codeFunc, const Bytes& stream, bool bPush, bool bEmptyLast) {
        const auto all = StreamPackages(codeFunc, stream, bPush ? DAK_PACKAGE : DAK_REPLY_PACKAGE,
                                        bPush ? DAK_LAST_PACKAGE : DAK_LAST_REPLY, bEmptyLast);
        const std::string strAck = bPush ? " ack" : " >ack";
        std::string& strSent = lines["sent"] = "";
        for (std::size_t i = 1; i <= all.size(); ++i) {
            const std::string strNumber = std::to_string(i);
            Bytes slot = packages["p" + strNumber] = all[i - 1];
            slot.resize(DAK_PACKAGE_SIZE);
            packages["s" + strNumber] = slot;
            DakPutHeader(slot.data(), DAK_ABORT, 0);
            packages["a" + strNumber] = slot;
            strSent += (bPush ? " >p" : " p") + strNumber;
            strSent += i != all.size() && i % 50 == (bPush ? 1 : 0) ? strAck : "";
        }
        lines["whole"] = "open" + strSent + strAck;
    }

    testing::ScopedTrace trace;
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    std::optional<CDAKVorn> dak{std::in_place};
    std::map<std::string, Bytes> packages{{"ack", Ack()},
                                          {"retransmit", Control(DAK_RETRANSMIT)},
                                          {"abort", Control(DAK_ABORT)},
                                          {"connect", Handshake(DAK_CONNECT)},
                                          {"disconnect", Handshake(DAK_DISCONNECT)},
                                          {"shortack", {0, 0xE0, 0, 0, 0, 0, 0}}};
    std::map<std::string, std::string> lines{{"open", ">request ack"}};
    std::map<std::string, std::function<void()>> actions{
        {"other", [this] { world.OtherProcessOpensLock("NadoxUSBAPI"); }}};

  private:
    void PlayWord(const std::string& strWord) {
        const auto nMark = std::min(strWord.find_first_of("@?#"), strWord.size());
        const std::string strName = strWord.substr(0, nMark);
        const char chMark = strWord[nMark];
        unsigned long long qwNumber = 0;
        DWORD dwError = 0;
        std::sscanf(strWord.c_str() + nMark, "%*c%llu=%u", &qwNumber, &dwError);
        if (actions.contains(strName)) {
            device.Do(actions[strName]);
        } else if (lines.contains(strName)) {
            Play(lines[strName]);
        } else if (strName == "linked") {
            device.ExpectHandshake(DAK_CONNECT);
        } else if (strName == "hang") {
            device.DoNotTake();
        } else if (strName == "gone") {
            chMark == '?'   ? device.VanishAtQuestion(qwNumber)
            : chMark == '@' ? device.VanishAfter(qwNumber)
                            : device.Vanish();
        } else if (strName == "cancel") {
            device.Do([this, qwNumber] {
                qwNumber == 0 ? Cancel() : world.At(world.NowMs() + qwNumber, [&] { Cancel(); });
            });
        } else if (strName[0] == '-') {
            device.Do(
                [this, strName] { world.dwFailAllocationsOf = std::stoul(strName.substr(1)); });
        } else if (strName[0] == '!') {
            int nCall = 0;
            for (; strName.substr(1) != sim::CallName(static_cast<ECall>(nCall)); ++nCall) {
            }
            device.Do([=, this] {
                world.FailCall(static_cast<ECall>(nCall), std::max(qwNumber, 1ull), dwError);
            });
        } else if (strName[0] == '>') {
            strName == ">" ? device.ExpectThat([](const Bytes&) {})
                           : device.Expect(Named(strName.substr(1)));
            chMark == '@' ? device.At(qwNumber) : device;
        } else {
            device.ReplyAfter(qwNumber, Named(strName));
        }
    }
};

// All files of the tests have these times.
inline constexpr std::uint64_t CREATED = 0x0807060504030201;
inline constexpr std::uint64_t WRITTEN = 0x1817161514131211;
inline Bytes FileRecord(std::basic_string_view<WCHAR> name, const Bytes& bytes) {
    return Record({name, bytes, CREATED, WRITTEN});
}

// A job between the folders C:\s of the host and \d of the device. Its words are request, those of
// its stream, and done for a good reply to a push.
struct CTransfer : CRun {
    explicit CTransfer(UINT uDirection, const std::string& strName = {})
        : CRun(strName), nDirection(uDirection) {
        world.MakeHostFolder("C:/s");
        packages["done"] = Response(8, 1);
        LayRequest(DAK_WIDE("C:\\s"), DAK_WIDE("\\d"));
    }
    bool IsPush() const { return nDirection == DAK_TO_DEVICE; }
    void LayRequest(const WCHAR* lpszHost, const WCHAR* lpszDevice) {
        packages["request"] = IsPush()
                                  ? Command(8, Bytes{1}, Text(lpszHost), Text(lpszDevice))
                                  : Command(8, Bytes{0}, Text(lpszDevice), Text(lpszHost), U32(0));
    }
    void AddFile(const std::string& strPath, const Bytes& bytes) {
        world.WriteHostFile(strPath, bytes, {0x04030201, 0x08070605}, {0x14131211, 0x18171615});
        list.Add(strPath.c_str());
    }
    // A stream of records; of a push with their number, where it is not that.
    template <class... TRecords>
    void LayRecords(const TRecords&... records) {
        constexpr auto dwRecords = static_cast<DWORD>(sizeof...(records));
        const Bytes head = IsPush() ? U32(std::max(static_cast<DWORD>(list.GetSize()), dwRecords))
                                    : Join(U32(1), U32(dwRecords));
        LayStream(8, Join(head, records...), IsPush(), IsPush());
        lines["whole"] += IsPush() ? " done" : "";
    }

    DWORD Start(const WCHAR* lpszHost = DAK_WIDE("C:\\s"),
                const WCHAR* lpszDevice = DAK_WIDE("\\d")) {
        return dak->DAKTransmitFiles(nDirection, IsPush() ? lpszHost : lpszDevice,
                                     IsPush() ? lpszDevice : lpszHost, &list, window);
    }
    void AwaitEnd() {
        while (world.LiveThreads() != 0 && !world.HasFailed()) {
            platform::Sleep(100);
        }
    }
    // Awaits the worker's end. The message must have come once, at that time if one is given.
    void ExpectEnd(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        AwaitEnd();
        EXPECT_EQ(dak->GetLastError(), dwErrCode);
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
        ASSERT_EQ(world.posted.size(), 1u);
        const sim::CPostedMessage message = world.posted[0];
        EXPECT_TRUE(message.hWnd == window && message.message == 3028u && message.wParam == 0 &&
                    message.lParam == 0);
        EXPECT_EQ(message.qwMs, qwMs.value_or(message.qwMs));
        EXPECT_STREQ(Access::PartPath(*dak), "") << "nobody may delete what bears it later";
        // A job that was cut short leaves the link to the next operation.
        EXPECT_EQ(device.OpenNow(), dwErrCode == CANCELLED && world.IsPlugged() ? 1 : 0);
    }
    // A job of those words from its start to its end.
    void Run(const std::string& strWords, DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        Play(strWords);
        EXPECT_EQ(Start(), DAKERROR_NONE);
        ExpectEnd(dwErrCode, qwMs);
    }
    void ExpectFile(const std::string& strPath, const Bytes& bytes) {
        EXPECT_EQ(world.ReadHostFile(strPath), bytes) << strPath;
        const sim::CHostFile* pFile = world.HostFile(strPath);
        EXPECT_TRUE(pFile != nullptr && pFile->ftCreation.dwHighDateTime == CREATED >> 32 &&
                    pFile->ftWrite.dwLowDateTime == static_cast<DWORD>(WRITTEN));
    }

    UINT nDirection;
    HWND window = platform::CreateMessageWindow();
    CStringArray list;
};
