// I/O controls: the agent answers a few itself and hands none on.
#include "agent/copy_files.h"
#include "agent/device.h"
#include "agent/operations.h"
#include "agent/prompt_exchange.h"

namespace agent {

namespace {

using Bytes = std::vector<std::uint8_t>;

bool Echo(CDevice&, const Bytes& input, Bytes& output) {
    output = input;
    return true;
}

// As texts travel in commands, with the terminator.
bool PutText(const std::string& strText, Bytes& output) {
    const std::optional<std::u16string> strWide = ToUtf16(strText);
    if (!strWide) {
        return false;
    }
    output.resize(2 * (strWide->size() + 1));
    for (std::size_t i = 0; i < strWide->size(); ++i) {
        DakPutU16(output.data() + 2 * i, (*strWide)[i]);
    }
    return true;
}

bool AgentVersion(CDevice& device, const Bytes&, Bytes& output) {
    return PutText(device.System().Version(), output);
}

bool DeviceName(CDevice& device, const Bytes&, Bytes& output) {
    return PutText(device.System().Name(), output);
}

bool Uptime(CDevice& device, const Bytes&, Bytes& output) {
    output.resize(8);
    DakPutU64(output.data(), device.System().UptimeMs());
    return true;
}

bool DropLink(CDevice& device, const Bytes& input, Bytes&) {
    return input.size() == 4 && device.System().DropLink(DakGetU32(input.data()));
}

struct CControl {
    std::uint32_t dwCode;
    bool (*lpWork)(CDevice& device, const Bytes& input, Bytes& output);
};

constexpr CControl s_controls[] = {
    {1, Echo}, {2, AgentVersion}, {3, DeviceName}, {4, Uptime}, {5, DropLink},
};

class CKernelIoControl final : public CPromptExchange {
  public:
    CKernelIoControl(CDevice& device, std::uint32_t dwCode, Bytes input, std::uint32_t nOutSize)
        : m_device(device), m_dwCode(dwCode), m_input(std::move(input)), m_nOutSize(nOutSize) {}

    bool Ended() const override { return m_bEnded; }

  private:
    void Work() override {
        for (const CControl& control : s_controls) {
            if (control.dwCode == m_dwCode) {
                m_bDone = control.lpWork(m_device, m_input, m_output);
            }
        }
        if (m_output.size() > m_nOutSize) {
            m_output.clear();
            m_bDone = false;
        }
        m_device.Log("i/o control " + std::to_string(m_dwCode) +
                     (m_bDone ? "" : ": not known or refused"));
        m_bEnded = m_nOutSize == 0; // no host waits for a response
    }

    // The output follows the response bare, and is read by itself.
    void Respond(COutbox& outbox) override {
        if (m_nOutSize == 0) {
            return;
        }
        outbox.PutResult(DAK_FUNC_KERNEL_IO_CONTROL, m_bDone ? 1 : 0,
                         static_cast<std::uint32_t>(m_output.size()));
        if (!m_output.empty()) {
            outbox.Put(std::move(m_output));
        }
        m_bEnded = true;
    }

    CDevice& m_device;
    const std::uint32_t m_dwCode;
    const Bytes m_input;
    const std::uint32_t m_nOutSize;
    Bytes m_output;
    bool m_bDone = false;
    bool m_bEnded = false;
};

} // namespace

// The present content of the host's output buffer comes along; no control looks at it.
std::unique_ptr<CExchange> OpenKernelIoControl(CDevice& device, CPayload payload) {
    std::uint32_t dwCode = 0;
    std::uint32_t nInSize = 0;
    std::uint32_t nOutSize = 0;
    if (!payload.TakeU32(dwCode) || !payload.TakeU32(nInSize) || payload.Rest().size() < nInSize) {
        return nullptr;
    }
    const std::span<const std::uint8_t> input = payload.Rest().first(nInSize);
    CPayload behind(payload.Rest().subspan(nInSize));
    if (!behind.TakeU32(nOutSize) || behind.Rest().size() != nOutSize) {
        return nullptr;
    }
    return std::make_unique<CKernelIoControl>(device, dwCode, Bytes(input.begin(), input.end()),
                                              nOutSize);
}

} // namespace agent
