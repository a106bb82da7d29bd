// A device that stops answering: every call and every job ends in bounded time with an error that
// says so, and the library works again with a device that answers.
#include "tests/windows_end_to_end/world.h"

#include <functional>
#include <thread>

namespace windows_end_to_end {
namespace {

class Silence : public CWorldTest {
  protected:
    Silence() {
        WriteTree(OnDevice("Docs"), m_tree);
        WriteTree(OnHost("tree"), m_tree);
        Plug();
    }

    // Runs what is expected to end in time though the device stops at the point, where so many
    // packages of the host have arrived, and then asks the device, which answers again.
    void StopsAt(const CPresentedAgent::CPoint& point, std::uint64_t qwTaken,
                 const std::function<void()>& body) {
        m_pAgent->HangAt(point);
        const ULONGLONG qwBegin = ::GetTickCount64();
        body();
        EXPECT_LT(::GetTickCount64() - qwBegin, 60'000U); // what waits for minutes takes longer
        EXPECT_TRUE(m_pAgent->HasStopped());
        EXPECT_EQ(m_pAgent->Taken(), qwTaken);
        m_pAgent->GoOn();
        EXPECT_EQ(m_dak.ConnectDevice(), DAKERROR_NONE);
        ExpectSameTree(ReadTree(OnDevice("Docs")), m_tree);
    }

    // Calls it off from another thread when the device has stopped.
    std::thread CancelLater() {
        return std::thread([this] {
            EXPECT_TRUE(Eventually([&] { return m_pAgent->HasStopped(); }));
            m_dak.TerminateTransfer();
        });
    }

    const TREE m_tree = {{L"f", File(1'000'000, 1)}, {L"g", File(10, 2)}};
};

TEST_F(Silence, InAReadOrAWriteOfACommand) {
    _tagFileInfo info{};
    const auto connect = [&] { return m_dak.ConnectDevice(); };
    const auto ask = [&] { return m_dak.DAKGetFileInfo(L"\\Docs\\g", &info); };
    const struct {
        CPresentedAgent::CPoint point;
        std::uint64_t qwTaken;
        std::function<DWORD()> operation;
        DWORD dwResult;
    } rows[] = {
        // The handshake: what the host writes, and what it reads.
        {{EDirection::ToDevice, 1}, 0, connect, DAKERROR_NO_DEVICE},
        {{EDirection::ToHost, 1}, 1, connect, DAKERROR_NO_DEVICE},
        // A command, its acknowledgement, and its response, which comes in part.
        {{EDirection::ToDevice, 2}, 1, ask, DAKERROR_FAIL},
        {{EDirection::ToHost, 2}, 2, ask, DAKERROR_FAIL},
        {{EDirection::ToHost, 3, 100}, 2, ask, DAKERROR_FAIL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        StopsAt(row.point, row.qwTaken, [&] { EXPECT_EQ(row.operation(), row.dwResult); });
    }
}

// The write of one package is given up after its bytes in milliseconds.
TEST_F(Silence, InAStreamToTheDevice) {
    StopsAt({EDirection::ToDevice, 20}, 19, [&] {
        ASSERT_EQ(Transmit(DAK_TO_DEVICE, {L"f"}, m_hWnd), DAKERROR_NONE);
        EXPECT_TRUE(AwaitEnd());
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NO_DEVICE);
        EXPECT_FALSE(m_dak.IsTransmitting());
    });
}

// What waits for the device's next word waits for minutes, unless somebody calls it off or the
// device goes.
TEST_F(Silence, InAStreamToTheHost) {
    StopsAt({EDirection::ToHost, 10}, 2, [&] {
        ASSERT_EQ(Transmit(DAK_FROM_DEVICE, {L"f"}, m_hWnd), DAKERROR_NONE);
        CancelLater().join();
        EXPECT_FALSE(m_dak.IsTransmitting());
        EXPECT_TRUE(AwaitEnd());
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_CANCELLED);
        EXPECT_TRUE(fs::is_empty(OnHost("back")));
    });
    StopsAt({EDirection::ToHost, 10, 0, true}, 2, [&] {
        ASSERT_EQ(Transmit(DAK_FROM_DEVICE, {L"f"}, m_hWnd), DAKERROR_NONE);
        EXPECT_TRUE(AwaitEnd());
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NO_DEVICE);
        EXPECT_TRUE(fs::is_empty(OnHost("back")));
    });
}

TEST_F(Silence, InAReadOrAWriteOfAFile) {
    void* hFile = nullptr;
    ASSERT_EQ(
        m_dak.DAKCreateFile(L"\\Docs\\f", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, &hFile),
        DAKERROR_NONE);
    std::string strRead(1'000'000, '\0');
    DWORD dwCount = 0;
    StopsAt({EDirection::ToHost, 10}, 2, [&] {
        std::thread cancel = CancelLater();
        // What came before counts as a short read.
        EXPECT_EQ(m_dak.DAKReadFile(hFile, strRead.data(), 1'000'000, &dwCount), DAKERROR_NONE);
        cancel.join();
        EXPECT_TRUE(dwCount > 0 && dwCount < 200'000) << dwCount;
        EXPECT_EQ(strRead.substr(0, dwCount), m_tree.at(L"f").strBytes.substr(0, dwCount));
    });
    EXPECT_EQ(m_dak.DAKCloseFile(hFile), DAKERROR_NONE);

    ASSERT_EQ(m_dak.DAKCreateFile(L"\\written", GENERIC_WRITE, 0, CREATE_NEW, &hFile),
              DAKERROR_NONE);
    // At the verdict on the second window; the first is of one package.
    StopsAt({EDirection::ToHost, 4, 0, true}, 2 + 51, [&] {
        EXPECT_EQ(m_dak.DAKWriteFile(hFile, strRead.data(), 1'000'000, &dwCount), DAKERROR_FAIL);
        EXPECT_EQ(m_dak.GetLastError(), DAKERROR_NO_DEVICE);
    });
}

} // namespace
} // namespace windows_end_to_end
