#include "tests/sim/scripted_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>

namespace sim {

namespace {

constexpr std::size_t BYTES_SHOWN = 96;

// The bytes around the first place where the two differ.
std::string Row(const Bytes& bytes, std::size_t dwDifference) {
    const std::size_t dwFirst = dwDifference < BYTES_SHOWN / 2 ? 0 : dwDifference - BYTES_SHOWN / 2;
    std::ostringstream row;
    row << bytes.size() << " bytes, from " << dwFirst << ":" << std::hex << std::setfill('0');
    for (std::size_t i = dwFirst; i < std::min(bytes.size(), dwFirst + BYTES_SHOWN); ++i) {
        row << (i == dwDifference ? " >" : " ") << std::setw(2) << unsigned{bytes[i]};
    }
    return row.str();
}

} // namespace

CScriptedDevice::~CScriptedDevice() {
    EXPECT_EQ(m_steps.size(), 0u) << "steps of the script are left, of " << m_nSteps << ", at "
                                  << m_world.NowMs() << " ms";
    m_world.Unplug(*this);
}

void CScriptedDevice::Compare(const Bytes& expected, const Bytes& got, int nStep) const {
    const auto itDifference =
        std::mismatch(expected.begin(), expected.end(), got.begin(), got.end()).first;
    const auto dwAt = static_cast<std::size_t>(itDifference - expected.begin());
    EXPECT_TRUE(expected == got) << "step " << nStep << ", " << m_world.NowMs()
                                 << " ms: packages differ at byte " << dwAt << "\n  expected "
                                 << Row(expected, dwAt) << "\n  got      " << Row(got, dwAt);
}

CScriptedDevice::CStep& CScriptedDevice::AddStep() {
    m_steps.push_back({++m_nSteps, false, {}, {}, {}, {}});
    return m_steps.back();
}

CScriptedDevice& CScriptedDevice::Expect(Bytes package) {
    return ExpectThat([this, nStep = m_nSteps + 1, expected = std::move(package)](
                          const Bytes& got) { Compare(expected, got, nStep); });
}

CScriptedDevice& CScriptedDevice::ExpectThat(std::function<void(const Bytes&)> check) {
    AddStep().take = std::move(check);
    return *this;
}

CScriptedDevice& CScriptedDevice::ExpectHandshake(std::uint32_t dwWord, Bytes reply) {
    ExpectThat([this, nStep = m_nSteps + 1, dwWord, answer = std::move(reply)](const Bytes& got) {
        Compare(Handshake(dwWord), got, nStep);
        Answer(answer);
    });
    m_steps.back().dwHandshake = dwWord;
    return *this;
}

CScriptedDevice& CScriptedDevice::DoNotTake() {
    AddStep().bDoNotTake = true;
    return *this;
}

CScriptedDevice& CScriptedDevice::At(std::uint64_t qwMs) {
    const auto it = std::find_if(m_steps.rbegin(), m_steps.rend(),
                                 [](const CStep& step) { return !step.action; });
    it->qwAtMs = qwMs;
    return *this;
}

CScriptedDevice& CScriptedDevice::Do(std::function<void()> action) {
    AddStep().action = std::move(action);
    RunActions();
    return *this;
}

CScriptedDevice& CScriptedDevice::ReplyAfter(std::uint64_t qwMs, Bytes package) {
    return Do([this, qwMs, reply = std::move(package)] { Give(reply, qwMs); });
}

CScriptedDevice& CScriptedDevice::VanishAfter(std::uint64_t qwMs) {
    return Do(
        [&world = m_world, qwMs] { world.At(world.NowMs() + qwMs, [&world] { world.Unplug(); }); });
}

void CScriptedDevice::Give(Bytes package, std::uint64_t qwAfterMs) {
    m_pending.push_back({std::move(package), m_world.NowMs() + qwAfterMs});
    m_world.PeerChanged();
}

// A handshake drops what the host has not taken.
void CScriptedDevice::Answer(const Bytes& reply) {
    m_pending.clear();
    if (!reply.empty()) {
        Give(reply);
    }
}

// Runs the steps that do not wait, up to the next one that does.
void CScriptedDevice::RunActions() {
    while (!m_steps.empty() && m_steps.front().action) {
        TakeStep().action();
    }
}

// The first step, which leaves the script.
CScriptedDevice::CStep CScriptedDevice::TakeStep() {
    CStep step = std::move(m_steps.front());
    m_steps.pop_front();
    if (step.qwAtMs) {
        EXPECT_EQ(m_world.NowMs(), *step.qwAtMs) << "is the time of step " << step.nNumber;
    }
    return step;
}

bool CScriptedDevice::TakePackage(std::span<const std::uint8_t> package) {
    const Bytes bytes(package.begin(), package.end());
    const std::uint32_t dwWord = bytes.size() == DAK_HANDSHAKE_SIZE ? DakGetU32(bytes.data()) : 0;
    if (!m_steps.empty() && m_steps.front().bDoNotTake) {
        return false;
    }
    // A handshake that the script does not ask for.
    if (m_bServeHandshakes && (dwWord == DAK_CONNECT || dwWord == DAK_DISCONNECT) &&
        (m_steps.empty() || m_steps.front().dwHandshake != dwWord)) {
        Compare(Handshake(dwWord), bytes, 0);
        m_handshakes.push_back({bytes, m_world.NowMs()});
        Answer(Handshake(dwWord, DAK_PROTOCOL_VERSION));
        return true;
    }
    if (!m_steps.empty()) {
        TakeStep().take(bytes);
    } else if (onPackage) {
        onPackage(bytes);
    } else {
        ADD_FAILURE() << m_world.NowMs() << " ms: no step waits for this package\n  got "
                      << Row(bytes, bytes.size());
    }
    RunActions();
    return true;
}

void CScriptedDevice::TransferStopped(bool bWrite) {
    if (bWrite && !m_steps.empty() && m_steps.front().bDoNotTake) {
        TakeStep();
        RunActions();
    }
}

std::optional<std::size_t> CScriptedDevice::GiveBytes(std::span<std::uint8_t> buffer) {
    if (m_pending.empty() || m_pending.front().qwMs > m_world.NowMs()) {
        return {};
    }
    Bytes& bytes = m_pending.front().bytes;
    const std::size_t dwCount = std::min(buffer.size(), bytes.size());
    std::copy_n(bytes.begin(), dwCount, buffer.begin());
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(dwCount));
    if (bytes.empty()) {
        m_pending.pop_front();
    }
    return dwCount;
}

std::optional<std::uint64_t> CScriptedDevice::NextDueMs() {
    return m_pending.empty() || m_pending.front().qwMs <= m_qwToldMs
               ? std::nullopt
               : std::optional(m_pending.front().qwMs);
}

void CScriptedDevice::Opened() {
    ++m_nOpens;
    ++m_nOpenNow;
}

} // namespace sim
