#include "tools/zopctl/vhosts_move_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* introduction = R"(
TARGET is a whole path. Moves the directory that holds all hosted sites, with the
homes of their accounts, and brings FTP, IIS sites, document roots, permissions,
ASP.NET, PHP and webmail settings, installer values and the configuration into
line. Looks first and asks before anything is changed. FTP is down meanwhile.
Ctrl+C, or an error, puts everything back.
)";

constexpr const char* examples = R"(
Examples:
  zopctl vhosts move D:\vhosts --dry-run
  zopctl vhosts move D:\vhosts --verify --relink)";

} // namespace

Parsed<VHostsMoveOptions> parseVHostsMove(const std::vector<std::wstring>& arguments) {
    Parsed<VHostsMoveOptions> parsed;
    VHostsMoveOptions options;
    CommandParser parser("zopctl vhosts move", "Moves the virtual hosts to another place.",
                         std::string(introduction) + MoveOptionsParser::streamsHelp +
                             MoveOptionsParser::exitCodesHelp + examples);
    parser.addPositional("TARGET", options.target,
                         "Where they are to be: new, or an existing directory");
    CLI::Option* source =
        parser.addValue("--source", options.source, "DIR",
                        "Where they are, if not where the configuration says (HTTPD_VHOSTS_D)");
    parser.app().add_flag("--relink", options.relink,
                          "Points links that name the old place by its full path at the new one");
    MoveOptionsParser common(parser, options);
    if (!parser.parse(arguments, parsed) || !common.finish(parsed)) {
        return parsed;
    }
    if (source->count() != 0 && options.source.empty()) {
        parser.fail(parsed, L"--source is empty; leave it out to move the configured place.");
        return parsed;
    }
    parsed.options = std::move(options);
    return parsed;
}

} // namespace zopctl
