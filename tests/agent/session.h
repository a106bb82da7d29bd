// A host in front of the agent's core on a device in memory, played by scripts (script.h).
//
//   10 \new = 1            a command, its acknowledgement, and the response: result and fields
//   10 \new                a command and its acknowledgement; with = -, silence
//   push 120; send 120     a copy of d/a.txt in so many packages, sent until the 120th, and
//                          confirmed where windows end and nowhere else
//   send 120 flip 71       with a fault of the 71st; what is not confirmed is sent again next
//   write 1 120; send 120  the same by handle 1; to the host: pull 120, read 1, get 120
//
// A field is #1, a word; ##1, two words; $01FE and "x*9, bytes; '' or anything else, a text, in
// which %D800 is a unit; and - is nothing.
#pragma once

#include <gtest/gtest.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "tests/agent/script.h"
#include "tests/support/memory_device.h"
#include "tests/support/packages.h"

namespace test {

class CSession : public CScript {
  public:
    CSession() {
        memory.MakeFolder("d");
        options.strRoot = memory.strRoot;
        Restart();
    }
    void Restart() {
        m_pCore.reset();
        std::string strError;
        m_pDevice = agent::CDevice::Open(options, strError);
        ASSERT_TRUE(m_pDevice) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
        Pass(0);
    }
    agent::CAgentCore& Core() { return *m_pCore; }
    void Put(const Bytes& package) { m_pCore->TakePackage(package); }
    void Pass(std::uint64_t qwMs) { m_pCore->SetTime(m_qwNowMs += qwMs); }
    // With the time that work takes which goes on at once.
    void Settle() {
        for (auto qwDueMs = m_pCore->NextDueMs(); qwDueMs && *qwDueMs <= m_qwNowMs + 10;
             qwDueMs = m_pCore->NextDueMs()) {
            Pass(*qwDueMs - m_qwNowMs);
        }
    }
    // One read.
    Bytes Take(std::size_t dwMost = DAK_PACKAGE_SIZE) {
        Bytes bytes(dwMost);
        bytes.resize(m_pCore->GiveBytes(bytes));
        return bytes;
    }
    // A package without a body: success, asked again, aborted; the result of a response without
    // fields; - for none and ? for any other.
    std::string Word() {
        const Bytes bytes = Take();
        const bool bResult = bytes.size() == 14 && DakGetU32(bytes.data()) == DAK_LAST_REPLY;
        return bytes.empty()                      ? "-"
               : bytes == Ack()                   ? "S"
               : bytes == Control(DAK_RETRANSMIT) ? "R"
               : bytes == Control(DAK_ABORT)      ? "A"
               : bResult ? std::to_string(static_cast<std::int32_t>(DakGetU32(&bytes[10])))
                         : "?";
    }
    bool Shakes(std::uint32_t dwWord = DAK_CONNECT) {
        Put(Handshake(dwWord));
        return Take() == Handshake(dwWord, DAK_PROTOCOL_VERSION + 1) && Take().empty();
    }
    // The response, with the time that its work takes; empty without an acknowledgement.
    Bytes Call(const Bytes& command) {
        Put(command);
        const std::string strWord = Word();
        Settle();
        return strWord == "S" ? Take() : Bytes();
    }
    static Bytes Fields(Words::const_iterator it, Words::const_iterator end) {
        Bytes fields;
        for (; it != end && !it->empty(); ++it) {
            fields = Join(fields, Field(*it));
        }
        return fields;
    }
    static Bytes CommandOf(const std::string& strCommand) {
        std::istringstream text(strCommand);
        const Words words((std::istream_iterator<std::string>(text)), {});
        return Command(static_cast<std::uint16_t>(std::stoul(words[0])),
                       Fields(words.begin() + 1, words.end()));
    }

    CMemoryDevice memory;
    agent::CDeviceOptions options;
    CFileRecord file{.strName = u"a.txt", .bytes = {}}; // of the stream

