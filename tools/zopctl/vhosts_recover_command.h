// "zopctl vhosts recover": puts back what a move of the virtual hosts has left whose process ended
// before its time.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runVHostsRecover(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
