// Files by handle: the streams that read and write at a handle's position.
#include <algorithm>
#include <cstring>

#include "agent/device.h"
#include "agent/operations.h"
#include "agent/stream_receiver.h"
#include "agent/stream_sender.h"

namespace agent {

namespace {

constexpr std::uint64_t s_qwWindow = std::uint64_t{DAK_WINDOW_PACKAGES} * DAK_DATA_SIZE;

// Ahead of the file's bytes: their number.
constexpr std::uint64_t s_qwCount = 4;

// A read: the number of bytes, and the bytes. A window is read from the file in one go when its
// first byte is due, the first one at the command, and kept until the next: what the host has not
// confirmed can thus be given again whatever becomes of the file. What it has confirmed it drops
// unread, so that is taken from the file as it is by then. A file that has been written since the
// command ends the stream ahead of the next window, so that the host never holds a mix.
class CReadSource final : public CStreamSource {
  public:
    CReadSource(CDevice& device, std::uint32_t dwHandle, std::uint32_t dwMost)
        : m_device(device), m_dwHandle(dwHandle), m_dwCount(dwMost) {}

    EWork Begin() override;
    std::uint64_t Length() const override { return s_qwCount + m_dwCount; }
    void Rewind() override { m_qwAt = 0; }
    bool Read(std::span<std::uint8_t>& data) override;
    void Ended(std::uint64_t qwBytes) override;

  private:
    bool FillWindow();
    bool FromFile(std::uint64_t qwAt, std::span<std::uint8_t> data);

    CDevice& m_device;
    const std::uint32_t m_dwHandle;
    std::uint32_t m_dwCount; // asked for, and from Begin on what the file has of it
    CFileHandle* m_pFile = nullptr;
    COpenFile::CState m_state; // at the command
    std::uint64_t m_qwAt = 0;  // in the stream

    std::vector<std::uint8_t> m_window; // of the stream
    std::uint64_t m_qwWindowAt = 0;
};

EWork CReadSource::Begin() {
    m_pFile = m_device.OpenFiles().Find(m_dwHandle);
    const auto state = m_pFile ? m_pFile->pFile->StateForReading() : std::nullopt;
    if (!state) {
        m_device.Log("read handle " + std::to_string(m_dwHandle) + ": refused");
        return EWork::FAILED;
    }
    m_state = *state;
    const std::uint64_t qwThere = m_state.qwSize - std::min(m_state.qwSize, m_pFile->qwPosition);
    m_dwCount = static_cast<std::uint32_t>(std::min<std::uint64_t>(m_dwCount, qwThere));
    return FillWindow() ? EWork::DONE : EWork::FAILED;
}

// Bytes of the stream that come from the file.
bool CReadSource::FromFile(std::uint64_t qwAt, std::span<std::uint8_t> data) {
    const std::size_t dwRead = m_pFile->pFile->Read(m_pFile->qwPosition + qwAt - s_qwCount, data);
    std::fill(data.begin() + static_cast<std::ptrdiff_t>(dwRead), data.end(), std::uint8_t{0});
    return dwRead == data.size();
}

// The window of the stream that begins at m_qwAt.
bool CReadSource::FillWindow() {
    m_qwWindowAt = m_qwAt;
    m_window.resize(static_cast<std::size_t>(std::min(s_qwWindow, Length() - m_qwAt)));
    const std::size_t dwFields = m_qwAt == 0 ? s_qwCount : 0;
    const std::span<std::uint8_t> bytes = std::span(m_window).subspan(dwFields);
    if (dwFields > 0) {
        DakPutU32(m_window.data(), m_dwCount);
    }
    if (!FromFile(m_qwAt + dwFields, bytes) ||
        (m_qwAt > 0 && m_pFile->pFile->StateForReading() != m_state)) {
        m_device.Log("read " + m_pFile->strPath + ": it has changed, or cannot be read");
        m_window.clear();
        return false;
    }
    return true;
}

// The calls come in packages, which end where windows do.
bool CReadSource::Read(std::span<std::uint8_t>& data) {
    bool bHad = true;
    if (m_qwAt < m_qwWindowAt) {
        const std::size_t dwFields =
            m_qwAt == 0 ? std::min<std::size_t>(s_qwCount, data.size()) : 0;
        if (dwFields > 0) {
            DakPutU32(data.data(), m_dwCount);
        }
        bHad = FromFile(m_qwAt + dwFields, data.subspan(dwFields));
    } else {
        if (m_qwAt >= m_qwWindowAt + m_window.size()) {
            bHad = FillWindow();
        }
        bHad = bHad && m_qwAt - m_qwWindowAt + data.size() <= m_window.size();
        if (bHad) {
            std::memcpy(data.data(), m_window.data() + (m_qwAt - m_qwWindowAt), data.size());
        } else {
            std::fill(data.begin(), data.end(), std::uint8_t{0});
        }
    }
    m_qwAt += data.size();
    data = {};
    return bHad;
}

void CReadSource::Ended(std::uint64_t qwBytes) {
    const std::uint64_t qwTaken = qwBytes - std::min(qwBytes, s_qwCount);
    if (m_pFile) {
        m_device.OpenFiles().Find(m_dwHandle); // in use to here
        m_pFile->qwPosition += qwTaken;
        m_device.Log("read " + m_pFile->strPath + ": " + std::to_string(qwTaken) + " bytes");
    }
}

// A write: the file's bytes and nothing else, as many as the command says.
class CWriteSink final : public CStreamSink {
  public:
    CWriteSink(CDevice& device, std::uint32_t dwHandle, std::uint32_t dwAnnounced)
        : m_device(device), m_dwHandle(dwHandle), m_dwLeft(dwAnnounced) {}

