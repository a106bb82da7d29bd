#include "cli/device_command.h"

#include <string_view>

namespace cli {

std::string JoinArguments(const std::vector<std::string>& arguments) {
    // Everything else means itself in no quotes as well.
    static constexpr std::string_view strPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:,+=@%";
    std::string strLine;
    for (const std::string& strArgument : arguments) {
        strLine += strLine.empty() ? "" : " ";
        if (!strArgument.empty() && strArgument.find_first_not_of(strPlain) == std::string::npos) {
            strLine += strArgument;
            continue;
        }
        strLine += '\'';
        for (const char ch : strArgument) {
            strLine += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
        }
        strLine += '\'';
    }
    return strLine;
}

} // namespace cli
