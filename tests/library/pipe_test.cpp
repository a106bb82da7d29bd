// Transfers on an open pipe, each with its time-out, and what they leave in the trace.

#include "link/debug_trace.h"
#include "tests/library/library_run.h"

namespace {

std::string g_strTrace;

class Pipe : public testing::Test, protected CRun {
  protected:
    Pipe() { Access::OpenDevice(*dak); }
    ~Pipe() override { SetDebugTraceSink(nullptr); }

    void Read(DWORD dwSize, DWORD dwTimeout, DWORD dwExpected, std::uint64_t qwMs) {
        Transfer(dwSize, dwExpected, qwMs, [&] {
            return Access::ReadUSBData(*dak, buffer.data(), dwSize, &dwCount, dwTimeout);
        });
    }
    void Write(DWORD dwSize, DWORD dwExpected, std::uint64_t qwMs) {
        Transfer(dwSize, dwExpected, qwMs,
                 [&] { return Access::WriteUSBData(*dak, buffer.data(), dwSize, &dwCount); });
    }
    void Transfer(DWORD dwSize, DWORD dwExpected, std::uint64_t qwMs,
                  const std::function<int()>& transfer) {
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
    Read(8, 0, 0, 518);
    Read(614400, 3000, 0, 3010);
    Play("hang hang");
    Write(1, 0, 501);
    Write(12288, 0, 12788);
    // The last millisecond counts, and what is stopped loses nothing.
    device.Give(Bytes(20, 1), 310);
    Read(20, 300, 20, 310);
    device.Give(Bytes(20, 2), 311);
    Read(20, 300, 0, 310);
    EXPECT_EQ(buffer[0], 0xEE);
    Read(20, 300, 20, 10);
    device.Expect(Bytes(8, 0xEE));
    Write(8, 8, 0);
    EXPECT_EQ(dak->GetLastError(), 0u);
}

TEST_F(Pipe, PiecesAndFailures) {
    const Bytes package = Pattern(100);
    device.Give(package);
    device.Give(Ack());
    Read(14, 0, 14, 10);
    EXPECT_TRUE(std::equal(package.begin(), package.begin() + 14, buffer.begin()));
    Read(12274, 0, 86, 10);
    EXPECT_TRUE(std::equal(package.begin() + 14, package.end(), buffer.begin()));
    for (const std::string strFault : {"!CreateThread !CreateThread#2", "!ReadPipe !WritePipe"}) {
        Play(strFault);
        Read(8, 0, 0, 10);
        Write(8, 0, 0);
    }
    Read(8, 0, 8, 10);
    device.Give({});
    Read(8, 0, 0, 10); // a transfer of no bytes
    Play("gone@100");
    Read(8, 0, 0, 100); // the unplugged device ends the read
    Write(8, 0, 0);
}

// A transfer that is stopped at its time-out ends as a failed one does, before its caller goes on.
TEST_F(Pipe, TraceOfAStoppedTransfer) {
    SetDebugTraceSink([](const char* lpszLine) { g_strTrace += lpszLine; });
    Read(8, 0, 0, 518);
    const auto low = [](const void* lp) {
        return std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(lp)));
    };
    EXPECT_EQ(g_strTrace,
              "Succeed to ReadUSBThread CreateThread\nReadUSBThread usbApi->m_lpReadBuf = " +
                  low(buffer.data()) +
                  ",usbApi->m_dwSizeIn=8\nReadUSBData TerminateThread\n"
                  "ReadUSBThread return 0;\nerror = 995, usbApi->m_lpdwSizeOut=" +
                  low(&dwCount) + " \n");
    TraceLine("after %s\n", std::string(1000, 'x').c_str());
    EXPECT_TRUE(g_strTrace.ends_with("after " + std::string(253, 'x')));
}

} // namespace
