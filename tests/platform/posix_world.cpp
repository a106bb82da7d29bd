// This system under the contract tests of the seam, with a small device at the other end of the
// socket.
#include "tests/platform/contract_world.h"
#include "tests/platform/posix_tools.h"
#include "tests/platform/real_world.h"

#include <poll.h>

#include <atomic>
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
                m_bOpen = false;
            } else if (polled[1].revents != 0 && !TakeMessage(*pHost)) {
                pHost.reset();
            }
            if (pHost != nullptr && m_bOpen) {
                Answer(*pHost);
            }
        }
    }

    bool TakeMessage(const CUsbipEnd& host) {
        m_header = host.Take(usbip::HEADER_SIZE);
        if (m_header.empty()) {
            return false;
        }
        if (Word(usbip::OFFSET_COMMAND) == usbip::CMD_UNLINK) {
            host.Send(Unlinked(Word(usbip::OFFSET_SEQNUM), m_bOpen ? usbip::STATUS_UNLINKED : 0));
            m_bOpen = false;
            return true;
        }
        m_bOpen = true;
        if (Word(usbip::OFFSET_DIRECTION) == usbip::DIRECTION_OUT) {
            m_data = host.Take(Word(usbip::OFFSET_BUFFER_LENGTH));
        }
        return true;
    }

    // Answers the open transfer if that can be.
    void Answer(const CUsbipEnd& host) {
        const std::uint32_t dwSeqnum = Word(usbip::OFFSET_SEQNUM);
        const std::uint32_t dwLength = Word(usbip::OFFSET_BUFFER_LENGTH);
        const auto offer = m_peer.Offer();
        if (Word(usbip::OFFSET_DIRECTION) == usbip::DIRECTION_OUT) {
            if (m_peer.Takes()) {
                m_peer.TakePackage(m_data);
                host.Send(Submitted(dwSeqnum, dwLength));
                m_bOpen = false;
            }
        } else if (!offer.empty()) {
            const auto bytes = offer.first(std::min<std::size_t>(dwLength, offer.size()));
            host.Send(Answered(dwSeqnum, Bytes(bytes.begin(), bytes.end())));
            m_peer.OfferTaken(bytes.size());
            m_bOpen = false;
        }
    }

    std::uint32_t Word(std::size_t nOffset) const {
        return usbip::GetU32(m_header.data() + nOffset);
    }

    device_test::IPeer& m_peer;
    const CAttachment m_attachment{g_devices.strFolder};
    // The latest message with the bytes behind it, and whether its transfer is open.
    Bytes m_header;
    Bytes m_data;
    bool m_bOpen = false;
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
