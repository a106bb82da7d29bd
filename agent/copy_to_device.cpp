// Copy to the device: the stream holds a count and then so many file records. A record may be cut
// anywhere, so it is read by a parser that takes whatever bytes there are. A file that may not be
// written is passed over, and those behind it are stored; where there is no room, or the records
// have lost their order, the rest is dropped.
#include <algorithm>
#include <array>

#include "agent/copy_files.h"
#include "agent/device.h"
#include "agent/stream_receiver.h"

namespace agent {

namespace {

// What one write brings at most, and what a file costs beside its bytes.
constexpr std::size_t s_dwPiece = std::size_t{64} << 10;
constexpr unsigned s_nFileSteps = 4;

class CFileSink final : public CStreamSink {
  public:
    CFileSink(CDevice& device, const std::u16string& strDest)
        : m_device(device), m_dest(CDevicePath::Parse(strDest)) {}

    ~CFileSink() override { Close(); }

    std::size_t Apply(std::span<const std::uint8_t> data) override;
    std::int32_t End() override;
    std::int32_t GiveUp(std::int32_t nResult) override;

  private:
    enum class EField { COUNT, HEAD, NAME, CONTENTS, NOTHING };

    void TakeFixed(std::span<const std::uint8_t>& data);
    void TakeFields(std::span<const std::uint8_t> field);
    void TakeName(std::span<const std::uint8_t>& data);
    void TakeContents(std::span<const std::uint8_t>& data);
    void BeginFile();
    EResult BeginPart();
    void EndFile();
    void NextRecord();
    void Fail(EResult eResult, const std::string& strWhy);
    void Break(const std::string& strWhy);
    void Close();

    CDevice& m_device;
    const std::optional<CDevicePath> m_dest;
    std::int32_t m_nResult = 1;
    bool m_bBroken = false; // what comes is dropped

    EField m_eField = EField::COUNT;
    std::array<std::uint8_t, RECORD_HEAD_SIZE> m_fixed{}; // a field of fixed size, so far
    std::size_t m_dwFixed = 0;
    std::u16string m_strName;
    std::string m_strPath;    // for the log
    bool m_bHalfUnit = false; // m_fixed[0] holds the low byte of a character
    std::uint32_t m_dwFilesLeft = 0;
    std::uint32_t m_nFilesDone = 0;

