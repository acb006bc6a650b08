// Which directory a set of named paths is taken relative to when the directory above most of them
// moves: paths that share a beginning form a group, whose root is what they share.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

// What both paths begin with, by whole components and whatever their letter case, as the first has
// it; without backslash at the end, and empty when there is nothing.
std::wstring commonPathPart(const std::wstring& first, const std::wstring& second);

class PathGroups {
public:
    // oldRoot  the directory that moves
    explicit PathGroups(std::wstring oldRoot);

    // Puts a path into a group: that of what it shares with oldRoot, or else one of its own kind,
    // whose root gets shorter as more join it.
    void add(const std::wstring& key, const std::wstring& path);

    // The root of the group that the key's path is in.
    std::optional<std::wstring> rootOf(const std::wstring& key) const;

private:
    struct Group {
        std::wstring root;
        int counter; // -1: shares its root with oldRoot; otherwise the paths in it
    };

    std::wstring oldRoot_;
    std::vector<Group> groups_;
    std::map<std::wstring, std::size_t> members_; // key to group
};
