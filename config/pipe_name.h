// The name of the configuration service's pipe, as "ZOP_pipe" gives it.
#pragma once

#include <string>

namespace config {

inline constexpr wchar_t defaultPipeName[] = L"zoppipe";

// The path of the pipe on this machine. name is a pipe's name alone or with "\\.\pipe\" before it;
// empty stands for defaultPipeName. Throws ArgumentException for a pipe of another machine and for
// what is no pipe's name.
std::wstring pipePath(const std::wstring& name);

// The same for what the registry has, which is read now: defaultPipeName when it has nothing.
// Throws also vexception when the value is there and is no string, or cannot be read.
std::wstring configuredPipePath();

} // namespace config
