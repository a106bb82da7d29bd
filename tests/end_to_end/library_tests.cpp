// The library as an application meets it: the shared object and its public headers.
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/end_to_end/world.h"

namespace end_to_end {
namespace {

class Library : public testing::Test {
  protected:
    Library() {
        world.folder.Write("host/f", m_onHost.at("f"));
        device.Write(m_onDevice);
        device.Plug();
    }
    ~Library() override { platform::DestroyMessageWindow(m_hWnd); }

    // Copies "f" between the device's root and the folder "host".
    DWORD Transmit(UINT nDirection) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        const auto strHost = (world.folder / "host").string<WCHAR>();
        m_list.RemoveAll();
        m_list.Add(bPush ? world.folder.Path("host/f").c_str() : "f");
        return m_pDak->DAKTransmitFiles(nDirection, bPush ? strHost.c_str() : DAK_WIDE("\\"),
                                        bPush ? DAK_WIDE("\\") : strHost.c_str(), &m_list, m_hWnd);
    }
    // The same, to the middle, where the device does nothing more.
    void TransmitHalf(UINT nDirection) {
        device.HoldAfter(nDirection == DAK_TO_DEVICE ? EWay::ToDevice : EWay::ToHost, 100'000);
        ASSERT_EQ(Transmit(nDirection), DAKERROR_NONE);
        ASSERT_TRUE(Eventually([&] { return device.Holds(); }));
        EXPECT_TRUE(m_pDak->IsTransmitting());
    }
    // The one message, and what the job came to.
    DWORD AwaitEnd() {
        platform::WINDOWMESSAGE message{};
        EXPECT_TRUE(platform::WaitWindowMessage(m_hWnd, test::BOUND.count() * 1000, &message));
        EXPECT_TRUE(message.message == 3028 && message.wParam == 0 && message.lParam == 0);
        EXPECT_FALSE(platform::WaitWindowMessage(m_hWnd, 0, &message));
        return m_pDak->GetLastError();
    }
    // The device answers again, and the job has left everything as it was.
    void ExpectNothingDone() {
        device.GoOn();
        EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
        EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_NONE);
        EXPECT_TRUE(test::ReadTree(world.folder / "host") == m_onHost);
        EXPECT_TRUE(device.Files() == m_onDevice);
    }

    const TREE m_onHost = {{"f", std::string(300'000, 'h')}};
    const TREE m_onDevice = {{"f", std::string(300'000, 'd')}};
    const CWorld world;
    IDevice& device = *world.pDevice;
    CStringArray m_list;
    std::unique_ptr<CDAKVorn> m_pDak = std::make_unique<CDAKVorn>();
    HWND m_hWnd = platform::CreateMessageWindow();
};

TEST_F(Library, IsOfOneProcessAtATime) {
    TransmitHalf(DAK_TO_DEVICE);
    const auto pRefused = world.Run("dak status");
    EXPECT_EQ(pRefused->End(), 4);
    EXPECT_TRUE(pRefused->Says("another program is using the link")) << pRefused->Errors();
    EXPECT_EQ(Transmit(DAK_TO_DEVICE), DAKERROR_BUSY);
    device.GoOn();
    EXPECT_EQ(AwaitEnd(), DAKERROR_NONE);
    // The message goes out ahead of the job's closing, which an operation waits for.
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
    EXPECT_TRUE(device.Files() == m_onHost);

    device.HoldAfter(EWay::ToHost, 100'000);
    const auto pOther = world.Start("dak pull /f other");
    ASSERT_TRUE(Eventually([&] { return device.Holds(); }));
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_BUSY);
    EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_BUSY);
    EXPECT_EQ(Transmit(DAK_FROM_DEVICE), DAKERROR_BUSY);
    pOther->Kill();
    device.GoOn();
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
}

TEST_F(Library, AJobEndsWhenItIsCalledOff) {
    for (const UINT nDirection : {DAK_TO_DEVICE, DAK_FROM_DEVICE}) {
        SCOPED_TRACE(nDirection);
        TransmitHalf(nDirection);
        std::array<char, MAX_PATH> szFrom{};
        std::array<char, MAX_PATH> szTo{};
        DWORD dwTotal = 0;
        DWORD dwCopied = 0;
        int nPercent = 0;
        m_pDak->GetCopyStatus(szFrom.data(), szTo.data(), dwTotal, dwCopied, nPercent);
        EXPECT_EQ(dwTotal, 300'000U);
        EXPECT_TRUE(dwCopied > 50'000 && dwCopied < 120'000) << dwCopied;
        EXPECT_EQ(nPercent, static_cast<int>(dwCopied / 3000));
        std::thread answer([&] {
            EXPECT_TRUE(Eventually([&] { return !m_pDak->IsTransmitting(); }));
            device.GoOn();
        });
        m_pDak->TerminateTransfer();
        answer.join();
        EXPECT_FALSE(m_pDak->IsTransmitting());
        EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_CANCELLED);
        EXPECT_EQ(AwaitEnd(), DAKERROR_CANCELLED);
        ExpectNothingDone();
    }
}

TEST_F(Library, AJobEndsWithItsObject) {
    TransmitHalf(DAK_FROM_DEVICE);
    m_pDak.reset();
    m_pDak = std::make_unique<CDAKVorn>();
    AwaitEnd();
    ExpectNothingDone();
}

// Wherever a device falls silent, what waits for it ends with an error in bounded time.
TEST_F(Library, NothingWaitsForASilentDeviceForGood) {
    for (const auto& [way, qwMoment] : g_commandMoments) {
        SCOPED_TRACE((way == EWay::ToHost ? "to the host " : "") + std::to_string(qwMoment));
        _tagFileInfo info{};
        device.HoldAfter(way, qwMoment);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_NE(m_pDak->DAKGetFileInfo(DAK_WIDE("\\f"), &info), DAKERROR_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
        EXPECT_TRUE(device.Holds());
        device.GoOn();
        EXPECT_EQ(m_pDak->DAKGetFileInfo(DAK_WIDE("\\f"), &info), DAKERROR_NONE);
    }
    TransmitHalf(DAK_TO_DEVICE);
    EXPECT_EQ(AwaitEnd(), DAKERROR_NO_DEVICE);
    ExpectNothingDone();
}

} // namespace
} // namespace end_to_end
