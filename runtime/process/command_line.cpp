#include "runtime/process/command_line.h"

namespace RunTime {

std::wstring quoteArgument(const std::wstring& argument) {
    // Some runtimes expand a bare "*" or "?" to file names.
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"*?") == std::wstring::npos) {
        return argument;
    }
    std::wstring quoted = L"\"";
    std::size_t backslashes = 0; // in front of the character at hand
    for (const wchar_t c : argument) {
        if (c == L'"') { // backslashes count double in front of a quotation mark, and only there
            quoted.append(backslashes + 1, L'\\');
        }
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    quoted.append(backslashes, L'\\');
    return quoted + L"\"";
}

std::wstring commandLine(const std::wstring& program, const std::vector<std::wstring>& arguments) {
    std::wstring line = L"\"" + program + L"\"";
    for (const std::wstring& argument : arguments) {
        line.append(L" ").append(quoteArgument(argument));
    }
    return line;
}

} // namespace RunTime
