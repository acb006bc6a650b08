// What can be asked of "zopctl config get", "set" and "list".
#pragma once

#include "tools/zopctl/command_parser.h"

#include <optional>
#include <string>
#include <vector>

namespace zopctl {

struct ConfigGetOptions {
    std::wstring name;
    bool showSecrets = false;
    bool json = false;
};

struct ConfigSetOptions {
    std::wstring name;
    std::optional<std::wstring> value; // "-": on standard input; absent: to be asked for
    bool dword = false;
    bool showSecrets = false;
    bool json = false;
};

struct ConfigListOptions {
    bool showSecrets = false;
    bool json = false;
};

Parsed<ConfigGetOptions> parseConfigGet(const std::vector<std::wstring>& arguments);
Parsed<ConfigSetOptions> parseConfigSet(const std::vector<std::wstring>& arguments);
Parsed<ConfigListOptions> parseConfigList(const std::vector<std::wstring>& arguments);

} // namespace zopctl
