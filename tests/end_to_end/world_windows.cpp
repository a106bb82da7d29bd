#include "tests/end_to_end/world.h"

#include "agent/agent_core.h"
#include "tests/platform/presented_device.h"
#include "tests/support/memory_device.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <limits>
#include <mutex>

namespace end_to_end {
namespace {

constexpr std::uint64_t NO_LIMIT = std::numeric_limits<std::uint64_t>::max();

} // namespace

const std::vector<std::uint64_t> CWorld::MOMENTS = {640'000};
const std::vector<std::pair<EWay, std::uint64_t>> CWorld::OF_A_COMMAND = {
    {EWay::ToDevice, 0}, {EWay::ToDevice, 20}, {EWay::ToDevice, 30}, {EWay::ToHost, 0},
    {EWay::ToHost, 20},  {EWay::ToHost, 28},   {EWay::ToHost, 128}};
const int CWorld::OTHER_INTERRUPT = SIGINT;

// The core lets a package pass at a time: to the device whole, to the host also its first bytes.
class CWorld::CDevice final : public device_test::IPeer {
  public:
    void Plug() {
        agent::CDeviceOptions options{.strRoot = memory.strRoot, .storages = {{"Card", "card"}}};
        options.qwQuota = 20'000'000;
        options.bAllowFormat = true;
        options.system.bAllowExec = true;
        options.system.lpNotice = [this](const std::string& strLine) { strNotices += strLine; };
        std::string strError;
        m_pAgent = agent::CDevice::Open(options, strError);
        ASSERT_TRUE(m_pAgent) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pAgent);
        m_pNode = std::make_unique<device_test::CPresentedDevice>(*this);
    }
    void Unplug() {
        m_pNode.reset();
        m_pCore.reset();
        m_pAgent.reset();
        left = {NO_LIMIT, NO_LIMIT};
    }
    void HoldAfter(std::array<std::uint64_t, 2> limits) {
        m_pNode->Settle(); // what has passed by now does not count
        {
            const std::lock_guard hold(mutex);
            left = limits;
        }
        m_pNode->Settle();
    }
    bool Holds() const { return left[0] == 0 || left[1] == 0; }

    mutable std::mutex mutex; // of all that follows, in every call
    test::CMemoryDevice memory;
    std::array<std::uint64_t, 2> left = {NO_LIMIT, NO_LIMIT}; // by EWay
    std::string strNotices;

  private:
    void SetTime(std::uint64_t qwNowMs) override {
        const std::lock_guard hold(mutex);
        if (!Holds()) {
            m_pCore->SetTime(qwNowMs);
        }
        const auto programs = memory.Programs();
        for (std::size_t i = 0; i < programs.size(); ++i) {
            memory.EndProgram(i, static_cast<std::uint32_t>(std::stoul(programs[i].arguments[0])));
        }
    }
    std::optional<std::uint64_t> NextDueMs() override {
        const std::lock_guard hold(mutex);
        return Holds() ? std::nullopt : m_pCore->NextDueMs();
    }
    bool IsAttached() override {
        const std::lock_guard hold(mutex);
        return m_pCore->LinkUp();
    }
    bool Takes() override {
        const std::lock_guard hold(mutex);
        return !Holds();
    }
    void TakePackage(std::span<const std::uint8_t> package) override {
        const std::lock_guard hold(mutex);
        m_pCore->TakePackage(package);
        Passed(0, package.size());
    }
    std::span<const std::uint8_t> Offer() override {
        const std::lock_guard hold(mutex);
        const auto next = Holds() ? std::span<const std::uint8_t>() : m_pCore->NextBytes();
        return next.first(std::min<std::uint64_t>(next.size(), left[1]));
    }
    void OfferTaken(std::size_t dwBytes) override {
        const std::lock_guard hold(mutex);
        std::vector<std::uint8_t> taken(dwBytes);
        m_pCore->GiveBytes(taken);
        Passed(1, dwBytes);
    }
    void HostGone() override {
        const std::lock_guard hold(mutex);
        m_pCore->HostGone();
    }
    void Passed(std::size_t nWay, std::uint64_t qwBytes) {
        left[nWay] -= left[nWay] == NO_LIMIT ? 0 : std::min(left[nWay], qwBytes);
    }

    std::unique_ptr<agent::CDevice> m_pAgent;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::unique_ptr<device_test::CPresentedDevice> m_pNode; // last: its thread uses the others
};

CWorld::CWorld() : m_pDevice(std::make_unique<CDevice>()) {
    std::filesystem::create_directory(folder / "host");
    m_pDevice->memory.disks["card"] = test::CMemoryDevice::DISK_SIZE;
    const DWORD dwMHz = 200; // no delays inside the streams
    EXPECT_EQ(::RegSetKeyValueA(HKEY_LOCAL_MACHINE,
                                "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", "~MHz",
                                REG_DWORD, &dwMHz, sizeof(dwMHz)),
              ERROR_SUCCESS);
}

CWorld::~CWorld() = default;

void CWorld::Plug() {
    m_pDevice->Plug();
}

void CWorld::Unplug() {
    m_pDevice->Unplug();
}

void CWorld::HoldAfter(EWay way, std::uint64_t qwBytes) {
    m_pDevice->HoldAfter(way == EWay::ToDevice ? std::array{qwBytes, NO_LIMIT}
                                               : std::array{NO_LIMIT, qwBytes});
}

bool CWorld::Holds() const {
    const std::lock_guard hold(m_pDevice->mutex);
    return m_pDevice->Holds();
}

void CWorld::GoOn() {
    m_pDevice->HoldAfter({NO_LIMIT, NO_LIMIT});
}

bool CWorld::DeviceSays(const std::string& strText) const {
    const std::lock_guard hold(m_pDevice->mutex);
    return m_pDevice->strNotices.find(strText) != std::string::npos;
}

TREE CWorld::Files() const {
    const std::lock_guard hold(m_pDevice->mutex);
    return m_pDevice->memory.Files();
}

void CWorld::WriteFiles(const TREE& files) {
    const std::lock_guard hold(m_pDevice->mutex);
    for (const auto& [strName, strBytes] : files) {
        m_pDevice->memory.Write(strName, strBytes);
    }
}

std::string CWorld::ProgramOf(const std::string& strName) {
    std::array<wchar_t, MAX_PATH> szProgram{};
    ::GetModuleFileNameW(nullptr, szProgram.data(), MAX_PATH);
    return test::NameOf(std::filesystem::path(szProgram.data()).parent_path() / (strName + ".exe"));
}

// Of this process alone, which does not heed its Ctrl-C: that is meant for what it starts.
static const BOOL g_bConsole = [] {
    ::FreeConsole();
    ::AllocConsole();
    const HANDLE hScreen = ::CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_WRITE,
                                         nullptr, OPEN_EXISTING, 0, nullptr);
    ::SetConsoleScreenBufferSize(hScreen, {100, 300});
    ::CloseHandle(hScreen);
    return ::SetConsoleCtrlHandler([](DWORD) WINAPI -> BOOL { return TRUE; }, TRUE);
}();

