// What the tests of the library share: a world with a device and an object, the device's part as a
// line of words, and the times that operations are made of.
#pragma once

#include "link/device_connection.h"
#include "platform/thread.h"
#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"
#include "transfer/copy_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using Access = CDAKVornTestAccess;
using namespace test;
using sim::ECall;

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
inline constexpr std::uint64_t FAILED_HEAD_TRY_MS = READ_MS + 514 + 500; // a data package's head
inline constexpr std::uint64_t READS_AT_MOST = 1201;

// A table, whose columns get their names where it is walked through.
template <class... TColumns>
using Rows = std::vector<std::tuple<TColumns...>>;

inline std::string Times(int nTimes, const std::string& strWords) {
    std::string strAll;
    for (; nTimes > 0; --nTimes) {
        strAll += strWords + " ";
    }
    return strAll;
}
// The word name@qwMs.
inline std::string In(const std::string& strName, std::uint64_t qwMs) {
    return strName + "@" + std::to_string(qwMs);
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
    CRun(const CRun&) = delete;
    CRun& operator=(const CRun&) = delete;

    void Cancel() { StoreShared(Access::m_bCopying(*dak), BOOL{0}); }

    // Adds to the device's script, a step for each word:
    //     name       gives that package
    //     name@5     gives it 5 ms later
    //     >name      takes that package, and no other one
    //     >name@5    takes it, at 5 ms of the world's clock
    //     >          takes any package
    //     hang       the next write hangs until the host stops it
    //     gone       goes away; gone@5 in 5 ms; gone?2 when it is asked for the second time
    //     cancel     what TerminateTransfer tells a running stream; cancel@5 in 5 ms
    //     linked     answers the host's first handshake, so that what follows waits for it
    //     !Call      the next such call of the host fails; !Call#2=112 the one behind it, with
    //     error 112 3*word     the word three times
    //     -12288     the host gets no memory of that many bytes
    // An action's name runs it.
    void Play(const std::string& strWords) {
        std::istringstream words(strWords);
        for (std::string strWord; words >> strWord;) {
            const auto nStar = strWord.find('*'); // npos + 1 is 0
            for (int i = nStar == std::string::npos ? 1 : std::stoi(strWord); i > 0; --i) {
                PlayWord(strWord.substr(nStar + 1));
            }
        }
    }

    // Names the packages of a stream: p1, p2 and so on; s2 is p2 as the host sends it again, in
    // full, and a2 as it tells of a cancel. Returns the words for all of it, with an
    // acknowledgement wherever one is due.
    std::string Stream(std::uint16_t codeFunc, const Bytes& stream, bool bPush, bool bEmptyLast) {
        const auto all = StreamPackages(codeFunc, stream, bPush ? DAK_PACKAGE : DAK_REPLY_PACKAGE,
                                        bPush ? DAK_LAST_PACKAGE : DAK_LAST_REPLY, bEmptyLast);
        std::string strWords;
        for (std::size_t i = 1; i <= all.size(); ++i) {
            const std::string strNumber = std::to_string(i);
            Bytes slot = packages["p" + strNumber] = all[i - 1];
            slot.resize(DAK_PACKAGE_SIZE);
            packages["s" + strNumber] = slot;
            DakPutHeader(slot.data(), DAK_ABORT, 0);
            packages["a" + strNumber] = slot;
            strWords += (bPush ? ">p" : "p") + strNumber + " ";
            if (i == all.size() || i % 50 == (bPush ? 1 : 0)) {
                strWords += bPush ? "ack " : ">ack ";
            }
        }
        return strWords;
    }

    testing::ScopedTrace trace;
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    std::optional<CDAKVorn> dak{std::in_place};
    std::map<std::string, Bytes> packages{{"ack", Ack()},
                                          {"retransmit", Control(DAK_RETRANSMIT)},
                                          {"abort", Control(DAK_ABORT)},
                                          {"connect", Handshake(DAK_CONNECT)},
                                          {"disconnect", Handshake(DAK_DISCONNECT)}};
    std::map<std::string, std::function<void()>> actions;

  private:
    void PlayWord(const std::string& strWord) {
        char szName[40] = "";
        char chMark = 0;
        unsigned long long qwNumber = 0;
        DWORD dwError = 0;
        std::sscanf(strWord.c_str(), "%39[^@?#]%c%llu=%u", szName, &chMark, &qwNumber, &dwError);
        const std::string strName = szName;
        if (actions.contains(strName)) {
            device.Do(actions[strName]);
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
                           : device.Expect(packages.at(strName.substr(1)));
            chMark == '@' ? device.At(qwNumber) : device;
        } else {
            device.ReplyAfter(qwNumber, packages.at(strName));
        }
    }
};
