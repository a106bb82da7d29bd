// What an application does with the device's system, the real agent's core answering.

#include "tests/scenarios/scenario.h"

#include "agent/copy_files.h"

using namespace scenario;

namespace {

// Programs of virtual time: each runs as many milliseconds as its first argument says and ends with
// the second.
class CTimedProcesses final : public agent::CDeviceProcesses {
  public:
    std::shared_ptr<const agent::CProcessState>
    StartProgram(const agent::CDevicePath& path, bool bBareName,
                 const std::vector<std::string>& arguments) override {
        started.push_back(path.Text() + (bBareName ? "" : "!"));
        if (arguments.size() < 2) {
            return nullptr;
        }
        auto pState = std::make_shared<agent::CProcessState>();
        pState->dwStatus = static_cast<std::uint32_t>(std::stoul(arguments[1]));
        m_running.emplace(m_qwNowMs + std::stoull(arguments[0]), pState);
        return pState;
    }
    void StartMessageCommands(const CVariables& variables) override {
        for (const auto& [strName, strValue] : variables) {
            started.push_back(strName + "=" + strValue);
        }
    }
    void Tick(std::uint64_t qwNowMs) override {
        m_qwNowMs = qwNowMs;
        for (; !m_running.empty() && m_running.begin()->first <= qwNowMs;
             m_running.erase(m_running.begin())) {
            m_running.begin()->second->bEnded = true;
        }
    }
    std::optional<std::uint64_t> DueMs(std::uint64_t /*qwNowMs*/) const override {
        return m_running.empty() ? std::nullopt : std::optional(m_running.begin()->first);
    }
    std::vector<std::string> started;

  private:
    std::uint64_t m_qwNowMs = 0;
    std::multimap<std::uint64_t, std::shared_ptr<agent::CProcessState>> m_running;
};

constexpr std::uint64_t READ_MS = 10;
constexpr std::uint64_t LINK_UP_MS = READ_MS + 300;
constexpr std::uint64_t LINK_DOWN_MS = READ_MS;

class Services : public testing::Test {
  protected:
    Services() {
        s.onOptions = [this](agent::CDeviceOptions& options) { options.system = system; };
        system.bAllowExec = true;
        system.pProcesses = pProcesses;
        system.strName = "handheld";
        system.lpNotice = [this](const std::string& strLine) { notices.push_back(strLine); };
        s.StartAgent();
    }
    // The result of an operation, and the virtual time that it took, its link's up and down left
    // out.
    template <class F>
    DWORD Timed(F operation) {
        const std::uint64_t qwBegin = world.NowMs();
        const DWORD dwResult = operation();
        qwTookMs = world.NowMs() - qwBegin - LINK_UP_MS - LINK_DOWN_MS;
        EXPECT_EQ(s.dak->GetLastError(), dwResult);
        return dwResult;
    }
    DWORD Control(DWORD dwCode, Bytes input, Bytes& output, DWORD* lpdwReturned) {
        return Timed([&] {
            return s.dak->DAKKernelIoControl(dwCode, input.data(), static_cast<DWORD>(input.size()),
                                             output.data(), static_cast<DWORD>(output.size()),
                                             lpdwReturned);
        });
    }

    sim::CWorld world;
    std::shared_ptr<CTimedProcesses> pProcesses = std::make_shared<CTimedProcesses>();
    std::vector<std::string> notices;
    agent::CSystemOptions system; // what the next StartAgent gives to the device
    CScenario s{world};
    std::uint64_t qwTookMs = 0;
};

TEST_F(Services, ProgramsInVirtualTime) {
    // Nobody waits: the program starts at once, and the one read comes half a second later.
    EXPECT_EQ(
        Timed([&] { return s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("60000 9"), nullptr); }),
        0u);
    EXPECT_EQ(qwTookMs, READ_MS + 500 + READ_MS);
    EXPECT_EQ(Timed([&] { return s.dak->DAKCreateProcess(DAK_WIDE("a"), nullptr, nullptr); }),
              DAKERROR_FAIL);
    EXPECT_EQ(qwTookMs, READ_MS + 500 + READ_MS);

