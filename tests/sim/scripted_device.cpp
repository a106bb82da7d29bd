#include "tests/sim/scripted_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

constexpr std::size_t BYTES_SHOWN = 96;

// The bytes around the first place where the two differ.
std::string Row(const Bytes& bytes, std::size_t dwDifference) {
    const std::size_t dwFirst = dwDifference < BYTES_SHOWN / 2 ? 0 : dwDifference - BYTES_SHOWN / 2;
    std::string strRow = std::to_string(bytes.size()) + " bytes";
    strRow += dwFirst == 0 ? ":" : ", from " + std::to_string(dwFirst) + ":";
    for (std::size_t i = dwFirst; i < std::min(bytes.size(), dwFirst + BYTES_SHOWN); ++i) {
        char szByte[8];
        std::snprintf(szByte, sizeof(szByte), i == dwDifference ? " [%02X]" : " %02X", bytes[i]);
        strRow += szByte;
    }
    return strRow;
}

void Compare(const Bytes& expected, const Bytes& got, int nStep, std::uint64_t qwMs) {
    if (expected == got) {
        return;
    }
    const auto [itLeft, itRight] =
        std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    const auto dwAt = static_cast<std::size_t>(itLeft - expected.begin());
    ADD_FAILURE() << "step " << nStep << ", " << qwMs << " ms: packages differ at byte " << dwAt
                  << "\n  expected " << Row(expected, dwAt) << "\n  got      " << Row(got, dwAt);
}

} // namespace

CScriptedDevice::CScriptedDevice(CWorld& world, bool bPlugged) : m_world(world) {
    if (bPlugged) {
        m_world.Plug(*this);
    }
}

CScriptedDevice::~CScriptedDevice() {
    Finish();
    m_world.Unplug(*this);
}

void CScriptedDevice::Finish() {
    if (!m_steps.empty()) {
        ADD_FAILURE() << m_steps.size() << " steps of the script are left, from step "
                      << m_steps.front().nNumber << " of " << m_nSteps << " on, at "
                      << m_world.NowMs() << " ms";
        m_steps.clear();
    }
}

CScriptedDevice::CStep& CScriptedDevice::AddStep() {
    m_steps.push_back({});
    m_steps.back().nNumber = ++m_nSteps;
    return m_steps.back();
}

CScriptedDevice& CScriptedDevice::Expect(Bytes package) {
    const int nStep = m_nSteps + 1;
    return ExpectThat([this, nStep, expected = std::move(package)](const Bytes& got) {
        Compare(expected, got, nStep, m_qwNowMs);
    });
}

CScriptedDevice& CScriptedDevice::ExpectThat(std::function<void(const Bytes&)> check) {
    AddStep().take = std::move(check);
    return *this;
}

CScriptedDevice& CScriptedDevice::ExpectHandshake(std::uint32_t dwWord) {
    return ExpectHandshake(dwWord, Handshake(dwWord, dwVersion));
}

