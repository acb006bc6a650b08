// zopctl policy show FILE, zopctl policy check FILE
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runPolicyShow(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runPolicyCheck(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
