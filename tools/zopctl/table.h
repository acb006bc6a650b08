// Rows in columns, for people.
#pragma once

#include "tools/zopctl/console.h"

#include <string>
#include <vector>

namespace zopctl {

// Columns as wide as what stands in them, up to widest cells: one long path must not push all that
// follows out of sight. The last column is as long as it likes. Rows have the same number of cells.
void printTable(const std::vector<std::vector<std::wstring>>& rows, Console& console,
                int widest = 60);

} // namespace zopctl
