// Makes this program a service of Windows, and undoes it.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

namespace zopconfigsvc {

// Both print what they did, or why there was nothing to do (Refused). Throw vexception.
zopctl::ExitCode install(zopctl::Console& console);
zopctl::ExitCode remove(zopctl::Console& console);

} // namespace zopconfigsvc
