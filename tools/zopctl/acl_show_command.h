// zopctl acl show PATH
#pragma once

#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopctl {

struct AclShowOptions {
    std::wstring path;
    bool json = false;
};

Parsed<AclShowOptions> parseAclShow(const std::vector<std::wstring>& arguments);

ExitCode runAclShow(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
