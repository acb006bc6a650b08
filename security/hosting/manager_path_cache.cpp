#include "security/hosting/manager_path_cache.h"

#include "runtime/files/path.h"

#include <algorithm>

namespace HostingSecurity {

using RunTime::AceSubject;

ManagerPathCache::ManagerPathCache(const TemplateTree& tree,
                                   const std::shared_ptr<const ItemAccess>& above) {
    steps_.push_back(
        {0, tree.root(), TemplateTree::accessOf(tree.root(), above, AceSubject::Directory)});
}

const ItemAccess* ManagerPathCache::access(const std::wstring& path, AceSubject kind) {
    const std::wstring directory = RunTime::parentPath(path);
    const auto leadsOn = [&](const Step& step) {
        return step.length == 0 ||
               (directory.size() >= step.length &&
                RunTime::equalNames(std::wstring_view(directory).substr(0, step.length),
                                    std::wstring_view(path_).substr(0, step.length)) &&
                (directory.size() == step.length || directory[step.length] == L'\\'));
    };
    while (!leadsOn(steps_.back())) {
        steps_.pop_back();
    }
    path_ = directory;
    const auto stepTo = [&](std::size_t end, AceSubject kindThere) {
        const Step& above = steps_.back();
        const std::size_t begin = above.length == 0 ? 0 : above.length + 1;
        TemplateNodes nodes =
            TemplateTree::below(above.nodes, std::wstring_view(path).substr(begin, end - begin));
        auto access = TemplateTree::accessOf(nodes, above.access, kindThere);
        return Step{end, std::move(nodes), std::move(access)};
    };
    while (steps_.back().length < directory.size()) {
        const std::size_t end =
            std::min(directory.find(L'\\', steps_.back().length + 1), directory.size());
        steps_.push_back(stepTo(end, AceSubject::Directory));
    }
    last_ = path.empty() ? steps_.front() : stepTo(path.size(), kind);
    const auto isForeign = [](const Step& step) { return TemplateTree::areForeign(step.nodes); };
    return std::ranges::any_of(steps_, isForeign) || isForeign(last_) ? nullptr
                                                                      : last_.access.get();
}

} // namespace HostingSecurity
