// zopctl data move SOURCE TARGET
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runDataMove(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
