// zopctl config get NAME, zopctl config set NAME [VALUE], zopctl config list
//
// All three ask the configuration service. Secrets are neither printed nor, where they are not
// wanted, asked for.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runConfigGet(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runConfigSet(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runConfigList(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
