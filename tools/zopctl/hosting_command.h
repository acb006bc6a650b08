// zopctl hosting check ROOT, zopctl hosting undo FILE
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runHostingCheck(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runHostingUndo(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
