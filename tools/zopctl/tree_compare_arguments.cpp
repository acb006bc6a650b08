#include "tools/zopctl/tree_compare_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* compareFooter = R"(
Links are compared as links and not followed. Access times, directory sizes and
the archive attribute are not compared.

Exit codes:
  0  equal
  1  different; every difference is shown
  2  the command line is wrong
  4  could not be compared
  5  cancelled

Example:
  zopctl tree compare C:\panel\data D:\panel\data --no-times)";

} // namespace

Parsed<TreeCompareOptions> parseTreeCompare(const std::vector<std::wstring>& arguments) {
    Parsed<TreeCompareOptions> parsed;
    TreeCompareOptions options;
    bool uncached = false;
    CommandParser parser("zopctl tree compare", "Compares two directories and all they hold.",
                         compareFooter);
    CLI::App& app = parser.app();
    parser.addPositional("A", options.first, "One directory (or file)");
    parser.addPositional("B", options.second, "The other");
    TreeComparison::Options& compared = options.compared;
    const auto leaveOut = [&](const char* name, bool& part, const char* text) {
        app.add_flag_callback(
            name, [&part] { part = false; }, text);
    };
    leaveOut("--no-contents", compared.contents, "Compares sizes, but reads no data");
    leaveOut("--no-streams", compared.streams, "Leaves out named streams");
    leaveOut("--no-attributes", compared.attributes, "Leaves out attributes");
    leaveOut("--no-times", compared.times, "Leaves out times");
    leaveOut("--no-security", compared.security, "Leaves out permissions and audit lists");
    leaveOut("--no-owner", compared.owner, "Leaves out owners and groups");
    app.add_flag("--from-disk", uncached, "Reads past the cache: what the disks really hold");
    app.add_flag("-q,--quiet", options.quiet, "Prints no progress and no result line");
    parser.addJson(options.json);
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    options.compared.uncached =
        uncached ? TreeComparison::Uncached::Both : TreeComparison::Uncached::None;
    parsed.options = std::move(options);
    return parsed;
}

} // namespace zopctl
