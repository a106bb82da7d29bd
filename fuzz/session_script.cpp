#include "fuzz/session_script.h"

#include <algorithm>
#include <array>

#include "tests/support/packages.h"

namespace test {
namespace {

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
    Bytes Some(std::size_t dwMost) {
        const std::size_t dwCount = std::min(dwMost, m_script.size());
        const Bytes bytes(m_script.data(), m_script.data() + dwCount);
        m_script = m_script.subspan(dwCount);
        return bytes;
    }
    std::uint8_t Byte() { return m_script.empty() ? std::uint8_t{0} : Some(1)[0]; }
    Bytes Word(std::uint32_t dwFactor = 1) { return U32(Byte() * dwFactor); }

    // Its parts are drawn in their order, which that of a call's arguments would leave to the
    // compiler.
    static Bytes Cat(std::initializer_list<Bytes> parts) {
        Bytes bytes;
        for (const Bytes& part : parts) {
            bytes = Join(bytes, part);
        }
        return bytes;
    }

    // A path of a few short components, some of which lead nowhere good.
    Bytes Path() {
        static constexpr std::array<const char16_t*, 10> s_components = {
            u"d", u"there", u"new", u"..", u".", u"Card", u"\xD800", u"C:", u".dak-a.part", u""};
        std::u16string strPath;
        for (int nLeft = Byte() % 4; nLeft >= 0; --nLeft) {
            strPath += s_components[Byte() % s_components.size()];
            strPath += nLeft > 0 ? u"\\" : u"";
        }
        return Text(strPath);
    }

    // Damages one in eight.
    void Send(Bytes package) {
        if (Byte() % 8 == 0 && !package.empty()) {
            std::size_t dwAt = Byte();
            dwAt += Byte() * 256U;
            package[dwAt % package.size()] ^= static_cast<std::uint8_t>(1 + Byte() % 255);
        }
        m_core.TakePackage(package);
    }