CTerminal::CTerminal() : m_nOurs(::_open("CONOUT$", _O_RDWR)) {
    EXPECT_TRUE(g_bConsole && m_nOurs >= 0);
}

CTerminal::~CTerminal() {
    ::_close(m_nOurs);
}

CSurroundings CTerminal::ForProgram() const {
    return {.streams = {::_open("CONIN$", _O_RDWR), ::_open("CONOUT$", _O_RDWR),
                        ::_open("CONOUT$", _O_RDWR)}};
}

void CTerminal::Type(const std::string& strKeys) {
    if (strKeys == "\x03") {
        EXPECT_TRUE(::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
        return;
    }
    const int nKeys = ::_open("CONIN$", _O_RDWR);
    for (const wchar_t chKey : test::PathOf(strKeys).wstring()) {
        INPUT_RECORD record{};
        record.EventType = KEY_EVENT;
        record.Event.KeyEvent = {TRUE, 1,  static_cast<WORD>(chKey == L'\r' ? VK_RETURN : 0),
                                 0,    {}, 0};
        record.Event.KeyEvent.uChar.UnicodeChar = chKey == L'\x04' ? L'\x1A' : chKey;
        DWORD dwWritten = 0;
        EXPECT_TRUE(::WriteConsoleInputW(reinterpret_cast<HANDLE>(::_get_osfhandle(nKeys)), &record,
                                         1, &dwWritten));
    }
    ::_close(nKeys);
}

// The screen's rows down to the cursor.
std::string CTerminal::Shown() {
    const auto hScreen = reinterpret_cast<HANDLE>(::_get_osfhandle(m_nOurs));
    CONSOLE_SCREEN_BUFFER_INFO info{};
    ::GetConsoleScreenBufferInfo(hScreen, &info);
    std::string strShown;
    for (SHORT nRow = 0; nRow <= info.dwCursorPosition.Y; ++nRow) {
        std::wstring strRow(100, L' ');
        DWORD dwRead = 0;
        ::ReadConsoleOutputCharacterW(hScreen, strRow.data(), 100, {0, nRow}, &dwRead);
        strRow.resize(strRow.find_last_not_of(L' ') + 1);
        strShown += (nRow > 0 ? "\n" : "") + test::NameOf(strRow);
    }
    return strShown;
}

} // namespace end_to_end
