// What can be asked of "zopctl data move".
#pragma once

#include "tools/zopctl/move_options.h"

#include <string>
#include <vector>

namespace zopctl {

struct DataMoveOptions : MoveOptions {
    bool copy = false;
};

Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments);

} // namespace zopctl
