#include "tools/zopctl/table.h"

#include "tools/zopctl/text_format.h"

#include <algorithm>

namespace zopctl {

void printTable(const std::vector<std::vector<std::wstring>>& rows, Console& console, int widest) {
    std::vector<int> widths;
    for (const std::vector<std::wstring>& row : rows) {
        widths.resize(row.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], std::min(cellWidth(row[i]), widest));
        }
    }
    for (const std::vector<std::wstring>& row : rows) {
        std::wstring line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const int blanks = std::max(widths[i] - cellWidth(row[i]), 0) + 2;
            line += row[i] + std::wstring(static_cast<std::size_t>(blanks), L' ');
        }
        console.line(line.erase(line.find_last_not_of(L' ') + 1));
    }
}

} // namespace zopctl
