// The library as an application meets it: the shared object, its public headers, an agent's process
// at the other end.
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/end_to_end/processes.h"

#include <poll.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace end_to_end {
namespace {

std::string OutputOf(const std::string& strCommand) {
    std::string strOutput;
    FILE* const pPipe = ::popen(strCommand.c_str(), "r");
    std::array<char, 4096> buffer{};
    while (const std::size_t nBytes = std::fread(buffer.data(), 1, buffer.size(), pPipe)) {
        strOutput.append(buffer.data(), nBytes);
    }
    return ::pclose(pPipe) == 0 ? strOutput : "";
}

TEST(SharedObject, ExportsTheClassesWholeAndNothingElse) {
    const std::string strSymbols = OutputOf("nm -DC --defined-only '" DAK_LIBRARY "' 2>/dev/null");
    if (strSymbols.empty()) {
        GTEST_SKIP() << "there is no nm";
    }
    EXPECT_NE(OutputOf("readelf -d '" DAK_LIBRARY "'").find("[libdak.so.1]"), std::string::npos);

    std::istringstream lines(strSymbols);
    for (std::string strLine; std::getline(lines, strLine);) {
        const bool bOurs = strLine.find(" T CDAKVorn::") != std::string::npos ||
                           strLine.find(" T CIoBuf::") != std::string::npos ||
                           strLine.find(" T platform::") != std::string::npos;
        EXPECT_TRUE(bOurs || strLine.find(" T ") == std::string::npos) << strLine;
    }
    const auto expectAll = [&](const char* lpszBefore, const char* lpszNames,
                               const char* lpszBehind) {
        std::istringstream names(lpszNames);
        for (std::string strName; names >> strName;) {
            EXPECT_NE(strSymbols.find(lpszBefore + strName + lpszBehind), std::string::npos)
                << strName;
        }
    };
    expectAll("B ", "g_IoBuf g_hDeviceMutex g_bAbortPending", "\n");
    expectAll("T CIoBuf::",
              "CIoBuf ~CIoBuf operator= InitIoBuf ReadIoBuf DeinitIoBuf ReadFileData "
              "ReadDataToBufferThread IoGetFileSize IoGetFileTime",
              "(");
    expectAll("T CDAKVorn::",
              "CDAKVorn ~CDAKVorn operator= ConnectDevice GetLastError DAKGetVersionNumber "
              "DAKTransmitFiles GetCopyStatus IsTransmitting TerminateTransfer ClearFileList "
              "ClearStorageList Commit_Thread CommitCopyMultiFiles Initial DeInitial OpenDevice "
              "IsDeviceAvailable IsDeviceConnected TerminateActiveSync Connect DisConnect "
              "ReadUSBData WriteUSBData ReadUSBThread WriteUSBThread SendDataPackage "
              "ReceiveDataPackage AddBuffData GetBuffData GetBuffString",
              "(");
    for (const char* lpszHalf : {"T CDAKVorn::DAK", "T CDAKVorn::Commit"}) {
        expectAll(lpszHalf,
                  "CreateFile ReadFile WriteFile SetFilePointer CloseFile CreateDirectory "
                  "DeleteFile MoveFile CopyFile GetFileInfo GetFolderContent CreateProcess "
                  "KernelIoControl RegisterWindowMessage BroadCastMessage GetDeviceFreeSpace "
                  "GetFolderFreeSpace GetStorageInfo FormatPartition",
                  "(");
    }
}

constexpr char s_lpszForeign[] = "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC.txt";

class Library : public testing::Test {
  protected:
    Library() {
        ::setenv("DAK_DEVICE_DIR", m_world.Path("attached").c_str(), 1);
        ::setenv("DAK_CPU_MHZ", "200", 1);
        m_hWnd = platform::CreateMessageWindow();
    }
    ~Library() override { platform::DestroyMessageWindow(m_hWnd); }

