// Where the product keeps its policy files.
#pragma once

#include <string>
#include <vector>

namespace DiskSecurity {

// "etc\DiskSecurity" below the product root. Throws vosexception where the configuration does not
// tell the root.
std::wstring policyDirectory();

// The files there whose names end in ".xml", sorted by name; links and directories are none.
// Throws vosexception where there is no such directory.
std::vector<std::wstring> installedPolicyFiles();

} // namespace DiskSecurity
