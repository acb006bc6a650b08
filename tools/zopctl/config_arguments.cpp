#include "tools/zopctl/config_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* getFooter = R"(
Prints the value alone, numbers in decimal.

Exit codes:
  0  printed
  2  the command line is wrong
  3  there is no such value, or it is a secret and --show-secrets is missing
  4  the configuration service cannot be asked

Example:
  zopctl config get PRODUCT_DATA_D)";

constexpr const char* setFooter = R"(
VALUE is the text or number to store; with "-" it is the line on standard input.
A password is better not on the command line, which other programs can see:
leave VALUE out, and it is asked for. In front of a text that begins with a dash
put "--".

Exit codes:
  0  set
  2  the command line, or the number, is wrong
  3  refused: a value of another type has this name
  4  the value cannot be set
  5  the question was not answered

Examples:
  zopctl config set PRODUCT_DATA_D "D:\panel\data"
  zopctl config set Debug 1
  zopctl config set FTPPassword
  type password.txt | zopctl config set FTPPassword -)";

constexpr const char* listFooter = R"(
Lists the values that are stored, and those that the panel knows and that are
not set.

Exit codes:
  0  listed
  2  the command line is wrong
  4  the configuration service cannot be asked)";

void addShowSecrets(CommandParser& parser, bool& value) {
    parser.app().add_flag("--show-secrets", value, "Prints passwords, which are hidden otherwise");
}

template <class Options>
Parsed<Options> parse(CommandParser& parser, Options& options,
                      const std::vector<std::wstring>& arguments) {
    addShowSecrets(parser, options.showSecrets);
    parser.addJson(options.json);
    Parsed<Options> parsed;
    if (parser.parse(arguments, parsed)) {
        parsed.options = std::move(options);
    }
    return parsed;
}

} // namespace

Parsed<ConfigGetOptions> parseConfigGet(const std::vector<std::wstring>& arguments) {
    ConfigGetOptions options;
    CommandParser parser("zopctl config get", "Prints a configuration value.", getFooter);
    parser.addPositional("NAME", options.name, "The value's name");
    return parse(parser, options, arguments);
}

Parsed<ConfigSetOptions> parseConfigSet(const std::vector<std::wstring>& arguments) {
    ConfigSetOptions options;
    std::wstring value;
    CommandParser parser("zopctl config set", "Sets a configuration value.", setFooter);
    parser.addPositional("NAME", options.name, "The value's name");
    const CLI::Option* given =
        parser.addPositional("VALUE", value, "What it is to be, or - for standard input", false);
    parser.app().add_flag("--dword", options.dword,
                          "A new value is to be a number: decimal, or hexadecimal with 0x");
    Parsed<ConfigSetOptions> parsed = parse(parser, options, arguments);
    if (parsed.options && given->count() != 0) {
        parsed.options->value = std::move(value);
    }
    return parsed;
}

Parsed<ConfigListOptions> parseConfigList(const std::vector<std::wstring>& arguments) {
    ConfigListOptions options;
    CommandParser parser("zopctl config list", "Lists the configuration values.", listFooter);
    return parse(parser, options, arguments);
}

} // namespace zopctl
