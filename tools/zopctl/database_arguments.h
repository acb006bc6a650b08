// The options of the database commands of zopctl.
#pragma once

#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopctl {

struct DatabaseOptions {
    std::wstring file;     // export, import
    std::wstring database; // another one than the configuration names; empty: that one
    bool yes = false;
    bool quiet = false;
    bool json = false;
};

enum class DatabaseTask { Export, Import, Check };

Parsed<DatabaseOptions> parseDatabase(DatabaseTask task,
                                      const std::vector<std::wstring>& arguments);

} // namespace zopctl
