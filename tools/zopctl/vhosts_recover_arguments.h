// What can be asked of "zopctl vhosts recover".
#pragma once

#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopctl {

struct VHostsRecoverOptions {
    bool dryRun = false;
    bool yes = false;
    bool json = false;
};

Parsed<VHostsRecoverOptions> parseVHostsRecover(const std::vector<std::wstring>& arguments);

} // namespace zopctl
