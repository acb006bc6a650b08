#include "security/hosting/template_tree.h"

#include "runtime/files/path.h"
#include "security/hosting/hosting_template.h"

#include <algorithm>

namespace HostingSecurity {

namespace {

TemplateNode& childOf(TemplateNode& node, std::wstring_view name) {
    if (name == L"*") {
        if (!node.any) {
            node.any = std::make_unique<TemplateNode>();
        }
        return *node.any;
    }
    for (const auto& [known, child] : node.children) {
        if (RunTime::equalNames(known, name)) {
            return *child;
        }
    }
    return *node.children.emplace_back(name, std::make_unique<TemplateNode>()).second;
}

void append(AceList& to, const AceList& from) {
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace

TemplateTree::TemplateTree(const std::vector<DiskSecurity::PolicyEntry>& entries) {
    for (const DiskSecurity::PolicyEntry& entry : entries) {
        TemplateNode& node = nodeOf(entry.path + L"\\" + entry.subPath);
        node.named = true;
        node.protects |= (entry.entryFlags & entryFlag::protects) != 0;
        node.isForeign |= (entry.entryFlags & entryFlag::foreign) != 0;
        if (entry.account.sid && entry.accessMask != 0) {
            const bool denies = (entry.entryFlags & entryFlag::denies) != 0;
            appendAce(denies ? node.denials : node.grants,
                      denies ? ACCESS_DENIED_ACE_TYPE : ACCESS_ALLOWED_ACE_TYPE, entry.aceFlags,
                      entry.accessMask, entry.account.sid);
        }
    }
}

// The path begins with "[Root]", and its names have been vetted.
TemplateNode& TemplateTree::nodeOf(const std::wstring& path) {
    TemplateNode* node = &root_;
    std::size_t at = path.find_first_of(L"\\/");
    while (at < path.size()) {
        const std::size_t end = std::min(path.find_first_of(L"\\/", at + 1), path.size());
        if (end > at + 1) {
            node = &childOf(*node, std::wstring_view(path).substr(at + 1, end - at - 1));
        }
        at = end;
    }
    return *node;
}

TemplateNodes TemplateTree::below(const TemplateNodes& directory, std::wstring_view name) {
    TemplateNodes nodes;
    for (const TemplateNode* node : directory) {
        for (const auto& [known, child] : node->children) {
            if (RunTime::equalNames(known, name)) {
                nodes.push_back(child.get());
            }
        }
        if (node->any) {
            nodes.push_back(node->any.get());
        }
    }
    return nodes;
}

bool TemplateTree::areNamed(const TemplateNodes& nodes) {
    return std::ranges::any_of(nodes, &TemplateNode::named);
}

std::vector<std::wstring> TemplateTree::namesBelow(const TemplateNodes& nodes) {
    std::vector<std::wstring> names;
    for (const TemplateNode* node : nodes) {
        for (const auto& [name, child] : node->children) {
            if (std::ranges::none_of(names, [&name = name](const std::wstring& known) {
                    return RunTime::equalNames(known, name);
                })) {
                names.push_back(name);
            }
        }
    }
    return names;
}

bool TemplateTree::haveStars(const TemplateNodes& nodes) {
    return std::ranges::any_of(nodes, [](const TemplateNode* node) { return !!node->any; });
}

bool TemplateTree::areForeign(const TemplateNodes& nodes) {
    return std::ranges::any_of(nodes, &TemplateNode::isForeign);
}

std::shared_ptr<const ItemAccess>
TemplateTree::accessOf(const TemplateNodes& nodes, const std::shared_ptr<const ItemAccess>& above,
                       RunTime::AceSubject kind) {
    if (!areNamed(nodes)) {
        return {above, &above->child(kind)}; // which lives as long as the one above
    }
    AceList entries;
    for (const TemplateNode* node : nodes) {
        append(entries, node->denials);
    }
    for (const TemplateNode* node : nodes) {
        append(entries, node->grants);
    }
    if (kind == RunTime::AceSubject::File) {
        entries = asFileHasThem(entries);
    }
    return std::make_shared<const ItemAccess>(above.get(), kind, entries,
                                              std::ranges::any_of(nodes, &TemplateNode::protects));
}

} // namespace HostingSecurity
