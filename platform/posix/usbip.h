// USB/IP, version 1.1.1: the layouts of the protocol that the Linux kernel documents in
// Documentation/usb/usbip_protocol.rst, as far as a bulk pipe needs them. All integers are
// big-endian. The host's half is platform/posix/usb_node.cpp, the device's half is in agent/;
// they share this header and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

namespace usbip {

// Opening: the host sends a request to import, the device answers it.
inline constexpr std::uint16_t VERSION = 0x0111;
inline constexpr std::uint16_t OP_REQ_IMPORT = 0x8003;
inline constexpr std::uint16_t OP_REP_IMPORT = 0x0003;
inline constexpr char BUS_ID[] = "1-1";

// version u16, code u16, status u32; then the bus id, filled up with zeroes.
inline constexpr std::size_t OP_OFFSET_VERSION = 0;
inline constexpr std::size_t OP_OFFSET_CODE = 2;
inline constexpr std::size_t OP_OFFSET_STATUS = 4;
inline constexpr std::size_t OP_HEADER_SIZE = 8;
inline constexpr std::size_t OP_OFFSET_BUS_ID = 8;
inline constexpr std::size_t BUS_ID_SIZE = 32;
inline constexpr std::size_t OP_REQ_IMPORT_SIZE = OP_HEADER_SIZE + BUS_ID_SIZE;

// The reply to an import: the header above, and with status 0 the description of the device behind
// it, at these offsets of the whole reply.
inline constexpr std::size_t OP_REP_OFFSET_PATH = 8;      // 256 bytes
inline constexpr std::size_t OP_REP_OFFSET_BUS_ID = 264;  // 32 bytes
inline constexpr std::size_t OP_REP_OFFSET_BUSNUM = 296;  // u32
inline constexpr std::size_t OP_REP_OFFSET_DEVNUM = 300;  // u32
inline constexpr std::size_t OP_REP_OFFSET_SPEED = 304;   // u32
inline constexpr std::size_t OP_REP_OFFSET_VENDOR = 308;  // u16
inline constexpr std::size_t OP_REP_OFFSET_PRODUCT = 310; // u16
inline constexpr std::size_t OP_REP_OFFSET_BCD = 312;     // u16
inline constexpr std::size_t OP_REP_OFFSET_CLASS = 314;   // u8 class, subclass, protocol,
                                                          // configuration, configurations,
                                                          // interfaces
inline constexpr std::size_t OP_REP_IMPORT_SIZE = 320;
inline constexpr std::uint32_t SPEED_HIGH = 3;

// Device classes: one of the vendor's own. Its protocol says what kind of DAK device this is.
inline constexpr std::uint8_t CLASS_VENDOR = 0xFF;
inline constexpr std::size_t OP_REP_OFFSET_PROTOCOL = OP_REP_OFFSET_CLASS + 2;
inline constexpr std::uint8_t PROTOCOL_PACED = 0;
inline constexpr std::uint8_t PROTOCOL_PROMPT = 1; // platform/device.h, IsPromptDevice

// Transfers: every message opens with a header of 48 bytes.
inline constexpr std::uint32_t CMD_SUBMIT = 1;
inline constexpr std::uint32_t CMD_UNLINK = 2;
inline constexpr std::uint32_t RET_SUBMIT = 3;
inline constexpr std::uint32_t RET_UNLINK = 4;

inline constexpr std::size_t HEADER_SIZE = 48;
inline constexpr std::size_t OFFSET_COMMAND = 0;
inline constexpr std::size_t OFFSET_SEQNUM = 4;
inline constexpr std::size_t OFFSET_DEVID = 8;      // busnum << 16 | devnum; 0 in answers
inline constexpr std::size_t OFFSET_DIRECTION = 12; // 0 in answers
inline constexpr std::size_t OFFSET_ENDPOINT = 16;  // 0 in answers

// CMD_SUBMIT: behind the header the bytes of a transfer to the device.
inline constexpr std::size_t OFFSET_TRANSFER_FLAGS = 20;
inline constexpr std::size_t OFFSET_BUFFER_LENGTH = 24;
inline constexpr std::size_t OFFSET_START_FRAME = 28;
inline constexpr std::size_t OFFSET_NUMBER_OF_PACKETS = 32; // all ones: not isochronous
inline constexpr std::size_t OFFSET_INTERVAL = 36;
inline constexpr std::size_t OFFSET_SETUP = 40;

// RET_SUBMIT: behind the header the actual_length bytes of a transfer from the device.
inline constexpr std::size_t OFFSET_STATUS = 20; // 0 or a negative error number
inline constexpr std::size_t OFFSET_ACTUAL_LENGTH = 24;

// CMD_UNLINK: the number of the transfer to take back. RET_UNLINK: OFFSET_STATUS is -ECONNRESET
// when it was taken back, 0 when it had been answered before.
inline constexpr std::size_t OFFSET_UNLINK_SEQNUM = 20;
inline constexpr std::int32_t STATUS_UNLINKED = -104;

inline constexpr std::uint32_t DIRECTION_OUT = 0;
inline constexpr std::uint32_t DIRECTION_IN = 1;
inline constexpr std::uint32_t BULK_ENDPOINT = 1;
inline constexpr std::uint32_t DEVICE_ID = 0x00010001;

// The longest transfer that either end accepts.
inline constexpr std::uint32_t MAX_TRANSFER = 2U << 20;

inline std::uint32_t GetU32(const std::uint8_t* lpBytes) {
    return (static_cast<std::uint32_t>(lpBytes[0]) << 24) |
           (static_cast<std::uint32_t>(lpBytes[1]) << 16) |
           (static_cast<std::uint32_t>(lpBytes[2]) << 8) | static_cast<std::uint32_t>(lpBytes[3]);
}

inline void PutU32(std::uint8_t* lpBytes, std::uint32_t dwValue) {
    lpBytes[0] = static_cast<std::uint8_t>(dwValue >> 24);
    lpBytes[1] = static_cast<std::uint8_t>(dwValue >> 16);
    lpBytes[2] = static_cast<std::uint8_t>(dwValue >> 8);
    lpBytes[3] = static_cast<std::uint8_t>(dwValue);
}

inline std::uint16_t GetU16(const std::uint8_t* lpBytes) {
    return static_cast<std::uint16_t>((lpBytes[0] << 8) | lpBytes[1]);
}

inline void PutU16(std::uint8_t* lpBytes, std::uint16_t wValue) {
    lpBytes[0] = static_cast<std::uint8_t>(wValue >> 8);
    lpBytes[1] = static_cast<std::uint8_t>(wValue);
}

} // namespace usbip
