// What the tests of the file transfer share: a job from its start to its message.
#pragma once

#include "platform/message_window.h"
#include "tests/library/library_run.h"

inline constexpr std::uint64_t DRAIN_MS = 4 * FAILED_READ_MS + 3 * 300;
// A push of an empty list: request and acknowledgement, final package and verdict, the reply's two
// reads; and its message behind the drain.
inline constexpr std::uint64_t PUSHED_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS;
inline constexpr std::uint64_t MESSAGE_MS = PUSHED_MS + DRAIN_MS;

// All files of the tests have these times.
inline constexpr std::uint64_t CREATED = 0x0807060504030201;
inline constexpr std::uint64_t WRITTEN = 0x1817161514131211;
inline FILETIME Time(std::uint64_t qwTime) {
    return {static_cast<DWORD>(qwTime), static_cast<DWORD>(qwTime >> 32)};
}
inline Bytes FileRecord(std::basic_string_view<WCHAR> name, const Bytes& bytes) {
    return Record({name, bytes, CREATED, WRITTEN});
}

inline Bytes PullStream(const std::vector<Bytes>& records) {
    Bytes stream = Join(U32(1), U32(static_cast<DWORD>(records.size())));
    for (const Bytes& record : records) {
        stream.insert(stream.end(), record.begin(), record.end());
    }
    return stream;
}

// A job between the folders C:\s of the host and \d of the device. Its words are request, p1 and so
// on for the packages of its stream, and done for a good reply to a push.
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
        world.WriteHostFile(strPath, bytes, Time(CREATED), Time(WRITTEN));
        list.Add(strPath.c_str());
    }

    // Names the packages of a stream, and returns the words for all of it, with an acknowledgement
    // wherever one is due.
    std::string Stream(const Bytes& stream) {
        const auto all = StreamPackages(8, stream, IsPush() ? DAK_PACKAGE : DAK_REPLY_PACKAGE,
                                        IsPush() ? DAK_LAST_PACKAGE : DAK_LAST_REPLY, IsPush());
        std::string strWords;
        for (std::size_t i = 1; i <= all.size(); ++i) {
            const std::string strName = "p" + std::to_string(i);
            packages[strName] = all[i - 1];
            Bytes& abort = packages["a" + std::to_string(i)] = all[i - 1];
            abort.resize(DAK_PACKAGE_SIZE);
            DakPutHeader(abort.data(), DAK_ABORT, 0);
            const bool bDue = i == all.size() || i % 50 == (IsPush() ? 1 : 0);
            strWords += (IsPush() ? ">" : "") + strName + " ";
            strWords += bDue ? IsPush() ? "ack " : ">ack " : "";
        }
        return strWords;
    }
    void PlayWhole(const Bytes& stream) {
        Play(">request ack " + Stream(stream) + (IsPush() ? "done" : ""));
    }

    DWORD Start(const WCHAR* lpszHost = DAK_WIDE("C:\\s"),
                const WCHAR* lpszDevice = DAK_WIDE("\\d")) {
        return IsPush() ? dak->DAKTransmitFiles(nDirection, lpszHost, lpszDevice, &list, window)
                        : dak->DAKTransmitFiles(nDirection, lpszDevice, lpszHost, &list, window);
    }
    void AwaitEnd() {
        const HANDLE hThread = Access::m_hCommitThread(*dak);
        hThread != nullptr ? platform::WaitForSingleObject(hThread, INFINITE) : 0;
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
        world.posted.clear();
        EXPECT_TRUE(message.hWnd == window && message.message == 3028u && message.wParam == 0 &&
                    message.lParam == 0);
        EXPECT_EQ(message.qwMs, qwMs.value_or(message.qwMs));
        EXPECT_EQ(Access::m_dwSizeCopied(*dak), Access::m_dwSizeTotal(*dak));
        // A job that was cut short leaves the link to the next operation.
        EXPECT_EQ(device.OpenNow(), dwErrCode == DAKERROR_CANCELLED && world.IsPlugged() ? 1 : 0);
    }
    void Run(DWORD dwErrCode, std::optional<std::uint64_t> qwMs = {}) {
        EXPECT_EQ(Start(), DAKERROR_NONE);
        ExpectEnd(dwErrCode, qwMs);
        device.Finish();
    }

    UINT nDirection;
    HWND window = platform::CreateMessageWindow();
    CStringArray list;
};
