#include "cli/table.h"

#include "cli/text.h"

#include <algorithm>
#include <cstddef>

namespace cli {

std::vector<std::string> FormatTable(const std::vector<std::vector<std::string>>& rows,
                                     const std::vector<Align>& aligns) {
    std::vector<int> widths(aligns.size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < std::min(row.size(), widths.size()); ++i) {
            widths[i] = std::max(widths[i], DisplayWidth(Printable(row[i])));
        }
    }
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (const auto& row : rows) {
        std::string strLine;
        for (std::size_t i = 0; i < std::min(row.size(), widths.size()); ++i) {
            const std::string strCell = Printable(row[i]);
            const std::string strGap(static_cast<std::size_t>(widths[i] - DisplayWidth(strCell)),
                                     ' ');
            strLine += i == 0 ? "" : "  ";
            strLine += aligns[i] == Align::Left ? strCell + strGap : strGap + strCell;
        }
        lines.push_back(strLine.substr(0, strLine.find_last_not_of(' ') + 1));
    }
    return lines;
}

} // namespace cli
