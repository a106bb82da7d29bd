// What the tests of the file transfer share: a job from its start to its message.
#pragma once

#include "platform/message_window.h"
#include "tests/library/library_run.h"

inline constexpr std::uint64_t DRAIN_MS = 4 * FAILED_READ_MS + 3 * 300;

// All files of the tests have these times.
inline constexpr std::uint64_t CREATED = 0x0807060504030201;
inline constexpr std::uint64_t WRITTEN = 0x1817161514131211;
inline Bytes FileRecord(std::basic_string_view<WCHAR> name, const Bytes& bytes) {
    return Record({name, bytes, CREATED, WRITTEN});
}
// The stream of a pull that brings these records.
template <class... TRecords>
Bytes Records(const TRecords&... records) {
    return Join(U32(1), U32(sizeof...(records)), records...);
}

// A job between the folders C:\s of the host and \d of the device. Its words are request, those of
// its stream, and done for a good reply to a push.
struct CTransfer : CRun {
    explicit CTransfer(UINT uDirection, const std::string& strName = {})
        : CRun(strName), nDirection(uDirection) {
        world.MakeHostFolder("C:/s");
        packages["done"] = Response(8, 1);
        packages["request"] =
            IsPush() ? Command(8, Bytes{1}, Text(DAK_WIDE("C:\\s")), Text(DAK_WIDE("\\d")))
                     : Command(8, Bytes{0}, Text(DAK_WIDE("\\d")), Text(DAK_WIDE("C:\\s")), U32(0));
    }
    bool IsPush() const { return nDirection == DAK_TO_DEVICE; }
    void AddFile(const std::string& strPath, const Bytes& bytes) {
        world.WriteHostFile(strPath, bytes, {0x04030201, 0x08070605}, {0x14131211, 0x18171615});
        list.Add(strPath.c_str());
    }
    std::string Stream(const Bytes& stream) { return CRun::Stream(8, stream, IsPush(), IsPush()); }
    void PlayWhole(const Bytes& stream) {
        Play(">request ack " + Stream(stream) + (IsPush() ? "done" : ""));
    }

    DWORD Start(const WCHAR* lpszHost = DAK_WIDE("C:\\s"),
                const WCHAR* lpszDevice = DAK_WIDE("\\d")) {
        return dak->DAKTransmitFiles(nDirection, IsPush() ? lpszHost : lpszDevice,
                                     IsPush() ? lpszDevice : lpszHost, &list, window);
    }
    void AwaitEnd() {
        platform::WaitForSingleObject(Access::m_hCommitThread(*dak), INFINITE);
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
        EXPECT_EQ(Access::m_dwSizeCopied(*dak), Access::m_dwSizeTotal(*dak));
        EXPECT_STREQ(Access::m_szPartPath(*dak), "") << "nobody may delete what bears it later";
        // A job that was cut short leaves the link to the next operation.
        EXPECT_EQ(device.OpenNow(), dwErrCode == DAKERROR_CANCELLED && world.IsPlugged() ? 1 : 0);
    }
    void Run(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        EXPECT_EQ(Start(), DAKERROR_NONE);
        ExpectEnd(dwErrCode, qwMs);
    }

    UINT nDirection;
    HWND window = platform::CreateMessageWindow();
    CStringArray list;
};
