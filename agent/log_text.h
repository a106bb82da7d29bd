// Texts of the host in lines for the device's owner.
#pragma once

#include <algorithm>
#include <string>

namespace agent {

// With control characters replaced: a name from the host writes no lines of its own and steers no
// terminal.
inline std::string Printable(std::string strText) {
    std::replace_if(
        strText.begin(), strText.end(),
        [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F; }, '?');
    return strText;
}

} // namespace agent
