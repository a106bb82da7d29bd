#include "agent/posix/usbip_server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

namespace agent {

// How long accepting rests when the system has no descriptor left.
static constexpr int s_nAcceptPauseMs = 100;

std::uint64_t CUsbipServer::NowMs() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count());
}

CUsbipServer::CUsbipServer(CAgentCore& core, int fdListen, bool bPrompt,
                           std::function<void(const std::string&)> lpLog)
    : m_core(core), m_fdListen(fdListen), m_bPrompt(bPrompt), m_lpLog(std::move(lpLog)) {}

CUsbipServer::~CUsbipServer() {
    DropHost("the agent ends");
}

void CUsbipServer::Log(const std::string& strLine) const {
    if (m_lpLog) {
        m_lpLog(strLine);
    }
}

void CUsbipServer::DropHost(const char* lpszWhy) {
    if (m_pHost) {
        m_pHost.reset();
        m_core.HostGone();
        Log(std::string("host left: ") + lpszWhy);
    }
}

void CUsbipServer::Accept() {
    for (;;) {
        CFd fd(::accept4(m_fdListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) {
            m_bAcceptPaused =
                errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            return;
        }
        if (m_newcomers.size() == s_nMostNewcomers) {
            m_newcomers.pop_front();
        }
        m_newcomers.push_back(std::make_unique<CUsbipConnection>(std::move(fd)));
    }
}

void CUsbipServer::ServeNewcomers() {
    for (std::size_t i = 0; i < m_newcomers.size();) {
        CUsbipConnection& newcomer = *m_newcomers[i];
        const bool bOpen = newcomer.Fill();
        const CUsbipConnection::EImport eImport = newcomer.LookForImport();
        if (eImport == CUsbipConnection::EImport::ASKED) {
            DropHost("another connection takes the device");
            m_pHost = std::move(m_newcomers[i]);
            m_pHost->AnswerImport(m_bPrompt);
            Log("host came");
        }
        if (eImport != CUsbipConnection::EImport::WAITING || !bOpen) {
            m_newcomers.erase(m_newcomers.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            ++i;
        }
        if (eImport == CUsbipConnection::EImport::ASKED) {
            ServeHost(false);
        }
    }
}

void CUsbipServer::ServeHost(bool bReadable) {
    if (bReadable && !m_pHost->Fill()) {
        DropHost("connection closed");
    } else if (const char* lpszWhy = m_pHost->Work(m_core)) {
        DropHost(lpszWhy);
    }
}

// Until the core wants to be told the time; -1 when it does not.
static int CoreTimeoutMs(const CAgentCore& core) {
    const std::optional<std::uint64_t> qwDueMs = core.NextDueMs();
    if (!qwDueMs) {
        return -1;
    }
    const std::uint64_t qwNowMs = CUsbipServer::NowMs();
    const std::uint64_t qwLeftMs = *qwDueMs > qwNowMs ? *qwDueMs - qwNowMs : 0;
    return static_cast<int>(std::min<std::uint64_t>(qwLeftMs, 3'600'000));
}

int CUsbipServer::PollTimeoutMs() const {
    const int nDueMs = CoreTimeoutMs(m_core);
    if (!m_bAcceptPaused) {
        return nDueMs;
    }
    return nDueMs < 0 ? s_nAcceptPauseMs : std::min(nDueMs, s_nAcceptPauseMs);
}

bool CUsbipServer::AwaitLink(CAgentCore& core, int fdStop) {
    for (core.SetTime(NowMs()); !core.LinkUp(); core.SetTime(NowMs())) {
        pollfd fd{fdStop, POLLIN, 0};
        if (::poll(&fd, 1, CoreTimeoutMs(core)) > 0) {
            return false;
        }
    }
    return true;
}

bool CUsbipServer::Run(int fdStop) {
    std::vector<pollfd> fds;
    m_core.SetTime(NowMs());
    for (;;) {
        fds.clear();
        fds.push_back({fdStop, POLLIN, 0});
        fds.push_back({m_bAcceptPaused ? -1 : m_fdListen, POLLIN, 0});
        short nHostEvents = 0;
        if (m_pHost) {
            nHostEvents = static_cast<short>((m_pHost->WantsInput() ? POLLIN : 0) |
                                             (m_pHost->WantsOutput() ? POLLOUT : 0));
        }
        fds.push_back({m_pHost ? m_pHost->Fd() : -1, nHostEvents, 0});
        for (const auto& pNewcomer : m_newcomers) {
            fds.push_back({pNewcomer->Fd(), POLLIN, 0});
        }
        const int nReady = ::poll(fds.data(), fds.size(), PollTimeoutMs());
        if (nReady < 0 && errno != EINTR) {
            Log(std::string("poll: ") + std::strerror(errno));
            return false;
        }
        m_core.SetTime(NowMs());
        if (nReady <= 0) {
            m_bAcceptPaused = false;
            for (pollfd& fd : fds) {
                fd.revents = 0;
            }
        }
        if (fds[0].revents != 0) {
            return true;
        }
        if (!m_core.LinkUp()) {
            DropHost("the device drops its link");
            return true;
        }
        if (m_pHost) {
            // POLLHUP alone is found out by the read that follows.
            ServeHost((fds[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0);
        }
        if (std::any_of(fds.begin() + 3, fds.end(), [](const pollfd& fd) { return fd.revents; })) {
            ServeNewcomers();
        }
        if (fds[1].revents != 0) {
            Accept();
            ServeNewcomers();
        }
    }
}

} // namespace agent
