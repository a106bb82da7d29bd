// What the tests of the file transfer share: a world with a device and an object, the packages of
// both directions, and the times that a job is made of.
#pragma once

#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"
#include "transfer/copy_job.h"

#include "platform/file.h"
#include "platform/message_window.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using Access = CDAKVornTestAccess;
using sim::Ack;
using sim::Bytes;
using sim::Join;
using sim::Text;
using sim::U32;
using sim::U64;

// Of a host that does not tell its speed, with a device that answers at once.
inline constexpr std::uint64_t READ_MS = 10;
inline constexpr std::uint64_t LINK_UP_MS = READ_MS + 300;
inline constexpr std::uint64_t RETRY_BASE_MS = 60;
inline constexpr std::uint64_t FAILED_READ_MS = READ_MS + 508; // of 8 bytes
inline constexpr std::uint64_t FAILED_TRY_MS = FAILED_READ_MS + 500;
inline constexpr std::uint64_t FAILED_HEAD_MS = READ_MS + 514; // of a package's 14 bytes
inline constexpr std::uint64_t DRAIN_MS = 4 * FAILED_READ_MS + 3 * 300;
inline constexpr std::uint64_t READS_AT_MOST = 1201;

inline FILETIME Time(std::uint64_t qwTime) {
    return {static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
}

// The record of a file; all files of the tests have these times.
inline constexpr std::uint64_t CREATED = 0x0807060504030201;
inline constexpr std::uint64_t WRITTEN = 0x1817161514131211;
inline Bytes Record(std::basic_string_view<WCHAR> name, const Bytes& contents,
                    std::optional<std::uint64_t> qwSize = {}) {
    return Join(U64(qwSize.value_or(contents.size())), U64(CREATED), U64(WRITTEN), Text(name),
                contents);
}

class TransferTest : public ::testing::Test {
  protected:
    ~TransferTest() override {
        dak.reset();
        EXPECT_EQ(world.LiveThreads(), 0);
        EXPECT_EQ(world.Open(), std::vector<std::string>{});
        EXPECT_EQ(g_bAbortPending, FALSE);
    }

    void AddFile(const std::string& strPath, Bytes bytes) {
        world.WriteHostFile(strPath, std::move(bytes), Time(CREATED), Time(WRITTEN));
        list.Add(strPath.c_str());
    }

    // Starts a job; the folders are \d and C:\s.
    DWORD Push() {
        return dak->DAKTransmitFiles(DAK_TO_DEVICE, DAK_WIDE("C:\\s"), DAK_WIDE("\\d"), &list,
                                     window);
    }
    DWORD Pull() {
        return dak->DAKTransmitFiles(DAK_FROM_DEVICE, DAK_WIDE("\\d"), DAK_WIDE("C:\\s"), &list,
                                     window);
    }

    // Waits for the worker's end.
    void AwaitEnd() {
        const HANDLE hThread = Access::m_hCommitThread(*dak);
        if (hThread != nullptr) {
            platform::WaitForSingleObject(hThread, INFINITE);
        }
        while (world.LiveThreads() != 0 && !world.HasFailed()) {
            platform::Sleep(100);
        }
    }

    // Waits for the worker's end. The message must have come once, at that time if one is given.
    void ExpectEnd(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        AwaitEnd();
        EXPECT_EQ(dak->GetLastError(), dwErrCode);
        EXPECT_EQ(dak->IsTransmitting(), FALSE);
        ASSERT_EQ(world.posted.size(), 1u);
        const sim::CPostedMessage message = world.posted[0];
        world.posted.clear();
        EXPECT_EQ(message.hWnd, window);
        EXPECT_EQ(message.message, 3028u);
        EXPECT_EQ(message.wParam, 0u);
        EXPECT_EQ(message.lParam, 0);
        if (qwMs) {
            EXPECT_EQ(message.qwMs, *qwMs);
        }
        EXPECT_EQ(Access::m_dwSizeCopied(*dak), Access::m_dwSizeTotal(*dak));
        // A job that was cut short leaves the link to the next operation.
        EXPECT_EQ(device.OpenNow(), dwErrCode == DAKERROR_CANCELLED && world.IsPlugged() ? 1 : 0);
    }

    // A job from start to end: the device's script is done, and what was made to fail works again.
    // qwMs counts from here.
    void RunPush(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        Run(&TransferTest::Push, dwErrCode, qwMs);
    }
    void RunPull(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        Run(&TransferTest::Pull, dwErrCode, qwMs);
    }
    void Run(DWORD (TransferTest::*start)(), DWORD dwErrCode, std::optional<std::uint64_t> qwMs) {
        const std::uint64_t qwBegin = world.NowMs();
        EXPECT_EQ((this->*start)(), DAKERROR_NONE);
        ExpectEnd(dwErrCode, qwMs ? std::optional(qwBegin + *qwMs) : qwMs);
        device.Finish();
        world.dwFailAllocationsOf = 0;
        world.ClearFaults();
        if (!world.IsPlugged()) {
            world.Plug(device);
        }
    }

    // Clears the word that cancels, as TerminateTransfer does, and no more than that.
    void CancelAt(std::uint64_t qwMs) {
        world.At(qwMs, [this] { StoreShared(Access::m_bCopying(*dak), BOOL{0}); });
    }

    // To the device.

    sim::CScriptedDevice& ExpectPush() {
        return device.ExpectCommand(8, Bytes{DAK_TO_DEVICE}, Text(DAK_WIDE("C:\\s")),
                                    Text(DAK_WIDE("\\d")));
    }
    static std::vector<Bytes> PushPackages(const Bytes& stream) {
        return sim::StreamPackages(8, stream, DAK_PACKAGE, DAK_LAST_PACKAGE, true);
    }
    // The packages of a stream, with a verdict where one is due.
    void ExpectStream(const Bytes& stream) {
        const auto packages = PushPackages(stream);
        for (std::size_t i = 0; i < packages.size(); ++i) {
            device.Expect(packages[i]);
            if (i % 50 == 0 || i + 1 == packages.size()) {
                device.Reply(Ack());
            }
        }
    }
    // A push that goes through.
    void ExpectWholePush(const Bytes& stream) {
        ExpectPush().Reply(Ack());
        ExpectStream(stream);
        device.Reply(sim::Response(8, 1));
    }

    // From the device.

    sim::CScriptedDevice& ExpectPull(const Bytes& names = {}) {
        return device.ExpectCommand(8, Bytes{DAK_FROM_DEVICE}, Text(DAK_WIDE("\\d")),
                                    Text(DAK_WIDE("C:\\s")),
                                    U32(static_cast<std::uint32_t>(list.GetSize())), names);
    }
    static std::vector<Bytes> PullPackages(const Bytes& stream) {
        return sim::StreamPackages(8, stream, DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false);
    }
    // Gives a stream, and expects the host's acknowledgements.
    void GiveStream(const Bytes& stream) {
        const auto packages = PullPackages(stream);
        for (std::size_t i = 1; i <= packages.size(); ++i) {
            device.Reply(packages[i - 1]);
            if (i % 50 == 0 || i == packages.size()) {
                device.Expect(Ack());
            }
        }
    }
    // A stream of as many records as it announces.
    template <class... TRecords>
    static Bytes Stream(const TRecords&... records) {
        return Join(U32(1), U32(sizeof...(records)), records...);
    }

    sim::CWorld world;
    sim::CScriptedDevice device{world};
    HWND window = platform::CreateMessageWindow();
    std::optional<CDAKVorn> dak{std::in_place};
    CStringArray list;
};
