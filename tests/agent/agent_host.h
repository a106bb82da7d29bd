// A host in front of the agent's core, package by package, with a folder of its own for the device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "agent/agent_core.h"
#include "agent/device.h"
#include "link/wire.h"
#include "tests/test_files.h"

using Bytes = std::vector<std::uint8_t>;

inline void Append(Bytes& bytes, const Bytes& more) {
    // Not insert(): the compiler then sees the bytes run past a vector that it knows to be short.
    const std::size_t dwAt = bytes.size();
    bytes.resize(dwAt + more.size());
    std::copy(more.begin(), more.end(), bytes.begin() + static_cast<std::ptrdiff_t>(dwAt));
}

inline void AppendU32(Bytes& bytes, std::uint32_t dwValue) {
    bytes.resize(bytes.size() + 4);
    DakPutU32(bytes.data() + bytes.size() - 4, dwValue);
}

inline void AppendText(Bytes& bytes, std::u16string_view strText) {
    for (const char16_t unit : strText) {
        bytes.push_back(static_cast<std::uint8_t>(unit));
        bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    bytes.insert(bytes.end(), 2, 0);
}

inline Bytes Control(std::uint32_t wCommand) {
    Bytes package(8);
    DakPutHeader(package.data(), wCommand, 0);
    return package;
}

// The form in which a host's abort travels in a stream to the device.
inline Bytes AbortPackage() {
    Bytes package = Control(DAK_ABORT);
    package.resize(DAK_PACKAGE_SIZE, 0x5A);
    return package;
}

inline Bytes Command(std::uint16_t codeFunc, const Bytes& payload) {
    Bytes package(10);
    DakPutHeader(package.data(), DAK_LAST_PACKAGE, static_cast<std::uint32_t>(payload.size()) + 2);
    DakPutU16(package.data() + 8, codeFunc);
    Append(package, payload);
    return package;
}

inline Bytes Text(std::u16string_view strText) {
    Bytes bytes;
    AppendText(bytes, strText);
    return bytes;
}

inline Bytes Content(std::size_t dwSize, std::uint32_t dwSeed = 1) {
    Bytes bytes(dwSize + 8);
    std::mt19937_64 random(dwSeed);
    for (std::size_t i = 0; i < dwSize; i += 8) {
        const std::uint64_t qwNext = random();
        DakPutU32(bytes.data() + i, static_cast<std::uint32_t>(qwNext));
        DakPutU32(bytes.data() + i + 4, static_cast<std::uint32_t>(qwNext >> 32));
    }
    bytes.resize(dwSize);
    return bytes;
}

struct CFileRecord {
    std::u16string strName;
    Bytes data;
    std::uint64_t ftCreation = 131'000'000'000'000'001;
    std::uint64_t ftLastWrite = 132'000'000'001'234'567;
};

inline Bytes Record(const CFileRecord& file, std::uint32_t dwSizeHigh = 0) {
    Bytes bytes;
    AppendU32(bytes, static_cast<std::uint32_t>(file.data.size()));
    AppendU32(bytes, dwSizeHigh);
    for (const std::uint64_t ft : {file.ftCreation, file.ftLastWrite}) {
        AppendU32(bytes, static_cast<std::uint32_t>(ft));
        AppendU32(bytes, static_cast<std::uint32_t>(ft >> 32));
    }
    AppendText(bytes, file.strName);
    Append(bytes, file.data);
    return bytes;
}

inline Bytes Stream(const std::vector<CFileRecord>& files, std::uint32_t nExtraCount = 0) {
    Bytes stream;
    AppendU32(stream, static_cast<std::uint32_t>(files.size()) + nExtraCount);
    for (const CFileRecord& file : files) {
        Append(stream, Record(file));
    }
    return stream;
}

inline Bytes DataPackage(const Bytes& data, bool bLast, std::uint16_t codeFunc = 8) {
    Bytes package(DAK_DATA_OFFSET);
    Append(package, data);
    DakPutHeader(package.data(), bLast ? DAK_LAST_PACKAGE : DAK_PACKAGE,
                 static_cast<std::uint32_t>(package.size()) - 8);
    DakPutU16(package.data() + 12, codeFunc);
    DakPutU32(package.data() + 8, DakChecksum(package.data(), package.size()));
    return package;
}

// As a host lays them: a full package goes out when its last byte is there, so that the final one
// may hold nothing.
inline std::vector<Bytes> Packages(const Bytes& stream) {
    std::vector<Bytes> packages;
    std::size_t dwAt = 0;
    for (; stream.size() - dwAt >= DAK_DATA_SIZE; dwAt += DAK_DATA_SIZE) {
        const auto itAt = stream.begin() + static_cast<std::ptrdiff_t>(dwAt);
        packages.push_back(DataPackage(Bytes(itAt, itAt + DAK_DATA_SIZE), false));
    }
    packages.push_back(
        DataPackage(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(dwAt), stream.end()), true));
    return packages;
}

