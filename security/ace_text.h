// Entries of access-control lists in words:
//
//     BUILTIN\Administrators: full access; this folder, subfolders and files
//     Everyone: denied: delete, 0x00004000; files only; inherited
//
// The words say all that the entry says: rights that are named together ("read and execute") are
// all there, and what has no name is given as a number. For people: the wording may change.
#pragma once

#include "security/ace.h"

#include <string>
#include <windows.h>

namespace RunTime {

// What the entry is on: rights and reach are called differently.
enum class AceSubject { Directory, File };

// The account is looked up, which may take its time where a domain has to be asked.
std::wstring describeAce(const Ace& ace, AceSubject subject);

// "read and execute, delete"; "no rights".
std::wstring describeRights(ACCESS_MASK mask, AceSubject subject, bool denied = false);

// "Everyone", "BUILTIN\Users", or "S-1-5-..." where there is no account.
std::wstring describeTrustee(const Sid& sid);

} // namespace RunTime
