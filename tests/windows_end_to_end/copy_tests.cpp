// Copies in both directions, with the message at their end, and copies that are cut short.
#include "tests/windows_end_to_end/world.h"

#include <thread>

namespace windows_end_to_end {
namespace {

constexpr std::size_t PACKAGE = 12'274; // bytes of a stream in one package
constexpr std::size_t WINDOW = 50 * PACKAGE;
// Ahead of the first file's bytes stand the count, sizes, times, and a name of one character.
constexpr std::size_t FIRST_HEAD = 4 + 24 + 4;

std::vector<std::wstring> Names(const TREE& tree) {
    std::vector<std::wstring> names;
    for (const auto& [strName, file] : tree) {
        names.push_back(strName);
    }
    return names;
}

using Copy = CWorldTest;

TEST_F(Copy, BringsATreeThereAndBack) {
    Plug();
    TREE tree = {
        {L"a", File(PACKAGE - FIRST_HEAD, 1)}, // its end is the end of the first package
        {L"empty", File(0, 2)},
        {L"gr\xFC\xDF \x20AC.txt", File(700, 3)},
        {L"read only", File(PACKAGE + 1, 4)},
        {L"folder\\package", File(PACKAGE, 5)},
        {L"folder\\deeper\\still\\less", File(PACKAGE - 1, 6)},
        {L"windows", File(WINDOW + WINDOW / 2, 7)},
    };
    WriteTree(OnHost("tree"), tree);
    ASSERT_EQ(Transmit(DAK_TO_DEVICE, Names(tree), m_hWnd), DAKERROR_NONE);
    EXPECT_TRUE(m_dak.IsTransmitting());
    EXPECT_EQ(m_dak.DAKTransmitFiles(DAK_TO_DEVICE, L"", L"", &m_list, m_hWnd), DAKERROR_BUSY);
    ASSERT_TRUE(AwaitEnd());
    EXPECT_FALSE(m_dak.IsTransmitting());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    ExpectSameTree(ReadTree(OnDevice("Docs")), tree);

    // Back, onto what is there: a read-only file, and others that are longer and shorter.
    WriteTree(OnHost("back"), {{L"a", File(50'000, 9)},
                               {L"read only", File(100, 10)},
                               {L"empty", File(100, 11)},
                               {L"folder\\own", File(100, 12)}});
    ASSERT_TRUE(::SetFileAttributesW(OnHost("back/read only").c_str(), FILE_ATTRIBUTE_READONLY));
    CWindow window;
    ASSERT_EQ(Transmit(DAK_FROM_DEVICE,
                       {L"a", L"folder", L"missing", L"empty", L"read only", L"windows",
                        L"gr\xFC\xDF \x20AC.txt"},
                       window.Handle()),
              DAKERROR_NONE);
    ASSERT_TRUE(window.AwaitEnd());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NONE);
    tree[L"folder\\own"] = File(100, 12);
    ExpectSameTree(ReadTree(OnHost("back")), tree);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
    EXPECT_EQ(window.Ends(), 1);
}

// What has arrived by then stays, of the file in work there is nothing new.
TEST_F(Copy, CutShortLeavesWholeFilesOnBothSides) {
    CPresentedAgent& device = Plug();
    const TREE tree = {{L"a", File(300, 1)}, {L"large", File(3'000'000, 2)}, {L"z", File(9, 3)}};
    const TREE old = {{L"large", File(2000, 4)}};
    TREE left = old;
    left[L"a"] = tree.at(L"a");
    for (const UINT nDirection : {DAK_TO_DEVICE, DAK_FROM_DEVICE}) {
        const bool bPush = nDirection == DAK_TO_DEVICE;
        SCOPED_TRACE(bPush ? "push" : "pull");
        const fs::path source = bPush ? OnHost("tree") : OnDevice("Docs");
        const fs::path target = bPush ? OnDevice("Docs") : OnHost("back");
        WriteTree(source, tree);
        fs::remove_all(target);
        WriteTree(target, old);

        // The device pauses in the second window, until the caller has called the copy off.
        device.HangAt({bPush ? EDirection::ToDevice : EDirection::ToHost, 70});
        ASSERT_EQ(Transmit(nDirection, Names(tree), m_hWnd), DAKERROR_NONE);
        ASSERT_TRUE(Eventually([&] { return device.HasStopped(); }));
        char szSource[260] = {};
        char szDest[260] = {};
        DWORD dwTotal = 0;
        DWORD dwCopied = 0;
        int nPercent = 0;
        m_dak.GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
        EXPECT_TRUE(std::string(szSource).ends_with("\\large")) << szSource;
        EXPECT_TRUE(std::string(szDest).ends_with("\\large")) << szDest;
        EXPECT_EQ(dwTotal, 3'000'000U);
        EXPECT_TRUE(dwCopied > WINDOW && dwCopied < 70 * PACKAGE) << dwCopied;
        EXPECT_EQ(nPercent, static_cast<int>(dwCopied / 30'000));
        std::thread goOn([&] {
            EXPECT_TRUE(Eventually([&] { return !m_dak.IsTransmitting(); }));
            device.GoOn();
        });
        m_dak.TerminateTransfer();
        goOn.join();
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_CANCELLED);
        EXPECT_TRUE(AwaitEnd());
        EXPECT_FALSE(m_dak.IsTransmitting());
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_CANCELLED);
        EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
        ExpectSameTree(ReadTree(source), tree);
        ExpectSameTree(ReadTree(target), left);
    }
}

// What the device has ready by then must not be taken for the rest of anything.
TEST_F(Copy, AFileThatTheHostCannotTakeEndsIt) {
    Plug();
    const TREE tree = {{L"a", File(300, 1)}, {L"large", File(500'000, 2)}};
    WriteTree(OnDevice("Docs"), tree);
    const TREE old = {{L"a\\in the way", File(5, 3)}};
    WriteTree(OnHost("back"), old);
    const ULONGLONG qwBegin = ::GetTickCount64();
    ASSERT_EQ(Transmit(DAK_FROM_DEVICE, Names(tree), m_hWnd), DAKERROR_NONE);
    EXPECT_TRUE(AwaitEnd());
    EXPECT_LT(::GetTickCount64() - qwBegin, 60'000U);
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_FAIL);
    ExpectSameTree(ReadTree(OnHost("back")), old);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
}

// The files of a folder that a copy makes for itself.
std::vector<fs::path> Parts(const fs::path& folder) {
    std::vector<fs::path> parts;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".tmp") {
            parts.push_back(entry.path());
        }
    }
    return parts;
}

// The worker waits for the rest of a package, with the part file open.
TEST_F(Copy, APartFileThatIsOpenGoesWithItsWorker) {
    CPresentedAgent& device = Plug();
    WriteTree(OnDevice("Docs"), {{L"f", File(200'000, 1)}});
    const TREE old = {{L"f", File(10, 2)}};
    WriteTree(OnHost("back"), old);
    device.HangAt({EDirection::ToHost, 6, 14});
    ASSERT_EQ(Transmit(DAK_FROM_DEVICE, {L"f"}, m_hWnd), DAKERROR_NONE);
    ASSERT_TRUE(Eventually([&] { return device.HasStopped(); }));
    const std::vector<fs::path> parts = Parts(OnHost("back"));
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_FALSE(::DeleteFileW(parts[0].c_str()));
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_SHARING_VIOLATION});

    const ULONGLONG qwBegin = ::GetTickCount64();
    m_dak.TerminateTransfer();
    EXPECT_GE(::GetTickCount64() - qwBegin, 1900U);
    EXPECT_FALSE(m_dak.IsTransmitting());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_CANCELLED);
    EXPECT_EQ(Parts(OnHost("back")), parts) << "it is open";
    platform::WINDOWMESSAGE message{};
    EXPECT_FALSE(platform::WaitWindowMessage(m_hWnd, 0, &message)) << "the worker has not ended";

    device.GoOn();
    EXPECT_TRUE(AwaitEnd());
    EXPECT_EQ(m_dak.GetLastError(), DAKERROR_CANCELLED);
    ExpectSameTree(ReadTree(OnHost("back")), old);
    EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
}

} // namespace
} // namespace windows_end_to_end
