#include "tools/zopctl/commands.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tools/zopctl/acl_show_command.h"
#include "tools/zopctl/config_command.h"
#include "tools/zopctl/data_move_command.h"
#include "tools/zopctl/database_command.h"
#include "tools/zopctl/hosting_command.h"
#include "tools/zopctl/policy_command.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/tree_compare_command.h"
#include "tools/zopctl/vhosts_move_command.h"
#include "tools/zopctl/vhosts_recover_command.h"

#include <algorithm>
#include <exception>

namespace zopctl {

namespace {

std::wstring fullName(const Command& command) {
    return std::wstring(command.group) + L" " + command.name;
}

// One line for each of the commands: the words to type, and what it does.
std::wstring listOf(const std::vector<Command>& some) {
    std::vector<std::wstring> calls;
    std::size_t width = 38;
    for (const Command& command : some) {
        calls.push_back(L"  zopctl " + fullName(command) + L" " + command.arguments + L"  ");
        width = std::max(width, calls.back().size());
    }
    std::wstring text;
    for (std::size_t i = 0; i < some.size(); ++i) {
        calls[i].resize(width, L' ');
        text += L"\n" + calls[i] + some[i].summary;
    }
    return text;
}

std::wstring helpText(const std::vector<Command>& table) {
    return L"zopctl looks after the data, configuration and permissions of the hosting panel.\n"
           L"\n"
           L"Commands:" +
           listOf(table) +
           L"\n\n"
           L"Help: zopctl COMMAND --help, for example: zopctl data move --help\n"
           L"Version: zopctl --version";
}

bool asksForHelp(const std::wstring& word) {
    return word == L"--help" || word == L"-h" || word == L"/?" || word == L"-?" || word == L"help";
}

bool equal(const std::wstring& word, const wchar_t* name) {
    return ::CompareStringOrdinal(word.c_str(), -1, name, -1, TRUE) == CSTR_EQUAL;
}

// What to say when no command has these words for its name.
std::wstring explainUnknown(const std::vector<std::wstring>& arguments,
                            const std::vector<Command>& table) {
    const std::wstring& first = arguments[0];
    const std::wstring asked = arguments.size() > 1 ? first + L" " + arguments[1] : first;
    std::vector<std::wstring> names;
    std::vector<Command> group;
    std::wstring sameName; // the commands whose second word came first
    for (const Command& command : table) {
        names.push_back(fullName(command));
        if (equal(first, command.group)) {
            group.push_back(command);
        } else if (equal(first, command.name)) {
            sameName += (sameName.empty() ? L"\"" : L" or \"") + names.back() + L"\"";
        }
    }
    if (!group.empty() && arguments.size() == 1) {
        return L"\"" + first + L"\" needs a second word:" + listOf(group);
    }
    const std::wstring none = L"There is no command \"";
    if (group.empty() && !sameName.empty()) {
        return none + first + L"\"; did you mean " + sameName + L"?";
    }
    const std::wstring guess = nearest(asked, names);
    if (!guess.empty()) {
        return none + asked + L"\"; did you mean \"" + guess + L"\"?";
    }
    return none + asked + L"\"" +
           (group.empty() ? L"."
                          : L"; \"" + first + L"\" goes on with one of these:" + listOf(group));
}

ExitCode dispatch(std::vector<std::wstring> arguments, Console& console,
                  const std::vector<Command>& table) {
    if (!arguments.empty() && arguments[0] == L"help" && arguments.size() > 1) {
        // "help data move" is "data move --help".
        arguments.erase(arguments.begin());
        arguments.push_back(L"--help");
    }
    if (arguments.empty()) {
        console.errorLine(helpText(table));
        return ExitCode::Usage;
    }
    if (asksForHelp(arguments[0]) || (arguments.size() == 2 && asksForHelp(arguments[1]))) {
        console.line(helpText(table));
        return ExitCode::Success;
    }
    if (arguments.size() == 1 && arguments[0] == L"--version") {
        console.line(L"zopctl " + toWide(ZOP_VERSION));
        return ExitCode::Success;
    }
    if (arguments.size() > 1) {
        for (const Command& command : table) {
            if (equal(arguments[0], command.group) && equal(arguments[1], command.name)) {
                return command.run({arguments.begin() + 2, arguments.end()}, console);
            }
        }
    }
    console.errorLine(explainUnknown(arguments, table) + L"\nAll commands: zopctl --help");
    return ExitCode::Usage;
}

} // namespace

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {L"acl", L"show", L"PATH", L"shows who may do what with a file or directory", runAclShow},
        {L"data", L"move", L"SOURCE TARGET", L"moves a directory to another place", runDataMove},
        {L"tree", L"compare", L"A B", L"compares two directories", runTreeCompare},
        {L"vhosts", L"move", L"TARGET", L"moves the virtual hosts, and all that names them",
         runVHostsMove},
        {L"vhosts", L"recover", L"", L"puts back a move that was cut off", runVHostsRecover},
        {L"config", L"get", L"NAME", L"prints a configuration value", runConfigGet},
        {L"config", L"set", L"NAME [VALUE]", L"sets a configuration value", runConfigSet},
        {L"config", L"list", L"", L"lists the configuration values", runConfigList},
        {L"database", L"export", L"FILE", L"writes the panel's database into a file",
         runDatabaseExport},
        {L"database", L"import", L"FILE", L"replaces the panel's database by an export",
         runDatabaseImport},
        {L"database", L"check", L"", L"connects to the panel's database and looks at it",
         runDatabaseCheck},
        {L"hosting", L"check", L"ROOT --user U", L"checks and repairs a hosting's permissions",
         runHostingCheck},
        {L"hosting", L"undo", L"FILE", L"puts permissions back that a check replaced",
         runHostingUndo},
        {L"policy", L"show", L"FILE", L"lists the entries of a disk security policy",
         runPolicyShow},
        {L"policy", L"check", L"FILE", L"finds every error in a disk security policy",
         runPolicyCheck},
    };
    return table;
}

ExitCode runCommandLine(const std::vector<std::wstring>& arguments, Console& console,
                        const std::vector<Command>& table) {
    try {
        return dispatch(arguments, console, table);
    } catch (const vexception& e) {
        console.errorLine(L"Error: " + printableLines(e.message()));
    } catch (const std::exception& e) {
        console.errorLine(L"Error: " + toWide(e.what()));
    }
    return ExitCode::Failed;
}

} // namespace zopctl
