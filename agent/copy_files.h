// The two directions of the file copy share one function code and the layout of a file's record.
#pragma once

#include <memory>
#include <string>

#include "agent/exchange.h"
#include "agent/payload.h"

namespace agent {

class CDevice;

// A record: size low, size high, creation time, last-write time; then the name, relative to the
// folders of the command, with its terminator; then the contents.
inline constexpr std::size_t RECORD_HEAD_SIZE = 24;

// copy_to_device.cpp
std::unique_ptr<CExchange> OpenCopyToDevice(CDevice& device, const std::u16string& strDest);

// copy_from_device.cpp. The payload stands behind the two folders: the count and the names. Null
// when it does not hold what it announces.
std::unique_ptr<CExchange> OpenCopyFromDevice(CDevice& device, const std::u16string& strSource,
                                              CPayload payload);

inline std::uint64_t DakGetU64(const std::uint8_t* lpBytes) {
    return DakGetU32(lpBytes) | (std::uint64_t{DakGetU32(lpBytes + 4)} << 32);
}

inline void DakPutU64(std::uint8_t* lpBytes, std::uint64_t qwValue) {
    DakPutU32(lpBytes, static_cast<std::uint32_t>(qwValue));
    DakPutU32(lpBytes + 4, static_cast<std::uint32_t>(qwValue >> 32));
}

} // namespace agent
