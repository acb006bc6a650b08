// zopctl vhosts move TARGET: moves the directory of virtual hosts and all that names it.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runVHostsMove(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