  protected:
    std::string DoWords(const Words& w, const std::string& strWanted) override {
        const std::string& v = w[0];
        const auto n = std::strtoul(w[1].c_str(), nullptr, 0);
        const auto done = [](auto lpDo) {
            lpDo();
            return Say(true);
        };
        return std::isdigit(v[0]) != 0 ? DoCommand(w, strWanted)
               : v == "shake"          ? Say(Shakes())
               : v == "leave"          ? Say(Shakes(DAK_DISCONNECT))
               : v == "gone"           ? done([&] { m_pCore->HostGone(); })
               : v == "drop"           ? done([&] { m_pCore->DropPending(); })
               : v == "pass"           ? done([&] { Pass(n); })
               : v == "ack"            ? done([&] { Put(Ack()); })
               : v == "again"          ? done([&] { Put(Control(DAK_RETRANSMIT)), m_nAt = 0; })
               : v == "stream"         ? Stream(w)
               : v == "names"          ? Names(w, strWanted)
               : v == "stop"           ? done([&] { Put(Control(DAK_ABORT)); })
               : v == "touch"          ? done([&] { WriteFile(); })
               : v == "settle"         ? done([&] { Settle(); })
               : v == "back"           ? done([&] { GoBack(); })
               : v == "up"             ? Say(m_pCore->LinkUp())
               : v == "due"            ? Say(m_pCore->NextDueMs().has_value())
               : v == "word"           ? Word()
               : v == "part"           ? std::to_string(Take(n).size())
               : v == "send"           ? Send(n, w[2], std::strtoul(w[3].c_str(), nullptr, 10))
               : v == "get"            ? Get(n)
               : v == "whole"          ? Say(IsWhole())
               : v == "lay"            ? Lay(w)
               : v == "rm"             ? done([&] { memory.Remove(w[1]); })
               : v == "at"             ? At(w[1])
               : v == "files"          ? Show(memory.Files())
               : v == "steps"          ? done([&] { memory.nWorkSteps = static_cast<unsigned>(n); })
               : v == "room"           ? done([&] { memory.qwRootSize = n; })
               : v == "fault"          ? Fault(w)
               : v == "push" || v == "pull" || v == "write" || v == "read" ? BeginFile(w)
                                                                           : v + " is no step";
    }

