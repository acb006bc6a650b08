#include "relocation/vhosts/path_groups.h"

#include "runtime/exception.h"

#include <algorithm>

namespace {

// The end of the component that begins there.
std::size_t endOfComponent(std::wstring_view path, std::size_t begin) {
    return std::min(path.find_first_of(L"\\/", begin), path.size());
}

// The end of the first component, which a share is as a whole.
std::size_t endOfRoot(std::wstring_view path) {
    const bool share = path.size() > 2 && path.find_first_not_of(L"\\/") == 2;
    if (!share) {
        return endOfComponent(path, 0);
    }
    const std::size_t server = endOfComponent(path, 2);
    return server == path.size() ? server : endOfComponent(path, server + 1);
}

bool equalRoots(std::wstring_view first, std::wstring_view second) {
    const auto plain = [](std::wstring_view root) {
        std::wstring text(root);
        std::replace(text.begin(), text.end(), L'/', L'\\');
        return text;
    };
    return RunTime::equalNames(plain(first), plain(second));
}

// Nice and absolute. A text that is no path stays as it is: it must be in a group, too.
std::wstring absolutePath(const std::wstring& path) {
    try {
        return RunTime::withoutTrailingBackslash(RunTime::nicePath(RunTime::longPath(path)));
    } catch (const ArgumentException&) {
        return path;
    } catch (const vosexception&) {
        return path;
    }
}

std::wstring withoutBackslashes(std::wstring path) {
    path.resize(path.find_last_not_of(L"\\/") + 1);
    return path;
}

} // namespace

std::wstring commonPathPart(const std::wstring& first, const std::wstring& second) {
    const std::wstring one = RunTime::nicePath(first);
    const std::wstring other = RunTime::nicePath(second);
    std::size_t end = endOfRoot(one); // of what is common, and the same in both
    if (end == 0 || end != endOfRoot(other) ||
        !equalRoots(one.substr(0, end), other.substr(0, end))) {
        return {};
    }
    while (end < one.size() && end < other.size()) {
        const std::size_t begin = end + 1;
        const std::size_t next = endOfComponent(one, begin);
        const auto name = std::wstring_view(one).substr(begin, next - begin);
        if (RunTime::isDotEntry(name) || next != endOfComponent(other, begin) ||
            !RunTime::equalNames(name, std::wstring_view(other).substr(begin, next - begin))) {
            break;
        }
        end = next;
    }
    return first.substr(0, first.size() - one.size() + end);
}

PathGroups::PathGroups(std::wstring oldRoot) : oldRoot_(std::move(oldRoot)) {}

void PathGroups::add(const std::wstring& key, const std::wstring& path) {
    members_[key] = groupOf(path);
}

std::optional<std::wstring> PathGroups::rootOf(const std::wstring& key) const {
    const auto member = members_.find(key);
    if (member == members_.end()) {
        return std::nullopt;
    }
    return groups_[member->second].root;
}

std::size_t PathGroups::groupOf(const std::wstring& path) {
    std::wstring shared = commonPathPart(RunTime::nicePath(path), oldRoot_);
    if (!shared.empty()) {
        std::replace(shared.begin(), shared.end(), L'/', L'\\');
        const auto [group, opened] = shared_.try_emplace(shared, groups_.size());
        return opened ? open(std::move(shared), -1) : group->second;
    }
    const std::wstring absolute = absolutePath(path);
    const auto [known, opened] =
        others_.try_emplace(absolute.substr(0, endOfRoot(absolute)), groups_.size());
    if (!opened) {
        Group& group = groups_[known->second];
        // Nothing in common is possible only between texts that are no paths.
        group.root = commonPathPart(group.root, absolute);
        ++group.counter;
        return known->second;
    }
    const std::wstring parent = RunTime::parentPath(absolute);
    return open(withoutBackslashes(parent.empty() ? absolute : parent), 1);
}

std::size_t PathGroups::open(std::wstring root, int counter) {
    groups_.push_back({std::move(root), counter});
    return groups_.size() - 1;
}
