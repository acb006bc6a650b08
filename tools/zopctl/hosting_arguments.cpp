#include "tools/zopctl/hosting_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* checkFooter = R"(
ROOT is the directory of a domain or web user, below the directory of virtual
hosts (HTTPD_VHOSTS_D). Missing accounts are made with the passwords that the
panel's database has, and permissions that differ are repaired; the old ones are
kept in a file, for "zopctl hosting undo". Contents and owners stay as they are.

Exit codes:
  0  all is right, or was repaired
  1  --read-only: something is not as it should be; all of it is shown
  2  the command line is wrong
  3  refused: nothing was changed; the reason is shown
  4  failed; nothing was changed
  5  cancelled, or answered with no; nothing was changed
  6  failed or cancelled after something was changed; the output says what
  7  done, but some items could not be looked at or repaired

Examples:
  zopctl hosting check C:\vhosts\example.com --user d1 --read-only
  zopctl hosting check C:\vhosts\example.com --user d1
  zopctl hosting check C:\vhosts\example.com\webusers\w1 --webuser --user w1 --parent d1
  zopctl hosting check C:\vhosts\example.com --forwarding)";

constexpr const char* undoFooter = R"(
FILE is the one that the check named. Items that are gone, or that something else
has come in the place of, are passed over and listed. Accounts that the check has
made stay.

Exit codes:
  0  everything is as it was before the repair
  2  the command line is wrong
  3  refused: this is no such file, or not all of one; nothing was changed
  4  failed; nothing was changed
  5  cancelled; nothing was changed
  6  failed or cancelled after some items were put back; run it again
  7  done, but some items could not be put back

Example:
  zopctl hosting undo "C:\panel\data\hosting-undo.txt")";

// What is wrong with the options together; empty when nothing is.
std::wstring contradiction(const HostingCheckOptions& options) {
    if (options.forwarding &&
        (options.webuser || !options.user.empty() || !options.parent.empty())) {
        return L"--forwarding goes without --user, --parent and --webuser: a domain that only "
               L"forwards has no account.";
    }
    if (!options.forwarding && options.user.empty()) {
        return L"--user is missing: the name of the account that the domain or web user has. "
               L"(--forwarding for a domain that only forwards.)";
    }
    if (options.webuser && options.parent.empty()) {
        return L"--webuser needs --parent: the name of the domain's own account.";
    }
    if (options.readOnly && options.fast) {
        return L"--read-only and --fast contradict each other: --fast repairs.";
    }
    return {};
}

} // namespace

Parsed<HostingCheckOptions> parseHostingCheck(const std::vector<std::wstring>& arguments) {
    Parsed<HostingCheckOptions> parsed;
    HostingCheckOptions options;
    CommandParser parser("zopctl hosting check",
                         "Checks the accounts and permissions of a hosting, and repairs them.",
                         checkFooter);
    CLI::App& app = parser.app();
    parser.addPositional("ROOT", options.root, "The hosting's directory");
    parser.addValue("--user", options.user, "NAME", "The account of the domain or web user");
    parser.addValue("--parent", options.parent, "NAME", "The account of the domain of a web user");
    app.add_flag("--webuser", options.webuser, "The hosting is that of a web user");
    app.add_flag("--forwarding", options.forwarding, "The domain only forwards: it has no account");
    app.add_flag("--read-only", options.readOnly, "Only looks, and changes nothing");
    app.add_flag("--fast", options.fast,
                 "Looks at the directories that every hosting has, not at what is in them");
    app.add_flag("-y,--yes", options.yes, "Starts without asking");
    app.add_flag("-q,--quiet", options.quiet, "Prints warnings, errors and the result only");
    parser.addJson(options.json);
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    const std::wstring wrong = contradiction(options);
    if (!wrong.empty()) {
        parser.fail(parsed, wrong);
        return parsed;
    }
    parsed.options = std::move(options);
    return parsed;
}

Parsed<HostingUndoOptions> parseHostingUndo(const std::vector<std::wstring>& arguments) {
    Parsed<HostingUndoOptions> parsed;
    HostingUndoOptions options;
    CommandParser parser("zopctl hosting undo",
                         "Puts back the permissions that a check has replaced.", undoFooter);
    parser.addPositional("FILE", options.file, "The file in which the check kept them");
    parser.app().add_flag("--unfinished", options.unfinished,
                          "Takes a file without its end: the machine went down meanwhile");
    parser.addJson(options.json);
    if (parser.parse(arguments, parsed)) {
        parsed.options = std::move(options);
    }
    return parsed;
}

} // namespace zopctl
