// The fields of a command, taken one behind the other. A field that the bytes do not hold is
// refused and nothing is taken.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "link/wire.h"

namespace agent {

// The longest path that a command may hold, in characters with the terminator.
inline constexpr std::size_t MAX_PATH_CHARS = 32768;

class CPayload {
  public:
    explicit CPayload(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

    bool AtEnd() const { return m_bytes.empty(); }
    std::span<const std::uint8_t> Rest() const { return m_bytes; }

    bool TakeU8(std::uint8_t& value) {
        if (m_bytes.empty()) {
            return false;
        }
        value = m_bytes[0];
        m_bytes = m_bytes.subspan(1);
        return true;
    }

    bool TakeU32(std::uint32_t& dwValue) {
        if (m_bytes.size() < 4) {
            return false;
        }
        dwValue = DakGetU32(m_bytes.data());
        m_bytes = m_bytes.subspan(4);
        return true;
    }

    // A text with its terminator; nMaxChars counts the terminator.
    bool TakeText(std::u16string& strText, std::size_t nMaxChars) {
        std::u16string strTaken;
        for (std::size_t i = 0; i < nMaxChars && m_bytes.size() >= 2 * (i + 1); ++i) {
            const std::uint16_t wUnit = DakGetU16(m_bytes.data() + 2 * i);
            if (wUnit == 0) {
                strText = std::move(strTaken);
                m_bytes = m_bytes.subspan(2 * (i + 1));
                return true;
            }
            strTaken.push_back(static_cast<char16_t>(wUnit));
        }
        return false;
    }

  private:
    std::span<const std::uint8_t> m_bytes;
};

} // namespace agent
