// What "zopctl hosting check" finds out before anything is changed, so that a check that cannot
// work does not end halfway, with accounts made already.
#pragma once

#include "tools/zopctl/exit_code.h"
#include "tools/zopctl/hosting_arguments.h"

#include <string>

namespace zopctl {

// Ends the command with a message, and what can be done about it.
struct HostingStop {
    ExitCode code = ExitCode::Success;
    std::wstring message = {};
    std::wstring remedy = {};
};

struct HostingFound {
    bool isThere = false; // the root, as a directory
    bool isFile = false;  // or something else
};

// Looks at the root, the configuration, the panel's database and the groups. Throws HostingStop.
HostingFound lookAtHosting(const HostingCheckOptions& options);

} // namespace zopctl