    std::uint64_t m_qwSize = 0;
    std::uint64_t m_qwLeft = 0;
    CFileTimes m_times;
    std::unique_ptr<CPartFile> m_pPart; // null where the file is passed over
};

void CFileSink::Close() {
    m_pPart.reset();
    m_device.Folder().EndParts();
}

// The file in work cannot be stored.
void CFileSink::Fail(EResult eResult, const std::string& strWhy) {
    m_pPart.reset();
    m_nResult = eResult == EResult::NO_SPACE ? DAK_RESULT_NO_SPACE : DAK_RESULT_REFUSED;
    m_device.Log("copy to the device: " + strWhy + " (" + std::to_string(m_nResult) + ")");
    if (eResult == EResult::NO_SPACE) {
        m_bBroken = true;
        Close();
    }
}

// What follows cannot be told from its place in the stream.
void CFileSink::Break(const std::string& strWhy) {
    Fail(EResult::REFUSED, strWhy);
    m_bBroken = true;
    Close();
}

std::size_t CFileSink::Apply(std::span<const std::uint8_t> data) {
    const std::size_t dwAll = data.size();
    for (bool bOver = false; !data.empty() && !m_bBroken && !bOver;) {
        switch (m_eField) {
        case EField::COUNT:
        case EField::HEAD:
            TakeFixed(data);
            break;
        case EField::NAME:
            TakeName(data);
            break;
        case EField::CONTENTS:
            TakeContents(data);
            break;
        case EField::NOTHING:
            Break("more data than announced");
            break;
        }
        bOver = m_device.Slice().Over() || m_device.Folder().MustWait();
    }
    return m_bBroken ? dwAll : dwAll - data.size();
}

void CFileSink::TakeFixed(std::span<const std::uint8_t>& data) {
    const std::size_t dwWanted = m_eField == EField::COUNT ? 4 : RECORD_HEAD_SIZE;
    const std::size_t dwCount = std::min(dwWanted - m_dwFixed, data.size());
    std::copy_n(data.begin(), dwCount, m_fixed.begin() + static_cast<std::ptrdiff_t>(m_dwFixed));
    data = data.subspan(dwCount);
    m_dwFixed += dwCount;
    if (m_dwFixed == dwWanted) {
        m_dwFixed = 0;
        TakeFields(m_fixed);
    }
}

void CFileSink::TakeFields(std::span<const std::uint8_t> field) {
    if (m_eField == EField::COUNT) {
        m_dwFilesLeft = DakGetU32(field.data());
        NextRecord();
        return;
    }
    m_qwSize = DakGetU64(field.data());
    m_times = {DakGetU64(field.data() + 8), DakGetU64(field.data() + 16)};
    m_strName.clear();
    m_eField = EField::NAME;
}

void CFileSink::TakeName(std::span<const std::uint8_t>& data) {
    while (!data.empty()) {
        const std::uint8_t byNext = data[0];
        data = data.subspan(1);
        if (!m_bHalfUnit) {
            m_fixed[0] = byNext;
            m_bHalfUnit = true;
            continue;
        }
        m_bHalfUnit = false;
        const auto unit = static_cast<char16_t>(m_fixed[0] | (byNext << 8));
        if (unit == 0) {
            BeginFile();
            return;
        }
        m_strName.push_back(unit);
        if (m_strName.size() == DAK_MAX_NAME) {
            Break("a name is too long");
            return;
        }
    }
}

void CFileSink::BeginFile() {
    const EResult eResult = BeginPart();
    if (eResult != EResult::SUCCESS) {
        Fail(eResult, m_strPath + ": cannot be made");
    }
    m_qwLeft = m_qwSize;
    m_eField = EField::CONTENTS;
    if (m_qwLeft == 0) {
        EndFile();
    }
}

EResult CFileSink::BeginPart() {
    const std::optional<CDevicePath> path =
        m_dest ? m_dest->Below(m_strName) : std::optional<CDevicePath>();
    if (!path || *path == *m_dest) {
        m_strPath = ToUtf8(m_strName).value_or("?");
        return EResult::REFUSED;
    }
    m_strPath = path->Text();
    return m_qwSize > UINT32_MAX ? EResult::REFUSED
                                 : m_device.Folder().BeginPart(*path, m_qwSize, m_pPart);
}

void CFileSink::TakeContents(std::span<const std::uint8_t>& data) {
    const auto dwCount = static_cast<std::size_t>(
        std::min<std::uint64_t>(m_qwLeft, std::min(data.size(), s_dwPiece)));
    m_device.Slice().Spend(static_cast<unsigned>(dwCount / 1024));
    const EResult eResult = m_pPart ? m_pPart->Write(data.first(dwCount)) : EResult::SUCCESS;
    if (eResult != EResult::SUCCESS) {
        Fail(eResult, m_strPath + ": cannot be written");
    }
    data = data.subspan(dwCount);
    m_qwLeft -= dwCount;
    if (m_qwLeft == 0) {
        EndFile();
    }
}

void CFileSink::EndFile() {
    m_device.Slice().Spend(s_nFileSteps);
    const EResult eResult = m_pPart ? m_pPart->Complete(m_times) : EResult::SUCCESS;
    if (eResult != EResult::SUCCESS) {
        Fail(eResult, m_strPath + ": cannot take its name");
    }
    m_nFilesDone += m_pPart ? 1U : 0U;
    m_pPart.reset();
    --m_dwFilesLeft;
    NextRecord();
}

void CFileSink::NextRecord() {
    m_eField = m_dwFilesLeft == 0 ? EField::NOTHING : EField::HEAD;
}

// The host leaves out files that it cannot open, so that a stream may end ahead of its count, but
// only between two records.
std::int32_t CFileSink::End() {
    const bool bBetween =
        (m_eField == EField::HEAD && m_dwFixed == 0) || m_eField == EField::NOTHING;
    if (!bBetween && !m_bBroken) {
        Break("the stream ends within a record");
    }
    m_device.Log("copy to the device: " + std::to_string(m_nFilesDone) + " files");
    Close();
    return m_nResult;
}

std::int32_t CFileSink::GiveUp(std::int32_t nResult) {
    if (m_nResult > 0) {
        m_nResult = nResult;
        m_device.Log("copy to the device: cut short");
    }
    m_bBroken = true;
    Close();
    return m_nResult;
}

} // namespace

std::unique_ptr<CExchange> OpenCopyToDevice(CDevice& device, const std::u16string& strDest) {
    return std::make_unique<CStreamReceiver>(DAK_FUNC_TRANSMIT_FILES,
                                             std::make_unique<CFileSink>(device, strDest));
}

} // namespace agent
