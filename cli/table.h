// Rows of cells as lines whose columns stand below one another on a terminal.
#pragma once

#include <string>
#include <vector>

namespace cli {

enum class Align { Left, Right };

// One line for each row, two blanks between the columns, nothing behind the last. Cells that a row
// lacks are empty. The text is made printable.
std::vector<std::string> FormatTable(const std::vector<std::vector<std::string>>& rows,
                                     const std::vector<Align>& aligns);

} // namespace cli
