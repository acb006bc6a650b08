// An expanded template as a tree of names: which entries belong to which path below the root.
#pragma once

#include "security/disk/policy_entry.h"
#include "security/hosting/item_access.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace HostingSecurity {

// One path of a template. A path that only leads to others has nothing but these.
struct TemplateNode {
    bool named = false;     // the template says something of the item
    bool protects = false;  // from inheritance
    bool isForeign = false; // the item and all below are left alone
    AceList denials;
    AceList grants;
    std::vector<std::pair<std::wstring, std::unique_ptr<TemplateNode>>> children;
    std::unique_ptr<TemplateNode> any; // "*"
};

// The paths that an item fits: one at most by its name, and those with stars. All of them count.
using TemplateNodes = std::vector<const TemplateNode*>;

class TemplateTree {
public:
    explicit TemplateTree(const std::vector<DiskSecurity::PolicyEntry>& entries);

    TemplateNodes root() const { return {&root_}; }
    // Of an item in a directory.
    static TemplateNodes below(const TemplateNodes& directory, std::wstring_view name);

    static bool areNamed(const TemplateNodes& nodes);
    // What is named directly below: by names, and whether by a star.
    static std::vector<std::wstring> namesBelow(const TemplateNodes& nodes);
    static bool haveStars(const TemplateNodes& nodes);
    static bool areForeign(const TemplateNodes& nodes);
    // What an item in a directory that has above is to have.
    static std::shared_ptr<const ItemAccess>
    accessOf(const TemplateNodes& nodes, const std::shared_ptr<const ItemAccess>& above,
             RunTime::AceSubject kind);

private:
    TemplateNode& nodeOf(const std::wstring& path);

    TemplateNode root_;
};

} // namespace HostingSecurity
