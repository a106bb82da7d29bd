// The library as an application meets it: the shared object and its public headers.
#include "link/dak_vorn.h"
#include "platform/message_window.h"
#include "tests/end_to_end/world.h"

namespace end_to_end {
namespace {

namespace fs = std::filesystem;
using WideText = std::basic_string<WCHAR>;

class Library : public testing::Test {
  protected:
    Library() {
        world.folder.Write("host/f", std::string(300'000, 'f'));
        world.WriteFiles({{"f", std::string(300'000, 'd')}});
        world.Plug();
    }
    ~Library() override { platform::DestroyMessageWindow(m_hWnd); }

    // Copies "f" between the device's root and the folder "host".
    DWORD Transmit(UINT nDirection) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        const WideText strHost = (world.folder / "host").string<WCHAR>();
        m_list.RemoveAll();
        m_list.Add(bPush ? world.folder.Path("host/f").c_str() : "f");
        return m_pDak->DAKTransmitFiles(nDirection, bPush ? strHost.c_str() : DAK_WIDE("\\"),
                                        bPush ? DAK_WIDE("\\") : strHost.c_str(), &m_list, m_hWnd);
    }
    // The same, up to where the device does nothing more.
    void TransmitUntil(UINT nDirection, EWay way, std::uint64_t qwBytes) {
        world.HoldAfter(way, qwBytes);
        ASSERT_EQ(Transmit(nDirection), DAKERROR_NONE);
        ASSERT_TRUE(Eventually([&] { return world.Holds(); }));
    }
    // The one message, and what the job came to.
    DWORD AwaitEnd() {
        platform::WINDOWMESSAGE message{};
        const auto dwBoundMs = DWORD{std::chrono::milliseconds(test::BOUND).count()};
        EXPECT_TRUE(platform::WaitWindowMessage(m_hWnd, dwBoundMs, &message));
        EXPECT_TRUE(message.message == 3028 && message.wParam == 0 && message.lParam == 0);
        EXPECT_FALSE(platform::WaitWindowMessage(m_hWnd, 0, &message));
        return m_pDak ? m_pDak->GetLastError() : DAKERROR_NONE;
    }
    void ExpectOldFiles() {
        EXPECT_EQ(test::ReadTree(world.folder / "host"), (TREE{{"f", std::string(300'000, 'f')}}));
        EXPECT_EQ(world.Files(), (TREE{{"f", std::string(300'000, 'd')}}));
    }

    CWorld world;
    CStringArray m_list;
    std::unique_ptr<CDAKVorn> m_pDak = std::make_unique<CDAKVorn>();
    HWND m_hWnd = platform::CreateMessageWindow();
};

TEST_F(Library, FollowsTheDeviceThereIs) {
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
    world.Unplug();
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NO_DEVICE);
    EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_NO_DEVICE);
    world.Plug();
    constexpr DWORD DROP_LINK_CONTROL = 5;
    DWORD dwDropMs = 5000;
    DWORD dwReturned = 7;
    char chOut = 0;
    EXPECT_EQ(m_pDak->DAKKernelIoControl(DROP_LINK_CONTROL, &dwDropMs, sizeof(dwDropMs), &chOut, 1,
                                         &dwReturned),
              DAKERROR_NONE);
    EXPECT_EQ(dwReturned, 0U);
    EXPECT_TRUE(Eventually([&] { return m_pDak->ConnectDevice() == DAKERROR_NO_DEVICE; }));
    EXPECT_TRUE(Eventually([&] { return m_pDak->ConnectDevice() == DAKERROR_NONE; }));
}

TEST_F(Library, IsOfOneProcessAtATime) {
    TransmitUntil(DAK_TO_DEVICE, EWay::ToDevice, 100'000);
    EXPECT_TRUE(m_pDak->IsTransmitting());
    const auto pRefused = world.Run({"dak", "status"});
    EXPECT_EQ(pRefused->End(), 4);
    EXPECT_TRUE(pRefused->Says("another program is using the link")) << pRefused->Errors();
    EXPECT_EQ(Transmit(DAK_TO_DEVICE), DAKERROR_BUSY);
    world.GoOn();
    EXPECT_EQ(AwaitEnd(), DAKERROR_NONE);
    // The message goes out ahead of the job's closing, which an operation waits for.
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(world.Files(), (TREE{{"f", std::string(300'000, 'f')}}));

    world.HoldAfter(EWay::ToHost, 100'000);
    const auto pOther = world.Start({"dak", "pull", "/f", "other"});
    ASSERT_TRUE(Eventually([&] { return world.Holds(); }));
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_BUSY);
    EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_BUSY);
    EXPECT_EQ(Transmit(DAK_FROM_DEVICE), DAKERROR_BUSY);
    pOther->Kill();
    world.GoOn();
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
}

// Whatever the device owes then, a job that is called off ends, and so does its object.
TEST_F(Library, AJobEndsBeforeItsTime) {
    for (const UINT nDirection : {DAK_TO_DEVICE, DAK_FROM_DEVICE}) {
        for (const bool bObject : {false, true}) {
            SCOPED_TRACE(std::to_string(nDirection) + (bObject ? " with its object" : ""));
            TransmitUntil(nDirection, nDirection == DAK_TO_DEVICE ? EWay::ToDevice : EWay::ToHost,
                          100'000);
            std::array<char, MAX_PATH> szFrom{};
            std::array<char, MAX_PATH> szTo{};
            DWORD dwTotal = 0;
            DWORD dwCopied = 0;
            int nPercent = 0;
            m_pDak->GetCopyStatus(szFrom.data(), szTo.data(), dwTotal, dwCopied, nPercent);
            EXPECT_EQ(dwTotal, 300'000U);
            EXPECT_TRUE(dwCopied > 50'000 && dwCopied < 100'000) << dwCopied;
            EXPECT_EQ(nPercent, static_cast<int>(dwCopied / 3000));
            if (bObject) {
                m_pDak.reset();
                m_pDak = std::make_unique<CDAKVorn>();
                AwaitEnd();
            } else {
                m_pDak->TerminateTransfer();
                EXPECT_FALSE(m_pDak->IsTransmitting());
                EXPECT_EQ(m_pDak->GetLastError(), DAKERROR_CANCELLED);
                EXPECT_EQ(AwaitEnd(), DAKERROR_CANCELLED);
            }
            world.GoOn();
            EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
            ExpectOldFiles();
        }
    }
}

// Wherever a device falls silent, an operation ends with an error in bounded time.
TEST_F(Library, NothingWaitsForASilentDeviceForGood) {
    for (const auto& [way, qwMoment] : CWorld::OF_A_COMMAND) {
        SCOPED_TRACE((way == EWay::ToHost ? "to the host " : "") + std::to_string(qwMoment));
        _tagFileInfo info{};
        world.HoldAfter(way, qwMoment);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_NE(m_pDak->DAKGetFileInfo(DAK_WIDE("\\f"), &info), DAKERROR_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
        EXPECT_TRUE(world.Holds());
        world.GoOn();
        EXPECT_EQ(m_pDak->DAKGetFileInfo(DAK_WIDE("\\f"), &info), DAKERROR_NONE);
    }
    TransmitUntil(DAK_TO_DEVICE, EWay::ToDevice, 100'000);
    EXPECT_EQ(AwaitEnd(), DAKERROR_NO_DEVICE);
    world.GoOn();
    EXPECT_EQ(m_pDak->ConnectDevice(), DAKERROR_NONE);
    ExpectOldFiles();
}

TEST_F(Library, TheExampleOfACopyWorks) {
    world.folder.Write("host/tree", {{"a", "a"}, {"deep/\xE6\xBC\xA2", "b"}});
    const auto pCopy = world.Run({"copy_folder", "tree", "\\Docs"});
    EXPECT_EQ(pCopy->End(), 0);
    EXPECT_TRUE(pCopy->Says("files copied: 2, left out: 0")) << pCopy->Errors();
    EXPECT_EQ(world.Files()["Docs/deep/\xE6\xBC\xA2"], "b");
}

} // namespace
} // namespace end_to_end
