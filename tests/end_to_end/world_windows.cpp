#include "tests/end_to_end/world.h"

#include "agent/agent_core.h"
#include "tests/platform/presented_device.h"
#include "tests/support/memory_device.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <mutex>

namespace end_to_end {
namespace {

// Packages pass whole, and what the presented device asks comes from a thread of its own.
class CDevice final : public IDevice, private device_test::IPeer {
  public:
    CDevice() {
        m_memory.disks["card"] = test::CMemoryDevice::DISK_SIZE;
        const DWORD dwMHz = 200; // no delays inside the streams
        EXPECT_EQ(::RegSetKeyValueA(HKEY_LOCAL_MACHINE,
                                    "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", "~MHz",
                                    REG_DWORD, &dwMHz, sizeof(dwMHz)),
                  ERROR_SUCCESS);
    }

    void Plug() override {
        agent::CDeviceOptions options;
        options.strRoot = m_memory.strRoot;
        options.storages = {{"Card", "card"}};
        options.qwQuota = 20'000'000;
        options.bAllowFormat = true;
        options.system.bAllowExec = true;
        options.system.lpNotice = [this](const std::string& strLine) { m_strNotices += strLine; };
        std::string strError;
        m_pAgent = agent::CDevice::Open(options, strError);
        ASSERT_TRUE(m_pAgent) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pAgent);
        m_left = {UINT64_MAX, UINT64_MAX};
        m_pNode = std::make_unique<device_test::CPresentedDevice>(static_cast<IPeer&>(*this));
    }
    void Unplug() override {
        m_pNode.reset();
        m_pCore.reset();
        m_pAgent.reset();
    }
    void HoldAfter(EWay way, std::uint64_t qwBytes) override {
        Limit(way == EWay::ToDevice ? qwBytes : UINT64_MAX,
              way == EWay::ToHost ? qwBytes : UINT64_MAX);
    }
    bool Holds() const override {
        const std::lock_guard hold(m_mutex);
        return m_left[0] == 0 || m_left[1] == 0;
    }
    void GoOn() override { Limit(UINT64_MAX, UINT64_MAX); }

    TREE Files() const override {
        const std::lock_guard hold(m_mutex);
        return m_memory.Files();
    }
    void Write(const TREE& files) override {
        const std::lock_guard hold(m_mutex);
        for (const auto& [strName, strBytes] : files) {
            m_memory.Write(strName, strBytes);
        }
    }
    bool Says(const std::string& strText) const override {
        const std::lock_guard hold(m_mutex);
        return m_strNotices.find(strText) != std::string::npos;
    }

  private:
    void SetTime(std::uint64_t qwNowMs) override {
        const std::lock_guard hold(m_mutex);
        if (!Holds()) {
            m_pCore->SetTime(qwNowMs);
        }
        const auto programs = m_memory.Programs();
        for (std::size_t i = 0; i < programs.size(); ++i) {
            m_memory.EndProgram(i,
                                static_cast<std::uint32_t>(std::stoul(programs[i].arguments[0])));
        }
    }
    bool IsAttached() override {
        const std::lock_guard hold(m_mutex);
        return m_pCore->LinkUp();
    }
    bool Takes() override {
        const std::lock_guard hold(m_mutex);
        return !Holds();
    }
    void TakePackage(std::span<const std::uint8_t> package) override {
        const std::lock_guard hold(m_mutex);
        m_pCore->TakePackage(package);
        Passed(0, package.size());
    }
    std::span<const std::uint8_t> Offer() override {
        const std::lock_guard hold(m_mutex);
        return Holds() ? std::span<const std::uint8_t>() : m_pCore->NextBytes();
    }
    void OfferTaken(std::size_t dwBytes) override {
        const std::lock_guard hold(m_mutex);
        std::vector<std::uint8_t> taken(dwBytes);
        m_pCore->GiveBytes(taken);
        Passed(1, dwBytes);
    }
    void HostGone() override {
        const std::lock_guard hold(m_mutex);
        m_pCore->HostGone();
    }
    void Limit(std::uint64_t qwToDevice, std::uint64_t qwToHost) {
        m_pNode->Settle(); // what has passed by now does not count
        {
            const std::lock_guard hold(m_mutex);
            m_left = {qwToDevice, qwToHost};
        }
        m_pNode->Settle();
    }
    void Passed(std::size_t nWay, std::uint64_t qwBytes) {
        m_left[nWay] -= m_left[nWay] == UINT64_MAX ? 0 : std::min(m_left[nWay], qwBytes);
    }

