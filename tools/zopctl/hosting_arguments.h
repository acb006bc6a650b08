// What can be asked of "zopctl hosting".
#pragma once

#include "tools/zopctl/command_parser.h"

#include <string>
#include <vector>

namespace zopctl {

struct HostingCheckOptions {
    std::wstring root;
    std::wstring user;
    std::wstring parent;
    bool webuser = false;
    bool forwarding = false;
    bool readOnly = false;
    bool fast = false;
    bool yes = false;
    bool quiet = false;
    bool json = false;
};

struct HostingUndoOptions {
    std::wstring file;
    bool unfinished = false;
    bool json = false;
};

Parsed<HostingCheckOptions> parseHostingCheck(const std::vector<std::wstring>& arguments);
Parsed<HostingUndoOptions> parseHostingUndo(const std::vector<std::wstring>& arguments);

} // namespace zopctl
