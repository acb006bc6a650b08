// The drives that scripts/sandbox.sh names in the environment.
#pragma once

#include <cstdlib>
#include <string>

// The root of a drive; empty where there is none.
inline std::wstring testDrive(const wchar_t* variable) {
    const wchar_t* const drive = _wgetenv(variable);
    return drive != nullptr ? drive : L"";
}
