// Texts of the host in lines for the device's owner.
#pragma once

#include <cstddef>
#include <string>

namespace agent {

// With control characters replaced, of which UTF-8 has some in two bytes: a name from the host
// writes no lines of its own and steers no terminal.
inline std::string Printable(std::string strText) {
    for (std::size_t i = 0; i < strText.size(); ++i) {
        const auto byNext = static_cast<unsigned char>(strText[i]);
        const auto byAhead = static_cast<unsigned char>(i > 0 ? strText[i - 1] : 0);
        if (byNext < 0x20 || byNext == 0x7F) {
            strText[i] = '?';
        } else if (byAhead == 0xC2 && byNext >= 0x80 && byNext < 0xA0) {
            strText.replace(--i, 2, "?");
        }
    }
    return strText;
}

} // namespace agent
