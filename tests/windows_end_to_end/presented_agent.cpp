#include "tests/windows_end_to_end/presented_agent.h"

#include <algorithm>

namespace windows_end_to_end {

CPresentedAgent::CPresentedAgent(agent::CDeviceOptions options)
    : m_pAgentDevice([&] {
          options.lpLog = [this](const std::string& strLine) { Note(strLine); };
          options.system.lpNotice = options.lpLog;
          std::string strError;
          std::unique_ptr<agent::CDevice> pDevice = agent::CDevice::Open(options, strError);
          device_test::Require(pDevice != nullptr, strError.c_str());
          return pDevice;
      }()),
      m_pCore(std::make_unique<agent::CAgentCore>(*m_pAgentDevice)), m_device(*this) {}

void CPresentedAgent::HangAt(const CPoint& point) {
    m_device.Settle(); // what the host has written and taken by now is counted
    const std::lock_guard hold(m_mutex);
    m_point = point;
    m_point->nPackage += Count(point.eDirection);
    m_qwTakenBefore = m_qwToDevice;
}

bool CPresentedAgent::HasStopped() {
    const std::lock_guard hold(m_mutex);
    return m_eLife != ELife::Works;
}

std::uint64_t CPresentedAgent::Taken() {
    const std::lock_guard hold(m_mutex);
    return m_qwToDevice - m_qwTakenBefore;
}

void CPresentedAgent::GoOn() {
    {
        const std::lock_guard hold(m_mutex);
        m_eLife = ELife::Works;
        m_point.reset();
    }
    m_device.Settle();
}

void CPresentedAgent::SetPlugged(bool bPlugged) {
    m_device.SetPlugged(bPlugged);
    if (bPlugged) {
        GoOn();
    }
}

bool CPresentedAgent::Says(const std::string& strText) {
    const std::lock_guard hold(m_logMutex);
    return std::ranges::any_of(m_log, [&](const std::string& strLine) {
        return strLine.find(strText) != std::string::npos;
    });
}

void CPresentedAgent::Note(const std::string& strLine) {
    const std::lock_guard hold(m_logMutex);
    m_log.push_back(strLine);
}

std::uint64_t& CPresentedAgent::Count(EDirection eDirection) {
    return eDirection == EDirection::ToHost ? m_qwToHost : m_qwToDevice;
}

// Whether the point lies at the next package of a direction.
bool CPresentedAgent::IsNext(EDirection eDirection) {
    return m_point && m_point->eDirection == eDirection &&
           Count(eDirection) + 1 == m_point->nPackage;
}

// What the host has written before the point is still answered.
bool CPresentedAgent::IsAtPoint() {
    return IsNext(EDirection::ToHost)
               ? m_point->dwHostHas == 0 && !m_pCore->NextBytes().empty()
               : IsNext(EDirection::ToDevice) && m_pCore->NextBytes().empty();
}

void CPresentedAgent::StopAtPoint() {
    if (IsAtPoint()) {
        m_eLife = m_point->bUnplugs ? ELife::Unplugged : ELife::Hangs;
        m_point.reset();
    }
}

void CPresentedAgent::SetTime(std::uint64_t qwNowMs) {
    const std::lock_guard hold(m_mutex);
    if (m_eLife == ELife::Hangs) {
        return;
    }
    if (m_bHostGone) {
        m_bHostGone = false;
        m_pCore->HostGone();
    }
    m_pCore->SetTime(qwNowMs);
    StopAtPoint(); // what the host has written or taken is always followed by the time
}

std::optional<std::uint64_t> CPresentedAgent::NextDueMs() {
    const std::lock_guard hold(m_mutex);
    return m_eLife != ELife::Hangs ? m_pCore->NextDueMs() : std::nullopt;
}

bool CPresentedAgent::IsAttached() {
    const std::lock_guard hold(m_mutex);
    return m_eLife != ELife::Unplugged && m_pCore->LinkUp();
}

bool CPresentedAgent::Takes() {
    const std::lock_guard hold(m_mutex);
    // A host that has a package in part may write at once, and the device is to hang by then.
    const bool bInPart = IsNext(EDirection::ToHost) && !m_pCore->NextBytes().empty();
    return m_eLife == ELife::Works && !IsNext(EDirection::ToDevice) && !bInPart;
}

void CPresentedAgent::TakePackage(std::span<const std::uint8_t> package) {
    const std::lock_guard hold(m_mutex);
    ++m_qwToDevice;
    m_pCore->TakePackage(package);
}

std::span<const std::uint8_t> CPresentedAgent::Offer() {
    const std::lock_guard hold(m_mutex);
    if (m_eLife != ELife::Works) {
        return {};
    }
    const std::span<const std::uint8_t> next = m_pCore->NextBytes();
    return IsNext(EDirection::ToHost) ? next.first(std::min(next.size(), m_point->dwHostHas))
                                      : next;
}

void CPresentedAgent::OfferTaken(std::size_t dwBytes) {
    const std::lock_guard hold(m_mutex);
    std::vector<std::uint8_t> taken(dwBytes);
    m_pCore->GiveBytes(taken);
    if (IsNext(EDirection::ToHost)) {
        m_point->dwHostHas = 0;
    } else {
        ++m_qwToHost;
    }
}

void CPresentedAgent::HostGone() {
    const std::lock_guard hold(m_mutex);
    m_bHostGone = true;
}

} // namespace windows_end_to_end