    Bytes Fields(std::uint16_t codeFunc) {
        switch (codeFunc) {
        case DAK_FUNC_TRANSMIT_FILES: {
            const bool bPush = Byte() % 2 != 0;
            Bytes fields = Cat({Bytes{bPush}, Path(), Path()});
            const std::uint32_t nNames = bPush ? 0 : Byte() % 4U;
            fields = bPush ? fields : Cat({fields, U32(nNames)});
            for (std::uint32_t i = 0; i < nNames; ++i) {
                fields = Cat({fields, Path()});
            }
            return fields;
        }
        case DAK_FUNC_READ_FILE:
        case DAK_FUNC_WRITE_FILE: // handles count from 1
            return Cat({U32(Byte() % 4U), Byte() % 8 == 0 ? U32(0x7FFF'FFFFU - Byte()) : Word(10)});
        case DAK_FUNC_SET_FILE_POINTER:
            return Cat({U32(Byte() % 4U), Word(10), U32(Byte() % 4U)});
        case DAK_FUNC_CLOSE_FILE:
            return U32(Byte() % 4U);
        case DAK_FUNC_KERNEL_IO_CONTROL: {
            const Bytes input = Some(Byte() % 8);
            const Bytes output(Byte() % 16);
            return Cat({U32(Byte() % 7U), U32(static_cast<std::uint32_t>(input.size())), input,
                        U32(static_cast<std::uint32_t>(output.size())), output});
        }
        case DAK_FUNC_BROADCAST_MESSAGE:
            return Cat({Word(), Word(), Word()});
        case DAK_FUNC_CREATE_PROCESS:
        case DAK_FUNC_COPY_FILE:
            return Cat({Path(), Path(), U32(Byte() % 2U)});
        case DAK_FUNC_MOVE_FILE:
            return Cat({Path(), Path()});
        case DAK_FUNC_CREATE_FILE:
            return Cat({Path(), Word(1U << 24), U32(Byte() % 9U), U32(Byte() % 7U)});
        case DAK_FUNC_GET_DEVICE_FREE_SPACE:
        case DAK_FUNC_GET_STORAGE_INFO:
            return {};
        default:
            return Path();
        }
    }

    // A data package with its checksum right, which opens as the stream might want it.
    void SendData(bool bLast) {
        Bytes data = Byte() % 2 == 0 ? U32(Byte() % 4U) : Bytes();
        while (Byte() % 3 != 0) {
            const std::uint32_t dwSize = Byte() | (Byte() % 8 == 0 ? 0x4000U : 0);
            data = Cat({data, U32(dwSize), U32(Byte() % 16 == 0 ? 1 : 0), Some(16), Path(),
                        Bytes(dwSize, Byte())});
        }
        data.resize(bLast ? std::min<std::size_t>(data.size(), DAK_DATA_SIZE) : DAK_DATA_SIZE);
        const std::uint16_t codeFunc = Byte() % 16 == 0 ? std::uint16_t{16} : m_codeData;
        Send(DataPackage(bLast ? DAK_LAST_PACKAGE : DAK_PACKAGE, codeFunc, data));
    }

    void Take(std::size_t dwMost) {
        m_taken.resize(dwMost);
        m_core.GiveBytes(m_taken);
    }

    void Step() {
        static constexpr std::array<std::uint16_t, 26> s_codes = {
            8,  8,  8,  8,  2,  10, 1,  20, 7,  14, 15, 15, 16,
            16, 17, 17, 18, 19, 6,  23, 24, 25, 12, 13, 21, 22};
        static constexpr std::array<std::uint32_t, 4> s_words = {DAK_SUCCESS, DAK_RETRANSMIT,
                                                                 DAK_SUCCESS, DAK_ABORT};
        switch (const int nWhat = Byte() % 16) {
        case 0:
            m_core.TakePackage(Some(Byte()));
            break;
        case 1:
            m_core.TakePackage(Handshake(Byte() % 2 == 0 ? DAK_CONNECT : DAK_DISCONNECT));
            Take(20);
            break;
        case 2:
        case 3: {
            const std::uint16_t codeFunc = s_codes[Byte() % s_codes.size()];
            m_codeData = codeFunc == DAK_FUNC_WRITE_FILE ? codeFunc : std::uint16_t{8};
            Send(Command(codeFunc, Fields(codeFunc)));
            Take(Byte() % 16 == 0 ? 3 : 8);
            break;
        }
        case 4:
        case 5:
        case 6:
            for (int i = nWhat == 4 ? 1 : Byte() % 60; i > 0; --i) {
                SendData(nWhat == 4);
                Take(nWhat == 4 || Byte() % 4 == 0 ? 0 : DAK_PACKAGE_SIZE);
            }
            break;
        case 7: {
            const Bytes abort =
                Cat({Control(DAK_ABORT), Bytes(Byte() % 2 == 0 ? DAK_MAXPACKAGELENGTH : 0)});
            for (int i = Byte() % 52; i > 0; --i) {
                m_core.TakePackage(abort);
            }
            break;
        }
        case 8:
        case 9:
            Send(Control(s_words[Byte() % s_words.size()]));
            break;
        case 10:
            m_core.SetTime(m_qwNowMs += Byte() * 40U);
            break;
        case 11:
            Byte() % 2 == 0 ? m_core.HostGone() : m_core.DropPending();
            break;
        default:
            Take(Byte() % 4 == 0 ? Byte() : DAK_PACKAGE_SIZE);
            break;
        }
    }

    agent::CAgentCore& m_core;
    std::span<const std::uint8_t> m_script;
    std::uint64_t m_qwNowMs = 0;
    std::uint16_t m_codeData = DAK_FUNC_TRANSMIT_FILES; // of the stream that may be open
    Bytes m_taken;
};

} // namespace
} // namespace test

void RunSessionScript(agent::CAgentCore& core, std::span<const std::uint8_t> script) {
    test::CScript(core, script).Run();
}
