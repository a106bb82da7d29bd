// A host in front of the agent's core, package by package.
#pragma once

#include <gtest/gtest.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "tests/support/packages.h"

namespace test {

inline agent::CDeviceOptions ServedFrom(const std::string& strRoot) {
    agent::CDeviceOptions options;
    options.strRoot = strRoot;
    return options;
}

class CAgentHost {
  public:
    explicit CAgentHost(const agent::CDeviceOptions& options) { Restart(options); }

    void Restart(const agent::CDeviceOptions& options) {
        m_pCore.reset();
        std::string strError;
        m_pDevice = agent::CDevice::Open(options, strError);
        ASSERT_TRUE(m_pDevice) << strError;
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
    }

    agent::CAgentCore& Core() { return *m_pCore; }
    void Put(const Bytes& package) { m_pCore->TakePackage(package); }
    void Pass(std::uint64_t qwMs) { m_pCore->SetTime(m_qwNowMs += qwMs); }

    // One read.
    Bytes Take(std::size_t dwMost = DAK_PACKAGE_SIZE) {
        Bytes bytes(dwMost);
        bytes.resize(m_pCore->GiveBytes(bytes));
        return bytes;
    }
    // Of a package without a body: S, R, A; '-' when nothing came, '?' for all else.
    char TakeWord() {
        const Bytes bytes = Take();
        return bytes.empty()                      ? '-'
               : bytes == Ack()                   ? 'S'
               : bytes == Control(DAK_RETRANSMIT) ? 'R'
               : bytes == Control(DAK_ABORT)      ? 'A'
                                                  : '?';
    }
    bool Shakes(std::uint32_t dwWord = DAK_CONNECT) {
        Put(Handshake(dwWord));
        return Take() == Handshake(dwWord, DAK_PROTOCOL_VERSION + 1) && Take().empty();
    }

    // The response to a command, with the time that its work takes; empty when it got silence.
    template <class... TFields>
    Bytes Call(std::uint16_t codeFunc, const TFields&... fields) {
        Put(Command(codeFunc, fields...));
        const char chWord = TakeWord();
        EXPECT_TRUE(chWord == 'S' || chWord == '-') << chWord;
        Settle();
        const Bytes response = Take();
        EXPECT_TRUE(Take().empty());
        return response;
    }
    void Settle() {
        for (auto qwDueMs = m_pCore->NextDueMs(); qwDueMs && *qwDueMs <= m_qwNowMs + 10;
             qwDueMs = m_pCore->NextDueMs()) {
            Pass(*qwDueMs - m_qwNowMs);
        }
    }

    bool BeginsPush(std::basic_string_view<WCHAR> strFolder = u"\\d") {
        Put(Command(DAK_FUNC_TRANSMIT_FILES, Bytes{1}, Text(u"C:\\s"), Text(strFolder)));
        return TakeWord() == 'S';
    }
    // Packages [nFrom, nTo) of a stream, with reads where a host waits for a verdict. What came, as
    // "1S 51R"; "7!" when something lay ready behind a package that no host reads behind.
    std::string Send(const std::vector<Bytes>& packages, std::size_t nFrom = 0,
                     std::size_t nTo = SIZE_MAX, bool bLooks = true) {
        std::string strCame;
        for (std::size_t i = nFrom; i < std::min(nTo, packages.size()); ++i) {
            Put(packages[i]);
            const bool bWaits = i % 50 == 0 || i + 1 == packages.size() || i + 1 == nTo;
            if (bWaits || (bLooks && m_pCore->HasBytes())) {
                strCame += (strCame.empty() ? "" : " ") + std::to_string(i + 1) +
                           (bWaits ? TakeWord() : '!');
            }
        }
        return strCame;
    }
    static Bytes PushStream(const std::vector<CFileRecord>& files) {
        Bytes stream = U32(static_cast<std::uint32_t>(files.size()));
        for (const CFileRecord& file : files) {
            stream = Join(stream, Record(file));
        }
        return stream;
    }
    static std::vector<Bytes> PushPackages(const Bytes& stream) {
        return StreamPackages(DAK_FUNC_TRANSMIT_FILES, stream, DAK_PACKAGE, DAK_LAST_PACKAGE, true);
    }
    Bytes Push(const std::vector<CFileRecord>& files,
               std::basic_string_view<WCHAR> strFolder = u"\\d") {
        EXPECT_TRUE(BeginsPush(strFolder));
        Send(PushPackages(PushStream(files)));
        return Take();
    }

    static Bytes PullFields(std::basic_string_view<WCHAR> strFolder,
                            const std::vector<std::u16string>& names) {
        Bytes fields = Join(Bytes{0}, Text(strFolder), Text(u"C:\\t"),
                            U32(static_cast<std::uint32_t>(names.size())));
        for (const std::u16string& strName : names) {
            fields = Join(fields, Text(strName));
        }
        return fields;
    }
    // A package of a stream, as a host reads it: head first. Empty when none came.
    Bytes TakeData() {
        const Bytes head = Take(DAK_DATA_OFFSET);
        return head.size() < DAK_DATA_OFFSET
                   ? Bytes()
                   : Join(head, Take(DakGetHeader(head.data()).packageLength - 6));
    }
    // A stream to its end, confirmed where a host confirms.
    std::vector<Bytes> TakeStream() {
        std::vector<Bytes> packages;
        for (Bytes package = TakeData(); !package.empty(); package = TakeData()) {
            packages.push_back(package);
            const bool bLast = DakGetU32(package.data()) == DAK_LAST_REPLY;
            if (bLast || packages.size() % 50 == 0) {
                EXPECT_TRUE(Take().empty()) << "no wait behind " << packages.size();
                Put(Ack());
            }
        }
        return packages;
    }
    std::vector<Bytes> Pull(std::basic_string_view<WCHAR> strFolder,
                            const std::vector<std::u16string>& names) {
        Put(Command(DAK_FUNC_TRANSMIT_FILES, PullFields(strFolder, names)));
        EXPECT_EQ(TakeWord(), 'S');
        Settle();
        return TakeStream();
    }
    // What a pull of these brings.
    static std::vector<Bytes> PullPackages(const std::vector<CFileRecord>& files) {
        return StreamPackages(DAK_FUNC_TRANSMIT_FILES, Join(U32(1), PushStream(files)),
                              DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false);
    }

  private:
    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
    std::uint64_t m_qwNowMs = 0;
};

} // namespace test
