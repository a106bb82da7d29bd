// This system under the contract tests of the seam: temporary folders, the real clock, and a small
// device of the tests' own at the other end of the socket.
#include "platform/posix/usbip.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/device_attachment.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace contract {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Serves one host at a time on a thread of its own: it holds what it is to give until it is asked,
// and answers a write when it has taken it.
class CDevice {
  public:
    explicit CDevice(const std::string& strDeviceFolder)
        : m_attachment(strDeviceFolder), m_nWake(::eventfd(0, EFD_CLOEXEC)),
          m_thread([this] { Serve(); }) {}
    ~CDevice() {
        Change([this] { m_bEnd = true; });
        m_thread.join();
        ::close(m_nWake);
    }
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    void Gives(Bytes package) {
        Change([&] { m_gives.push_back(std::move(package)); });
    }
    void Takes(bool bTakes) {
        Change([&] { m_bTakes = bTakes; });
    }
    std::vector<Bytes> Took() {
        const std::lock_guard hold(m_mutex);
        return m_took;
    }

  private:
    struct CPending {
        std::uint32_t dwSeqnum;
        bool bIn;
        std::uint32_t dwLength;
        Bytes data;
    };

    template <class CHANGE>
    void Change(CHANGE change) {
        {
            const std::lock_guard hold(m_mutex);
            change();
        }
        ::eventfd_write(m_nWake, 1);
    }

    void Serve() {
        int nHost = -1;
        for (;;) {
            pollfd polled[3] = {
                {m_nWake, POLLIN, 0}, {m_attachment.Listener(), POLLIN, 0}, {nHost, POLLIN, 0}};
            ::poll(polled, 3, -1);
            const std::lock_guard hold(m_mutex);
            if (m_bEnd) {
                break;
            }
            if (polled[0].revents != 0) {
                eventfd_t nCount = 0;
                ::eventfd_read(m_nWake, &nCount);
            }
            if (polled[1].revents != 0) {
                ::close(nHost);
                nHost = ::accept4(m_attachment.Listener(), nullptr, nullptr, SOCK_CLOEXEC);
                m_in.clear();
                m_pending.clear();
                m_bImported = false;
            } else if (polled[2].revents != 0 && !TakeBytes(nHost)) {
                ::close(nHost);
                nHost = -1;
            }
            Answer(nHost);
        }
        ::close(nHost);
    }

    bool TakeBytes(int nHost) {
        std::uint8_t buffer[16384];
        const ssize_t nRead = ::recv(nHost, buffer, sizeof(buffer), 0);
        if (nRead <= 0) {
            return false;
        }
        m_in.insert(m_in.end(), buffer, buffer + nRead);
        while (TakeMessage(nHost)) {
        }
        return true;
    }

