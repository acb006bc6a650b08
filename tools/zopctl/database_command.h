// zopctl database export FILE, database import FILE, database check
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

ExitCode runDatabaseExport(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runDatabaseImport(const std::vector<std::wstring>& arguments, Console& console);
ExitCode runDatabaseCheck(const std::vector<std::wstring>& arguments, Console& console);

} // namespace zopctl