    // The caller is back when the program ends: within a read that waits for it, or at the first
    // one behind the pause. Behind the acknowledgement reads and pauses take turns.
    const std::uint64_t qwReadMs = READ_MS + 18 + 500;
    const std::uint64_t qwTryMs = qwReadMs + 500;
    for (const std::uint64_t qwRunsMs : {0U, 400U, 530U, 600U, 1500U, 3'600'000U}) {
        const std::uint64_t qwBehindAckMs = std::max(qwRunsMs, 2 * READ_MS) - READ_MS;
        const std::uint64_t qwInTryMs = qwBehindAckMs % qwTryMs;
        const std::uint64_t qwTakesMs =
            READ_MS + qwBehindAckMs + (qwInTryMs < qwReadMs ? 0 : qwTryMs - qwInTryMs + READ_MS);
        DWORD dwStatus = 0;
        const std::string strLine = std::to_string(qwRunsMs) + " 7";
        EXPECT_EQ(Timed([&] {
                      return s.dak->DAKCreateProcess(
                          DAK_WIDE("\\d\\b"),
                          std::basic_string<WCHAR>(strLine.begin(), strLine.end()).c_str(),
                          &dwStatus);
                  }),
                  0u);
        EXPECT_EQ(dwStatus, 7u);
        EXPECT_EQ(qwTookMs, qwTakesMs) << qwRunsMs;
    }
    EXPECT_EQ(pProcesses->started.front(), "a");
    EXPECT_EQ(pProcesses->started.back(), "d/b!");
    pProcesses->started.clear();

    DWORD dwStatus = 5;
    EXPECT_EQ(s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("no"), &dwStatus), DAKERROR_FAIL);
    EXPECT_EQ(dwStatus, 0u);
    system.bAllowExec = false;
    s.StartAgent();
    EXPECT_EQ(s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("0 0"), &dwStatus), DAKERROR_FAIL);
    EXPECT_EQ(s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("0 0"), nullptr), DAKERROR_FAIL);
    EXPECT_EQ(pProcesses->started.size(), 1u);
}

