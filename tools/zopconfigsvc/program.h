// zopconfigsvc.exe: the configuration service as a Windows service, or in the foreground, and its
// installation. docs/config-service.md tells how it is used.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopconfigsvc {

// Runs until the work is done or, for the service, until it is stopped; arguments without the
// program's name. No exception leaves it.
zopctl::ExitCode runCommandLine(const std::vector<std::wstring>& arguments,
                                zopctl::Console& console);

} // namespace zopconfigsvc
