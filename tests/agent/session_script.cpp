#include "session_script.h"

#include <algorithm>
#include <vector>

#include "link/wire.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class CScript {
  public:
    CScript(agent::CAgentCore& core, std::span<const std::uint8_t> script)
        : m_core(core), m_script(script) {}

    void Run() {
        while (!m_script.empty()) {
            Step();
        }
    }

  private:
    std::uint8_t Byte() {
        if (m_script.empty()) {
            return 0;
        }
        const std::uint8_t byNext = m_script[0];
        m_script = m_script.subspan(1);
        return byNext;
    }

    Bytes Some(std::size_t dwMost) {
        const std::size_t dwCount = std::min<std::size_t>(dwMost, m_script.size());
        const Bytes bytes(m_script.begin(),
                          m_script.begin() + static_cast<std::ptrdiff_t>(dwCount));
        m_script = m_script.subspan(dwCount);
        return bytes;
    }

    // A path of a few short components, some of which lead nowhere good.
    void AddPath(Bytes& bytes) {
        static constexpr const char16_t* s_components[] = {
            u"d", u"there", u"new", u"..", u".", u"Card", u"\xD800", u"C:", u".dak-a.part", u"",
        };
        const std::size_t nComponents = Byte() % 4;
        for (std::size_t i = 0; i <= nComponents; ++i) {
            const std::u16string_view strNext = s_components[Byte() % std::size(s_components)];
            for (const char16_t unit : strNext) {
                Add16(bytes, unit);
            }
            if (i < nComponents) {
                Add16(bytes, u'\\');
            }
        }
        Add16(bytes, 0);
    }

    static void Add16(Bytes& bytes, std::uint16_t wValue) {
        bytes.push_back(static_cast<std::uint8_t>(wValue));
        bytes.push_back(static_cast<std::uint8_t>(wValue >> 8));
    }

    static void Add32(Bytes& bytes, std::uint32_t dwValue) {
        Add16(bytes, static_cast<std::uint16_t>(dwValue));
        Add16(bytes, static_cast<std::uint16_t>(dwValue >> 16));
    }

    // Puts the head of a package ahead of its bytes, and damages one in eight.
    void Send(std::uint32_t wCommand, const Bytes& behind) {
        Bytes package(8 + behind.size());
        DakPutHeader(package.data(), wCommand, static_cast<std::uint32_t>(behind.size()));
        std::copy(behind.begin(), behind.end(), package.begin() + 8);
        if (Byte() % 8 == 0) {
            const auto dwAt = static_cast<std::size_t>(Byte() | (Byte() << 8)) % package.size();
            package[dwAt] ^= static_cast<std::uint8_t>(1 + Byte() % 255);
        }
        m_core.TakePackage(package);
    }

    void SendCommand() {
        static constexpr std::uint16_t s_codes[] = {8,  8,  8,  8,  2,  10, 1,  20, 7,
                                                    14, 15, 15, 16, 16, 17, 17, 18, 19,
                                                    6,  23, 24, 25, 12, 13, 21, 22};
        const std::uint16_t codeFunc = s_codes[Byte() % std::size(s_codes)];
        Bytes bytes;
        Add16(bytes, codeFunc);
        if (codeFunc == 8) {
            const auto byDirection = static_cast<std::uint8_t>(Byte() % 2);
            bytes.push_back(byDirection);
            AddPath(bytes);
            AddPath(bytes);
            if (byDirection == 0) {
                const std::uint32_t nNames = Byte() % 4;
                Add32(bytes, nNames);
                for (std::uint32_t i = 0; i < nNames; ++i) {
                    AddPath(bytes);
                }
            }
        } else if (codeFunc >= 16 && codeFunc <= 19) {
            Add32(bytes, Byte() % 4); // handles count from 1
            if (codeFunc != 19) {
                Add32(bytes, Byte() % 8 == 0 ? 0x7FFF'FFFFU - Byte() : Byte() * 10U);
            }
            if (codeFunc == 18) {
                Add32(bytes, Byte() % 4);
            }
        } else if (codeFunc == DAK_FUNC_KERNEL_IO_CONTROL) {
            Add32(bytes, Byte() % 7);
            const Bytes input = Some(Byte() % 8);
            Add32(bytes, static_cast<std::uint32_t>(input.size()));
            bytes.insert(bytes.end(), input.begin(), input.end());
            const std::uint32_t nOutSize = Byte() % 16;
            Add32(bytes, nOutSize);
            bytes.resize(bytes.size() + nOutSize);
        } else if (codeFunc == DAK_FUNC_BROADCAST_MESSAGE) {
            Add32(bytes, Byte());
            Add32(bytes, Byte());
            Add32(bytes, Byte());
        } else if (codeFunc != 6 && codeFunc != 23) {
            AddPath(bytes);
            if (codeFunc == DAK_FUNC_CREATE_PROCESS || codeFunc == DAK_FUNC_COPY_FILE) {
                AddPath(bytes);
                Add32(bytes, Byte() % 2);
            } else if (codeFunc == DAK_FUNC_MOVE_FILE) {
                AddPath(bytes);
            } else if (codeFunc == 15) {
                Add32(bytes, static_cast<std::uint32_t>(Byte()) << 24);
                Add32(bytes, Byte() % 9);
                Add32(bytes, Byte() % 7);
            }
        }
        m_codeData = codeFunc == 17 ? 17 : 8;
        Send(DAK_LAST_PACKAGE, bytes);
    }

    // A data package with its checksum right. Its data open with a count or a record as the stream
    // might want it.
    void SendData(bool bLast) {
        Bytes data;
        if (Byte() % 2 == 0) {
            Add32(data, Byte() % 4);
        }
        while (Byte() % 3 != 0) {
            const std::uint32_t dwSize = Byte() | (Byte() % 8 == 0 ? 0x4000U : 0);
            Add32(data, dwSize);
            Add32(data, Byte() % 16 == 0 ? 1 : 0);
            const Bytes times = Some(16);
            data.insert(data.end(), times.begin(), times.end());
            data.resize(data.size() + 16 - times.size());
            AddPath(data);
            data.resize(data.size() + dwSize, Byte());
        }
        data.resize(bLast ? std::min<std::size_t>(data.size(), DAK_DATA_SIZE) : DAK_DATA_SIZE);
        Bytes bytes(6 + data.size());
        DakPutU16(bytes.data() + 4, Byte() % 16 == 0 ? 16 : m_codeData);
        std::copy(data.begin(), data.end(), bytes.begin() + 6);
        std::uint32_t dwSum = 0;
        for (std::size_t i = 4; i < bytes.size(); ++i) {
            dwSum += bytes[i];
        }
        DakPutU32(bytes.data(), dwSum);
        Send(bLast ? DAK_LAST_PACKAGE : DAK_PACKAGE, bytes);
    }

    void Take(std::size_t dwMost) {
        m_taken.resize(dwMost);
        m_core.GiveBytes(m_taken);
    }

    void Step() {
        switch (Byte() % 16) {
        case 0:
            m_core.TakePackage(Some(Byte()));
            break;
        case 1: {
            Bytes package(20);
            DakPutHandshake(package.data(), Byte() % 2 == 0 ? DAK_CONNECT : DAK_DISCONNECT,
                            0x30000);
            m_core.TakePackage(package);
            Take(20);
            break;
        }
        case 2:
        case 3:
            SendCommand();
            Take(Byte() % 16 == 0 ? 3 : 8);
            break;
        case 4:
            SendData(true);
            break;
        case 5:
        case 6:
            for (int i = Byte() % 60; i > 0; --i) {
                SendData(false);
                if (Byte() % 4 != 0) {
                    Take(DAK_PACKAGE_SIZE);
                }
            }
            break;
        case 7: {
            Bytes package(Byte() % 2 == 0 ? DAK_PACKAGE_SIZE : DAK_HEADER_SIZE);
            DakPutHeader(package.data(), DAK_ABORT, 0);
            for (int i = Byte() % 52; i > 0; --i) {
                m_core.TakePackage(package);
            }
            break;
        }
        case 8:
        case 9: {
            static constexpr std::uint32_t s_words[] = {DAK_SUCCESS, DAK_RETRANSMIT, DAK_SUCCESS,
                                                        DAK_ABORT};
            Send(s_words[Byte() % 4], {});
            break;
        }
        case 10:
            m_core.SetTime(m_qwNowMs += Byte() * 40U);
            break;
        case 11:
            m_core.HostGone();
            break;
        case 12:
            m_core.DropPending();
            break;
        default:
            Take(Byte() % 4 == 0 ? Byte() : DAK_PACKAGE_SIZE);
            break;
        }
    }

    agent::CAgentCore& m_core;
    std::span<const std::uint8_t> m_script;
    std::uint64_t m_qwNowMs = 0;
    std::uint16_t m_codeData = 8; // of the stream that may be open
    Bytes m_taken;
};

} // namespace

void RunSessionScript(agent::CAgentCore& core, std::span<const std::uint8_t> script) {
    CScript(core, script).Run();
}
