// Packages as tests lay them.
#pragma once

#include "link/wire.h"
#include "platform/types.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes U16(std::uint16_t wValue) {
    Bytes bytes(2);
    DakPutU16(bytes.data(), wValue);
    return bytes;
}
inline Bytes U32(std::uint32_t dwValue) {
    Bytes bytes(4);
    DakPutU32(bytes.data(), dwValue);
    return bytes;
}
inline Bytes U64(std::uint64_t qwValue) {
    Bytes bytes(8);
    DakPutU32(bytes.data(), static_cast<std::uint32_t>(qwValue));
    DakPutU32(bytes.data() + 4, static_cast<std::uint32_t>(qwValue >> 32));
    return bytes;
}
// UTF-16LE with its terminator.
inline Bytes Text(std::basic_string_view<WCHAR> text) {
    Bytes bytes;
    for (const WCHAR ch : text) {
        bytes.push_back(static_cast<std::uint8_t>(ch));
        bytes.push_back(static_cast<std::uint8_t>(ch >> 8));
    }
    bytes.resize(bytes.size() + 2);
    return bytes;
}
template <class... TParts>
Bytes Join(const TParts&... parts) {
    Bytes bytes;
    (bytes.insert(bytes.end(), parts.begin(), parts.end()), ...);
    return bytes;
}
// Bytes for a file that differ from place to place and from seed to seed.
inline Bytes Pattern(std::size_t dwBytes, std::uint32_t dwSeed = 1) {
    Bytes bytes(dwBytes);
    std::uint32_t dwState = dwSeed * 2654435761u + 12345u;
    for (std::uint8_t& byte : bytes) {
        dwState = dwState * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(dwState >> 24);
    }
    return bytes;
}

inline Bytes Package(std::uint32_t dwWord, const Bytes& body) {
    return Join(U32(dwWord), U32(static_cast<std::uint32_t>(body.size())), body);
}
inline Bytes Control(std::uint32_t dwWord) {
    return Package(dwWord, {});
}
inline Bytes Ack() {
    return Control(DAK_SUCCESS);
}
inline Bytes Handshake(std::uint32_t dwWord, std::uint32_t dwVersion = DAK_PROTOCOL_VERSION) {
    return Package(dwWord, Join(U32(DAK_LINK_CODE), U32(dwVersion), U32(DAK_MAXPACKAGELENGTH)));
}
template <class... TParts>
Bytes Command(std::uint16_t codeFunc, const TParts&... payload) {
    return Package(DAK_LAST_PACKAGE, Join(U16(codeFunc), payload...));
}
template <class... TParts>
Bytes Response(std::uint16_t codeFunc, std::int32_t nResult, const TParts&... fields) {
    return Package(DAK_LAST_REPLY,
                   Join(U16(codeFunc), U32(static_cast<std::uint32_t>(nResult)), fields...));
}
inline Bytes DataPackage(std::uint32_t dwWord, std::uint16_t codeFunc, const Bytes& data) {
    Bytes package = Package(dwWord, Join(U32(0), U16(codeFunc), data));
    DakPutU32(package.data() + DAK_OFFSET_CHECKSUM, DakChecksum(package.data(), package.size()));
    return package;
}
// The file as a record of a copy's stream, its contents behind it.
struct CFileRecord {
    std::basic_string_view<WCHAR> strName;
    Bytes bytes;
    std::uint64_t ftCreation = 131'000'000'000'000'001;
    std::uint64_t ftLastWrite = 132'000'000'001'234'567;
};
inline Bytes Record(const CFileRecord& file) {
    return Join(U64(file.bytes.size()), U64(file.ftCreation), U64(file.ftLastWrite),
                Text(file.strName), file.bytes);
}

// A whole stream cut into data packages: all full but the last. A stream that ends with a package
// closes with an empty one if bEmptyLast, as the host's sender does.
inline std::vector<Bytes> StreamPackages(std::uint16_t codeFunc, const Bytes& stream,
                                         std::uint32_t dwMore, std::uint32_t dwLast,
                                         bool bEmptyLast) {
    std::vector<Bytes> packages;
    std::size_t dwAt = 0;
    const auto cut = [&](std::uint32_t dwWord, std::size_t dwBytes) {
        const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(dwAt);
        packages.push_back(DataPackage(dwWord, codeFunc,
                                       Bytes(begin, begin + static_cast<std::ptrdiff_t>(dwBytes))));
        dwAt += dwBytes;
    };
    while (stream.size() - dwAt > DAK_DATA_SIZE ||
           (bEmptyLast && stream.size() - dwAt == DAK_DATA_SIZE)) {
        cut(dwMore, DAK_DATA_SIZE);
    }
    cut(dwLast, stream.size() - dwAt);
    return packages;
}

} // namespace test