TEST_F(Services, ADeviceThatGoesEndsTheWait) {
    DWORD dwStatus = 5;
    world.At(100'000, [this] { world.Unplug(); });
    EXPECT_EQ(s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("3600000 7"), &dwStatus),
              DAKERROR_NO_DEVICE);
    EXPECT_EQ(dwStatus, 5u);
    EXPECT_LT(world.NowMs(), 102'000u);
    // The program goes on, and its end disturbs nobody.
    s.Replug();
    EXPECT_EQ(s.dak->DAKCreateProcess(DAK_WIDE("a"), DAK_WIDE("3600000 8"), &dwStatus), 0u);
    EXPECT_EQ(dwStatus, 8u);
}

TEST_F(Services, Echo) {
    for (const std::size_t dwSize : {0U, 1U, 17U, 12'270U, 12'288U, 12'289U, 100'000U, 500'000U}) {
        const Bytes input = sim::Pattern(dwSize, 3);
        Bytes output(dwSize + 1, 0xEE);
        DWORD dwReturned = 77;
        EXPECT_EQ(Control(1, input, output, &dwReturned), 0u) << dwSize;
        EXPECT_EQ(qwTookMs, READ_MS * (dwSize == 0 ? 2 : 3)) << dwSize;
        EXPECT_EQ(dwReturned, dwSize);
        EXPECT_TRUE(std::equal(input.begin(), input.end(), output.begin())) << dwSize;
        EXPECT_EQ(output.back(), 0xEE);
    }
    // Zeroes where a header would have its length.
    Bytes zeroes(300);
    Bytes output(300, 0xEE);
    EXPECT_EQ(Control(1, zeroes, output, nullptr), 0u);
    EXPECT_EQ(output, zeroes);

    output.assign(4, 0xEE);
    DWORD dwReturned = 77;
    EXPECT_EQ(Control(1, sim::Pattern(5, 1), output, &dwReturned), DAKERROR_FAIL);
    EXPECT_EQ(dwReturned, 0u);
    EXPECT_EQ(output, Bytes(4, 0xEE));
    EXPECT_EQ(Control(99, {}, output, &dwReturned), DAKERROR_FAIL);
    // Nobody reads a response where there is no place for output.
    Bytes none;
    EXPECT_EQ(Control(1, {1}, none, &dwReturned), DAKERROR_FAIL);
    EXPECT_EQ(qwTookMs, READ_MS);
    EXPECT_EQ(Control(1, {1}, output, &dwReturned), 0u);

    output.assign(18, 0xEE);
    EXPECT_EQ(Control(3, {}, output, &dwReturned), 0u);
    EXPECT_EQ(dwReturned, 18u);
    EXPECT_EQ(output, sim::Text(DAK_WIDE("handheld")));
    // The link is up, the command on its way: so old is the device.
    output.assign(8, 0xEE);
    const std::uint64_t qwAskedMs = world.NowMs() + LINK_UP_MS;
    EXPECT_EQ(Control(4, {}, output, &dwReturned), 0u);
    EXPECT_GE(agent::DakGetU64(output.data()), qwAskedMs - READ_MS);
    EXPECT_LE(agent::DakGetU64(output.data()), qwAskedMs + READ_MS);
}

TEST_F(Services, TheLinkGoesAndComesBack) {
    // The device shows itself to the host as its core says.
    const auto follow = [this](const auto& self) -> void {
        s.Core().SetTime(world.NowMs());
        if (!s.Core().LinkUp()) {
            world.Unplug();
        } else {
            s.Replug();
        }
        world.At(world.NowMs() + 100, [self] { self(self); });
    };
    follow(follow);
    Bytes output(1);
    EXPECT_EQ(Control(5, {0x88, 0x13, 0, 0}, output, nullptr), 0u); // 5000 ms
    const std::uint64_t qwAnsweredMs = world.NowMs();
    EXPECT_EQ(s.dak->ConnectDevice(), 0u) << "a second passes before";
    platform::Sleep(1000);
    while (s.dak->ConnectDevice() != 0 && world.NowMs() < qwAnsweredMs + 60'000) {
        EXPECT_EQ(s.dak->GetLastError(), DAKERROR_NO_DEVICE);
        platform::Sleep(100);
    }
    EXPECT_GT(world.NowMs(), qwAnsweredMs + 5900);
    EXPECT_LT(world.NowMs(), qwAnsweredMs + 8000);
}

TEST_F(Services, Messages) {
    DWORD dwFirst = 0;
    DWORD dwSecond = 0;
    EXPECT_EQ(Timed([&] { return s.dak->DAKRegisterWindowMessage(DAK_WIDE("first"), &dwFirst); }),
              0u);
    EXPECT_EQ(qwTookMs, 2 * READ_MS);
    EXPECT_EQ(s.dak->DAKRegisterWindowMessage(DAK_WIDE("second"), &dwSecond), 0u);
    EXPECT_EQ(dwFirst, 0xC000u);
    EXPECT_EQ(dwSecond, 0xC001u);
    EXPECT_EQ(s.dak->DAKRegisterWindowMessage(DAK_WIDE("first"), &dwSecond), 0u);
    EXPECT_EQ(dwSecond, dwFirst);
    EXPECT_EQ(Timed([&] { return s.dak->DAKBroadCastMessage(dwFirst, 0xFFFFFFFF, -3); }), 0u);
    EXPECT_EQ(qwTookMs, 2 * READ_MS);
    EXPECT_EQ(notices,
              std::vector<std::string>{"message 0xC000 \"first\" wParam 4294967295 lParam -3"});
    EXPECT_EQ(pProcesses->started,
              (std::vector<std::string>{"DAK_MESSAGE=49152", "DAK_MESSAGE_NAME=first",
                                        "DAK_WPARAM=4294967295", "DAK_LPARAM=-3"}));
    EXPECT_EQ(
        s.dak->DAKRegisterWindowMessage(std::basic_string<WCHAR>(256, 'x').c_str(), &dwSecond),
        DAKERROR_FAIL);
}

} // namespace