    std::size_t Apply(std::span<const std::uint8_t> data) override;
    std::int32_t End() override;
    std::int32_t GiveUp(std::int32_t nResult) override;

  private:
    void Begin();
    void Fail(EResult eResult);

    CDevice& m_device;
    const std::uint32_t m_dwHandle;
    std::uint32_t m_dwLeft;
    CFileHandle* m_pFile = nullptr;
    std::uint64_t m_qwWritten = 0;
    std::int32_t m_nResult = 1;
};

void CWriteSink::Fail(EResult eResult) {
    if (m_nResult > 0) {
        m_nResult = eResult == EResult::NO_SPACE ? DAK_RESULT_NO_SPACE : DAK_RESULT_REFUSED;
    }
}

// Bytes that have no room in the quota are refused before the first of them is written.
void CWriteSink::Begin() {
    m_pFile = m_device.OpenFiles().Find(m_dwHandle);
    const EResult eResult =
        !m_pFile ? EResult::REFUSED
                 : m_pFile->pFile->JudgeWrite(m_dwLeft > 0 ? m_pFile->qwPosition + m_dwLeft : 0);
    if (eResult != EResult::SUCCESS) {
        Fail(eResult);
    }
}

std::size_t CWriteSink::Apply(std::span<const std::uint8_t> data) {
    if (!m_pFile && m_nResult > 0) {
        Begin();
    }
    if (m_nResult <= 0) {
        return data.size();
    }
    const EResult eResult = data.size() > m_dwLeft
                                ? EResult::REFUSED // more than the command has announced
                                : m_pFile->pFile->Write(m_pFile->qwPosition, data);
    if (eResult != EResult::SUCCESS) {
        Fail(eResult);
        return data.size();
    }
    m_device.OpenFiles().Find(m_dwHandle); // in use
    m_pFile->qwPosition += data.size();
    m_qwWritten += data.size();
    m_dwLeft -= static_cast<std::uint32_t>(data.size());
    return data.size();
}

// A package that was lost unnoticed shows in the number of the bytes.
std::int32_t CWriteSink::End() {
    if (m_dwLeft > 0) {
        Fail(EResult::REFUSED);
    }
    m_device.Log("write " + (m_pFile ? m_pFile->strPath : std::string("?")) + ": " +
                 std::to_string(m_qwWritten) + " bytes (" + std::to_string(m_nResult) + ")");
    return m_nResult;
}

std::int32_t CWriteSink::GiveUp(std::int32_t nResult) {
    if (m_nResult > 0) {
        m_nResult = nResult;
        m_device.Log("write handle " + std::to_string(m_dwHandle) + ": cut short behind " +
                     std::to_string(m_qwWritten) + " bytes");
    }
    return m_nResult;
}

// Both commands hold a handle and a number of bytes.
bool TakeHandleAndCount(CPayload payload, std::uint32_t& dwHandle, std::uint32_t& dwCount) {
    return payload.TakeU32(dwHandle) && payload.TakeU32(dwCount) && payload.AtEnd();
}

} // namespace

std::unique_ptr<CExchange> OpenReadFile(CDevice& device, CPayload payload) {
    std::uint32_t dwHandle = 0;
    std::uint32_t dwCount = 0;
    if (!TakeHandleAndCount(payload, dwHandle, dwCount)) {
        return nullptr;
    }
    return std::make_unique<CStreamSender>(
        DAK_FUNC_READ_FILE, std::make_unique<CReadSource>(device, dwHandle, dwCount));
}

std::unique_ptr<CExchange> OpenWriteFile(CDevice& device, CPayload payload) {
    std::uint32_t dwHandle = 0;
    std::uint32_t dwCount = 0;
    if (!TakeHandleAndCount(payload, dwHandle, dwCount)) {
        return nullptr;
    }
    return std::make_unique<CStreamReceiver>(
        DAK_FUNC_WRITE_FILE, std::make_unique<CWriteSink>(device, dwHandle, dwCount));
}

} // namespace agent
