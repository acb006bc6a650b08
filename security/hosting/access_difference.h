// Says in words how an item's permissions differ from those of the template:
//
//     missing: d1: modify; this folder, subfolders and files
//     not expected: Everyone: full access; this folder only
#pragma once

#include "security/hosting/item_access.h"

#include <map>
#include <string>

namespace HostingSecurity {

// Keeps words that it has found: looking accounts up takes its time. One thread at a time.
class AccessDifference {
public:
    // present is whole, and does not match.
    std::wstring describe(const ItemAccess& wanted, const RunTime::DescriptorBytes& present);

private:
    const std::wstring& wordsOf(const RunTime::Ace& ace, RunTime::AceSubject subject);

    // By the entry's bytes and what it is on. Owners of a tree may put any number of accounts into
    // their lists, so it is emptied when it has grown.
    std::map<std::pair<std::vector<unsigned char>, RunTime::AceSubject>, std::wstring> words_;
};

} // namespace HostingSecurity