    // Copies from "tree" of the host to \\Docs, or from there to "back".
    DWORD Transmit(UINT nDirection, const std::vector<std::string>& names) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        const std::string strHost = m_world.Path(bPush ? "host/tree" : "host/back");
        const std::u16string strWide(strHost.begin(), strHost.end());
        fs::create_directory(strHost);
        m_list.RemoveAll();
        for (const std::string& strName : names) {
            m_list.Add((bPush ? strHost + "/" + strName : strName).c_str());
        }
        return m_dak.DAKTransmitFiles(nDirection, bPush ? strWide.c_str() : u"\\Docs",
                                      bPush ? u"\\Docs" : strWide.c_str(), &m_list, m_hWnd);
    }

    // As an event loop waits: on the descriptor. True when the one message came.
    bool AwaitEnd() {
        pollfd descriptor{platform::GetMessageWindowDescriptor(m_hWnd), POLLIN, 0};
        if (::poll(&descriptor, 1, static_cast<int>(BOUND.count())) != 1) {
            return false;
        }
        platform::WINDOWMESSAGE message = {};
        EXPECT_TRUE(platform::WaitWindowMessage(m_hWnd, 0, &message));
        EXPECT_TRUE(message.message == 3028 && message.wParam == 0 && message.lParam == 0);
        EXPECT_EQ(::poll(&descriptor, 1, 0), 0);
        return true;
    }

    CWorld m_world;
    CStringArray m_list;
    CDAKVorn m_dak;
    HWND m_hWnd = nullptr;
};

