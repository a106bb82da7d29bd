// Copy and move on the device: the result word is 1 for success and 0 for failure. The work is
// done in slices, so that a handshake is served meanwhile; it ends the work and leaves everything
// as it was.
#include <utility>

#include "agent/device.h"
#include "agent/operations.h"

namespace agent {

namespace {

class CPathWork final : public CExchange {
  public:
    // Null: refused.
    using Begin = std::function<std::unique_ptr<CFolderWork>(
        CDeviceFolder& folder, const CDevicePath& source, const CDevicePath& target)>;

    CPathWork(CDevice& device, std::uint16_t codeFunc, const char* lpszVerb,
              std::u16string strSource, std::u16string strTarget, Begin begin)
        : m_device(device), m_codeFunc(codeFunc), m_lpszVerb(lpszVerb),
          m_strSource(std::move(strSource)), m_strTarget(std::move(strTarget)),
          m_begin(std::move(begin)) {}

    ~CPathWork() override {
        if (!m_bEnded) {
            Log("given up");
        }
    }

    void Take(std::span<const std::uint8_t>, COutbox&, std::uint64_t) override {}

    void Prepare(COutbox& outbox) override { Advance(outbox); }

    void Tick(COutbox& outbox, std::uint64_t) override {
        if (!m_bEnded) {
            Advance(outbox);
        }
    }

    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override { return qwNowMs + 1; }

    bool Ended() const override { return m_bEnded; }

  private:
    void Advance(COutbox& outbox) {
        if (m_begin) {
            m_source = CDevicePath::Parse(m_strSource);
            m_target = CDevicePath::Parse(m_strTarget);
            m_pWork =
                m_source && m_target ? m_begin(m_device.Folder(), *m_source, *m_target) : nullptr;
            m_begin = nullptr;
        }
        const std::optional<EResult> eResult =
            m_pWork ? m_pWork->Step(m_device.Slice()) : std::optional(EResult::REFUSED);
        if (!eResult) {
            return;
        }
        m_pWork.reset();
        m_bEnded = true;
        Log(*eResult == EResult::SUCCESS    ? nullptr
            : *eResult == EResult::NO_SPACE ? "no room"
                                            : "refused");
        outbox.PutResult(m_codeFunc, *eResult == EResult::SUCCESS ? 1 : 0);
    }

    void Log(const char* lpszWhat) const {
        m_device.Log(std::string(m_lpszVerb) + " " + (m_source ? m_source->Text() : "?") + " to " +
                     (m_target ? m_target->Text() : "?") +
                     (lpszWhat ? ": " + std::string(lpszWhat) : ""));
    }

    CDevice& m_device;
    const std::uint16_t m_codeFunc;
    const char* const m_lpszVerb;
    const std::u16string m_strSource;
    const std::u16string m_strTarget;
    Begin m_begin; // empty once the work has begun
    std::optional<CDevicePath> m_source;
    std::optional<CDevicePath> m_target;
    std::unique_ptr<CFolderWork> m_pWork;
    bool m_bEnded = false;
};

} // namespace

std::unique_ptr<CExchange> OpenMoveFile(CDevice& device, CPayload payload) {
    std::u16string strSource;
    std::u16string strTarget;
    if (!payload.TakeText(strSource, MAX_PATH_CHARS) ||
        !payload.TakeText(strTarget, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPathWork>(
        device, DAK_FUNC_MOVE_FILE, "move", std::move(strSource), std::move(strTarget),
        [](CDeviceFolder& folder, const CDevicePath& source, const CDevicePath& target) {
            return folder.BeginMove(source, target);
        });
}

std::unique_ptr<CExchange> OpenCopyFile(CDevice& device, CPayload payload) {
    std::u16string strSource;
    std::u16string strTarget;
    std::uint32_t bFailIfExists = 0;
    if (!payload.TakeText(strSource, MAX_PATH_CHARS) ||
        !payload.TakeText(strTarget, MAX_PATH_CHARS) || !payload.TakeU32(bFailIfExists) ||
        !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPathWork>(
        device, DAK_FUNC_COPY_FILE, "copy", std::move(strSource), std::move(strTarget),
        [bFailIfExists](CDeviceFolder& folder, const CDevicePath& source,
                        const CDevicePath& target) {
            return folder.BeginCopy(source, target, bFailIfExists != 0);
        });
}

} // namespace agent