class CAgentHost {
  public:
    explicit CAgentHost(std::optional<std::uint64_t> qwQuota = {}) {
        std::filesystem::create_directories(m_base / "root" / "d");
        std::filesystem::create_directories(m_base / "card");
        std::ofstream(m_base / "outside.txt") << "outside";
        Restart(qwQuota);
    }
    ~CAgentHost() {
        m_pCore.reset();
        std::error_code error;
        std::filesystem::remove_all(m_base, error);
    }
    CAgentHost(const CAgentHost&) = delete;
    CAgentHost& operator=(const CAgentHost&) = delete;

    // Asked ahead of each start of an agent but the first.
    std::function<void(agent::CDeviceOptions&)> onOptions;

    // A new agent on the same folder.
    void Restart(std::optional<std::uint64_t> qwQuota = {}) {
        m_pCore.reset();
        m_pDevice.reset();
        agent::CDeviceOptions options;
        options.strRoot = Root().string();
        options.storages.push_back({"Card", (m_base / "card").string()});
        options.qwQuota = qwQuota;
        if (onOptions) {
            onOptions(options);
        }
        std::string strError;
        m_pDevice = agent::CDevice::Open(options, strError);
        if (!m_pDevice) {
            throw std::runtime_error(strError);
        }
        m_pCore = std::make_unique<agent::CAgentCore>(*m_pDevice);
    }

    agent::CAgentCore& Core() { return *m_pCore; }
    std::filesystem::path Base() const { return m_base; }
    std::filesystem::path Root() const { return m_base / "root"; }

    void Put(const Bytes& package) { m_pCore->TakePackage(package); }

    // One read of the host.
    Bytes Take(std::size_t dwMost = DAK_PACKAGE_SIZE) {
        Bytes bytes(dwMost);
        bytes.resize(m_pCore->GiveBytes(bytes));
        return bytes;
    }

    // The word of an 8-byte package, 0 when something else came or nothing.
    std::uint32_t TakeWord() {
        const Bytes bytes = Take();
        return bytes.size() == 8 ? DakGetU32(bytes.data()) : 0;
    }

    bool Handshake(std::uint32_t wCommand = DAK_CONNECT) {
        Bytes package(20);
        DakPutHandshake(package.data(), wCommand, DAK_PROTOCOL_VERSION);
        Put(package);
        const Bytes reply = Take();
        return reply.size() == 20 && DakGetU32(reply.data()) == wCommand &&
               DakGetU32(reply.data() + 8) == DAK_LINK_CODE &&
               DakGetU32(reply.data() + 12) >> 16 == 3 &&
               DakGetU32(reply.data() + 16) == DAK_MAXPACKAGELENGTH;
    }

    // The result of a command with a 14-byte response; nothing when it got no good answer.
    std::optional<std::int32_t> Plain(std::uint16_t codeFunc, const Bytes& payload) {
        Put(Command(codeFunc, payload));
        return TakeWord() == DAK_SUCCESS ? TakeResult(codeFunc) : std::nullopt;
    }

    std::optional<std::int32_t> TakeResult(std::uint16_t codeFunc) {
        const Bytes reply = Take();
        if (reply.size() != 14 || DakGetU32(reply.data()) != DAK_LAST_REPLY ||
            DakGetU16(reply.data() + 8) != codeFunc || !Take().empty()) {
            return std::nullopt;
        }
        return static_cast<std::int32_t>(DakGetU32(reply.data() + 10));
    }

    bool OpenPush(std::u16string_view strDest = u"\\d") {
        Bytes payload = {1};
        AppendText(payload, u"C:\\s");
        AppendText(payload, strDest);
        Put(Command(8, payload));
        return TakeWord() == DAK_SUCCESS;
    }

    // Sends a stream from its package nFirst on, and holds the agent to the points at which it
    // may speak. The result word; nothing when the agent did not keep to them.
    std::optional<std::int32_t> SendAll(const std::vector<Bytes>& packages,
                                        std::size_t nFirst = 0) {
        for (std::size_t i = nFirst; i < packages.size(); ++i) {
            Put(packages[i]);
            const bool bLast = i + 1 == packages.size();
            const std::uint32_t wCommand = TakeWord();
            if (wCommand != (bLast || i % 50 == 0 ? DAK_SUCCESS : 0)) {
                ADD_FAILURE() << "after package " << i + 1 << ": " << std::hex << wCommand;
                return std::nullopt;
            }
        }
        return TakeResult(8);
    }

    std::optional<std::int32_t> Push(const std::vector<CFileRecord>& files,
                                     std::u16string_view strDest = u"\\d") {
        return OpenPush(strDest) ? SendAll(Packages(Stream(files))) : std::nullopt;
    }