    mutable std::recursive_mutex m_mutex; // of what follows
    test::CMemoryDevice m_memory;
    std::array<std::uint64_t, 2> m_left{}; // by EWay
    std::string m_strNotices;
    std::unique_ptr<agent::CDevice> m_pAgent;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::unique_ptr<device_test::CPresentedDevice> m_pNode; // last: its thread uses the others
};

// The console of this process alone, which does not heed its Ctrl-C: that is for what it starts.
class CConsole final : public ITerminal {
  public:
    CSurroundings ForProgram() const override {
        return {.streams = {::_open("CONIN$", _O_RDWR), ::_open("CONOUT$", _O_RDWR),
                            ::_open("CONOUT$", _O_RDWR)}};
    }
    void Type(const std::string& strKeys) override {
        if (strKeys == "\3") {
            EXPECT_TRUE(::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
            return;
        }
        for (const wchar_t chKey : test::PathOf(strKeys).wstring()) {
            INPUT_RECORD record{.EventType = KEY_EVENT, .Event = {}};
            record.Event.KeyEvent.bKeyDown = TRUE;
            record.Event.KeyEvent.wRepeatCount = 1;
            record.Event.KeyEvent.wVirtualKeyCode = chKey == L'\r' ? VK_RETURN : 0;
            record.Event.KeyEvent.uChar.UnicodeChar = chKey == L'\4' ? L'\x1A' : chKey;
            DWORD dwWritten = 0;
            EXPECT_TRUE(::WriteConsoleInputW(HandleOf(m_nKeys), &record, 1, &dwWritten));
        }
    }
    // The rows down to the cursor.
    std::string Shown() override {
        CONSOLE_SCREEN_BUFFER_INFO info{};
        ::GetConsoleScreenBufferInfo(HandleOf(m_nScreen), &info);
        std::string strShown;
        for (SHORT nRow = 0; nRow <= info.dwCursorPosition.Y; ++nRow) {
            std::wstring strRow(100, L' ');
            DWORD dwRead = 0;
            ::ReadConsoleOutputCharacterW(HandleOf(m_nScreen), strRow.data(), 100, {0, nRow},
                                          &dwRead);
            strShown += "\n" + test::NameOf(strRow.substr(0, strRow.find_last_not_of(L' ') + 1));
        }
        return strShown;
    }

    static bool Make() {
        ::FreeConsole();
        ::AllocConsole();
        const int nScreen = ::_open("CONOUT$", _O_RDWR);
        const SMALL_RECT window{0, 0, 99, 24};
        ::SetConsoleScreenBufferSize(HandleOf(nScreen), {100, 300});
        ::SetConsoleWindowInfo(HandleOf(nScreen), TRUE, &window);
        ::_close(nScreen);
        return ::SetConsoleCtrlHandler([](DWORD) -> BOOL { return TRUE; }, TRUE) != FALSE;
    }

  private:
    static HANDLE HandleOf(int nStream) {
        return reinterpret_cast<HANDLE>(::_get_osfhandle(nStream));
    }
    const int m_nKeys = ::_open("CONIN$", _O_RDWR);
    const int m_nScreen = ::_open("CONOUT$", _O_RDWR);
};
const bool g_bConsole = CConsole::Make();

} // namespace

const std::vector<ETrouble> g_copyTroubles = {ETrouble::Cancelled, ETrouble::EndedAtOnce,
                                              ETrouble::Killed, ETrouble::Unplugged};
const std::vector<std::uint64_t> g_copyMoments = {640'000};
const std::vector<std::pair<EWay, std::uint64_t>> g_commandMoments = {
    {EWay::ToDevice, 0}, {EWay::ToDevice, 20}, {EWay::ToDevice, 30},
    {EWay::ToHost, 0},   {EWay::ToHost, 20},   {EWay::ToHost, 28}};
const int g_nOtherInterrupt = SIGINT;

std::unique_ptr<IDevice> MakeDevice(const test::CTempFolder& folder) {
    std::filesystem::create_directory(folder / "host");
    return std::make_unique<CDevice>();
}

std::unique_ptr<ITerminal> MakeTerminal() {
    EXPECT_TRUE(g_bConsole);
    return std::make_unique<CConsole>();
}

std::string PathOfProgram(const std::string& strName) {
    std::array<wchar_t, MAX_PATH> szProgram{};
    ::GetModuleFileNameW(nullptr, szProgram.data(), MAX_PATH);
    return test::NameOf(std::filesystem::path(szProgram.data()).parent_path() / (strName + ".exe"));
}

} // namespace end_to_end