  private:
    static Bytes Field(const std::string& strField) {
        Bytes bytes;
        if (strField[0] == '"') {
            const std::string strBytes = Long(strField.substr(1));
            return {strBytes.begin(), strBytes.end()};
        }
        if (strField[0] == '#') {
            const std::size_t nWords = strField.find_first_not_of('#');
            const auto qwValue =
                static_cast<std::uint64_t>(std::stoll(strField.substr(nWords), nullptr, 0));
            return nWords == 2 ? U64(qwValue) : U32(static_cast<std::uint32_t>(qwValue));
        }
        for (std::size_t i = 1; strField[0] == '$' && i < strField.size(); i += 2) {
            bytes.push_back(
                static_cast<std::uint8_t>(std::stoul(strField.substr(i, 2), nullptr, 16)));
        }
        std::u16string strText = strField == "''" ? u"" : agent::ToUtf16(Long(strField)).value();
        for (std::size_t n; (n = strText.find(u'%')) != std::u16string::npos;) {
            const std::string strUnit(&strText[n + 1], &strText[n + 5]);
            strText.replace(n, 5, 1, static_cast<char16_t>(std::stoul(strUnit, nullptr, 16)));
        }
        return strField[0] == '$' || strField == "-" ? bytes : Text(strText);
    }
    std::string DoCommand(const Words& w, const std::string& strWanted) {
        const auto codeFunc = static_cast<std::uint16_t>(std::stoul(w[0]));
        const Bytes command = Command(codeFunc, Fields(w.begin() + 1, w.end()));
        if (strWanted == "y" || strWanted == "-") {
            return Begin(command);
        }
        std::istringstream text(strWanted);
        const Words words((std::istream_iterator<std::string>(text)), {});
        const Bytes more = Fields(words.begin() + 1, words.end());
        // The output of an I/O control comes behind the response, whose field is its length.
        const auto end =
            more.begin() + static_cast<std::ptrdiff_t>(codeFunc == 13 ? 4 : more.size());
        const Bytes response = Response(codeFunc == 21 ? std::uint16_t{19} : codeFunc,
                                        static_cast<std::int32_t>(std::stoll(words[0], nullptr, 0)),
                                        Bytes(more.begin(), end));
        Bytes came = Call(command);
        came = Join(came, Take(std::size_t{1} << 20));
        return came == Join(response, Bytes(end, more.end())) && Take().empty()
                   ? strWanted
                   : testing::PrintToString(came);
    }
    std::string Push(const Bytes& stream) {
        m_packages = StreamPackages(8, stream, DAK_PACKAGE, DAK_LAST_PACKAGE, true);
        return Begin(CommandOf("8 $01 C:\\s \\d"));
    }
    std::string Stream(const Words& w) {
        const bool bGoes =
            Push(Fields(w.begin() + 1, w.end())) == "y" && Send(SIZE_MAX, "", 0) == "y";
        return bGoes ? Word() : "?";
    }
    std::string Begin(const Bytes& command) {
        m_nAt = m_nConfirmed = 0;
        Put(command);
        const std::string strWord = Word();
        return strWord == "S" ? "y" : strWord;
    }
    void WriteFile() {
        memory.Write("d/a.txt", std::string(file.bytes.begin(), file.bytes.end())).info.times = {
            file.ftCreation, file.ftLastWrite};
    }
    static constexpr std::size_t RECORD = 24 + 12;
    std::string BeginFile(const Words& w) {
        const std::size_t nPackages = std::stoul(w[w[0] == "push" || w[0] == "pull" ? 1 : 2]);
        const bool bToDevice = w[0] == "push" || w[0] == "write";
        const std::size_t dwAhead = w[0] == "push"   ? 4 + RECORD
                                    : w[0] == "pull" ? 8 + RECORD
                                    : w[0] == "read" ? 4
                                                     : 0;
        // The last package has 100 bytes, or as many as are wanted.
        const std::size_t dwLast = std::isdigit(w[3][0]) != 0 ? std::stoul(w[3]) : 100;
        const std::size_t dwBytes = (nPackages - 1) * DAK_DATA_SIZE + dwLast - dwAhead;
        file.bytes = w[3] == "zeroes" ? Bytes(dwBytes) : Pattern(dwBytes);
        bToDevice ? void() : WriteFile();
        const Bytes record = Join(U32(1), Record(file));
        if (w[0] == "push") {
            return Push(record);
        }
        if (w[0] == "pull") {
            m_packages =
                StreamPackages(8, Join(U32(1), record), DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false);
            return Begin(CommandOf("8 $00 \\d C:\\t #1 a.txt"));
        }
        const Bytes size = U32(static_cast<std::uint32_t>(file.bytes.size()));
        m_packages = bToDevice
                         ? StreamPackages(17, file.bytes, DAK_PACKAGE, DAK_LAST_PACKAGE, false)
                         : StreamPackages(16, Join(size, file.bytes), DAK_REPLY_PACKAGE,
                                          DAK_LAST_REPLY, false);
        return Begin(Command(bToDevice ? 17 : 16, Field(w[1]), size));
    }
    // Of what was sent last.
    void GoBack() { m_nAt = m_nAt < 2 ? 0 : (m_nAt - 2) / 50 * 50 + 1; }
    // Reads where a host waits, and looks in between: what came beside confirmations. Fault of one
    // package, or of all: lose, twice, abort, ~8 for another size, or 9^80 for bits of a byte.
    std::string Send(std::size_t nTo, const std::string& strFault, std::size_t nBad) {
        const std::size_t dwMark = strFault.find('^');
        while (m_nAt < std::min(nTo, m_packages.size())) {
            Bytes package = m_packages[m_nAt++];
            const bool bBad = !strFault.empty() && (nBad == 0 || m_nAt == nBad);
            if (bBad && strFault[0] == '~') {
                package.resize(std::stoul(strFault.substr(1)), 0xEE);
            } else if (bBad && strFault == "abort") {
                package = Join(Control(DAK_ABORT), Bytes(DAK_MAXPACKAGELENGTH, 0x5A));
            } else if (bBad && dwMark != std::string::npos) {
                package[std::stoul(strFault)] ^=
                    static_cast<std::uint8_t>(std::stoul(strFault.substr(dwMark + 1), nullptr, 16));
            }
            for (int i = bBad && strFault == "lose"    ? 0
                         : bBad && strFault == "twice" ? 2
                                                       : 1;
                 i > 0; --i) {
                Put(package);
            }
            const bool bWaits = m_nAt % 50 == 1 || m_nAt == m_packages.size();
            const std::string strWord = bWaits                                    ? Word()
                                        : strFault.empty() && m_pCore->HasBytes() ? "!"
                                                                                  : "S";
            if (strWord != "S") {
                GoBack();
                return strWord;
            }
        }
        return "y";
    }
    // Of empty files, what a pull of these names brings.
    std::string Names(const Words& w, const std::string& strWanted) {
        std::istringstream text(strWanted);
        const Words wanted((std::istream_iterator<std::string>(text)), {});
        Bytes stream = Join(U32(1), U32(static_cast<std::uint32_t>(wanted.size())));
        for (const std::string& strName : wanted) {
            const Bytes record = Join(U64(0), U64(1), U64(2), Field(strName));
            stream.insert(stream.end(), record.begin(), record.end());
        }
        m_packages = StreamPackages(8, stream, DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false);
        const auto nNames =
            static_cast<std::uint32_t>(std::find(w.begin(), w.end(), "") - w.begin() - 2);
        Begin(Command(8, Bytes{0}, Field(w[1]), Text(u"t"), U32(nNames),
                      Fields(w.begin() + 2, w.end())));
        Settle();
        return Get(m_packages.size()) == "y" ? strWanted : "?";
    }
    std::string Get(std::size_t nTo) {
        for (; m_nAt < nTo; ++m_nAt) {
            Bytes package = Take(DAK_DATA_OFFSET);
            if (package.size() == DAK_DATA_OFFSET) {
                package = Join(package, Take(DakGetHeader(package.data()).packageLength - 6));
            }
            const bool bNew =
                m_nAt >= m_nConfirmed; // of others the host wants nothing but their size
            if (package.size() != m_packages[m_nAt].size() ||
                (bNew && package != m_packages[m_nAt])) {
                return std::to_string(m_nAt + 1) + (package == Control(DAK_ABORT) ? "A" : "?");
            }
            if (bNew && ((m_nAt + 1) % 50 == 0 || m_nAt + 1 == m_packages.size())) {
                EXPECT_TRUE(Take().empty()) << "no wait behind " << m_nAt + 1;
                Put(Ack());
                m_nConfirmed = m_nAt + 1;
            }
        }
        return "y";
    }
    // The position of a handle, in packages of data that were taken or sent.
    std::string At(const std::string& strHandle) {
        const Bytes response = Call(Command(18, Field(strHandle), U32(0), U32(1)));
        if (response.size() != 14) {
            return "?";
        }
        const std::size_t dwAt = DakGetU32(&response[10]);
        return std::to_string((dwAt % DAK_DATA_SIZE == 0 ? dwAt : dwAt + 4) / DAK_DATA_SIZE);
    }
    bool IsWhole() {
        const auto it = memory.entries.find("d/a.txt");
        return it != memory.entries.end() &&
               it->second->strBytes == std::string(file.bytes.begin(), file.bytes.end());
    }
    std::string Lay(const Words& w) {
        for (std::size_t i = 1; i < w.size() && !w[i].empty(); ++i) {
            const std::size_t dwMark = w[i].find('=');
            dwMark == std::string::npos
                ? memory.MakeFolder(w[i])
                : memory.Write(w[i].substr(0, dwMark), Long(w[i].substr(dwMark + 1)));
        }
        return "y";
    }
    // A call of the folder's, at a path or at any, is refused or finds no room.
    std::string Fault(const Words& w) {
        const auto eResult = w[2] == "full" ? agent::EResult::NO_SPACE : agent::EResult::REFUSED;
        memory.lpFault = [=](std::string_view strCall, const std::string& strPath) {
            return strCall == w[1] && (w[3].empty() || strPath == w[3]) ? eResult
                                                                        : agent::EResult::SUCCESS;
        };
        return "y";
    }

    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::uint64_t m_qwNowMs = 0;
    std::vector<Bytes> m_packages; // of the stream
    std::size_t m_nAt = 0;         // so many have gone
    std::size_t m_nConfirmed = 0;
};

} // namespace test
