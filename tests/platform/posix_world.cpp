// This system under the contract tests of the seam, with a small device at the other end of the
// socket.
#include "tests/platform/contract_world.h"
#include "tests/platform/posix_tools.h"
#include "tests/platform/real_world.h"

#include <poll.h>

#include <thread>

namespace contract {
namespace {

using namespace platform::tests;

const CDeviceFolder g_devices;

// Serves one host at a time on a thread of its own: it holds what it is to give until it is asked,
// and answers a write when it has taken it.
class CSocketDevice final : public CDevice {
  public:
    explicit CSocketDevice(device_test::IPeer& peer) : m_peer(peer) {}
    ~CSocketDevice() override {
        m_bEnd = true;
        m_thread.join();
    }

  private:
    void Serve() {
        std::unique_ptr<CUsbipEnd> pHost;
        while (!m_bEnd) {
            pollfd polled[] = {{m_attachment.nListener, POLLIN, 0},
                               {pHost != nullptr ? pHost->Socket() : -1, POLLIN, 0}};
            ::poll(polled, 2, 1);
            if (polled[0].revents != 0) {
                pHost = std::make_unique<CUsbipEnd>(m_attachment);
                pHost->Take(usbip::OP_REQ_IMPORT_SIZE);
                pHost->Send(ImportReply(usbip::PROTOCOL_PROMPT));
                m_dwOpen = 0;
            } else if (polled[1].revents != 0 && !TakeMessage(*pHost)) {
                pHost.reset();
            }
            if (pHost != nullptr && m_dwOpen != 0) {
                Answer(*pHost);
            }
        }
    }

    bool TakeMessage(const CUsbipEnd& host) {
        const Bytes header = host.Take(usbip::HEADER_SIZE);
        if (header.size() != usbip::HEADER_SIZE) {
            return false;
        }
        const auto word = [&](std::size_t nAt) { return usbip::GetU32(header.data() + nAt); };
        if (word(usbip::OFFSET_COMMAND) == usbip::CMD_UNLINK) {
            host.Send(Unlinked(word(usbip::OFFSET_SEQNUM),
                               std::exchange(m_dwOpen, 0) != 0 ? usbip::STATUS_UNLINKED : 0));
            return true;
        }
        m_dwOpen = word(usbip::OFFSET_SEQNUM);
        m_bIn = word(usbip::OFFSET_DIRECTION) == usbip::DIRECTION_IN;
        m_dwLength = word(usbip::OFFSET_BUFFER_LENGTH);
        m_data = host.Take(m_bIn ? 0 : m_dwLength);
        return true;
    }

    // Answers the open transfer if that can be.
    void Answer(const CUsbipEnd& host) {
        if (m_bIn) {
            const auto offer = m_peer.Offer();
            if (offer.empty()) {
                return;
            }
            const auto bytes = offer.first(std::min<std::size_t>(m_dwLength, offer.size()));
            host.Send(Answered(std::exchange(m_dwOpen, 0), Bytes(bytes.begin(), bytes.end())));
            m_peer.OfferTaken(bytes.size());
        } else if (m_peer.Takes()) {
            m_peer.TakePackage(m_data);
            host.Send(Submitted(std::exchange(m_dwOpen, 0), m_dwLength));
        }
    }

    device_test::IPeer& m_peer;
    const CAttachment m_attachment{g_devices.Path()};
    // The open transfer: its number, or 0 when there is none, and its bytes.
    std::uint32_t m_dwOpen = 0;
    bool m_bIn = false;
    std::uint32_t m_dwLength = 0;
    Bytes m_data;
    std::atomic<bool> m_bEnd = false;
    std::thread m_thread{[this] { Serve(); }}; // last: it uses the others
};

} // namespace

std::unique_ptr<CDevice> PlugIn(device_test::IPeer& peer) {
    return std::make_unique<CSocketDevice>(peer);
}

bool CreationTimesAreKept() {
    return true;
}

} // namespace contract
