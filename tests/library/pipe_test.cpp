// Transfers on an open pipe, each with its time-out, and what they leave in the trace.

#include "link/debug_trace.h"
#include "tests/library/library_run.h"

namespace {

class Pipe : public testing::Test, protected CRun {
  protected:
    Pipe() { Access::OpenDevice(*dak); }
    ~Pipe() override { Access::DeInitial(*dak); }

    void Read(DWORD dwSize, DWORD dwTimeout, DWORD dwExpected, std::uint64_t qwMs) {
        Transfer(dwSize, dwExpected, qwMs, [&] {
            return Access::ReadUSBData(*dak, buffer.data(), dwSize, &dwCount, dwTimeout);
        });
    }
    void Write(DWORD dwSize, DWORD dwExpected, std::uint64_t qwMs) {
        Transfer(dwSize, dwExpected, qwMs,
                 [&] { return Access::WriteUSBData(*dak, buffer.data(), dwSize, &dwCount); });
    }
    template <class TTransfer>
    void Transfer(DWORD dwSize, DWORD dwExpected, std::uint64_t qwMs, TTransfer&& transfer) {
        buffer.assign(dwSize + 1, 0xEE);
        dwCount = 77;
        const std::uint64_t qwBegin = world.NowMs();
        EXPECT_EQ(transfer() != 0, dwExpected > 0 || dwSize == 0);
        EXPECT_EQ(dwCount, dwExpected);
        EXPECT_EQ(world.NowMs() - qwBegin, qwMs);
        EXPECT_EQ(world.LiveThreads(), 0);
    }

    DWORD dwCount = 0;
    Bytes buffer;
};

TEST_F(Pipe, TimeOuts) {
    Read(0, 0, 0, 0); // nothing asked for, nothing started
    Write(0, 0, 0);
    EXPECT_EQ(world.CallCount(ECall::CreateThread), 0u);
    Read(20, 300, 0, 310);
    Read(8, 0, 0, 518);
    Read(1250, 0, 0, 1760);
    Read(614400, 3000, 0, 3010);
    for (const DWORD dwSize : {1u, 20u, 12288u}) {
        device.DoNotTake();
        Write(dwSize, 0, dwSize + 500);
    }
    EXPECT_EQ(dak->GetLastError(), 0u);
    EXPECT_NE(Access::m_hDevice(*dak), INVALID_HANDLE_VALUE);
}

TEST_F(Pipe, TheLastMillisecondCountsAndAStoppedTransferLosesNothing) {
    device.Give(Bytes(20, 1), 310);
    Read(20, 300, 20, 310);
    device.Give(Bytes(20, 2), 311);
    Read(20, 300, 0, 310);
    EXPECT_EQ(buffer[0], 0xEE);
    Read(20, 300, 20, 10);
    EXPECT_EQ(buffer[0], 2);
    device.DoNotTake();
    Write(8, 0, 508);
    device.Expect(Bytes(8, 0xEE));
    Write(8, 8, 0);
}

TEST_F(Pipe, ShortReadsAndPiecesOfAPackage) {
    device.Give(Ack());
    Read(12288, 0, 8, 10);
    const Bytes package = Pattern(100);
    device.Give(package);
    device.Give(Ack());
    Read(14, 0, 14, 10);
    EXPECT_TRUE(std::equal(package.begin(), package.begin() + 14, buffer.begin()));
    Read(12274, 0, 86, 10);
    EXPECT_TRUE(std::equal(package.begin() + 14, package.end(), buffer.begin()));
    device.Drop();
    device.Give({});
    Read(8, 0, 0, 10); // a transfer of no bytes
}

TEST_F(Pipe, FailedTransfers) {
    device.Give(Ack());
    world.FailCall(ECall::CreateThread, 1, 0, 2);
    Read(8, 0, 0, 10);
    Write(8, 0, 0);
    Play("!ReadPipe !WritePipe");
    Read(8, 0, 0, 10);
    Write(8, 0, 0);
    Read(8, 0, 8, 10);
    Play("gone@100");
    Read(8, 0, 0, 100); // the unplugged device ends the read
    Read(8, 0, 0, 10);
    Write(8, 0, 0);
}

std::string g_strTrace;

// A transfer that goes well, one that is stopped at its time-out, one that fails, and one that no
// thread can be had for. A stopped one ends as a failed one does, before its caller goes on.
TEST_F(Pipe, TraceLines) {
    SetDebugTraceSink([](const char* lpszLine) { g_strTrace += lpszLine; });
    const auto low = [](const void* lp) {
        return std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(lp)));
    };
    BYTE bytes[8] = {0x00, 0xE0};
    device.Expect(Ack());
    for (const bool bRead : {false, true}) {
        const auto lines = [&] {
            g_strTrace.clear();
            bRead ? Access::ReadUSBData(*dak, bytes, DWORD{8}, &dwCount, DWORD{0})
                  : Access::WriteUSBData(*dak, bytes, DWORD{8}, &dwCount);
            return g_strTrace;
        };
        const std::string strThread = bRead ? "ReadUSBThread" : "WriteUSBThread";
        const std::string strCall = bRead ? "ReadUSBData" : "WriteUSBData";
        const std::string strMade = (bRead ? strThread : strCall) + " CreateThread\n";
        const std::string strBegin =
            "Succeed to " + strMade + strThread +
            (bRead ? " usbApi->m_lpReadBuf = " : " usbApi->m_lpWriteBuf = ") + low(bytes) +
            ",usbApi->m_dwSizeIn=8\n";
        const auto failed = [&](int nError) {
            return strThread + " return 0;\nerror = " + std::to_string(nError) +
                   (bRead ? ", usbApi->m_lpdwSizeOut=" : ", usbApi->m_lpdwSizeOut= ") +
                   low(&dwCount) + (bRead ? " \n" : "\n");
        };
        bRead ? device.Give(Ack()) : void();
        EXPECT_EQ(lines(), strBegin + (bRead ? "Succeed read. read" : "Succeed write. write") +
                               " size = 8\n");
        bRead ? device.Drop() : static_cast<void>(device.DoNotTake());
        EXPECT_EQ(lines(), strBegin + strCall + " TerminateThread\n" + failed(995));
        world.FailCall(bRead ? ECall::ReadPipe : ECall::WritePipe, 1, 31);
        EXPECT_EQ(lines(), strBegin + failed(31));
        world.FailCall(ECall::CreateThread, 1);
        EXPECT_EQ(lines(), "Fail to " + strMade);
    }

    // The lines of a command stand around those of its transfers.
    SetDebugTraceSink([](const char* lpszLine) {
        const std::string_view line = lpszLine;
        if (line.starts_with("before") || line.starts_with("after") || line.starts_with("read ")) {
            g_strTrace += line;
        }
    });
    g_strTrace.clear();
    device.ExpectCommand(DAK_FUNC_MOVE_FILE, Text(DAK_WIDE("\\a")), Text(DAK_WIDE("b")));
    device.Reply(Ack()).Reply(Response(DAK_FUNC_MOVE_FILE, 1));
    EXPECT_EQ(dak->DAKMoveFile(DAK_WIDE("\\a"), DAK_WIDE("b")), 0u);
    TraceLine("after %s\n", std::string(1000, 'x').c_str());
    SetDebugTraceSink(nullptr);
    TraceLine("after all, nowhere\n");
    EXPECT_EQ(g_strTrace, "before send codeFunc=1, packageLength=20\n"
                          "after send codeFunc=1, packageLength=20, dwReadBytes=20\n"
                          "after read dwReadBytes=8\nread pass\nafter " +
                              std::string(253, 'x'));
}

} // namespace
