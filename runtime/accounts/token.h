// The token in force: the thread's while it impersonates, otherwise the process's.
#pragma once

#include "runtime/auto_handle.h"

#include <windows.h>

namespace RunTime {

// access such as TOKEN_QUERY. A thread's token is opened as the process, because the impersonated
// account need not have the right to it. Throws vosexception, "Unable to open token", whose frame
// names the function and line given.
AutoHandle openTokenInForce(DWORD access, const char* function, int line);

} // namespace RunTime