    Bytes PullPayload(std::u16string_view strSource, const std::vector<std::u16string>& names) {
        Bytes payload = {0};
        AppendText(payload, strSource);
        AppendText(payload, u"C:\\t");
        AppendU32(payload, static_cast<std::uint32_t>(names.size()));
        for (const std::u16string& strName : names) {
            AppendText(payload, strName);
        }
        return payload;
    }

    // The next data package, taken as a host does, or nothing.
    std::optional<Bytes> TakeData() {
        Bytes package = Take(14);
        if (package.size() != 14) {
            return std::nullopt;
        }
        const std::uint32_t dwLength = DakGetU32(package.data() + 4);
        if (dwLength > 6) {
            Append(package, Take(dwLength - 6));
        }
        if (package.size() != dwLength + 8 ||
            DakGetU32(package.data() + 8) != DakChecksum(package.data(), package.size())) {
            ADD_FAILURE() << "bad data package";
            return std::nullopt;
        }
        return package;
    }

    // The whole stream, the command being acknowledged; confirms where a host does.
    std::vector<Bytes> TakeStream() {
        std::vector<Bytes> packages;
        while (const std::optional<Bytes> package = TakeData()) {
            packages.push_back(*package);
            const bool bLast = DakGetU32(package->data()) == DAK_LAST_REPLY;
            EXPECT_TRUE(bLast || package->size() == DAK_PACKAGE_SIZE);
            if (bLast || packages.size() % 50 == 0) {
                EXPECT_TRUE(Take().empty()) << "no wait after " << packages.size();
                Put(Control(DAK_SUCCESS));
            }
            if (bLast) {
                break;
            }
        }
        EXPECT_TRUE(Take().empty());
        return packages;
    }

    // What a pull brings, by name; fails the test when the stream is not sound.
    std::vector<CFileRecord> Pull(std::u16string_view strSource,
                                  const std::vector<std::u16string>& names) {
        Put(Command(8, PullPayload(strSource, names)));
        EXPECT_EQ(TakeWord(), DAK_SUCCESS);
        return Parse(TakeStream());
    }

    static std::vector<CFileRecord> Parse(const std::vector<Bytes>& packages) {
        Bytes stream;
        for (const Bytes& package : packages) {
            stream.insert(stream.end(), package.begin() + 14, package.end());
        }
        std::vector<CFileRecord> files;
        if (stream.size() < 8 || DakGetU32(stream.data()) != 1) {
            ADD_FAILURE() << "no stream";
            return files;
        }
        std::size_t dwAt = 8;
        for (std::uint32_t n = DakGetU32(stream.data() + 4); n > 0 && dwAt + 26 <= stream.size();
             --n) {
            CFileRecord file;
            const std::uint8_t* lpHead = stream.data() + dwAt;
            const std::size_t dwSize = DakGetU32(lpHead);
            file.ftCreation = DakGetU32(lpHead + 8) | (std::uint64_t{DakGetU32(lpHead + 12)} << 32);
            file.ftLastWrite =
                DakGetU32(lpHead + 16) | (std::uint64_t{DakGetU32(lpHead + 20)} << 32);
            for (dwAt += 24; dwAt + 1 < stream.size(); dwAt += 2) {
                const std::uint16_t wUnit = DakGetU16(stream.data() + dwAt);
                if (wUnit == 0) {
                    break;
                }
                file.strName.push_back(static_cast<char16_t>(wUnit));
            }
            dwAt += 2;
            if (dwAt + dwSize > stream.size()) {
                ADD_FAILURE() << "the stream is too short";
                break;
            }
            file.data.assign(stream.begin() + static_cast<std::ptrdiff_t>(dwAt),
                             stream.begin() + static_cast<std::ptrdiff_t>(dwAt + dwSize));
            dwAt += dwSize;
            files.push_back(std::move(file));
        }
        EXPECT_EQ(dwAt, stream.size()) << "the stream is not what its count says";
        return files;
    }

    void WriteFile(const std::string& strName, const Bytes& data) const {
        const std::filesystem::path path = Root() / PathOf(strName);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()),
                   static_cast<std::streamsize>(data.size()));
    }

    std::optional<Bytes> ReadFile(const std::string& strName) const {
        std::ifstream file(Root() / PathOf(strName), std::ios::binary);
        if (!file) {
            return std::nullopt;
        }
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }

    // Everything below the folder of the test, the root and what lies beside it.
    std::vector<std::string> Tree() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_base)) {
            names.push_back(NameOf(entry.path().lexically_relative(m_base)));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    const std::filesystem::path m_base = MakeTemporaryFolder("dak-agent-test-");
    std::unique_ptr<agent::CDevice> m_pDevice;
    std::unique_ptr<agent::CAgentCore> m_pCore;
};
