#include "tools/zopconfigsvc/arguments.h"

#include "runtime/text.h"

#include <CLI/CLI.hpp>

namespace zopconfigsvc {

namespace {

constexpr const char* footer = R"(
Serves the panel's configuration values, which are kept in the registry, to the
panel's programs over a named pipe. --install and --remove need an
administrator, and so does --console.

Exit codes:
  0  done; --console: ended by Ctrl+C
  2  the command line is wrong
  3  nothing to do: it is installed already, or not installed
  4  failed

Examples:
  zopconfigsvc --install
  zopconfigsvc --console
  zopconfigsvc --console --pipe zoptest)";

} // namespace

zopctl::Parsed<ServiceOptions> parseArguments(const std::vector<std::wstring>& arguments) {
    zopctl::Parsed<ServiceOptions> parsed;
    ServiceOptions options;
    zopctl::CommandParser parser("zopconfigsvc", "The configuration service of the hosting panel.",
                                 footer);
    CLI::App& app = parser.app();
    struct Row {
        const char* name;
        ServiceOptions::Action action;
        const char* text;
    };
    constexpr Row rows[] = {
        {"--console", ServiceOptions::Action::Console, "Serves in the foreground until Ctrl+C"},
        {"--install", ServiceOptions::Action::Install,
         "Makes it a service that starts with Windows"},
        {"--remove", ServiceOptions::Action::Remove, "Stops and removes the service"},
        {"--service", ServiceOptions::Action::Serve, "How Windows starts the service"},
    };
    std::vector<const char*> chosen;
    for (const Row& row : rows) {
        app.add_flag_callback(
            row.name,
            [&options, &chosen, &row] {
                options.action = row.action;
                chosen.push_back(row.name);
            },
            row.text);
    }
    bool version = false;
    app.add_flag("--version", version, "Prints the version");
    const CLI::Option* const pipe =
        parser.addValue("--pipe", options.pipe, "NAME",
                        "With --console: the pipe to serve, instead of the configured one");
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    if (version) {
        parsed.text = L"zopconfigsvc " + toWide(ZOP_VERSION);
        return parsed;
    }
    if (chosen.empty()) {
        parser.fail(parsed, L"What is it to do: --console or --install?");
    } else if (chosen.size() > 1) {
        parser.fail(parsed,
                    toWide(chosen[0]) + L" and " + toWide(chosen[1]) + L" contradict each other.");
    } else if (pipe->count() != 0 && options.action != ServiceOptions::Action::Console) {
        parser.fail(parsed, L"--pipe goes with --console. The service takes the pipe that the "
                            L"configuration value ZOP_pipe names.");
    } else {
        parsed.options = std::move(options);
    }
    return parsed;
}

} // namespace zopconfigsvc
