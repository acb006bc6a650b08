// The command line of zopconfigsvc.
#pragma once

#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopconfigsvc {

struct ServiceOptions {
    enum class Action {
        None,
        Serve, // started by the service manager
        Console,
        Install,
        Remove,
    };
    Action action = Action::None;
    std::wstring pipe; // Console: empty for the registry's
};

zopctl::Parsed<ServiceOptions> parseArguments(const std::vector<std::wstring>& arguments);

} // namespace zopconfigsvc
