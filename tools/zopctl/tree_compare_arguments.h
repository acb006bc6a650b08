// What can be asked of "zopctl tree compare".
#pragma once

#include "relocation/tree_compare.h"
#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopctl {

struct TreeCompareOptions {
    std::wstring first;
    std::wstring second;
    TreeComparison::Options compared;
    bool quiet = false;
    bool json = false;
};

Parsed<TreeCompareOptions> parseTreeCompare(const std::vector<std::wstring>& arguments);

} // namespace zopctl
