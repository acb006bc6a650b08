// The words behind a command's name, read in the same manner for every command: the same help, the
// same answers to a mistake. Each command has a struct of options and a function that fills it:
//
//     Parsed<PolicyCheckOptions> parsePolicyCheck(const std::vector<std::wstring>& arguments) {
//         Parsed<PolicyCheckOptions> parsed;
//         PolicyCheckOptions options;
//         CommandParser parser("zopctl policy check", "Checks a disk against the policy.", footer);
//         parser.addPositional("PATH", options.path, "What to check");
//         parser.app().add_flag("--repair", options.repair, "Repairs what differs");
//         parser.addJson(options.json);
//         if (parser.parse(arguments, parsed)) {
//             parsed.options = std::move(options);
//         }
//         return parsed;
//     }
//
// app() is CLI11's own, for everything that has no function here; its users include <CLI/CLI.hpp>.
#pragma once

#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace zopctl {

// A text to print instead of running: an error with how to do better, or the help asked for.
struct Answer {
    std::wstring text;
    bool isError = false;
};

// Either options, or an answer.
template <class Options>
struct Parsed : Answer {
    std::optional<Options> options;
};

class CommandParser {
public:
    // name: with the program's, "zopctl data move". footer: what the help says after the options.
    CommandParser(const char* name, const char* summary, const std::string& footer);
    ~CommandParser();

    CLI::App& app() { return *app_; }

    // A word without dashes, in the order of the calls; the parser keeps no copy: the variables
    // must live until parse() is done.
    CLI::Option* addPositional(const char* name, std::wstring& value, const char* text,
                               bool required = true);
    // "--name VALUE"; label is the word for the value in the help.
    CLI::Option* addValue(const char* name, std::wstring& value, const char* label,
                          const char* text);
    CLI::Option* addJson(bool& value);

    // arguments: the words behind the command's name. False, and the answer, when there is nothing
    // to run.
    bool parse(const std::vector<std::wstring>& arguments, Answer& answer);

    // For what only the command can judge. Returns false, as parse() does.
    bool fail(Answer& answer, const std::wstring& text) const;

private:
    CLI::Option* addText(const char* name, std::wstring& value, const char* text);
    std::wstring positionals() const;
    std::wstring explainExtras() const;
    std::wstring explainMissing() const;

    std::unique_ptr<CLI::App> app_;
};

// Prints an answer and gives the exit code that belongs to it.
ExitCode print(const Answer& answer, Console& console);

// Runs a command with its options, or prints the answer.
template <class Options, class Run>
ExitCode runParsed(const Parsed<Options>& parsed, Console& console, Run run) {
    return parsed.options ? run(*parsed.options) : print(parsed, console);
}

} // namespace zopctl
