// The entries of a policy as a checker of disks reads them: per path, the rights that are expected
// there.
#pragma once

#include "security/disk/path_variables.h"
#include "security/disk/policy_entry.h"

#include <map>
#include <span>
#include <string>
#include <vector>

namespace DiskSecurity {

// Paths as the file system compares them: ordinal, ignoring case.
struct PathLess {
    bool operator()(const std::wstring& left, const std::wstring& right) const noexcept;
};

// By absolute path in nice form; the entries of a path in the order in which they were given.
using EntryCollections = std::map<std::wstring, std::vector<PolicyEntry>, PathLess>;

// Resolves the variables of all entries. Throws vexception where a path cannot be resolved, with
// the path in the outermost frame.
EntryCollections collectEntries(std::vector<PolicyEntry> entries, PathVariables& variables);

// The entries as a policy file, in UTF-8 with a line each; an import gives the same entries again.
// Throws ArgumentException for an entry that a file cannot hold: a mask or flags without a name, a
// well-known account of no known name, a text with a character that XML does not have.
std::string exportEntries(std::span<const PolicyEntry> entries);

} // namespace DiskSecurity
