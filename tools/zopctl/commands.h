// The commands of zopctl: one row and one source file each.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <string>
#include <vector>

namespace zopctl {

struct Command {
    const wchar_t* group; // "data"
    const wchar_t* name;  // "move"
    const wchar_t* arguments;
    const wchar_t* summary;
    ExitCode (*run)(const std::vector<std::wstring>& arguments, Console& console);
};

const std::vector<Command>& commands();

// Finds the command and runs it; arguments without the program's name. No exception leaves it.
ExitCode runCommandLine(const std::vector<std::wstring>& arguments, Console& console,
                        const std::vector<Command>& table = commands());

} // namespace zopctl
