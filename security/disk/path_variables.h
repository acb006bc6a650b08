// The paths of a policy, and the variables that they begin with:
//
//     C:\inetpub                     a path below a drive
//     [HTTPD_VHOSTS_D]               a directory of the panel's configuration
//     [ProgramFiles]\Panel\bin       a folder of Windows, and what lies below it
//     C:\sites [old]\logs            a bracket elsewhere is a letter like any other
//
// A path is absolute and stays where it seems to be: no "." or "..", no share, no stream, no name
// that Windows would read as another one. The same holds for the value of a variable.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace DiskSecurity {

// What may stand in brackets: directories of the configuration, then folders of Windows.
std::vector<std::wstring> pathVariableNames();

// Checks all that can be told of an entry's paths without knowing the values of variables. Throws
// vexception: unknown variables (the known ones are listed), brackets that are not closed, paths
// that are not absolute, a sub-path that leads elsewhere.
void vetPaths(const std::wstring& path, const std::wstring& subPath);

// The same checks for the names of a path below something. Throws vexception.
void vetNames(const std::wstring& path);

// The values on this machine, each read when it is first asked for. One thread at a time.
class PathVariables {
public:
    // path and subPath of an entry as one absolute path in nice form, without a backslash at its
    // end. Throws vexception as vetPaths(), and when a value is missing or no directory.
    std::wstring resolve(const std::wstring& path, const std::wstring& subPath);

    // Throws vexception for an unknown name, vosexception where the system has no value.
    const std::wstring& value(const std::wstring& name);

private:
    std::map<std::wstring, std::wstring> values_;
};

} // namespace DiskSecurity