TEST_F(Library, CopiesBothWaysAndWorksOnTheDevice) {
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    m_world.StartAgent();
    ASSERT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);

    const TREE tree = {{"one.bin", Content(700'000, 1)},
                       {"deep/er/two.bin", Content(12'274, 2)},
                       {"empty", ""},
                       {s_lpszForeign, "text"}};
    m_world.Write("host/tree", tree);
    const fs::file_time_type stamp =
        std::chrono::floor<std::chrono::seconds>(fs::file_time_type::clock::now()) -
        std::chrono::hours(1000);
    std::vector<std::string> names;
    for (const auto& [strName, strBytes] : tree) {
        names.push_back(strName);
        fs::last_write_time(m_world.Path("host/tree/" + strName), stamp);
    }
    ASSERT_EQ(Transmit(DAK_TO_DEVICE, names), DAKERROR_NONE);
    EXPECT_EQ(m_dak.DAKTransmitFiles(DAK_TO_DEVICE, u"", u"", &m_list, m_hWnd), DAKERROR_BUSY);
    ASSERT_TRUE(AwaitEnd());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    EXPECT_TRUE(ReadTree(m_world.Path("device/Docs")) == tree);

    // The message is answered at once.
    ASSERT_EQ(Transmit(DAK_FROM_DEVICE, {"one.bin", "deep", "missing", "empty", s_lpszForeign}),
              DAKERROR_NONE);
    ASSERT_TRUE(AwaitEnd());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    EXPECT_TRUE(ReadTree(m_world.Path("host/back")) == tree);
    for (const std::string& strName : names) {
        EXPECT_EQ(fs::last_write_time(m_world.Path("host/back/" + strName)), stamp) << strName;
    }

    EXPECT_EQ(m_dak.DAKCreateDirectory(u"\\Docs\\new", nullptr), DAKERROR_NONE);
    EXPECT_TRUE(fs::is_directory(m_world.Path("device/Docs/new")));
    EXPECT_EQ(m_dak.DAKCreateDirectory(u"\\none\\new", nullptr), DAKERROR_FAIL);
    EXPECT_EQ(m_dak.DAKDeleteFile(u"\\Docs\\deep\\er\\two.bin"), DAKERROR_NONE);
    EXPECT_FALSE(fs::exists(m_world.Path("device/Docs/deep/er/two.bin")));
    EXPECT_EQ(m_dak.DAKDeleteFile(u"\\Docs\\deep\\er\\two.bin"), DAKERROR_FAIL);

    // An answer that is longer than any package comes whole.
    constexpr DWORD ECHO_CONTROL = 1;
    for (const std::size_t nBytes : {12'289U, 500'000U}) {
        std::string strIn = Content(nBytes, 3);
        std::string strOut(nBytes, '\0');
        DWORD dwCount = 0;
        EXPECT_EQ(m_dak.DAKKernelIoControl(ECHO_CONTROL, strIn.data(), static_cast<DWORD>(nBytes),
                                           strOut.data(), static_cast<DWORD>(nBytes), &dwCount),
                  DAKERROR_NONE);
        EXPECT_EQ(dwCount, nBytes);
        EXPECT_TRUE(strOut == strIn) << nBytes;
    }

    EXPECT_EQ(m_world.Agent().End(SIGTERM), 0);
    EXPECT_EQ(m_dak.DAKDeleteFile(u"\\Docs\\empty"), DAKERROR_NO_DEVICE);
}

TEST_F(Library, OneProcessAtATime) {
    m_world.StartAgent();
    m_world.Write("host/tree", {{"f", Content(300'000, 3)}});
    // This process has the link.
    ASSERT_EQ(Transmit(DAK_TO_DEVICE, {"f"}), DAKERROR_NONE);
    const std::unique_ptr<CProgram> pRefused = m_world.Run({"status"});
    EXPECT_EQ(pRefused->End(), 4);
    EXPECT_TRUE(pRefused->Says("another program is using the link")) << pRefused->Errors();
    ASSERT_TRUE(AwaitEnd());
    // The message goes out ahead of the job's closing, which an operation waits for.
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);

    // Another one has it, until it is killed.
    const std::unique_ptr<CProgram> pOther = m_world.Start({"push", "tree", "/"});
    ASSERT_TRUE(Eventually([&] { return fs::exists(m_world.Path("device/tree")); }));
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_BUSY);
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_BUSY);
    EXPECT_EQ(Transmit(DAK_FROM_DEVICE, {"f"}), DAKERROR_BUSY);
    pOther->End(SIGKILL);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);

    // Two that meet refuse each other at times, but do not stay so.
    int nGotThrough = 0;
    for (int i = 0; i < 5; ++i) {
        const std::unique_ptr<CProgram> pStatus = m_world.Start({"status"});
        const DWORD dwResult = m_dak.ConnectDevice();
        EXPECT_TRUE(dwResult == DAKERROR_NONE || dwResult == DAKERROR_BUSY) << dwResult;
        const int nExit = pStatus->End();
        EXPECT_TRUE(nExit == 0 || nExit == 4) << nExit;
        nGotThrough += dwResult == DAKERROR_NONE || nExit == 0 ? 1 : 0;
        EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    }
    EXPECT_GT(nGotThrough, 0);
}

// Nothing waits for a device that is stopped any longer than a transfer's time-out.
TEST_F(Library, AStoppedAgentHoldsNothingUp) {
    CProgram& agent = m_world.StartAgent();
    m_world.Write("device/Docs", {{"f", Content(3'000'000, 4)}, {"g", "g"}});

    // In the middle of a deletion: between the handshake and the command lie 300 ms.
    DWORD dwDeleted = DAKERROR_NONE;
    std::thread deleter([&] { dwDeleted = m_dak.DAKDeleteFile(u"\\Docs\\g"); });
    EXPECT_TRUE(Eventually([&] { return agent.Says("host came"); }));
    Pause(50);
    agent.Signal(SIGSTOP);
    deleter.join();
    EXPECT_TRUE(dwDeleted != DAKERROR_NONE || !fs::exists(m_world.Path("device/Docs/g")));
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NO_DEVICE);
    agent.Signal(SIGCONT);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);

    // In the middle of a copy, which a cancel then ends without the device.
    ASSERT_EQ(Transmit(DAK_FROM_DEVICE, {"f"}), DAKERROR_NONE);
    EXPECT_TRUE(Eventually([&] {
        std::array<char, 260> szPath{};
        DWORD dwCopied = 0;
        DWORD dwTotal = 0;
        int nPercent = 0;
        m_dak.GetCopyStatus(szPath.data(), szPath.data(), dwTotal, dwCopied, nPercent);
        return dwCopied > 0;
    }));
    agent.Signal(SIGSTOP);
    m_dak.TerminateTransfer();
    EXPECT_FALSE(m_dak.IsTransmitting());
    EXPECT_TRUE(AwaitEnd());
    EXPECT_NE(m_dak.GetLastError(), DAKERROR_NONE);
    EXPECT_TRUE(ReadTree(m_world.Path("host/back")).empty());
    agent.Signal(SIGCONT);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
}

} // namespace
} // namespace end_to_end
