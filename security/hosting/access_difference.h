// Says in words how an item's permissions differ from those of the template:
//
//     missing: d1: modify; this folder, subfolders and files
//     not expected: Everyone: full access; this folder only
#pragma once

#include "security/hosting/item_access.h"

#include <map>
#include <string>

namespace HostingSecurity {

// Looking accounts up takes its time, a domain's above all, and owners of a tree may put any number
// of accounts into their lists. So words are kept, long differences cut short, and when a walk has
// asked for many entries the rest are shown in SDDL, without their accounts' names. One thread at a
// time.
class AccessDifference {
public:
    // present is whole, and does not match.
    std::wstring describe(const ItemAccess& wanted, const RunTime::DescriptorBytes& present);

private:
    std::wstring wordsOf(const RunTime::Ace& ace, RunTime::AceSubject subject);

    // By the entry's bytes and what it is on.
    std::map<std::pair<std::vector<unsigned char>, RunTime::AceSubject>, std::wstring> words_;
};

} // namespace HostingSecurity
