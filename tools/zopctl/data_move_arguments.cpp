#include "tools/zopctl/data_move_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* introduction = R"(
SOURCE and TARGET are whole paths. Looks first and asks before anything is
changed. A move on one drive is a rename; otherwise everything is copied and the
old directory removed at the end. Ctrl+C, or an error, puts everything back.
)";

constexpr const char* examples = R"(
Examples:
  zopctl data move C:\panel\data D:\panel\data
  zopctl data move "C:\my data" "D:\my data" --verify --yes
  zopctl data move C:\panel\data D:\panel\data --dry-run)";

} // namespace

Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments) {
    Parsed<DataMoveOptions> parsed;
    DataMoveOptions options;
    CommandParser parser("zopctl data move", "Moves a directory to another place.",
                         std::string(introduction) + MoveOptionsParser::streamsHelp +
                             MoveOptionsParser::exitCodesHelp + examples);
    parser.addPositional("SOURCE", options.source, "The directory to move");
    parser.addPositional("TARGET", options.target,
                         "Where it is to be: new, or an existing directory");
    parser.app().add_flag("--copy", options.copy, "Copies even where a rename would do");
    MoveOptionsParser common(parser, options);
    if (parser.parse(arguments, parsed) && common.finish(parsed)) {
        parsed.options = std::move(options);
    }
    return parsed;
}

} // namespace zopctl
