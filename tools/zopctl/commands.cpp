#include "tools/zopctl/commands.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tools/zopctl/data_move_command.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/tree_compare_command.h"

#include <algorithm>
#include <exception>

namespace zopctl {

namespace {

std::wstring helpText() {
    std::wstring text = L"zopctl relocates and checks the data of the hosting panel.\n"
                        L"\n"
                        L"Commands:\n";
    for (const Command& command : commands()) {
        std::wstring call = std::wstring(L"  zopctl ") + command.group + L" " + command.name +
                            L" " + command.arguments;
        call.resize(std::max<std::size_t>(call.size() + 2, 38), L' ');
        text += call + command.summary + L"\n";
    }
    return text + L"\n"
                  L"Help: zopctl COMMAND --help, for example: zopctl data move --help";
}

bool asksForHelp(const std::wstring& word) {
    return word == L"--help" || word == L"-h" || word == L"/?" || word == L"-?" || word == L"help";
}

bool equal(const std::wstring& word, const wchar_t* name) {
    return ::CompareStringOrdinal(word.c_str(), -1, name, -1, TRUE) == CSTR_EQUAL;
}

// What to say when no command has these words for its name.
std::wstring explainUnknown(const std::vector<std::wstring>& arguments) {
    const std::wstring asked =
        arguments.size() > 1 ? arguments[0] + L" " + arguments[1] : arguments[0];
    std::vector<std::wstring> names;
    for (const Command& command : commands()) {
        names.push_back(std::wstring(command.group) + L" " + command.name);
        if (equal(arguments[0], command.group) && arguments.size() == 1) {
            return L"\"" + arguments[0] + L"\" needs a second word: zopctl " + names.back() + L" " +
                   command.arguments;
        }
        if (equal(arguments[0], command.name)) {
            return L"There is no command \"" + arguments[0] + L"\"; did you mean \"" +
                   names.back() + L"\"?";
        }
    }
    const std::wstring guess = nearest(asked, names);
    return L"There is no command \"" + asked + L"\"" +
           (guess.empty() ? L"." : L"; did you mean \"" + guess + L"\"?");
}

ExitCode dispatch(std::vector<std::wstring> arguments, Console& console) {
    if (!arguments.empty() && arguments[0] == L"help" && arguments.size() > 1) {
        // "help data move" is "data move --help".
        arguments.erase(arguments.begin());
        arguments.push_back(L"--help");
    }
    if (arguments.empty()) {
        console.errorLine(helpText());
        return ExitCode::Usage;
    }
    if (asksForHelp(arguments[0]) || (arguments.size() == 2 && asksForHelp(arguments[1]))) {
        console.line(helpText());
        return ExitCode::Success;
    }
    if (arguments.size() > 1) {
        for (const Command& command : commands()) {
            if (equal(arguments[0], command.group) && equal(arguments[1], command.name)) {
                return command.run({arguments.begin() + 2, arguments.end()}, console);
            }
        }
    }
    console.errorLine(explainUnknown(arguments) + L"\nAll commands: zopctl --help");
    return ExitCode::Usage;
}

} // namespace

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {L"data", L"move", L"SOURCE TARGET", L"moves a directory to another place", runDataMove},
        {L"tree", L"compare", L"A B", L"compares two directories", runTreeCompare},
    };
    return table;
}

ExitCode runCommandLine(const std::vector<std::wstring>& arguments, Console& console) {
    try {
        return dispatch(arguments, console);
    } catch (const vexception& e) {
        console.errorLine(L"Error: " + e.message());
    } catch (const std::exception& e) {
        console.errorLine(L"Error: " + toWide(e.what()));
    }
    return ExitCode::Failed;
}

} // namespace zopctl
