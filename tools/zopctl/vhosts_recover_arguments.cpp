#include "tools/zopctl/vhosts_recover_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* footer = R"(
A move keeps a record while it works. Where it was cut off, by a loss of power for
example, this reads the record, shows what had been begun, asks, and puts everything
back: settings, accounts, sites and the directory. Copies are left in the new place
for you to look at and remove. Where the removal of the old place had begun, the new
one is whole, and only the record is removed.

Exit codes:
  0  everything is as it was before the move, or there was nothing to do
  2  the command line is wrong
  3  refused: another move runs, the record cannot be trusted, or something has to
     be done by hand first; nothing was changed
  4  failed; nothing was changed
  5  answered with no; nothing was changed
  6  not everything could be put back: remove the cause and run it again
  7  done; the output lists what is left to look at

Example:
  zopctl vhosts recover --dry-run)";

} // namespace

Parsed<VHostsRecoverOptions> parseVHostsRecover(const std::vector<std::wstring>& arguments) {
    Parsed<VHostsRecoverOptions> parsed;
    VHostsRecoverOptions options;
    CommandParser parser("zopctl vhosts recover",
                         "Puts back a move of the virtual hosts that was cut off.", footer);
    parser.app().add_flag("--dry-run", options.dryRun, "Only shows what would be done");
    parser.app().add_flag("-y,--yes", options.yes, "Starts without asking");
    parser.addJson(options.json);
    if (parser.parse(arguments, parsed)) {
        parsed.options = options;
    }
    return parsed;
}

} // namespace zopctl