    bool TakeMessage(int nHost) {
        if (!m_bImported) {
            if (m_in.size() < usbip::OP_REQ_IMPORT_SIZE) {
                return false;
            }
            m_in.erase(m_in.begin(), m_in.begin() + usbip::OP_REQ_IMPORT_SIZE);
            Send(nHost, device_test::ImportReply());
            m_bImported = true;
            return true;
        }
        if (m_in.size() < usbip::HEADER_SIZE) {
            return false;
        }
        const std::uint32_t dwSeqnum = usbip::GetU32(m_in.data() + usbip::OFFSET_SEQNUM);
        std::size_t nSize = usbip::HEADER_SIZE;
        if (usbip::GetU32(m_in.data() + usbip::OFFSET_COMMAND) == usbip::CMD_UNLINK) {
            Unlink(nHost, dwSeqnum, usbip::GetU32(m_in.data() + usbip::OFFSET_UNLINK_SEQNUM));
        } else {
            CPending pending{dwSeqnum,
                             usbip::GetU32(m_in.data() + usbip::OFFSET_DIRECTION) ==
                                 usbip::DIRECTION_IN,
                             usbip::GetU32(m_in.data() + usbip::OFFSET_BUFFER_LENGTH),
                             {}};
            nSize += pending.bIn ? 0 : pending.dwLength;
            if (m_in.size() < nSize) {
                return false;
            }
            pending.data.assign(m_in.begin() + usbip::HEADER_SIZE,
                                m_in.begin() + static_cast<std::ptrdiff_t>(nSize));
            m_pending.push_back(std::move(pending));
            Answer(nHost);
        }
        m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(nSize));
        return true;
    }

    void Unlink(int nHost, std::uint32_t dwSeqnum, std::uint32_t dwVictim) {
        const auto nGone =
            std::erase_if(m_pending, [&](const CPending& p) { return p.dwSeqnum == dwVictim; });
        Send(nHost, device_test::Answer(usbip::RET_UNLINK, dwSeqnum,
                                        nGone != 0 ? usbip::STATUS_UNLINKED : 0));
    }

    // Answers of the open transfers those that can be.
    void Answer(int nHost) {
        while (nHost >= 0 && !m_pending.empty()) {
            CPending& pending = m_pending.front();
            if (pending.bIn ? m_gives.empty() : !m_bTakes) {
                return;
            }
            std::size_t nActual = pending.dwLength;
            Bytes data;
            if (pending.bIn) {
                Bytes& package = m_gives.front();
                nActual = std::min(nActual, package.size());
                const auto end = package.begin() + static_cast<std::ptrdiff_t>(nActual);
                data.assign(package.begin(), end);
                package.erase(package.begin(), end);
                if (package.empty()) {
                    m_gives.pop_front();
                }
            } else {
                m_took.push_back(std::move(pending.data));
            }
            Send(nHost, device_test::Answer(usbip::RET_SUBMIT, pending.dwSeqnum, 0,
                                            static_cast<std::uint32_t>(nActual), data));
            m_pending.pop_front();
        }
    }

    static void Send(int nHost, const Bytes& bytes) {
        // A host that has gone is noticed at the next read.
        static_cast<void>(::send(nHost, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    device_test::CAttachment m_attachment;
    int m_nWake;
    std::mutex m_mutex;
    bool m_bEnd = false;
    bool m_bTakes = true;
    bool m_bImported = false;
    std::deque<Bytes> m_gives;
    std::vector<Bytes> m_took;
    std::deque<CPending> m_pending;
    Bytes m_in;
    std::thread m_thread; // last: it uses the others
};

struct CWorld {
    device_test::CTempFolder files;
    device_test::CTempFolder devices;
    device_test::CEnvironment deviceFolder{"DAK_DEVICE_DIR", devices.Path().c_str()};
    device_test::CEnvironment cpuMHz{"DAK_CPU_MHZ", nullptr};
    std::unique_ptr<CDevice> pDevice;
};

CWorld* g_pWorld = nullptr;

} // namespace

void InWorld(const std::function<void()>& body) {
    CWorld world;
    g_pWorld = &world;
    body();
    g_pWorld = nullptr;
}

std::string Folder() {
    return g_pWorld->files.Path();
}

bool CreationTimesAreKept() {
    return true;
}

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void SetCpuMHz(std::optional<DWORD> dwMHz) {
    dwMHz ? ::setenv("DAK_CPU_MHZ", std::to_string(*dwMHz).c_str(), 1) : ::unsetenv("DAK_CPU_MHZ");
}

void PlugDevice() {
    g_pWorld->pDevice = std::make_unique<CDevice>(g_pWorld->devices.Path());
}

void UnplugDevice() {
    g_pWorld->pDevice.reset();
}

void DeviceGives(std::vector<std::uint8_t> package) {
    g_pWorld->pDevice->Gives(std::move(package));
}

std::vector<std::vector<std::uint8_t>> DeviceTook() {
    return g_pWorld->pDevice->Took();
}

void DeviceTakes(bool bTakes) {
    g_pWorld->pDevice->Takes(bTakes);
}

} // namespace contract
