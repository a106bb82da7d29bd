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

// A transfer that goes well, one that is stopped at its time-out, one that fails, and one that no
// thread can be had for. A stopped one ends as a failed one does, before its caller goes on.
TEST_F(Pipe, TraceLines) {
    SetDebugTraceSink([](const char* lpszLine) { g_strTrace += lpszLine; });
    const auto low = [](const void* lp) {
        return std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(lp)));
    };
    BYTE bytes[8] = {0x00, 0xE0};
    for (const bool bRead : {false, true}) {
        const auto lines = [&](const std::string& strWords) {
            Play(strWords);
            g_strTrace.clear();
            bRead ? Access::ReadUSBData(*dak, bytes, DWORD{8}, &dwCount, DWORD{0})
                  : Access::WriteUSBData(*dak, bytes, DWORD{8}, &dwCount);
            return g_strTrace;
        };
        const std::string strThread = bRead ? "ReadUSBThread" : "WriteUSBThread";
        const std::string strCall = bRead ? "ReadUSBData" : "WriteUSBData";
        const std::string strMade = (bRead ? strThread : strCall) + " CreateThread\n";
        const std::string strBegin = "Succeed to " + strMade + strThread + " usbApi->m_lp" +
                                     strCall.substr(0, strCall.find('U')) + "Buf = " + low(bytes) +
                                     ",usbApi->m_dwSizeIn=8\n";
        const auto failed = [&](const std::string& strError) {
            return strThread + " return 0;\nerror = " + strError +
                   ", usbApi->m_lpdwSizeOut=" + (bRead ? "" : " ") + low(&dwCount) +
                   (bRead ? " \n" : "\n");
        };
        EXPECT_EQ(lines(bRead ? "ack" : ">ack"),
                  strBegin + (bRead ? "Succeed read. read" : "Succeed write. write") +
                      " size = 8\n");
        EXPECT_EQ(lines(bRead ? "" : "hang"),
                  strBegin + strCall + " TerminateThread\n" + failed("995"));
        EXPECT_EQ(lines(bRead ? "!ReadPipe#1=31" : "!WritePipe#1=31"), strBegin + failed("31"));
        EXPECT_EQ(lines("!CreateThread"), "Fail to " + strMade);
    }
    TraceLine("after %s\n", std::string(1000, 'x').c_str());
    EXPECT_TRUE(g_strTrace.ends_with("after " + std::string(253, 'x')));
}

} // namespace
