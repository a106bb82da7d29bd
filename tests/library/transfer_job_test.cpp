// The job around a copy: start, watching, cutting short, end.

#include "tests/library/library_run.h"

namespace {

// A push of an empty list: request and acknowledgement, final package and verdict, the reply's two
// reads; its message behind the drain, and then the closing.
constexpr std::uint64_t PUSHED_MS =
    LINK_UP_MS + READ_MS + RETRY_BASE_MS + READ_MS + RETRY_BASE_MS + 2 * READ_MS;
constexpr std::uint64_t MESSAGE_MS = PUSHED_MS + DRAIN_MS;
constexpr std::uint64_t CLOSED_MS = MESSAGE_MS + READ_MS;

// The word name=qwNumber.
std::string Is(const std::string& strName, std::uint64_t qwNumber) {
    return " " + strName + "=" + std::to_string(qwNumber) + " ";
}

struct CPush : CTransfer {
    explicit CPush(const std::string& strName = {}) : CTransfer(DAK_TO_DEVICE, strName) {
        world.bTrace = false;
        LayRecords();
        packages["zero"] = Response(8, 0);
        packages["bytes8"] = Bytes(8);
        packages["bytes800"] = Bytes(800);
        actions["file"] = [this] { // is what the job copies
            AddFile("C:\\s\\b\\a", Pattern(20'000));
            LayRecords(FileRecord(DAK_WIDE("b\\a"), Pattern(20'000)));
        };
        actions["slow"] = [this] {
            world.onFileRead = [](sim::CFileRead&) { platform::Sleep(5000); };
        };
    }
    // What the application does and sees, in words: @5 sleeps until 5 ms of the world's clock;
    // name=1 does that and must get that number, or a result by its name.
    void Do(const std::string& strWords) {
        static const std::map<std::string, std::uint64_t> results = {{"ok", 0},
                                                                     {"fail", FAIL},
                                                                     {"busy", DAKERROR_BUSY},
                                                                     {"gone", GONE},
                                                                     {"cancelled", CANCELLED}};
        std::istringstream words(strWords);
        for (std::string strWord; words >> strWord;) {
            const auto nMark = std::min(strWord.find('='), strWord.size());
            if (strWord[0] == '@') {
                platform::Sleep(static_cast<DWORD>(std::stoul(strWord.substr(1)) - world.NowMs()));
                continue;
            }
            const std::uint64_t qwGot = m_calls.at(strWord.substr(0, nMark))();
            const std::string strValue = strWord.substr(std::min(nMark + 1, strWord.size()));
            EXPECT_TRUE(strValue.empty() ||
                        qwGot == (results.contains(strValue) ? results.at(strValue)
                                                             : std::stoull(strValue)))
                << strWord << ", not " << qwGot;
        }
    }
    // What GetCopyStatus stores; nothing where there is no job.
    std::string Status() {
        char szSource[270] = "";
        char szDest[270] = "";
        DWORD dwTotal = 5;
        DWORD dwCopied = 6;
        int nPercent = 7;
        dak->GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
        return (testing::Message() << szSource << ' ' << szDest << ' ' << dwTotal << ' ' << dwCopied
                                   << ' ' << nPercent)
            .GetString();
    }

  private:
    std::uint64_t Ended() {
        AwaitEnd();
        ExpectEnd(dak->GetLastError());
        return dak->GetLastError();
    }
    std::uint64_t Message() {
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(window, INFINITE, &message));
        return world.NowMs();
    }
    std::uint64_t Buffers() const {
        return static_cast<std::uint64_t>(
            std::ranges::count(world.Open(), "memory block of 1310720 bytes"));
    }
    CDAKVorn& Other() { return m_other ? *m_other : m_other.emplace(); }

    std::optional<CDAKVorn> m_other;
    const std::map<std::string, std::function<std::uint64_t()>> m_calls = {
        {"start", [this] { return Start(); }},
        {"connect", [this] { return dak->ConnectDevice(); }},
        {"delete", [this] { return dak->DAKDeleteFile(DAK_WIDE("\\a")); }},
        {"terminate", [this] { return dak->TerminateTransfer(), 0; }},
        {"destroy", [this] { return dak.reset(), 0; }},
        {"other.connect", [this] { return Other().ConnectDevice(); }},
        // Those need no link.
        {"refuse", [this] { return dak->DAKDeleteFile(nullptr); }},
        {"nothing", [this] { return dak->DAKGetDeviceFreeSpace(nullptr, nullptr); }},
        {"state", [this] { return dak->GetLastError(); }},
        {"other.refuse", [this] { return Other().DAKDeleteFile(nullptr); }},
        {"other.start",
         [this] {
             return Other().DAKTransmitFiles(1, DAK_WIDE(""), DAK_WIDE(""), &list, nullptr);
         }},
        {"other.state", [this] { return Other().GetLastError(); }},
        {"other.terminate", [this] { return Other().TerminateTransfer(), 0; }},
        {"other.destroy", [this] { return m_other.reset(), 0; }},
        {"replug",
         [this] {
             world.OtherProcessClosesLock("NadoxUSBAPI");
             return world.Plug(device), 0;
         }},
        {"nowindow", [this] { return window = nullptr, 0; }},
        {"worker", [this] { return AwaitEnd(), 0; }}, // has ended
        {"end", [this] { return Ended(); }},          // with its one message
        {"message", [this] { return Message(); }},    // comes at that time
        {"now", [this] { return world.NowMs(); }},
        {"running", [this] { return static_cast<std::uint64_t>(dak->IsTransmitting()); }},
        {"threads", [this] { return static_cast<std::uint64_t>(world.LiveThreads()); }},
        {"posted", [this] { return world.posted.size(); }},
        {"buffers", [this] { return Buffers(); }}, // of the file that is read ahead
        {"open", [this] { return static_cast<std::uint64_t>(device.OpenNow()); }},
        {"opens", [this] { return static_cast<std::uint64_t>(device.Opens()); }},
        {"lock", [] { return IsHandleOpen(g_hDeviceMutex) ? 1u : 0u; }},
        // The handshake behind the job's first, its time and that of the third.
        {"handshakes", [this] { return device.Handshakes().size(); }},
        {"second", [this] { return device.Handshakes()[1].qwMs; }},
        {"third", [this] { return device.Handshakes()[2].qwMs; }},
        {"disconnects", [this] {
             return DakGetU32(device.Handshakes()[1].bytes.data()) == DAK_DISCONNECT ? 1u : 0u;
         }}};
};

TEST(TransferJob, RefusedArgumentsTouchNothing) {
    CPush run;
    const WideText strLong(260, DAK_WIDE('x'));
    const Rows<UINT, const WCHAR*, const WCHAR*, CStringArray*> rows = {
        {2, DAK_WIDE("a"), DAK_WIDE("b"), &run.list},
        {1, nullptr, DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), nullptr, &run.list},
        {1, DAK_WIDE("a"), DAK_WIDE("b"), nullptr},
        {1, strLong.c_str(), DAK_WIDE("b"), &run.list},
        {0, DAK_WIDE("a"), strLong.c_str(), &run.list}};
    // A long debug log goes ahead of everything else.
    for (const std::uint64_t qwSize : {5'242'880ull, (1ull << 32) + 7, 5'242'881ull}) {
        run.world.WriteHostFile("C:/DAKDebug.txt", {});
        run.world.HostFile("C:/DAKDebug.txt")->qwReportedSize = qwSize;
        for (const auto& [nDirection, lpSource, lpDest, pList] : rows) {
            EXPECT_EQ(run.dak->DAKTransmitFiles(nDirection, lpSource, lpDest, pList, run.window),
                      FAIL);
            EXPECT_TRUE(run.dak->GetLastError() == FAIL && !run.dak->IsTransmitting());
        }
        EXPECT_EQ(run.world.HostFileExists("C:/DAKDebug.txt"), qwSize != 5'242'881);
    }
    EXPECT_EQ(run.world.CallCount(ECall::CreateMutexA), 0u);
    run.LayRequest(strLong.c_str() + 1, DAK_WIDE(""));
    run.Play(">request abort");
    EXPECT_EQ(run.Start(strLong.c_str() + 1, DAK_WIDE("")), DAKERROR_NONE);
    run.ExpectEnd(FAIL);
    _tagCommitParam param{DAK_COPY_FILES, nullptr, nullptr, 0};
    EXPECT_EQ(CDAKVorn::Commit_Thread(nullptr), static_cast<DWORD>(-1));
    EXPECT_EQ(CDAKVorn::Commit_Thread(&param), static_cast<DWORD>(-1));
}

// What the application does against a device of these words.
TEST(TransferJob, ConversationsOfTheApplication) {
    const std::string strClosed = Is("second", MESSAGE_MS) + Is("third", CLOSED_MS);
    const std::string strCancel = "start @510 terminate end=cancelled lock=1 ";
    const Rows<std::string, std::string> rows = {
        // One that cannot start leaves nothing open.
        {"other whole", "start=busy running=0 open=0 replug start=ok end=ok"},
        {"gone whole", "start=gone running=0 open=0 replug start=ok end=ok"},
        {"!LocalAlloc#2 whole", "start=fail running=0 open=0 start=ok end=ok"},
        {"!LocalAlloc#3 whole", "start=fail running=0 open=0 start=ok end=ok"},
        {"!CreateThread#3 whole", "start=fail running=0 open=0 start=ok end=ok"},
        // The message comes once, ahead of the closing; who answers it with a job or an operation
        // waits for that. The drain ends with a read that fails, and not before the fourth.
        {"whole whole", "start now=310 running=1" + Is("message", MESSAGE_MS) +
                            "start=ok worker posted=2" + strClosed},
        {"whole", "start" + Is("message", MESSAGE_MS) + "connect=ok worker posted=1" + strClosed},
        {"whole bytes8",
         "start" + Is("message", PUSHED_MS + READ_MS + 3 * FAILED_READ_MS + 2 * 300) + "end=ok"},
        {"whole bytes800",
         "start" + Is("message", PUSHED_MS + 100 * READ_MS + FAILED_READ_MS) + "end=ok"},
        // A cancel waits two seconds for the worker, here to its closing.
        {"whole", In("start ", CLOSED_MS - 1999) + " terminate running=0" + Is("now", CLOSED_MS) +
                      "end=ok handshakes=2" + Is("second", MESSAGE_MS)},
        {"whole", In("start ", CLOSED_MS - READ_MS - 2001) + " terminate running=0" +
                      Is("now", CLOSED_MS - READ_MS - 1) + "end=cancelled handshakes=1"},
        // The read-ahead buffer belongs to a worker that reads from it, also when the caller has
        // given up; and nobody waits for such a one.
        {"slow file open >a1", "start @1000 terminate buffers=2 posted=0 other.connect=busy "
                               "delete=busy now=3000 other.destroy end=cancelled buffers=0"},
        {"slow file open >a1", "start @1000 destroy threads=0 buffers=0 posted=1"},
        // Objects share the link and nothing else; any other operation waits for the worker's end.
        {"whole", "start other.terminate running=1 other.destroy other.connect=ok" +
                      Is("now", CLOSED_MS + LINK_UP_MS + READ_MS) + "end=ok"},
        // What can be refused or answered without the link is so at once. Of the object with the
        // job the result tells, for its state is the job's.
        {"whole", "start start=busy refuse=fail nothing=ok state=fail running=1 other.start=busy "
                  "other.state=busy other.refuse=fail other.state=fail now=310 end=ok"},
        // What a cancelled job leaves is taken over by the next operation, an object made in
        // between, which leaves the first one's node, or the object's end.
        {"open >p1 ack@600 zero", strCancel + "connect=ok open=0 opens=1 disconnects=1"},
        {"open >p1 ack@600 zero",
         strCancel + "other.connect=ok open=1 connect=ok open=0 opens=2 disconnects=0"},
        {"open >p1 ack@600 zero", strCancel + "destroy open=0 opens=1 disconnects=1"},
        // Without a window the job counts as running until it is ended.
        {"whole >request abort", "nowindow start worker open=0 running=1 terminate terminate "
                                 "running=0 start worker posted=0 terminate"}};
    for (const auto& [strDevice, strHost] : rows) {
        CPush run(strDevice + " / " + strHost);
        run.Play(strDevice);
        run.Do(strHost);
    }
}

TEST(TransferJob, CopyStatusShowsTheCurrentFile) {
    const Rows<std::uint64_t, std::uint64_t, std::string> rows = {
        {100, 29, "  100 29 28"},
        {100, 101, "  100 101 0"},
        {0, 0, "  0 0 0"},
        {0xFFFFFFFF, 0xC0000000, "  4294967295 3221225472 75"},
        {0xA00000005, 0xB00000001, "  5 1 20"}};
    CPush run;
    for (const auto& [qwTotal, qwCopied, strStatus] : rows) {
        Access::Copying(*run.dak) = 1;
        Access::SizeTotal(*run.dak) = qwTotal;
        Access::SizeCopied(*run.dak) = qwCopied;
        EXPECT_EQ(run.Status(), strStatus);
    }
    run.Cancel();
    // Bytes count once their package has gone out whole, the verdict on it included. A path that
    // is longer than what shows it is cut.
    const std::string strLong(260, 'x');
    run.Play("file");
    run.list.Add(strLong.c_str());
    run.LayRecords(FileRecord(DAK_WIDE("b\\a"), Pattern(20'000)));
    run.Play("open >p1 ack@400 >p2 ack@400 done");
    run.Do("nowindow start @600");
    EXPECT_EQ(run.Status(), "C:\\s\\b\\a \\d\\b\\a 20000 0 0");
    run.Do("@1000");
    EXPECT_EQ(run.Status(), strLong.substr(1) + " \\d\\b\\a 0 0 0");
    run.Do("worker terminate");
    EXPECT_EQ(run.Status(), "  5 6 7");
}

// Both wait for an operation; the one that starts first makes the other a further job.
TEST(TransferJob, OfTwoJobsThatWaitTheSecondIsRefused) {
    CPush run;
    CDAKVorn other;
    run.Play("whole");
    const auto threads = {
        run.world.Spawn([&] { other.ConnectDevice(); }), run.world.Spawn([&] { run.Do("start"); }),
        run.world.Spawn([&] {
            EXPECT_EQ(other.DAKTransmitFiles(1, DAK_WIDE(""), DAK_WIDE(""), &run.list, nullptr),
                      DAKERROR_BUSY);
            EXPECT_EQ(run.world.NowMs(), 2 * LINK_UP_MS + READ_MS);
        })};
    std::ranges::for_each(threads, [&](HANDLE hThread) { run.world.Join(hThread); });
    run.ExpectEnd(DAKERROR_NONE, LINK_UP_MS + READ_MS + MESSAGE_MS);
}

} // namespace
