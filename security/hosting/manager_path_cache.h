// What the items below a root are to have, asked for by their paths. The directories on the way to
// the item last asked for are kept, so asking for one item after the other of a directory costs
// little. One thread at a time.
#pragma once

#include "security/hosting/template_tree.h"

#include <memory>
#include <string>
#include <vector>

namespace HostingSecurity {

class ManagerPathCache {
public:
    // tree outlives the cache; above is what the directory has that holds the root.
    ManagerPathCache(const TemplateTree& tree, const std::shared_ptr<const ItemAccess>& above);

    // path  from the root on, without a backslash at its beginning; empty for the root itself. Null
    // for an item that the template leaves to another hosting. Valid until the next call.
    const ItemAccess* access(const std::wstring& path, RunTime::AceSubject kind);

private:
    struct Step {
        std::size_t length = 0; // of path_
        TemplateNodes nodes;
        std::shared_ptr<const ItemAccess> access;
    };
    std::wstring path_; // of the lowest directory kept
    std::vector<Step> steps_;
    Step last_;
};

} // namespace HostingSecurity
