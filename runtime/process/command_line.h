// The command line of a program, written so that the program reads back exactly the words it was
// given. Windows passes one text; each program takes it apart by the rules of CommandLineToArgvW
// and of the C runtime, which agree on everything written here.
#pragma once

#include <string>
#include <vector>

namespace RunTime {

// One word, in quotation marks where it needs them. Holds for every word but the first, which is
// read by other rules, and not for batch files: the command interpreter reads those.
std::wstring quoteArgument(const std::wstring& argument);

// program, which has no quotation mark in it, and the arguments.
std::wstring commandLine(const std::wstring& program, const std::vector<std::wstring>& arguments);

} // namespace RunTime
