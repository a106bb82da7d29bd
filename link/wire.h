// The wire format between the library and the agent on the device: package kinds, command words,
// function codes, limits, checksum. Both ends include this header and nothing else of each other.
//
// All integers are little-endian, at the offsets given, unaligned. Text is UTF-16LE with its
// terminator. docs/wire.md shows packages as they look in a trace.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// Records that travel whole (times, listing entries, storages) are taken as they lie in memory.
static_assert(std::endian::native == std::endian::little);

// The head of every package.
struct DAKHEADER {
    std::uint32_t wCommand;      // command word
    std::uint32_t packageLength; // bytes behind the header
};
static_assert(sizeof(DAKHEADER) == 8);

// Command words. All 32 bits are compared.
inline constexpr std::uint32_t DAK_SUCCESS = 0xE000;       // both: acknowledgement
inline constexpr std::uint32_t DAK_CONNECT = 0xE010;       // both: handshake, opens the link
inline constexpr std::uint32_t DAK_PACKAGE = 0xE011;       // host: data package, more follow
inline constexpr std::uint32_t DAK_REPLY_PACKAGE = 0xE012; // device: data package, more follow
inline constexpr std::uint32_t DAK_LAST_PACKAGE = 0xE021;  // host: command, or final data package
inline constexpr std::uint32_t DAK_LAST_REPLY = 0xE022;    // device: response, or final package
inline constexpr std::uint32_t DAK_RETRANSMIT = 0xE0A0;    // both: send the window again
inline constexpr std::uint32_t DAK_ABORT = 0xE0A1;         // both: the stream ends here
inline constexpr std::uint32_t DAK_DISCONNECT = 0xE0FF;    // both: handshake, closes the link

// Function codes. 3, 4, 5, 9 and 11 are not assigned.
enum : std::uint16_t {
    DAK_FUNC_MOVE_FILE = 1,
    DAK_FUNC_DELETE_FILE = 2,
    DAK_FUNC_GET_DEVICE_FREE_SPACE = 6,
    DAK_FUNC_GET_FOLDER_CONTENT = 7,
    DAK_FUNC_TRANSMIT_FILES = 8,
    DAK_FUNC_CREATE_DIRECTORY = 10,
    DAK_FUNC_CREATE_PROCESS = 12,
    DAK_FUNC_KERNEL_IO_CONTROL = 13,
    DAK_FUNC_GET_FILE_INFO = 14,
    DAK_FUNC_CREATE_FILE = 15,
    DAK_FUNC_READ_FILE = 16,
    DAK_FUNC_WRITE_FILE = 17,
    DAK_FUNC_SET_FILE_POINTER = 18,
    DAK_FUNC_CLOSE_FILE = 19,
    DAK_FUNC_COPY_FILE = 20,
    DAK_FUNC_REGISTER_WINDOW_MESSAGE = 21,
    DAK_FUNC_BROADCAST_MESSAGE = 22,
    DAK_FUNC_GET_STORAGE_INFO = 23,
    DAK_FUNC_FORMAT_PARTITION = 24,
    DAK_FUNC_GET_FOLDER_FREE_SPACE = 25,
};

// bDirection of function code 8.
inline constexpr std::uint32_t DAK_FROM_DEVICE = 0;
inline constexpr std::uint32_t DAK_TO_DEVICE = 1;

// Sizes in bytes.
inline constexpr std::uint32_t DAK_HEADER_SIZE = 8;
inline constexpr std::uint32_t DAK_MAXPACKAGELENGTH = 12280; // largest packageLength of a package
inline constexpr std::uint32_t DAK_PACKAGE_SIZE = DAK_HEADER_SIZE + DAK_MAXPACKAGELENGTH;
inline constexpr std::uint32_t DAK_DATA_OFFSET = 14; // data of a data package
inline constexpr std::uint32_t DAK_DATA_SIZE = DAK_PACKAGE_SIZE - DAK_DATA_OFFSET;
inline constexpr std::uint32_t DAK_HANDSHAKE_SIZE = 20;
inline constexpr std::uint32_t DAK_COMMAND_PAYLOAD_OFFSET = 10;

// Packages in one acknowledgement window, and the bytes of a full one.
inline constexpr std::uint32_t DAK_WINDOW_PACKAGES = 50;
inline constexpr std::uint32_t DAK_WINDOW_SIZE = DAK_WINDOW_PACKAGES * DAK_PACKAGE_SIZE;