CScriptedDevice& CScriptedDevice::ExpectHandshake(std::uint32_t dwWord, Bytes reply) {
    const int nStep = m_nSteps + 1;
    ExpectThat([this, nStep, dwWord, answer = std::move(reply)](const Bytes& got) {
        Compare(Handshake(dwWord), got, nStep, m_qwNowMs);
        if (bHandshakeDrops) {
            Drop();
        }
        if (!answer.empty()) {
            Give(answer);
        }
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
    if (it == m_steps.rend()) {
        ADD_FAILURE() << "no step of the script waits for a package at " << qwMs << " ms";
    } else {
        it->qwAtMs = qwMs;
    }
    return *this;
}

CScriptedDevice& CScriptedDevice::ReplyAfter(std::uint64_t qwMs, Bytes package) {
    return Do([this, qwMs, reply = std::move(package)] { Give(reply, qwMs); });
}

CScriptedDevice& CScriptedDevice::DropPending() {
    return Do([this] { Drop(); });
}

CScriptedDevice& CScriptedDevice::Vanish() {
    return Do([this] { m_world.Unplug(*this); });
}

CScriptedDevice& CScriptedDevice::VanishAfter(std::uint64_t qwMs) {
    return Do([this, qwMs] {
        m_world.At(m_world.NowMs() + qwMs, [&world = m_world] { world.Unplug(); });
    });
}

CScriptedDevice& CScriptedDevice::VanishAtQuestion(std::uint64_t nNumber) {
    return Do([this, nNumber] { m_world.UnplugAtQuestion(nNumber); });
}

CScriptedDevice& CScriptedDevice::Do(std::function<void()> action) {
    AddStep().action = std::move(action);
    RunActions();
    return *this;
}

void CScriptedDevice::Give(Bytes package, std::uint64_t qwAfterMs) {
    const std::uint64_t qwDue = m_world.NowMs() + qwAfterMs;
    m_pending.push_back({std::move(package), 0, qwDue});
    m_world.PeerChanged();
}

// Runs the steps that do not wait, up to the next one that does.
void CScriptedDevice::RunActions() {
    while (!m_steps.empty() && m_steps.front().action) {
        const auto action = std::move(m_steps.front().action);
        m_steps.pop_front();
        action();
    }
}

void CScriptedDevice::CheckTime(const CStep& step) {
    if (step.qwAtMs && *step.qwAtMs != m_qwNowMs) {
        ADD_FAILURE() << "step " << step.nNumber << " came at " << m_qwNowMs << " ms and not at "
                      << *step.qwAtMs << " ms";
    }
}

// Answers a handshake that the script does not ask for.
bool CScriptedDevice::Served(const Bytes& package) {
    const std::uint32_t dwWord =
        package.size() == DAK_HANDSHAKE_SIZE ? DakGetU32(package.data()) : 0;
    const bool bInScript = !m_steps.empty() && m_steps.front().dwHandshake == dwWord;
    if (!m_bServeHandshakes || bInScript || (dwWord != DAK_CONNECT && dwWord != DAK_DISCONNECT)) {
        return false;
    }
    Compare(Handshake(dwWord), package, 0, m_qwNowMs);
    m_handshakes.push_back({package, m_qwNowMs});
    if (bHandshakeDrops) {
        Drop();
    }
    Give(Handshake(dwWord, dwVersion));
    return true;
}

bool CScriptedDevice::TakePackage(std::span<const std::uint8_t> package) {
    const Bytes bytes(package.begin(), package.end());
    if (!m_steps.empty() && m_steps.front().bDoNotTake) {
        return false;
    }
    if (Served(bytes)) {
        return true;
    }
    m_packages.push_back({bytes, m_qwNowMs});
    if (!m_steps.empty()) {
        const CStep step = std::move(m_steps.front());
        m_steps.pop_front();
        CheckTime(step);
        step.take(bytes);
    } else if (onPackage) {
        onPackage(bytes);
    } else {
        ADD_FAILURE() << m_qwNowMs << " ms: no step waits for this package\n  got "
                      << Row(bytes, bytes.size());
    }
    RunActions();
    return true;
}

void CScriptedDevice::TransferStopped(bool bWrite) {
    if (bWrite && !m_steps.empty() && m_steps.front().bDoNotTake) {
        CheckTime(m_steps.front());
        m_steps.pop_front();
        RunActions();
    }
}

std::optional<std::size_t> CScriptedDevice::GiveBytes(std::span<std::uint8_t> buffer) {
    if (m_pending.empty() || m_pending.front().qwDueMs > m_qwNowMs) {
        return {};
    }
    CPending& pending = m_pending.front();
    const std::size_t dwCount = std::min(buffer.size(), pending.bytes.size() - pending.dwTaken);
    if (dwCount > 0) {
        std::memcpy(buffer.data(), pending.bytes.data() + pending.dwTaken, dwCount);
    }
    pending.dwTaken += dwCount;
    if (pending.dwTaken == pending.bytes.size()) {
        m_pending.pop_front();
    }
    return dwCount;
}

std::optional<std::uint64_t> CScriptedDevice::NextDueMs() {
    return m_pending.empty() || m_pending.front().qwDueMs <= m_qwNowMs
               ? std::nullopt
               : std::optional(m_pending.front().qwDueMs);
}

void CScriptedDevice::Opened() {
    ++m_nOpens;
    ++m_nOpenNow;
}

} // namespace sim
