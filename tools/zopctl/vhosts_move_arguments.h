// What can be asked of "zopctl vhosts move". The source is empty where none was given: the
// configured place.
#pragma once

#include "tools/zopctl/move_options.h"

#include <string>
#include <vector>

namespace zopctl {

struct VHostsMoveOptions : MoveOptions {
    bool relink = false;
};

Parsed<VHostsMoveOptions> parseVHostsMove(const std::vector<std::wstring>& arguments);

} // namespace zopctl