// Offsets from the first byte of a package.
inline constexpr std::size_t DAK_OFFSET_COMMAND = 0;
inline constexpr std::size_t DAK_OFFSET_LENGTH = 4;
inline constexpr std::size_t DAK_OFFSET_CODE = 8;        // u16, command and response
inline constexpr std::size_t DAK_OFFSET_RESULT = 10;     // i32, response
inline constexpr std::size_t DAK_RESPONSE_FIELDS = 14;   // what an operation adds behind it
inline constexpr std::size_t DAK_OFFSET_CHECKSUM = 8;    // u32, data package
inline constexpr std::size_t DAK_OFFSET_DATA_CODE = 12;  // u16, data package
inline constexpr std::size_t DAK_OFFSET_LINK_CODE = 8;   // u32, handshake
inline constexpr std::size_t DAK_OFFSET_VERSION = 12;    // u32, handshake
inline constexpr std::size_t DAK_OFFSET_MAX_LENGTH = 16; // u32, handshake

// Fixed values of the handshake.
inline constexpr std::uint32_t DAK_LINK_CODE = 10;
inline constexpr std::uint32_t DAK_PROTOCOL_VERSION = 0x30000; // major version in the high half
inline constexpr std::uint32_t DAK_HANDSHAKE_LENGTH = 12;      // its packageLength

// Result words of a device that says more than failure.
inline constexpr std::int32_t DAK_RESULT_NO_SPACE = -1;
inline constexpr std::int32_t DAK_RESULT_REFUSED = -2;

// Texts of the protocol, in characters with the terminator.
inline constexpr std::uint32_t DAK_MAX_NAME = 260;

inline std::uint16_t DakGetU16(const std::uint8_t* lpBytes) {
    return static_cast<std::uint16_t>(lpBytes[0] | (lpBytes[1] << 8));
}

inline std::uint32_t DakGetU32(const std::uint8_t* lpBytes) {
    return static_cast<std::uint32_t>(lpBytes[0]) | (static_cast<std::uint32_t>(lpBytes[1]) << 8) |
           (static_cast<std::uint32_t>(lpBytes[2]) << 16) |
           (static_cast<std::uint32_t>(lpBytes[3]) << 24);
}

inline void DakPutU16(std::uint8_t* lpBytes, std::uint16_t wValue) {
    lpBytes[0] = static_cast<std::uint8_t>(wValue);
    lpBytes[1] = static_cast<std::uint8_t>(wValue >> 8);
}

inline void DakPutU32(std::uint8_t* lpBytes, std::uint32_t dwValue) {
    lpBytes[0] = static_cast<std::uint8_t>(dwValue);
    lpBytes[1] = static_cast<std::uint8_t>(dwValue >> 8);
    lpBytes[2] = static_cast<std::uint8_t>(dwValue >> 16);
    lpBytes[3] = static_cast<std::uint8_t>(dwValue >> 24);
}

inline void DakPutHeader(std::uint8_t* lpPackage, std::uint32_t wCommand,
                         std::uint32_t packageLength) {
    DakPutU32(lpPackage + DAK_OFFSET_COMMAND, wCommand);
    DakPutU32(lpPackage + DAK_OFFSET_LENGTH, packageLength);
}

inline DAKHEADER DakGetHeader(const std::uint8_t* lpPackage) {
    return {DakGetU32(lpPackage + DAK_OFFSET_COMMAND), DakGetU32(lpPackage + DAK_OFFSET_LENGTH)};
}

// The 20 bytes of a handshake package, DAK_CONNECT or DAK_DISCONNECT.
inline void DakPutHandshake(std::uint8_t* lpPackage, std::uint32_t wCommand,
                            std::uint32_t dwProtocolVersion) {
    DakPutHeader(lpPackage, wCommand, DAK_HANDSHAKE_LENGTH);
    DakPutU32(lpPackage + DAK_OFFSET_LINK_CODE, DAK_LINK_CODE);
    DakPutU32(lpPackage + DAK_OFFSET_VERSION, dwProtocolVersion);
    DakPutU32(lpPackage + DAK_OFFSET_MAX_LENGTH, DAK_MAXPACKAGELENGTH);
}

// The checksum of a data package of dwPackageBytes bytes in all (at least 12): the 32-bit sum of
// every byte from offset 12 on.
inline std::uint32_t DakChecksum(const std::uint8_t* lpPackage, std::size_t dwPackageBytes) {
    std::uint32_t dwSum = 0;
    for (std::size_t i = DAK_OFFSET_DATA_CODE; i < dwPackageBytes; ++i) {
        dwSum += lpPackage[i];
    }
    return dwSum;
}
